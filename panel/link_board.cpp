#include "panel/link_board.h"

#include "panel/messages.h"

#include <algorithm>

namespace s7200::panel
{

namespace
{

/// Not a matter of chance: the same will happen in a moment.
bool isDefinite(Cause cause)
{
    return cause == Cause::NoConnection || cause == Cause::ConnectionRefused;
}

} // namespace

void LinkBoard::add(int controller, int station, const QString& name)
{
    m_links.append({controller, station, name, LinkReport(name), LinkStatus(), 0, false, false});
}

bool LinkBoard::has(int controller) const
{
    return std::any_of(m_links.begin(), m_links.end(),
                       [&](const Link& link) { return link.controller == controller; });
}

const LinkBoard::Link* LinkBoard::find(int controller, int station) const
{
    const auto found = std::find_if(m_links.begin(), m_links.end(), [&](const Link& link) {
        return link.controller == controller && (link.station < 0 || link.station == station);
    });
    return found == m_links.end() ? nullptr : &*found;
}

LinkBoard::Link* LinkBoard::find(int controller, int station)
{
    return const_cast<Link*>(std::as_const(*this).find(controller, station));
}

QString LinkBoard::hear(int controller, const LinkStatus& status, qint64 nowMs)
{
    refresh(controller, status, nowMs);
    Link* link = find(controller, status.station);
    if (!link)
        return QString();
    link->wasUp = link->wasUp || status.state == LinkState::Up;
    link->failed = link->failed || status.state == LinkState::Down ||
                   (status.state == LinkState::Waiting && isDefinite(status.cause));
    const QString said = link->report.hear(status, nowMs);
    m_said = m_said || (!said.isEmpty() && status.state != LinkState::Up);
    return said;
}

void LinkBoard::refresh(int controller, const LinkStatus& status, qint64 nowMs)
{
    if (Link* link = find(controller, status.station)) {
        link->status = status;
        link->heardMs = nowMs;
    }
}

QStringList LinkBoard::tick(qint64 nowMs)
{
    QStringList said;
    for (Link& link : m_links) {
        const QString text = link.report.tick(nowMs);
        if (!text.isEmpty())
            said.append(text);
    }
    return said;
}

QStringList LinkBoard::finish() const
{
    QStringList said;
    for (const Link& link : m_links)
        said += link.report.finish();
    return said;
}

int LinkBoard::count() const
{
    return int(m_links.size());
}

int LinkBoard::up() const
{
    return int(std::count_if(m_links.begin(), m_links.end(),
                             [](const Link& link) { return link.status.state == LinkState::Up; }));
}

bool LinkBoard::mayRead(int controller) const
{
    return std::any_of(m_links.begin(), m_links.end(), [&](const Link& link) {
        return link.controller == controller &&
               (link.status.state == LinkState::Up || link.status.cause == Cause::None);
    });
}

bool LinkBoard::isHopeless() const
{
    return std::all_of(m_links.begin(), m_links.end(),
                       [](const Link& link) { return link.failed && !link.wasUp; });
}

LinkStatus LinkBoard::status(int controller, int station) const
{
    const Link* link = find(controller, station);
    LinkStatus status = link ? link->status : LinkStatus();
    if (status.cause == Cause::None) {
        status.cause = Cause::TimedOut;
        status.detail = QStringLiteral("no answer yet");
    }
    return status;
}

QString LinkBoard::name(int controller, int station) const
{
    const Link* link = find(controller, station);
    return link ? link->name : QString();
}

QStringList LinkBoard::screenLines(qint64 nowMs) const
{
    QStringList lines = {m_links.size() == 1
                             ? m_links.first().name +
                                   (up() == 1 ? QStringLiteral(" up") : QStringLiteral(" DOWN"))
                             : QStringLiteral("%1 of %2 links up").arg(up()).arg(m_links.size())};
    for (const Link& link : m_links) {
        if (link.status.state == LinkState::Up)
            continue;
        if (link.status.cause == Cause::None) {
            lines.append(QStringLiteral("connecting to %1 ...").arg(link.name));
            continue;
        }
        QString text = describeFailure(link.status.cause, link.status.detail, link.name);
        const qint64 left = link.heardMs + link.status.nextAttemptMs - nowMs;
        if (link.status.state == LinkState::Connecting || link.status.state == LinkState::Handshake)
            text += QStringLiteral("; trying again");
        else if (left >= 1000)
            text += QStringLiteral("; again in %1 s").arg((left + 999) / 1000);
        lines.append(text);
    }
    // Nothing is wrong yet.
    if (m_links.size() == 1 && lines.size() == 2 && m_links.first().status.cause == Cause::None)
        lines.removeFirst();
    return lines;
}

QStringList LinkBoard::troubles() const
{
    QStringList lines;
    for (const Link& link : m_links) {
        if (link.status.state == LinkState::Up)
            continue;
        const LinkStatus last = status(link.controller, link.station);
        lines.append(describeFailure(last.cause, last.detail, link.name));
    }
    return lines;
}

bool LinkBoard::saidNothing() const
{
    return !m_said;
}

} // namespace s7200::panel
