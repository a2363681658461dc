#include "host/controller_tags.h"

#include "host/element_text.h"
#include "host/name_pattern.h"

#include <QSet>

#include <algorithm>

namespace s7200
{

namespace
{

QString keyOf(const QString& controller, const QString& name)
{
    return controller.toLower() + QLatin1Char(':') + name.toLower();
}

} // namespace

QVector<Tag> onEach(const QVector<Tag>& tags, const TagTable& table, const QStringList& controllers)
{
    if (controllers.isEmpty())
        return tags;
    QSet<QString> own;
    for (const Tag& tag : table.tags())
        own.insert(keyOf(tag.controller, tag.name));
    QVector<Tag> placed;
    for (const Tag& tag : tags) {
        if (tag.name.isEmpty() || !tag.controller.isEmpty() || tag.variable.station >= 0) {
            placed.append(tag);
            continue;
        }
        for (const QString& controller : controllers) {
            if (own.contains(keyOf(controller, tag.name)))
                continue;
            placed.append(tag);
            if (controllers.size() > 1)
                placed.last().controller = controller;
        }
    }
    return placed;
}

QVector<Tag> lookup(const TagTable& table, const QString& text, const QStringList& controllers,
                    QString* error)
{
    const auto colon = text.indexOf(QLatin1Char(':'));
    const QString pattern = text.left(std::max<int>(0, int(colon))).trimmed();
    if (!isPattern(pattern) || controllers.isEmpty())
        return onEach(table.lookup(text, error), table, controllers);
    QVector<Tag> found;
    *error = QStringLiteral("no controller is named like %1").arg(quoted(pattern));
    const QRegularExpression matching = expressionOf(pattern);
    for (const QString& controller : controllers) {
        if (matching.match(controller).hasMatch())
            found += table.lookup(controller + text.mid(colon), error);
    }
    *error = found.isEmpty() ? *error : QString();
    return found;
}

} // namespace s7200
