#ifndef PANEL_REQUEST_PREVIEW_H
#define PANEL_REQUEST_PREVIEW_H

#include <s7200host/controller.h>

#include <QByteArray>
#include <QVector>

#include <optional>

namespace s7200::panel
{

/// One read of the driver's cyclic list.
struct PlannedRead {
    QByteArray frame;       ///< As it is sent, its reference apart.
    QString text;           ///< "read VB100 to VB107"
    QVector<int> variables; ///< By index, those that it brings, in whole or in part.
    int replyLength = 0;    ///< Of the whole reply.
    int pduLength = 0;      ///< Of the S7 PDU in the reply, to be held against the granted length.
    int dataBytes = 0;
    int wastedBytes = 0; ///< Of them, those that no variable wants.
};

/// What the driver will send for a list of variables, once a cycle, beside the handshake before.
struct RequestPlan {
    QVector<PlannedRead> reads;
    int grantedPdu = 0; ///< Bytes.

    /// Reads whose replies the PDU has no room for, so that the controller refuses them: of a
    /// single element that is too large for it.
    int misfits() const;
    int dataBytes() const;
    int wastedBytes() const;
    /// How long a cycle takes when each round trip takes this long; requests go out one by one.
    double cycleMs(double roundTripMs) const;
};

/// Asks a driver of its own, to which a controller in perfect order answers, through one whole
/// cycle. `settings` as for a controller object; its endpoint does not matter. `grantedPdu`: what
/// that controller grants. Nothing with a one-line `error` if the driver cannot be loaded or makes
/// no request of a variable.
std::optional<RequestPlan> planRequests(const ControllerSettings& settings,
                                        const QVector<Variable>& variables, int grantedPdu,
                                        QString* error);

} // namespace s7200::panel

#endif
