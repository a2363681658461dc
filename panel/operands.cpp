// What operands name, and on which controller it is.

#include "panel/command_line.h"

#include "host/endpoint_text.h"

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

int CommandLine::controllerOf(const Tag& tag, QString* error)
{
    const QString name = controllerNameOf(tag);
    const auto known = m_byName.constFind(name.toLower());
    if (known != m_byName.constEnd())
        return known.value();
    if (name.isEmpty() && m_controllers.size() == 1 && !simulated())
        return 0;
    const QString wrongName = name.isEmpty() ? QString() : faultOfName(name);
    if (wrongName.isEmpty() && (simulated() || (m_takes & TakesControllers) == 0)) {
        ControllerSettings settings = m_defaults;
        settings.name = name;
        m_byName.insert(name.toLower(), int(m_controllers.size()));
        m_controllers.append(settings);
        return int(m_controllers.size()) - 1;
    }
    if (name.isEmpty())
        *error = QStringLiteral("say on which of the controllers, as in %1:%2")
                     .arg(m_controllers.first().name, tag.label());
    else if (!wrongName.isEmpty())
        *error = wrongName;
    else
        *error = QStringLiteral("no controller is named %1; give --controller %2=HOST")
                     .arg(quoted(name), name);
    return -1;
}

/// The station behind the one driver, -1 for the default one.
bool CommandLine::placeAtStation(const Tag& tag, int* station, QString* error) const
{
    const QString name = controllerNameOf(tag);
    bool isNumber = true;
    *station = name.isEmpty() ? -1 : name.toInt(&isNumber);
    if (!isNumber || (*station >= 0 && !m_controllers.first().stations.contains(*station)))
        *error = QStringLiteral("no controller is station %1; give --controller %2=HOST")
                     .arg(quoted(name), name);
    return error->isEmpty();
}

bool CommandLine::place(const Tag& tag, Item* item, QString* error)
{
    error->clear();
    item->tag = tag;
    item->tag.variable.station = -1;
    const bool atStation = tag.variable.station >= 0 && !tag.controller.isEmpty();
    if (atStation && tag.controller != QString::number(tag.variable.station))
        *error = QStringLiteral("that is controller %1 and, by its address, station %2")
                     .arg(quoted(tag.controller))
                     .arg(tag.variable.station);
    else if (oneDriver() && !simulated())
        placeAtStation(tag, &item->tag.variable.station, error);
    else
        item->controller = controllerOf(tag, error);
    if (error->isEmpty()) {
        m_named.insert(item->controller);
        return true;
    }
    const QString line = tag.line > 0 ? QStringLiteral(" (line %1)").arg(tag.line) : QString();
    *error = tag.label() + line + QStringLiteral(": ") + *error;
    return false;
}

bool CommandLine::resolve(const QStringList& texts, QVector<Item>* items, QString* error)
{
    QVector<Tag> found;
    QStringList errors;
    for (const QString& text : texts) {
        const QVector<Tag> meant = m_tags.lookup(text, error);
        if (meant.isEmpty())
            errors.append(*error);
        found += meant;
    }
    if (!resolveTags(found, items, error))
        errors.append(*error);
    *error = errors.join(QLatin1Char('\n'));
    return errors.isEmpty();
}

bool CommandLine::resolveAllTags(QVector<Item>* items, QString* error)
{
    return resolveTags(m_tags.tags(), items, error);
}

bool CommandLine::isNamed(int controller) const
{
    return m_named.contains(controller);
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
