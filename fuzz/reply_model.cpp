#include "fuzz/reply_model.h"

#include "driver/return_codes.h"

#include <QPair>
#include <QSet>
#include <QVector>
#include <QtEndian>

#include <utility>

namespace
{

constexpr int ReadHeader = 25;
constexpr int WriteLength = 22;
constexpr int MostVisits = 10240; ///< Extend-list entries that one store may touch.

enum Verdict { Bad = 0, GoodRead = 1, GoodWrite = 2 };

/// Where the payload of a register type goes, and in what form.
enum class Form { Bytes, BitAddressedBytes, Values, Bits };
struct TypeRow {
    int area;
    Form form;
    int entryBytes; ///< Of a timer or counter in a reply, else 1.
    int keyType;    ///< What its extend-list entries are kept under.
};
constexpr int TypeCount = 25;
const TypeRow Types[TypeCount] = {
    {ImageArea::I, Form::BitAddressedBytes, 1, 6},
    {ImageArea::Q, Form::BitAddressedBytes, 1, 7},
    {ImageArea::M, Form::BitAddressedBytes, 1, 8},
    {ImageArea::S, Form::BitAddressedBytes, 1, 9},
    {ImageArea::SM, Form::BitAddressedBytes, 1, 10},
    {ImageArea::V, Form::Bytes, 1, 12},
    {ImageArea::I, Form::Bytes, 1, 6},
    {ImageArea::Q, Form::Bytes, 1, 7},
    {ImageArea::M, Form::Bytes, 1, 8},
    {ImageArea::S, Form::Bytes, 1, 9},
    {ImageArea::SM, Form::Bytes, 1, 10},
    {ImageArea::V, Form::Bytes, 1, 12},
    {ImageArea::V, Form::Bytes, 1, 12},
    {ImageArea::V, Form::Bytes, 1, 12},
    {ImageArea::TV, Form::Values, 5, 14},
    {ImageArea::CV, Form::Values, 3, 15},
    {ImageArea::AIW, Form::Bytes, 1, 16},
    {ImageArea::AQW, Form::Bytes, 1, 17},
    {ImageArea::T, Form::Bits, 5, 18},
    {ImageArea::C, Form::Bits, 3, 19},
    {ImageArea::I, Form::Bytes, 1, 6},
    {ImageArea::Q, Form::Bytes, 1, 7},
    {ImageArea::M, Form::Bytes, 1, 8},
    {ImageArea::S, Form::Bytes, 1, 9},
    {ImageArea::SM, Form::Bytes, 1, 10},
};

const TypeRow* typeRow(int regType)
{
    return regType >= 0 && regType < TypeCount ? &Types[regType] : nullptr;
}

int at(const QByteArray& bytes, int index)
{
    return uchar(bytes.at(index));
}

int at16(const QByteArray& bytes, int index)
{
    return at(bytes, index) * 256 + at(bytes, index + 1);
}

// The reply check

/// What reads and writes are examined for alike, the TPDU type apart.
bool isAcknowledgement(const QByteArray& reply, int function, int pduRef)
{
    return at16(reply, 0) == 0x0300 && at(reply, 4) == 2 && at(reply, 6) == 0x80 &&
           at(reply, 7) == 0x32 && at(reply, 8) == 3 && at16(reply, 9) == 0 &&
           at16(reply, 11) == pduRef && at16(reply, 13) == 2 && at16(reply, 17) == 0 &&
           at(reply, 19) == function && at(reply, 20) == 1;
}

Verdict judgeRead(const QByteArray& reply, int received, int pduRef)
{
    if (received < ReadHeader || !isAcknowledgement(reply, 4, pduRef) || at(reply, 5) % 2 != 0 ||
        at(reply, 21) != 0xFF)
        return Bad;
    const int payload = (at16(reply, 2) + 0x10000 - ReadHeader) % 0x10000;
    const int data = (at16(reply, 15) + 0x10000 - 4) % 0x10000;
    const int item = at(reply, 22) == 4 ? at16(reply, 23) / 8 : at16(reply, 23);
    return payload == item && payload == data && received >= ReadHeader + payload ? GoodRead : Bad;
}

Verdict judgeWrite(const QByteArray& reply, int received, int pduRef)
{
    const bool good = received >= WriteLength && isAcknowledgement(reply, 5, pduRef) &&
                      at(reply, 5) == 0xF0 && at16(reply, 15) == 1;
    return good ? GoodWrite : Bad;
}

Verdict judge(const Protocol& pending, const QByteArray& reply, int len)
{
    const int received = qMin(len, int(reply.size()));
    const int pduRef = map_list.value(pending.var.station).pdu_ref;
    return pending.var.origin == 0 ? judgeRead(reply, received, pduRef)
                                   : judgeWrite(reply, received, pduRef);
}

bool isHandshakeReply(const QByteArray& reply, int frameIndex)
{
    if (frameIndex == 0)
        return reply.size() >= 22 && reply.startsWith(fromHex("03 00 00 16 11 D0"));
    return frameIndex == 1 && reply.size() >= 27 &&
           reply.startsWith(fromHex("03 00 00 1B 02 F0 80"));
}

/// What DataCom should make of a reply to a request.
struct Outcome {
    int result;
    bool local;
    bool stored;
};

bool isSuccess(const Outcome& outcome)
{
    return outcome.result == 1 || outcome.result == 100;
}

Outcome requestOutcome(const Protocol& pending, const QByteArray& reply, int len)
{
    const COM_INFO& info = *PLC_driver.com_info;
    const bool local = pending.var.link_id == info.link_id;
    const int key = pending.var.host_key;
    const int failure = 1 + (local ? 0 : 100) + (key >= 1 && key <= 11 ? key : 0);
    if (len == 0 && pending.reply_len != 0)
        return {failure + 40, local, false};
    if (len != 0 && pending.reply_len != -1 && len != pending.reply_len)
        return {failure + 70, local, false};
    const Verdict verdict = judge(pending, reply, len);
    if (verdict == Bad)
        return {failure + 10, local, false};
    if (local)
        return {1, true, verdict == GoodRead};
    const bool stored = info.frame_index == 1;
    return {stored ? 100 : 1, false, stored};
}

// Where a payload goes

void storeBytes(char* image, const TypeRow& row, const Protocol& pending, const QByteArray& reply)
{
    const qint64 start =
        row.form == Form::BitAddressedBytes ? pending.var.address / 8 : pending.var.address;
    const int areaSize = DriverFixture::areaSize(row.area);
    for (qint64 i = 0; i < pending.data_len && pending.data_offset + i < reply.size(); ++i) {
        if (start + i >= 0 && start + i < areaSize)
            image[DriverFixture::areaOffset(row.area) + start + i] =
                reply.at(int(pending.data_offset + i));
    }
}

void storeEntries(char* image, const TypeRow& row, const Protocol& pending, const QByteArray& reply)
{
    const int on = row.entryBytes == 5 ? 0x02 : 0x10;
    char* const area = image + DriverFixture::areaOffset(row.area);
    for (qint64 k = 0; k < pending.data_len / row.entryBytes; ++k) {
        const qint64 entry = pending.data_offset + k * row.entryBytes;
        const qint64 number = pending.var.address + k;
        if (entry + row.entryBytes > reply.size())
            break;
        if (number < 0 || number > 255)
            continue;
        if (row.form == Form::Values) {
            area[2 * number] = reply.at(int(entry) + row.entryBytes - 1);
            area[2 * number + 1] = reply.at(int(entry) + row.entryBytes - 2);
        } else if (at(reply, int(entry)) == on) {
            area[number / 8] = char(uchar(area[number / 8]) | (1u << (number % 8)));
        }
    }
}

QByteArray imageAfter(QByteArray image, const Protocol& pending, const QByteArray& reply)
{
    const TypeRow* row = typeRow(pending.var.reg_type);
    if (!row)
        return image;
    if (row->entryBytes == 1)
        storeBytes(image.data(), *row, pending, reply);
    else
        storeEntries(image.data(), *row, pending, reply);
    return image;
}

/// The entries of the extend list that a store may touch: one key type and station, a run of
/// addresses.
struct ExtendTarget {
    int station;
    int keyType;
    qint64 first;
    qint64 count;
    int entryBytes;

    bool contains(const EXTENDVAR& entry) const
    {
        return entry.station == station && entry.reg_type == keyType && entry.address >= first &&
               entry.address < first + count;
    }
};

ExtendTarget extendTarget(const Protocol& pending)
{
    const TypeRow* row = typeRow(pending.var.reg_type);
    const int entryBytes = row ? row->entryBytes : 1;
    const qint64 count = qBound(0, pending.data_len / entryBytes, MostVisits);
    return {pending.var.station, row ? row->keyType : pending.var.reg_type, pending.var.address,
            count, entryBytes};
}

/// What the store makes the first byte of an entry's value; the value may be empty where the reply
/// ended.
void checkExtendEntry(const EXTENDVAR& entry, const ExtendTarget& target, const Protocol& pending,
                      const QByteArray& reply)
{
    const qint64 from = pending.data_offset + (entry.address - target.first) * target.entryBytes;
    if (from + target.entryBytes > reply.size())
        return;
    const bool value = target.keyType == 14 || target.keyType == 15;
    const qint64 first = value ? from + target.entryBytes - 1 : from;
    require(!entry.value.isEmpty() && entry.value.at(0) == reply.at(int(first)),
            "a stored entry holds the reply's bytes");
}

void checkExtendList(const QList<EXTENDVAR>& before, const Protocol& pending,
                     const QByteArray& reply)
{
    const QList<EXTENDVAR>& after = PLC_driver.extend_list;
    const ExtendTarget target = extendTarget(pending);
    require(after.size() >= before.size() && after.size() <= before.size() + target.count,
            "a store adds at most one entry for each element");
    for (int i = 0; i < int(after.size()); ++i) {
        const EXTENDVAR& entry = after.at(i);
        const bool old = i < int(before.size());
        require(!old || (entry.station == before.at(i).station &&
                         entry.reg_type == before.at(i).reg_type &&
                         entry.address == before.at(i).address),
                "entries keep their place");
        require(old || target.contains(entry), "new entries are the target's");
        if (target.contains(entry)) {
            checkExtendEntry(entry, target, pending, reply);
        } else {
            // A store without any element still resizes entry 0.
            const int kept = int(qMin(entry.value.size(), before.at(i).value.size()));
            require(entry.value == before.at(i).value ||
                        (i == 0 && target.count == 0 &&
                         entry.value.left(kept) == before.at(i).value.left(kept)),
                    "entries outside the target are unchanged");
        }
    }
}

// The driver's state around one DataCom

QVector<int> stationsOf(const QList<RW_VAR>& list)
{
    QVector<int> stations;
    for (const RW_VAR& var : list)
        stations.append(var.station);
    return stations;
}

struct Before {
    Protocol pending = PLC_driver.protocol_list.first();
    COM_INFO info = *PLC_driver.com_info;
    PLC_CHECK check = map_list.value(pending.var.station);
    QByteArray image = DriverFixture::image();
    QList<EXTENDVAR> extendList = PLC_driver.extend_list;
    int frames = int(PLC_driver.protocol_list.size());
    int reads = int(PLC_driver.read_list.size());
    QVector<int> writeStations = stationsOf(PLC_driver.write_list);
    QVector<int> onceStations = stationsOf(PLC_driver.once_read_list);
    int callbacks = int(DriverFixture::callbacks.size());
    bool lastOfPair = isLastOfPair();

    /// Whether no further one-shot read carries the tags of the first.
    static bool isLastOfPair()
    {
        const QList<RW_VAR>& list = PLC_driver.once_read_list;
        for (int i = 1; i < int(list.size()); ++i) {
            if (list.at(i).host_key == list.first().host_key &&
                list.at(i).host_index == list.first().host_index)
                return false;
        }
        return !list.isEmpty();
    }
};

void requireListsKept(const Before& before)
{
    require(stationsOf(PLC_driver.write_list) == before.writeStations &&
                stationsOf(PLC_driver.once_read_list) == before.onceStations &&
                int(PLC_driver.read_list.size()) == before.reads,
            "a transaction that goes on leaves the lists alone");
    require(int(DriverFixture::callbacks.size()) == before.callbacks,
            "no callback before a read is finished");
}

void requireDataKept(const Before& before)
{
    require(DriverFixture::image() == before.image, "what is not stored leaves the image alone");
    require(PLC_driver.extend_list.size() == before.extendList.size(),
            "what is not stored leaves the extend list alone");
    for (int i = 0; i < int(before.extendList.size()); ++i)
        require(PLC_driver.extend_list.at(i).value == before.extendList.at(i).value,
                "what is not stored leaves extend values alone");
}

void requireDropped(const Before& before)
{
    const PLC_CHECK check = map_list.value(before.pending.var.station);
    require(PLC_driver.protocol_list.isEmpty(), "a lost connection drops the pending frames");
    require(check.hand_shake_ok == 0 && check.pdu_ref == 0,
            "a lost connection starts again at the handshake");
    require(PLC_driver.com_info->link_down == 1, "a lost connection is reported");
}

void checkHandshakeReply(const Before& before, const QByteArray& reply)
{
    const COM_INFO& info = *PLC_driver.com_info;
    const PLC_CHECK check = map_list.value(before.pending.var.station);
    const int result = PLC_driver.ret_var.result;
    requireListsKept(before);
    requireDataKept(before);
    if (!isHandshakeReply(reply, before.info.frame_index)) {
        const bool limit = before.info.retry_count >= before.info.retry_limit;
        require(result == (limit ? 201 : 0), "a bad handshake reply gives 0, or 201 at the limit");
        requireDropped(before);
        return;
    }
    const bool done = before.info.frame_index + 1 >= before.info.frame_count;
    require(result == 1, "a good handshake reply gives 1");
    require(int(PLC_driver.protocol_list.size()) == before.frames - 1, "one frame is answered");
    require((check.hand_shake_ok == 1) == done, "connected after the second good reply");
    require(!done || (check.pdu_ref == 1 && info.link_down == 0), "connected: reference 1, up");
}

/// The lists after a transaction has come to its end.
void checkCompletion(const Before& before, const Outcome& outcome)
{
    QVector<int> writes = before.writeStations;
    QVector<int> onces = before.onceStations;
    int calls = 0;
    if (PLC_driver.request_kind == QueuedWrite && !writes.isEmpty()) {
        writes.removeFirst();
    } else if (PLC_driver.request_kind == OneShotRead && !onces.isEmpty()) {
        onces.removeFirst();
        calls = outcome.local && before.lastOfPair ? 1 : 0;
    }
    if (!isSuccess(outcome) && before.info.per_variable_stations == 0) {
        writes.clear();
        onces.clear();
    } else if (!isSuccess(outcome)) {
        writes.removeAll(PLC_driver.ret_var.station);
        onces.removeAll(PLC_driver.ret_var.station);
    }
    require(stationsOf(PLC_driver.write_list) == writes, "the write queue after a transaction");
    require(stationsOf(PLC_driver.once_read_list) == onces, "the one-shot list after one");
    require(int(PLC_driver.read_list.size()) == before.reads, "the cyclic list is only turned");
    require(int(DriverFixture::callbacks.size()) == before.callbacks + calls,
            "one callback for each finished one-shot read, none otherwise");
}

void checkRequestFailure(const Before& before, const Outcome& outcome)
{
    requireDataKept(before);
    require(PLC_driver.link_failed == 1, "a failure sets link_failed");
    const bool counts = before.info.retry_count < std::numeric_limits<int>::max();
    if (before.info.retry_count + (counts ? 1 : 0) > before.info.retry_limit) {
        require(PLC_driver.ret_var.result == outcome.result, "past the limit: the failure's code");
        requireDropped(before);
        checkCompletion(before, outcome);
        return;
    }
    require(PLC_driver.ret_var.result == 0, "within the limit the frame is tried again");
    require(int(PLC_driver.protocol_list.size()) == before.frames &&
                PLC_driver.protocol_list.first().frame == before.pending.frame,
            "within the limit the frame stays pending");
    requireListsKept(before);
}

void checkRequestSuccess(const Before& before, const Outcome& outcome, const QByteArray& reply)
{
    require(PLC_driver.ret_var.result == outcome.result, "a good reply gives its code");
    require(int(PLC_driver.protocol_list.size()) == before.frames - 1, "its frame is answered");
    require(PLC_driver.link_failed == 0 && PLC_driver.com_info->link_down == 0,
            "a good reply brings the link up");
    const int reference = before.check.pdu_ref == 0xFFFF ? 1 : before.check.pdu_ref + 1;
    require(map_list.value(before.pending.var.station).pdu_ref == reference,
            "a good reply moves the PDU reference on, past 0");
    if (!outcome.stored) {
        requireDataKept(before);
    } else if (before.info.per_variable_stations == 0) {
        require(DriverFixture::image() == imageAfter(before.image, before.pending, reply),
                "exactly the request's place in the image takes the payload");
        require(PLC_driver.extend_list.size() == before.extendList.size(),
                "the extend list is not for the default station");
    } else {
        require(DriverFixture::image() == before.image, "the image is not for several stations");
        checkExtendList(before.extendList, before.pending, reply);
    }
    if (before.info.frame_index + 1 >= before.info.frame_count)
        checkCompletion(before, outcome);
    else
        requireListsKept(before);
}

// Replies of a healthy controller

void put16(QByteArray& bytes, int index, int value)
{
    bytes[index] = char(value / 256);
    bytes[index + 1] = char(value);
}

QByteArray acknowledgement(const Protocol& pending, int size, int function, int dataLength)
{
    QByteArray reply = fromHex("03 00 00 00 02 F0 80 32 03 00 00 00 00 00 02 00 00 00 00 00 01 FF");
    reply.append(QByteArray(size - int(reply.size()), '\0'));
    put16(reply, 2, size);
    put16(reply, 11, map_list.value(pending.var.station).pdu_ref);
    put16(reply, 15, dataLength);
    reply[19] = char(function);
    return reply;
}

QByteArray goodReadReply(const Protocol& pending, ByteSource& source)
{
    constexpr int MostInBits = 8191;
    constexpr int Most = 0xFFFF - ReadHeader;
    const int payload = qBound(0, pending.data_len, Most);
    const bool inBits = payload <= MostInBits;
    QByteArray reply = acknowledgement(pending, ReadHeader + payload, 4, payload + 4);
    reply[22] = char(inBits ? 4 : 9);
    put16(reply, 23, inBits ? 8 * payload : payload);
    const QByteArray data = source.bytes(qMin(payload, source.byte()));
    return reply.replace(ReadHeader, int(data.size()), data);
}

/// Entries of the extend list that were looked at; it only grows.
int checkedEntries = 0;

void checkExtendKeys()
{
    const QList<EXTENDVAR>& list = PLC_driver.extend_list;
    if (int(list.size()) == checkedEntries)
        return;
    checkedEntries = int(list.size());
    QSet<QPair<quint64, int>> keys;
    for (const EXTENDVAR& entry : list) {
        const quint64 owner = (quint64(quint32(entry.station)) << 32) | quint32(entry.reg_type);
        keys.insert({owner, entry.address});
        require(entry.address >= 0 && entry.address < (1 << 21),
                "extend entries lie where the protocol can name them");
    }
    require(keys.size() == list.size(), "extend entries are unique");
}

void checkRecord(const QByteArray& record)
{
    int sum = 0;
    for (char byte : record.left(int(record.size()) - 1))
        sum += uchar(byte);
    require(record.size() >= 22 && at(record, 0) == (int(record.size()) & 0xFF) &&
                at(record, int(record.size()) - 1) == (sum & 0xFF),
            "a forwarding record has its length and its checksum");
}

/// A frame just built.
void checkFrame(const Protocol& pending)
{
    const QByteArray& frame = pending.frame;
    require(pending.frame_len == int(frame.size()), "frame_len is the frame's length");
    require(pending.data_offset == 0 || pending.data_offset == ReadHeader, "payload offset");
    if (PLC_driver.com_info->remote_access != 0) {
        checkRecord(frame);
        return;
    }
    require(frame.left(2) == QByteArray("\x03\0", 2).left(int(frame.size())), "a TPKT starts");
    // A negative count cuts a write short; every other frame has its whole job header.
    require(pending.var.count < 0 || frame.size() >= 22, "frames have their headers");
}

} // namespace

DriverFixture& freshDriver()
{
    static DriverFixture fixture;
    fixture.reset();
    checkedEntries = 0;
    return fixture;
}

bool isHandshakePending()
{
    const QList<Protocol>& pending = PLC_driver.protocol_list;
    return !pending.isEmpty() && pending.last().frame.size() == 25 &&
           at(pending.last().frame, 17) == 0xF0;
}

void checkState()
{
    const Siemens_S7_200& driver = PLC_driver;
    require(driver.protocol_list.size() <= (isHandshakePending() ? 2 : 1),
            "one transaction pending at most");
    require(driver.spare_list.isEmpty() && driver.spare_flag == 0, "spare members stay empty");
    require(driver.link_failed <= 1, "link_failed is 0 or 1");
    require(driver.write_turns >= 0 && driver.write_turns <= 5, "at most five writes in a row");
    require(driver.once_read_turns >= 0 && driver.once_read_turns <= 5, "and five one-shot reads");
    require(driver.read_seq >= -1 && driver.read_seq <= 0xFFFF, "read sequence wraps");
    for (const PLC_CHECK& check : std::as_const(map_list))
        require(check.hand_shake_ok == 0 || (check.hand_shake_ok == 1 && check.pdu_ref != 0),
                "a connected station has a reference that is not 0");
    checkExtendKeys();
}

Protocol* nextFrame()
{
    const bool pendingBefore = !PLC_driver.protocol_list.isEmpty();
    const int turns = PLC_driver.write_turns + PLC_driver.once_read_turns;
    const int sequences[] = {PLC_driver.read_seq, PLC_driver.write_seq};
    const int queued = int(PLC_driver.write_list.size() + PLC_driver.once_read_list.size() +
                           PLC_driver.read_list.size());
    Protocol* const frame = ComCommunication();
    require(frame ==
                (PLC_driver.protocol_list.isEmpty() ? nullptr : &PLC_driver.protocol_list.first()),
            "the oldest pending frame is handed out");
    require(queued == int(PLC_driver.write_list.size() + PLC_driver.once_read_list.size() +
                          PLC_driver.read_list.size()),
            "handing out a frame takes nothing off the lists");
    if (pendingBefore)
        require(turns == PLC_driver.write_turns + PLC_driver.once_read_turns &&
                    sequences[0] == PLC_driver.read_seq && sequences[1] == PLC_driver.write_seq,
                "handing out a frame again counts nothing");
    if (frame && !pendingBefore)
        checkFrame(*frame);
    checkState();
    return frame;
}

void deliver(const QByteArray& reply, int len)
{
    QByteArray given(reply.constData(), int(reply.size()));
    if (PLC_driver.protocol_list.isEmpty()) {
        const QByteArray image = DriverFixture::image();
        require(DataCom(&given, len)->result == 1, "nothing pending: 1");
        require(DriverFixture::image() == image, "nothing pending: nothing stored");
        return;
    }
    const Before before;
    const bool handshake = before.check.hand_shake_ok == 0 && before.info.remote_access == 0;
    const Outcome outcome = requestOutcome(before.pending, reply, len);

    require(DataCom(&given, len) == &PLC_driver.ret_var, "DataCom gives the driver's own record");
    require(given == reply, "a reply is only read");
    if (handshake)
        checkHandshakeReply(before, reply);
    else if (isSuccess(outcome))
        checkRequestSuccess(before, outcome, reply);
    else
        checkRequestFailure(before, outcome);
    checkState();
}

QByteArray goodReply(const Protocol& pending, ByteSource& source)
{
    if (isHandshakePending() && PLC_driver.com_info->remote_access == 0)
        return PLC_driver.com_info->frame_index == 0
                   ? fromHex("03 00 00 16 11 D0 00 01 00 07 00 C0 01 09 C1 02 10 00 C2 02 11 00")
                   : fromHex("03 00 00 1B 02 F0 80 32 03 00 00 01 08 00 08 00 00 00 00 F0 00 00 01"
                             "00 01 00 F0");
    QByteArray reply = pending.var.origin == 0 ? goodReadReply(pending, source)
                                               : acknowledgement(pending, WriteLength, 5, 1);
    if (PLC_driver.com_info->remote_access != 0)
        reply.append("\0\0", 2);
    return reply;
}
