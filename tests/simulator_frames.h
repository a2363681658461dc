#ifndef TESTS_SIMULATOR_FRAMES_H
#define TESTS_SIMULATOR_FRAMES_H

/// What clients of the simulated controller say, and what they should hear.

#include "simulator/s7_request_handler.h"
#include "tests/s7_bytes.h"

#include <QtTest>

namespace s7200::sim
{

inline const QByteArray ConnectRequest = fromHex("0300001611E00000000100C00109C1021000C2021100");
inline const QByteArray ConnectConfirm = fromHex("0300001611D00001000100C00109C1021000C2021100");
inline const QByteArray SetupRequest =
    fromHex("0300001902F08032010000010800080000F0000001000100F0");

constexpr const char* Read = "04"; // function codes
constexpr const char* Write = "05";

inline QByteArray tpkt(const QByteArray& tpdu)
{
    return fromHex("0300") + word16(4 + int(tpdu.size())) + tpdu;
}

/// A job with PDU reference 0x0007: transport size to start address and, for a write, data
/// transport size, data length and data.
inline QByteArray job(const char* function, const QByteArray& item, const QByteArray& data = {})
{
    const QByteArray written = data.isEmpty() ? data : fromHex("00" + data);
    return tpkt(fromHex("02F080320100000007000E") + word16(int(written.size())) +
                fromHex(function + QByteArray("01120A10") + item) + written);
}

/// Its reply: return code and, after a read, transport size, length and payload; the error class
/// and code alone for a job that is refused as a whole.
inline QByteArray reply(const char* function, const QByteArray& data)
{
    if (data.size() == 4)
        return tpkt(fromHex("02F08032020000000700000000" + data));
    return tpkt(fromHex("02F0803203000000070002") + word16(int(data.size()) / 2) +
                fromHex("0000" + QByteArray(function) + "01" + data));
}

/// A forwarding record with its length byte and checksum put right.
inline QByteArray record(int origin, int registerType, int address, int count,
                         const char* value = "")
{
    QByteArray bytes = fromHex("0007") + char(origin) + fromHex("0301") + word16(registerType) +
                       word16(address >> 16) + word16(address) + word16(count) +
                       QByteArray(8, '\0') + fromHex(value);
    bytes[0] = char(bytes.size() + 1);
    int sum = 0;
    for (char byte : qAsConst(bytes))
        sum += quint8(byte);
    return bytes + char(sum);
}

/// A reply as it goes out to a forwarding peer.
inline QByteArray remote(int reference, QByteArray bytes)
{
    return bytes.replace(11, 2, word16(reference)) + QByteArray(2, '\0');
}

/// Checks everything that a handler answers to a stream of bytes.
inline void expectTalk(RequestHandler& handler, const QByteArray& bytes, const QByteArray& expected)
{
    handler.append(bytes);
    QByteArray replies;
    while (const auto request = handler.takeRequest())
        replies += handler.reply(*request);
    QCOMPARE(toHex(bytes) + " -> " + toHex(replies), toHex(bytes) + " -> " + toHex(expected));
}

/// A handler behind its handshake, with memory of its own.
struct ConnectedHandler : ControllerMemory, S7RequestHandler {
    ConnectedHandler() : S7RequestHandler(this)
    {
        expectTalk(*this, ConnectRequest + SetupRequest, ConnectConfirm + ::setupReply());
    }
};

constexpr auto I = SimulatorArea::I, Q = SimulatorArea::Q, M = SimulatorArea::M,
               SM = SimulatorArea::SM, V = SimulatorArea::V, AIW = SimulatorArea::AIW,
               AQW = SimulatorArea::AQW, T = SimulatorArea::Timer, C = SimulatorArea::Counter;

} // namespace s7200::sim

#endif
