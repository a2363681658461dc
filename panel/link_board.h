#ifndef PANEL_LINK_BOARD_H
#define PANEL_LINK_BOARD_H

#include "panel/link_report.h"

#include <QStringList>
#include <QVector>

namespace s7200::panel
{

/// How all links of a command fare: one for each controller, or for each station of one.
class LinkBoard
{
public:
    /// `station` -1: the controller has only one.
    void add(int controller, int station, const QString& name);

    bool has(int controller) const;

    /// A change of a link's state; gives what is to be said, a line or nothing. Times are
    /// milliseconds that only grow.
    QString hear(int controller, const LinkStatus& status, qint64 nowMs);
    /// The same state, newer: when the next attempt is due.
    void refresh(int controller, const LinkStatus& status, qint64 nowMs);
    /// To be called now and then; gives what is to be said.
    QStringList tick(qint64 nowMs);
    QStringList finish() const;

    int count() const;
    int up() const;
    /// Up, or still on its way without a failure. With stations: one of them.
    bool mayRead(int controller) const;

    /// None of the links was ever up and each has failed, for a reason that will stay or after all
    /// retries.
    bool isHopeless() const;

    /// What happened to a link last. Cause::TimedOut if nothing did.
    LinkStatus status(int controller, int station) const;
    QString name(int controller, int station) const;

    /// "press1 up", "1 of 2 links up", "connecting to press1 ..."; then a line for each link that
    /// is not up.
    QStringList screenLines(qint64 nowMs) const;
    /// A line for each link that is not up, and why.
    QStringList troubles() const;
    bool saidNothing() const; ///< Of any trouble.

private:
    struct Link {
        int controller;
        int station;
        QString name;
        LinkReport report;
        LinkStatus status;
        qint64 heardMs = 0;
        bool wasUp = false;
        bool failed = false;
    };
    const Link* find(int controller, int station) const;
    Link* find(int controller, int station);

    QVector<Link> m_links;
    bool m_said = false;
};

} // namespace s7200::panel

#endif
