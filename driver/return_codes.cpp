#include "driver/return_codes.h"

#include "driver/siemens_s7_200.h"

namespace
{

constexpr int LargestClassKey = 11;

} // namespace

int SwitchErrorReturn(int base)
{
    Q_ASSERT(!PLC_driver.protocol_list.isEmpty());
    const int key = PLC_driver.protocol_list.first().var.host_key;
    const bool namesClass = key >= 1 && key <= LargestClassKey;
    return base + 1 + (namesClass ? key : 0);
}

int GetDriverReturnValue(int outcome)
{
    switch (outcome) {
    case GoodReply:
        return Success;
    case LocalBadContent:
        return SwitchErrorReturn(10);
    case LocalTimeout:
        return SwitchErrorReturn(40);
    case LocalWrongLength:
        return SwitchErrorReturn(70);
    case RemoteStored:
        return RemoteSuccess;
    case RemoteBadContent:
        return SwitchErrorReturn(110);
    case RemoteTimeout:
        return SwitchErrorReturn(140);
    case RemoteWrongLength:
        return SwitchErrorReturn(170);
    default:
        return UnknownOutcome;
    }
}
