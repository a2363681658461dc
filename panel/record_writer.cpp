#include "panel/record_writer.h"

#include "host/csv.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace s7200::panel
{

namespace
{

const char* const Measurement = "s7200";
const char* const LinkMeasurement = "s7200_link";
constexpr qint64 NsPerMs = 1000 * 1000;

QString timeText(qint64 timeMs)
{
    return QDateTime::fromMSecsSinceEpoch(timeMs, Qt::UTC).toString(Qt::ISODateWithMs);
}

struct FormatRow {
    const char* name;
    RecordFormat format;
};
constexpr FormatRow Formats[] = {
    {"text", RecordFormat::Text},
    {"csv", RecordFormat::Csv},
    {"jsonl", RecordFormat::JsonLines},
    {"influx", RecordFormat::Influx},
};

/// The seven fields, but for how the value is written.
struct Fields {
    const Item& item;
    const QString& controller;
    const Value& value;
    const qint64 timeMs;

    bool isGood() const
    {
        return value.quality == Quality::Good;
    }
    QString time() const
    {
        return timeText(timeMs);
    }
    QString name() const
    {
        return item.tag.name.isEmpty() ? item.label.section(QLatin1Char(':'), -1) : item.tag.name;
    }
};

QByteArray textLine(const Fields& fields)
{
    const Tag& tag = fields.item.tag;
    QString line = fields.item.label + QLatin1Char(' ') +
                   (fields.isGood() ? tag.text(fields.value.elements)
                                    : QStringLiteral("? ") + describe(fields.value.quality));
    if (fields.isGood() && !tag.unit.isEmpty())
        line += QLatin1Char(' ') + tag.unit;
    return encoded(line) + '\n';
}

QByteArray csvRecord(const Fields& fields)
{
    const Tag& tag = fields.item.tag;
    return csvLine({fields.time(), fields.controller, fields.name(), tag.address(),
                    fields.isGood() ? tag.text(fields.value.elements) : QString(), tag.unit,
                    describe(fields.value.quality)});
}

QByteArray jsonLine(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonValue jsonNumber(const Tag& tag, quint32 element)
{
    const double number = tag.number(element);
    return std::isnan(number) ? QJsonValue() : QJsonValue(number);
}

QByteArray jsonRecord(const Fields& fields)
{
    const Tag& tag = fields.item.tag;
    QJsonValue value;
    if (fields.isGood() && tag.variable.repeat == 1) {
        value = jsonNumber(tag, fields.value.elements.value(0));
    } else if (fields.isGood()) {
        QJsonArray elements;
        for (const quint32 element : fields.value.elements)
            elements.append(jsonNumber(tag, element));
        value = elements;
    }
    return jsonLine({{QStringLiteral("time"), fields.time()},
                     {QStringLiteral("controller"), fields.controller},
                     {QStringLiteral("name"), fields.name()},
                     {QStringLiteral("address"), tag.address()},
                     {QStringLiteral("value"), value},
                     {QStringLiteral("unit"), tag.unit},
                     {QStringLiteral("quality"), describe(fields.value.quality)}});
}

/// A tag of the line protocol with the comma before it; none that is empty, which it does not
/// allow.
QByteArray lineTag(const char* key, const QString& value)
{
    if (value.isEmpty())
        return QByteArray();
    QString escaped;
    for (const QChar c : value) {
        if (c == QLatin1Char(',') || c == QLatin1Char('=') || c == QLatin1Char(' '))
            escaped += QLatin1Char('\\');
        escaped += c.unicode() < 0x20 ? QLatin1Char('_') : c;
    }
    // It would escape what separates this from the next.
    if (escaped.endsWith(QLatin1Char('\\')))
        escaped += QLatin1Char('_');
    return QByteArray(",") + key + '=' + escaped.toUtf8();
}

QByteArray lineRecord(const Fields& fields)
{
    const Tag& tag = fields.item.tag;
    // Keys in their order, as the protocol advises.
    QByteArray line = Measurement + lineTag("address", tag.address()) +
                      lineTag("controller", fields.controller) + lineTag("name", fields.name()) +
                      lineTag("unit", tag.unit) + ' ';
    for (int i = 0; fields.isGood() && i < int(fields.value.elements.size()); ++i) {
        const double number = tag.number(fields.value.elements.at(i));
        if (std::isnan(number))
            continue;
        line += tag.variable.repeat == 1 ? QByteArray("value") : "value_" + QByteArray::number(i);
        line += '=' + QString::number(number, 'g', QLocale::FloatingPointShortest).toLatin1() + ',';
    }
    return line + "quality=\"" + describe(fields.value.quality).toUtf8() + "\" " +
           QByteArray::number(fields.timeMs * NsPerMs) + '\n';
}

/// A field that is text, without line ends.
QByteArray lineField(const char* key, const QString& value)
{
    QString escaped;
    for (const QChar c : value) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            escaped += QLatin1Char('\\');
        escaped += c.unicode() < 0x20 ? QLatin1Char(' ') : c;
    }
    return QByteArray(key) + "=\"" + escaped.toUtf8() + '"';
}

QString linkQuality(const LinkStatus& status)
{
    const QString text = QStringLiteral("link ") + describe(status.state);
    return status.cause == Cause::None ? text
                                       : text + QStringLiteral(": ") + describe(status.cause);
}

QByteArray jsonEvent(const QString& controller, const LinkStatus& status, qint64 nowMs)
{
    QJsonObject object = {{QStringLiteral("time"), timeText(nowMs)},
                          {QStringLiteral("controller"), controller},
                          {QStringLiteral("event"), QStringLiteral("link")},
                          {QStringLiteral("state"), describe(status.state)}};
    if (status.cause != Cause::None) {
        object.insert(QStringLiteral("cause"), describe(status.cause));
        object.insert(QStringLiteral("detail"), status.detail);
    }
    return jsonLine(object);
}

} // namespace

std::optional<RecordFormat> recordFormatNamed(const QString& name)
{
    for (const FormatRow& row : Formats) {
        if (name == QLatin1String(row.name))
            return row.format;
    }
    return std::nullopt;
}

QCommandLineOption formatOption()
{
    return {QStringLiteral("format"),
            QStringLiteral("How values are written: text (the default), or with time, controller, "
                           "name, address, value, unit and quality as csv, jsonl (JSON lines) or "
                           "influx (line protocol)."),
            QStringLiteral("format"), QStringLiteral("text")};
}

std::optional<RecordFormat> recordFormatOf(const CommandLine& line, QString* error)
{
    const QString name = line.options().value(QStringLiteral("format"));
    const std::optional<RecordFormat> format = recordFormatNamed(name);
    if (!format)
        *error = QStringLiteral("--format is text, csv, jsonl or influx, not %1").arg(quoted(name));
    return format;
}

RecordWriter::RecordWriter(RecordFormat format) : m_format(format) {}

QByteArray RecordWriter::header() const
{
    return m_format == RecordFormat::Csv
               ? QByteArray("time,controller,name,address,value,unit,quality\n")
               : QByteArray();
}

QByteArray RecordWriter::record(const Item& item, const QString& controller, const Value& value,
                                qint64 nowMs) const
{
    const Fields fields = {item, controller, value,
                           value.quality == Quality::Good ? value.timeMs : nowMs};
    switch (m_format) {
    case RecordFormat::Csv:
        return csvRecord(fields);
    case RecordFormat::JsonLines:
        return jsonRecord(fields);
    case RecordFormat::Influx:
        return lineRecord(fields);
    default:
        return textLine(fields);
    }
}

QByteArray RecordWriter::linkRecord(const QString& controller, const LinkStatus& status,
                                    qint64 nowMs)
{
    switch (m_format) {
    case RecordFormat::Csv:
        return csvLine({timeText(nowMs), controller, {}, {}, {}, {}, linkQuality(status)});
    case RecordFormat::JsonLines:
        return jsonEvent(controller, status, nowMs);
    case RecordFormat::Influx:
        return lineEvent(controller, status, nowMs);
    default:
        return QByteArray();
    }
}

/// A point of the same time would take the other's place.
QByteArray RecordWriter::lineEvent(const QString& controller, const LinkStatus& status,
                                   qint64 nowMs)
{
    m_eventsBefore = nowMs == m_eventMs ? m_eventsBefore + 1 : 0;
    m_eventMs = nowMs;
    QByteArray line = LinkMeasurement + lineTag("controller", controller) + ' ';
    if (status.cause != Cause::None)
        line += lineField("cause", describe(status.cause)) + ',' +
                lineField("detail", status.detail) + ',';
    return line + lineField("state", describe(status.state)) + ' ' +
           QByteArray::number(nowMs * NsPerMs + m_eventsBefore) + '\n';
}

Value valueOf(const Result& result)
{
    Value value = result.value;
    if (result)
        return value;
    const bool refused = result.cause == Cause::Refused || result.cause == Cause::Invalid;
    value.quality = refused ? Quality::Refused : Quality::LinkDown;
    value.detail = result.detail;
    return value;
}

} // namespace s7200::panel
