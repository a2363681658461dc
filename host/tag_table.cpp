#include <s7200host/tag.h>

#include "host/csv.h"
#include "host/element_text.h"
#include "host/name_pattern.h"
#include "host/tag_rows.h"

#include <algorithm>

namespace s7200
{

std::optional<TagTable> TagTable::load(const QString& file, const QStringList* controllers,
                                       QStringList* errors)
{
    const std::optional<QByteArray> csv = readWholeFile(file, errors);
    return csv ? parse(*csv, file, controllers, errors) : std::nullopt;
}

std::optional<TagTable> TagTable::parse(const QByteArray& csv, const QString& file,
                                        const QStringList* controllers, QStringList* errors)
{
    Faults faults(file);
    TagTable table;
    for (const TagValue& row : readTagRows(csv, controllers, false, &faults)) {
        table.m_byName[row.tag.name.toLower()].append(int(table.m_tags.size()));
        table.m_tags.append(row.tag);
    }
    if (faults.count() == 0 && table.m_tags.isEmpty())
        faults.addFile(QStringLiteral("there is no tag in it"));
    return faults.report(errors) ? std::optional<TagTable>(table) : std::nullopt;
}

const QVector<Tag>& TagTable::tags() const
{
    return m_tags;
}

QVector<Tag> TagTable::named(const QString& name, const QString* controller) const
{
    QVector<Tag> found;
    const auto isOwn = [&](const Tag& tag) {
        return tag.controller.compare(*controller, Qt::CaseInsensitive) == 0;
    };
    const auto take = [&](Tag tag) {
        if (controller && !isOwn(tag)) {
            // A tag of no controller is one of each that has none of that name.
            const QVector<int> alike = m_byName.value(tag.name.toLower());
            if (!tag.controller.isEmpty() ||
                std::any_of(alike.begin(), alike.end(), [&](int i) { return isOwn(m_tags.at(i)); }))
                return;
            tag.controller = *controller;
        }
        found.append(tag);
    };
    for (const int index : m_byName.value(name.toLower()))
        take(m_tags.at(index));
    if (!found.isEmpty() || !isPattern(name))
        return found;
    const QRegularExpression glob = expressionOf(name);
    for (const Tag& tag : m_tags) {
        if (glob.match(tag.name).hasMatch())
            take(tag);
    }
    return found;
}

QVector<Tag> TagTable::lookup(const QString& text, QString* error) const
{
    const QString wanted = text.trimmed();
    const auto colon = wanted.indexOf(QLatin1Char(':'));
    const QString controller = wanted.left(std::max<int>(0, int(colon))).trimmed();
    const QString name = wanted.mid(colon + 1).trimmed();
    const QVector<Tag> found = named(name, colon < 0 ? nullptr : &controller);
    if (!found.isEmpty())
        return found;
    Tag tag;
    tag.controller = controller;
    if (isPattern(name)) {
        *error = QStringLiteral("no tag is named like %1").arg(quoted(wanted));
        return {};
    }
    const QVector<Tag> elsewhere = named(name, nullptr);
    if (!elsewhere.isEmpty()) {
        // Not the address that may be spelt alike: T1, a timer's bit, is no temperature.
        *error = QStringLiteral("%1: that tag is one of %2")
                     .arg(quoted(wanted), elsewhere.first().controller);
        return {};
    }
    if (parseVariable(name, &tag.variable, error))
        return {tag};
    const QString reason = error->mid(quoted(name).size());
    *error = quoted(wanted) +
             (m_tags.isEmpty() ? QString() : QStringLiteral(" is no tag; as a variable")) + reason;
    return {};
}

bool TagTable::parseAssignment(const QString& text, Tag* tag, QVector<quint32>* elements,
                               QString* error) const
{
    const auto equals = text.indexOf(QLatin1Char('='));
    if (equals < 0) {
        *error = quoted(text) + QStringLiteral(": a write is VARIABLE=VALUE, as in VW100=7");
        return false;
    }
    const QString what = text.left(equals).trimmed();
    const QString values = text.mid(equals + 1);
    const QVector<Tag> found = lookup(what, error);
    if (found.size() > 1)
        *error = QStringLiteral("%1 means %2 tags, of which only one can be written: %3, %4 ...")
                     .arg(quoted(what))
                     .arg(found.size())
                     .arg(labelsOf(found).at(0), labelsOf(found).at(1));
    if (found.size() != 1)
        return false;
    *tag = found.first();
    Variable& variable = tag->variable;
    if (tag->scaling.isIdentity() && tag->decimals < 0) {
        QStringList parts = values.split(QLatin1Char(','));
        for (QString& part : parts)
            part = part.trimmed();
        variable.format = formatOfTexts(variable, parts);
    }
    return tag->parseValues(values, elements, error);
}

} // namespace s7200
