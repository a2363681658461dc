#include <s7200host/scaling.h>

#include "host/element_text.h"

#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace s7200
{

namespace
{

// With these, number * scale + offset and value - offset stay within 64 bits.
constexpr qint64 MostScale = 1000000000;
constexpr qint64 MostOffset = 4000000000000000000;
constexpr qint64 MostValue = 4600000000000000000;

qint64 powerOfTen(int exponent)
{
    qint64 power = 1;
    for (int i = 0; i < exponent; ++i)
        power *= 10;
    return power;
}

/// Rounds towards minus infinity, as / does not.
qint64 floorDivision(qint64 dividend, qint64 divisor)
{
    const qint64 quotient = dividend / divisor;
    const bool down = dividend % divisor != 0 && (dividend < 0) != (divisor < 0);
    return down ? quotient - 1 : quotient;
}

/// `decimal` in units of the last of `places`, no larger than `most` in magnitude.
qint64 inUnits(const Decimal& decimal, int places, qint64 most)
{
    const qint64 power = powerOfTen(places - decimal.places);
    if (decimal.digits > most / power)
        return most;
    return decimal.digits < -(most / power) ? -most : decimal.digits * power;
}

void stripZeros(Decimal* decimal)
{
    while (decimal->places > 0 && decimal->digits % 10 == 0) {
        decimal->digits /= 10;
        --decimal->places;
    }
}

} // namespace

std::optional<Decimal> parseDecimal(const QString& text, bool* cut)
{
    static const QRegularExpression form(
        QStringLiteral("^([+-]?)([0-9]*)(?:[.,]([0-9]*))?(?:e([+-]?[0-9]{1,4}))?$"));
    const QRegularExpressionMatch match = form.match(text.trimmed().toLower());
    QString digits = match.captured(2) + match.captured(3);
    if (digits.isEmpty())
        return std::nullopt;
    int places = int(match.captured(3).size()) - match.captured(4).toInt();
    for (*cut = false; places > Decimal::MostPlaces && !digits.isEmpty(); --places) {
        *cut = *cut || !digits.endsWith(QLatin1Char('0'));
        digits.chop(1);
    }
    while (digits.startsWith(QLatin1Char('0')))
        digits.remove(0, 1);
    if (digits.isEmpty())
        return Decimal();
    if (digits.size() - std::min(0, places) > Decimal::MostDigits)
        return std::nullopt;
    Decimal decimal = {digits.toLongLong() * powerOfTen(-places), std::max(0, places)};
    stripZeros(&decimal);
    if (match.captured(1) == QLatin1String("-"))
        decimal.digits = -decimal.digits;
    return decimal;
}

std::optional<Decimal> Decimal::parse(const QString& text)
{
    bool cut = false;
    const std::optional<Decimal> decimal = parseDecimal(text, &cut);
    return cut ? std::nullopt : decimal;
}

QString Decimal::text() const
{
    const QString all =
        QString::number(std::abs(digits)).rightJustified(places + 1, QLatin1Char('0'));
    QString shown = digits < 0 ? QStringLiteral("-") : QString();
    shown += all.left(all.size() - places);
    if (places > 0)
        shown += QLatin1Char('.') + all.right(places);
    return shown;
}

double Decimal::number() const
{
    return double(digits) / double(powerOfTen(places));
}

Decimal Decimal::rounded(int toPlaces) const
{
    Decimal result = *this;
    result.places = toPlaces;
    if (toPlaces >= places) {
        result.digits = inUnits(*this, toPlaces, MostValue);
        return result;
    }
    const qint64 unit = powerOfTen(places - toPlaces);
    result.digits = (digits + (digits < 0 ? -unit : unit) / 2) / unit;
    return result;
}

int compare(const Decimal& a, const Decimal& b)
{
    const auto sign = [](qint64 left, qint64 right) {
        return left < right ? -1 : left > right ? 1 : 0;
    };
    const qint64 unitA = powerOfTen(a.places);
    const qint64 unitB = powerOfTen(b.places);
    const int whole = sign(a.digits / unitA, b.digits / unitB);
    return whole != 0 ? whole : sign(a.digits % unitA * unitB, b.digits % unitB * unitA);
}

std::optional<Scaling> Scaling::of(const Decimal& scale, const Decimal& offset, QString* error)
{
    Scaling scaling;
    scaling.m_places = std::max(scale.places, offset.places);
    scaling.m_scale = inUnits(scale, scaling.m_places, 2 * MostScale);
    scaling.m_offset = inUnits(offset, scaling.m_places, MostOffset + 1);
    if (scaling.m_scale == 0)
        *error = QStringLiteral("the scale cannot be 0");
    else if (std::abs(scaling.m_scale) > MostScale || std::abs(scaling.m_offset) > MostOffset)
        *error = QStringLiteral("scale and offset have more digits than can be calculated with "
                                "exactly: nine in the scale, with the offset's places behind the "
                                "point");
    else
        return scaling;
    return std::nullopt;
}

bool Scaling::isIdentity() const
{
    return m_places == 0 && m_scale == 1 && m_offset == 0;
}

Decimal Scaling::scale() const
{
    Decimal scale = {m_scale, m_places};
    stripZeros(&scale);
    return scale;
}

Decimal Scaling::offset() const
{
    Decimal offset = {m_offset, m_places};
    stripZeros(&offset);
    return offset;
}

Decimal Scaling::apply(qint64 number) const
{
    Decimal result;
    result.digits = number * m_scale + m_offset;
    result.places = m_places;
    return result;
}

Scaling::Inverse Scaling::invert(const Decimal& value) const
{
    Decimal wanted = value;
    stripZeros(&wanted);
    bool exact = wanted.places <= m_places;
    qint64 units = 0;
    if (exact) {
        units = inUnits(wanted, m_places, MostValue);
    } else {
        // It lies between this unit and the next; the one on the side of the lower number serves.
        units = floorDivision(wanted.digits, powerOfTen(wanted.places - m_places));
        units += m_scale < 0 ? 1 : 0;
    }
    const qint64 difference = units - m_offset;
    exact = exact && difference % m_scale == 0;
    Inverse inverse;
    inverse.exact = exact;
    inverse.lower = floorDivision(difference, m_scale);
    inverse.upper = exact ? inverse.lower : inverse.lower + 1;
    return inverse;
}

double Scaling::apply(double number) const
{
    return number * Decimal{m_scale, m_places}.number() + Decimal{m_offset, m_places}.number();
}

double Scaling::invert(double value) const
{
    return (value - Decimal{m_offset, m_places}.number()) / Decimal{m_scale, m_places}.number();
}

} // namespace s7200
