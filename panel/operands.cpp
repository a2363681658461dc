// What operands name, and on which controller it is.

#include "panel/command_line.h"

#include "host/controller_tags.h"
#include "host/csv.h"
#include "host/endpoint_text.h"

namespace s7200::panel
{

namespace
{

/// The controller that a tag says, by name or by station; empty: none.
QString controllerSaid(const Tag& tag)
{
    if (tag.variable.station >= 0)
        return QString::number(tag.variable.station);
    return tag.controller;
}

} // namespace

bool CommandLine::readTags(QString* error)
{
    if ((m_takes & TakesTags) == 0 || !m_parser.isSet(QStringLiteral("tags")))
        return true;
    const QString file = m_parser.value(QStringLiteral("tags"));
    // A file of controllers lists all that there are; an option may name just the one of interest.
    QStringList names;
    for (const ControllerSettings& settings : std::as_const(m_controllers))
        names.append(settings.name);
    const bool complete = (m_takes & TakesControllers) != 0 &&
                          m_parser.isSet(QStringLiteral("controllers")) && !oneDriver();
    QStringList errors;
    const auto loaded = TagTable::load(file, complete ? &names : nullptr, &errors);
    *error = errors.join(QLatin1Char('\n'));
    if (!loaded)
        return false;
    m_tags = *loaded;
    for (const Tag& tag : m_tags.tags()) {
        if (m_controllers.isEmpty() && !tag.controller.isEmpty() &&
            !m_simulatedNames.contains(tag.controller, Qt::CaseInsensitive))
            m_simulatedNames.append(tag.controller);
    }
    return true;
}

int CommandLine::controllerOf(const Tag& tag, QString* error)
{
    QString name = controllerSaid(tag);
    if (name.isEmpty() && m_simulatedNames.size() == 1)
        name = m_simulatedNames.first();
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
    const QString name = controllerSaid(tag);
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

/// Of all controllers that there are, as far as they have names.
QStringList CommandLine::controllerNames() const
{
    QStringList names = m_simulatedNames;
    for (const ControllerSettings& settings : m_controllers) {
        if (!settings.name.isEmpty() && !names.contains(settings.name, Qt::CaseInsensitive))
            names.append(settings.name);
        for (int station : settings.stations.keys())
            names.append(QString::number(station));
    }
    return names;
}

bool CommandLine::resolve(const QStringList& texts, QVector<Item>* items, QString* error)
{
    const QStringList names = controllerNames();
    QVector<Tag> found;
    QStringList errors;
    for (const QString& text : texts) {
        const QVector<Tag> meant = lookup(m_tags, text.trimmed(), names, error);
        if (meant.isEmpty())
            errors.append(*error);
        found += meant;
    }
    if (!resolveTags(found, items, error))
        errors.append(*error);
    *error = firstOf(errors).join(QLatin1Char('\n'));
    return errors.isEmpty();
}

bool CommandLine::resolveAllTags(QVector<Item>* items, QString* error)
{
    return resolveTags(onEach(m_tags.tags(), m_tags, controllerNames()), items, error);
}

bool CommandLine::isNamed(int controller) const
{
    return m_named.contains(controller);
}

/// Its controller's name, or its station's number.
QString CommandLine::controllerNameOf(const Item& item) const
{
    const ControllerSettings& settings = m_controllers.at(item.controller);
    if (settings.stations.isEmpty())
        return settings.name;
    const int station = item.tag.variable.station;
    return QString::number(station < 0 ? settings.defaultStation : station);
}

bool CommandLine::severalControllers() const
{
    return m_controllers.size() > 1 ||
           (!m_controllers.isEmpty() && m_controllers.first().stations.size() > 1);
}

bool CommandLine::resolveTags(QVector<Tag> tags, QVector<Item>* items, QString* error)
{
    const auto first = items->size();
    QStringList errors;
    for (Tag& tag : tags) {
        Item item;
        if (!place(tag, &item, error))
            errors.append(*error);
        else if (tag.controller.isEmpty() && tag.variable.station < 0)
            tag.controller = controllerNameOf(item);
        items->append(item);
    }
    const QStringList labels =
        severalControllers() ? labelsWithControllers(tags) : s7200::labelsOf(tags);
    for (int i = 0; i < int(tags.size()); ++i)
        (*items)[first + i].label = labels.at(i);
    *error = firstOf(errors).join(QLatin1Char('\n'));
    return errors.isEmpty();
}

bool CommandLine::resolveAssignment(const QString& text, Item* item, QVector<quint32>* values,
                                    QString* error)
{
    Tag tag;
    if (!m_tags.parseAssignment(text, &tag, values, error) || !place(tag, item, error))
        return false;
    item->label = severalControllers() ? labelsOf({*item}).first() : tag.label();
    return true;
}

QStringList CommandLine::labelsOf(const QVector<Item>& items) const
{
    QVector<Tag> tags;
    for (const Item& item : items) {
        tags.append(item.tag);
        tags.last().controller = controllerNameOf(item);
        tags.last().variable.station = -1;
    }
    return severalControllers() ? labelsWithControllers(tags) : s7200::labelsOf(tags);
}

} // namespace s7200::panel
