#include "panel/session.h"

#include <cstdio>

std::unique_ptr<Session> Session::open(const PanelOptions& options, QString* error)
{
    std::unique_ptr<Session> session(new Session);
    session->settings = options.loop;
    if (!session->library.load(options.library, error))
        return nullptr;
    if (!options.traceFile.isEmpty()) {
        session->trace =
            wire::FrameTrace::open(options.traceFile, wire::FrameTrace::KeepExisting, error);
        if (!session->trace)
            return nullptr;
        session->settings.trace = session->trace.get();
    }
    if (options.embedded && !session->startSimulators(options, error))
        return nullptr;
    session->commLoop.reset(new CommLoop(session->library, session->settings));
    return session;
}

Session::~Session()
{
    // The loop first: it still uses the trace and talks to the simulators.
    commLoop.reset();
}

bool Session::startSimulators(const PanelOptions& options, QString* error)
{
    embedded = true;
    for (Endpoint& endpoint : settings.controllers) {
        sim::SimulatorOptions simulator;
        simulator.remote = options.loop.remote;
        simulators.emplace_back(new sim::SimulatorThread(simulator));
        if (!simulators.back()->start(error))
            return false;
        endpoint.host = simulator.address;
        endpoint.port = simulators.back()->port();
    }
    complain(QStringLiteral("no --controller given, using a simulated one"));
    return true;
}

CommLoop& Session::loop() const
{
    return *commLoop;
}

QString Session::controllerName(int station) const
{
    QString name = settings.controllers.value(station).text();
    if (settings.stationEach)
        name = QStringLiteral("station %1 at %2").arg(station).arg(name);
    return embedded ? QStringLiteral("simulated controller, ") + name : name;
}

FailureReport::FailureReport(const Session& panelSession) : session(panelSession) {}

void FailureReport::add(const Variable& variable, const RequestResult& result)
{
    faults.append(result.fault);
    if (result.fault == Fault::None)
        return;
    const QString controller = session.controllerName(session.loop().stationOf(variable));
    const QString text = describeFault(result.fault, result.detail, controller);
    for (Reason& reason : reasons) {
        if (reason.text == text) {
            reason.labels.append(variable.label());
            return;
        }
    }
    reasons.append({text, {variable.label()}});
}

ExitStatus FailureReport::finish() const
{
    for (const Reason& reason : reasons)
        complain(reason.labels.join(QLatin1Char(' ')) + QStringLiteral(": ") + reason.text);
    return exitStatusOf(faults);
}

void complain(const QString& text)
{
    std::fprintf(stderr, "s7200-panel: %s\n", text.toLocal8Bit().constData());
    std::fflush(stderr);
}

void printValue(const Variable& variable, const QByteArray& hostData)
{
    const QString values = formatValues(variable, decodeValues(variable, hostData));
    std::printf("%s %s\n", variable.label().toLocal8Bit().constData(),
                values.toLatin1().constData());
    std::fflush(stdout);
}

QString describeFault(Fault fault, const QString& detail, const QString& controller)
{
    switch (fault) {
    case Fault::NoConnection:
        return QStringLiteral("no connection to %1: %2").arg(controller, detail);
    case Fault::NoAnswer:
    case Fault::Invalid:
        return QStringLiteral("%1 from %2").arg(detail, controller);
    case Fault::Refused:
        return QStringLiteral("refused by %1: %2").arg(controller, detail);
    default:
        return detail;
    }
}
