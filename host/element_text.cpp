#include "host/element_text.h"

#include <QStringList>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace s7200
{

namespace
{

constexpr int LongestQuote = 80;
// A timer or counter runs from 0 to 32767.
constexpr qint64 HighestNumberValue = 0x7FFF;
// Half of a single's last binary digit, against its largest value.
constexpr double HalfDigit = 3e-8;

struct FormatName {
    const char* name;
    const char* letter;
    Format format;
};

constexpr FormatName Formats[] = {
    {"unsigned", "u", Format::Unsigned}, {"signed", "s", Format::Signed}, {"hex", "h", Format::Hex},
    {"binary", "b", Format::Binary},     {"float", "f", Format::Float},
};

/// Digits from the first to the last that is not 0.
int significantDigits(const QString& text)
{
    QString digits;
    for (const QChar c : text) {
        if (c == QLatin1Char('e') || c == QLatin1Char('E'))
            break;
        if (c.isDigit() && (!digits.isEmpty() || c != QLatin1Char('0')))
            digits.append(c);
    }
    while (digits.endsWith(QLatin1Char('0')))
        digits.chop(1);
    return std::max(1, int(digits.size()));
}

QString inDigits(double number, int digits)
{
    const int most = std::numeric_limits<double>::max_digits10;
    return QString::number(number, 'e', std::min(digits, most) - 1);
}

/// Controls a terminal, or turns the order of letters about.
bool isHidden(QChar c)
{
    switch (c.category()) {
    case QChar::Other_Control:
    case QChar::Other_Format:
    case QChar::Separator_Line:
    case QChar::Separator_Paragraph:
        return true;
    default:
        return false;
    }
}

} // namespace

bool hasHidden(const QString& text)
{
    return std::any_of(text.begin(), text.end(), isHidden);
}

QString quoted(const QString& text)
{
    QString shown;
    for (const QChar c : text) {
        if (shown.size() >= LongestQuote) {
            shown += QStringLiteral("...");
            break;
        }
        shown += isHidden(c) ? QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'))
                             : QString(c);
    }
    return QLatin1Char('\'') + shown + QLatin1Char('\'');
}

QString formatName(Format format)
{
    const auto row = std::find_if(std::begin(Formats), std::end(Formats) - 1,
                                  [&](const FormatName& name) { return name.format == format; });
    return QLatin1String(row->name);
}

std::optional<Format> formatNamed(const QString& name)
{
    const QString lower = name.toLower();
    for (const FormatName& row : Formats) {
        if (lower == QLatin1String(row.name) || lower == QLatin1String(row.letter))
            return row.format;
    }
    return std::nullopt;
}

NumberRange rangeOf(Width width, Format format)
{
    if (width == Width::Number)
        return {0, HighestNumberValue};
    if (width == Width::Bit)
        return {0, 1};
    const qint64 values = qint64(1) << (8 * bytesOf(width));
    return format == Format::Signed ? NumberRange{-values / 2, values / 2 - 1}
                                    : NumberRange{0, values - 1};
}

bool takesReal(const Variable& variable)
{
    return variable.area->width == Width::DoubleWord &&
           (variable.format == Format::Float || !variable.formatGiven);
}

qint64 numberOf(const Variable& variable, quint32 element)
{
    if (variable.format != Format::Signed)
        return element;
    const qint64 values = qint64(1) << (8 * bytesOf(variable.area->width));
    return element < values / 2 ? qint64(element) : qint64(element) - values;
}

quint32 elementOf(Width width, qint64 number)
{
    return quint32(number & ((qint64(1) << (8 * bytesOf(width))) - 1));
}

float realOf(quint32 element)
{
    float real;
    static_assert(sizeof real == sizeof element, "a REAL is an IEEE 754 single");
    std::memcpy(&real, &element, sizeof real);
    return real;
}

quint32 elementOfReal(float real)
{
    quint32 element;
    std::memcpy(&element, &real, sizeof element);
    return element;
}

QString realText(float real)
{
    for (int digits = 6; digits < std::numeric_limits<float>::max_digits10; ++digits) {
        const QString text = QString::number(double(real), 'g', digits);
        if (text.toFloat() == real)
            return text;
    }
    return QString::number(double(real), 'g', std::numeric_limits<float>::max_digits10);
}

bool hasBitPrefix(const QString& text)
{
    return text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) ||
           text.startsWith(QLatin1String("0b"), Qt::CaseInsensitive);
}

std::optional<quint32> parseBits(Width width, const QString& text)
{
    // A sign behind the prefix converts too, but nobody means it.
    if (!hasBitPrefix(text) || text.size() < 3 || !text.at(2).isLetterOrNumber())
        return std::nullopt;
    const bool hex = text.at(1).toLower() == QLatin1Char('x');
    bool ok = false;
    const quint32 bits = text.mid(2).toUInt(&ok, hex ? 16 : 2);
    if (!ok || bits > rangeOf(width, Format::Unsigned).highest)
        return std::nullopt;
    return bits;
}

RealInverse parseReal(const QString& text, const Scaling& scaling)
{
    RealInverse inverse;
    bool ok = false;
    const double number = text.toDouble(&ok);
    const double unscaled = scaling.invert(number);
    const double most = double(std::numeric_limits<float>::max());
    if (!ok || !(std::fabs(unscaled) <= most * (1 + HalfDigit)))
        return inverse;
    const float infinity = std::numeric_limits<float>::infinity();
    const auto scaled = [&](float real) {
        return scaling.isIdentity() ? double(real) : scaling.apply(double(real));
    };
    inverse.number = true;
    inverse.real = float(std::max(-most, std::min(unscaled, most)));
    const int digits = significantDigits(text);
    inverse.exact = inDigits(scaled(inverse.real), digits) == inDigits(number, digits);
    inverse.lower = -double(infinity);
    inverse.upper = double(infinity);
    for (const float real : {std::nextafter(inverse.real, -infinity), inverse.real,
                             std::nextafter(inverse.real, infinity)}) {
        const double value = scaled(real);
        if (value <= number)
            inverse.lower = std::max(inverse.lower, value);
        if (value >= number)
            inverse.upper = std::min(inverse.upper, value);
    }
    return inverse;
}

QString elementText(const Variable& variable, quint32 element)
{
    const int bytes = bytesOf(variable.area->width);
    switch (variable.format) {
    case Format::Hex:
        return QStringLiteral("0x") +
               QString::number(element, 16).toUpper().rightJustified(2 * bytes, QLatin1Char('0'));
    case Format::Binary:
        return QStringLiteral("0b") +
               QString::number(element, 2).rightJustified(8 * bytes, QLatin1Char('0'));
    case Format::Float:
        return realText(realOf(element));
    default:
        return QString::number(numberOf(variable, element));
    }
}

} // namespace s7200
