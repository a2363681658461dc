// How the panel reads variables and options, and what requests it makes of them. The requests are
// put to the real driver, whose own cutting and merging they have to get through unharmed.

#include "core/siemens_s7_200.h"
#include "host/request_plan.h"
#include "panel/options.h"
#include <s7200host/variable.h>

#include <QtTest>

using namespace s7200;

namespace
{

constexpr int MostReplyData = 222;
constexpr int MostJobData = 212;
constexpr int LargestLimit = 106;
constexpr int LongestMessage = 250;

/// Cases as text, "GIVEN -> WANTED", one to a line or several with | between them: compares what
/// `body` makes of each. A message needs only to name what is wanted, on one short line.
enum class Match { Whole, Message };
void check(const char* table, QString (*body)(const QString& given), Match match = Match::Whole)
{
    for (const QString& text : QString(table).replace('\n', '|').split('|')) {
        const QString given = text.section("->", 0, 0).trimmed();
        const QString wanted = text.section("->", 1).trimmed();
        if (text.trimmed().isEmpty())
            continue;
        const QString got = body(given);
        const bool named = got.contains(wanted) && got.isEmpty() == wanted.isEmpty() &&
                           !got.contains('\n') && got.size() < LongestMessage;
        QVERIFY2(match == Match::Whole ? got == wanted : named, qPrintable(given + ": " + got));
    }
}

/// What an area has and what the driver must be told of it.
struct Area {
    int units = 4096;
    int replyBytes = 1; ///< A unit's.
    QString name;       ///< By which the driver tells how long a reply is.
};
const QMap<int, Area> SpecialAreas = {
    {12, {10240, 1, ""}}, {16, {64, 1, ""}},    {17, {64, 1, ""}},  {14, {256, 5, "TV"}},
    {18, {256, 5, "T"}},  {15, {256, 3, "CV"}}, {19, {256, 3, "C"}}};

struct Parsed : Assignment {
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

QString optionError(const QString& line)
{
    const QString command = line.section(' ', 0, 0);
    QStringList arguments = line.split(' ');
    arguments[0] = "s7200-panel";
    PanelOptions options;
    QString help;
    QString error;
    const bool ok = parseOptions(command, arguments, &options, &help, &error);
    return ok || !error.isEmpty() ? error : "refused without a reason";
}

/// TYPE:START+UNITS
QString describe(const ReadBlock& block)
{
    return QStringLiteral("%1:%2+%3").arg(block.type).arg(block.start).arg(block.units);
}

void resetDriver(int limit, bool stationEach)
{
    static COM_INFO info;
    info.block_length_limit = limit;
    info.default_station = 2;
    info.per_variable_stations = stationEach ? 1 : 0;
    info.communication_mode = 2;
    SetComInfo(&info);
    PLC_driver.read_list.clear();
    PLC_driver.write_list.clear();
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
    const int limit = blockLimitFor(variables);
    QVector<ReadBlock> wanted;
    for (const Variable& variable : variables)
        wanted += readBlocks(variable, 2, limit);
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

/// The driver's requests for a write, in order; none if a step makes another number than it says.
QList<RW_VAR> requestsOf(const Assignment& write, bool singleBytes)
{
    resetDriver(LargestLimit, singleBytes);
    QList<RW_VAR> requests;
    for (WriteStep& step : writeSteps(write.variable, write.values, LargestLimit, singleBytes)) {
        PLC_driver.write_list.clear();
        SetRegisterData(QString(), step.type, step.address, 2, &step.data, step.count, 2, 1);
        if (int(PLC_driver.write_list.size()) != step.requests)
            return {};
        requests += PLC_driver.write_list;
    }
    return requests;
}

} // namespace

class PanelVariableTest : public QObject
{
    Q_OBJECT

private slots:
    // A variable: register type, address and element count as the driver takes them, label, format.
    // An assignment: its values in hexadecimal.
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
            VW0=65535 -> ffff     | VW0=-32768     -> 8000     | VB0=0b101 -> 5 | VB0=-1 -> ff
            VD0=-1    -> ffffffff | VD0=4294967295 -> ffffffff | VD0=21.5  -> 41ac0000
            VD0=-1e3  -> c47a0000 | VD0/float=1    -> 3f800000 | VD0=0xE1  -> e1 | VD0=1 -> 1
            TV5=32767 -> 7fff     | VW0x2 = 7, 8   -> 7 8      | Q0.0x4=1,true,0,FALSE -> 1 1 0 0)";
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
            return result.error + values.join(' ');
        });
    }

    // With what the message must name.
    void parseErrors()
    {
        const char* const table = R"(
            100     -> VW100    | XW100   -> XW100    | =7       -> VW100    |     -> VW100
            I3      -> I3.0     | I3.8    -> 0 to 7   | I3.      -> 0 to 7   | VW  -> address
            VW-1    -> address  | VW10239 -> VW10238  | V10240.0 -> V10239.7 | M4095.7x2 -> M4095.7
            TV250x7 -> TV255    | AIW64   -> AIW62    | AIW3     -> even     | VD0x2561 -> VD10236
            VW0x0   -> count    | VW0x    -> count    | VW0@256  -> station  | VW0@ -> station
            VW0;    -> NAME     | M0.0/hex -> no format | VW0/octal -> hex   | VW0/f -> double words
            VW100.3 -> write VW100 | VW0x2147483647 -> VW10238 | VW99999999999 -> address
            VW0=        -> -32768 to 65535 | VW0=65536  -> -32768 to 65535
            VW0=-32769  -> -32768 to 65535 | VW0=0x10000 -> -32768 to 65535
            VW0=0x-1    -> -32768 to 65535 | VW0=1.5    -> -32768 to 65535
            VB0=256     -> -128 to 255     | VD0=4294967296 -> REAL | M0.0=2 -> true
            VD0/f=1e39  -> finite   | VD0/f=inf -> finite | VD0/f=nan -> finite
            TV5=32768   -> 0 to 32767 | TV5=-1 -> 0 to 32767
            VW0x2=1     -> takes 2 values | VW0=1,2 -> VW0x2 | T37=1 -> TV37 | C5=1 -> CV5
            I0.0=1      -> input    | IW0=1 -> input | AIW0=1 -> input)";
        check(table, parseError, Match::Message);
        for (const QString& text : {QString(5000, 'V'), QString("VW\n1\x01"), QString(300, '\n')}) {
            const QString error = parseError(text);
            QVERIFY(!error.isEmpty() && error.size() < LongestMessage && !error.contains('\n'));
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

    // A variable and the block length limit. An odd byte is read with the one before. Of the two
    // pieces in which VB1x107 is written the first clears 106 bytes, the second fills one again.
    void blocks()
    {
        const char* const table = R"(
            M11.7x2 106 -> 8:11+2 clears 0             | M11.0 106        -> 8:10+2 clears 0
            VB7x3 106   -> 12:6+4 clears 3             | VB7x3 106 singly -> 12:6+4 clears 1
            VW7 106     -> 12:7+2 clears 0             | MB7 106          -> 8:6+2 clears 0
            VB1x107 106 -> 12:0+106 12:106+2 clears 105
            VD0x40 106  -> 12:0+106 12:106+54 clears 0 | VW0x2 0 -> 12:0+2 12:2+2 clears 0
            CV0x100 106 -> 15:0+70 15:70+30 clears 0
            CV0x100 42  -> 15:0+42 15:42+42 15:84+16 clears 0)";
        check(table, [](const QString& given) {
            const Variable variable = parsed(given.section(' ', 0, 0)).variable;
            const int limit = given.section(' ', 1, 1).toInt();
            const int cleared = bytesClearedBehind(variable, limit, given.endsWith("singly"));
            QString described;
            for (const ReadBlock& block : readBlocks(variable, 2, limit))
                described += describe(block) + ' ';
            return described + "clears " + QString::number(cleared);
        });
    }

    // Kinds that the driver would merge, and what lies at the ends of the areas.
    void requestsFit()
    {
        const char* const table = R"(
            VW0 VB3 V7.3 VD300x60 IB0 QW2 MD4 SW6 SMD10 V0.0x4000 -> 106
            CV0x256 C0x256 VW0x200 CV3 C250                       -> 70
            TV0x256 T0x256 T1 T30 T60 TV90 VW0x100 CV0x256        -> 42
            TV0x42 TV42x42 CV0x42 CV42x42 VW0x21 VW42x21          -> 42
            AIW0 AIW62 AIW30 AQW0x2 AQW60x2 VW0                   -> 106
            VB10239 M4095.7 TV255 C255 AQW62 SMD4092              -> 42)";
        check(table, limitAndMisfits);
    }

    void blockRelations()
    {
        const ReadBlock block = extentOf(parsed("VW10x2").variable, 2);
        const ReadBlock half = extentOf(parsed("VW10").variable, 2);
        QVERIFY(block.covers(half) && !half.covers(block) && half.overlaps(block));
        QVERIFY(!block.overlaps(extentOf(parsed("VW14").variable, 2)));
        QVERIFY(!block.overlaps(extentOf(parsed("VW12").variable, 3)));
    }

    // TYPE:ADDRESS+COUNT=HEX, and what the last request covers. Of VB the driver sends the first
    // COUNT bytes as they stand, and as many behind them.
    void writes()
    {
        const char* const table = R"(
            VW100x2=1,0x203    -> 12:100+2=01000302 12:100+4
            VD8x2=1,2          -> 13:8+4=0100000002000000 12:8+8
            SMD38=1            -> 24:38+2=01000000 10:38+4
            VB7x3=1,2,3        -> 11:7+3=010203000000 12:7+6
            VB7x3=1,2,3 singly -> 11:7+1=0100 11:8+1=0200 11:9+1=0300 12:9+2
            TV5=300 -> 14:5+1=2c01 14:5+1 | CV5x2=1,2 -> 15:5+2=01000200 15:5+2
            AQW2=7  -> 17:2+1=0700 17:2+2 | Q0.6x3=1,0,1 -> 1:6+1=01 1:7+1=00 1:8+1=01 7:1+1
        MB0=5 -> 2:0+1=01 2:1+1=00 2:2+1=01 2:3+1=00 2:4+1=00 2:5+1=00 2:6+1=00 2:7+1=00 8:0+1)";
        check(table, [](const QString& given) {
            const Assignment write = parsed(given.section(' ', 0, 0));
            const QList<RW_VAR> requests = requestsOf(write, given.endsWith("singly"));
            QString described;
            for (const RW_VAR& request : requests)
                described += QStringLiteral("%1:%2+%3=%4 ")
                                 .arg(request.reg_type)
                                 .arg(request.address)
                                 .arg(request.count)
                                 .arg(QString::fromLatin1(request.value.toHex()));
            return described + describe(writtenBlock(requests.value(requests.size() - 1)));
        });
    }

    void longWritesFit()
    {
        for (const char* name : {"VW0x500", "VD0x301", "VB0x500", "TV0x99", "CV0x99", "M0.0x900"}) {
            Assignment write = parsed(name);
            write.values.fill(1, write.variable.repeat);
            const QList<RW_VAR> requests = requestsOf(write, false);
            QVERIFY2(!requests.isEmpty(), name);
            const ReadBlock last = writtenBlock(requests.last());
            QVERIFY2(last.start + last.units >= write.variable.endUnit(), name);
            for (const RW_VAR& request : requests) {
                const int unit = qMax(2, SpecialAreas.value(request.reg_type).replyBytes);
                QVERIFY2(request.count * unit <= MostJobData, name);
                QVERIFY2(request.value.size() % 4 == 0 || request.reg_type != 13, name);
            }
        }
    }

    void options()
    {
        const char* const table = R"(
            watch --controller h:1 --interval 0 --count 3 --duration 0.5 VW0 ->
            read --controller [::1]:102 VW0 -> | read --controller ::1 VW0 -> | read VW0@3 VW0 ->
            read --controller 3=h --controller 4=h:2 VW0@3 VW0@4 -> | watch VW0 ->
            read --controller h --controller 4=h VW0 VW0@4 -> | write VW0=-1 ->
            watch -> VW100 | write -> VW100=7 | write VW0 -> VARIABLE=VALUE | read VW0=1 -> NAME
            watch --count 0 VW0 -> --count         | watch --count x VW0 -> --count
            watch --duration 0 VW0 -> --duration   | watch --duration nan VW0 -> --duration
            watch --interval -1 VW0 -> --interval  | read --interval 5 VW0 -> interval
            read --timeout 0 VW0 -> --timeout      | read --retries 1001 VW0 -> --retries
            read --controller h:0 VW0 -> 0 to 255  | read --controller :5 VW0 -> 0 to 255
            read --controller h:99999 VW0 -> 0 to 255 | read --controller 300=h VW0 -> 0 to 255
            read --controller h --controller i VW0 -> twice | read --controller -> controller
            read --controller 3=h VW0 -> STATION   | read --controller h VW0@3 -> 3=HOST
            read --controller 3=h T37@3 -> TV37    | write --controller 3=h VB8=1 -> STATION
            write VB10239=1 -> VW10238 | write --remote VB10239=1 -> | write VB10238=1 ->
            read --bogus VW0 -> bogus)";
        check(table, optionError, Match::Message);
    }

    void statuses()
    {
        QCOMPARE(exitStatusOf(QVector<Fault>{Fault::None, Fault::None}), ExitGood);
        QCOMPARE(exitStatusOf(QVector<Fault>{Fault::NoAnswer, Fault::Refused}), ExitNoAnswer);
        QCOMPARE(exitStatusOf(QVector<Fault>{Fault::NoConnection, Fault::None}), ExitSomeFailed);
    }

    // A good write, a refused write and read, an error class, a disconnect request; then what
    // cannot be judged: another protocol, a reply cut short, none at all.
    void refusals()
    {
        const char* const table = R"(
            0300001602f0803203000000010002000100000501ff -> | 0300 -> | ->
            0300001602f08032030000000100020001000005010a -> does not exist
            0300001902f080320300000001000200040000040105000000 -> range
            0300001302f080320200000001000000008104 -> 0x81
            0300000b06800000000100 -> refused the connection
            0300001602f08033030000000100020001000005010a ->
            0300001602f0803203000000010002000100000501 ->)";
        const auto body = [](const QString& reply) {
            return refusalOf(QByteArray::fromHex(reply.toLatin1()));
        };
        check(table, body, Match::Message);
    }
};

QTEST_GUILESS_MAIN(PanelVariableTest)
#include "panel_variable_test.moc"
