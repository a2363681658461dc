#include <s7200host/value_file.h>

#include "host/csv.h"
#include "host/element_text.h"
#include "host/tag_rows.h"

namespace s7200
{

namespace
{

QStringList fieldsOf(const TagValue& value)
{
    const Tag& tag = value.tag;
    const bool scaled = !tag.scaling.isIdentity();
    const bool named = tag.variable.formatGiven || tag.variable.format != Format::Unsigned;
    return {tag.name,
            tag.controller,
            tag.variable.label(),
            named ? formatName(tag.variable.format) : QString(),
            tag.unit,
            scaled ? tag.scaling.scale().text() : QString(),
            scaled ? tag.scaling.offset().text() : QString(),
            tag.decimals < 0 ? QString() : QString::number(tag.decimals),
            tag.exactText(value.elements)};
}

} // namespace

std::optional<QVector<TagValue>> parseValueFile(const QByteArray& csv, const QString& file,
                                                const QStringList* controllers, QStringList* errors)
{
    Faults faults(file);
    const QVector<TagValue> values = readTagRows(csv, controllers, true, &faults);
    return faults.report(errors) ? std::optional<QVector<TagValue>>(values) : std::nullopt;
}

std::optional<QVector<TagValue>> loadValueFile(const QString& file, const QStringList* controllers,
                                               QStringList* errors)
{
    const std::optional<QByteArray> csv = readWholeFile(file, errors);
    return csv ? parseValueFile(*csv, file, controllers, errors) : std::nullopt;
}

QByteArray valueFile(const QVector<TagValue>& values)
{
    QByteArray csv = "name,controller,address,format,unit,scale,offset,decimals,value\n";
    for (const TagValue& value : values)
        csv += csvLine(fieldsOf(value));
    return csv;
}

} // namespace s7200
