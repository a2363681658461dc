#include <s7200host/variable.h>

#include <QStringList>
#include <QtEndian>

#include <cmath>
#include <cstring>
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
// A timer or counter runs from 0 to 32767.
constexpr quint32 HighestNumberValue = 0x7FFF;

constexpr AreaRow Areas[] = {
    {"I", Width::Bit, false, 0, 6, ByteArea, false},
    {"Q", Width::Bit, false, 1, 7, ByteArea, true},
    {"M", Width::Bit, false, 2, 8, ByteArea, true},
    {"S", Width::Bit, false, 3, 9, ByteArea, true},
    {"SM", Width::Bit, false, 4, 10, ByteArea, true},
    {"V", Width::Bit, false, 5, 12, VArea, true},
    {"IB", Width::Byte, false, 0, 6, ByteArea, false},
    {"QB", Width::Byte, false, 1, 7, ByteArea, true},
    {"MB", Width::Byte, false, 2, 8, ByteArea, true},
    {"SB", Width::Byte, false, 3, 9, ByteArea, true},
    {"SMB", Width::Byte, false, 4, 10, ByteArea, true},
    {"VB", Width::Byte, false, 11, 12, VArea, true},
    {"IW", Width::Word, false, 6, 6, ByteArea, false},
    {"QW", Width::Word, false, 7, 7, ByteArea, true},
    {"MW", Width::Word, false, 8, 8, ByteArea, true},
    {"SW", Width::Word, false, 9, 9, ByteArea, true},
    {"SMW", Width::Word, false, 10, 10, ByteArea, true},
    {"VW", Width::Word, false, 12, 12, VArea, true},
    {"ID", Width::DoubleWord, false, 20, 6, ByteArea, false},
    {"QD", Width::DoubleWord, false, 21, 7, ByteArea, true},
    {"MD", Width::DoubleWord, false, 22, 8, ByteArea, true},
    {"SD", Width::DoubleWord, false, 23, 9, ByteArea, true},
    {"SMD", Width::DoubleWord, false, 24, 10, ByteArea, true},
    {"VD", Width::DoubleWord, false, 13, 12, VArea, true},
    {"AIW", Width::Word, false, 16, 16, AnalogArea, false},
    {"AQW", Width::Word, false, 17, 17, AnalogArea, true},
    {"T", Width::Bit, true, 18, 18, Numbers, false},
    {"C", Width::Bit, true, 19, 19, Numbers, false},
    {"TV", Width::Number, true, 14, 14, Numbers, true},
    {"CV", Width::Number, true, 15, 15, Numbers, true},
};

constexpr unsigned char AiwType = 16;
constexpr unsigned char AqwType = 17;
constexpr unsigned char VbType = 11;

struct FormatName {
    const char* name;
    const char* letter;
    Format format;
};

constexpr FormatName Formats[] = {
    {"unsigned", "u", Format::Unsigned}, {"signed", "s", Format::Signed}, {"hex", "h", Format::Hex},
    {"binary", "b", Format::Binary},     {"float", "f", Format::Float},
};

/// The user's text for a message: one line of bounded length, whatever it holds.
QString quoted(const QString& text)
{
    return QLatin1Char('\'') + text.left(LongestText).simplified() + QLatin1Char('\'');
}

int bytesOf(Width width)
{
    switch (width) {
    case Width::Word:
    case Width::Number:
        return 2;
    case Width::DoubleWord:
        return 4;
    default:
        return 1;
    }
}

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
    explicit Cursor(const QString& variable) : text(variable) {}
    bool atEnd() const
    {
        return position >= text.size();
    }
    bool take(char c)
    {
        if (atEnd() || text.at(position) != QLatin1Char(c))
            return false;
        ++position;
        return true;
    }
    QString letters()
    {
        return run(isLetter);
    }
    /// -1: no digits, or more than fit.
    int number()
    {
        const QString digits = run(isDigit);
        bool ok = false;
        const int value = digits.toInt(&ok);
        return ok ? value : -1;
    }

private:
    QString run(bool (*belongs)(QChar))
    {
        const auto start = position;
        while (!atEnd() && belongs(text.at(position)))
            ++position;
        return text.mid(start, position - start);
    }

    const QString text;
    decltype(QString().size()) position = 0;
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
        return QStringLiteral("an address must follow %1, as in %2").arg(name, lastOf(area));
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
    if ((area.type == AiwType || area.type == AqwType) && variable->address % 2 != 0)
        return QStringLiteral("%1 addresses are even").arg(name);
    return QString();
}

QString parseFormat(Cursor& cursor, Variable* variable)
{
    const QString name = cursor.letters().toLower();
    for (const FormatName& row : Formats) {
        if (name != QLatin1String(row.name) && name != QLatin1String(row.letter))
            continue;
        variable->format = row.format;
        if (variable->area->width == Width::Bit)
            return QStringLiteral("a bit is shown as 0 or 1 and takes no format");
        if (row.format == Format::Float && variable->area->width != Width::DoubleWord)
            return QStringLiteral("float is for double words: VD, ID, QD, MD, SD, SMD");
        return QString();
    }
    return QStringLiteral("the format is unsigned, signed, hex, binary or float");
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

// What one element can take

bool parseBit(const QString& text, quint32* value)
{
    const QString lower = text.toLower();
    const bool on = lower == QLatin1String("1") || lower == QLatin1String("true");
    *value = on ? 1 : 0;
    return on || lower == QLatin1String("0") || lower == QLatin1String("false");
}

bool looksLikeFloat(const QString& text)
{
    return !text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) &&
           (text.contains(QLatin1Char('.')) ||
            text.contains(QLatin1Char('e'), Qt::CaseInsensitive));
}

bool parseFloat(const QString& text, quint32* value)
{
    bool ok = false;
    const float number = text.toFloat(&ok);
    if (!ok || !std::isfinite(number))
        return false;
    static_assert(sizeof number == sizeof *value, "a REAL is an IEEE 754 single");
    std::memcpy(value, &number, sizeof number);
    return true;
}

/// Decimal, 0x and 0b, with a sign for decimal numbers only.
bool parseInteger(const QString& text, qint64* value)
{
    bool ok = false;
    if (text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) {
        *value = text.mid(2).toUInt(&ok, 16);
    } else if (text.startsWith(QLatin1String("0b"), Qt::CaseInsensitive)) {
        *value = text.mid(2).toUInt(&ok, 2);
    } else {
        *value = text.toLongLong(&ok, 10);
        return ok;
    }
    // A sign behind the prefix converts too, but nobody means it.
    return ok && text.size() > 2 && text.at(2) != QLatin1Char('+') &&
           text.at(2) != QLatin1Char('-');
}

qint64 highest(Width width)
{
    if (width == Width::Number)
        return HighestNumberValue;
    return (qint64(1) << (8 * bytesOf(width))) - 1;
}

qint64 lowest(Width width)
{
    return width == Width::Number ? 0 : -(qint64(1) << (8 * bytesOf(width) - 1));
}

QString wantedValue(const Variable& variable)
{
    const Width width = variable.area->width;
    if (width == Width::Bit)
        return QStringLiteral("0, 1, true or false");
    QString range = QStringLiteral("%1 to %2").arg(lowest(width)).arg(highest(width));
    if (width == Width::DoubleWord)
        range = variable.format == Format::Float ? QStringLiteral("a finite REAL, as in 21.5")
                                                 : range + QStringLiteral(" or a REAL, as in 21.5");
    return range;
}

bool parseValue(const Variable& variable, const QString& text, quint32* value)
{
    const Width width = variable.area->width;
    if (width == Width::Bit)
        return parseBit(text, value);
    if (width == Width::DoubleWord && (variable.format == Format::Float || looksLikeFloat(text)))
        return parseFloat(text, value);
    qint64 number = 0;
    if (!parseInteger(text, &number) || number < lowest(width) || number > highest(width))
        return false;
    *value = quint32(number & highest(width));
    return true;
}

QString unwritable(const Variable& variable)
{
    const QString label = variable.label();
    if (!variable.area->numbered)
        return QStringLiteral("%1 is an input and cannot be written").arg(label);
    const bool timer = variable.area->name[0] == 'T';
    return QStringLiteral("%1 is a %2 bit and cannot be written; the value is %3%4")
        .arg(label, QLatin1String(timer ? "timer" : "counter"), QLatin1String(timer ? "TV" : "CV"))
        .arg(variable.address);
}

QString parseValues(const Variable& variable, const QString& text, QVector<quint32>* values)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (parts.size() != variable.repeat) {
        const QString count = QString::number(parts.size());
        return variable.repeat == 1
                   ? QStringLiteral("%1 takes one value, not %2; write %1x%2=...")
                         .arg(variable.label(), count)
                   : QStringLiteral("%1 takes %3 values, separated by commas, not %2")
                         .arg(variable.label(), count)
                         .arg(variable.repeat);
    }
    for (const QString& part : parts) {
        quint32 value = 0;
        if (!parseValue(variable, part.trimmed(), &value))
            return QStringLiteral("%1 cannot take %2; it takes %3")
                .arg(variable.label(), quoted(part), wantedValue(variable));
        values->append(value);
    }
    return QString();
}

// Text

/// The shortest text that reads back as the same single.
QString floatText(quint32 bits)
{
    float number;
    std::memcpy(&number, &bits, sizeof number);
    for (int digits = 6; digits < std::numeric_limits<float>::max_digits10; ++digits) {
        const QString text = QString::number(double(number), 'g', digits);
        if (text.toFloat() == number)
            return text;
    }
    return QString::number(double(number), 'g', std::numeric_limits<float>::max_digits10);
}

QString elementText(const Variable& variable, quint32 value)
{
    const int bytes = bytesOf(variable.area->width);
    switch (variable.format) {
    case Format::Signed: {
        const int shift = 32 - 8 * bytes;
        return QString::number(qint32(value << shift) >> shift);
    }
    case Format::Hex:
        return QStringLiteral("0x") +
               QString::number(value, 16).toUpper().rightJustified(2 * bytes, QLatin1Char('0'));
    case Format::Binary:
        return QStringLiteral("0b") +
               QString::number(value, 2).rightJustified(8 * bytes, QLatin1Char('0'));
    case Format::Float:
        return floatText(value);
    default:
        return QString::number(value);
    }
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

bool Variable::isLatched() const
{
    return area->numbered && area->width == Width::Bit;
}

bool Variable::isAnalog() const
{
    return area->type == AiwType || area->type == AqwType;
}

bool Variable::isByteOfBits() const
{
    return area->width == Width::Byte && area->type != VbType;
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
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals < 0) {
        *error = quoted(text) + QStringLiteral(": a write is VARIABLE=VALUE, as in VW100=7");
        return false;
    }
    if (!parseVariable(text.left(equals).trimmed(), variable, error))
        return false;
    *error = variable->area->writable ? parseValues(*variable, text.mid(equals + 1), values)
                                      : unwritable(*variable);
    return error->isEmpty();
}

QVector<quint32> decodeValues(const Variable& variable, const QByteArray& hostData)
{
    const bool bits = variable.isByteOfBits();
    // VB takes two bytes an element in the host's encoding, the second one 0.
    const int stride =
        bits ? 8 : (variable.area->type == VbType ? 2 : bytesOf(variable.area->width));
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
        "  bits          I0.3 Q0.0 M10.7 S0.1 SM0.5 V10.3, T37 C5 (timer and counter bits)\n"
        "  bytes         IB0 QB0 MB3 SB0 SMB28 VB7\n"
        "  words         IW0 QW0 MW2 SW0 SMW22 VW100, AIW2 AQW0, TV37 CV5 (current values)\n"
        "  double words  ID0 QD0 MD4 SD0 SMD38 VD4\n"
        "  xCOUNT        that many in a row: VW100x4 is VW100, VW102, VW104 and VW106\n"
        "  @STATION      the controller's station (0 to 255), with --controller STATION=HOST\n"
        "  /FORMAT       unsigned (the default), signed, hex, binary, float (double words only),\n"
        "                or the first letter: VD4/f\n");
}

} // namespace s7200
