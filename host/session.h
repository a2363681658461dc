#ifndef HOST_SESSION_H
#define HOST_SESSION_H

#include "host/link_machine.h"
#include "host/link_socket.h"

#include <QObject>
#include <QTimer>

#include <map>

namespace s7200
{

/// One run of a controller from start to stop: joins a driver's copy, the machine, its sockets and
/// a timer, and gives the machine the time.
class Session : public QObject, private LinkOrders
{
    Q_OBJECT
public:
    explicit Session(const ControllerSettings& settings);
    ~Session() override;

    bool start(const QVector<Variable>& watched, QString* error);

    /// Stops it and deletes it; while one of its functions is running further up, when that
    /// returns. An event loop in a slot may have called this: deleteLater() would be too early
    /// then.
    void end();

    void watch(const QVector<Variable>& variables);
    void request(RequestPtr request);

    const LinkMachine& machine() const
    {
        return m_machine;
    }
    static Moment now();

Q_SIGNALS:
    void linkChanged(const s7200::LinkStatus& status);
    void valuesChanged(const QVector<int>& indexes);
    void cycleDone();
    void pduChanged(int station, int bytes);

private:
    void open(int station) override;
    void close(int station) override;
    bool isLookingUp(int station) const override;
    void send(int station, const QByteArray& frame) override;
    void wakeAt(Micros time) override;
    void tellLink(const LinkStatus& status) override;
    void tellValues(const QVector<int>& indexes) override;
    void tellCycle() override;
    void tellPdu(int station, int bytes) override;

    void addSocket(int station, const Endpoint& endpoint);
    void woken();
    template <typename Event>
    void happened(const Event& event);

    const ControllerSettings m_settings;
    QTimer m_timer;
    Micros m_wakeAt = -1; ///< When the timer fires; -1: not at all.
    DriverCopy m_driver;
    LinkMachine m_machine;
    std::map<int, std::unique_ptr<LinkSocket>> m_sockets;
    int m_depth = 0;
    bool m_isEnded = false;
};

} // namespace s7200

#endif
