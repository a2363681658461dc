#include "host/element_text.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>

// What users type to be written, and what they are told is wrong with it.

namespace s7200
{

namespace
{

/// What the bits can stand for in one format or another.
NumberRange bitRange(Width width)
{
    const NumberRange natural = rangeOf(width, Format::Unsigned);
    return {rangeOf(width, Format::Signed).lowest, natural.highest};
}

/// What is taken from a user: all that fits the bits unless a format says which.
NumberRange takenRange(const Variable& variable)
{
    const bool chosen = variable.formatGiven &&
                        (variable.format == Format::Signed || variable.format == Format::Unsigned);
    return chosen ? rangeOf(variable.area->width, variable.format) : bitRange(variable.area->width);
}

QString rangeText(const NumberRange& range)
{
    return QStringLiteral("%1 to %2").arg(range.lowest).arg(range.highest);
}

bool looksLikeReal(const QString& text)
{
    return !hasBitPrefix(text) && (text.contains(QLatin1Char('.')) ||
                                   text.contains(QLatin1Char('e'), Qt::CaseInsensitive));
}

std::optional<quint32> parseBit(const QString& text)
{
    const QString lower = text.toLower();
    if (lower == QLatin1String("1") || lower == QLatin1String("true"))
        return 1;
    if (lower == QLatin1String("0") || lower == QLatin1String("false"))
        return 0;
    return std::nullopt;
}

std::optional<quint32> realElement(const QString& text, QString* wanted)
{
    const RealInverse inverse = parseReal(text, Scaling());
    if (inverse.exact)
        return elementOfReal(inverse.real);
    *wanted = inverse.number
                  ? QStringLiteral("the nearest that a REAL holds are %1 and %2")
                        .arg(realText(float(inverse.lower)), realText(float(inverse.upper)))
                  : QStringLiteral("it takes a finite REAL, as in 21.5");
    return std::nullopt;
}

/// What is taken behind 0x or 0b.
QString wantedBits(Width width, const QString& text)
{
    const bool hex = text.at(1).toLower() == QLatin1Char('x');
    const QLatin1String prefix(hex ? "0x" : "0b");
    const quint32 highest = quint32(rangeOf(width, Format::Unsigned).highest);
    return QStringLiteral("it takes ") + prefix + QStringLiteral("0 to ") + prefix +
           QString::number(highest, hex ? 16 : 2).toUpper();
}

/// Hexadecimal digits with no 0x before them, and no number otherwise.
bool looksLikeBareHex(const QString& text)
{
    static const QRegularExpression form(QStringLiteral("^[0-9a-fA-F]+[hH]?$"));
    bool isNumber = false;
    text.toDouble(&isNumber);
    return !isNumber && !hasBitPrefix(text) && form.match(text).hasMatch();
}

/// The range that is taken, and the format that would take the number if there is one.
QString wantedNumber(const Variable& variable, bool isNumber, qint64 number)
{
    QString wanted = QStringLiteral("it takes ") + rangeText(takenRange(variable));
    if (takesReal(variable))
        return wanted + QStringLiteral(" or a REAL, as in 21.5");
    const Format other = variable.format == Format::Signed ? Format::Unsigned : Format::Signed;
    const NumberRange range = rangeOf(variable.area->width, other);
    if (isNumber && variable.area->width != Width::Number && range.holds(number))
        wanted += QStringLiteral("; %1/%2 takes %3")
                      .arg(variable.label(), formatName(other), rangeText(range));
    return wanted;
}

QString unwritable(const Variable& variable, const QString& label)
{
    if (!variable.area->numbered)
        return QStringLiteral("%1 is an input and cannot be written").arg(label);
    const bool timer = variable.area->name[0] == 'T';
    return QStringLiteral("%1 is a %2 bit and cannot be written; the value is %3%4")
        .arg(label, QLatin1String(timer ? "timer" : "counter"), QLatin1String(timer ? "TV" : "CV"))
        .arg(variable.address);
}

/// What to write for "21,5"; nothing if its comma can be no decimal one.
QString decimalCommaHint(const QString& text, int repeat)
{
    static const QRegularExpression form(QStringLiteral("^[+-]?[0-9]*,[0-9]+(?:e[+-]?[0-9]+)?$"),
                                         QRegularExpression::CaseInsensitiveOption);
    if (repeat > 1)
        return QStringLiteral(" (decimal numbers take a point, as in 21.5)");
    if (!form.match(text).hasMatch())
        return QString();
    return QStringLiteral(" (a decimal number takes a point: %1)")
        .arg(QString(text).replace(QLatin1Char(','), QLatin1Char('.')));
}

} // namespace

QString cannotTake(const QString& label, const QString& text, const QString& wanted)
{
    return QStringLiteral("%1 cannot take %2; %3").arg(label, quoted(text), wanted);
}

std::optional<quint32> parseElement(const Variable& variable, const QString& label,
                                    const QString& text, QString* error)
{
    const Width width = variable.area->width;
    std::optional<quint32> element;
    QString wanted = QStringLiteral("it takes 0, 1, true or false");
    if (width == Width::Bit) {
        element = parseBit(text);
    } else if (hasBitPrefix(text)) {
        element = parseBits(width, text);
        wanted = wantedBits(width, text);
    } else if (variable.format == Format::Float) {
        element = realElement(text, &wanted);
    } else {
        bool ok = false;
        const qint64 number = text.toLongLong(&ok);
        if (ok && takenRange(variable).holds(number))
            element = elementOf(width, number);
        wanted = wantedNumber(variable, ok, number);
    }
    if (width != Width::Bit && looksLikeBareHex(text))
        wanted += QStringLiteral("; a hexadecimal number begins with 0x");
    if (!element)
        *error = cannotTake(label, text, wanted);
    return element;
}

QStringList splitValues(const Variable& variable, const QString& label, const QString& text,
                        bool takesFractions, QString* error)
{
    QStringList parts = text.split(QLatin1Char(','));
    for (QString& part : parts)
        part = part.trimmed();
    const QString comma = takesFractions && parts.size() > variable.repeat
                              ? decimalCommaHint(text.trimmed(), variable.repeat)
                              : QString();
    if (!variable.area->writable) {
        *error = unwritable(variable, label);
    } else if (variable.repeat == 1 && parts.size() > 1) {
        Variable several = variable;
        several.repeat = int(parts.size());
        *error = QStringLiteral("%1 takes one value, not %2%3; that many in a row are %4")
                     .arg(label)
                     .arg(parts.size())
                     .arg(comma, several.label());
    } else if (parts.size() != variable.repeat) {
        *error = QStringLiteral("%1 takes %2 values, separated by commas, not %3%4")
                     .arg(label)
                     .arg(variable.repeat)
                     .arg(parts.size())
                     .arg(comma);
    }
    return error->isEmpty() ? parts : QStringList();
}

Format formatOfTexts(const Variable& variable, const QStringList& texts)
{
    const Width width = variable.area->width;
    const auto all = [&](auto belongs) { return std::all_of(texts.begin(), texts.end(), belongs); };
    const auto any = [&](auto belongs) { return std::any_of(texts.begin(), texts.end(), belongs); };
    const auto startsWith = [](const char* prefix) {
        return [=](const QString& text) {
            return text.startsWith(QLatin1String(prefix), Qt::CaseInsensitive);
        };
    };
    if (variable.formatGiven || width == Width::Bit)
        return variable.format;
    if (width == Width::DoubleWord && any(looksLikeReal))
        return Format::Float;
    if (all(startsWith("0x")))
        return Format::Hex;
    if (all(startsWith("0b")))
        return Format::Binary;
    const NumberRange range = rangeOf(width, Format::Signed);
    const auto fitsSigned = [&](const QString& text) { return range.holds(text.toLongLong()); };
    return any(startsWith("-")) && all(fitsSigned) ? Format::Signed : Format::Unsigned;
}

} // namespace s7200
