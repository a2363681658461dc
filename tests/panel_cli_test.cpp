// The panel as its user meets it: a program with exit statuses, values on standard output and
// everything else on standard error.

#include "simulator/simulator_thread.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

using namespace s7200::sim;

namespace
{

constexpr auto Out = QProcess::StandardOutput;
constexpr auto Err = QProcess::StandardError;
constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.

struct Run {
    int status = -1;
    QString out;
    QString err;
};

Run runPanel(const QStringList& arguments)
{
    QProcess process;
    process.start(PANEL_PROGRAM, arguments);
    process.closeWriteChannel();
    Run run;
    if (!process.waitForFinished(LongMs)) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    run.err = QString::fromLocal8Bit(process.readAllStandardError());
    return run;
}

/// A panel that runs until it is told to end.
class LongRun
{
public:
    explicit LongRun(const QStringList& arguments)
    {
        process.start(PANEL_PROGRAM, arguments);
    }

    ~LongRun()
    {
        process.kill();
        process.waitForFinished();
    }

    /// Exit status; -1 if it does not end.
    int interrupt()
    {
        ::kill(pid_t(process.processId()), SIGINT);
        return process.waitForFinished(LongMs) ? process.exitCode() : -1;
    }

    /// Waits until the channel has this text behind what was waited for.
    bool waitFor(QProcess::ProcessChannel channel, const QString& text)
    {
        QString& unread = seen[channel];
        const QDeadlineTimer deadline(LongMs);
        for (;;) {
            process.setReadChannel(channel);
            unread += QString::fromLocal8Bit(process.readAll());
            const auto at = unread.indexOf(text);
            if (at >= 0) {
                unread.remove(0, at + text.size());
                return true;
            }
            if (deadline.hasExpired() || !process.waitForReadyRead(LongMs)) {
                qWarning("'%s' has not come; there is '%s'", qPrintable(text), qPrintable(unread));
                return false;
            }
        }
    }

    QProcess process;

private:
    QMap<int, QString> seen; ///< By channel; not yet waited for.
};

/// A controller outside of the panel.
struct Controller {
    explicit Controller(const QString& fault = QString())
    {
        SimulatorOptions options;
        options.liveValues = false;
        if (!fault.isEmpty())
            options.faults = QStringList{fault};
        simulator.reset(new SimulatorThread(options));
        start();
    }

    void start()
    {
        QString error;
        if (!simulator->start(&error))
            qFatal("%s", qPrintable(error));
    }

    QString address() const
    {
        return QStringLiteral("127.0.0.1:%1").arg(simulator->port());
    }

    /// The command line with this controller.
    QStringList command(const QString& line) const
    {
        return line.split(' ') << "--controller" << address();
    }

    std::unique_ptr<SimulatorThread> simulator;
};

} // namespace

class PanelCliTest : public QObject
{
    Q_OBJECT

private slots:
    void help()
    {
        const Run all = runPanel({"--help"});
        QCOMPARE(all.status, 0);
        for (const QString& command : QStringList{"watch", "read", "write"}) {
            QVERIFY(all.out.contains(command));
            const Run one = runPanel({command, "--help"});
            QCOMPARE(one.status, 0);
            QCOMPARE(one.err, QString());
            for (const char* text : {"--controller", "VW100x4", "Exit status", "--trace"})
                QVERIFY2(one.out.contains(text), qPrintable(command + ' ' + text));
        }
    }

    void runs()
    {
        const struct {
            const char* fault; // the controller's; empty: none; null: no controller is given
            const char* line;
            int status;
            const char* out; // null: not looked at
            const char* err; // part of it
        } rows[] = {
            // Nothing is sent and one line says what is wrong.
            {nullptr, "frobnicate", 2, "", "watch, read or write"},
            {nullptr, "read XW0", 2, "", "XW0"},
            {nullptr, "write VW0=1 VB10239=1", 2, "", "VW10238"},
            {nullptr, "read --library /nowhere/driver.so VW0", 2, "", "/nowhere/driver.so"},
            {nullptr, "read --trace /nowhere/trace VW0", 2, "", "/nowhere/trace"},
            // Simulated controllers of the panel's own.
            {nullptr, "read SM0.0 VW4000", 0, "SM0.0 1\nVW4000 0\n", "simulated"},
            {nullptr, "read --remote SM0.0 VW4000", 0, "SM0.0 1\nVW4000 0\n", ""},
            {nullptr, "write --verify VW40=7", 0, "VW40 7\n", "VW40: written"},
            {nullptr, "watch --count 1 SM0.0", 0, "SM0.0 1\n", "link losses"},
            {nullptr, "watch --count 1 SM0.0@1 VW4000@2", 0, "SM0.0@1 1\nVW4000@2 0\n", ""},
            // Controllers that are not there, that fail, and that refuse.
            {"unreachable", "watch VW0", 3, "", "no connection to 127.0.0.1"},
            {"unreachable", "write VW0=1", 3, "", "no connection to 127.0.0.1"},
            {"silent-accept", "read --timeout 300 VW0 VW2", 4, "", "no answer"},
            {"silent-accept", "watch --timeout 300 VW0", 4, "", "no answer"},
            {"lost", "write --timeout 300 --retries 1 VW0=1", 4, "", "no answer"},
            {"lost:address 0", "watch --count 2 --timeout 300 VW0", 4, "VW0 ?\n", "no answer"},
            {"refuse-connection", "read VW0", 3, "", "closed"},
            {"garbage-confirm", "read --timeout 300 VW0", 5, "", "invalid reply"},
            {"error-class", "read VW0", 5, "", "0x81"},
            {"", "read MW4000", 5, "", "out of range"},
            {"", "write SM0.0=1", 5, "", "not allowed"},
            {"", "watch MW4000", 5, nullptr, "out of range"},
            {"", "read MW4000 VW0", 6, "VW0 0\n", "MW4000"},
            {"", "write VW0=1 SM0.0=1", 6, "", "SM0.0"},
            {"", "watch --count 2 MW4000 VW0", 6, nullptr, "MW4000"},
            // A write of VB also clears the byte behind, so the first does not read back.
            {"", "write --verify VB8=5 VB7=1", 6, nullptr, "VB8: written 5, reads back 0"},
        };
        for (const auto& row : rows) {
            const bool unreachable = row.fault == QString("unreachable");
            const Controller controller(unreachable ? QString() : row.fault);
            if (unreachable)
                controller.simulator->stop();
            const Run run =
                runPanel(row.fault ? controller.command(row.line) : QString(row.line).split(' '));
            const QByteArray seen =
                row.line +
                QStringLiteral(": %1\n%2%3").arg(run.status).arg(run.out, run.err).toLocal8Bit();
            QVERIFY2(run.status == row.status && run.err.contains(row.err), seen);
            QVERIFY2(!row.out || run.out == row.out, seen);
            QVERIFY2(run.status != 2 || run.err.count('\n') == 1, seen);
            const bool healthy = !row.fault || !*row.fault || unreachable;
            QVERIFY2(healthy == controller.simulator->faultCounts().isEmpty(), seen);
        }
    }

    void readAndWrite()
    {
        const Controller controller;
        const Run write = runPanel(
            controller.command("write --verify VW100=-2 VD4/float=21.5 M0.3=true VB17=0x10"));
        QCOMPARE(write.status, 0);
        QCOMPARE(write.out, QString("VW100 65534\nVD4 21.5\nM0.3 1\nVB17 16\n"));
        QVERIFY2(write.err.contains("also clears VB18"), qPrintable(write.err));
        const Run read =
            runPanel(controller.command("read VW100/signed VD4/f m0.0x4 VB17/hex VW100x2"));
        QCOMPARE(read.status, 0);
        QCOMPARE(read.out,
                 QString("VW100 -2\nVD4 21.5\nM0.0x4 0 0 0 1\nVB17 0x10\nVW100x2 65534 0\n"));
        QCOMPARE(read.err, QString());
    }

    void stations()
    {
        const Controller three;
        const Controller four;
        three.simulator->poke(SimulatorArea::V, 0, QByteArray::fromHex("0003"));
        four.simulator->poke(SimulatorArea::V, 0, QByteArray::fromHex("0004"));
        const QStringList to = {"--controller", "3=" + three.address(), "--controller",
                                "4=" + four.address()};
        // In the order of the arguments, whichever station answers first.
        for (const QStringList& names :
             {QStringList{"VW0@4", "VW0@3"}, QStringList{"VW0@3", "VW0@4"}}) {
            const Run read = runPanel(QStringList{"read"} + to + names);
            QCOMPARE(read.status, 0);
            QCOMPARE(read.out, QString("%1 %2\n%3 %4\n")
                                   .arg(names[0], names[0].right(1), names[1], names[1].right(1)));
        }
        four.simulator->stop();
        const Run half =
            runPanel(QStringList{"read"} + to + QStringList{"VW0@4", "VW0@3", "VW2@4"});
        QCOMPARE(half.status, 6);
        QCOMPARE(half.out, QString("VW0@3 3\n"));
        // A line for each reason and not for each variable.
        QCOMPARE(int(half.err.count('\n')), 1);
        const QString reason = "VW0@4 VW2@4: no connection to station 4 at " + four.address();
        QVERIFY2(half.err.contains(reason), qPrintable(half.err));
    }

    // A line a change, nothing else, and the values of a dead controller never as current ones.
    void watchThroughAnOutage()
    {
        Controller controller;
        LongRun run(controller.command("watch --interval 10 --retries 1 VW0 M0.0"));
        QVERIFY(run.waitFor(Out, "VW0 0\nM0.0 0\n"));
        controller.simulator->poke(SimulatorArea::V, 0, QByteArray::fromHex("0007"));
        QVERIFY(run.waitFor(Out, "VW0 7\n"));
        controller.simulator->stop();
        QVERIFY(run.waitFor(Out, "VW0 ? was 7\nM0.0 ? was 0\n"));
        QVERIFY(run.waitFor(Err, "link down"));
        run.process.write("VW20=5\n"); // refused, not kept
        QVERIFY(run.waitFor(Err, "VW20=5: not written"));
        controller.simulator->poke(SimulatorArea::V, 0, QByteArray::fromHex("0008"));
        controller.start();
        QVERIFY(run.waitFor(Err, "link up"));
        QVERIFY(run.waitFor(Out, "VW0 8\nM0.0 0\n"));
        QCOMPARE(controller.simulator->peek(SimulatorArea::V, 20, 2), QByteArray(2, '\0'));
        QCOMPARE(run.interrupt(), 0);
        QVERIFY(run.waitFor(Err, "1 link losses"));
    }

    void watchTakesWrites()
    {
        const Controller controller;
        LongRun run(controller.command("watch --interval 10 VW0"));
        QVERIFY(run.waitFor(Out, "VW0 0\n"));
        run.process.write("VW0=5\n");
        QVERIFY(run.waitFor(Out, "VW0 5\n"));
        QVERIFY(run.waitFor(Err, "VW0=5: written"));
        run.process.write("VW0=99999\n");
        QVERIFY(run.waitFor(Err, "-32768 to 65535"));
        run.process.write("SM0.0=1\n");
        QVERIFY(run.waitFor(Err, "SM0.0=1: not written: refused"));
        run.process.closeWriteChannel();
        controller.simulator->poke(SimulatorArea::V, 0, QByteArray::fromHex("0009"));
        QVERIFY(run.waitFor(Out, "VW0 9\n"));
        QCOMPARE(run.interrupt(), 0);
    }

    void interruptEndsAnything()
    {
        for (const char* line : {"watch VW0", "read VW0", "write VW0=1"}) {
            const Controller controller("silent-accept");
            LongRun run(controller.command(QString(line) + " --timeout 3600000"));
            QTRY_VERIFY_WITH_TIMEOUT(!controller.simulator->faultCounts().isEmpty(), LongMs);
            QCOMPARE(run.interrupt(), QString(line).startsWith("watch") ? 0 : 4);
        }
    }

    void trace()
    {
        const Controller controller;
        const QTemporaryDir directory;
        const QString file = directory.filePath("trace.pcap");
        QCOMPARE(runPanel(controller.command("read --trace " + file + " VW100")).status, 0);
        QFile capture(file);
        QVERIFY(capture.open(QIODevice::ReadOnly));
        const QByteArray bytes = capture.readAll();
        QVERIFY(bytes.contains(QByteArray::fromHex("0300001611e0")));
        QVERIFY(bytes.contains(QByteArray::fromHex("0300001611d0")));
        QVERIFY(bytes.contains(QByteArray::fromHex("120a10020002000184000320")));
        const Run lines = runPanel(controller.command("read --trace - VW100"));
        QVERIFY(lines.err.contains("> 0300001611e0") && lines.err.contains("< 0300001611d0"));
        QCOMPARE(lines.out, QString("VW100 0\n"));
    }
};

QTEST_GUILESS_MAIN(PanelCliTest)
#include "panel_cli_test.moc"
