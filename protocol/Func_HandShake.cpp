#include "protocol/Func_HandShake.h"

#include "core/siemens_s7_200.h"
#include "protocol/s7_frame.h"

#include <siemens_s7_200_cp243/host_interface.h>

#include <QtEndian>

#include <cstring>

using namespace cp243;

namespace
{

constexpr quint16 DefaultCalledTsap = 0x1100;
constexpr quint16 DefaultCallingTsap = 0x1000;

constexpr int CallingTsapOffset = 16;
constexpr int CalledTsapOffset = 20;

// clang-format off
const uchar ConnectionRequest[22] = {
    0x03, 0x00, 0x00, 0x16,  // TPKT of 22 bytes
    0x11, 0xE0,              // CR TPDU
    0x00, 0x00, 0x00, 0x01,  // destination and source reference
    0x00,                    // class 0
    0xC0, 0x01, 0x09,        // TPDU size 512
    0xC1, 0x02, 0x00, 0x00,  // calling TSAP
    0xC2, 0x02, 0x00, 0x00}; // called TSAP

// The PDU reference is 0x0108 whatever the station's is, which is 0 until the handshake is through.
// Deliberate: docs/oddities.md, Link loss.
const uchar SetupCommunication[25] = {
    0x03, 0x00, 0x00, 0x19,  // TPKT of 25 bytes
    0x02, 0xF0, 0x80,        // DT TPDU
    0x32, 0x01, 0x00, 0x00,  // S7 job
    0x01, 0x08,              // PDU reference
    0x00, 0x08, 0x00, 0x00,  // parameter and data length
    0xF0, 0x00,              // setup communication
    0x00, 0x01, 0x00, 0x01,  // one job each way
    0x00, 0xF0};             // PDU of 240 bytes
// clang-format on

constexpr int ConfirmLength = 22;
const uchar ConfirmStart[] = {0x03, 0x00, 0x00, ConfirmLength, 0x11, 0xD0};
constexpr int SetupReplyLength = 27;
const uchar SetupReplyStart[] = {0x03, 0x00, 0x00, SetupReplyLength, 0x02, 0xF0, 0x80};

struct Tsaps {
    quint16 called;
    quint16 calling;
};

/// The TSAPs in the host's registers. With one of them 0 both defaults are put there, so that a
/// host sees in its registers what is on the wire. Deliberate: docs/oddities.md, Link loss.
Tsaps readTsaps()
{
    if (!LW)
        return {DefaultCalledTsap, DefaultCallingTsap};
    if (LW[LocalWord_CalledTsap] == 0 || LW[LocalWord_CallingTsap] == 0) {
        LW[LocalWord_CalledTsap] = DefaultCalledTsap;
        LW[LocalWord_CallingTsap] = DefaultCallingTsap;
    }
    return {LW[LocalWord_CalledTsap], LW[LocalWord_CallingTsap]};
}

template <int Size>
QByteArray toBytes(const uchar (&bytes)[Size])
{
    return QByteArray(reinterpret_cast<const char*>(bytes), Size);
}

template <int Size>
bool startsWith(const QByteArray& reply, int minimum, const uchar (&start)[Size])
{
    return reply.size() >= minimum && std::memcmp(reply.constData(), start, Size) == 0;
}

} // namespace

void SIEMENS_HandShake(RW_VAR* var)
{
    const Tsaps tsaps = readTsaps();
    QByteArray request = toBytes(ConnectionRequest);
    uchar* bytes = reinterpret_cast<uchar*>(request.data());
    qToBigEndian(tsaps.calling, bytes + CallingTsapOffset);
    qToBigEndian(tsaps.called, bytes + CalledTsapOffset);
    recordPending(request, {ConfirmLength, 0, 0}, *var);
    recordPending(toBytes(SetupCommunication), {SetupReplyLength, 0, 0}, *var);
    startBatch(2);
}

int SIEMENS_CheckHSReturn(QByteArray* reply)
{
    if (!reply)
        return 0;
    switch (PLC_driver.com_info->frame_index) {
    case 0:
        return startsWith(*reply, ConfirmLength, ConfirmStart) ? 1 : 0;
    case 1:
        return startsWith(*reply, SetupReplyLength, SetupReplyStart) ? 1 : 0;
    default:
        return 0;
    }
}
