#ifndef PANEL_SESSION_H
#define PANEL_SESSION_H

#include "host/comm_loop.h"
#include "host/driver_library.h"
#include "panel/options.h"
#include "simulator/simulator_thread.h"
#include "wire/frame_trace.h"

#include <memory>
#include <vector>

using namespace s7200;

/// All that a command needs: the driver, its communication loop, and the simulated controllers if
/// none was given.
class Session
{
public:
    /// Null with a one-line `error`. The loop is not started.
    static std::unique_ptr<Session> open(const PanelOptions& options, QString* error);
    ~Session();

    CommLoop& loop() const;

    /// Where the station's controller is, for messages.
    QString controllerName(int station) const;

private:
    Session() = default;
    bool startSimulators(const PanelOptions& options, QString* error);

    DriverLibrary library;
    LoopSettings settings;
    bool embedded = false;
    std::unique_ptr<wire::FrameTrace> trace;
    std::vector<std::unique_ptr<sim::SimulatorThread>> simulators;
    std::unique_ptr<CommLoop> commLoop;
};

/// Collects what failed, to report it once for each reason rather than once for each variable.
class FailureReport
{
public:
    explicit FailureReport(const Session& session);

    /// Takes note of one variable's result, good ones too.
    void add(const Variable& variable, const RequestResult& result);

    /// Prints a line for each reason to standard error; returns the exit status.
    ExitStatus finish() const;

private:
    struct Reason {
        QString text;
        QStringList labels;
    };
    const Session& session;
    QVector<Fault> faults;
    QVector<Reason> reasons;
};

/// A line on standard error, after the program's name.
void complain(const QString& text);

/// A line on standard output: a variable and its elements.
void printValue(const Variable& variable, const QByteArray& hostData);

/// What happened, with the controller's name where it is the controller that cannot be reached.
QString describeFault(Fault fault, const QString& detail, const QString& controller);

#endif
