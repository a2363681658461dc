#include "driver/return_codes.h"

#include "core/siemens_s7_200.h"

#include <siemens_s7_200_cp243/host_interface.h>

namespace
{

constexpr int LargestClassKey = 11;

/// The base of a class of failures is the code without a host_key.
int classCode(ResultCode withoutKey)
{
    return SwitchErrorReturn(withoutKey - 1);
}

} // namespace

int SwitchErrorReturn(int base)
{
    Q_ASSERT(!PLC_driver.protocol_list.isEmpty());
    const int key = PLC_driver.protocol_list.at(0).var.host_key;
    const bool namesClass = key >= 1 && key <= LargestClassKey;
    return base + 1 + (namesClass ? key : 0);
}

int GetDriverReturnValue(int outcome)
{
    switch (outcome) {
    case GoodReply:
        return Result_Good;
    case LocalBadContent:
        return classCode(Result_BadContent);
    case LocalTimeout:
        return classCode(Result_TimeOut);
    case LocalWrongLength:
        return classCode(Result_WrongLength);
    case RemoteStored:
        return Result_RemoteStored;
    case RemoteBadContent:
        return classCode(Result_RemoteBadContent);
    case RemoteTimeout:
        return classCode(Result_RemoteTimeOut);
    case RemoteWrongLength:
        return classCode(Result_RemoteWrongLength);
    default:
        return Result_Unknown;
    }
}
