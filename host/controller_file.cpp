#include <s7200host/controller_file.h>

#include "host/csv.h"
#include "host/endpoint_text.h"
#include "wire/s7_fields.h"

#include <QHash>

namespace s7200
{

namespace
{

constexpr int LongestMs = 24 * 60 * 60 * 1000;
constexpr int MostRetries = 1000;

enum Column {
    NameColumn,
    HostColumn,
    PortColumn,
    LocalTsapColumn,
    RemoteTsapColumn,
    TimeoutColumn,
    RetriesColumn,
    IntervalColumn
};

const QVector<CsvColumn>& controllerColumns()
{
    static const QVector<CsvColumn> columns = {
        {"name", true},         {"host", true},     {"port", false},    {"local_tsap", false},
        {"remote_tsap", false}, {"timeout", false}, {"retries", false}, {"interval", false}};
    return columns;
}

/// One row of a controller file.
class RowReader
{
public:
    RowReader(const CsvRow& row, Faults* faults) : m_row(row), m_faults(faults) {}

    ControllerSettings read(const ControllerSettings& defaults)
    {
        ControllerSettings settings = defaults;
        settings.name = m_row.fields.at(NameColumn);
        const QString wrongName = faultOfName(settings.name);
        if (!wrongName.isEmpty())
            fault(wrongName);
        settings.endpoint.host = m_row.fields.at(HostColumn);
        if (settings.endpoint.host.isEmpty())
            fault(QStringLiteral("the host is missing"));
        else if (!isHost(settings.endpoint.host))
            fault(QStringLiteral("%1 is no host's name or address; a port stands in column port")
                      .arg(quoted(settings.endpoint.host)));
        int port = settings.endpoint.port;
        number(PortColumn, 1, 65535, &port);
        settings.endpoint.port = quint16(port);
        tsap(LocalTsapColumn, &settings.localTsap);
        tsap(RemoteTsapColumn, &settings.remoteTsap);
        number(TimeoutColumn, 1, LongestMs, &settings.timeoutMs);
        number(RetriesColumn, 0, MostRetries, &settings.retries);
        number(IntervalColumn, 0, LongestMs, &settings.intervalMs);
        return settings;
    }

private:
    void fault(const QString& text)
    {
        m_faults->add(m_row.line, text);
    }

    void number(Column column, int lowest, int highest, int* value)
    {
        const QString& text = m_row.fields.at(column);
        if (text.isEmpty())
            return;
        bool ok = false;
        const int given = text.toInt(&ok);
        if (ok && given >= lowest && given <= highest)
            *value = given;
        else
            fault(QStringLiteral("%1 is a whole number from %2 to %3, not %4")
                      .arg(QLatin1String(controllerColumns().at(column).name))
                      .arg(lowest)
                      .arg(highest)
                      .arg(quoted(text)));
    }

    void tsap(Column column, quint16* value)
    {
        const QString& text = m_row.fields.at(column);
        if (text.isEmpty())
            return;
        const std::optional<quint16> given = parseTsap(text);
        if (given)
            *value = *given;
        else
            fault(
                QStringLiteral("%1 is two hexadecimal bytes, 10.00 or 1000, not %2 (a spreadsheet "
                               "keeps them only in a column of text)")
                    .arg(QLatin1String(controllerColumns().at(column).name), quoted(text)));
    }

    const CsvRow& m_row;
    Faults* m_faults;
};

} // namespace

std::optional<QVector<ControllerSettings>>
loadControllers(const QString& file, const ControllerSettings& defaults, QStringList* errors)
{
    const std::optional<QByteArray> csv = readWholeFile(file, errors);
    return csv ? parseControllers(*csv, file, defaults, errors) : std::nullopt;
}

std::optional<QVector<ControllerSettings>> parseControllers(const QByteArray& csv,
                                                            const QString& file,
                                                            const ControllerSettings& defaults,
                                                            QStringList* errors)
{
    Faults faults(file);
    QVector<ControllerSettings> controllers;
    QHash<QString, int> lines;
    for (const CsvRow& row : readCsv(csv, controllerColumns(), &faults)) {
        controllers.append(RowReader(row, &faults).read(defaults));
        const QString& name = controllers.last().name;
        int& line = lines[name.toLower()];
        if (line != 0 && !name.isEmpty())
            faults.add(
                row.line,
                QStringLiteral("%1 is already the name of line %2").arg(quoted(name)).arg(line));
        line = row.line;
    }
    if (faults.count() == 0 && controllers.isEmpty())
        faults.addFile(QStringLiteral("there is no controller in it"));
    return faults.report(errors) ? std::optional<QVector<ControllerSettings>>(controllers)
                                 : std::nullopt;
}

std::optional<quint16> parseTsap(const QString& text)
{
    return wire::parseTsap(text);
}

QString tsapText(quint16 tsap)
{
    return wire::tsapText(tsap);
}

} // namespace s7200
