#ifndef PANEL_LINK_REPORT_H
#define PANEL_LINK_REPORT_H

#include <s7200host/link.h>

#include <QMap>
#include <QString>
#include <QStringList>

namespace s7200::panel
{

/// Says how a controller's link fares: each trouble once, then as a count, however often the link
/// comes and goes. Knows no clock; times are milliseconds that only grow.
class LinkReport
{
public:
    /// Another mention of a trouble that was mentioned within this time is kept back.
    static constexpr qint64 QuietMs = 60 * 1000;
    /// A trouble that was kept back is mentioned when the link stays down for so long.
    static constexpr qint64 PatienceMs = 5 * 1000;

    explicit LinkReport(const QString& controller);

    /// A change of state; gives what is to be said, if anything.
    QString hear(const LinkStatus& status, qint64 nowMs);

    /// To be called now and then.
    QString tick(qint64 nowMs);

    /// What was counted and not yet said.
    QStringList finish() const;

private:
    struct Trouble {
        qint64 saidMs = -1; ///< -1: never.
        quint64 keptBack = 0;
    };
    QString mention(Cause cause, qint64 nowMs);

    QString m_controller;
    QMap<Cause, Trouble> m_troubles;
    QString m_detail; ///< Of the last trouble.
    Cause m_cause = Cause::None;
    bool m_up = false;
    bool m_silent = false; ///< The present trouble was kept back.
    qint64 m_downMs = 0;
};

} // namespace s7200::panel

#endif
