#include <s7200host/controller.h>

#include "host/session.h"
#include "host/variable_bounds.h"

#include <QTimer>

#include <deque>
#include <utility>

namespace s7200
{

QString Endpoint::text() const
{
    const QString shown = host.contains(QLatin1Char(':')) ? QStringLiteral("[%1]").arg(host) : host;
    return shown + QLatin1Char(':') + QString::number(port);
}

QString describe(Quality quality)
{
    static const char* const names[] = {"good", "stale", "never read", "refused", "link down"};
    return QLatin1String(names[int(quality)]);
}

class Controller::Private
{
public:
    explicit Private(Controller* controller, const ControllerSettings& controllerSettings)
        : q(controller), settings(controllerSettings)
    {
    }

    void request(const Variable& variable, const QVector<quint32>& values, const Done& done);
    bool hasStationOf(const Variable& variable) const
    {
        return variable.station < 0 ||
               (settings.stations.isEmpty() ? variable.station == settings.defaultStation
                                            : settings.stations.contains(variable.station));
    }
    void failLater(const Done& done, Cause cause, const QString& detail);
    void endSession();

    Controller* const q;
    const ControllerSettings settings;
    QVector<Variable> watched;
    std::unique_ptr<Session> session; ///< Null while stopped.
    LinkStatistics statistics;        ///< Of the last session.
    /// To be told in further turns of the event loop, or at the end.
    std::deque<std::function<void()>> failed;
};

void Controller::Private::request(const Variable& variable, const QVector<quint32>& values,
                                  const Done& done)
{
    if (!session) {
        failLater(done, Cause::Stopped, QStringLiteral("not started"));
        return;
    }
    RequestPtr request(new Request);
    request->variable = variable;
    request->station = session->machine().stationOf(variable);
    request->values = values;
    request->done = done;
    session->request(std::move(request));
}

/// A completion never comes before the function that asks for it has returned.
void Controller::Private::failLater(const Done& done, Cause cause, const QString& detail)
{
    if (!done)
        return;
    Result result;
    result.cause = cause;
    result.detail = detail;
    failed.push_back([done, result] { done(result); });
    QTimer::singleShot(0, q, [this] {
        if (failed.empty())
            return;
        const std::function<void()> tell = std::move(failed.front());
        failed.pop_front();
        tell(); // which may delete all this
    });
}

void Controller::Private::endSession()
{
    if (!session)
        return;
    Session* const ended = session.release();
    statistics = ended->machine().statistics();
    ended->end(); // a slot may delete all this
}

Controller::Controller(const ControllerSettings& settings, QObject* parent)
    : QObject(parent), d(new Private(this, settings))
{
    qRegisterMetaType<s7200::LinkStatus>();
    qRegisterMetaType<QVector<int>>();
}

Controller::~Controller()
{
    blockSignals(true); // whoever listens may be half gone as well
    d->endSession();
    for (const std::function<void()>& tell : std::exchange(d->failed, {}))
        tell();
}

const ControllerSettings& Controller::settings() const
{
    return d->settings;
}

QString Controller::name() const
{
    return d->settings.name.isEmpty() ? d->settings.endpoint.text() : d->settings.name;
}

bool Controller::start(QString* error)
{
    if (d->session)
        return true;
    if (d->settings.stations.isEmpty() && d->settings.endpoint.host.isEmpty()) {
        if (error)
            *error = QStringLiteral("the controller's host is not set");
        return false;
    }
    std::unique_ptr<Session> session(new Session(d->settings));
    connect(session.get(), &Session::linkChanged, this, &Controller::linkChanged);
    connect(session.get(), &Session::valuesChanged, this, &Controller::valuesChanged);
    connect(session.get(), &Session::cycleDone, this, &Controller::cycleDone);
    connect(session.get(), &Session::pduChanged, this, &Controller::pduChanged);
    QString reason;
    d->session = std::move(session);
    if (d->session->start(d->watched, &reason))
        return true;
    d->session.reset();
    if (error)
        *error = reason;
    return false;
}

void Controller::stop()
{
    d->endSession();
}

void Controller::watch(const QVector<Variable>& variables)
{
    d->watched = variables;
    if (d->session)
        d->session->watch(variables);
}

bool Controller::watch(const QStringList& variables, QString* error)
{
    QVector<Variable> parsed(variables.size());
    for (int i = 0; i < int(variables.size()); ++i) {
        QString reason;
        if (parseVariable(variables.at(i), &parsed[i], &reason)) {
            if (d->hasStationOf(parsed.at(i)))
                continue;
            reason = QStringLiteral("%1: no such station").arg(variables.at(i));
        }
        if (error)
            *error = reason;
        return false;
    }
    watch(parsed);
    return true;
}

const QVector<Variable>& Controller::watched() const
{
    return d->watched;
}

Value Controller::value(int index) const
{
    if (!d->session)
        return Value();
    return d->session->machine().value(index, Session::now().steady);
}

void Controller::read(const Variable& variable, const Done& done)
{
    if (isInItsArea(variable))
        d->request(variable, {}, done);
    else
        d->failLater(done, Cause::Invalid, QStringLiteral("no such variable"));
}

void Controller::write(const Variable& variable, const QVector<quint32>& values, const Done& done)
{
    if (isInItsArea(variable) && variable.area->writable && values.size() == variable.repeat)
        d->request(variable, values, done);
    else
        d->failLater(done, Cause::Invalid,
                     QStringLiteral("it cannot be written with %1 values").arg(values.size()));
}

bool Controller::write(const QString& assignment, const Done& done, QString* error)
{
    Variable variable;
    QVector<quint32> values;
    QString reason;
    if (!parseAssignment(assignment, &variable, &values, &reason)) {
        if (error)
            *error = reason;
        return false;
    }
    write(variable, values, done);
    return true;
}

LinkStatus Controller::link(int station) const
{
    const int number = station >= 0 ? station : d->settings.defaultStation;
    if (d->session)
        return d->session->machine().link(number, Session::now().steady);
    LinkStatus status;
    status.station = number;
    return status;
}

const LinkStatistics& Controller::statistics() const
{
    return d->session ? d->session->machine().statistics() : d->statistics;
}

} // namespace s7200
