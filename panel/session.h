#ifndef PANEL_SESSION_H
#define PANEL_SESSION_H

#include "panel/command_line.h"
#include "panel/signals.h"
#include "simulator/simulator_thread.h"
#include "wire/frame_trace.h"

#include <QTimer>

#include <functional>
#include <memory>
#include <vector>

namespace s7200::panel
{

/// The controllers of a command line, each with a driver of its own; the trace, and the simulated
/// controllers if none was given. All in the main thread, with runEventLoop() and end().
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
    /// For records: the name given, the station of several behind one driver, or the endpoint;
    /// "simulated" for the simulated one without a name.
    QString recordName(int index, int station = -1) const;

    /// Starts the controllers that items are on: a module serves few connections. False with a
    /// one-line `error`.
    bool start(QString* error);

    /// The status with which SIGINT, SIGTERM and SIGHUP end the event loop; ExitNoAnswer if not
    /// set. SIGQUIT ends it with ExitQuit.
    void setInterruptStatus(int status);
    /// Gets each signal (see Signals) before that; true: it is dealt with.
    void onSignal(const std::function<bool(int)>& handler);
    /// Gets what is to be known of a controller and is no failure; without one it goes to standard
    /// error.
    void onNote(const std::function<void(const QString&)>& handler);

private:
    Session();
    void lookAtTrace() const;
    bool openTrace(const CommandLine& line, QString* error);
    bool startSimulators(QVector<ControllerSettings>* settings, QString* error);
    void hear(int number);

    std::unique_ptr<wire::FrameTrace> m_trace;
    std::vector<std::unique_ptr<sim::SimulatorThread>> m_simulators;
    std::vector<std::unique_ptr<Controller>> m_controllers; ///< They use the two above.
    QVector<bool> m_starts;                                 ///< For each of them.
    bool m_simulated = false;
    int m_interruptStatus = ExitNoAnswer;
    std::function<bool(int)> m_onSignal;
    std::function<void(const QString&)> m_onNote = complain;
    Signals m_signals;
    QTimer m_traceTimer;
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
