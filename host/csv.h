#ifndef HOST_CSV_H
#define HOST_CSV_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace s7200
{

// Tables as spreadsheets write them: CSV in UTF-8, with or without a byte order mark, with a header
// line, in quotes where needed, lines ended by CR LF or LF. Fields are separated by what comes
// first in the header, outside quotes, of commas, semicolons and tabs, or by what a line "sep=;"
// before it says. Blanks around a field do not count, within its quotes neither.

/// A column by name. Spelt in upper or lower case and with blanks, _ or - between its words it is
/// the same.
struct CsvColumn {
    const char* name;
    bool required;
};

struct CsvRow {
    int line = 0;       ///< Of the file, from 1.
    char separator = 0; ///< Of its fields.
    QStringList fields; ///< One for each CsvColumn; empty where the file has none.
};

/// Bytes. A hundred thousand tags take half of it.
constexpr qint64 LargestFile = 16 << 20;

/// What is wrong with a file, each with its line. However many there are, the first ones by line
/// are kept, and the rest are counted.
class Faults
{
public:
    static constexpr int MostKept = 20;

    explicit Faults(const QString& file);

    void add(int line, const QString& text);
    void addFile(const QString& text); ///< Of the file as a whole.
    int count() const;                 ///< Of all.

    /// Appends "FILE line 7: ..." for each that is kept, in the order of the lines, and a line that
    /// counts the rest. True if there is none.
    bool report(QStringList* errors) const;

private:
    struct Fault {
        int line;
        QString text;
    };
    const QString m_file;
    QVector<Fault> m_faults; ///< By line; of one line as they were added.
    int m_count = 0;
};

/// The rows of a table. Faults are: no text in UTF-8, an unknown column, one twice, a required one
/// missing, fields without a column, quotes that do not match.
QVector<CsvRow> readCsv(const QByteArray& csv, const QVector<CsvColumn>& columns, Faults* faults);

/// `texts`, of which only the first ones stay if they are more than Faults::MostKept, and a line
/// that counts the rest.
QStringList firstOf(QStringList texts);

/// The whole file; nothing, with a line in `errors`, if it cannot be read or is larger than
/// LargestFile, as what never ends is.
std::optional<QByteArray> readWholeFile(const QString& file, QStringList* errors);

/// One line, separated by commas and ended by LF, with quotes where they are needed.
QByteArray csvLine(const QStringList& fields);

} // namespace s7200

#endif
