#include "panel/link_report.h"

#include "panel/messages.h"

namespace s7200::panel
{

LinkReport::LinkReport(const QString& controller) : m_controller(controller) {}

QString LinkReport::mention(Cause cause, qint64 nowMs)
{
    Trouble& trouble = m_troubles[cause];
    QString text = QStringLiteral("link down: ") + describeFailure(cause, m_detail, m_controller);
    if (trouble.keptBack > 1)
        text += QStringLiteral(" (%1 times)").arg(trouble.keptBack);
    trouble = {nowMs, 0};
    m_silent = false;
    return text;
}

QString LinkReport::hear(const LinkStatus& status, qint64 nowMs)
{
    if (status.state == LinkState::Up) {
        const bool news = !m_up && !m_silent;
        m_up = true;
        m_cause = Cause::None;
        return news ? QStringLiteral("link up: ") + m_controller : QString();
    }
    if (status.cause == Cause::None || (!m_up && status.cause == m_cause))
        return QString();
    m_detail = status.detail;
    if (m_up || m_cause == Cause::None)
        m_downMs = nowMs;
    m_up = false;
    m_cause = status.cause;
    Trouble& trouble = m_troubles[m_cause];
    ++trouble.keptBack;
    if (trouble.saidMs < 0 || nowMs - trouble.saidMs >= QuietMs)
        return mention(m_cause, nowMs);
    m_silent = true;
    return QString();
}

QString LinkReport::tick(qint64 nowMs)
{
    if (m_up || !m_silent || nowMs - m_downMs < PatienceMs)
        return QString();
    return mention(m_cause, nowMs);
}

QStringList LinkReport::finish() const
{
    QStringList lines;
    for (auto it = m_troubles.begin(); it != m_troubles.end(); ++it) {
        if (it->keptBack > 0)
            lines.append(QStringLiteral("%1: link down %2 more: %3")
                             .arg(m_controller, counted(it->keptBack, "time"), describe(it.key())));
    }
    return lines;
}

} // namespace s7200::panel
