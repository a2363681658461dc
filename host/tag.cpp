#include <s7200host/tag.h>

#include "host/controller_tags.h"
#include "host/element_text.h"

#include <QHash>
#include <QSet>

#include <algorithm>
#include <cmath>
#include <limits>

namespace s7200
{

namespace
{

/// Most singles need no more digits; those that do get them in exactText().
constexpr int RealDigits = 7;

bool isReal(const Tag& tag)
{
    return tag.variable.format == Format::Float;
}

/// Shown in bits rather than as a quantity.
bool isPattern(const Tag& tag)
{
    return tag.variable.area->width == Width::Bit || tag.variable.format == Format::Hex ||
           tag.variable.format == Format::Binary;
}

double scaledReal(const Tag& tag, quint32 element)
{
    const double real = double(realOf(element));
    return tag.scaling.isIdentity() ? real : tag.scaling.apply(real);
}

Decimal scaledNumber(const Tag& tag, quint32 element)
{
    return tag.scaling.apply(numberOf(tag.variable, element));
}

QString realElementText(const Tag& tag, quint32 element)
{
    const double real = scaledReal(tag, element);
    if (tag.decimals >= 0 && std::isfinite(real))
        return QString::number(real, 'f', tag.decimals);
    return tag.scaling.isIdentity() ? realText(realOf(element))
                                    : QString::number(real, 'g', RealDigits);
}

/// What parseValues() makes the same single of.
QString exactRealText(const Tag& tag, quint32 element)
{
    const float real = realOf(element);
    if (std::isfinite(real)) {
        for (int digits = 6; digits <= std::numeric_limits<double>::max_digits10; ++digits) {
            const QString text = QString::number(scaledReal(tag, element), 'g', digits);
            const RealInverse inverse = parseReal(text, tag.scaling);
            if (inverse.exact && elementOfReal(inverse.real) == element)
                return text;
        }
    }
    return QStringLiteral("0x") + QString::number(element, 16).toUpper();
}

QString exactElementText(const Tag& tag, quint32 element)
{
    if (isReal(tag))
        return exactRealText(tag, element);
    return isPattern(tag) ? elementText(tag.variable, element) : scaledNumber(tag, element).text();
}

bool elementChanged(const Tag& tag, quint32 before, quint32 now)
{
    if (before == now || !tag.deadBand || isPattern(tag))
        return before != now;
    if (isReal(tag)) {
        const double difference = scaledReal(tag, now) - scaledReal(tag, before);
        return !(std::fabs(difference) <= tag.deadBand->number());
    }
    const Decimal a = scaledNumber(tag, before);
    const Decimal b = scaledNumber(tag, now);
    const qint64 difference = a.digits < b.digits ? b.digits - a.digits : a.digits - b.digits;
    return compare(Decimal{difference, a.places}, *tag.deadBand) > 0;
}

QString orText(const QString& a, const QString& b)
{
    return QStringLiteral("the nearest that can be written are %1 and %2").arg(a, b);
}

std::optional<quint32> parseScaledReal(const Tag& tag, const QString& text, QString* error)
{
    const RealInverse inverse = parseReal(text, tag.scaling);
    if (inverse.exact)
        return elementOfReal(inverse.real);
    const auto shown = [](double real) {
        return QString::number(real, 'g', std::numeric_limits<float>::max_digits10);
    };
    const QString wanted = inverse.number ? orText(shown(inverse.lower), shown(inverse.upper))
                                          : QStringLiteral("it takes a finite REAL, as in 21.5");
    *error = cannotTake(tag.label(), text, wanted);
    return std::nullopt;
}

std::optional<quint32> parseScaledNumber(const Tag& tag, const QString& text, QString* error)
{
    const Width width = tag.variable.area->width;
    const NumberRange range = rangeOf(width, tag.variable.format);
    const auto between = [&](const char* joined, qint64 a, qint64 b) {
        const Decimal first = tag.scaling.apply(a);
        const Decimal second = tag.scaling.apply(b);
        const bool inOrder = compare(first, second) <= 0;
        return (inOrder ? first : second).text() + QLatin1String(joined) +
               (inOrder ? second : first).text();
    };
    bool cut = false;
    const std::optional<Decimal> value = parseDecimal(text, &cut);
    Scaling::Inverse inverse = value ? tag.scaling.invert(*value) : Scaling::Inverse();
    if (cut && inverse.exact) {
        // What was cut off is beyond it, away from 0.
        const bool more =
            text.trimmed().startsWith(QLatin1Char('-')) == (tag.scaling.scale().digits < 0);
        (more ? inverse.upper : inverse.lower) += more ? 1 : -1;
        inverse.exact = false;
    }
    if (!value || !range.holds(inverse.lower) || !range.holds(inverse.upper))
        *error =
            cannotTake(tag.label(), text,
                       QStringLiteral("it takes ") + between(" to ", range.lowest, range.highest));
    else if (!inverse.exact)
        *error = cannotTake(tag.label(), text,
                            QStringLiteral("the nearest that can be written are ") +
                                between(" and ", inverse.lower, inverse.upper));
    else
        return elementOf(width, inverse.lower);
    return std::nullopt;
}

QString plainLabel(const Tag& tag)
{
    return tag.name.isEmpty() ? tag.variable.label() : tag.name;
}

/// The controller that a tag says, by name or by station; empty: none.
QString placeOf(const Tag& tag)
{
    return tag.variable.station >= 0 ? QString::number(tag.variable.station) : tag.controller;
}

/// Without controllers; those of one variable in two formats carry the format.
QStringList plainLabels(const QVector<Tag>& tags)
{
    QHash<QString, QSet<QString>> known; // by controller and label without a format
    const auto keyOf = [](const Tag& tag) {
        return placeOf(tag) + QLatin1Char(':') + plainLabel(tag);
    };
    for (const Tag& tag : tags)
        known[keyOf(tag)].insert(tag.label());
    QStringList labels;
    for (const Tag& tag : tags)
        labels.append(known.value(keyOf(tag)).size() > 1 ? tag.label() : plainLabel(tag));
    return labels;
}

std::optional<quint32> parseTagElement(const Tag& tag, const QString& text, QString* error)
{
    const bool asItStands = tag.scaling.isIdentity() && (tag.decimals < 0 || isReal(tag));
    if (asItStands || isPattern(tag) || hasBitPrefix(text))
        return parseElement(tag.variable, tag.label(), text, error);
    return isReal(tag) ? parseScaledReal(tag, text, error) : parseScaledNumber(tag, text, error);
}

} // namespace

QString Tag::label() const
{
    if (!name.isEmpty())
        return name;
    return variable.formatGiven ? variable.text() : variable.label();
}

QString Tag::address() const
{
    return variable.text();
}

QString Tag::text(quint32 element) const
{
    if (isReal(*this))
        return realElementText(*this, element);
    if (isPattern(*this))
        return elementText(variable, element);
    const Decimal scaled = scaledNumber(*this, element);
    return decimals < 0 ? scaled.text() : scaled.rounded(decimals).text();
}

QString Tag::text(const QVector<quint32>& elements) const
{
    QStringList texts;
    for (const quint32 element : elements)
        texts.append(text(element));
    return texts.join(QLatin1Char(' '));
}

QString Tag::exactText(const QVector<quint32>& elements) const
{
    QStringList texts;
    for (const quint32 element : elements)
        texts.append(exactElementText(*this, element));
    return texts.join(QLatin1Char(','));
}

double Tag::number(quint32 element) const
{
    if (isPattern(*this))
        return element;
    const double value = text(element).toDouble();
    return std::isfinite(value) ? value : std::numeric_limits<double>::quiet_NaN();
}

bool Tag::hasChanged(const QVector<quint32>& before, const QVector<quint32>& now) const
{
    bool changed = before.size() != now.size();
    for (int i = 0; i < int(now.size()) && !changed; ++i)
        changed = elementChanged(*this, before.at(i), now.at(i));
    return changed;
}

Limit Tag::limit(quint32 element) const
{
    if (isReal(*this)) {
        const double real = scaledReal(*this, element);
        if (low && real < low->number())
            return Limit::Low;
        return high && real > high->number() ? Limit::High : Limit::Inside;
    }
    const Decimal scaled =
        isPattern(*this) ? Decimal{qint64(element), 0} : scaledNumber(*this, element);
    if (low && compare(scaled, *low) < 0)
        return Limit::Low;
    return high && compare(scaled, *high) > 0 ? Limit::High : Limit::Inside;
}

bool Tag::parseValues(const QString& text, QVector<quint32>* elements, QString* error) const
{
    elements->clear();
    error->clear();
    const bool takesFractions = takesReal(variable) || scaling.apply(qint64(0)).places > 0;
    for (const QString& part : splitValues(variable, label(), text, takesFractions, error)) {
        const std::optional<quint32> element = parseTagElement(*this, part, error);
        if (!element)
            return false;
        elements->append(*element);
    }
    return error->isEmpty();
}

QStringList labelsOf(const QVector<Tag>& tags)
{
    return std::all_of(tags.begin(), tags.end(),
                       [&](const Tag& tag) { return placeOf(tag) == placeOf(tags.first()); })
               ? plainLabels(tags)
               : labelsWithControllers(tags);
}

QStringList labelsWithControllers(const QVector<Tag>& tags)
{
    QStringList labels = plainLabels(tags);
    for (int i = 0; i < int(tags.size()); ++i) {
        const QString place = placeOf(tags.at(i));
        const bool isSaid = tags.at(i).name.isEmpty() && tags.at(i).variable.station >= 0; // VW2@2
        if (!place.isEmpty() && !isSaid)
            labels[i].prepend(place + QLatin1Char(':'));
    }
    return labels;
}

} // namespace s7200
