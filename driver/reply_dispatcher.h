#ifndef DRIVER_REPLY_DISPATCHER_H
#define DRIVER_REPLY_DISPATCHER_H

#include <siemens_s7_200_cp243/export.h>

#include <QByteArray>

/// Judge the reply to the pending frame and store its data; both return a host code (see
/// return_codes.h). `len` 0 is a time-out. Called by DataCom on the comm loop's thread.

/// For requests made on the current link. Takes the data mutex around storing.
CP243_EXPORT int DealDataOfLocalArea(QByteArray* reply, int len);

/// For requests made on another link. Stores without the data mutex.
CP243_EXPORT int DealDataOfRemoteArea(QByteArray* reply, int len);

#endif
