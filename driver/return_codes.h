#ifndef DRIVER_RETURN_CODES_H
#define DRIVER_RETURN_CODES_H

#include "driver/export.h"

/// What a reply turned out to be, before it becomes a code for the host.
enum ReplyOutcome {
    GoodReply = 0,
    LocalBadContent = 1,
    LocalTimeout = 2,
    LocalWrongLength = 3,
    RemoteStored = 4,
    RemoteBadContent = 5,
    RemoteTimeout = 6,
    RemoteWrongLength = 7
};

/// Codes that the host sees in `result` of the record that DataCom returns.
enum HostCode {
    WillRetry = 0,
    Success = 1,
    RemoteSuccess = 100,
    UnknownOutcome = 200,
    HandshakeFailed = 201
};

/// Host code of an outcome; failure codes carry the offset of the pending request's host_key.
DRIVER_EXPORT int GetDriverReturnValue(int outcome);

/// base + 1 + k, with k the host_key of the pending request if it is 1 to 11, else 0. A request
/// must be pending.
DRIVER_EXPORT int SwitchErrorReturn(int base);

#endif
