// Commands of the panel as a script meets them: what each prints where, and how it ends; and their
// words for frames and failures.

#include "panel/frame_text.h"
#include "panel/link_probe.h"
#include "tests/panel_process.h"

#include <QRegularExpression>

using namespace s7200;
using namespace s7200::panel;
using namespace s7200::sim;

namespace
{

struct Run {
    int status = -1;
    QString out;
    QString err;
};

Run finished(Panel& panel)
{
    const int status = panel.finish();
    return {status, QString::fromUtf8(panel.process.readAllStandardOutput()),
            QString::fromUtf8(panel.process.readAllStandardError())};
}

Run run(const QStringList& arguments)
{
    Panel panel(arguments);
    return finished(panel);
}

/// What a shell makes of a command line in which the program is called "panel".
Run shell(const QString& line)
{
    QProcess process;
    process.start("sh", {"-c", "panel() { " PANEL_PROGRAM " \"$@\"; }; " + line});
    if (!process.waitForFinished(LongMs))
        return {};
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

QString text(const Run& run)
{
    return QStringLiteral("%1\n%2%3").arg(run.status).arg(run.out, run.err);
}

/// Two controllers, each of which holds its number.
struct Pair {
    Pair()
    {
        three.thread->poke(SimulatorArea::V, 0, QByteArray::fromHex("0003"));
        four.thread->poke(SimulatorArea::V, 0, QByteArray::fromHex("0004"));
    }

    QStringList command(const QString& line) const
    {
        return line.split(' ') << "--controller"
                               << "3=" + three.address() << "--controller"
                               << "4=" + four.address();
    }

    Simulator three;
    Simulator four;
};

} // namespace

class PanelCommandsTest : public QObject
{
    Q_OBJECT

private slots:
    // Behind one driver a variable that names no station is the first one's, in records, too.
    void stationsOfOneDriver()
    {
        const Pair pair;
        const Run read = run(pair.command("read --one-driver --format csv VW0@4 VW0"));
        QVERIFY2(QRegularExpression("^time,[^\n]*\n[^\n]*Z,4,VW0@4,VW0@4,4,,good\n"
                                    "[^\n]*Z,3,VW0,VW0,3,,good\n$")
                     .match(read.out)
                     .hasMatch(),
                 qPrintable(text(read)));
        const Run explain = run(pair.command("explain --one-driver VW0@4 VW0@3"));
        QCOMPARE(int(explain.out.count("read VB0 to VB1")), 2);
        QCOMPARE(explain.status, 0);
    }

    // A round takes all controllers; a condition on what is watched is no further row.
    void rounds()
    {
        const Pair pair;
        Panel two(pair.command("watch --count 2 --interval 3000 --format csv 3:VW0 4:VW0"));
        Panel one(
            pair.three.command("watch --count 1 --interval 20 --format csv --until VW0>5 VW0 VW2"));
        const Run conditional = finished(one);
        QCOMPARE(conditional.status, 8);
        QVERIFY2(conditional.out.count(",VW0,VW0,3,,good\n") == 1, qPrintable(text(conditional)));
        const Run rounds = finished(two);
        QCOMPARE(rounds.status, 0);
        QVERIFY2(rounds.out.count(",3,,good\n") >= 2 && rounds.out.count(",4,,good\n") >= 2,
                 qPrintable(text(rounds)));
    }

    void explainsInFewWords()
    {
        const Run few = run(QString("explain VW0 VW2 VW4 VW6 VW8 VW10 VW12 VW14 VW16").split(' '));
        QVERIFY2(few.out.contains("  VW0 VW2 VW4 VW6 VW8 VW10 and 3 more\n"),
                 qPrintable(text(few)));
    }

    // One reply of six is spoilt: it is counted, and nothing is blamed on the handshake.
    void pings()
    {
        const Simulator simulator("wrong-length:every 4");
        const Run ping = run(simulator.command("ping --count 6 --interval 1"));
        QCOMPARE(ping.status, 6);
        QVERIFY2(ping.out.contains("6 reads, 5 answered; ") &&
                     ping.out.contains("; failures: 1 wrong length\n") &&
                     !ping.err.contains("good before"),
                 qPrintable(text(ping)));
    }

    void replaysOtherVariables()
    {
        const Simulator simulator;
        const QTemporaryDir folder;
        const QString trace = folder.filePath("trace.pcap");
        QCOMPARE(run(simulator.command("read VW100 --trace " + trace)).status, 0);
        const Run replay = run({"replay", trace, "VW102"});
        QCOMPARE(replay.status, 1);
        QVERIFY2(replay.out.contains("start address: the driver sends 30, the capture has 20\n"),
                 qPrintable(text(replay)));
    }

    // What was refused is not said to be written, whatever was written beside it.
    void writesInPart()
    {
        const Simulator simulator;
        const Run write = run(simulator.command("write VW0=1 SM0.0=1"));
        QCOMPARE(write.status, 6);
        QVERIFY2(write.err.contains("VW0: written\n") && !write.err.contains("SM0.0: written"),
                 qPrintable(text(write)));
        QCOMPARE(write.out, QString());
    }

    // Ten that fail alike are named; of eleven the last is counted.
    void namesOfMany()
    {
        QStringList command = {"read", "--controller", "127.0.0.1:1"};
        for (int i = 0; i < 10; ++i)
            command.append("VW" + QString::number(2 * i));
        const Run ten = run(command);
        QVERIFY2(ten.err.contains(" VW18: no connection"), qPrintable(text(ten)));
        const Run eleven = run(command << "VW20");
        QVERIFY2(eleven.err.contains(" VW18 and 1 more: no connection"), qPrintable(text(eleven)));
    }

    void closedOutput()
    {
        const Simulator simulator;
        const Run closed = shell("panel read VW0 --controller " + simulator.address() + " >&-");
        QCOMPARE(closed.status, 7);
        QVERIFY2(closed.err.contains("cannot write to standard output"), qPrintable(text(closed)));
    }

    // As below nohup; and what comes in halves is one line.
    void ignoredSignal()
    {
        const Simulator simulator;
        Panel panel({});
        panel.process.waitForFinished(LongMs);
        const QString command =
            simulator.command(PANEL_PROGRAM " watch --writes --interval 20 VW8").join(' ');
        panel.process.start("sh", {"-c", "trap '' HUP; exec " + command});
        QVERIFY(panel.waitFor(Out, "VW8 0\n"));
        panel.signal(SIGHUP);
        panel.process.write("VW8=");
        QVERIFY(panel.process.waitForBytesWritten(LongMs));
        QTest::qWait(100); // only so that a fault shows
        panel.process.write("9\n");
        QVERIFY(panel.waitFor(Out, "VW8 9\n"));
        panel.process.write("quit\n");
        const Run end = finished(panel);
        QCOMPARE(end.status, 0);
        QVERIFY2(!end.err.contains("newline"), qPrintable(text(end)));
    }

    // Frames in words; the fields of a reply that says no.
    void frameTexts()
    {
        const auto read = [](const char* item) {
            return describeRequest(QByteArray::fromHex(
                "0300001f02f08032010000000700 0e00000401120a10" + QByteArray(item)));
        };
        QCOMPARE(read("040003000006000010"), QString("read AIW2 to AIW6"));
        QCOMPARE(read("040001000006000010"), QString("read AIW2"));
        QCOMPARE(read("1f000300001f000025"), QString("read T37 to T39"));
        QCOMPARE(read("020003000184000320"), QString("read VB100 to VB102"));
        QCOMPARE(read("01000100008300000b"), QString("read M1.3"));
        QCOMPARE(read("020003000177000320"), QString("read area 0x77"));
    }

    // Which step fails by what, and what is blamed for it.
    void usualCauses()
    {
        const struct {
            ProbeStep step;
            Cause cause;
            bool wasGood;
            const char* text;
        } rows[] = {
            {ProbeStep::LookUp, Cause::NoConnection, false, "name is misspelt"},
            {ProbeStep::Connect, Cause::NoConnection, false, "no route"},
            {ProbeStep::TpduConnection, Cause::NotS7, false, "no S7 module: another device"},
            {ProbeStep::TpduConnection, Cause::TimedOut, false, "or one that hangs"},
            {ProbeStep::TpduConnection, Cause::ConnectionRefused, false, "TSAPs are refused"},
            {ProbeStep::Setup, Cause::TimedOut, false, "does not speak S7"},
            {ProbeStep::Setup, Cause::TimedOut, true, "it was good before"},
            {ProbeStep::Read, Cause::TimedOut, true, "longer than --timeout"},
            {ProbeStep::Read, Cause::Refused, false, "password"},
            {ProbeStep::Read, Cause::Closed, true, "somebody else took"},
        };
        for (const auto& row : rows) {
            ProbeResults results;
            results.step = row.step;
            results.failure.cause = row.cause;
            if (row.wasGood)
                results.roundTripsUs = {1};
            const QString text = usualCause(results, ControllerSettings());
            QVERIFY2(text.contains(row.text), qPrintable(row.text + (": " + text)));
        }
    }
};

QTEST_GUILESS_MAIN(PanelCommandsTest)
#include "panel_commands_test.moc"
