#include "panel/session.h"

#include "wire/descriptor_limit.h"

#include <csignal>

namespace s7200::panel
{

namespace
{

constexpr int TraceLookMs = 500;

} // namespace

Session::Session() : m_signals([this](int number) { hear(number); })
{
    QObject::connect(&m_traceTimer, &QTimer::timeout, [this] { lookAtTrace(); });
}

Session::~Session()
{
    // Who hears of one that stops may ask all of them, so they stop before any of them goes.
    for (const auto& each : m_controllers) {
        each->disconnect();
        each->stop();
    }
    // First: they still use the trace and talk to the simulators.
    m_controllers.clear();
    lookAtTrace();
}

void Session::lookAtTrace() const
{
    if (m_trace && !m_trace->error().isEmpty())
        failOutput(m_trace->error());
}

std::unique_ptr<Session> Session::open(const CommandLine& line, QString* error)
{
    std::unique_ptr<Session> session(new Session);
    QVector<ControllerSettings> settings = line.controllers();
    int named = 0;
    for (int i = 0; i < int(settings.size()); ++i)
        named += line.isNamed(i) ? 1 : 0;
    *error = wire::raiseDescriptorLimit(named, 1);
    if (!error->isEmpty() || !session->openTrace(line, error))
        return nullptr;
    if (line.simulated() && !session->startSimulators(&settings, error))
        return nullptr;
    for (ControllerSettings& each : settings) {
        each.trace = session->m_trace.get();
        session->m_starts.append(line.isNamed(int(session->m_controllers.size())));
        session->m_controllers.emplace_back(new Controller(each));
    }
    return session;
}

bool Session::openTrace(const CommandLine& line, QString* error)
{
    if (line.traceFile().isEmpty())
        return true;
    m_trace = wire::FrameTrace::open(
        line.traceFile(),
        line.force() ? wire::FrameTrace::ReplaceExisting : wire::FrameTrace::KeepExisting, error);
    m_traceTimer.start(TraceLookMs);
    return m_trace != nullptr;
}

bool Session::startSimulators(QVector<ControllerSettings>* settings, QString* error)
{
    m_simulated = true;
    for (ControllerSettings& each : *settings) {
        sim::SimulatorOptions options;
        options.remote = each.remoteAccess;
        m_simulators.emplace_back(new sim::SimulatorThread(options));
        if (!m_simulators.back()->start(error))
            return false;
        each.endpoint.host = options.address;
        each.endpoint.port = m_simulators.back()->port();
    }
    complain(settings->size() > 1 ? QStringLiteral("no --controller given, using simulated ones")
                                  : QStringLiteral("no --controller given, using a simulated one"));
    return true;
}

void Session::hear(int number)
{
    if (m_onSignal && m_onSignal(number))
        return;
    if (number == SIGTSTP)
        ::raise(SIGSTOP);
    else if (number != SIGWINCH)
        end(number == SIGQUIT ? int(ExitQuit) : m_interruptStatus);
}

int Session::count() const
{
    return int(m_controllers.size());
}

Controller& Session::controller(int index) const
{
    return *m_controllers[size_t(index)];
}

QString Session::name(int index) const
{
    const ControllerSettings& settings = controller(index).settings();
    const QString place = m_simulated ? QStringLiteral("simulated controller")
                          : settings.stations.isEmpty()
                              ? settings.endpoint.text()
                              : counted(quint64(settings.stations.size()), "station");
    return settings.name.isEmpty() ? place : QStringLiteral("%1 (%2)").arg(settings.name, place);
}

QString Session::recordName(int index, int station) const
{
    const ControllerSettings& settings = controller(index).settings();
    if (!settings.stations.isEmpty())
        return QString::number(station < 0 ? settings.defaultStation : station);
    if (!settings.name.isEmpty())
        return settings.name;
    return m_simulated ? QStringLiteral("simulated") : settings.endpoint.text();
}

bool Session::start(QString* error)
{
    for (int i = 0; i < count(); ++i) {
        QObject::connect(&controller(i), &Controller::pduChanged, [this, i](int, int bytes) {
            m_onNote(QStringLiteral("%1 grants a PDU of %2 bytes: requests are cut to fit")
                         .arg(name(i))
                         .arg(bytes));
        });
        if (m_starts.at(i) && !controller(i).start(error))
            return false;
    }
    return true;
}

void Session::setInterruptStatus(int status)
{
    m_interruptStatus = status;
}

void Session::onNote(const std::function<void(const QString&)>& handler)
{
    m_onNote = handler;
}

void Session::onSignal(const std::function<bool(int)>& handler)
{
    m_onSignal = handler;
}

FailureReport::FailureReport(const Session& session) : m_session(session) {}

void FailureReport::add(const Item& item, const Result& result)
{
    m_causes.append(result.cause);
    if (result)
        return;
    const QString text =
        describeFailure(result.cause, result.detail, m_session.name(item.controller));
    for (Reason& reason : m_reasons) {
        if (reason.text == text) {
            reason.labels.append(item.label);
            return;
        }
    }
    m_reasons.append({text, {item.label}});
}

ExitStatus FailureReport::finish() const
{
    constexpr int Most = 10;
    for (const Reason& reason : m_reasons) {
        QString labels = reason.labels.mid(0, Most).join(QLatin1Char(' '));
        if (reason.labels.size() > Most)
            labels += QStringLiteral(" and %1 more").arg(reason.labels.size() - Most);
        complain(labels + QStringLiteral(": ") + reason.text);
    }
    return exitStatusOf(m_causes);
}

} // namespace s7200::panel
