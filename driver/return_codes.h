#ifndef DRIVER_RETURN_CODES_H
#define DRIVER_RETURN_CODES_H

#include <siemens_s7_200_cp243/export.h>

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

/// Host code of an outcome; failure codes carry the offset of the pending request's host_key.
CP243_EXPORT int GetDriverReturnValue(int outcome);

/// base + 1 + k, with k the host_key of the pending request if it is 1 to 11, else 0. A request
/// must be pending.
CP243_EXPORT int SwitchErrorReturn(int base);

#endif
