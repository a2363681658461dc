#ifndef FUZZ_DRIVER_CALLS_H
#define FUZZ_DRIVER_CALLS_H

/// The calls of the communication loop, with what must hold whatever the host and the wire say.

#include "core/siemens_s7_200.h"
#include "fuzz/support.h"
#include "tests/driver_fixture.h"

/// The state after load, with settings, callback and local registers handed over.
inline DriverFixture& freshDriver()
{
    static DriverFixture fixture;
    fixture.reset();
    return fixture;
}

/// Every value that the driver holds: the image and the extend list.
inline QByteArray storedValues()
{
    QByteArray all = DriverFixture::image();
    for (const EXTENDVAR& entry : PLC_driver.extend_list)
        all += word16(entry.address) + entry.value + '/';
    return all;
}

/// What holds between any two calls.
// HOLDS(8, 9)
inline void checkState()
{
    const Siemens_S7_200& driver = PLC_driver;
    require(driver.protocol_list.size() <= 2, "one transaction pending at most");
    require(driver.link_failed <= 1, "link_failed is 0 or 1");
    require(driver.write_turns >= 0 && driver.write_turns <= 5, "at most five writes in a row");
    require(driver.once_read_turns >= 0 && driver.once_read_turns <= 5, "and five one-shot reads");
    for (const PLC_CHECK& check : qAsConst(map_list))
        require(check.hand_shake_ok == 0 || check.pdu_ref != 0, "a connected station's reference");
}

// HOLDS(17)
inline Protocol* nextFrame()
{
    Protocol* const frame = ComCommunication();
    checkState();
    require(!frame || (frame->frame_len == int(frame->frame.size()) &&
                       (PLC_driver.com_info->remote_access != 0 || frame->frame.isEmpty() ||
                        frame->frame.at(0) == 3)),
            "a frame is as long as its record says and begins with a TPKT");
    return frame;
}

/// The reply of a controller in good health. Payload bytes come from `source`.
inline QByteArray goodReply(const Protocol& pending, ByteSource& source)
{
    const bool remote = PLC_driver.com_info->remote_access != 0;
    const PLC_CHECK check = map_list.value(pending.var.station);
    if (!remote && check.hand_shake_ok == 0)
        return PLC_driver.com_info->frame_index == 0 ? connectionConfirm() : setupReply();
    const QByteArray trailer(remote ? 2 : 0, '\0');
    if (pending.var.origin != 0)
        return writeReply(check.pdu_ref) + trailer;
    constexpr int MostInBits = 8191;
    const int size = qBound(0, pending.data_len, 0xFFFF - 25);
    QByteArray payload = source.bytes(qMin(size, source.byte()));
    payload.append(QByteArray(size - int(payload.size()), '\0'));
    return readReply(check.pdu_ref, payload, size <= MostInBits ? 4 : 9) + trailer;
}

/// That a good reply's payload has reached the image, for the types whose areas hold bytes.
inline void requireStored(const Protocol& pending, const QByteArray& reply)
{
    using namespace ImageArea;
    static const int Areas[] = {I, Q, M, S, SM, V, I, Q, M, S, SM, V, V, V};
    const int type = pending.var.reg_type;
    if (type < 0 || type > 13)
        return;
    const qint64 start = type < 5 ? pending.var.address / 8 : pending.var.address;
    const QByteArray image = DriverFixture::image();
    for (qint64 i = 0; i < pending.data_len; ++i) {
        if (start + i >= 0 && start + i < DriverFixture::areaSize(Areas[type]))
            require(image.at(int(DriverFixture::areaOffset(Areas[type]) + start + i)) ==
                        reply.at(int(25 + i)),
                    "a good reply is stored");
    }
}

/// DataCom; `good`: the reply is goodReply()'s, with its own length.
// HOLDS(3, 4, 5)
inline void deliver(const QByteArray& reply, int len, bool good = false)
{
    const Protocol pending = PLC_driver.protocol_list.value(0);
    const bool handshake = map_list.value(pending.var.station).hand_shake_ok == 0 &&
                           !PLC_driver.com_info->remote_access;
    const bool local = pending.var.link_id == PLC_driver.com_info->link_id;
    good = good && pending.reply_len == int(reply.size());
    const QByteArray before = storedValues();
    QByteArray given(reply.constData(), int(reply.size()));
    const int result = DataCom(&given, len)->result;
    require(given == reply, "a reply is only read");
    require(!good || result == 1 || result == 100, "a good reply is taken");
    if (handshake || (result != 1 && result != 100))
        require(storedValues() == before, "a refused reply changes no value");
    else if (good && local && pending.var.origin == 0 &&
             !PLC_driver.com_info->per_variable_stations)
        requireStored(pending, reply);
    checkState();
}

#endif
