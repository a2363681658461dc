#ifndef S7200HOST_VARIABLE_H
#define S7200HOST_VARIABLE_H

#include <s7200host/export.h>

#include <QByteArray>
#include <QString>
#include <QVector>

namespace s7200
{

/// How wide one element of a variable is. Number: the 16-bit value of a timer or counter.
enum class Width { Bit, Byte, Word, DoubleWord, Number };

/// How a variable's elements are shown.
enum class Format { Unsigned, Signed, Hex, Binary, Float };

/// One kind of variable as an engineer names it, and what the driver knows it as.
struct AreaRow {
    const char* name;    ///< As written, "VW".
    Width width;         ///< Of one element.
    bool numbered;       ///< The address is a timer's or counter's number, else a byte address.
    unsigned char type;  ///< Register type for values: GetRegisterData and SetRegisterData.
    unsigned char reads; ///< Register type for reads: whole words, timers or counters.
    int size;            ///< Bytes, or timers or counters, that the driver's image has.
    bool writable;       ///< Whether a controller takes writes of it.
};

/// A variable as named on the command line: VW100, M0.3x8, VD4/float, TV37@3.
struct S7200HOST_EXPORT Variable {
    const AreaRow* area = nullptr;    ///< Null only in one that was never read from a text.
    int address = 0;                  ///< Byte address, or number of the timer or counter.
    int bit = 0;                      ///< 0 to 7, for bits of byte areas.
    int repeat = 1;                   ///< Elements.
    int station = -1;                 ///< What follows "@"; -1: not given.
    Format format = Format::Unsigned; ///< How its elements are shown.
    bool formatGiven = false; ///< Without one, a write takes every number that fits the bits.

    /// The name without its format, "VW100x4@3".
    QString label() const;
    /// The name with its format unless that is unsigned, "VW100x4@3/hex". It reads back as the
    /// same variable.
    QString text() const;
    /// The address as the driver's functions take it: "10.3" or "100".
    QString driverAddress() const;
    /// The element count as the driver's value functions take it: bits of a byte that has no
    /// register type of its own, 16-bit words of a double word.
    int driverCount() const;
    /// True for timer and counter bits: they are taken from the status byte of a reply.
    bool hasStatusBits() const;
    /// True for AIW and AQW, whose read requests count words.
    bool isAnalog() const;
    /// True for bytes that the driver has no register type for: they are handled as eight bits.
    bool isByteOfBits() const;
    /// First byte, and the byte behind the last one; numbers for timers and counters.
    int firstUnit() const;
    int endUnit() const; ///< See firstUnit().
};

/// The register type that reads the area of register type `type`: words for bits, bytes and double
/// words. -1 for a type that does not exist.
S7200HOST_EXPORT int readTypeOf(int type);

/// The user's text for a message: in quotes, as typed, of bounded length, with control characters
/// made visible.
S7200HOST_EXPORT QString quoted(const QString& text);

/// Reads NAME[xCOUNT][@STATION][/FORMAT]; upper and lower case are the same. False with a one-line
/// `error` that names what is wrong and what would be right.
S7200HOST_EXPORT bool parseVariable(const QString& text, Variable* variable, QString* error);

/// Reads VARIABLE=VALUE[,VALUE...], one value for each element; `values` holds each element's bits,
/// right-aligned. A variable without a format gets that of the values. False with a one-line
/// `error`, also for a variable that cannot be written and a value that it cannot hold.
S7200HOST_EXPORT bool parseAssignment(const QString& text, Variable* variable,
                                      QVector<quint32>* values, QString* error);

/// Splits the host encoding that GetRegisterData gave into elements, right-aligned. Missing bytes
/// count as 0x00.
S7200HOST_EXPORT QVector<quint32> decodeValues(const Variable& variable,
                                               const QByteArray& hostData);

/// The elements as text in the variable's format, separated by blanks.
S7200HOST_EXPORT QString formatValues(const Variable& variable, const QVector<quint32>& values);

/// Lines for --help that explain how variables are written.
S7200HOST_EXPORT QString variableHelp();

} // namespace s7200

#endif
