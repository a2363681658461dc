// The state machine behind a controller, driven by tables of events with a real driver, but without
// socket, thread or clock: what is refused, dropped or no S7 reply, and how it backs off.

#include "tests/machine_bench.h"

using namespace s7200;

namespace
{

/// Of three neighbours the first one is refused, and the second one is asked for.
const QByteArray FirstOfThreeRefused =
    begun("watch VW0 VW4 VW8") +
    "ok              -> get V0+10; up\n"
    "refuse          -> close; waiting: refused; VW0 link down; VW4 link down; VW8 link down\n" +
    Again +
    "ok              -> get V0+2\n"
    "refuse          -> close; VW0 refused\n" +
    Again + "ok              -> get V4+2\n";

} // namespace

class HostFailuresTest : public QObject
{
    Q_OBJECT

private slots:
    void script_data()
    {
        scriptColumns();
        add("a peer that floods", "",
            Up + "flood 255       -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000100000005 -> cycle\n"
                 "flood 255       -> \n"
                 "flood 1         -> close; close; down: not S7; VW0 link down 1; "
                 "VW4 link down 5\n");
        add("a reply to another request is no silence", "",
            Up + "+500            -> get V0+6\n"
                 "mismatch        -> \n"
                 "+1000           -> close; down: wrong reference; VW0 link down 1; "
                 "VW4 link down 5\n");
        add("dropped for another's failure", "",
            Up + "write VW100x600= -> put V100+106\n"
                 "ok              -> put V312+106\n"
                 "ok              -> put V524+106\n"
                 "ok              -> put V736+106\n"
                 "ok              -> put V948+106\n"
                 "ok              -> get V0+6\n"
                 "+1000           -> close; done: dropped, sent; down: time-out; VW0 link down 1; "
                 "VW4 link down 5\n");
        // The driver's count of failures goes on over good replies.
        add("a single refusal of what is good sets nothing aside", "retry",
            Up +
                "+500            -> get V0+6\n"
                "refuse          -> get V0+6\n"
                "refuse          -> close; waiting: refused; VW0 link down 1; VW4 link down 5\n" +
                Again +
                "ok              -> get V0+2\n"
                "refuse          -> get V0+2\n"
                "ok              -> get V4+2; up; VW0 good 0; VW4 stale 5\n"
                "refuse          -> close; waiting: refused; VW0 link down 0; VW4 link down 5\n" +
                Again +
                "ok              -> get V0+2\n"
                "ok              -> get V4+2; up; VW0 good 0; VW4 stale 5\n"
                "ok              -> VW4 good 0; cycle\n"
                "+500            -> get V0+6\n");
        add("a refused part ends a write", "",
            Up + "write VW100x200= -> put V100+106\n"
                 "refuse          -> done: refused\n"
                 "+500            -> get V0+6\n");
        add("no bit goes out after one was refused", "",
            Up + "write M0.0x3=   -> put M0+1\n"
                 "ok              -> put M0+1\n"
                 "refuse          -> done: refused\n"
                 "+500            -> get V0+6\n");
        add("a write refused as a job blames neither watched variables nor other writes", "",
            Up +
                "write VW4=7     -> put V4+1; VW4 stale 5\n"
                "reject          -> close; done: refused; waiting: refused; VW0 link down 1; VW4 "
                "link down 5\n"
                "write VW8=1     -> \n" +
                Again +
                "ok              -> put V8+1\n"
                "ok              -> get V0+6; up; done; VW0 stale 1; VW4 stale 5\n");
        add("refused among neighbours: found, set aside, tried again", "",
            Up +
                "+500            -> get V0+6\n"
                "refuse          -> close; waiting: refused; VW0 link down 1; VW4 link down 5\n"
                "read VW20       -> \n" +
                Again +
                "ok              -> get V0+2\n"
                "ok 0001         -> get V4+2; up; VW0 good 1; VW4 stale 5\n"
                "refuse          -> close; waiting: refused; VW0 link down 1; VW4 refused 5\n"
                "write VW30=1    -> \n" +
                Again +
                "ok              -> get V20+2\n"
                "ok              -> put V30+1; up; done 0; VW0 stale 1\n"
                "ok              -> get V0+2; done\n"
                "ok 0001         -> VW0 good 1; cycle\n"
                "closed          -> close; down: closed; VW0 link down 1\n" +
                Again +
                "ok              -> get V0+2\n"
                "ok 0001         -> up; VW0 good 1; cycle\n"
                "stall 10000     -> get V0+2; VW0 stale 1\n"
                "ok 0001         -> get V4+2; VW0 good 1\n"
                "refuse          -> close; waiting: refused; VW0 link down 1\n" +
                Again +
                "ok              -> get V0+2\n"
                "ok 0001         -> up; VW0 good 1; cycle\n"
                "stall 60000     -> get V0+2; VW0 stale 1\n"
                "ok 0001         -> get V4+2; VW0 good 1\n"
                "ok 0006         -> VW4 good 6; cycle\n"
                "+500            -> get V0+6\n"
                "refuse          -> close; waiting: refused; VW0 link down 1; VW4 link down 6\n");
        add("refused in numbers: the rest goes on", "",
            FirstOfThreeRefused + "refuse          -> close; VW4 refused\n" + Again +
                "ok              -> get V8+2\n"
                "ok 0003         -> up; VW8 good 3; cycle\n"
                "stall 60000     -> get V8+2; VW8 stale 3\n"
                "ok 0003         -> get V0+2; VW8 good 3\n"
                "refuse          -> close; waiting: refused; VW8 link down 3\n" +
                Again +
                "ok              -> get V8+2\n"
                "ok 0003         -> up; VW8 good 3; cycle\n"
                "stall 9000      -> get V8+2; VW8 stale 3\n"
                "ok 0003         -> VW8 good 3; cycle\n"
                "stall 1000      -> get V8+2\n"
                "ok 0003         -> get V4+2\n"
                "ok 0005         -> VW4 good 5; cycle\n");
        add("read apart in one piece, as among the others", "",
            begun("watch VW0x4 AIW2") +
                "ok              -> get V0+8; up\n"
                "refuse          -> close; waiting: refused; VW0x4 link down; AIW2 link down\n" +
                Again +
                "ok              -> get AI2+1\n"
                "ok              -> get V0+8; up; VW0x4 never read; AIW2 good 0\n"
                "ok 0001000200030004 -> VW0x4 good 1 2 3 4; cycle\n");
        add("on trial behind what is read apart", "no probe",
            FirstOfThreeRefused +
                "ok              -> get V8+2; up; VW4 good 0; VW8 never read\n"
                "refuse          -> close; waiting: refused; VW4 link down 0; VW8 refused\n" +
                Again +
                "ok              -> get V4+2\n"
                "refuse          -> close\n" +
                Again +
                "ok              -> get V4+2\n"
                "ok              -> up; VW4 good 0; cycle\n"
                "stall 60000     -> get V4+2; VW4 stale 0\n"
                "ok              -> get V0+2; VW4 good 0\n");
        add("no cycle is done until a station is back from a refusal", "stations",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW0@2 VW4@3 -> \n"
            "opened@2        -> connect@2; handshake@2\n"
            "opened@3        -> handshake@3\n"
            "ok              -> setup@2\n"
            "ok              -> get V0+2@2; up@2\n"
            "ok              -> connect@3; VW0@2 good 0\n"
            "ok              -> setup@3\n"
            "ok              -> get V4+2@3; up@3\n"
            "refuse          -> close@3; get V0+2@2; waiting@3: refused; VW4@3 link down\n"
            "ok              -> \n"
            "+500            -> open@3; get V0+2@2\n"
            "ok              -> \n"
            "failed@3        -> close@3; down@3: no connection\n"
            "+500            -> open@3; get V0+2@2\n"
            "ok              -> cycle\n");
        add("asked for, but never answered: backs off", "",
            "start           -> open; connecting\n"
            "failed          -> close; down: no connection\n"
            "stall 10000     -> open\n"
            "read VW0        -> \n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V0+2\n"
            "closed          -> close; done: closed; down: closed\n"
            "+200            -> \n"
            "+200            -> open\n");
        add("the probe goes on when something else was refused, and not when it was itself", "",
            Up +
                "+500            -> get V0+6\n"
                "watch SMW0      -> \n"
                "refuse          -> close; waiting: refused; SMW0 link down\n"
                "watch           -> \n" +
                Again +
                "ok              -> get SM0+2\n"
                "watch SMW0      -> \n"
                "ok              -> get SM0+2; up; SMW0 good 0\n"
                "refuse          -> close; waiting: refused; SMW0 link down 0\n" +
                Again +
                "ok              -> get SM0+2\n"
                "refuse          -> close; SMW0 refused 0\n" +
                Again + "ok              -> up; cycle\n");
        add("disconnected by the controller, in place of a reply and between two", "",
            Up +
                "+500            -> get V0+6\n"
                "bytes 0300000B06800000000000 -> close; close; down: closed; VW0 link down 1; VW4 "
                "link down 5\n" +
                Again +
                "ok              -> get V0+6\n"
                "ok 000100000005 -> up; VW0 good 1; VW4 good 5; cycle\n"
                "bytes 0300000B06800000000000 -> close; close; down: closed; VW0 link down 1; VW4 "
                "link down 5\n"
                "+200            -> open\n");
        add("who speaks first is no controller", "stations",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW0@2     -> \n"
            "opened@2        -> connect@2; handshake@2\n"
            "opened@3        -> handshake@3\n"
            "bytes@3 5353482D -> close@3; down@3: not S7\n"
            "ok              -> setup@2\n");
        add("a smaller PDU", "",
            begun("watch VB0x200") +
                "bytes 0300001B02F080320300000108000800000000F00000010001005A -> get V0+60; pdu "
                "90; up\n"
                "read VB300x70   -> \n"
                "ok              -> get V300+60\n"
                "closed          -> close; done: closed; down: closed; VB0x200 link down\n" +
                Again +
                "bytes 0300001B02F080320300000108000800000000F00000010001005A -> get V0+60\n");
        add("a PDU of which there is nothing to be had", "",
            begun("watch VW0") +
                "read VW8        -> \n"
                "bytes 0300001B02F080320300000108000800000000F000000100010017 -> close; close; "
                "down: setup refused; done: setup refused; VW0 link down\n" +
                Again +
                "bytes 0300001B02F080320300000108000800000000F000000100010018 -> get V0+2; pdu "
                "24\n");
        add("double words that a limit for one counter would halve are read apart", "",
            begun("watch VD0 C5") + "bytes 0300001B02F080320300000108000800000000F000000100010018 "
                                    "-> get C5+1; pdu 24; up\n"
                                    "ok 000001       -> get V0+4; C5 good 0\n"
                                    "ok 00000007     -> VD0 good 7; cycle\n");
        add("analogue words that a limit would cut are read apart", "limit 1",
            begun("watch AIW0 AIW8") + "ok              -> get AI0+1; up\n"
                                       "ok 0001         -> get AI8+1; AIW0 good 1\n"
                                       "ok 0002         -> AIW8 good 2; cycle\n");
        add("what was asked for and answered resets the back-off", "no probe",
            "start           -> open; connecting\n"
            "failed          -> close; down: no connection\n"
            "+200            -> open\n"
            "failed          -> close\n"
            "+400            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> up; cycle\n"
            "read VW0        -> get V0+2\n"
            "ok              -> done 0\n"
            "closed          -> close; down: closed\n" +
                Again + "ok              -> up; cycle\n");
        add("nothing to do: backs off, until it lasts", "no probe",
            begun("") +
                "ok              -> up; cycle\n"
                "closed          -> close; down: closed\n" +
                Again +
                "ok              -> up; cycle\n"
                "closed          -> close; down: closed\n"
                "+200            -> \n" +
                Again +
                "ok              -> up; cycle\n"
                "stall 10000     -> cycle\n"
                "closed          -> close; down: closed\n"
                "+200            -> open\n");
    }

    void script()
    {
        runScript();
    }

    // However many there are: with each refusal something is learnt, so none is waited for.
    void refusedInHundreds()
    {
        Bench bench(settingsOf(""));
        QString watch = "watch";
        for (int i = 0; i < 150; ++i)
            watch += QString(" VW%1").arg(20 * i);
        bench.happen("start");
        bench.happen(watch);
        for (int i = 0; i < 150; ++i) {
            for (const char* event : {"opened", "ok", "ok", "refuse"})
                bench.happen(event);
            QCOMPARE(bench.machine().link(2, 0).cause, Cause::Refused);
            QVERIFY2(bench.msToWake() < 200, qPrintable(QString::number(bench.msToWake())));
            bench.happen(QString("+%1").arg(bench.msToWake() + 1));
        }
    }

    // Nothing is learnt from a write that is refused as a job, so that it does not go on for ever.
    void refusedWithoutEnd()
    {
        Bench bench(settingsOf("no probe"));
        bench.happen("start");
        QString told;
        for (int i = 0; i <= 100; ++i) {
            QVERIFY(bench.happen("write VW0=1").isEmpty());
            for (const char* event : {"+200", "opened", "ok", "ok", "reject"})
                told = bench.happen(event);
        }
        QCOMPARE(told, QString("close; done: refused; down: refused"));
        QCOMPARE(bench.happen("write VW0=1"), QString("done: refused"));
    }

    // Handshakes that succeed and reads that never do: a message or two, and longer and longer
    // waits.
    void backsOff()
    {
        Bench bench(settingsOf("retry"));
        QStringList told{bench.happen("start"), bench.happen("watch VW0")};
        for (qint64 delay = 200, attempt = 1; attempt < 10; ++attempt) {
            told << bench.happen("opened") << bench.happen("ok") << bench.happen("ok");
            told << bench.happen("bytes 0300000802F08000")
                 << bench.happen("bytes 0300000802F08000");
            QCOMPARE(bench.machine().link(2, 0).attempts, int(attempt));
            QVERIFY2(bench.msToWake() >= delay * 7 / 10 && bench.msToWake() < delay,
                     qPrintable(QString::number(bench.msToWake())));
            delay = std::min<qint64>(2 * delay, 10000);
            told << bench.happen(QString("+%1").arg(bench.msToWake() + 1));
        }
        QCOMPARE(told.filter("not S7").size(), 2); // waiting, down
        QCOMPARE(told.filter("open").size(), 10);
        QCOMPARE(bench.machine().statistics().failed(Cause::NotS7), quint64(18));
        for (const char* event : {"opened", "ok", "ok", "ok", "closed"})
            bench.happen(event);
        QVERIFY(bench.msToWake() < 200);
    }

    void judgement_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<int>("cause");
        const QByteArray connect = fromHex("03000016 11E0 0000 0001 00 C00109 C1021000 C2021100");
        const QByteArray setup = fromHex("03000019 02F080 3201 0000 0108 0008 0000 F000 0001");
        const QByteArray read = fromHex("0300001F 02F080 3201 0000 0007 000E 0000 0401");
        const QByteArray good = readReply(7, "ab");
        const auto with = [](QByteArray bytes, int at, int value) {
            bytes[at] = char(value);
            return bytes;
        };
        const auto add = [](const char* name, const QByteArray& frame, const QByteArray& reply,
                            Cause cause) { QTest::newRow(name) << frame << reply << int(cause); };
        add("good confirm", connect, connectionConfirm(), Cause::None);
        add("disconnect", connect, fromHex("0300000B 06 80 0000 0000 03"),
            Cause::ConnectionRefused);
        add("noise like a disconnect", connect, fromHex("E900000B 06 80 0000 0000 03"),
            Cause::NotS7);
        add("disconnect of another length", connect, fromHex("0300000B 06 80 0000 0000 03 00"),
            Cause::NotS7);
        add("banner", connect, "SSH-2.0-x\r\n", Cause::NotS7);
        add("good setup", setup, setupReply(), Cause::None);
        add("setup error", setup, with(setupReply(), 17, 0x81), Cause::SetupRefused);
        add("good read", read, good, Cause::None);
        add("item", read, with(good, 21, 5), Cause::Refused);
        add("error class", read, with(good, 17, 0x81), Cause::Refused);
        add("item of another", read, with(readReply(8, "ab"), 21, 5), Cause::WrongReference);
        add("item, not a reply", read, with(with(good, 21, 5), 8, 1), Cause::NotS7);
        add("item, not S7", read, with(with(good, 21, 5), 7, 0x33), Cause::NotS7);
        add("item, no data TPDU", read, with(with(good, 21, 5), 5, 0x70), Cause::NotS7);
        add("item, lengths at odds", read, with(with(good, 21, 5), 16, 9), Cause::WrongLength);
        add("longer", read, readReply(7, "abcd"), Cause::WrongLength);
        add("cut short", read, good.left(20), Cause::WrongLength);
        add("a write's", read, writeReply(7), Cause::WrongReference);
        add("disconnect later", read, fromHex("0300000B 06 80 0000 0000 00"), Cause::Closed);
    }

    void judgement()
    {
        QFETCH(QByteArray, frame);
        QFETCH(QByteArray, reply);
        QFETCH(int, cause);
        SentFrame sent{frame, frame.size() == 22 ? 22 : 27, false};
        const Failure failure = judgeReply(sent, reply);
        QVERIFY2(int(failure.cause) == cause, qPrintable(failure.detail));
        const Failure bad = judgeBadReply(sent, reply);
        QVERIFY(bad && !bad.detail.contains("27 bytes in place of 27"));
    }

    // What a forwarding peer's reply lacks can only be its reference when all else is right.
    void judgementOfForwarded()
    {
        const QByteArray frame = fromHex("0300001F 02F080 3201 0000 0007 000E 0000 0401");
        const QByteArray reply = readReply(8, "ab") + "ab";
        for (const int longer : {0, 2}) {
            const SentFrame sent{frame, int(reply.size()) + longer, true};
            QCOMPARE(judgeBadReply(sent, reply).cause,
                     longer ? Cause::WrongLength : Cause::WrongReference);
        }
    }
};

QTEST_GUILESS_MAIN(HostFailuresTest)
#include "host_failures_test.moc"
