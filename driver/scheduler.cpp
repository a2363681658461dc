#include "core/checked_int.h"
#include "core/guard.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "protocol/Func_HandShake.h"
#include "protocol/Func_Read.h"
#include "protocol/Func_Remote.h"
#include "protocol/Func_Write.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QMutexLocker>

using namespace cp243;

namespace
{

/// Writes, and one-shot reads, go out at most five in a row.
constexpr int LastTurn = 4;
constexpr int ReadSequenceEnd = 0x10000;

void advanceReadSequence()
{
    countUp(PLC_driver.read_seq);
    if (PLC_driver.read_seq >= ReadSequenceEnd)
        PLC_driver.read_seq = 0;
}

/// Builds the request's frame, or the handshake in its place. The request stays in its list and is
/// issued again once the handshake has completed.
void dispatch(RW_VAR& request, RequestKind kind)
{
    if (PLC_driver.com_info->remote_access != 0) {
        kind == QueuedWrite ? Remote_WriteVar(&request) : Remote_ReadVar(&request);
        return;
    }
    if (map_list[request.station].hand_shake_ok == 0)
        SIEMENS_HandShake(&request);
    else
        kind == QueuedWrite ? WriteRegister(&request) : ReadRegister(&request);
}

void issueNextRequest()
{
    Siemens_S7_200& driver = PLC_driver;
    if (!driver.write_list.isEmpty() && driver.write_turns <= LastTurn) {
        driver.request_kind = QueuedWrite;
        countUp(driver.write_seq);
        dispatch(driver.write_list.first(), QueuedWrite);
        ++driver.write_turns;
    } else if (!driver.once_read_list.isEmpty() && driver.once_read_turns <= LastTurn) {
        driver.request_kind = OneShotRead;
        advanceReadSequence();
        dispatch(driver.once_read_list.first(), OneShotRead);
        ++driver.once_read_turns;
    } else if (!driver.read_list.isEmpty()) {
        driver.request_kind = CyclicRead;
        advanceReadSequence();
        dispatch(driver.read_list.first(), CyclicRead);
        driver.write_turns = driver.once_read_turns = 0;
    } else {
        // Also reached with five writes sent and no reads listed: the turns are not cleared any
        // earlier. Deliberate: docs/oddities.md, Writes.
        driver.write_turns = driver.once_read_turns = 0;
        storeShared(driver.com_info->cycle_complete, 1);
    }
}

} // namespace

Protocol* ComCommunication()
{
    Q_ASSERT(PLC_driver.com_info);
    QList<Protocol>& pending = PLC_driver.protocol_list;
    if (pending.isEmpty()) {
        QMutexLocker lock(&PLC_driver.list_mutex);
        const bool issued = guarded(false, [] {
            issueNextRequest();
            return true;
        });
        if (!issued)
            pending.clear(); // half a handshake, or a write that is not in the image
    }
    return pending.isEmpty() ? nullptr : &pending.first();
}
