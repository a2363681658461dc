// What operands name, and on which controller it is.

#include "panel/command_line.h"

namespace s7200::panel
{

namespace
{

/// The controller that a tag says, by name or by station; empty: none.
QString controllerNameOf(const Tag& tag)
{
    if (tag.variable.station >= 0)
        return QString::number(tag.variable.station);
    return tag.controller;
}

} // namespace

int CommandLine::controllerOf(const QString& name, QString* error)
{
    const auto known = m_byName.constFind(name.toLower());
    if (known != m_byName.constEnd())
        return known.value();
    if (name.isEmpty() && m_controllers.size() == 1 && !simulated())
        return 0;
    if (simulated() || (m_takes & TakesControllers) == 0) {
        ControllerSettings settings = m_defaults;
        settings.name = name;
        m_byName.insert(name.toLower(), int(m_controllers.size()));
        m_controllers.append(settings);
        return int(m_controllers.size()) - 1;
    }
    *error = name.isEmpty() ? QStringLiteral("say on which of the controllers, as in %1:VW100")
                                  .arg(m_controllers.first().name)
                            : QStringLiteral("no controller is named %1; give --controller %2=HOST")
                                  .arg(quoted(name), name);
    return -1;
}

bool CommandLine::place(const Tag& tag, Item* item, QString* error)
{
    item->tag = tag;
    const QString name = controllerNameOf(tag);
    if (oneDriver() && !simulated()) {
        // The driver tells the stations apart.
        bool isNumber = true;
        const int station = name.isEmpty() ? -1 : name.toInt(&isNumber);
        item->controller = 0;
        if (tag.variable.isLatched()) {
            *error = QStringLiteral("%1: timer and counter bits cannot be read with --one-driver; "
                                    "read the value, as in %2V%3")
                         .arg(tag.label(), QLatin1String(tag.variable.area->name))
                         .arg(tag.variable.address);
            return false;
        }
        item->tag.variable.station = station;
        if (isNumber && (station < 0 || m_controllers.first().stations.contains(station)))
            return true;
        *error = QStringLiteral("no controller is station %1; give --controller %2=HOST")
                     .arg(quoted(name), name);
    } else {
        item->controller = controllerOf(name, error);
        item->tag.variable.station = -1;
        if (item->controller >= 0)
            return true;
    }
    *error = tag.label() + QStringLiteral(": ") + *error;
    return false;
}

bool CommandLine::resolve(const QStringList& texts, QVector<Item>* items, QString* error)
{
    QVector<Tag> found;
    for (const QString& text : texts) {
        const QVector<Tag> meant = m_tags.lookup(text, error);
        if (meant.isEmpty())
            return false;
        found += meant;
    }
    return resolveTags(found, items, error);
}

bool CommandLine::resolveAllTags(QVector<Item>* items, QString* error)
{
    return resolveTags(m_tags.tags(), items, error);
}

bool CommandLine::resolveTags(const QVector<Tag>& tags, QVector<Item>* items, QString* error)
{
    const QStringList labels = labelsOf(tags);
    QStringList errors;
    for (int i = 0; i < int(tags.size()); ++i) {
        Item item;
        if (!place(tags.at(i), &item, error))
            errors.append(*error);
        item.label = labels.at(i);
        items->append(item);
    }
    *error = errors.join(QLatin1Char('\n'));
    return errors.isEmpty();
}

bool CommandLine::resolveAssignment(const QString& text, Item* item, QVector<quint32>* values,
                                    QString* error)
{
    Tag tag;
    if (!m_tags.parseAssignment(text, &tag, values, error) || !place(tag, item, error))
        return false;
    item->label = tag.label();
    return true;
}

} // namespace s7200::panel
