// How variables are read and written as text, and what requests are made of them. The requests are
// put to the real driver, whose own cutting and merging they have to get through unharmed.

#include "core/siemens_s7_200.h"
#include "host/request_limits.h"
#include "host/request_plan.h"
#include "tests/text_table.h"
#include <s7200host/variable.h>

#include <QtTest>

#include <cstring>

using namespace s7200;

namespace
{

constexpr int MostReplyData = 222;
constexpr int MostJobData = 212;
constexpr int LargestLimit = 212;

/// What an area has and what the driver must be told of it.
struct Area {
    int units = 4096;
    int replyBytes = 1; ///< A unit's.
    QString name;       ///< By which the driver tells how long a reply is.
};
const QMap<int, Area> SpecialAreas = {
    {12, {10240, 1, ""}}, {16, {64, 1, ""}},    {17, {64, 1, ""}},  {14, {256, 5, "TV"}},
    {18, {256, 5, "T"}},  {15, {256, 3, "CV"}}, {19, {256, 3, "C"}}};

struct Parsed {
    Variable variable;
    QVector<quint32> values;
    QString error;
};

/// An assignment if there is a =, else a variable.
Parsed parsed(const QString& text)
{
    Parsed result;
    text.contains('=') ? parseAssignment(text, &result.variable, &result.values, &result.error)
                       : parseVariable(text, &result.variable, &result.error);
    return result;
}

QString parseError(const QString& text)
{
    return parsed(text).error;
}

/// TYPE:START+UNITS
QString describe(const ReadBlock& block)
{
    return QStringLiteral("%1:%2+%3").arg(block.type).arg(block.start).arg(block.units);
}

COM_INFO* resetDriver(int limit, bool stationEach)
{
    static COM_INFO info;
    info.block_length_limit = limit;
    info.default_station = 2;
    info.per_variable_stations = stationEach ? 1 : 0;
    info.communication_mode = 2;
    SetComInfo(&info);
    PLC_driver.read_list.clear();
    PLC_driver.write_list.clear();
    return &info;
}

/// The request that does not fit its area or the PDU, or the wanted block that none brings whole.
QString misfit(const QList<RW_VAR>& requests, const QVector<ReadBlock>& wanted)
{
    const auto end = [](const ReadBlock& block) { return block.start + block.units; };
    for (const RW_VAR& request : requests) {
        const ReadBlock block = blockOf(request);
        const Area area = SpecialAreas.value(block.type);
        const bool fits = block.units * area.replyBytes <= MostReplyData;
        if (!fits || block.start < 0 || end(block) > area.units || request.name != area.name)
            return describe(block);
    }
    for (const ReadBlock& block : wanted) {
        const auto brings = [&](const RW_VAR& request) {
            const ReadBlock read = blockOf(request);
            return read.type == block.type && read.start <= block.start && end(read) >= end(block);
        };
        if (std::none_of(requests.begin(), requests.end(), brings))
            return describe(block);
    }
    return QString();
}

/// The block limit for these variables, followed by whatever request does not fit with it.
QString limitAndMisfits(const QString& texts)
{
    QVector<Variable> variables;
    for (const QString& text : texts.split(' '))
        variables.append(parsed(text).variable);
    const int limit = RequestLimits().list(variables);
    QVector<ReadBlock> wanted;
    for (const Variable& variable : variables)
        wanted +=
            readBlocks(variable, 2, std::min(limit, RequestLimits().read(variable.area->reads)));
    QString found = QString::number(limit);
    for (const bool stationEach : {false, true}) {
        resetDriver(limit, stationEach);
        ReCreatReadVarList(cyclicRecords(wanted, stationEach));
        found += misfit(PLC_driver.read_list, wanted);
        for (const ReadBlock& block : wanted) {
            PLC_driver.once_read_list.clear();
            RW_VAR record = oneShotRecord(block);
            AddListOnceReadVar(&record, 0);
            found += misfit(PLC_driver.once_read_list, {block});
        }
    }
    return found;
}

QList<WriteStep> stepsOf(const Parsed& write)
{
    return writeSteps(write.variable, write.values,
                      RequestLimits().write(write.variable.area->type));
}

/// The driver's requests for a write, in order; none if a step makes another number than it says.
QList<RW_VAR> requestsOf(const Parsed& write, bool stationEach)
{
    resetDriver(LargestLimit, stationEach);
    QList<RW_VAR> requests;
    for (WriteStep& step : stepsOf(write)) {
        PLC_driver.write_list.clear();
        SetRegisterData(QString(), step.type, step.address, 2, &step.data, step.count, 2, 1);
        if (int(PLC_driver.write_list.size()) != step.requests)
            return {};
        requests += PLC_driver.write_list;
    }
    return requests;
}

/// The write request that does not fit the PDU.
QString misfitOf(const Parsed& write)
{
    const QList<RW_VAR> requests = requestsOf(write, false);
    for (const RW_VAR& request : requests) {
        const int unit = qMax(2, SpecialAreas.value(request.reg_type).replyBytes);
        if (request.count * unit > MostJobData ||
            (request.reg_type == 13 && request.value.size() % 4 != 0))
            return QStringLiteral("%1+%2").arg(request.address).arg(request.count);
    }
    return requests.isEmpty() ? QStringLiteral("none") : QString();
}

/// V memory after the write, 0xEE before.
QByteArray writtenMemory(const Parsed& write)
{
    COM_INFO* info = resetDriver(LargestLimit, false);
    info->communication_mode = 0; // into the driver's image at once
    std::memset(PLC_driver.V_area, 0xEE, sizeof PLC_driver.V_area);
    for (WriteStep& step : stepsOf(write))
        SetRegisterData(QString(), step.type, step.address, 2, &step.data, step.count, 2, 1);
    return QByteArray(reinterpret_cast<const char*>(PLC_driver.V_area), sizeof PLC_driver.V_area);
}

} // namespace

class HostVariableTest : public QObject
{
    Q_OBJECT

private slots:
    // A variable: register type, address and element count as the driver takes them, label, format.
    // An assignment: its values in hexadecimal, and the format that shows them as they were
    // written.
    void parse()
    {
        const char* const table = R"(
            I0.3      -> 0 0.3 1 I0.3 0       | q15.7x9   -> 1 15.7 9 Q15.7x9 0
            SM549.0   -> 4 549.0 1 SM549.0 0  | V10239.7  -> 5 10239.7 1 V10239.7 0
            VB7x3/hex -> 11 7 3 VB7x3 2       | SMB28x2   -> 4 28.0 16 SMB28x2 0
            SMW22/s   -> 10 22 1 SMW22 1      | vw10238@3 -> 12 10238 1 VW10238@3 0
            VD4/f@0   -> 13 4 2 VD4@0 4       | VD4x2@255/float -> 13 4 4 VD4x2@255 4
            SMD38/b   -> 24 38 2 SMD38 3      | AQW0x32   -> 17 0 32 AQW0x32 0
            AIW62     -> 16 62 1 AIW62 0      | T255      -> 18 255 1 T255 0
            TV0x256   -> 14 0 256 TV0x256 0   | cv5       -> 15 5 1 CV5 0
            VW0=65535 -> ffff/u   | VW0=-32768     -> 8000/s     | VB0=0b101 -> 5/b   | VB0=-1 -> ff/s
            VD0=-1 -> ffffffff/s  | VD0=4294967295 -> ffffffff/u | VD0=21.5 -> 41ac0000/f
            VD0=-1e3 -> c47a0000/f | VD0/float=1   -> 3f800000/f | VD0=0xE1 -> e1/h    | VD0=1 -> 1/u
            VD0/f=16777218 -> 4b800001/f | VD0/f=0x7FC00000 -> 7fc00000/f
            VD0/f=-0.1 -> bdcccccd/f     | VD0/f=3.4028235e38 -> 7f7fffff/f
            VD0x2=1,2.0 -> 3f800000 40000000/f | VW0x2=-1,40000 -> ffff 9c40/u
            VW0/s=-1 -> ffff/s | VW0/s=0xFFFF -> ffff/s | VW0/h=-1 -> ffff/h | VB0=0xf -> f/h
            TV5=32767 -> 7fff/u   | VW0x2 = 7, 8   -> 7 8/u      | Q0.0x4=1,true,0,FALSE -> 1 1 0 0/u)";
        check(table, [](const QString& text) {
            const Parsed result = parsed(text);
            const Variable& variable = result.variable;
            QStringList values;
            for (quint32 value : result.values)
                values.append(QString::number(value, 16));
            if (values.isEmpty() && result.error.isEmpty())
                values = QStringList{QString::number(variable.area->type), variable.driverAddress(),
                                     QString::number(variable.driverCount()), variable.label(),
                                     QString::number(int(variable.format))};
            else
                values.append("/" + QString("ushbf").mid(int(variable.format), 1));
            return result.error + values.join(' ').replace(" /", "/");
        });
    }

    // HOLDS(22)
    // With what the message must name.
    // HOLDS(22)
    void parseErrors()
    {
        const char* const table = R"(
            100     -> VW100    | XW100   -> XW100    | =7       -> VW100    |     -> VW100
            I3      -> I3.0     | I3.8    -> 0 to 7   | I3.      -> 0 to 7   | VW  -> address
            VW-1    -> address  | VW10239 -> VW10238  | V10240.0 -> V10239.7 | M4095.7x2 -> M4095.7
            TV250x7 -> TV255    | AIW64   -> AIW62    | AIW3     -> even     | VD0x2561 -> VD10236
            VW0x0   -> count    | VW0x    -> count    | VW0@256  -> station  | VW0@ -> station
            VW0;    -> NAME     | M0.0/hex -> no format | VW0/octal -> hex   | VW0/f -> double words
            VW100.3 -> write VW100 | VW0x2147483647 -> VW10238 | VW99999999999 -> VW10238
            VW0=        -> -32768 to 65535 | VW0=65536  -> -32768 to 65535
            VW0=-32769  -> -32768 to 65535 | VW0=0x10000 -> it takes 0x0 to 0xFFFF
            VW0=0x-1    -> it takes 0x0 to 0xFFFF | VW0=1.5    -> -32768 to 65535
            VB0=0b111111111 -> it takes 0b0 to 0b11111111 | TV5=0x8000 -> it takes 0x0 to 0x7FFF
            VW0=fF      -> begins with 0x | VD0=1FE0h -> begins with 0x | VW0=1e3 -> '1e3'; it takes -32768 to 65535
            VB0=256     -> -128 to 255     | VD0=4294967296 -> REAL | M0.0=2 -> true
            VD0/f=1e39  -> finite   | VD0/f=inf -> finite | VD0/f=nan -> finite
            VD0/f=16777217 -> 16777216 and 16777218 | VD0=16777217.0 -> 16777216 and 16777218
            VD0/f=1e-50 -> 0 and 1.4013e-45 | VD0/f=0x1FFFFFFFF -> it takes 0x0 to 0xFFFFFFFF
            VD4=-21,5   -> point: -21.5); that many in a row are VD4x2 | VD4/f=1,5e3 -> a point: 1.5e3
            VD4/u=21,5  -> one value, not 2; that | VW0=1,5 -> one value, not 2; that | VD4=1,x -> not 2; that
            VD4=1,2,3   -> not 3; that many in a row are VD4x3 | VD4x2=1,5,2,5 -> not 4 (decimal numbers
            VW100/s=40000 -> -32768 to 32767; VW100/unsigned takes 0 to 65535
            VW0/u=-1 -> 0 to 65535; VW0/signed takes -32768 to 32767 | VW0/s=70000 -> -32768 to 32767
            VB0/s=128 -> -128 to 127 | VD0/s=2147483648 -> to 2147483647; VD0/unsigned takes
            VW0/h/s -> two formats | VW0=1  2 -> '1  2'
            TV5=32768   -> 0 to 32767 | TV5=-1 -> 0 to 32767
            VW0x2=1     -> takes 2 values | VW0=1,2 -> VW0x2 | T37=1 -> TV37 | C5=1 -> CV5
            I0.0=1      -> input    | IW0=1 -> input | AIW0=1 -> input)";
        check(table, parseError, Match::Message);
        for (const QString& text : {QString(5000, 'V'), QString("VW\n1\x01"), QString(300, '\n'),
                                    QString("VW0=\x1b[2J"), QString("VW0=\u202e1")}) {
            const QString error = parseError(text);
            QVERIFY(!error.isEmpty() && error.size() < 2 * LongestMessage);
            QVERIFY(std::all_of(error.begin(), error.end(), [](QChar c) { return c.isPrint(); }));
        }
    }

    // A variable and its value in host encoding, hexadecimal; what is missing counts as 0.
    void format()
    {
        const char* const table = R"(
            VW0x2 0100FFFF -> 1 65535    | VW2/signed FFFF -> -1    | VW4/hex 0A00   -> 0x000A
            VB0x2 FF000100 -> 255 1      | VB2/s FF00      -> -1    | VB4/b 0500     -> 0b00000101
            VD0 78563412   -> 305419896  | VD4/s FFFFFFFF  -> -1    | VD8/f 0000AC41 -> 21.5
            VD8/f CDCCCC3D -> 0.1 | VD8/f CECCCC3D -> 0.10000001    | VD8/f 0000C07F -> nan
            TV37 2C01      -> 300        | M0.0x3 010001   -> 1 0 1 | VW8x2 01       -> 1 0
            MB0x2/h 01000000000000010001000000000000 -> 0x81 0x02)";
        check(table, [](const QString& given) {
            const Variable variable = parsed(given.section(' ', 0, 0)).variable;
            const QByteArray data = QByteArray::fromHex(given.section(' ', 1).toLatin1());
            return formatValues(variable, decodeValues(variable, data));
        });
    }

    // A variable and the block length limit. An odd byte is read with the one before.
    void blocks()
    {
        const char* const table = R"(
            M11.7x2 106 -> 8:11+2          | M11.0 106   -> 8:10+2 | VB7x3 106   -> 12:6+4
            VW7 106     -> 12:7+2          | MB7 106     -> 8:6+2  | VB1x107 106 -> 12:0+106 12:106+2
            VD0x40 106  -> 12:0+104 12:104+56 | VW0x2 0  -> 12:0+2 12:2+2
            CV0x100 71  -> 15:0+71 15:71+29 | CV0x100 42 -> 15:0+42 15:42+42 15:84+16)";
        check(table, [](const QString& given) {
            QStringList described;
            const Variable variable = parsed(given.section(' ', 0, 0)).variable;
            for (const ReadBlock& block : readBlocks(variable, 2, given.section(' ', 1, 1).toInt()))
                described.append(describe(block));
            return described.join(' ');
        });
    }

    // Kinds that the driver would merge, and what lies at the ends of the areas.
    void requestsFit()
    {
        const char* const table = R"(
            VW0 VB3 V7.3 VD300x99 IB0 QW2 MD4 SW6 SMD10 V0.0x4000 -> 212
            CV0x256 C0x256 VW0x200 CV3 C250                       -> 70
            TV0x256 T0x256 T1 T30 T60 TV90 VW0x100 CV0x256        -> 42
            TV0x42 TV42x42 CV0x42 CV42x42 VW0x21 VW42x21          -> 42
            AIW0 AIW62 AIW30 AQW0x2 AQW60x2 VW0                   -> 212
            VB10239 M4095.7 TV255 C255 AQW62 SMD4092              -> 42)";
        check(table, limitAndMisfits);
    }

    // Whatever was given first, and one element is no more than one.
    void requestsAreNoLarger()
    {
        const char* const table = R"(
            AIW30 AIW0 AIW2 AQW62 AQW60 -> 16:0+32 17:60+4
            SW6 IW0 MW4 -> 6:0+2 8:4+2 9:6+2
            SMW8 QW2 VD10 TV3 CV4x2 -> 10:8+2 12:10+4 14:3+1 15:4+2 7:2+2)";
        check(table, [](const QString& given) {
            QVector<ReadBlock> blocks;
            for (const QString& text : given.split(' '))
                blocks += readBlocks(parsed(text).variable, 2, 106);
            QStringList found[2];
            for (const bool stationEach : {false, true}) {
                resetDriver(106, stationEach);
                ReCreatReadVarList(cyclicRecords(blocks, stationEach));
                for (const RW_VAR& request : PLC_driver.read_list)
                    found[stationEach].append(describe(blockOf(request)));
                found[stationEach].sort();
            }
            const QString all = found[0].join(' ');
            return found[0] == found[1] ? all : all + " / " + found[1].join(' ');
        });
    }

    void blockRelations()
    {
        const ReadBlock block = extentOf(parsed("VW10x2").variable, 2);
        const ReadBlock half = extentOf(parsed("VW10").variable, 2);
        QVERIFY(block.covers(half) && !half.covers(block) && half.overlaps(block));
        QVERIFY(!block.overlaps(extentOf(parsed("VW14").variable, 2)));
        QVERIFY(!block.overlaps(extentOf(parsed("VW12").variable, 3)));
    }

    // TYPE:ADDRESS+COUNT=HEX, and what the last request covers. Bytes go in pairs as words, a last
    // odd one as bits.
    void writes()
    {
        const char* const table = R"(
            VW100x2=1,0x203    -> 12:100+2=01000302 12:100+4
            VD8x2=1,2          -> 13:8+4=0100000002000000 12:8+8
            SMD38=1            -> 24:38+2=01000000 10:38+4
            VB7x4=1,2,3,4      -> 12:7+2=02010403 12:7+4 | SMB28x2=1,2 -> 10:28+1=0201 10:28+2
            TV5=300 -> 14:5+1=2c01 14:5+1 | CV5x2=1,2 -> 15:5+2=01000200 15:5+2
            AQW2=7  -> 17:2+1=0700 17:2+2 | Q0.6x3=1,0,1 -> 1:6+1=01 1:7+1=00 1:8+1=01 7:1+1
        MB0=5 -> 2:0+1=01 2:1+1=00 2:2+1=01 2:3+1=00 2:4+1=00 2:5+1=00 2:6+1=00 2:7+1=00 8:0+1
        VB1x3=1,2,0x80 -> 12:1+1=0201 5:24+1=00 5:25+1=00 5:26+1=00 5:27+1=00 5:28+1=00 5:29+1=00
5:30+1=00 5:31+1=01 12:3+1)";
        const QString joined = QString::fromUtf8(table).replace("=00\n5", "=00 5");
        check(joined.toLatin1(), [](const QString& given) {
            for (const bool stationEach : {true, false}) {
                const QList<RW_VAR> requests = requestsOf(parsed(given), stationEach);
                QString described;
                for (const RW_VAR& request : requests)
                    described += QStringLiteral("%1:%2+%3=%4 ")
                                     .arg(request.reg_type)
                                     .arg(request.address)
                                     .arg(request.count)
                                     .arg(QString::fromLatin1(request.value.toHex()));
                if (!stationEach)
                    return described + describe(writtenBlock(requests.value(requests.size() - 1)));
            }
            return QString();
        });
    }

    // However long a write is, its requests fit the PDU, and what they leave in V memory is the
    // values, most significant byte first, with nothing changed beside them.
    void longWrites()
    {
        for (const char* name : {"VW1x500", "VD3x301", "VB0x500", "VB9x107", "VB10239", "VB7x2",
                                 "VD10236", "V3.6x900", "TV0x99", "CV0x99"}) {
            Parsed write = parsed(name);
            const int bytes = write.variable.endUnit() - write.variable.firstUnit();
            const int each = bytes / write.variable.repeat;
            QByteArray wanted(SpecialAreas.value(12).units, '\xEE');
            for (int i = 0; i < write.variable.repeat; ++i) {
                quint32 value = each == 0 ? 1 : 0;
                for (int k = 0; k < each; ++k) {
                    wanted[write.variable.address + i * each + k] = char(7 * i + k);
                    value = value << 8 | uchar(7 * i + k);
                }
                write.values.append(value);
            }
            QCOMPARE(misfitOf(write), QString());
            const bool inBytes = write.variable.area->reads == 12 && each > 0;
            QVERIFY2(!inBytes || writtenMemory(write) == wanted, name);
        }
    }
};

QTEST_GUILESS_MAIN(HostVariableTest)
#include "host_variable_test.moc"
