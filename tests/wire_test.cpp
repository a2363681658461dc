// Cutting the byte stream into frames, and the capture files of the trace.

#include "wire/frame_trace.h"
#include "wire/s7_fields.h"
#include "wire/tpkt_reassembler.h"

#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <tuple>

using namespace s7200::wire;

namespace
{

QByteArray hex(const QByteArray& digits)
{
    return QByteArray::fromHex(digits);
}

const QByteArray Shortest = hex("0300000702F080");
const QByteArray Nine = hex("0300000902F0803203");
using Frames = QList<QByteArray>;

Frames takeAll(TpktReassembler& reassembler)
{
    Frames frames;
    while (const auto frame = reassembler.takeFrame())
        frames.append(*frame);
    return frames;
}

uint number(const QByteArray& bytes, int offset, int size)
{
    return bytes.mid(offset, size).toHex().toUInt(nullptr, 16);
}

/// The one's complement sum of big-endian words; 0xFFFF over anything with a right checksum.
uint onesComplementSum(const QByteArray& bytes)
{
    uint sum = 0;
    for (int i = 0; i < bytes.size(); i += 2) {
        sum += number(bytes + '\0', i, 2);
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return sum;
}

/// Checks one raw IPv4 packet and gives its TCP fields as text: ports, sequence number, number
/// acknowledged, flags and how many bytes it carries.
QString readPacket(const QByteArray& ip)
{
    const QByteArray tcp = ip.mid(20);
    const QByteArray length = QByteArray::number(tcp.size(), 16).rightJustified(4, '0');
    const QByteArray pseudoHeader = ip.mid(12, 8) + hex("0006" + length);
    // Ports and addresses must swap together.
    const bool fromController = number(tcp, 0, 2) == 102;
    const bool good = quint8(ip.at(0)) == 0x45 && number(ip, 2, 2) == uint(ip.size()) &&
                      onesComplementSum(ip.left(20)) == 0xFFFF &&
                      onesComplementSum(pseudoHeader + tcp) == 0xFFFF &&
                      number(ip, fromController ? 12 : 16, 4) == 0xC0000202;
    return (good ? QString("%1>%2 %3 %4 %5 %6") : QString("bad packet"))
        .arg(number(tcp, 0, 2))
        .arg(number(tcp, 2, 2))
        .arg(number(tcp, 4, 4))
        .arg(number(tcp, 8, 4))
        .arg(number(tcp, 12, 2) & 0xFFF, 3, 16, QChar('0'))
        .arg(tcp.size() - 20);
}

} // namespace

class WireTest : public QObject
{
    Q_OBJECT

private slots:
    void reassembly()
    {
        QByteArray longest(65535, '\x03');
        longest.replace(0, 4, hex("0300FFFF"));
        enum End { Whole, MidFrame, Broken };
        // Stream, trailing bytes, which belong to each frame, and what comes of it. Frames after a
        // break are not looked for.
        // clang-format off
        const std::tuple<QByteArray, int, Frames, End> rows[] = {
            {"", 0, {}, Whole}, {Nine, 0, {Nine}, Whole},
            {Shortest + Nine, 0, {Shortest, Nine}, Whole},
            {Nine + Nine.left(8), 0, {Nine}, MidFrame},
            {Nine + "ab" + Shortest + "cd", 2, {Nine + "ab", Shortest + "cd"}, Whole},
            {Nine + "a", 2, {}, MidFrame}, {longest, 0, {longest}, Whole},
            {hex("04"), 0, {}, Broken}, {hex("03000006"), 0, {}, Broken},
            {Nine + hex("00") + Nine, 0, {Nine}, Broken}};
        // clang-format on
        for (const auto& [stream, trailing, frames, end] : rows) {
            const int size = int(stream.size());
            // In parts of every length, from single bytes to all at once.
            for (int part = 1; part <= size + 1; part += size < 100 ? 1 : 4999) {
                TpktReassembler reassembler(trailing);
                Frames taken;
                for (int at = 0; at < size; at += part) {
                    reassembler.append(stream.mid(at, part));
                    taken += takeAll(reassembler);
                }
                QCOMPARE(taken, frames);
                QCOMPARE(reassembler.isBroken(), end == Broken);
                QCOMPARE(reassembler.isMidFrame(), end == MidFrame);
            }
        }
    }

    void unreadInputIsBounded()
    {
        TpktReassembler reassembler;
        const int most = TpktReassembler::MaxBufferedBytes;
        reassembler.append(Shortest.repeated(most / 7) + Nine.left(most % 7));
        QVERIFY(!reassembler.isBroken());
        reassembler.append("x");
        QVERIFY(reassembler.isBroken());
        QVERIFY(takeAll(reassembler).isEmpty());
        reassembler.clear();
        QVERIFY(!reassembler.isBroken());
        reassembler.append(Shortest);
        QCOMPARE(takeAll(reassembler), Frames{Shortest});
    }

    void emptyDataTpdu()
    {
        // The third is one on a remote link.
        for (const char* empty : {"0300000702F000", "0300000702F080", "0300000702F0000000"})
            QVERIFY2(isEmptyDataTpdu(hex(empty)), empty);
        for (const char* other : {"0300000702F0", "0300000702D000", "0300000902F0803203"})
            QVERIFY2(!isEmptyDataTpdu(hex(other)), other);
    }

    void captureFile()
    {
        const QTemporaryDir folder;
        QString error;
        const auto trace = FrameTrace::open(folder.filePath("trace.pcap"), &error);
        QVERIFY2(trace, qPrintable(error));
        QCOMPARE(trace->newConnection(), 0);
        const QByteArray reply(3001, 'r'); // three segments
        trace->record(0, FrameTrace::ToController, Shortest);
        trace->record(0, FrameTrace::FromController, reply);
        trace->record(0, FrameTrace::ToController, Shortest);
        QCOMPARE(trace->newConnection(), 1);
        for (int connection : {1, 2, -1}) // the last two do not exist
            trace->record(connection, FrameTrace::ToController, Shortest);

        // Read while the trace is open: a killed program leaves just this.
        QFile file(folder.filePath("trace.pcap"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        const auto word = [&bytes](int offset) { // as this machine writes it
            return qFromUnaligned<quint32>(bytes.constData() + offset);
        };
        QVERIFY(bytes.size() >= 24);
        QCOMPARE(word(0), 0xA1B2C3D4U);
        QCOMPARE(word(4), 0x00040002U);
        QCOMPARE(word(20), 101U);
        QStringList packets;
        QByteArray carried;
        for (int offset = 24, length = 0; offset < bytes.size(); offset += 16 + length) {
            length = int(word(offset + 8));
            QVERIFY(word(offset + 4) < 1000000U && word(offset + 12) == quint32(length));
            QVERIFY(length >= 40 && offset + 16 + length <= bytes.size());
            packets += readPacket(bytes.mid(offset + 16, length));
            carried += bytes.mid(offset + 16 + 40, length - 40);
        }
        const QStringList expected = {
            "49152>102 0 0 002 0",     "102>49152 0 1 012 0",    "49152>102 1 1 010 0",
            "49152>102 1 1 018 7",     "102>49152 1 8 018 1460", "102>49152 1461 8 018 1460",
            "102>49152 2921 8 018 81", "49152>102 8 3002 018 7", "49153>102 0 0 002 0",
            "102>49153 0 1 012 0",     "49153>102 1 1 010 0",    "49153>102 1 1 018 7"};
        QCOMPARE(packets, expected);
        QCOMPARE(carried, Shortest + reply + Shortest + Shortest);
    }

    void traceThatCannotBeOpened()
    {
        const QTemporaryDir folder;
        QString error;
        QVERIFY(!FrameTrace::open(folder.filePath("missing/trace.pcap"), &error));
        QVERIFY(error.contains("missing/trace.pcap"));
    }
};

QTEST_APPLESS_MAIN(WireTest)
#include "wire_test.moc"
