// The simulated controller without a socket: replies byte for byte, memory.

#include "simulator/remote_request_handler.h"
#include "tests/simulator_frames.h"

#include <tuple>

using namespace s7200::sim;

class SimulatorTest : public QObject
{
    Q_OBJECT

private slots:
    void s7Reads()
    {
        // clang-format off
        const std::pair<const char*, QByteArray> rows[] = {
            {"020002000081000008", "FF0400101112"}, {"020002000082000008", "FF0400102122"},
            {"020002000083000008", "FF0400103132"}, {"020002000004000008", "FF0400104142"},
            {"020002000005000008", "FF0400105152"}, {"060001000184000008", "FF04002061620000"},
            {"040001000006000008", "FF0400107172"}, {"020002000007000008", "FF0400108182"},
            {"1F000200001F000001", "FF09000A02000091920000000000"}, // timers
            {"1E000100001E000001", "FF09000310A1A2"}, // counter
            {"010001000083000009", "FF03000100"}, {"010001000083000008", "FF03000101"}, // bits
            {"0200DE00018400FA00", "FF0406F0" + QByteArray(444, '0')}, // most that fits, and more
            {"0200DF00018400FA00", "8500"}, {"020002000184013FF8", "05000000"}, // end of V
            {"1F000200001F0000FF", "05000000"}, {"020000000184000000", "05000000"}, // T256, nothing
            {"020001000184000009", "05000000"}, // bytes from a bit address
            {"020001000284000000", "0A000000"}, {"020001000085000000", "0A000000"}, // no such area
            {"0A0001000184000000", "06000000"}, {"02000100001F000000", "06000000"}, // wrong size
            {"010002000083000000", "06000000"}}; // two bits
        // clang-format on
        ConnectedHandler handler;
        for (int area = 0; area <= int(AQW); ++area)
            handler.write(SimulatorArea(area), 1, word16(0x1112 + area * 0x1010));
        handler.write(T, 5, fromHex("0200009192"));
        handler.write(C, 3, fromHex("10A1A2"));
        for (const auto& [item, data] : rows)
            expectTalk(handler, job(Read, item), reply(Read, data));
        // Function, number of items, syntax, ROSCTR and parameter length.
        for (const auto& [offset, byte] :
             {std::pair(17, 0x1A), {18, 2}, {21, 0xB2}, {8, 7}, {14, 0x0F}})
            expectTalk(handler,
                       job(Read, rows[0].first).replace(offset, 1, QByteArray(1, char(byte))),
                       reply(Read, "8104"));
        expectTalk(handler, fromHex("0300000702F000"), QByteArray());
        QVERIFY(!handler.isBroken());
    }

    // HOLDS(23)
    void s7Writes()
    {
        // Item, data, return code, and the memory from the byte before; EE: untouched.
        // clang-format off
        using Text = const char*;
        const std::tuple<Text, Text, Text, SimulatorArea, int, QByteArray> rows[] = {
            {"040001000082000320", "0400101234", "FF", Q, 99, "ee1234ee"},
            {"020002000184000320", "0900020102", "FF", V, 99, "ee0102ee"}, // length in bytes
            {"020001000083000050", "04000101", "FF", M, 9, "ee01ee"}, // length of bits in bytes
            {"010001000083000053", "03000100", "FF", M, 10, "e6ee"},
            {"010001000083000050", "03000101", "FF", M, 10, "efee"},
            // Double words of SM come under an area code of their own, which does not exist.
            {"040002000085000140", "04002001020304", "0A", SM, 39, "eeeeeeeeeeee"},
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
            {"010001000083000050", "04000801", "07", M, 10, "ee"}};
        // clang-format on
        for (const auto& [item, data, code, area, offset, after] : rows) {
            ConnectedHandler handler;
            handler.write(area, 0, QByteArray(ControllerMemory::size(area), '\xEE'));
            const auto changes = [&, area = area, offset = offset, size = int(after.size()) / 2] {
                return handler.read(area, offset, size).toHex();
            };
            for (Refusal refusal : {Refusal::Item, Refusal::Job}) {
                handler.parse(job(Write, item, data));
                const QByteArray refused = handler.answer(refusal);
                QCOMPARE(refused.mid(refusal == Refusal::Item ? 21 : 17, 2),
                         refusal == Refusal::Item ? QByteArray("\x0A") : QByteArray("\x81\x04"));
                QVERIFY(!changes().contains("12"));
            }
            expectTalk(handler, job(Write, item, data), reply(Write, code));
            QCOMPARE(item + (' ' + changes()), item + (' ' + after));
        }
    }

    void handshakes()
    {
        ControllerMemory memory;
        S7RequestHandler handler(&memory, 240, 0x1100), other(&memory, 240, 0x1101);
        expectTalk(handler, ConnectRequest, ConnectConfirm);
        expectTalk(handler, job(Read, "020001000083000000"), reply(Read, "8104")); // no setup yet
        handler.parse(SetupRequest);
        QCOMPARE(handler.answer(Refusal::Job), reply(Read, "8104").replace(11, 2, "\x01\x08"));
        QVERIFY(!handler.isServing());
        // No more is granted than was asked for, nor than there is, and it is kept to.
        QByteArray large = SetupRequest, small = SetupRequest, granted = setupReply();
        expectTalk(handler, large.replace(23, 2, word16(0x03C0)), setupReply());
        expectTalk(handler, small.replace(23, 2, word16(64)), granted.replace(25, 2, word16(64)));
        expectTalk(handler, job(Read, "02002E000184000000"),
                   reply(Read, "FF040170" + QByteArray(92, '0')));
        expectTalk(handler, job(Read, "02002F000184000000"), reply(Read, "8500"));
        expectTalk(handler, job(Write, "020025000184000000", "040128" + QByteArray(74, '0')),
                   reply(Write, "8500"));
        QVERIFY(!handler.isBroken());
        expectTalk(other, ConnectRequest, fromHex("0300000B068000010000 03")); // TSAP unknown
        QVERIFY(other.isBroken());
    }

    void brokenConversations()
    {
        const QByteArray read = job(Read, "020001000083000000");
        // What breaks a conversation, and whether a connection stands before.
        // clang-format off
        const std::pair<QByteArray, bool> rows[] = {
            {SetupRequest, false}, {"GET / HTTP/1.0\r\n\r\n", false},
            {fromHex("0300001612E00000000100C00109C1021000C2021100"), false}, // length indicator
            {fromHex("0300000B06E00000000120"), false}, // class 2
            {fromHex("0300000702E000"), false}, {ConnectRequest, true}, // cut short, once more
            {fromHex("0300000B06800000000100"), true}, // disconnect request
            {QByteArray(read).replace(7, 1, "\x72"), true}, // another protocol
            {QByteArray(read).replace(6, 1, QByteArray(1, '\0')), true}, // fragment
            {fromHex("0300000C02F0803201000000"), true}}; // S7 header cut short
        // clang-format on
        for (const auto& [bytes, connected] : rows) {
            ControllerMemory memory;
            S7RequestHandler handler(&memory);
            if (connected)
                expectTalk(handler, ConnectRequest, ConnectConfirm);
            expectTalk(handler, bytes, QByteArray());
            QVERIFY2(handler.isBroken(), toHex(bytes).constData());
            expectTalk(handler, ConnectRequest, QByteArray());
        }
    }

    void remoteRecords()
    {
        // Origin, type, address, count, item of the reply or value, and what is where then.
        // clang-format off
        using Row = std::tuple<int, int, int, int, const char*, SimulatorArea, int, const char*>;
        const Row rows[] = {
            {0, 2, 83, 2, "040010AABB", M, 10, "AABB"}, // bits: whole bytes
            {0, 5, 100, 1, "040010AABB", V, 100, "AABB"}, // V bits by byte address
            {0, 11, 10239, 2, "040020AA000000", V, 10239, "AA"}, // past the end: zeros
            {0, 14, 1, 2, "09000A0200009192AABBCCDDEE", T, 5, "0200009192AABBCCDDEE"},
            {0, 19, 1, 1, "09000310A1A2", C, 3, "10A1A2"},
            {1, 2, 83, 3, "010002", M, 10, "0800"}, {1, 5, 801, 1, "01", V, 100, "0200"},
            {1, 12, 100, 1, "3412", V, 100, "123400"}, {1, 11, 7, 2, "11002200", V, 7, "112200"},
            {1, 22, 4, 1, "04030201", M, 4, "010200"}, // half a double word
            {1, 14, 37, 1, "2C01", T, 185, "000000012C00"},
            {1, 15, 3, 1, "2C01", C, 9, "00012C00"}};
        // clang-format on
        for (const auto& [origin, type, address, count, data, area, offset, text] : rows) {
            const QByteArray stored = fromHex(text);
            ControllerMemory memory;
            if (origin == 0)
                memory.write(area, offset, stored);
            RemoteRequestHandler handler(&memory);
            const QByteArray request = record(origin, type, address, count, origin ? data : "");
            handler.parse(request);
            handler.answer(Refusal::Job); // changes nothing and does not count
            // In two parts, as a stream may bring it.
            expectTalk(handler, request.left(9), QByteArray());
            expectTalk(
                handler, request.mid(9),
                remote(0, origin ? reply(Write, "FF") : reply(Read, "FF" + QByteArray(data))));
            QCOMPARE(toHex(memory.read(area, offset, int(stored.size()))), toHex(stored));
        }
    }

    void remoteReferencesAndRefusals()
    {
        ControllerMemory memory;
        RemoteRequestHandler handler(&memory);
        const QByteArray read = record(0, 12, 100, 1);
        QByteArray wrongSum = read;
        wrongSum[21] = char(wrongSum.at(21) + 1);
        // 234 value bytes wrap the length byte to 0; everything received is dropped. Neither these
        // count nor reads that cannot be served.
        for (const QByteArray& bad :
             {wrongSum, QByteArray(read).replace(0, 1, "\x15"), record(0, 25, 100, 1),
              record(1, 12, 100, 117, QByteArray(468, '0').constData())})
            expectTalk(handler, bad, remote(0, reply(Read, "8104")));
        for (const QByteArray& bad : {record(0, 12, 10240, 1), record(0, 12, -2, 1),
                                      record(0, 14, 0, 0), record(0, 14, 0x7FFFFFFF, 65535)})
            expectTalk(handler, bad, remote(0, reply(Read, "05000000")));
        int reference = 0;
        for (const auto& [write, code] : {std::pair(record(1, 6, 0, 1, "0000"), "03"),
                                          {record(1, 18, 37, 1, "01"), "03"},
                                          {record(1, 10, 28, 2, "00000000"), "03"},
                                          {record(1, 12, 10239, 1, "0000"), "05"},
                                          {record(1, 14, 256, 1, "0000"), "05"},
                                          {record(1, 12, -1, 1, "0000"), "05"},
                                          {record(1, 12, 0, 2, "0000"), "07"},
                                          {record(1, 24, 40, 2, "01020304"), "0A"},
                                          {record(1, 5, 81919, 2, "0101"), "05"}})
            expectTalk(handler, write, remote(reference++, reply(Write, code)));
        for (; reference <= 0xFFFF; ++reference)
            QCOMPARE(handler.reply(read).mid(11, 2), word16(reference));
        QCOMPARE(handler.reply(read).mid(11, 2), word16(1)); // 0 is for the first reply only
        handler.replySpoiled();
        QCOMPARE(handler.reply(read).mid(11, 2), word16(1));
    }

    void remoteRecordsKeepToThePdu()
    {
        // Origin, type and the largest count that fits 240 bytes: 222 of a reply, 212 of a job.
        // clang-format off
        const std::tuple<int, int, int> rows[] = {
            {0, 2, 222}, {0, 5, 111}, {0, 12, 111}, {0, 16, 32}, {0, 14, 44}, {0, 19, 74},
            {1, 12, 106}, {1, 13, 106}, {1, 11, 116}, {1, 5, 212}, {1, 14, 42}, {1, 15, 70}};
        // clang-format on
        for (const auto& [origin, type, most] : rows) {
            const auto recordOf = [origin = origin, type = type](int count) {
                const bool bits = type == 5;
                const QByteArray value(origin ? 2 * count * (bits ? 1 : 2) : 0, '1');
                return record(origin, type, 0, count, value.constData());
            };
            ControllerMemory memory;
            RemoteRequestHandler handler(&memory, 240);
            const QString row = QString("%1 %2 %3").arg(origin).arg(type).arg(most);
            const QByteArray good = handler.reply(recordOf(most));
            QVERIFY2(good.mid(17, 2) == word16(0) && good.at(21) == '\xFF', qPrintable(row));
            if (type == 11 || type == 16) // no longer record, no larger area
                continue;
            const QByteArray before = memory.read(V, 0, 10240) + memory.read(T, 0, 1280);
            expectTalk(handler, recordOf(most + 1), remote(1, reply(Read, "8500")));
            QVERIFY(before == memory.read(V, 0, 10240) + memory.read(T, 0, 1280));
            // It did not count.
            expectTalk(handler, record(0, 3, 0, 1), remote(1, reply(Read, "FF04000800")));
        }
        ControllerMemory memory;
        RemoteRequestHandler small(&memory, 64);
        QCOMPARE(int(small.reply(record(0, 12, 0, 23)).size()), 25 + 46 + 2);
        expectTalk(small, record(0, 12, 0, 24), remote(1, reply(Read, "8500")));
    }

    void liveValues()
    {
        ControllerMemory memory;
        using Place = std::tuple<SimulatorArea, int, QByteArray>;
        const auto expectAfter = [&memory](int ticks, std::initializer_list<Place> places) {
            for (int i = 0; i < ticks; ++i)
                memory.tick();
            for (const auto& [area, offset, bytes] : places)
                QCOMPARE(memory.read(area, offset, int(bytes.size()) / 2).toHex(), bytes);
        };
        // 5, 50 and 20.5; later the ramp falls, the timer has run out and the counter bit is on.
        expectAfter(5, {Place(V, 0, "0005003241a40000"), Place(AIW, 0, "0640"), Place(Q, 0, "01"),
                        Place(SM, 0, "21"), Place(T, 185, "0000000005")});
        expectAfter(96, {Place(V, 2, "03de"), Place(T, 185, "0000000000"), Place(C, 15, "10000a")});
        // What is written stands still, and only that.
        memory.writeBit(Q, 0, 1, true);
        memory.write(V, 1, fromHex("00"));
        memory.writeValue(T, 37, 1000);
        expectAfter(4, {Place(V, 0, "000003b6"), Place(Q, 0, "03"), Place(T, 188, "03e8")});
    }

    void descriptions()
    {
        ConnectedHandler handler;
        QCOMPARE(handler.description(), QString("setup communication, PDU length 240 -> 240"));
        handler.reply(job(Read, "020004000184000320"));
        QCOMPARE(handler.description(), QString("read VB100 x 4 -> ok"));
        handler.reply(job(Write, "040001000081000008", "0400101234"));
        QCOMPARE(handler.description(), QString("write IW1 = 0x1234 refused: access denied"));
        RemoteRequestHandler peer(&handler);
        peer.reply(record(1, 8, 20, 1, "3412"));
        QCOMPARE(peer.description(), QString("write MW20 = 0x1234 -> ok"));
        peer.reply(record(0, 16, 4, 3));
        QCOMPARE(peer.description(), QString("read AIW4 x 3 -> ok"));
    }
};

QTEST_APPLESS_MAIN(SimulatorTest)
#include "simulator_test.moc"
