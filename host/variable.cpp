#include <s7200host/variable.h>

#include "host/element_text.h"

#include <siemens_s7_200_cp243/register_types.h>

#include <QStringList>

#include <limits>

namespace s7200
{

namespace
{

// Sizes of the driver's image. A controller may have less and then refuses what it has not.
constexpr int ByteArea = 4096;
constexpr int VArea = 10240;
constexpr int AnalogArea = 64;
constexpr int Numbers = 256;

constexpr int LongestText = 80;
constexpr int HighestStation = 255;

constexpr AreaRow Areas[] = {
    {"I", Width::Bit, false, Type_I, Type_IW, ByteArea, false},
    {"Q", Width::Bit, false, Type_Q, Type_QW, ByteArea, true},
    {"M", Width::Bit, false, Type_M, Type_MW, ByteArea, true},
    {"S", Width::Bit, false, Type_S, Type_SW, ByteArea, true},
    {"SM", Width::Bit, false, Type_SM, Type_SMW, ByteArea, true},
    {"V", Width::Bit, false, Type_V, Type_VW, VArea, true},
    {"IB", Width::Byte, false, Type_I, Type_IW, ByteArea, false},
    {"QB", Width::Byte, false, Type_Q, Type_QW, ByteArea, true},
    {"MB", Width::Byte, false, Type_M, Type_MW, ByteArea, true},
    {"SB", Width::Byte, false, Type_S, Type_SW, ByteArea, true},
    {"SMB", Width::Byte, false, Type_SM, Type_SMW, ByteArea, true},
    {"VB", Width::Byte, false, Type_VB, Type_VW, VArea, true},
    {"IW", Width::Word, false, Type_IW, Type_IW, ByteArea, false},
    {"QW", Width::Word, false, Type_QW, Type_QW, ByteArea, true},
    {"MW", Width::Word, false, Type_MW, Type_MW, ByteArea, true},
    {"SW", Width::Word, false, Type_SW, Type_SW, ByteArea, true},
    {"SMW", Width::Word, false, Type_SMW, Type_SMW, ByteArea, true},
    {"VW", Width::Word, false, Type_VW, Type_VW, VArea, true},
    {"ID", Width::DoubleWord, false, Type_ID, Type_IW, ByteArea, false},
    {"QD", Width::DoubleWord, false, Type_QD, Type_QW, ByteArea, true},
    {"MD", Width::DoubleWord, false, Type_MD, Type_MW, ByteArea, true},
    {"SD", Width::DoubleWord, false, Type_SD, Type_SW, ByteArea, true},
    {"SMD", Width::DoubleWord, false, Type_SMD, Type_SMW, ByteArea, true},
    {"VD", Width::DoubleWord, false, Type_VD, Type_VW, VArea, true},
    {"AIW", Width::Word, false, Type_AIW, Type_AIW, AnalogArea, false},
    {"AQW", Width::Word, false, Type_AQW, Type_AQW, AnalogArea, true},
    {"T", Width::Bit, true, Type_T, Type_T, Numbers, false},
    {"C", Width::Bit, true, Type_C, Type_C, Numbers, false},
    {"TV", Width::Number, true, Type_TV, Type_TV, Numbers, true},
    {"CV", Width::Number, true, Type_CV, Type_CV, Numbers, true},
};

bool isDigit(QChar c)
{
    return c >= QLatin1Char('0') && c <= QLatin1Char('9');
}

bool isLetter(QChar c)
{
    return c >= QLatin1Char('A') && c <= QLatin1Char('Z');
}

/// Walks over the text of one variable.
class Cursor
{
public:
    explicit Cursor(const QString& variable) : m_text(variable) {}
    bool atEnd() const
    {
        return m_position >= m_text.size();
    }
    bool take(char c)
    {
        if (atEnd() || m_text.at(m_position) != QLatin1Char(c))
            return false;
        ++m_position;
        return true;
    }
    QString letters()
    {
        return run(isLetter);
    }
    /// -1: no digits. What is too large is as large as fits, beyond every limit.
    int number()
    {
        const QString digits = run(isDigit);
        bool ok = false;
        const int value = digits.toInt(&ok);
        return ok ? value : digits.isEmpty() ? -1 : std::numeric_limits<int>::max();
    }

private:
    QString run(bool (*belongs)(QChar))
    {
        const auto start = m_position;
        while (!atEnd() && belongs(m_text.at(m_position)))
            ++m_position;
        return m_text.mid(start, m_position - start);
    }

    const QString m_text;
    decltype(QString().size()) m_position = 0;
};

const AreaRow* findArea(const QString& name)
{
    for (const AreaRow& row : Areas) {
        if (name == QLatin1String(row.name))
            return &row;
    }
    return nullptr;
}

bool isByteAndBit(const AreaRow& area)
{
    return area.width == Width::Bit && !area.numbered;
}

/// The last element's name, for messages: "VD10236", "I4095.7", "T255".
QString lastOf(const AreaRow& area)
{
    Variable last;
    last.area = &area;
    last.address = area.numbered ? area.size - 1 : area.size - bytesOf(area.width);
    last.bit = isByteAndBit(area) ? 7 : 0;
    return last.label();
}

QString parseAddress(Cursor& cursor, Variable* variable)
{
    const AreaRow& area = *variable->area;
    const QString name = QLatin1String(area.name);
    variable->address = cursor.number();
    if (variable->address < 0)
        return QStringLiteral("an address must follow %1, as in %1%2")
            .arg(name, QLatin1String(isByteAndBit(area) ? "0.0" : "0"));
    const bool hasBit = cursor.take('.');
    if (isByteAndBit(area)) {
        if (!hasBit)
            return QStringLiteral("%1 needs a byte and a bit, as in %1%2.0")
                .arg(name)
                .arg(variable->address);
        variable->bit = cursor.number();
        if (variable->bit < 0 || variable->bit > 7)
            return QStringLiteral("the bit is 0 to 7");
    } else if (hasBit) {
        return QStringLiteral("%1 has no bits to name; write %1%2")
            .arg(name)
            .arg(variable->address);
    }
    if ((area.type == Type_AIW || area.type == Type_AQW) && variable->address % 2 != 0)
        return QStringLiteral("%1 addresses are even").arg(name);
    return QString();
}

QString parseFormat(Cursor& cursor, Variable* variable)
{
    const std::optional<Format> format = formatNamed(cursor.letters());
    if (!format)
        return QStringLiteral("the format is unsigned, signed, hex, binary or float");
    if (variable->formatGiven && variable->format != *format)
        return QStringLiteral("two formats are given");
    variable->format = *format;
    variable->formatGiven = true;
    if (variable->area->width == Width::Bit)
        return QStringLiteral("a bit is shown as 0 or 1 and takes no format");
    if (*format == Format::Float && variable->area->width != Width::DoubleWord)
        return QStringLiteral("float is for double words: VD, ID, QD, MD, SD, SMD");
    return QString();
}

QString parseSuffixes(Cursor& cursor, Variable* variable)
{
    if (cursor.take('X')) {
        variable->repeat = cursor.number();
        if (variable->repeat < 1)
            return QStringLiteral("a count of 1 or more must follow x, as in VW100x4");
    }
    while (!cursor.atEnd()) {
        if (cursor.take('@')) {
            variable->station = cursor.number();
            if (variable->station < 0 || variable->station > HighestStation)
                return QStringLiteral("a station of 0 to 255 must follow @, as in VW100@3");
        } else if (cursor.take('/')) {
            const QString error = parseFormat(cursor, variable);
            if (!error.isEmpty())
                return error;
        } else {
            return QStringLiteral(
                "a variable is NAME[xCOUNT][@STATION][/FORMAT], as in VW100x4/hex");
        }
    }
    return QString();
}

/// 64-bit, since address and count are the user's.
QString checkEnd(const Variable& variable)
{
    const AreaRow& area = *variable.area;
    qint64 end = variable.address;
    if (isByteAndBit(area))
        end += (variable.bit + qint64(variable.repeat) + 7) / 8;
    else
        end += qint64(variable.repeat) * (area.numbered ? 1 : bytesOf(area.width));
    if (end <= area.size)
        return QString();
    return QStringLiteral("beyond the end of the area; the last one is %1").arg(lastOf(area));
}

QString parseInto(const QString& text, Variable* variable)
{
    if (text.size() > LongestText)
        return QStringLiteral("too long for a variable");
    Cursor cursor(text.toUpper());
    variable->area = findArea(cursor.letters());
    if (!variable->area)
        return QStringLiteral("no such variable; write it as VW100, M0.3, VD4/float, TV37 (--help "
                              "lists the areas)");
    QString error = parseAddress(cursor, variable);
    if (error.isEmpty())
        error = parseSuffixes(cursor, variable);
    if (error.isEmpty())
        error = checkEnd(*variable);
    return error;
}

} // namespace

QString Variable::label() const
{
    QString text = QLatin1String(area->name) + QString::number(address);
    if (isByteAndBit(*area))
        text += QLatin1Char('.') + QString::number(bit);
    if (repeat > 1)
        text += QLatin1Char('x') + QString::number(repeat);
    if (station >= 0)
        text += QLatin1Char('@') + QString::number(station);
    return text;
}

QString Variable::text() const
{
    return format == Format::Unsigned ? label() : label() + QLatin1Char('/') + formatName(format);
}

QString Variable::driverAddress() const
{
    if (area->numbered || area->type > 5)
        return QString::number(address);
    return QString::number(address) + QLatin1Char('.') + QString::number(bit);
}

int Variable::driverCount() const
{
    if (isByteOfBits())
        return 8 * repeat;
    return area->width == Width::DoubleWord ? 2 * repeat : repeat;
}

bool Variable::hasStatusBits() const
{
    return area->numbered && area->width == Width::Bit;
}

bool Variable::isAnalog() const
{
    return area->type == Type_AIW || area->type == Type_AQW;
}

bool Variable::isByteOfBits() const
{
    return area->width == Width::Byte && area->type != VbRegister;
}

int Variable::firstUnit() const
{
    return address;
}

int Variable::endUnit() const
{
    if (area->numbered)
        return address + repeat;
    if (area->width == Width::Bit)
        return address + (bit + repeat + 7) / 8;
    return address + repeat * bytesOf(area->width);
}

int readTypeOf(int type)
{
    for (const AreaRow& row : Areas) {
        if (row.type == type)
            return row.reads;
    }
    return -1;
}

bool parseVariable(const QString& text, Variable* variable, QString* error)
{
    *variable = Variable();
    const QString reason = parseInto(text, variable);
    if (!reason.isEmpty())
        *error = quoted(text) + QStringLiteral(": ") + reason;
    return reason.isEmpty();
}

bool parseAssignment(const QString& text, Variable* variable, QVector<quint32>* values,
                     QString* error)
{
    values->clear();
    error->clear();
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals < 0) {
        *error = quoted(text) + QStringLiteral(": a write is VARIABLE=VALUE, as in VW100=7");
        return false;
    }
    if (!parseVariable(text.left(equals).trimmed(), variable, error))
        return false;
    const QStringList parts = splitValues(*variable, variable->label(), text.mid(equals + 1),
                                          takesReal(*variable), error);
    variable->format = formatOfTexts(*variable, parts);
    for (const QString& part : parts) {
        const std::optional<quint32> element =
            parseElement(*variable, variable->text(), part, error);
        if (!element)
            return false;
        values->append(*element);
    }
    return error->isEmpty();
}

QVector<quint32> decodeValues(const Variable& variable, const QByteArray& hostData)
{
    const bool bits = variable.isByteOfBits();
    // VB takes two bytes an element in the host's encoding, the second one 0.
    const int stride =
        bits ? 8 : (variable.area->type == VbRegister ? 2 : bytesOf(variable.area->width));
    const QByteArray data = hostData.leftJustified(stride * variable.repeat, '\0');
    QVector<quint32> values;
    values.reserve(variable.repeat);
    for (int i = 0; i < variable.repeat; ++i) {
        quint32 value = 0;
        for (int k = 0; k < stride; ++k)
            value |= quint32(uchar(data.at(i * stride + k))) << (bits ? k : 8 * k);
        values.append(value);
    }
    return values;
}

QString formatValues(const Variable& variable, const QVector<quint32>& values)
{
    QStringList texts;
    for (quint32 value : values)
        texts.append(elementText(variable, value));
    return texts.join(QLatin1Char(' '));
}

QString variableHelp()
{
    return QStringLiteral(
        "A VARIABLE is NAME[xCOUNT][@STATION][/FORMAT], in upper or lower case:\n"
        "  bits          I0.3 Q0.0 M10.7 S0.1 SM0.5 V10.3, timers' and counters' T37 C5\n"
        "  bytes         IB0 QB0 MB3 SB0 SMB28 VB7\n"
        "  words         IW0 QW0 MW2 SW0 SMW22 VW100, AIW2 AQW0, current values TV37 CV5\n"
        "  double words  ID0 QD0 MD4 SD0 SMD38 VD4\n"
        "  xCOUNT        that many in a row: VW100x4 is VW100, VW102, VW104 and VW106\n"
        "  @STATION      the controller's station, 0 to 255: --controller STATION=HOST\n"
        "  /FORMAT       unsigned (the default), signed, hex, binary, for double words\n"
        "                float; or the first letter: VD4/f\n");
}

} // namespace s7200
