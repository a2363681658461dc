#include "host/session.h"

#include <QDateTime>
#include <QRandomGenerator>

#include <ctime>
#include <limits>

namespace s7200
{

namespace
{

constexpr int LargestStation = 255; // the driver's records have a byte for it

} // namespace

Session::Session(const ControllerSettings& settings)
    : m_settings(settings),
      m_machine(m_driver, settings, *this, QRandomGenerator::global()->generate())
{
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &Session::woken);
    for (auto it = settings.stations.begin(); it != settings.stations.end(); ++it)
        addSocket(it.key(), it.value());
    if (settings.stations.isEmpty())
        addSocket(settings.defaultStation, settings.endpoint);
}

Session::~Session() = default;

Moment Session::now()
{
    timespec time = {};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return {Micros(time.tv_sec) * 1000 * 1000 + time.tv_nsec / 1000,
            QDateTime::currentMSecsSinceEpoch()};
}

void Session::addSocket(int station, const Endpoint& endpoint)
{
    auto* const socket = new LinkSocket(endpoint, m_settings.trace, nullptr);
    m_sockets[station].reset(socket);
    connect(socket, &LinkSocket::opened, this,
            [=] { happened([=] { m_machine.opened(station, now()); }); });
    connect(socket, &LinkSocket::openFailed, this, [=](const QString& why) {
        happened([&] { m_machine.openFailed(station, why, now()); });
    });
    connect(socket, &LinkSocket::received, this, [=](const QByteArray& bytes) {
        happened([&] { m_machine.received(station, bytes, now()); });
    });
    connect(socket, &LinkSocket::closed, this,
            [=] { happened([=] { m_machine.closed(station, now()); }); });
}

bool Session::start(const QVector<Variable>& watched, QString* error)
{
    const QList<int> stations = m_settings.stations.keys() + QList<int>{m_settings.defaultStation};
    for (int station : stations) {
        if (station < 0 || station > LargestStation) {
            *error =
                QStringLiteral("station %1: stations are 0 to %2").arg(station).arg(LargestStation);
            return false;
        }
    }
    const QString file = findDriver(m_settings.driverFile, error);
    if (file.isEmpty() || !m_driver.load(file, error))
        return false;
    happened([&] {
        m_machine.start(now());
        m_machine.watch(watched, now());
    });
    return true;
}

void Session::end()
{
    m_timer.stop();
    happened([this] { m_machine.stop(); });
    if (m_depth == 0)
        delete this;
    else
        m_isEnded = true;
}

void Session::watch(const QVector<Variable>& variables)
{
    happened([&] { m_machine.watch(variables, now()); });
}

void Session::request(RequestPtr request)
{
    happened([&] { m_machine.request(std::move(request), now()); });
}

template <typename Event>
void Session::happened(const Event& event)
{
    ++m_depth;
    event();
    if (--m_depth == 0 && m_isEnded)
        deleteLater(); // behind the signal that brought the event
}

void Session::open(int station)
{
    m_sockets.at(station)->open();
}

void Session::close(int station)
{
    m_sockets.at(station)->close();
}

bool Session::isLookingUp(int station) const
{
    return m_sockets.at(station)->isLookingUp();
}

void Session::send(int station, const QByteArray& frame)
{
    m_sockets.at(station)->send(frame);
}

/// A timer that fires too early costs less than setting it anew with every frame.
void Session::wakeAt(Micros time)
{
    if (time == std::numeric_limits<Micros>::max() || (m_wakeAt >= 0 && m_wakeAt <= time))
        return;
    constexpr Micros Longest = Micros(3600) * 1000 * 1000;
    constexpr Micros Together = 20 * 1000;
    const Micros delay = qBound(Micros(0), time - now().steady, Longest);
    m_wakeAt = time;
    // Long waits end together with those of other controllers, at whole multiples: to wake a thread
    // costs as much as what one controller has to do then.
    const Micros longer = delay >= 20 * Together ? Together - 1 - (time - 1) % Together : 0;
    m_timer.start(int((delay + longer + 999) / 1000));
}

void Session::woken()
{
    m_wakeAt = -1;
    happened([this] { m_machine.timePassed(now()); });
}

void Session::tellLink(const LinkStatus& status)
{
    Q_EMIT linkChanged(status);
}

void Session::tellValues(const QVector<int>& indexes)
{
    Q_EMIT valuesChanged(indexes);
}

void Session::tellCycle()
{
    Q_EMIT cycleDone();
}

void Session::tellPdu(int station, int bytes)
{
    Q_EMIT pduChanged(station, bytes);
}

} // namespace s7200
