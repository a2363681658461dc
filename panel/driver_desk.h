#ifndef PANEL_DRIVER_DESK_H
#define PANEL_DRIVER_DESK_H

#include "host/driver_copy.h"

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

    /// Makes its own cyclic list of `variables`, as a controller object does when it is to watch
    /// them; the status word's without any. Returns the number of requests in it.
    int watch(const QVector<Variable>& variables);

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

    ControllerSettings m_settings;
    QVector<unsigned short> m_localWords;
    QHash<int, quint16> m_references; ///< By station: of the next reply to a forwarding record.
    int m_pendingStation = 0;
};

} // namespace s7200::panel

#endif
