// The state machine behind a controller, driven by tables of events with a real driver, but without
// socket, thread or clock: its pace, which values are fresh, lists, and what is asked for.

#include "tests/machine_bench.h"

using namespace s7200;

class HostMachineTest : public QObject
{
    Q_OBJECT

private slots:
    void script_data()
    {
        scriptColumns();
        add("paced, and told when it has changed", "",
            Up + "+499            -> \n"
                 "+1              -> get V0+6\n"
                 "ok 000100000005 -> cycle\n"
                 "+500            -> get V0+6\n"
                 "ok 000200000005 -> VW0 good 2; cycle\n");
        add("no burst after a stall", "",
            Up + "stall 5200      -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> VW0 good 1; VW4 good 5; cycle\n"
                 "+299            -> \n"
                 "+1              -> get V0+6\n");
        add("stale while the link counts as up, and what came of a reply dropped", "retry",
            Up + "+500            -> get V0+6\n"
                 "bytes 0300      -> \n"
                 "+999            -> \n"
                 "+1              -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> get V0+6; VW0 good 1; VW4 good 5; cycle\n");
        add("stale in time, although nothing else happens then", "patient",
            Up + "+500            -> get V0+6\n"
                 "+999            -> \n"
                 "+1              -> VW0 stale 1; VW4 stale 5\n");
        add("stale in time within the first cycle", "patient",
            begun("watch VW0 VW400") + "ok              -> get V0+2; up\n"
                                       "ok              -> get V400+2; VW0 good 0\n"
                                       "+1499           -> \n"
                                       "+1              -> VW0 stale 0\n");
        add("not stale when it takes long to read everything", "patient",
            begun("watch VW0 VW400 VW800") + "ok              -> get V0+2; up\n"
                                             "+900            -> \n"
                                             "ok              -> get V400+2; VW0 good 0\n"
                                             "+900            -> \n"
                                             "ok              -> get V800+2; VW400 good 0\n"
                                             "+900            -> \n"
                                             "ok              -> get V0+2; VW800 good 0; cycle\n");
        add("how long a repeated frame took makes what is read next live longer", "twice",
            Up + "+500            -> get V0+6\n"
                 "+1000           -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "ok 000100000005 -> get V0+6; VW0 good 1; VW4 good 5; cycle\n"
                 "+1000           -> get V0+6\n"
                 "+999            -> \n");
        add("what may answer the first sending is as old as that", "twice",
            Up + "+500            -> get V0+6\n"
                 "+1000           -> get V0+6; VW0 stale 1; VW4 stale 5\n"
                 "+1000           -> get V0+6\n"
                 "ok 000200000005 -> get V0+6; VW0 stale 2; cycle\n"
                 "ok 000200000005 -> VW0 good 2; VW4 good 5; cycle\n");
        add("no interval: one after the other, and nothing stale meanwhile", "no interval",
            Up + "+1              -> get V0+6\n"
                 "+900            -> \n"
                 "ok 000100000005 -> get V0+6; cycle\n");
        add("no interval and nothing to do", "no interval no probe",
            begun("") + "ok              -> up; cycle\n"
                        "+999            -> \n"
                        "+1              -> cycle\n");
        add("a completion that stops leaves no other out", "",
            "start           -> open; connecting\n"
            "read VW0        -> \n"
            "read VW2        -> \n"
            "then stop       -> \n"
            "failed          -> close; down: no connection; done: no connection; close; "
            "done: no connection; stopped: no connection\n");
        add("an event loop in a slot: all goes on in it, and nothing is told twice", "",
            Up + "then read VW8 | ok | +500 | ok -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000200000005 -> VW0 good 2; get V8+2; cycle; done 0; get V0+6; VW0 good 0; "
                 "VW4 good 0; cycle\n"
                 "+500            -> get V0+6\n");
        add("no news of the old list after a slot has set a new one", "",
            Up + "then watch VW8  -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000200000005 -> VW0 good 2; get V8+2\n"
                 "ok              -> VW8 good 0; cycle\n");
        add("what came before a frame is not its reply", "",
            Up + "bytes 0300      -> \n"
                 "+500            -> get V0+6\n"
                 "ok 000900000005 -> VW0 good 9; cycle\n");
        add("written: stale until read back", "",
            Up + "write VW4=7     -> put V4+1; VW4 stale 5\n"
                 "ok              -> done\n"
                 "+500            -> get V0+6\n"
                 "ok 000100000007 -> VW4 good 7; cycle\n");
        // The driver lets a cyclic read through before the sixth write.
        add("six writes: stale before the frame is made, and then again", "",
            Up + "write VW4=1     -> put V4+1; VW4 stale 5\n"
                 "write VW4=2     -> \n"
                 "write VW4=3     -> \n"
                 "write VW4=4     -> \n"
                 "write VW4=5     -> \n"
                 "write VW0=6     -> \n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> put V4+1; done\n"
                 "ok              -> get V0+6; done; VW0 stale 1\n"
                 "ok 000100000005 -> put V0+1; VW0 stale 1; VW4 good 5\n"
                 "show            -> VW0 stale 1; VW4 good 5\n");
        add("a timer's bits go with its value", "",
            begun("watch T5 TV9") + "ok              -> get T9+1; up\n"
                                    "ok 0000000007   -> get T5+1; TV9 good 7\n"
                                    "ok              -> T5 good 0; cycle\n"
                                    "write TV5=1     -> put T5+1; T5 stale 0\n");
        add("a block limit of less than a word is one of a word", "limit 1",
            begun("watch VW0x2") + "ok              -> get V0+2; up\n"
                                   "ok 0001         -> get V2+2\n"
                                   "ok 0002         -> VW0x2 good 1 2; cycle\n"
                                   "read VW8x2      -> get V8+2\n"
                                   "ok 0003         -> get V10+2\n"
                                   "ok 0004         -> done 3 4\n");
        add("lost: the socket goes, and what was read for a request is void", "",
            Up +
                "read VB50x300   -> get V50+212\n"
                "read VW20       -> \n"
                "ok              -> get V262+88\n"
                "+1000           -> close; done: time-out; down: time-out; done: dropped; "
                "VW0 link down 1; VW4 link down 5\n"
                "read VW20       -> done: time-out\n" +
                Again +
                "ok              -> get V0+6\n"
                "ok 000100000005 -> up; VW0 good 1; VW4 good 5; cycle\n"
                "+299            -> \n");
        add("a lost cycle begins anew", "no probe",
            begun("watch VW0 VW400") +
                "ok              -> get V0+2; up\n"
                "ok              -> get V400+2; VW0 good 0\n"
                "closed          -> close; down: closed; VW0 link down 0; VW400 link down\n" +
                Again +
                "ok              -> get V0+2\n"
                "ok              -> get V400+2; up; VW0 good 0; VW400 never read\n"
                "ok              -> VW400 good 0; cycle\n");
        add("closed while idle", "twice",
            Up + "closed          -> close; waiting: closed; VW0 link down 1; VW4 link down 5\n"
                 "write VW0=1     -> \n"
                 "+200            -> open\n"
                 "failed          -> close; waiting: no connection; done: no connection\n"
                 "write VW0=1     -> done: no connection\n");
        add("what an earlier connection answered makes no cycle of this one good", "no probe",
            begun("") +
                "ok              -> up; cycle\n"
                "read VW0        -> get V0+2\n"
                "ok              -> done 0\n"
                "closed          -> close; down: closed\n" +
                Again +
                "ok              -> up; cycle\n"
                "closed          -> close; down: closed\n"
                "+200            -> \n"
                "+200            -> open\n");
        add("a handshake is tried as often as a request", "retry",
            "start           -> open; connecting\n"
            "write VW0=1     -> \n"
            "opened          -> connect; handshake\n"
            "+1000           -> close; waiting: time-out\n"
            "write VW4=1     -> \n"
            "+200            -> open\n"
            "opened          -> connect\n"
            "closed          -> close; down: closed; done: closed; done: closed\n"
            "write VW0=1     -> done: closed\n");
        add("a write that was sent may have been carried out", "",
            Up + "write VW0x120=  -> put V0+106; VW0 stale 1; VW4 stale 5\n"
                 "write VW4=1     -> \n"
                 "ok              -> put V212+14\n"
                 "+1000           -> close; done: time-out, sent; down: time-out; done: dropped; "
                 "VW0 link down 1; VW4 link down 5\n");
        add("up also where a new list has left nothing to wait for", "stations no probe",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW0@2 VW0@3 -> \n"
            "failed@3        -> close@3; down@3: no connection; VW0@3 link down\n"
            "opened@2        -> connect@2; handshake@2\n"
            "ok              -> setup@2\n"
            "ok              -> get V0+2@2; up@2\n"
            "ok              -> VW0@2 good 0; cycle\n"
            "+200            -> open@3\n"
            "opened@3        -> get V0+2@2\n"
            "ok              -> connect@3\n"
            "ok              -> setup@3\n"
            "write VW8@2=1   -> \n"
            "ok              -> put V8+1@2\n"
            "watch VW0@2     -> \n"
            "ok              -> get V0+2@2; done\n"
            "ok              -> up@3; cycle\n");
        add("a new list knows what the old one did", "",
            Up + "+500            -> get V0+6\n"
                 "watch VW4 VW400 -> \n"
                 "show            -> VW4 good 5; VW400 never read\n"
                 "ok 000100000006 -> get V4+2; VW4 good 6\n"
                 "ok 0006         -> get V400+2\n"
                 "ok              -> VW400 good 0; cycle\n");
        add("a change that was not yet told is told of the new list", "",
            Up + "then watch VW4 VW0 -> \n"
                 "read VW0        -> get V0+2\n"
                 "ok 0009         -> done 9; get V0+6; VW0 good 9\n"
                 "ok 000900000005 -> cycle\n");
        add("a timer's bit falls, and is that of the reply", "",
            begun("watch T5x2 C3") + "ok              -> get T5+2; up\n"
                                     "ok 02000000000000000000 -> get C3+1; T5x2 good 1 0\n"
                                     "ok 100000       -> C3 good 1; cycle\n"
                                     "+500            -> get T5+2\n"
                                     "ok 00000000000200000000 -> get C3+1; T5x2 good 0 1\n"
                                     "ok 010000       -> C3 good 0; cycle\n"
                                     "read T5x2       -> get T5+2\n"
                                     "ok 02000000000200000000 -> done 1 1; T5x2 good 1 1\n");
        add("a single read that was answered late", "twice no probe",
            begun("") + "ok -> up; cycle\n"
                        "read VW0        -> get V0+2\n"
                        "+1000           -> get V0+2\n"
                        "+1000           -> get V0+2\n"
                        "ok 0005         -> done, stale 5; cycle\n");
        // Were the list made anew meanwhile, the driver would drop the writes of the station that
        // is first in it.
        add("lists stay while a frame is repeated", "stations retry twice",
            "start           -> open@2; open@3; connecting@2; connecting@3\n"
            "watch VW8000@2 VW8000@3 -> \n"
            "opened@2        -> connect@2; handshake@2\n"
            "ok              -> setup@2\n"
            "ok              -> get V8000+2@2; up@2\n"
            "ok              -> VW8000@2 good 0; cycle\n"
            "opened@3        -> get V8000+2@2; handshake@3\n"
            "ok              -> connect@3\n"
            "ok              -> setup@3\n"
            "ok              -> get V8000+2@3; up@3\n"
            "ok              -> VW8000@3 good 0; cycle\n"
            "write VW0x1166@2= -> put V0+106@2\n"
            "ok              -> put V212+106@2\n"
            "ok              -> put V424+106@2\n"
            "ok              -> put V636+106@2\n"
            "ok              -> put V848+106@2\n"
            "ok              -> get V8000+2@2\n"
            "ok              -> put V1060+106@2\n"
            "ok              -> put V1272+106@2\n"
            "ok              -> put V1484+106@2\n"
            "ok              -> put V1696+106@2\n"
            "ok              -> put V1908+106@2\n"
            "ok              -> get V8000+2@3\n"
            "+1000           -> get V8000+2@3\n"
            "watch VW0@2     -> \n"
            "+1000           -> get V8000+2@3\n"
            "+1000           -> close@3; put V2120+106@2; waiting@3: time-out\n"
            "ok              -> get V0+2@2; done\n");
        add("asked before it is up; then nothing to watch but the probe", "",
            begun("read VW8") + "ok              -> get V8+2; up\n"
                                "ok 0003         -> done 3\n"
                                "+999            -> \n"
                                "+1              -> get SM0+2\n"
                                "ok              -> cycle\n"
                                "+499            -> \n"
                                "+1              -> get SM0+2\n"
                                "stop            -> close; stopped\n");
    }

    void script()
    {
        runScript();
    }

    // Several parts are as old as the first of them, and stay dated however the clock is set.
    void ages()
    {
        Bench bench(settingsOf("patient"));
        for (const char* event : {"start", "watch VB0x300", "opened", "ok", "ok", "+400", "ok",
                                  "+400", "ok", "ok", "ok", "+100"})
            bench.happen(event);
        const Moment now = bench.moment();
        const Value value = bench.machine().value(0, now.steady);
        QCOMPARE(value.quality, Quality::Good);
        QCOMPARE(value.ageMs, qint64(100));
        QCOMPARE(value.timeMs, now.wallMs - 100);
        for (const char* event : {"read VB400x300", "+70", "ok", "+80", "ok"})
            bench.happen(event);
        QCOMPARE(bench.lastResult().value.ageMs, qint64(150));
        QCOMPARE(bench.lastResult().value.timeMs, now.wallMs);
        QCOMPARE(bench.lastResult().value.quality, Quality::Good);
    }
};

QTEST_GUILESS_MAIN(HostMachineTest)
#include "host_machine_test.moc"
