#include "driver/reply_dispatcher.h"

#include "core/checked_int.h"
#include "core/guard.h"
#include "core/shared_word.h"
#include "core/siemens_s7_200.h"
#include "driver/return_codes.h"
#include "image/Func_DealData.h"
#include "protocol/Func_Check.h"
#include "protocol/Func_HandShake.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QMutexLocker>

using namespace cp243;

namespace
{

constexpr int AnyLength = -1;

/// What CheckGetData found.
enum CheckResult { BadReply = 0, GoodRead = 1, GoodWrite = 2 };

/// False when memory has run out: the reply counts as bad then, and is asked for again.
bool store(QByteArray* reply)
{
    return guarded(false, [=] {
        SaveToLocalDataErea(reply);
        return true;
    });
}

bool isTimeout(const Protocol& pending, int len)
{
    return len == 0 && pending.reply_len != 0;
}

bool isWrongLength(const Protocol& pending, int len)
{
    return len != 0 && len != pending.reply_len && pending.reply_len != AnyLength;
}

void setLinkFailed(unsigned char failed)
{
    storeShared(PLC_driver.link_failed, failed);
}

void dropConnection(PLC_CHECK& check)
{
    PLC_driver.protocol_list.clear();
    PLC_driver.com_info->link_down = 1;
    check.hand_shake_ok = 0;
    check.pdu_ref = 0;
}

void handshakeFailed(PLC_CHECK& check)
{
    COM_INFO& info = *PLC_driver.com_info;
    setLinkFailed(1);
    info.frame_index = 0;
    dropConnection(check);
    // 0 here, but -1 when a request fails for good. Deliberate: docs/oddities.md, Link loss.
    PLC_driver.read_seq = PLC_driver.write_seq = 0;
    if (info.retry_count >= info.retry_limit) {
        info.retry_count = 0;
        PLC_driver.ret_var.result = Result_HandshakeFailed;
    } else {
        ++info.retry_count;
        PLC_driver.ret_var.result = Result_WillRetry;
    }
}

/// By the reply's bytes alone, whatever its length. Deliberate: docs/oddities.md, Link loss.
void dealHandshakeReply(PLC_CHECK& check, QByteArray* reply)
{
    COM_INFO& info = *PLC_driver.com_info;
    if (SIEMENS_CheckHSReturn(reply) != 1) {
        handshakeFailed(check);
        return;
    }
    PLC_driver.protocol_list.removeFirst();
    ++info.frame_index;
    if (info.frame_index < info.frame_count)
        return;
    info.link_down = 0;
    PLC_driver.ret_var.result = Result_Good;
    check.hand_shake_ok = 1;
    check.pdu_ref = 1;
}

/// Tells the host of a finished one-shot read. The pieces of one host request share their pair of
/// tags, so only the last piece in the list is reported.
void reportOneShotRead()
{
    const QList<RW_VAR>& list = PLC_driver.once_read_list;
    if (list.isEmpty() || !PLC_driver.call_back)
        return;
    const int key = list.first().host_key;
    const int index = list.first().host_index;
    for (int i = 1; i < int(list.size()); ++i) {
        if (list.at(i).host_key == key && list.at(i).host_index == index)
            return;
    }
    guarded(0, [=] {
        return PLC_driver.call_back(PLC_driver.com_info->host_handle, key, index,
                                    PLC_driver.link_failed ? Outcome_LinkFailed : Outcome_Good);
    });
}

void finishFirst(QList<RW_VAR>& list)
{
    if (list.isEmpty())
        return;
    passRetValue(list.at(0), PLC_driver.ret_var);
    list.removeFirst();
}

/// Turns a long list with hardly any work: Qt 5 moves one pointer while there is room behind the
/// last and all of them when there is none, and an append makes room again; Qt 6 moves every record
/// in move() and amortises an append.
void turn(QList<RW_VAR>& list)
{
    if (list.size() < 2)
        return;
#if QT_VERSION < QT_VERSION_CHECK(6, 0, 0)
    constexpr int ShortList = 64;
    constexpr int AppendsPerRound = 8;
    static int turnsSinceRoomMade = 0;
    if (list.size() > ShortList && ++turnsSinceRoomMade >= list.size() / AppendsPerRound) {
        turnsSinceRoomMade = 0;
        list.append(RW_VAR());
        list.removeLast();
    }
    list.move(0, list.size() - 1);
#else
    list.append(list.first());
    list.removeFirst();
#endif
}

void rotateCyclicList()
{
    if (PLC_driver.read_list.isEmpty())
        return;
    passRetValue(PLC_driver.read_list.at(0), PLC_driver.ret_var);
    // Without memory the list stays as it is and its first entry is read once more.
    guarded(0, [] {
        turn(PLC_driver.read_list);
        return 0;
    });
}

void removeStation(QList<RW_VAR>& list, int station)
{
    for (int i = int(list.size()) - 1; i >= 0; --i) {
        if (list.at(i).station == station)
            list.removeAt(i);
    }
}

/// Nothing queued for a controller that cannot be reached is kept; cyclic reads go on.
void purgeQueues()
{
    if (PLC_driver.com_info->per_variable_stations != 0) {
        removeStation(PLC_driver.once_read_list, PLC_driver.ret_var.station);
        removeStation(PLC_driver.write_list, PLC_driver.ret_var.station);
    } else {
        PLC_driver.once_read_list.clear();
        PLC_driver.write_list.clear();
    }
}

void completeRequest(bool local, int result)
{
    switch (PLC_driver.request_kind) {
    case QueuedWrite:
        finishFirst(PLC_driver.write_list);
        break;
    case CyclicRead:
        rotateCyclicList();
        break;
    case OneShotRead:
        if (local)
            reportOneShotRead();
        finishFirst(PLC_driver.once_read_list);
        break;
    default:
        break;
    }
    if (PLC_driver.link_failed)
        purgeQueues();
    PLC_driver.ret_var.result = result;
}

void requestFailed(PLC_CHECK& check, bool local, int result)
{
    COM_INFO& info = *PLC_driver.com_info;
    PLC_driver.cycle_count = 0;
    countUp(info.retry_count);
    setLinkFailed(1);
    storeShared(info.cycle_complete, 0);
    if (info.retry_count <= info.retry_limit) {
        // The frame stays pending, so the next ComCommunication sends it again.
        PLC_driver.ret_var.result = Result_WillRetry;
        return;
    }
    info.retry_count = 0;
    dropConnection(check);
    PLC_driver.read_seq = PLC_driver.write_seq = -1;
    completeRequest(local, result);
}

/// Transactions of every kind. Deliberate: docs/oddities.md, Scheduling.
void countTransaction()
{
    COM_INFO& info = *PLC_driver.com_info;
    ++PLC_driver.cycle_count;
    if (PLC_driver.cycle_count > int(PLC_driver.read_list.size())) {
        PLC_driver.cycle_count = 0;
        storeShared(info.cycle_complete, 1);
    }
}

/// Leaves retry_count as it is. Deliberate: docs/oddities.md, Link loss.
void requestSucceeded(PLC_CHECK& check, bool local, int result)
{
    COM_INFO& info = *PLC_driver.com_info;
    setLinkFailed(0);
    PLC_driver.protocol_list.removeFirst();
    countUp(info.frame_index);
    const bool done = info.frame_index >= info.frame_count;
    if (done && loadShared(info.cycle_complete) == 0 && local)
        countTransaction();
    info.link_down = 0;
    check.pdu_ref = check.pdu_ref == 0xFFFF ? 1 : static_cast<unsigned short>(check.pdu_ref + 1);
    if (done)
        completeRequest(local, result);
    else
        PLC_driver.ret_var.result = result;
}

void dealRequestReply(PLC_CHECK& check, QByteArray* reply, int len)
{
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    const bool local = pending.var.link_id == PLC_driver.com_info->link_id;
    const int result = local ? DealDataOfLocalArea(reply, len) : DealDataOfRemoteArea(reply, len);

    // Held for the counters too, which a rebuild of the cyclic list resets from another thread.
    QMutexLocker lock(&PLC_driver.list_mutex);
    if (result == Result_Good || result == Result_RemoteStored)
        requestSucceeded(check, local, result);
    else
        requestFailed(check, local, result);
}

} // namespace

int DealDataOfLocalArea(QByteArray* reply, int len)
{
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    if (isTimeout(pending, len))
        return GetDriverReturnValue(LocalTimeout);
    if (isWrongLength(pending, len))
        return GetDriverReturnValue(LocalWrongLength);
    switch (CheckGetData(reply, len)) {
    case GoodRead: {
        QMutexLocker lock(&PLC_driver.data_mutex);
        return GetDriverReturnValue(store(reply) ? GoodReply : LocalBadContent);
    }
    case GoodWrite:
        return GetDriverReturnValue(GoodReply);
    default:
        return GetDriverReturnValue(LocalBadContent);
    }
}

int DealDataOfRemoteArea(QByteArray* reply, int len)
{
    const Protocol& pending = PLC_driver.protocol_list.at(0);
    if (isTimeout(pending, len))
        return GetDriverReturnValue(RemoteTimeout);
    if (isWrongLength(pending, len))
        return GetDriverReturnValue(RemoteWrongLength);
    if (CheckGetData(reply, len) == BadReply)
        return GetDriverReturnValue(RemoteBadContent);
    // Only a reply that finds frame_index at 1 is stored: every builder but the remote write sets
    // it to 0, so this is one that follows another completed transaction. It is stored without the
    // data mutex. Both deliberate: docs/oddities.md, Remote access.
    if (PLC_driver.com_info->frame_index != 1)
        return GetDriverReturnValue(GoodReply);
    return GetDriverReturnValue(store(reply) ? RemoteStored : RemoteBadContent);
}

RW_VAR* DataCom(QByteArray* reply, int len)
{
    Q_ASSERT(PLC_driver.com_info);
    RW_VAR* result = &PLC_driver.ret_var;
    result->result = Result_Good;
    if (PLC_driver.protocol_list.isEmpty())
        return result;
    const bool dealt = guarded(false, [=] {
        PLC_CHECK& check = map_list[PLC_driver.protocol_list.at(0).var.station];
        if (check.hand_shake_ok == 0 && PLC_driver.com_info->remote_access == 0)
            dealHandshakeReply(check, reply);
        else
            dealRequestReply(check, reply, len);
        return true;
    });
    if (!dealt)
        result->result = Result_WillRetry;
    return result;
}
