#ifndef PANEL_RECORD_WRITER_H
#define PANEL_RECORD_WRITER_H

#include "panel/command_line.h"

#include <s7200host/link.h>
#include <s7200host/value.h>

#include <QByteArray>
#include <QString>

#include <optional>

namespace s7200::panel
{

enum class RecordFormat { Text, Csv, JsonLines, Influx };

/// "text", "csv", "jsonl" or "influx".
std::optional<RecordFormat> recordFormatNamed(const QString& name);

/// The option that chooses, for commands that write records.
QCommandLineOption formatOption();

/// The value of formatOption(). Nothing with a one-line `error` if it is none.
std::optional<RecordFormat> recordFormatOf(const CommandLine& line, QString* error);

/// Lines for programs that read what the panel has read, all of one schema: time (RFC 3339, UTC),
/// controller, name, address, value, unit, quality. Text is for people and gives name, value and
/// unit.
///
/// Only a good value is given as a value: with any other quality the field is empty, null, or left
/// out. Its time is that of the reading; with any other quality it is `nowMs`. Times are in
/// milliseconds since 1970-01-01 UTC.
class RecordWriter
{
public:
    explicit RecordWriter(RecordFormat format);

    /// The line that begins a file; empty except for CSV.
    QByteArray header() const;

    /// One line, with its end, of what an item has been found to be. In CSV and text the elements
    /// of an array are separated by blanks. In the line protocol the field is "value", of an array
    /// "value_0" and so on, and always a float, since its type must not differ between variables.
    QByteArray record(const Item& item, const QString& controller, const Value& value,
                      qint64 nowMs) const;

    /// One line of what has become of a link: in JSON lines with "event":"link", in CSV with a
    /// quality that begins with "link " and neither name nor address, in the line protocol of a
    /// measurement of its own, where no two have the same time. Empty for text.
    QByteArray linkRecord(const QString& controller, const LinkStatus& status, qint64 nowMs);

private:
    QByteArray lineEvent(const QString& controller, const LinkStatus& status, qint64 nowMs);

    const RecordFormat m_format;
    qint64 m_eventMs = -1;  ///< Of the last event.
    int m_eventsBefore = 0; ///< In the same millisecond.
};

/// What a request that ended so found, as a value.
Value valueOf(const Result& result);

} // namespace s7200::panel

#endif
