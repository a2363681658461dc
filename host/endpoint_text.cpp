#include "host/endpoint_text.h"

#include "host/element_text.h"

#include <QHostAddress>

#include <algorithm>

namespace s7200
{

namespace
{

// They separate names from what else stands where a variable may.
const QLatin1String NotInNames("*?=:<>!,@");

bool hasAnyOf(const QString& text, QLatin1String letters)
{
    return std::any_of(text.begin(), text.end(),
                       [letters](QChar c) { return letters.contains(c); });
}

} // namespace

QString faultOfName(const QString& name)
{
    if (name.isEmpty())
        return QStringLiteral("the name is missing");
    if (!hasAnyOf(name, NotInNames) && !hasHidden(name))
        return QString();
    return QStringLiteral("%1 cannot be a controller's name; none of %2 may be in it")
        .arg(quoted(name), NotInNames);
}

bool isHost(const QString& text)
{
    if (text.contains(QLatin1Char(':')))
        return QHostAddress(text).protocol() == QAbstractSocket::IPv6Protocol;
    return !text.isEmpty() && !text.startsWith(QLatin1Char('-')) && !hasHidden(text) &&
           !hasAnyOf(text, QLatin1String(" =[]/*?<>!,;@\"'"));
}

} // namespace s7200
