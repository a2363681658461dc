// Cutting the byte stream into frames, and the capture files of the trace.

#include "wire/frame_trace.h"
#include "wire/s7_fields.h"
#include "wire/tpkt_reassembler.h"

#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
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

/// Checks one raw packet and gives its TCP fields as text: both ends, sequence number, number
/// acknowledged, flags and how many bytes it carries.
QString readPacket(const QByteArray& ip)
{
    const bool ipv6 = quint8(ip.at(0)) >> 4 == 6;
    const QByteArray tcp = ip.mid(ipv6 ? 40 : 20);
    const int addressSize = ipv6 ? 16 : 4;
    const QByteArray addresses = ip.mid(ipv6 ? 8 : 12, 2 * addressSize);
    const QByteArray length = QByteArray::number(tcp.size(), 16).rightJustified(4, '0');
    const bool goodHeader = ipv6 ? number(ip, 4, 2) == uint(tcp.size()) && ip.at(6) == 6
                                 : number(ip, 2, 2) == uint(ip.size()) && ip.at(9) == 6 &&
                                       onesComplementSum(ip.left(20)) == 0xFFFF;
    if (!goodHeader || onesComplementSum(addresses + hex("0006" + length) + tcp) != 0xFFFF)
        return "bad packet";
    const auto address = [&](int index) {
        const QByteArray bytes = addresses.mid(index * addressSize, addressSize);
        return (ipv6 ? QHostAddress(reinterpret_cast<const quint8*>(bytes.constData()))
                     : QHostAddress(number(bytes, 0, 4)))
            .toString();
    };
    return QString("%1:%2>%3:%4 %5 %6 %7 %8")
        .arg(address(0))
        .arg(number(tcp, 0, 2))
        .arg(address(1))
        .arg(number(tcp, 2, 2))
        .arg(number(tcp, 4, 4))
        .arg(number(tcp, 8, 4))
        .arg(number(tcp, 12, 2) & 0xFFF, 3, 16, QChar('0'))
        .arg(tcp.size() - 20);
}

/// Of a whole capture file; as far as it is sound.
QStringList packetsOf(const QByteArray& file)
{
    const auto word = [&file](int offset) { // as this machine writes it
        return qFromUnaligned<quint32>(file.constData() + offset);
    };
    const auto halfWord = [&file](int offset) {
        return qFromUnaligned<quint16>(file.constData() + offset);
    };
    if (file.size() < 24 || word(0) != 0xA1B2C3D4U || halfWord(4) != 2 || halfWord(6) != 4 ||
        word(20) != 101U)
        return {"no capture of raw IP"};
    QStringList packets;
    for (int offset = 24, length = 0; offset < file.size(); offset += 16 + length) {
        length = int(word(offset + 8));
        if (word(offset + 4) >= 1000000U || word(offset + 12) != quint32(length) || length < 40 ||
            offset + 16 + length > file.size())
            return packets << "a record that is none";
        packets += readPacket(file.mid(offset + 16, length));
    }
    return packets;
}

} // namespace

class WireTest : public QObject
{
    Q_OBJECT

private slots:
    // HOLDS(21)
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
            {hex("04"), 0, {}, Broken}, {hex("02"), 0, {}, Broken}, {hex("03000006"), 0, {}, Broken},
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

    // HOLDS(20)
    void unreadInputIsBounded()
    {
        TpktReassembler reassembler;
        const int most = TpktReassembler::MaxBufferedBytes;
        reassembler.append(Shortest.repeated(most / 7) + Nine.left(most % 7));
        QVERIFY(!reassembler.isBroken());
        reassembler.append("x");
        QVERIFY(reassembler.isBroken() && takeAll(reassembler).isEmpty());
        reassembler.clear();
        QVERIFY(!reassembler.isBroken());
        reassembler.append(Shortest);
        QCOMPARE(takeAll(reassembler), Frames{Shortest});
    }

    void floodCostsNoMoreAFrame()
    {
        // 200 kB of the shortest frames, in parts, while a backlog of a half and of none waits.
        const QByteArray flood = Shortest.repeated(30000);
        for (int backlog : {0, int(flood.size()) / 2}) {
            ByteQueue queue;
            QByteArray taken;
            for (int at = 0; at < flood.size(); at += 1000) {
                queue.append(flood.mid(at, 1000));
                while (queue.size() > backlog)
                    taken += queue.take(7);
            }
            taken += queue.take(backlog + 1000);
            QVERIFY(taken == flood && queue.isEmpty() && queue.at(0) == 0);
            QVERIFY2(queue.movedBytes() <= flood.size(), qPrintable(QString::number(backlog)));
        }
        TpktReassembler reassembler;
        reassembler.append(flood);
        QCOMPARE(takeAll(reassembler).size(), 30000);
    }

    void fields()
    {
        // The third is one on a remote link.
        for (const char* empty : {"0300000702F000", "0300000702F080", "0300000702F0000000"})
            QVERIFY2(isEmptyDataTpdu(hex(empty)), empty);
        for (const char* other : {"0300000702F0", "0300000702D000", "0300000902F0803203"})
            QVERIFY2(!isEmptyDataTpdu(hex(other)), other);
        QCOMPARE(parseTsap("10.0A"), std::optional<quint16>(0x100A));
        QCOMPARE(parseTsap("4d57"), std::optional<quint16>(0x4D57));
        for (const char* wrong : {"", "10", "10.0", "100.0", "+100", "10.00 ", "1 00", "10-00"})
            QVERIFY2(!parseTsap(wrong), wrong);
        QCOMPARE(tsapText(0x100A), QString("10.0A"));
        const QByteArray parameters = hex("C00109C1021000C2021100");
        QCOMPARE(tsapParameter(parameters, CalledTsap), std::optional<quint16>(0x1100));
        QVERIFY(!tsapParameter(parameters.left(10), CalledTsap) &&
                !tsapParameter("\xC2", CalledTsap));
        QVERIFY(tpduType(hex("0300000B06D5")) == Tpdu::ConnectionConfirm &&
                !tpduType(Nine.left(5)));
        QCOMPARE(describe(ItemCode(0x42)) + describe(JobError(0x8301)),
                 QString("return code 0x42error class 0x83, code 0x01"));
    }

    void captureFile()
    {
        const QTemporaryDir folder;
        const QString name = folder.filePath("trace.pcap");
        QString error;
        const auto trace = FrameTrace::open(name, FrameTrace::KeepExisting, &error);
        QVERIFY2(trace, qPrintable(error));
        const TcpEnd panel{QHostAddress("10.0.0.7"), 40000};
        QCOMPARE(trace->newConnection(panel, {QHostAddress("::ffff:10.0.0.9"), 1102}), 0);
        const QByteArray reply(2901, 'r'); // three segments
        trace->record(0, FrameTrace::ToController, Shortest);
        trace->record(0, FrameTrace::FromController, reply);
        trace->record(0, FrameTrace::ToController, Shortest);
        trace->failedConnection({QHostAddress("fe80::9"), 102});
        QCOMPARE(trace->newConnection(), 2);
        trace->closeConnection(0, FrameTrace::FromController);
        for (int connection : {2, 3, 0, -1}) // the last three are not open
            trace->record(connection, FrameTrace::ToController, Shortest);

        // Read while the trace is open: a killed program leaves just this.
        QFile file(name);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        // clang-format off
        const QStringList expected = {
            "10.0.0.7:40000>10.0.0.9:1102 0 0 002 0", "10.0.0.9:1102>10.0.0.7:40000 0 1 012 0",
            "10.0.0.7:40000>10.0.0.9:1102 1 1 010 0", "10.0.0.7:40000>10.0.0.9:1102 1 1 018 7",
            "10.0.0.9:1102>10.0.0.7:40000 1 8 018 1440",
            "10.0.0.9:1102>10.0.0.7:40000 1441 8 018 1440",
            "10.0.0.9:1102>10.0.0.7:40000 2881 8 018 21",
            "10.0.0.7:40000>10.0.0.9:1102 8 2902 018 7",
            "2001:db8::1:49153>fe80::9:102 0 0 002 0", "fe80::9:102>2001:db8::1:49153 0 1 014 0",
            "192.0.2.1:49154>192.0.2.2:102 0 0 002 0", "192.0.2.2:102>192.0.2.1:49154 0 1 012 0",
            "192.0.2.1:49154>192.0.2.2:102 1 1 010 0",
            "10.0.0.9:1102>10.0.0.7:40000 2902 15 011 0",
            "10.0.0.7:40000>10.0.0.9:1102 15 2903 011 0",
            "10.0.0.9:1102>10.0.0.7:40000 2903 16 010 0",
            "192.0.2.1:49154>192.0.2.2:102 1 1 018 7"};
        // clang-format on
        QCOMPARE(packetsOf(bytes), expected);

        // A second run does not overwrite the first one's trace unless told to.
        QVERIFY(!FrameTrace::open(name, FrameTrace::KeepExisting, &error));
        QVERIFY2(error.contains(name) && error.contains("--force"), qPrintable(error));
        QCOMPARE(file.size(), qint64(bytes.size()));
        QVERIFY(FrameTrace::open(name, FrameTrace::ReplaceExisting, &error));
        QCOMPARE(file.size(), 24);
    }

    void traceThatCannotBeWritten()
    {
        const QTemporaryDir folder;
        QString error;
        QVERIFY(!FrameTrace::open(folder.filePath("missing/trace.pcap"), FrameTrace::KeepExisting,
                                  &error));
        QVERIFY(error.contains("missing/trace.pcap"));
        QVERIFY(FrameTrace::open("/dev/full", FrameTrace::KeepExisting, &error)
                    ->error()
                    .contains("/dev/full"));

        // A file that may not grow any further stands for a full disk.
        const QString name = folder.filePath("trace.pcap");
        const auto trace = FrameTrace::open(name, FrameTrace::KeepExisting, &error);
        QVERIFY2(trace, qPrintable(error));
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit before = {};
        ::getrlimit(RLIMIT_FSIZE, &before);
        const rlimit small{24 + 3 * 56 + 63 + 10, before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &small);
        trace->newConnection();
        trace->record(0, FrameTrace::ToController, Shortest);
        const QString errorBefore = trace->error();
        trace->record(0, FrameTrace::ToController, Shortest);
        ::setrlimit(RLIMIT_FSIZE, &before);
        trace->record(0, FrameTrace::ToController, Shortest);
        QCOMPARE(errorBefore, QString());
        QVERIFY2(trace->error().contains(name), qPrintable(trace->error()));
        QCOMPARE(QFileInfo(name).size(), 24 + 3 * 56 + 63);
    }
};

QTEST_APPLESS_MAIN(WireTest)
#include "wire_test.moc"
