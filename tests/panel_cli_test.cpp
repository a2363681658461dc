// The panel as its user meets it: a program with exit statuses, values on standard output and
// everything else on standard error.

#include "panel/commands.h"
#include "panel/watched_row.h"
#include "tests/panel_process.h"
#include "tests/text_table.h"

using namespace s7200;
using namespace s7200::panel;
using namespace s7200::sim;

namespace
{

/// What is wrong with a command line, found without running it.
QString faultOf(const QString& text)
{
    QStringList arguments = text.split(' ');
    for (const Command& command : allCommands()) {
        if (arguments.first() != QLatin1String(command.name))
            continue;
        CommandLine line;
        QString help, error;
        QVector<Item> items;
        if (line.parse(command, arguments, &help, &error) &&
            line.resolve(line.operands(), &items, &error) && line.options().isSet("until")) {
            Condition condition;
            for (const QString& until : line.options().values("until"))
                Condition::parse(until, &line, &condition, &error);
        }
        return error;
    }
    return "no such command";
}

} // namespace

class PanelCliTest : public QObject
{
    Q_OBJECT

private slots:
    // Each fault names what was given, or what would be right.
    void faultsOfCommandLines()
    {
        check(R"(
            watch VW0 --controller 10.0.0.5 ->
            watch VW0 --controller [fe80::1]:5 --local-tsap 10.00 --remote-tsap 1101 ->
            watch a:VW0 4:VW0 *:VW2 --controller A=h:1 --controller 4=h:2 --output=--wait ->
            watch VW0@3 VW0 --controller 3=h --controller 2=i --one-driver ->
            watch --until VW0>=-3 --until VD4/f!=2.5 --until M0.3==true ->
            watch XW0 -> XW0              | watch VW0 --nonsense -> nonsense
            watch VW0 --timeout 0 -> 1 to | watch VW0 --interval 5x -> '5x'
            watch VW0 --block-limit 223 -> 222
            watch VW0 --controller h:0 -> 'h:0'
            watch VW0 --controller h:65536 -> 'h:65536'
            watch VW0 --controller =h -> '=h' | watch VW0 --controller a=b=c -> 'a=b=c'
            watch VW0 --controller 10.0.0.5:1:99 -> '10.0.0.5:1:99'
            watch VW0 --controller a@b=h -> 'a@b' | watch c*:VW0 -> 'c*' cannot
            watch c:XW0 --controller c=h -> 'c:XW0': no such variable
            watch c:VW0@3 --controller 3=h -> controller 'c' and, by its address, station 3
            watch VW0 --controller [::1]102 -> '[::1]102' | watch VW0 --controller -x -> '-x'
            watch VW0 --local-tsap 1 -> two hexadecimal bytes
            watch VW0 --remote-tsap 00.00 -> '00.00'
            watch VW0 --controller h --controller i -> NAME=HOST
            watch VW0 --controller a=h --controller A=i -> 'A'
            watch VW0 --controller a=h --controller b=i -> VW0: say on which
            watch c:VW0 --controller a=h -> 'c'
            watch VW0@3 --controller h -> --controller 3=HOST
            watch VW0@4 --controller 3=h --one-driver -> station '4'
            watch VW0 --controller a=h --one-driver -> 'a'
            watch VW0 --controllers /nowhere/c.csv -> /nowhere/c.csv
            watch VW0 --tags /nowhere/t.csv -> /nowhere/t.csv
            watch --until VW0 -> 'VW0'        | watch --until VW0>x -> 'VW0>x'
            watch --until VW0x2>1 -> one value | watch --until XW0>1 -> XW0
            write VW0=1 -> --controller HOST
            write VW0=1 --controller --verify -> --controller needs a value, and the option '--verify'
            watch --tags -format x -> '-format' | watch x*:VW0 --controller a=h -> like 'x*'
        )",
              faultOf, Match::Message);
    }

    void runs()
    {
        // What a controller is like that a row asks for.
        const QMap<QString, QString> faults = {{"good", ""},
                                               {"off", ""},
                                               {"silent", "silent-accept"},
                                               {"mute", "lost:address 0"},
                                               {"closing", "close-mid-frame"},
                                               {"refusing", "error-class"},
                                               {"babbling", "garbage-confirm"}};
        const struct {
            const char* controller; // null: none is given
            const char* line;
            int status;
            const char* out; // null: not looked at
            const char* err; // part of it
        } rows[] = {
            {nullptr, "--help", 0, nullptr, ""},
            {nullptr, "--version", 0, nullptr, ""},
            {nullptr, "watch --help", 0, nullptr, ""},
            // Nothing is sent and one line says what is wrong.
            {nullptr, "frobnicate", 2, "", "'frobnicate'; it is one of watch, read, write"},
            {nullptr, "watch VW0 --driver /nowhere/driver.so", 2, "", "/nowhere/driver.so"},
            {nullptr, "watch VW0 --trace /nowhere/trace", 2, "", "/nowhere/trace"},
            {nullptr, "watch VW0 --output /nowhere/out", 2, "", "/nowhere/out"},
            {nullptr, "write VW0=1", 2, "", "needs a controller"},
            {nullptr, "read XW0 YW0", 2, "", "'YW0'"},
            // Simulated controllers of the panel's own.
            {nullptr, "read SM0.0 VW4000", 0, "SM0.0 1\nVW4000 0\n", "simulated"},
            {nullptr, "read --remote SM0.0", 0, "SM0.0 1\n", ""},
            {nullptr, "watch --count 1 --timeout 20000 VW4000@1 VW4002@1", 0,
             "VW4000@1 0\nVW4002@1 0\n", "0 retries"},
            {nullptr, "watch --count 1 --timeout 20000 M0.0@1 M0.0@2 M0.0@3 M0.0@4 M0.0@5 M0.0@6",
             0, nullptr, "0 retries"},
            // Controllers that are not there, that fail, and that refuse.
            {"off", "watch VW0", 3, "VW0 ? link down\n", "no connection to 127.0.0.1"},
            {"off", "watch --wait --duration 1 VW0", 3, "VW0 ? link down\n",
             "no connection to 127.0.0.1"},
            {"off", "read VW0 VW2", 3, "", "VW0 VW2: no connection to 127.0.0.1"},
            {"silent", "watch --timeout 1000 --retries 1 VW0", 4, "VW0 ? link down\n",
             "no reply within"},
            {"silent", "watch --duration 0.3 VW0", 4, nullptr, "no answer yet"},
            {"silent", "read --timeout 1000 --retries 0 VW0", 4, "", "no reply within"},
            {"mute", "watch --count 2 --timeout 1000 --retries 0 VW0", 4, "VW0 ? link down\n",
             "no reply within"},
            {"closing", "watch --retries 1 VW0", 3, "VW0 ? link down\n",
             "closed by the controller"},
            {"babbling", "watch --timeout 500 --retries 0 VW0", 5, "VW0 ? link down\n",
             "not an S7 reply"},
            {"refusing", "watch --duration 1 VW0", 5, nullptr, "refused by 127.0.0.1"},
            {"good", "watch --duration 2 MW4000 VW0", 6, nullptr, "MW4000: refused by"},
            // Conditions.
            {"good", "watch --until VW0==0 --until VW2=0", 0, "VW0 0\nVW2 0\n", ""},
            {"good", "watch --until VW0>0 --duration 0.5 VW2", 8, "VW2 0\nVW0 0\n", "not met"},
            {"silent", "watch --until VW0>0 --duration 0.3", 4, nullptr, "no answer yet"},
            {"good", "watch --count 1 --until VW0!=0 --duration 9e6", 8, "VW0 0\n", "not met"},
        };
        std::map<QString, Simulator> simulators;
        for (auto it = faults.begin(); it != faults.end(); ++it)
            simulators.emplace(it.key(), it.value());
        simulators.at("off").thread->stop();
        std::vector<std::unique_ptr<Panel>> panels;
        for (const auto& row : rows)
            panels.emplace_back(new Panel(row.controller
                                              ? simulators.at(row.controller).command(row.line)
                                              : QString(row.line).split(' ')));
        for (size_t i = 0; i < panels.size(); ++i) {
            const auto& row = rows[i];
            const int status = panels[i]->finish();
            const QString out = QString::fromUtf8(panels[i]->process.readAllStandardOutput());
            const QString err = QString::fromUtf8(panels[i]->process.readAllStandardError());
            const QByteArray seen =
                QStringLiteral("%1: %2\n%3%4").arg(row.line).arg(status).arg(out, err).toUtf8();
            QVERIFY2(status == row.status && err.contains(row.err), seen);
            // On a slow machine what was not yet read may be told before.
            QVERIFY2(!row.out           ? status != 0 || !out.isEmpty()
                     : *row.out == '\0' ? out.isEmpty()
                                        : out.endsWith(row.out),
                     seen);
            QVERIFY2(status != 2 || err.count('\n') <= 2, seen);
        }
        for (const char* faulty : {"silent", "mute", "closing", "refusing", "babbling"})
            QVERIFY2(!simulators.at(faulty).thread->faultCounts().isEmpty(), faulty);
    }

    // A line a change, nothing else, and the values of a dead controller never as current ones.
    void throughAnOutage()
    {
        Simulator simulator;
        Panel panel(simulator.command("watch --writes --interval 100 --retries 1 VW0"));
        QVERIFY(panel.waitFor(Out, "VW0 0\n"));
        panel.process.write("VW0=5\nVW0=99999\nSM0.0=1\n");
        QVERIFY(panel.waitFor(Out, "VW0 5\n"));
        QVERIFY(panel.waitFor(Err, "-32768 to 65535"));
        QVERIFY(panel.waitFor(Err, "SM0.0=1: not written: refused"));
        simulator.thread->stop();
        QVERIFY(panel.waitFor(Out, "VW0 ?"));
        QVERIFY(panel.waitFor(Err, "link down"));
        panel.process.write("VW20=5\n"); // refused, not kept
        QVERIFY(panel.waitFor(Err, "VW20=5: not written"));
        simulator.thread->poke(SimulatorArea::V, 0, QByteArray::fromHex("0008"));
        simulator.start();
        QVERIFY(panel.waitFor(Err, "link up"));
        QVERIFY(panel.waitFor(Out, "VW0 8\n"));
        QCOMPARE(simulator.thread->peek(SimulatorArea::V, 20, 2), QByteArray(2, '\0'));
        panel.process.write("quit\n");
        QCOMPARE(panel.finish(), 0);
        QVERIFY(panel.waitFor(Err, "1 link loss, 1 reconnect in "));
    }

    // --one-driver or a driver each: the same values from the same controllers.
    void severalControllers()
    {
        const Simulator three;
        const Simulator four;
        three.thread->poke(SimulatorArea::V, 0, QByteArray::fromHex("0003"));
        four.thread->poke(SimulatorArea::V, 0, QByteArray::fromHex("0004"));
        const QStringList to = {"--controller", "3=" + three.address(),
                                "--controller", "4=" + four.address(),
                                "VW0@4",        "VW0@3"};
        for (const QString mode : {"--one-driver", "--wait"}) {
            Panel panel(QStringList{"watch", "--count", "1", mode} + to);
            QCOMPARE(panel.finish(), 0);
            QString lines = panel.process.readAllStandardOutput();
            QVERIFY2(lines.contains("VW0@4 4\n") && lines.contains("VW0@3 3\n"), qPrintable(lines));
        }
        // Nobody but who is named is connected, until a value is written.
        Panel one(QStringList{"watch", "--writes", "--controller", "9=127.0.0.1:1"} + to.mid(0, 5));
        QVERIFY(one.waitFor(Out, "VW0@4 4\n"));
        one.process.write("VW2@3=5\n");
        QVERIFY(one.waitFor(Err, "VW2@3=5: written"));
        one.signal(SIGINT);
        QCOMPARE(one.finish(), 0);
        QVERIFY(!one.process.readAllStandardError().contains("failures"));
        // A name of that format for records, and events in the same stream.
        Panel records(QStringList{"watch", "--count", "1", "--format", "jsonl"} + to);
        QCOMPARE(records.finish(), 0);
        const QString lines = records.process.readAllStandardOutput();
        QVERIFY2(lines.contains("\"VW0\",\"controller\":\"3\"") &&
                     lines.contains("\"event\":\"link\""),
                 qPrintable(lines));
    }

    void outputElsewhere()
    {
        const Simulator simulator;
        // Standard output that cannot be written, and one whose reader has gone.
        Panel full(simulator.command("watch VW0"), "/dev/full");
        QCOMPARE(full.finish(), 7);
        QVERIFY(full.waitFor(Err, "cannot write to standard output"));
        const QString endless =
            simulator.command(PANEL_PROGRAM " watch --interval 50 VW0").join(' ');
        QProcess shell;
        shell.start("sh", {"-c", "{ " + endless + "; echo status $? >&2; } | head -n 1"});
        QVERIFY(shell.waitForFinished(LongMs));
        QCOMPARE(shell.readAllStandardOutput(), QByteArray("VW0 0\n"));
        QVERIFY(shell.readAllStandardError().contains("status 7"));
        // A file that is moved away is begun anew after SIGHUP.
        const QTemporaryDir directory;
        const QString file = directory.filePath("out.csv");
        Panel watch(simulator.command("watch --writes --interval 50 --format csv --output " + file +
                                      " VW0"));
        const auto begun = [&] { return QFile(file).size() > 60; };
        QTRY_VERIFY_WITH_TIMEOUT(begun(), LongMs);
        QVERIFY(QFile::rename(file, file + ".1"));
        watch.process.write("VW0=6"); // cut off, for all that is known
        watch.process.closeWriteChannel();
        QVERIFY(watch.waitFor(Err, "VW0=6: not written"));
        watch.signal(SIGHUP);
        QTRY_VERIFY_WITH_TIMEOUT(begun(), LongMs);
        watch.signal(SIGINT);
        QCOMPARE(watch.finish(), 0);
        QFile again(file);
        QVERIFY(again.open(QIODevice::ReadOnly) && again.readAll().startsWith("time,controller,"));
        // The trace is a capture, and not overwritten unasked.
        const QString trace = directory.filePath("trace.pcap");
        for (const int status : {0, 2}) {
            Panel traced(simulator.command("read VW100 --trace " + trace));
            QCOMPARE(traced.finish(), status);
        }
        Panel unwritten(simulator.command("read VW100 --trace /dev/full"));
        QCOMPARE(unwritten.finish(), 7);
        QVERIFY(unwritten.waitFor(Err, "/dev/full: No space left"));
        QFile capture(trace);
        QVERIFY(capture.open(QIODevice::ReadOnly));
        QVERIFY(capture.readAll().contains(QByteArray::fromHex("120a10020002000184000320")));
    }

    // The system's loader takes the first copy of the driver for the driver from then on.
    void controllersWhereOnlyTheLoaderFindsTheDriver()
    {
        const Simulator simulator;
        const QTemporaryDir directory;
        const QString program = directory.filePath("panel");
        QVERIFY(QFile::copy(PANEL_PROGRAM, program));
        const QString address = simulator.command("").last();
        QString error;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LD_LIBRARY_PATH",
                           QFileInfo(findDriver(QString(), &error)).absolutePath());
        QProcess process;
        process.setProcessEnvironment(environment);
        process.start(program, {"read", "--controller", "a=" + address, "--controller",
                                "b=" + address, "a:VW0", "b:VW0"});
        QVERIFY(process.waitForFinished(LongMs));
        QVERIFY2(process.exitCode() == 0, process.readAllStandardError());
    }
};

QTEST_GUILESS_MAIN(PanelCliTest)
#include "panel_cli_test.moc"
