// The simulated controller: replies byte for byte without a socket, then its server, its faults
// and its program over loopback.

#include "simulator/fault_injector.h"
#include "simulator/remote_request_handler.h"
#include "simulator/s7_request_handler.h"
#include "simulator/simulator_thread.h"

#include <QProcess>
#include <QTcpSocket>
#include <QtTest>

#include <tuple>
#include <vector>

using namespace s7200::sim;

namespace
{

constexpr int GuardTime = 20000; // ms; only a failing test ever waits so long

QByteArray hex(const QByteArray& digits)
{
    return QByteArray::fromHex(digits);
}

QByteArray hexWord(int word)
{
    return QByteArray::number(word & 0xFFFF, 16).rightJustified(4, '0');
}

const QByteArray ConnectRequest = hex("0300001611E00000000100C00109C1021000C2021100");
const QByteArray ConnectConfirm = hex("0300001611D00001000100C00109C1021000C2021100");
const QByteArray SetupRequest = hex("0300001902F08032010000010800080000F0000001000100F0");
const QByteArray SetupReply = hex("0300001B02F080320300000108000800000000F0000001000100F0");

const char* const Read = "04"; // function codes
const char* const Write = "05";

/// A job with PDU reference 0x0007: transport size to start address and, for a write, data
/// transport size, data length and data, all in hex.
QByteArray job(const char* function, const QByteArray& item, const QByteArray& data = "")
{
    const int length = data.isEmpty() ? 0 : 1 + int(data.size()) / 2;
    return hex("0300" + hexWord(31 + length) + "02F080320100000007000E" + hexWord(length) +
               function + "01120A10" + item + (data.isEmpty() ? "" : "00") + data);
}

/// Its reply: return code and, after a read, transport size, length and payload; the error class
/// and code alone for a job that is refused as a whole.
QByteArray reply(const char* function, const QByteArray& data)
{
    if (data.size() == 4)
        return hex("0300001302F08032020000000700000000" + data);
    const int length = int(data.size()) / 2;
    return hex("0300" + hexWord(21 + length) + "02F0803203000000070002" + hexWord(length) + "0000" +
               function + "01" + data);
}

/// The byte M0, and what a fresh controller answers.
const QByteArray ReadM0 = job(Read, "020001000083000000");
const QByteArray ReplyM0 = reply(Read, "FF04000800");
/// The word VW100 as bytes, and its reply where it holds 0x1234.
const QByteArray ReadV100 = job(Read, "020002000184000320");
const QByteArray ReplyV100 = reply(Read, "FF0400101234");
const QByteArray WriteV100 = job(Write, "040001000184000320", "0400101234");

/// A forwarding record with its length byte and checksum put right.
QByteArray record(int origin, int registerType, int address, int count,
                  const QByteArray& value = QByteArray())
{
    QByteArray bytes = hex("0007" + QByteArray::number(origin).rightJustified(2, '0') + "0301" +
                           hexWord(registerType) + hexWord(address >> 16) + hexWord(address) +
                           hexWord(count) + "0000000000000000" + value);
    bytes[0] = char(bytes.size() + 1);
    int sum = 0;
    for (char byte : qAsConst(bytes))
        sum += quint8(byte);
    return bytes + char(sum);
}

/// A reply as it goes out to a forwarding peer.
QByteArray remote(int reference, QByteArray bytes)
{
    return bytes.replace(11, 2, hex(hexWord(reference))) + hex("0000");
}

/// Checks everything that a handler answers to a stream of bytes.
void expectTalk(RequestHandler& handler, const QByteArray& bytes, const QByteArray& expected)
{
    handler.append(bytes);
    QByteArray replies;
    while (const auto request = handler.takeRequest())
        replies += handler.reply(*request);
    QCOMPARE(bytes.toHex() + " -> " + replies.toHex(), bytes.toHex() + " -> " + expected.toHex());
}

/// A handler behind its handshake, with memory of its own.
struct ConnectedHandler : ControllerMemory, S7RequestHandler {
    ConnectedHandler() : S7RequestHandler(this)
    {
        expectTalk(*this, ConnectRequest + SetupRequest, ConnectConfirm + SetupReply);
    }
};

/// A client on loopback that blocks until what it waits for is there.
class Client : public QTcpSocket
{
public:
    explicit Client(const SimulatorThread& simulator) : Client(simulator.port()) {}
    explicit Client(quint16 port)
    {
        connectToHost(QStringLiteral("127.0.0.1"), port);
        waitForConnected(GuardTime);
    }
    void send(const QByteArray& bytes)
    {
        write(bytes);
        flush();
    }
    /// All that comes until `end` or the end of the connection.
    QByteArray receive(const QByteArray& end = "until closed")
    {
        QByteArray received = readAll();
        while (!received.endsWith(end) && state() != UnconnectedState &&
               waitForReadyRead(GuardTime))
            received += readAll();
        return received + readAll();
    }
    /// Whether just this reply comes to a request.
    bool gets(const QByteArray& request, const QByteArray& answer)
    {
        send(request);
        return receive(answer) == answer;
    }
    bool handshake()
    {
        return gets(ConnectRequest, ConnectConfirm) && gets(SetupRequest, SetupReply);
    }
    bool isClosedUnanswered()
    {
        return receive().isEmpty() && state() == UnconnectedState;
    }
};

SimulatorOptions frozen(const QStringList& faults = QStringList())
{
    SimulatorOptions options;
    options.liveValues = false;
    options.faults = faults;
    return options;
}

/// A simulator that listens already.
struct RunningSimulator : SimulatorThread {
    explicit RunningSimulator(const SimulatorOptions& options) : SimulatorThread(options)
    {
        QString error;
        QVERIFY2(start(&error), qPrintable(error));
    }
};

using Counts = QMap<QString, quint64>;
constexpr auto I = SimulatorArea::I, Q = SimulatorArea::Q, M = SimulatorArea::M,
               SM = SimulatorArea::SM, V = SimulatorArea::V, AIW = SimulatorArea::AIW,
               AQW = SimulatorArea::AQW, T = SimulatorArea::Timer, C = SimulatorArea::Counter;

} // namespace

class SimulatorTest : public QObject
{
    Q_OBJECT

private slots:
    void s7Reads()
    {
        // clang-format off
        const std::tuple<const char*, QByteArray> rows[] = {
            {"020002000081000008", "FF0400101112"}, {"020002000082000008", "FF0400102122"},
            {"020002000083000008", "FF0400103132"}, {"020002000004000008", "FF0400104142"},
            {"020002000005000008", "FF0400105152"}, {"020002000184000008", "FF0400106162"},
            {"040001000006000008", "FF0400107172"}, {"020002000006000008", "FF0400107172"},
            {"040001000007000008", "FF0400108182"}, {"060001000184000008", "FF04002061620000"},
            {"1F000200001F000001", "FF09000A02000091920000000000"}, // timers
            {"1E000100001E000001", "FF09000310A1A2"}, // counter
            {"010001000083000009", "FF03000100"}, {"010001000083000008", "FF03000101"}, // bits
            {"0200DE00018400FA00", "FF0406F0" + QByteArray(444, '0')}, // most that fits, and more
            {"0200DF00018400FA00", "8500"},
            {"020001000184014000", "05000000"}, {"020002000184013FF8", "05000000"}, // end of V
            {"1F000200001F0000FF", "05000000"}, {"020000000184000000", "05000000"}, // T256, nothing
            {"020001000184000009", "05000000"}, // bytes from a bit address
            {"020001000284000000", "0A000000"}, {"020001000080000000", "0A000000"}, // no such
            {"020001000085000000", "0A000000"}, // area for writes only
            {"0A0001000184000000", "06000000"}, {"02000100001F000000", "06000000"}, // wrong size
            {"010002000083000000", "06000000"}}; // two bits
        // clang-format on
        ConnectedHandler handler;
        for (int area = 0; area <= int(AQW); ++area)
            handler.write(SimulatorArea(area), 1, hex(hexWord(0x1112 + area * 0x1010)));
        handler.write(T, 5, hex("0200009192"));
        handler.write(C, 3, hex("10A1A2"));
        for (const auto& [item, data] : rows)
            expectTalk(handler, job(Read, item), reply(Read, data));
        // Function, number of items, syntax, ROSCTR and parameter length.
        for (const auto& [offset, byte] :
             {std::pair(17, 0x1A), {18, 2}, {21, 0xB2}, {8, 7}, {14, 0x0F}})
            expectTalk(handler, QByteArray(ReadM0).replace(offset, 1, QByteArray(1, char(byte))),
                       reply(Read, "8104"));
        expectTalk(handler, hex("0300001102F08032010000000700000000"), reply(Read, "8104"));
        expectTalk(handler, hex("0300000702F000"), QByteArray());
        QVERIFY(!handler.isBroken());
    }

    void s7Writes()
    {
        // Item, data, return code, and the memory from the byte before; EE: untouched.
        // clang-format off
        using Text = const char*;
        const std::tuple<Text, Text, Text, SimulatorArea, int, QByteArray> rows[] = {
            {"040001000082000320", "0400101234", "FF", Q, 99, "ee1234ee"},
            {"020003000184000320", "040018010203", "FF", V, 99, "ee010203ee"},
            {"020002000184000320", "0900020102", "FF", V, 99, "ee0102ee"}, // length in bytes
            {"010001000083000053", "03000100", "FF", M, 10, "e6ee"},
            {"010001000083000050", "03000101", "FF", M, 10, "efee"},
            {"040001000007000010", "0400101234", "FF", AQW, 1, "ee1234ee"},
            // Double words of SM come under an area code of their own.
            {"040002000085000140", "04002001020304", "FF", SM, 39, "ee01020304ee"},
            {"040001000184000038", "0400105500", "FF", V, 6, "ee5500ee"},
            // Timers and counters keep their status.
            {"1F000200001F000005", "04005002000001020000000304", "FF",
             T, 25, "eeeeee0102eeeeee0304ee"},
            {"1E000100001E000003", "040018020102", "FF", C, 9, "ee0102ee"},
            // Inputs, and special memory of the system up to SM29.
            {"040001000081000008", "0400101234", "03", I, 1, "eeee"},
            {"040001000006000010", "0400101234", "03", AIW, 2, "eeee"},
            {"0400010000050000E8", "0400101234", "03", SM, 29, "eeee"},
            {"0400010000050000F0", "0400101234", "FF", SM, 29, "ee1234"},
            {"040001000184013FF8", "0400101234", "05", V, 10239, "ee"},
            {"1F000100001F000100", "0400280000000102", "05", T, 1275, "eeeeeeeeee"},
            // Data too short, their length a lie, a bit sent as a byte.
            {"040002000184000000", "0400101234", "07", V, 0, "eeee"},
            {"040001000184000000", "0400181234", "07", V, 0, "eeee"},
            {"010001000083000050", "04000801", "07", M, 10, "ee"},
            {"000000000083000050", "040000", "06", M, 10, "ee"},
            {"040001000084000000", "0400101234", "0A", V, 0, "eeee"}};
        // clang-format on
        for (const auto& [item, data, code, area, offset, after] : rows) {
            ConnectedHandler handler;
            handler.write(area, 0, QByteArray(ControllerMemory::size(area), '\xEE'));
            expectTalk(handler, job(Write, item, data), reply(Write, code));
            QCOMPARE(item + (' ' + handler.read(area, offset, int(after.size()) / 2).toHex()),
                     item + (' ' + after));
        }
    }

    void grantedPduIsKept()
    {
        ControllerMemory memory;
        S7RequestHandler handler(&memory);
        expectTalk(handler, ConnectRequest, ConnectConfirm);
        expectTalk(handler, ReadM0, reply(Read, "8104")); // no setup yet
        QByteArray large = SetupRequest, small = SetupRequest, granted = SetupReply;
        expectTalk(handler, large.replace(23, 2, hex("03C0")), SetupReply);
        expectTalk(handler, small.replace(23, 2, hex("0040")), granted.replace(25, 2, hex("0040")));
        expectTalk(handler, job(Read, "02002E000184000000"),
                   reply(Read, "FF040170" + QByteArray(92, '0')));
        expectTalk(handler, job(Read, "02002F000184000000"), reply(Read, "8500"));
        expectTalk(handler, job(Write, "020025000184000000", "040128" + QByteArray(74, '0')),
                   reply(Write, "8500"));
        QVERIFY(!handler.isBroken());
    }

    void brokenConversations()
    {
        // What breaks a conversation, and whether a connection stands before.
        // clang-format off
        const std::tuple<QByteArray, bool> rows[] = {
            {SetupRequest, false}, {ReadM0, false}, {"GET / HTTP/1.0\r\n\r\n", false},
            {hex("0300001612E00000000100C00109C1021000C2021100"), false}, // length indicator lies
            {hex("0300000B06E00000000120"), false}, // class 2
            {hex("0300000702E000"), false}, {ConnectRequest, true}, // cut short, once more
            {hex("0300000B06800000000100"), true}, // disconnect request
            {QByteArray(ReadM0).replace(7, 1, "\x72"), true}, // another protocol
            {QByteArray(ReadM0).replace(6, 1, QByteArray(1, '\0')), true}, // fragment
            {hex("0300000C02F0803201000000"), true}}; // S7 header cut short
        // clang-format on
        for (const auto& [bytes, connected] : rows) {
            ControllerMemory memory;
            S7RequestHandler handler(&memory);
            if (connected)
                expectTalk(handler, ConnectRequest, ConnectConfirm);
            expectTalk(handler, bytes, QByteArray());
            QVERIFY2(handler.isBroken(), bytes.toHex().constData());
            expectTalk(handler, ConnectRequest, QByteArray());
        }
    }

    void blockOfBitsIsLongerThanItSays()
    {
        ConnectedHandler handler;
        // Eight bits as one byte whose data length counts bytes, and seven bytes behind the TPKT.
        const QByteArray request =
            job(Write, "020001000083000050", "04000101") + hex("00010001000100");
        expectTalk(handler, request, reply(Write, "FF"));
        QCOMPARE(handler.read(M, 10, 2), hex("0100"));
        QVERIFY(handler.isBroken());
    }

    void remoteRecords()
    {
        // Origin, type, address, count, item of the reply or value, and what is where then.
        // clang-format off
        using Row = std::tuple<int, int, int, int, QByteArray, SimulatorArea, int, const char*>;
        const Row rows[] = {
            {0, 2, 83, 2, "040010AABB", M, 10, "AABB"}, // bits: whole bytes
            {0, 12, 100, 2, "040020AABBCCDD", V, 100, "AABBCCDD"}, // words: doubled
            {0, 5, 100, 1, "040010AABB", V, 100, "AABB"}, // V bits by byte address
            {0, 11, 10239, 2, "040020AA000000", V, 10239, "AA"}, // past the end: zeros
            {0, 14, 1, 2, "09000A0200009192AABBCCDDEE", T, 5, "0200009192AABBCCDDEE"},
            {0, 19, 1, 1, "09000310A1A2", C, 3, "10A1A2"},
            {1, 2, 83, 3, "010002", M, 10, "0800"}, {1, 5, 801, 1, "01", V, 100, "0200"},
            {1, 12, 100, 1, "3412", V, 100, "123400"}, {1, 11, 7, 2, "11002200", V, 7, "112200"},
            {1, 13, 4, 2, "04030201", V, 4, "0102030400"},
            {1, 22, 4, 1, "04030201", M, 4, "010200"}, // half a double word
            {1, 14, 37, 1, "2C01", T, 185, "000000012C00"},
            {1, 15, 3, 1, "2C01", C, 9, "00012C00"}};
        // clang-format on
        for (const auto& [origin, type, address, count, data, area, offset, text] : rows) {
            const QByteArray stored = hex(text);
            ControllerMemory memory;
            if (origin == 0)
                memory.write(area, offset, stored);
            RemoteRequestHandler handler(&memory);
            const QByteArray request =
                record(origin, type, address, count, origin ? data : QByteArray());
            // In two parts, as a stream may bring it.
            expectTalk(handler, request.left(9), QByteArray());
            expectTalk(handler, request.mid(9),
                       remote(0, origin ? reply(Write, "FF") : reply(Read, "FF" + data)));
            QCOMPARE(memory.read(area, offset, int(stored.size())).toHex(), stored.toHex());
        }
    }

    void remoteReferences()
    {
        ControllerMemory memory;
        RemoteRequestHandler handler(&memory);
        const QByteArray read = record(0, 12, 100, 1);
        for (int i = 0; i <= 0xFFFF; ++i)
            QCOMPARE(handler.reply(read).mid(11, 2), hex(hexWord(i)));
        QCOMPARE(handler.reply(read).mid(11, 2), hex("0001")); // 0 is for the first reply only
        QCOMPARE(handler.reply(record(1, 12, 100, 1, "0000")).mid(11, 2), hex("0002"));
        handler.replySpoiled();
        QCOMPARE(handler.reply(read).mid(11, 2), hex("0002"));
    }

    void remoteRefusals()
    {
        ControllerMemory memory;
        RemoteRequestHandler handler(&memory);
        const QByteArray good = record(0, 12, 100, 1);
        QByteArray wrongSum = good;
        wrongSum[21] = char(wrongSum.at(21) + 1);
        // 234 value bytes wrap the length byte to 0; everything received is dropped.
        for (const QByteArray& bad :
             {wrongSum, QByteArray(good).replace(0, 1, "\x15"), record(0, 25, 100, 1),
              record(1, 12, 100, 117, QByteArray(468, '0'))})
            expectTalk(handler, bad, remote(0, reply(Read, "8104")));
        // And none of these counted.
        expectTalk(handler, good, remote(0, reply(Read, "FF0400100000")));

        // Items that cannot be served; only writes count.
        for (const QByteArray& read : {record(0, 12, 10240, 1), record(0, 12, -2, 1),
                                       record(0, 14, 0, 0), record(0, 14, 0x7FFFFFFF, 65535)})
            expectTalk(handler, read, remote(1, reply(Read, "05000000")));
        const std::tuple<QByteArray, const char*> writes[] = {
            {record(1, 6, 0, 1, "0000"), "03"},       {record(1, 18, 37, 1, "01"), "03"},
            {record(1, 10, 28, 2, "00000000"), "03"}, {record(1, 12, 10239, 1, "0000"), "05"},
            {record(1, 14, 256, 1, "0000"), "05"},    {record(1, 12, -1, 1, "0000"), "05"},
            {record(1, 12, 0, 2, "0000"), "07"},      {record(1, 5, 81919, 2, "0101"), "05"}};
        int reference = 0;
        for (const auto& [write, code] : writes)
            expectTalk(handler, write, remote(++reference, reply(Write, code)));
    }

    void liveValues()
    {
        ControllerMemory memory;
        using Places = std::vector<std::tuple<SimulatorArea, int, QByteArray>>;
        const auto expectAfter = [&memory](int ticks, const Places& places) {
            for (int i = 0; i < ticks; ++i)
                memory.tick();
            for (const auto& [area, offset, bytes] : places)
                QCOMPARE(memory.read(area, offset, int(bytes.size()) / 2).toHex(), bytes);
        };
        // 5, 50 and 20.5; later the ramp falls, the timer has run out and the counter bit is on.
        expectAfter(5, {{V, 0, "0005003241a40000"},
                        {AIW, 0, "0640"},
                        {Q, 0, "01"},
                        {SM, 0, "21"},
                        {T, 185, "0000000005"}});
        expectAfter(96, {{V, 2, "03de"}, {T, 185, "0000000000"}, {C, 15, "10000a"}});
        // What is written stands still, and only that.
        memory.writeBit(Q, 0, 1, true);
        memory.write(V, 1, hex("00"));
        memory.writeValue(T, 37, 1000);
        expectAfter(4, {{V, 0, "000003b6"}, {Q, 0, "03"}, {T, 188, "03e8"}});
    }

    void descriptions()
    {
        ConnectedHandler handler;
        QCOMPARE(handler.description(), QString("setup communication, PDU length 240 -> 240"));
        const std::tuple<QByteArray, const char*> rows[] = {
            {job(Read, "020004000184000320"), "read VB100 x 4 -> ok"},
            {job(Read, "1F000100001F000025"), "read T37 -> ok"},
            {job(Write, "040001000081000008", "0400101234"),
             "write IW1 = 0x1234 refused: access denied"},
            {job(Write, "010001000083000053", "03000101"), "write M10.3 = 0x01 -> ok"}};
        for (const auto& [request, line] : rows) {
            handler.reply(request);
            QCOMPARE(handler.description(), QString(line));
        }
        RemoteRequestHandler peer(&handler);
        peer.reply(record(1, 8, 20, 1, "3412"));
        QCOMPARE(peer.description(), QString("write MW20 = 0x1234 -> ok"));
    }

    void faultTexts()
    {
        const auto expectTaken = [](const QString& text, const QString& complaint) {
            QString error;
            FaultInjector injector(1);
            QCOMPARE(injector.setFaults({"lost", text}, &error), complaint.isEmpty());
            QVERIFY2(error.contains(complaint), qPrintable(text + ": " + error));
            // A wrong text leaves the faults as they were: none.
            QCOMPARE(injector.choose(FaultMoment::Job),
                     complaint.isEmpty() ? FaultKind::Lost : FaultKind::None);
        };
        for (const QString& line : FaultInjector::descriptions())
            expectTaken(line.section(' ', 0, 0), QString());
        for (const char* text : {"lost:0", "lost:1", "late:0.25", "split:every 1",
                                 "doubled:address 0", "silent-accept:every 2"})
            expectTaken(text, QString());
        expectTaken("lots", "\"lots\"; right are: lost, late,");
        for (const char* text : {"lost:", "lost:1.1", "lost:-0.1", "lost:nan", "lost:every",
                                 "lost:every 0", "lost:every x", "lost:address -1",
                                 "lost:address 1x", "lost:0.5:every 2", "silent-accept:address 1"})
            expectTaken(text, QString("fault \"%1\"").arg(text));
    }

    void faultsAreAimedAndRepeatable()
    {
        QString error;
        FaultInjector injector(1);
        const QStringList faults = {"late:address 100", "lost:every 3", "wrong-reference:0"};
        QVERIFY(injector.setFaults(faults, &error));
        const FaultKind None = FaultKind::None;
        for (FaultKind expected : {None, None, FaultKind::Late, None, None, FaultKind::Lost}) {
            const int address = expected == FaultKind::Late ? 100 : 99;
            QCOMPARE(injector.choose(FaultMoment::Job, address), expected);
        }
        QCOMPARE(injector.choose(FaultMoment::Accept), None);

        const auto draws = [&error](quint32 seed) {
            FaultInjector random(seed);
            random.setFaults({"lost:0.25"}, &error);
            QList<FaultKind> kinds;
            for (int i = 0; i < 4000; ++i)
                kinds.append(random.choose(FaultMoment::Job));
            return kinds;
        };
        QCOMPARE(draws(7), draws(7));
        QVERIFY(draws(7) != draws(8));
        const int lost = int(draws(7).count(FaultKind::Lost));
        QVERIFY2(lost > 900 && lost < 1100, qPrintable(QString::number(lost)));
    }

    void replyFaults_data()
    {
        QTest::addColumn<QByteArray>("expected"); // in the reply's place; "?": judged by kind
        const QByteArray good = ReplyV100, judged = "?";
        // clang-format off
        const std::tuple<const char*, QByteArray> rows[] = {
            {"lost", ""}, {"late", good}, {"doubled", good + good}, {"split", good},
            {"truncated", judged}, {"corrupted", judged}, {"close-mid-frame", judged},
            {"wrong-reference", QByteArray(good).replace(12, 1, "\x08")},
            {"wrong-length", hex("0300001C02F0803203000000070002000700000401FF040018123400")},
            {"error-class", QByteArray(good).replace(17, 2, "\x81\x04")},
            {"item-error", reply(Read, "0A000000")}, {"coalesced", good + SetupReply},
            {"empty-tpdu-first", hex("0300000702F000") + good}};
        // clang-format on
        for (const auto& [kind, expected] : rows)
            QTest::newRow(kind) << expected;
    }
    void replyFaults()
    {
        QFETCH(QByteArray, expected);
        const QString kind = QTest::currentDataTag();
        RunningSimulator simulator(frozen({kind + ":address 100"}));
        simulator.poke(V, 100, hex("1234"));
        Client client(simulator);
        QVERIFY(client.handshake());
        QVERIFY(simulator.faultCounts().isEmpty());

        // The second request is not struck; its reply ends what there is to see.
        if (kind == "late") {
            client.send(ReadV100);
            QTRY_COMPARE(simulator.faultCounts(), Counts({{kind, 1}}));
            // By the time that another client is served a reply would be there.
            QVERIFY(Client(simulator).handshake());
            client.waitForReadyRead(0);
            QVERIFY(client.readAll().isEmpty());
            client.send(ReadM0);
        } else {
            client.send(ReadV100 + ReadM0);
        }
        QByteArray received = client.receive(ReplyM0);
        QCOMPARE(simulator.faultCounts(), Counts({{kind, 1}}));
        if (kind == "close-mid-frame") {
            QCOMPARE(client.state(), QAbstractSocket::UnconnectedState);
        } else {
            QVERIFY2(received.endsWith(ReplyM0), received.toHex().constData());
            received.chop(ReplyM0.size());
        }
        if (kind == "truncated" || kind == "close-mid-frame") {
            QVERIFY(!received.isEmpty() && received.size() < ReplyV100.size());
            QVERIFY(ReplyV100.startsWith(received));
        } else if (kind == "corrupted") {
            QCOMPARE(received.size(), ReplyV100.size());
            uint differentBits = 0;
            for (int i = 0; i < received.size(); ++i)
                differentBits += qPopulationCount(quint8(received.at(i) ^ ReplyV100.at(i)));
            QCOMPARE(differentBits, 1U);
        } else {
            QCOMPARE(received.toHex(), expected.toHex());
        }
    }

    void connectionFaults()
    {
        RunningSimulator simulator(frozen({"refuse-connection:every 2", "silent-accept:every 3"}));
        Client served(simulator);
        QVERIFY(served.handshake());
        QVERIFY(Client(simulator).isClosedUnanswered());
        Client silent(simulator);
        silent.send(ConnectRequest);
        QVERIFY(served.gets(ReadM0, ReplyM0));
        QCOMPARE(simulator.requestCount(), quint64(3));
        // Faults can be replaced while it runs; a wrong text changes nothing.
        QString error;
        QVERIFY(simulator.setFaults({"garbage-confirm:every 2"}, &error));
        QVERIFY(!simulator.setFaults({"nonsense"}, &error));
        QVERIFY(Client(simulator).handshake());
        Client struck(simulator);
        struck.send(ConnectRequest + SetupRequest);
        const QByteArray received = struck.receive(SetupReply);
        QCOMPARE(received.size(), 22 + 27);
        QVERIFY(received.at(0) != 3);
        QVERIFY(simulator.setFaults(QStringList(), &error));
        for (int i = 0; i < 2; ++i)
            QVERIFY(Client(simulator).handshake());
        simulator.stop();
        QVERIFY(silent.isClosedUnanswered());
        QCOMPARE(simulator.faultCounts(),
                 Counts({{"garbage-confirm", 1}, {"refuse-connection", 1}, {"silent-accept", 1}}));
    }

    void refusedWritesChangeNothing()
    {
        ConnectedHandler handler;
        RemoteRequestHandler remoteHandler(&handler);
        for (Refusal refusal : {Refusal::Item, Refusal::Job}) {
            handler.parse(WriteV100);
            QCOMPARE(handler.answer(refusal), refusal == Refusal::Item
                                                  ? reply(Write, "0A")
                                                  : reply(Write, "FF").replace(17, 2, "\x81\x04"));
            remoteHandler.parse(record(1, 12, 100, 1, "3412"));
            remoteHandler.answer(refusal);
        }
        QCOMPARE(handler.read(V, 100, 2), hex("0000"));
    }

    void remoteFaultsKeepTheReference()
    {
        SimulatorOptions options = frozen({"lost:every 2"});
        options.remote = true;
        RunningSimulator simulator(options);
        // The second is lost, the third stands for its repetition.
        const QByteArray read = record(0, 12, 100, 1), good = reply(Read, "FF0400100000");
        QVERIFY(Client(simulator).gets(read + read + read, remote(0, good) + remote(1, good)));
    }

    void severalConnectionsAndRestart()
    {
        RunningSimulator simulator(frozen());
        const quint16 port = simulator.port();
        Client first(port), second(port);
        QVERIFY(first.handshake() && second.handshake());
        QCOMPARE(simulator.connectionCount(), 2);
        QVERIFY(first.gets(WriteV100, reply(Write, "FF")));
        QVERIFY(second.gets(ReadV100, ReplyV100));
        first.send(ConnectRequest);
        QVERIFY(first.isClosedUnanswered());

        simulator.stop();
        QVERIFY(second.isClosedUnanswered());
        QCOMPARE(simulator.connectionCount(), 0);
        QString error;
        QVERIFY2(simulator.start(&error), qPrintable(error));
        QCOMPARE(simulator.port(), port);
        QCOMPARE(simulator.peek(V, 100, 2), hex("1234"));
        QVERIFY(Client(port).handshake());

        SimulatorOptions samePort;
        samePort.port = port;
        QVERIFY(!SimulatorThread(samePort).start(&error));
        QVERIFY2(error.contains(QString::number(port)), qPrintable(error));
    }

    void floodingClientIsServed()
    {
        RunningSimulator simulator(frozen({"split:every 50"}));
        Client client(simulator);
        QVERIFY(client.handshake());
        QByteArray requests, replies;
        for (int i = 0; i < 1000; ++i) {
            requests += QByteArray(ReadM0).replace(11, 2, hex(hexWord(i)));
            replies += QByteArray(ReplyM0).replace(11, 2, hex(hexWord(i)));
        }
        client.send(requests);
        QVERIFY(client.receive(replies.right(26)) == replies);
        QCOMPARE(simulator.faultCounts(), Counts({{"split", 1002 / 50}}));
    }

    void program()
    {
        QProcess process;
        process.start(SIMULATOR_PROGRAM,
                      {"--fault", "doubled:every 3", "--fault", "lost:address 9", "--verbose"});
        QVERIFY(process.waitForReadyRead(GuardTime));
        const QByteArray line = process.readLine();
        QVERIFY2(line.startsWith("listening on 127.0.0.1:"), line.constData());
        Client client(quint16(line.trimmed().mid(line.indexOf(':') + 1).toInt()));
        QVERIFY(client.handshake());
        QVERIFY(client.gets(ReadM0, ReplyM0 + ReplyM0));
        process.terminate();
        QVERIFY(process.waitForFinished(GuardTime));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
        const QByteArray said = process.readAllStandardError();
        QVERIFY2(said.contains("#0 read MB0 -> ok [fault: doubled]\n"), said.constData());
        QVERIFY2(said.endsWith("fault doubled: 1 injected\nfault lost: 0 injected\n"),
                 said.constData());
    }

    void programUsage()
    {
        // clang-format off
        const std::tuple<const char*, int, const char*> rows[] = {
            {"--help", 0, ""}, {"--frobnicate", 2, "'frobnicate'"}, {"extra", 2, "'extra'"},
            {"--fault lots", 2, "\"lots\""}, {"--listen nowhere", 2, "\"nowhere\""},
            {"--listen 127.0.0.1:70000", 2, "\"127.0.0.1:70000\""}, {"--seed x", 2, "\"x\""},
            {"--duration 0", 2, "\"0\""}, {"--listen localhost:0", 1, "\"localhost\""},
            {"--trace /dev/null/x", 1, "/dev/null/x"}};
        // clang-format on
        for (const auto& [arguments, status, said] : rows) {
            QProcess process;
            process.start(SIMULATOR_PROGRAM, QString(arguments).split(' '));
            QVERIFY(process.waitForFinished(GuardTime));
            const QByteArray error = process.readAllStandardError();
            QVERIFY2(process.exitCode() == status && error.contains(said),
                     arguments + (": " + error));
            QCOMPARE(int(error.count('\n')), status == 0 ? 0 : 1);
        }
    }
};

QTEST_GUILESS_MAIN(SimulatorTest)
#include "simulator_test.moc"
