#ifndef HOST_ELEMENT_TEXT_H
#define HOST_ELEMENT_TEXT_H

#include <s7200host/scaling.h>
#include <s7200host/variable.h>

#include <QString>

#include <optional>

namespace s7200
{

// The elements of variables as people read and write them.

/// Register type of the bytes of V memory, the only ones that have a type of their own.
constexpr unsigned char VbRegister = 11;

constexpr int bytesOf(Width width)
{
    return width == Width::DoubleWord ? 4 : width == Width::Bit || width == Width::Byte ? 1 : 2;
}

/// True if there are letters in it that are not seen but do something: controls and the like.
bool hasHidden(const QString& text);

QString formatName(Format format);

/// By name or first letter, in upper or lower case.
std::optional<Format> formatNamed(const QString& name);

struct NumberRange {
    qint64 lowest = 0;
    qint64 highest = 0;

    bool holds(qint64 number) const
    {
        return number >= lowest && number <= highest;
    }
};

/// What an element holds as a number in this format. Not for REALs.
NumberRange rangeOf(Width width, Format format);

/// True if 21.5 may be written to it.
bool takesReal(const Variable& variable);

/// The element's bits as a number: negative numbers only in the signed format. Not for REALs.
qint64 numberOf(const Variable& variable, quint32 element);

/// The other way; `number` lies in a range of the width.
quint32 elementOf(Width width, qint64 number);

float realOf(quint32 element);
quint32 elementOfReal(float real);

/// The shortest text that reads back as the same single.
QString realText(float real);

/// As Decimal::parse(), but of more places behind the point than it holds the rest is `cut` off.
std::optional<Decimal> parseDecimal(const QString& text, bool* cut);

/// 0x and 0b: the bits themselves. Nothing if the text is of another kind or does not fit.
std::optional<quint32> parseBits(Width width, const QString& text);
bool hasBitPrefix(const QString& text);

/// The single that gives, scaled, what a decimal text says: `exact` if it then reads as the text in
/// as many digits as the text has, else one of the two next to it.
struct RealInverse {
    bool number = false; ///< False: the text is no finite number, or one beyond all singles.
    bool exact = false;
    float real = 0;
    double lower = 0; ///< The nearest scaled values that there are.
    double upper = 0;
};
RealInverse parseReal(const QString& text, const Scaling& scaling);

/// One element in the variable's format.
QString elementText(const Variable& variable, quint32 element);

/// Reads one element; a variable whose format was not given takes all that fits its bits. Nothing,
/// with an `error` that says what would be right, for any other text; `label` names it there.
std::optional<quint32> parseElement(const Variable& variable, const QString& label,
                                    const QString& text, QString* error);

/// "VW100 cannot take '70000'; it takes ...".
QString cannotTake(const QString& label, const QString& text, const QString& wanted);

/// The parts of VALUE[,VALUE...], one for each element. Empty with an `error` if their number is
/// another, or the variable cannot be written; `label` names it there. `takesFractions`: a comma
/// too many may have been meant as a decimal one.
QStringList splitValues(const Variable& variable, const QString& label, const QString& text,
                        bool takesFractions, QString* error);

/// The format that shows values as they were written, for a variable without one.
Format formatOfTexts(const Variable& variable, const QStringList& texts);

} // namespace s7200

#endif
