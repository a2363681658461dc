#ifndef S7200HOST_CONTROLLER_FILE_H
#define S7200HOST_CONTROLLER_FILE_H

#include <s7200host/controller.h>
#include <s7200host/export.h>

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace s7200
{

/// Reads a controller file: CSV in UTF-8 with a header line, separated by commas, semicolons or
/// tabs, columns in any order:
///
///   name, host, port, local_tsap, remote_tsap, timeout, retries, interval
///
/// Times are in milliseconds. Only name and host are required; what is not given is taken from
/// `defaults`. Nothing, with a line for each fault in `errors` ("FILE line 7: ..."), if there is
/// any; of many the first twenty, and a count. A file of more than 16 MiB is not read.
S7200HOST_EXPORT std::optional<QVector<ControllerSettings>>
loadControllers(const QString& file, const ControllerSettings& defaults, QStringList* errors);

/// The same from the file's contents.
S7200HOST_EXPORT std::optional<QVector<ControllerSettings>>
parseControllers(const QByteArray& csv, const QString& file, const ControllerSettings& defaults,
                 QStringList* errors);

/// A transport service access point (ISO 8073) as two hexadecimal bytes, "10.00" or "1000".
S7200HOST_EXPORT std::optional<quint16> parseTsap(const QString& text);

/// "10.00".
S7200HOST_EXPORT QString tsapText(quint16 tsap);

} // namespace s7200

#endif
