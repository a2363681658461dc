#ifndef PANEL_DRIVER_DESK_H
#define PANEL_DRIVER_DESK_H

#include "host/driver_copy.h"
#include "host/request_limits.h"
#include "host/watch_list.h"

#include <s7200host/controller.h>

#include <QHash>
#include <QVector>

#include <memory>

namespace s7200::panel
{

/// A driver of one's own without any connection, set up as a controller object sets up its own.
/// The caller plays the controller.
class DriverDesk
{
public:
    /// Null with a one-line `error` if the driver cannot be loaded.
    static std::unique_ptr<DriverDesk> open(const ControllerSettings& settings, QString* error);

    /// The PDU length that the controller grants, 240 bytes if nothing is said: to be said before
    /// watch().
    void setPdu(int bytes);

    /// Makes its own cyclic list of `variables`, as a controller object does when it is to watch
    /// them; the status word's without any. Returns the number of requests in it.
    int watch(const QVector<Variable>& variables);

    /// Queues the reads of those that must not be in that list, since the driver would merge them
    /// beyond the limit: a controller object has them at the end of each cycle. Returns their
    /// number.
    int readApart();

    /// True for a read of one of those.
    bool isReadApart(const RW_VAR& request) const;

    /// The frame to be sent now; null if there is none, the one idle call in five of the driver
    /// not counted.
    const Protocol* pending();

    /// Gives the driver its reply, empty for a time-out. Returns the result code.
    int reply(const QByteArray& bytes);

    /// What a controller in perfect order answers now, or with remote access the peer that
    /// forwards; data are zeros.
    QByteArray perfectReply(const Protocol& pending) const;

    void setTsaps(quint16 local, quint16 remote);

    DriverCopy driver;
    COM_INFO comInfo = {};

private:
    DriverDesk() = default;

    QByteArray perfectRecordReply(const Protocol& pending) const;

    RequestLimits limits() const;
    QVector<int> stations() const;

    ControllerSettings m_settings;
    int m_pdu = RequestLimits::UsualPdu;
    WatchList m_list;
    QVector<unsigned short> m_localWords;
    QHash<int, quint16> m_references; ///< By station: of the next reply to a forwarding record.
    int m_pendingStation = 0;
};

} // namespace s7200::panel

#endif
