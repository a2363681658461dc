#ifndef FUZZ_REPLY_MODEL_H
#define FUZZ_REPLY_MODEL_H

/// A second account of what a reply may do to the driver, written apart from the driver's own code,
/// and the calls of the communication loop held to it.

#include "core/siemens_s7_200.h"
#include "fuzz/support.h"
#include "tests/driver_fixture.h"

#include <QByteArray>

/// The settings record and local registers that the driver points into, put back to the state
/// after load.
DriverFixture& freshDriver();

/// ComCommunication, with what must hold whatever it hands out. Null when nothing is to be sent.
Protocol* nextFrame();

/// DataCom, with the whole outcome predicted: result code, queues, connection state, callbacks,
/// image and extend list, byte for byte.
void deliver(const QByteArray& reply, int len);

/// The reply that a controller in good health gives to the pending frame. Payload bytes come from
/// `source`; a payload too long for a TPKT is cut short.
QByteArray goodReply(const Protocol& pending, ByteSource& source);

/// What holds between any two calls.
void checkState();

/// True while the pending frames are those of a handshake.
bool isHandshakePending();

#endif
