// A run of watch from its first moment to its end: what comes in by the keyboard, by standard input
// and by signals, what goes out as a screen, messages and records, and what ends it.

#include "tests/panel_process.h"

#include <s7200host/controller.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

using namespace s7200;
using namespace s7200::panel;
using namespace s7200::sim;

namespace
{

/// The master's end; -1 where there are none, as in a bare chroot.
int openTerminal()
{
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal >= 0 && ::grantpt(terminal) == 0 && ::unlockpt(terminal) == 0)
        return terminal;
    ::close(terminal);
    return -1;
}

/// A terminal of 10 lines of 60 letters, and a panel on it.
class Screen
{
public:
    Screen() : m_terminal(openTerminal()), m_panel({})
    {
        if (m_terminal < 0)
            return;
        m_name = ::ptsname(m_terminal);
        m_keeper = ::open(m_name.toLatin1().constData(), O_RDWR | O_NOCTTY);
        const winsize size = {10, 60, 0, 0};
        ::ioctl(m_terminal, TIOCSWINSZ, &size);
        ::tcgetattr(m_terminal, &m_before);
        ::fcntl(m_terminal, F_SETFL, O_NONBLOCK);
    }

    ~Screen()
    {
        ::close(m_keeper);
        ::close(m_terminal);
    }

    bool exists() const
    {
        return m_terminal >= 0;
    }

    /// `program` with arguments; the panel or a shell around it.
    void start(const QStringList& arguments, const QString& program = PANEL_PROGRAM)
    {
        m_panel.process.waitForFinished();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("TERM", "xterm");
        m_panel.process.setProcessEnvironment(environment);
        m_panel.process.setStandardInputFile(m_name);
        m_panel.process.setStandardOutputFile(m_name, QIODevice::Append);
        m_panel.process.start(program, arguments);
    }

    Panel& panel()
    {
        return m_panel;
    }

    /// What was drawn since the start, control sequences and all, has this text.
    bool shows(const QString& text)
    {
        char bytes[4096];
        for (ssize_t got; (got = ::read(m_terminal, bytes, sizeof bytes)) > 0;)
            m_shown += QString::fromUtf8(bytes, int(got));
        return m_shown.contains(text);
    }

    bool matches(const QString& pattern)
    {
        return shows(QString()) && QRegularExpression(pattern).match(m_shown).hasMatch();
    }

    bool type(const QByteArray& keys)
    {
        return ::write(m_terminal, keys.constData(), size_t(keys.size())) == keys.size();
    }

    /// It takes lines and echoes, as before.
    bool isAsBefore()
    {
        termios after = {};
        ::tcgetattr(m_terminal, &after);
        return shows("\x1b[?1049l") && after.c_lflag == m_before.c_lflag &&
               after.c_iflag == m_before.c_iflag;
    }

private:
    const int m_terminal;
    int m_keeper = -1; ///< Without it the terminal hangs up with the panel.
    QString m_name;
    termios m_before = {};
    QString m_shown;
    Panel m_panel;
};

QByteArray contentsOf(const QString& file)
{
    QFile opened(file);
    return opened.open(QIODevice::ReadOnly) ? opened.readAll() : QByteArray("unreadable");
}

/// A file that can grow by so many bytes where limited() holds; more than a copy of the driver is.
constexpr int LimitBlocks = 40 * 2048;
void makeLarge(const QString& file, int bytesLeft)
{
    QFile large(file);
    QVERIFY(large.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QVERIFY(large.resize(LimitBlocks * 512 - bytesLeft));
}

/// For sh, which counts in blocks of 512 bytes.
QStringList limited(const QStringList& command)
{
    return {"-c", QStringLiteral("ulimit -f %1; exec ").arg(LimitBlocks) + command.join(' ')};
}

} // namespace

class PanelWatchTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        const rlimit none = {0, 0}; // of what SIGQUIT leaves
        ::setrlimit(RLIMIT_CORE, &none);
    }

    // A file of controllers has the last word; the slowest of them makes the round.
    void roundsOfSeveralIntervals()
    {
        const Simulator simulator;
        const QTemporaryDir directory;
        const QString file = directory.filePath("controllers.csv");
        QFile written(file);
        QVERIFY(written.open(QIODevice::WriteOnly));
        const QByteArray port = QByteArray::number(simulator.thread->port());
        written.write("name,host,port,interval\nfast,127.0.0.1," + port + ",20\nslow,127.0.0.1," +
                      port + ",2500\n");
        written.close();
        Panel panel({"watch", "--interval", "50", "--controllers", file, "--count", "2", "--format",
                     "csv", "fast:VW0", "slow:VW2"});
        QCOMPARE(panel.finish(), 0);
        const QByteArray records = panel.process.readAllStandardOutput();
        QVERIFY2(records.count(",VW2,VW2,0,,good") == 2, records);
        QVERIFY(panel.waitFor(Err, " cycles")); // at least, of both
        QVERIFY(panel.waitFor(Err, " 2 connections, 0 link losses in "));
    }

    // Each loss and return is a record; a message tells of the first and counts the rest.
    void everyLossIsARecord()
    {
        const Simulator closing("close-mid-frame:every 9");
        const Simulator refusing;
        const std::tuple<const Simulator&, QString, QString> rows[] = {
            {closing, "--count 30 VW0", "closed"},
            {refusing, "--count 10 VW0 MW4000 QW4000 IW4000", "refused"}};
        for (const auto& [simulator, what, cause] : rows) {
            Panel panel(simulator.command("watch --interval 20 --format jsonl " + what));
            panel.finish();
            const QString out = panel.process.readAllStandardOutput();
            const QString err = panel.process.readAllStandardError();
            const auto sum =
                QRegularExpression("(\\d+) link losses, (\\d+) reconnects in").match(err);
            QVERIFY2(sum.hasMatch() && sum.captured(1).toInt() > 1, qPrintable(err));
            QCOMPARE(int(out.count("\"state\":\"up\"")), sum.captured(2).toInt() + 1);
            QCOMPARE(int(out.count("{\"cause\":\"" + cause)), sum.captured(1).toInt());
            QCOMPARE(int(err.count(" link down: ")), 1);
            const QString rest = ": link down \\d+ times? more: " + cause;
            QVERIFY2(err.contains(QRegularExpression(rest)), qPrintable(err));
        }
    }

    // What is not said to be meant for the controller is left to whom it is meant for.
    void standardInput()
    {
        const Simulator simulator;
        QProcess shell;
        shell.start("sh",
                    {"-c", "printf 'VW0=5\\nquit\\n' | { " PANEL_PROGRAM " " +
                               simulator.command("watch --count 3 --interval 20 VW0").join(' ') +
                               "; cat; }"});
        QVERIFY(shell.waitForFinished(LongMs));
        QCOMPARE(shell.readAllStandardOutput(), QByteArray("VW0 0\nVW0=5\nquit\n"));
        QVERIFY(shell.readAllStandardError().contains(" 3 cycles"));
        Panel panel(simulator.command("watch --writes --interval 20 VW0"));
        panel.process.write("VW0=5\nquit\n");
        QVERIFY(panel.waitFor(Err, "VW0=5: written\n"));
        QCOMPARE(panel.finish(), 0);
        QCOMPARE(simulator.thread->peek(SimulatorArea::V, 0, 2), QByteArray::fromHex("0005"));
        Panel both(simulator.command("watch --writes --read-only VW0"));
        QCOMPARE(both.finish(), 2);
        QVERIFY(both.waitFor(Err, "--read-only"));
    }

    // Local time, while it runs; other commands, and what sums it up, have no need of it.
    void messagesCarryTheTime()
    {
        const Simulator simulator;
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("TZ", "ABC-05:30"); // this side of Greenwich, POSIX has it
        process.setProcessEnvironment(environment);
        const auto localSecond = [] {
            return QDateTime::currentDateTimeUtc().addSecs(5 * 3600 + 30 * 60);
        };
        const QDateTime before = localSecond();
        process.start(PANEL_PROGRAM, simulator.command("watch --count 1 VW0"));
        QVERIFY(process.waitForFinished(LongMs));
        const QByteArray err = process.readAllStandardError();
        const auto up =
            QRegularExpression("^s7200-panel: (\\d\\d:\\d\\d:\\d\\d) link up: ").match(err);
        QVERIFY2(up.hasMatch(), err);
        QSet<QString> right;
        for (QDateTime time = before; time < localSecond().addSecs(1); time = time.addSecs(1))
            right.insert(time.toString("HH:mm:ss"));
        QVERIFY2(right.contains(up.captured(1)), err);
        QVERIFY2(err.contains("\ns7200-panel: 1 cycle"), err);
        Panel refused(simulator.command("read MW4000"));
        QCOMPARE(refused.finish(), 5);
        QVERIFY(refused.process.readAllStandardError().startsWith("s7200-panel: MW4000: "));
    }

    // A limit of file sizes is like a full disk: it is told, and what is in the file is whole.
    void fileSizeLimit()
    {
        const Simulator simulator;
        const QTemporaryDir directory;
        const QString file = directory.filePath("out.csv");
        const QString watch = PANEL_PROGRAM " watch --interval 20 --format csv VB0x100";
        for (const QString& end : {" --output " + file, " >>" + file}) {
            makeLarge(file, 700);
            QProcess shell;
            shell.start("sh", limited(simulator.command(watch + end)));
            QVERIFY(shell.waitForFinished(LongMs));
            const QByteArray err = shell.readAllStandardError();
            QVERIFY2(shell.exitStatus() == QProcess::NormalExit && shell.exitCode() == 7 &&
                         err.contains("File too large"),
                     err);
            const QByteArray records = contentsOf(file).right(500);
            QVERIFY2(records.endsWith(",,good\n"), records);
        }
        Screen screen;
        if (!screen.exists())
            QSKIP("no pseudo-terminals here");
        makeLarge(file, 700);
        screen.start(limited(simulator.command(watch + " --output " + file)), "sh");
        QCOMPARE(screen.panel().finish(), 7);
        QVERIFY(screen.isAsBefore());
    }

    void signalsEndAnything()
    {
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            for (const QString line : {"watch VW0", "watch --until VW0>0", "read VW0"}) {
                const Simulator simulator("silent-accept");
                Panel panel(simulator.command(line + " --timeout 3600000"));
                QTRY_VERIFY_WITH_TIMEOUT(!simulator.thread->faultCounts().isEmpty(), LongMs);
                panel.signal(number);
                QCOMPARE(panel.finish(), line == "watch VW0" ? 0 : line == "read VW0" ? 4 : 8);
            }
        }
        // Whoever asks for it so gets it so, with the terminal in order.
        Screen screen;
        if (!screen.exists())
            QSKIP("no pseudo-terminals here");
        const Simulator simulator;
        screen.start(simulator.command("watch VW0"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows(" up | "), LongMs);
        screen.panel().signal(SIGQUIT);
        QCOMPARE(screen.panel().finish(), -1);
        QCOMPARE(screen.panel().process.exitCode(), SIGQUIT);
        QVERIFY(screen.isAsBefore());
    }

    // A shell's job in the background goes on recording, whatever is typed to others.
    void inTheBackground()
    {
        const int terminal = openTerminal();
        if (terminal < 0)
            QSKIP("no pseudo-terminals here");
        const Simulator simulator;
        const QTemporaryDir directory;
        const QString file = directory.filePath("out.csv");
        const QString line = "watch --interval 50 --duration 60 --output " + file + " VW0";
        QProcess shell;
        shell.setStandardInputFile(::ptsname(terminal));
        shell.setStandardOutputFile(::ptsname(terminal), QIODevice::Append);
        shell.start("setsid", {"--ctty", "--wait", "sh", "-mc",
                               "TERM=xterm " PANEL_PROGRAM " " + simulator.command(line).join(' ') +
                                   " --format csv & head -n 2; kill $!"});
        const auto grows = [&](qint64 from) { return QFile(file).size() > from + 300; };
        QTRY_VERIFY_WITH_TIMEOUT(grows(0), LongMs);
        QCOMPARE(int(::write(terminal, "quit\n", 5)), 5);
        const qint64 size = QFile(file).size();
        QTRY_VERIFY_WITH_TIMEOUT(grows(size), LongMs);
        QCOMPARE(int(::write(terminal, "end\n", 4)), 4);
        QVERIFY(shell.waitForFinished(LongMs));
        ::close(terminal);
    }

    // On a terminal: a screen from the first moment, keys, and the terminal as it was.
    void screen()
    {
        Screen screen;
        if (!screen.exists())
            QSKIP("no pseudo-terminals here");
        Simulator simulator("silent-accept");
        screen.start(simulator.command("watch --timeout 500 --retries 99 VW100x30"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("connecting to 127.0.0.1"), LongMs);
        QVERIFY(screen.shows("\x1b[?1049h") && screen.shows("\x1b[K"));
        // The back-off of the attempt that failed last, not that of the first.
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("; again in 2 s"), LongMs);
        QString error;
        QVERIFY(simulator.thread->setFaults({}, &error));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("1-8 of 30") && screen.shows(" up | "), LongMs);
        QVERIFY(screen.type("\x1b[6~VW110=77"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("9-16 of 30") && screen.shows("write> VW110=77"),
                                 LongMs);
        QVERIFY(screen.type("\r"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.matches("\\d\\d:\\d\\d:\\d\\d VW110=77: written"), LongMs);
        QVERIFY(screen.type("q"));
        QCOMPARE(screen.panel().finish(), 0);
        QVERIFY(screen.isAsBefore());
    }

    void screenWithoutWriting()
    {
        Screen screen;
        if (!screen.exists())
            QSKIP("no pseudo-terminals here");
        const Simulator simulator;
        screen.start(simulator.command("watch --read-only VW0"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("VW0 "), LongMs);
        QVERIFY(screen.type("VW0=7\r"));
        QTRY_VERIFY_WITH_TIMEOUT(screen.shows("VW0=7: not written, since --read-only"), LongMs);
        QVERIFY(screen.shows("read-only> "));
        QVERIFY(screen.type("q"));
        QCOMPARE(screen.panel().finish(), 0);
        QCOMPARE(simulator.thread->peek(SimulatorArea::V, 0, 2), QByteArray(2, '\0'));
    }
};

QTEST_GUILESS_MAIN(PanelWatchTest)
#include "panel_watch_test.moc"
