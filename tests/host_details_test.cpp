// The state machine behind a controller, driven as in host_machine_test: how old a value is that
// comes in parts, what one refusal or one write changes and what not, and how the waits grow.

#include "tests/machine_bench.h"

using namespace s7200;

class HostDetailsTest : public QObject
{
    Q_OBJECT

private slots:
    void script_data()
    {
        scriptColumns();
        add("a part that was read is not the value", "",
            begun("watch VD0") + "ok              -> get V0+4; up\n"
                                 "ok 00000005     -> VD0 good 5; cycle\n"
                                 "write VW0=1     -> put V0+1; VD0 stale 5\n"
                                 "ok              -> done\n"
                                 "read VW2        -> get V2+2\n"
                                 "ok 0005         -> done 5\n"
                                 "read VD0        -> get V0+4\n"
                                 "ok 00010005     -> done 65541; VD0 good 65541\n");
        add("half a value is none, and it is as old as its first part", "patient",
            begun("watch VB0x300") + "ok              -> get V0+212; up\n"
                                     "+200            -> \n"
                                     "ok              -> get V212+88\n"
                                     "ages            -> -1\n"
                                     "+100            -> \n"
                                     "ok              -> VB0x300 good 300 x 0; cycle\n"
                                     "ages            -> 300\n");
        add("what is asked for in parts is as old as the first one, too", "patient",
            begun("read VB0x300") + "ok              -> get V0+212; up\n"
                                    "+200            -> \n"
                                    "ok              -> get V212+88\n"
                                    "+100            -> \n"
                                    "ok              -> done 300 x 0\n"
                                    "age             -> 300\n");
        add("a refused setup ends what waits", "twice",
            "start           -> open; connecting\n"
            "write VW0=1     -> \n"
            "read VW0        -> \n"
            "opened          -> connect; handshake\n"
            "ok              -> setup\n"
            "reject          -> close; waiting: setup refused; done: setup refused; "
            "done: setup refused\n"
            "write VW0=1     -> done: setup refused\n");
        add("requests of another station wait on", "stations",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "read VW0@3      -> \n"
            "read VW2@2      -> \n"
            "read VW4@3      -> \n"
            "failed@3        -> close@3; down@3: no connection; done: no connection; "
            "done: no connection\n"
            "opened@2        -> connect@2; handshake@2\n"
            "ok              -> setup@2\n"
            "ok              -> get V2+2@2; up@2\n"
            "ok 0007         -> done 7\n");
        add("one refusal of the probe is no reason to do without", "retry",
            begun("") +
                "ok              -> get SM0+2; up\n"
                "refuse          -> get SM0+2\n"
                "ok              -> cycle\n"
                "+500            -> get SM0+2\n"
                "refuse          -> close; waiting: refused\n" +
                Again + "ok              -> get SM0+2\n");
        add("no probe amid a write", "",
            begun("") + "ok              -> get SM0+2; up\n"
                        "ok              -> cycle\n"
                        "write VW0x300=  -> put V0+106\n"
                        "+700            -> \n"
                        "ok              -> put V212+106\n"
                        "+700            -> \n"
                        "ok              -> put V424+88\n"
                        "ok              -> done\n");
        add("a refusal reconnects at once, and failures wait on as long as before", "",
            "start           -> open; connecting\n"
            "watch VW0 VW4   -> \n"
            "failed          -> close; down: no connection; VW0 link down; VW4 link down\n"
            "+200            -> open\n"
            "failed          -> close\n"
            "+400            -> open\n"
            "opened          -> connect\n"
            "ok              -> setup\n"
            "ok              -> get V0+6\n"
            "refuse          -> close; waiting: refused\n"
            "+200            -> open\n"
            "failed          -> close; down: no connection\n"
            "+500            -> \n"
            "+300            -> open\n");
        add("who speaks first on a later connection is no controller, either", "stations",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW0@2     -> \n"
            "opened@2        -> connect@2; handshake@2\n"
            "opened@3        -> handshake@3\n"
            "ok              -> setup@2\n"
            "ok              -> get V0+2@2; up@2\n"
            "ok              -> connect@3; VW0@2 good 0\n"
            "closed@3        -> close@3; get V0+2@2; down@3: closed\n"
            "+400            -> open@3\n"
            "opened@3        -> \n"
            "bytes@3 5353482D -> close@3; down@3: not S7\n");
        add("a read apart of the last list is none of this one's", "limit 1",
            begun("watch AIW0 AIW8") + "ok              -> get AI0+1; up\n"
                                       "watch AIW4 AIW16 -> \n"
                                       "ok              -> get AI8+1\n"
                                       "ok              -> get AI4+1\n"
                                       "ok              -> get AI16+1; AIW4 good 0\n"
                                       "ok              -> AIW16 good 0; cycle\n");
        add("a counter's value and its bit are one, and so are a timer's", "",
            begun("watch C5 T5") + "ok              -> get T5+1; up\n"
                                   "ok 0200000000   -> get C5+1; T5 good 1\n"
                                   "ok 100000       -> C5 good 1; cycle\n"
                                   "write CV5=1     -> put C5+1; C5 stale 1\n"
                                   "ok              -> done\n"
                                   "write TV5=1     -> put T5+1; T5 stale 1\n");
        add("analogue words that just fit are read together", "",
            begun("watch AIW0 AIW62") +
                "bytes 0300001B02F080320300000108000800000000F00000010001005C -> get AI0+32; pdu "
                "92; up\n");
        add("one part that came late makes all of it late", "retry",
            begun("read VB0x300") + "ok              -> get V0+212; up\n"
                                    "+1000           -> get V0+212\n"
                                    "+900            -> \n"
                                    "ok              -> get V212+88\n"
                                    "ok              -> done, stale 300 x 0\n");
        add("a rest is no shorter than the interval", "no probe, slow",
            begun("") + "ok              -> up; cycle\n"
                        "+4900           -> \n"
                        "+1200           -> cycle\n");
        add("late cycles are counted, those that begin in time are not", "",
            Up + "late            -> 0\n"
                 "stall 549       -> get V0+6\n"
                 "ok              -> VW0 good 0; VW4 good 0; cycle\n"
                 "late            -> 0\n"
                 "stall 551       -> get V0+6\n"
                 "late            -> 1\n");
    }

    void script()
    {
        runScript();
    }

    // The time of the next attempt is the time at which it is made.
    void nextAttempt()
    {
        Bench bench(settingsOf(""));
        bench.happen("start");
        for (const char* event : {"failed", "failed", "failed"}) {
            bench.happen(event);
            const qint64 left = bench.link().nextAttemptMs;
            QCOMPARE(left, bench.msToWake());
            QVERIFY(left > 100);
            QCOMPARE(bench.happen("+50"), QString());
            QCOMPARE(bench.link().nextAttemptMs, left - 50);
            QCOMPARE(bench.happen(QString("+%1").arg(left - 49)), QString("open"));
            QCOMPARE(bench.link().nextAttemptMs, qint64(0));
        }
    }

    // Of a frame that was sent twice nobody knows which sending was answered.
    void roundTrips()
    {
        Bench bench(settingsOf("retry"));
        for (const char* event : {"start", "watch VW0", "opened", "ok", "ok", "ok", "+500"})
            bench.happen(event);
        const auto count = [&bench] { return bench.machine().statistics().roundTrip.count(); };
        const quint64 before = count();
        QCOMPARE(bench.happen("+1000").section(';', 0, 0), QString("get V0+2"));
        bench.happen("ok");
        QCOMPARE(count(), before);
        bench.happen("ok"); // of the next cycle, which was due
        QCOMPARE(count(), before + 1);
    }

    // A value that is only stale says nothing of the trouble that the last link ended with.
    void troubleOfTheLastLink()
    {
        Bench bench(settingsOf(""));
        const auto second = [&bench] {
            const Value value = bench.machine().value(1, bench.moment().steady);
            return describe(value.quality) + ' ' + value.detail;
        };
        for (const char* event : {"start", "watch VW0 VW400", "opened", "ok", "ok", "ok", "ok"})
            bench.happen(event);
        QCOMPARE(second(), QString("good "));
        bench.happen("closed");
        QCOMPARE(second(), QString("link down the connection was closed by the controller"));
        for (const char* event : {"+200", "opened", "ok", "ok", "ok"})
            bench.happen(event);
        QCOMPARE(second(), QString("stale "));
    }

    // Sums over several links are as if all had been one.
    void histograms()
    {
        RoundTripHistogram first;
        RoundTripHistogram sum;
        for (const qint64 microseconds : {700, 300, 500})
            first.add(microseconds);
        sum.merge(RoundTripHistogram());
        sum.merge(first);
        QVERIFY(sum.count() == 3 && sum.minimum() == 300 && sum.maximum() == 700);
        RoundTripHistogram second;
        second.add(200);
        sum.merge(second);
        sum.merge(RoundTripHistogram());
        QVERIFY(sum.count() == 4 && sum.minimum() == 200 && sum.maximum() == 700);
        QCOMPARE(sum.percentile(1), qint64(700));
        QVERIFY(sum.percentile(0.5) >= 300 && sum.percentile(0.5) < 500);
    }
};

QTEST_GUILESS_MAIN(HostDetailsTest)
#include "host_details_test.moc"
