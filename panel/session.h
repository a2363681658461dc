#ifndef PANEL_SESSION_H
#define PANEL_SESSION_H

#include "panel/command_line.h"

#include <functional>
#include <memory>
#include <vector>

namespace s7200::panel
{

/// The controllers of a command line, each with a driver of its own; the trace, and the simulated
/// controllers if none was given. All in the main thread; run the event loop with
/// QCoreApplication::exec() and end it with QCoreApplication::exit(STATUS).
class Session
{
public:
    /// Null with a one-line `error`. Resolve all items before; no controller is started.
    static std::unique_ptr<Session> open(const CommandLine& line, QString* error);
    ~Session(); ///< Stops all controllers; open requests end as Cause::Stopped.

    int count() const;
    Controller& controller(int index) const;
    /// For messages: "press1 (192.168.0.5:102)", "192.168.0.5:102", "simulated controller".
    QString name(int index) const;

    /// Starts all controllers. False with a one-line `error`.
    bool start(QString* error);

    /// SIGINT and SIGTERM, and SIGHUP unless onHangup() is given: ends the event loop with this
    /// status. Default ExitNoAnswer.
    void setInterruptStatus(int status);
    /// SIGHUP calls this instead.
    void onHangup(const std::function<void()>& handler);

private:
    class Private;
    std::unique_ptr<Private> d;
    explicit Session(Private* priv);
};

/// Collects what failed, to report it once for each reason rather than once for each variable.
class FailureReport
{
public:
    explicit FailureReport(const Session& session);

    /// Takes note of one item's result, good ones too.
    void add(const Item& item, const Result& result);

    /// Prints a line for each reason to standard error; returns the exit status.
    ExitStatus finish() const;

private:
    struct Reason {
        QString text;
        QStringList labels;
    };
    const Session& m_session;
    QVector<Cause> m_causes;
    QVector<Reason> m_reasons;
};

} // namespace s7200::panel

#endif
