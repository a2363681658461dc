#ifndef S7200HOST_SCALING_H
#define S7200HOST_SCALING_H

#include <s7200host/export.h>

#include <QString>
#include <QtGlobal>

#include <optional>

namespace s7200
{

/// A decimal fraction, exactly: digits / 10^places.
struct Decimal {
    static constexpr int MostDigits = 18; ///< In all.
    static constexpr int MostPlaces = 9;  ///< Behind the point.

    qint64 digits = 0; ///< All of them, with the sign.
    int places = 0;    ///< 0 to MostPlaces.

    /// "21.5", "-0,1", "1e-3"; nothing if the text is no number, or one of more than MostDigits, or
    /// MostPlaces behind the point, zeros at the end apart.
    S7200HOST_EXPORT static std::optional<Decimal> parse(const QString& text);
    S7200HOST_EXPORT QString text() const;  ///< With all places, trailing zeros too.
    S7200HOST_EXPORT double number() const; ///< The nearest there is.
    /// Half away from zero. More places than it has are filled with zeros, up to MostPlaces.
    S7200HOST_EXPORT Decimal rounded(int toPlaces) const;
};

/// Below, at or above 0 as a is less than, equal to or greater than b.
S7200HOST_EXPORT int compare(const Decimal& a, const Decimal& b);

/// How a controller's whole numbers become a quantity: number * scale + offset, exactly.
class S7200HOST_EXPORT Scaling
{
public:
    Scaling() = default;

    /// Nothing, with an `error`, if the scale is 0 or the two have more digits than can be
    /// calculated with exactly: `scale`, written with the places of both, is at most 10^9 units
    /// of the last place.
    static std::optional<Scaling> of(const Decimal& scale, const Decimal& offset, QString* error);

    bool isIdentity() const; ///< 1 and 0.
    Decimal scale() const;   ///< As given.
    Decimal offset() const;  ///< As given.

    /// `number` is at least -2^32 and at most 2^32.
    Decimal apply(qint64 number) const;

    /// What would have to be applied to give a value: `exact`, or one of its two neighbours.
    struct Inverse {
        bool exact = false; ///< A whole number gives the value.
        qint64 lower = 0;   ///< The number itself if exact, else the one below.
        qint64 upper = 0;   ///< The same, above.
    };
    Inverse invert(const Decimal& value) const; ///< From a quantity to the number.

    double apply(double number) const; ///< For REALs.
    double invert(double value) const; ///< For REALs.

private:
    qint64 m_scale = 1;  ///< In units of the last place.
    qint64 m_offset = 0; ///< The same.
    int m_places = 0;
};

} // namespace s7200

#endif
