// The simulated controller's server, its faults and its program, over loopback.

#include "simulator/simulator_thread.h"
#include "tests/simulator_frames.h"

#include <QProcess>
#include <QTcpSocket>

#include <tuple>
#include <vector>

using namespace s7200::sim;

namespace
{

constexpr int GuardTime = 20000; // ms; only a failing test ever waits so long

const QByteArray ReadM0 = fromHex("0300001F02F080320100000007000E00000401120A10020001000083000000");
const QByteArray ReplyM0 = readReply(7, QByteArray(1, '\0'));
const QByteArray ReadV100 =
    fromHex("0300001F02F080320100000007000E00000401120A10020002000184000320");
const QByteArray ReplyV100 = readReply(7, "\x12\x34");
const QByteArray WriteV100 =
    fromHex("0300002502F080320100000007000E00060501120A100400010001840003200004 00101234");
const QByteArray UnknownTsap = fromHex("0300000B06800001000003");

/// A client on loopback that blocks until what it waits for is there.
class Client : public QTcpSocket
{
public:
    explicit Client(int port)
    {
        connectToHost(QStringLiteral("127.0.0.1"), quint16(port));
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
        return gets(ConnectRequest, ConnectConfirm) && gets(SetupRequest, setupReply());
    }
    bool isClosedUnanswered()
    {
        return receive().isEmpty() && state() == UnconnectedState;
    }
    /// Whether nothing has come, once the simulator's loop has turned.
    bool hasNothing(int port)
    {
        Client other(port); // no reply, so nothing that could be delayed
        other.send("GET / HTTP/1.0\r\n\r\n");
        const bool turned = other.isClosedUnanswered();
        waitForReadyRead(0);
        return turned && readAll().isEmpty() && state() == ConnectedState;
    }
};

/// A simulator that listens already.
struct Simulator : SimulatorThread {
    explicit Simulator(const SimulatorOptions& options) : SimulatorThread(options)
    {
        QString error;
        QVERIFY2(start(&error), qPrintable(error));
    }
    void exchangeFaults(const QString& fault)
    {
        QString error;
        QVERIFY2(setFaults({fault}, &error), qPrintable(error));
    }
};

SimulatorOptions frozen(const QStringList& faults = {})
{
    SimulatorOptions options;
    options.liveValues = false;
    options.faults = faults;
    return options;
}

/// The program and the first port that it listens on.
struct Program : QProcess {
    explicit Program(const QString& shellCommand)
    {
        start("sh", {"-c", shellCommand.arg(SIMULATOR_PROGRAM)});
        waitForReadyRead(GuardTime);
        line = readLine();
        port = line.mid(line.indexOf(':') + 1).trimmed().split('-').first().toInt();
    }
    ~Program() override
    {
        terminate();
        waitForFinished(GuardTime);
    }
    QByteArray line;
    int port;
};

using Counts = QMap<QString, quint64>;

} // namespace

class SimulatorServerTest : public QObject
{
    Q_OBJECT

private slots:
    void replyFaults()
    {
        // What comes in the place of the reply to the first request; "?" is judged by kind.
        const QByteArray good = ReplyV100, judged = "?";
        // clang-format off
        const std::pair<const char*, QByteArray> rows[] = {
            {"lost", ""}, {"late", good}, {"doubled", good + good}, {"split", good},
            {"truncated", judged}, {"corrupted", judged}, {"close-mid-frame", judged},
            {"wrong-reference", readReply(8, "\x12\x34")},
            {"wrong-length", readReply(7, QByteArray("\x12\x34\x00", 3))},
            {"error-class", QByteArray(good).replace(17, 2, "\x81\x04")},
            {"item-error", readReply(7, "").replace(21, 2, QByteArray("\x0A\0", 2))},
            {"coalesced", good + setupReply()}, {"disconnect", fromHex("0300000B06800001000000")},
            {"empty-tpdu-first", fromHex("0300000702F000") + good}};
        // clang-format on
        for (const auto& [kind, expected] : rows) {
            Simulator simulator(frozen({kind + QString(":address 100")}));
            simulator.poke(SimulatorArea::V, 100, "\x12\x34");
            Client client(simulator.port());
            QVERIFY(client.handshake() && simulator.faultCounts().isEmpty());
            client.send(ReadV100);
            QTRY_COMPARE(simulator.faultCounts(), Counts({{kind, 1}}));
            QVERIFY(QString(kind) != "late" || client.hasNothing(simulator.port()));
            // The second request is not struck; its reply ends what there is to see.
            client.send(ReadM0);
            QByteArray received = client.receive(ReplyM0);
            const bool closed = client.state() == QAbstractSocket::UnconnectedState;
            QCOMPARE(closed, QString(kind) == "close-mid-frame");
            received.chop(closed ? 0 : ReplyM0.size());
            uint differentBits = 0;
            for (int i = 0; i < qMin(received.size(), good.size()); ++i)
                differentBits += qPopulationCount(quint8(received.at(i) ^ good.at(i)));
            if (QString(kind) == "corrupted")
                QVERIFY(received.size() == good.size() && differentBits == 1);
            else if (expected == judged)
                QVERIFY(!received.isEmpty() && received.size() < good.size() && differentBits == 0);
            else
                QCOMPARE(kind + (": " + toHex(received)), kind + (": " + toHex(expected)));
        }
    }

    void connectionFaults()
    {
        Simulator simulator(frozen({"refuse-connection:every 2", "silent-accept:every 3"}));
        Client served(simulator.port());
        QVERIFY(served.handshake());
        QVERIFY(Client(simulator.port()).isClosedUnanswered());
        Client silent(simulator.port());
        silent.send(ConnectRequest);
        QVERIFY(served.gets(ReadM0, ReplyM0));
        QCOMPARE(simulator.requestCount(), quint64(3));
        // Faults can be replaced while it runs; a wrong text changes nothing.
        simulator.exchangeFaults("garbage-confirm");
        QString error;
        QVERIFY(!simulator.setFaults({"nonsense"}, &error));
        Client struck(simulator.port());
        struck.send(ConnectRequest + SetupRequest);
        const QByteArray received = struck.receive(setupReply());
        QVERIFY(received.size() == 22 + 27 && received.at(0) != 3);
        simulator.exchangeFaults("banner");
        QVERIFY(Client(simulator.port()).gets(ConnectRequest, "220 ready\r\n"));
        simulator.exchangeFaults("refuse-setup");
        QVERIFY(Client(simulator.port())
                    .gets(ConnectRequest + SetupRequest,
                          ConnectConfirm + fromHex("0300001302F080320200000108000000008104")));
        // They stay replaced behind a restart.
        simulator.exchangeFaults("lost:0");
        simulator.stop();
        QVERIFY(silent.isClosedUnanswered());
        QVERIFY(simulator.start(&error));
        QVERIFY(Client(simulator.port()).handshake() && Client(simulator.port()).handshake());
        QCOMPARE(simulator.faultCounts(), Counts({{"banner", 1},
                                                  {"garbage-confirm", 1},
                                                  {"refuse-connection", 1},
                                                  {"refuse-setup", 1},
                                                  {"silent-accept", 1}}));
    }

    void remoteFaultsKeepTheReference()
    {
        SimulatorOptions options = frozen({"lost:every 2"});
        options.remote = true;
        options.largestPdu = 20;
        Simulator simulator(options);
        // The second and fourth are lost, the third stands for a repetition; the last asks for more
        // than fits.
        const QByteArray read = record(0, 12, 100, 1), good = reply(Read, "FF0400100000");
        QVERIFY(Client(simulator.port())
                    .gets(read.repeated(4) + record(0, 12, 100, 2),
                          remote(0, good) + remote(1, good) + remote(2, reply(Read, "8500"))));
    }

    void severalControllersAndRestart()
    {
        SimulatorOptions options = frozen({"refuse-connection"});
        options.count = 3;
        options.firstFaulty = options.lastFaulty = 2;
        Simulator simulator(options);
        const int port = simulator.port();
        Client first(port), second(port), third(port + 2);
        QVERIFY(first.handshake() && second.handshake() && third.handshake());
        QVERIFY(Client(port + 1).isClosedUnanswered());
        QTRY_COMPARE(simulator.connectionCount(), 3);
        QVERIFY(first.gets(WriteV100, writeReply(7)));
        QVERIFY(second.gets(ReadV100, ReplyV100));
        QCOMPARE(simulator.peek(SimulatorArea::V, 100, 2, 2), QByteArray(2, '\0'));
        simulator.poke(SimulatorArea::V, 100, "\x12\x34", 2);
        QVERIFY(third.gets(ReadV100, ReplyV100));
        first.send(ConnectRequest); // a module drops a connection at a second request
        QVERIFY(first.isClosedUnanswered());

        simulator.stop();
        QVERIFY(second.isClosedUnanswered());
        QCOMPARE(simulator.connectionCount(), 0);
        QString error;
        QVERIFY2(simulator.start(&error), qPrintable(error));
        QCOMPARE(int(simulator.port()), port);
        QVERIFY(Client(port + 2).handshake());
        QCOMPARE(simulator.peek(SimulatorArea::V, 100, 2), QByteArray("\x12\x34"));

        options.port = quint16(port);
        QVERIFY(!SimulatorThread(options).start(&error));
        QVERIFY2(error.contains(QString::number(port)), qPrintable(error));
    }

    void floodingClientIsServedInOrder()
    {
        for (int jitterMs : {0, 3}) {
            SimulatorOptions options = frozen({"split:every 50"});
            options.jitterMs = jitterMs;
            Simulator simulator(options);
            Client client(simulator.port());
            QVERIFY(client.handshake());
            QByteArray requests, replies;
            for (int i = 0; i < 1000; ++i) {
                requests += QByteArray(ReadM0).replace(11, 2, word16(i));
                replies += QByteArray(ReplyM0).replace(11, 2, word16(i));
            }
            client.send(requests);
            QVERIFY(client.receive(replies.right(26)) == replies);
            QCOMPARE(simulator.faultCounts(), Counts({{"split", 1002 / 50}}));
        }
    }

    void repliesAreDelayed()
    {
        SimulatorOptions options = frozen();
        options.latencyMs = GuardTime;
        Simulator simulator(options);
        Client client(simulator.port());
        client.send(ConnectRequest);
        QTRY_COMPARE(simulator.requestCount(), quint64(1));
        QVERIFY(client.hasNothing(simulator.port()));
        // A client that asks and asks is not served for ever.
        for (int i = 0; client.state() == QAbstractSocket::ConnectedState && i < 10000; ++i) {
            client.send((SetupRequest + ReadM0).repeated(100));
            client.waitForReadyRead(0);
        }
        QVERIFY(client.isClosedUnanswered());

        // What is delayed still goes out before the connection is closed.
        options.latencyMs = 1;
        options.tsap = 0x1234;
        Simulator refusing(options);
        Client refused(refusing.port());
        refused.send(ConnectRequest);
        QCOMPARE(refused.receive(), UnknownTsap);
    }

    void silentConnectionsMakeWay()
    {
        const auto connectSilently = [](const Simulator& simulator, size_t clients) {
            std::vector<std::unique_ptr<Client>> silent;
            while (silent.size() < clients)
                silent.push_back(std::make_unique<Client>(simulator.port()));
            return silent;
        };
        SimulatorOptions options = frozen();
        options.handshakeMs = GuardTime;
        Simulator full(options);
        const auto all = connectSilently(full, 64);
        QVERIFY(Client(full.port()).isClosedUnanswered());
        QCOMPARE(full.connectionCount(), 64);

        QStringList closed; // by the simulator's thread
        options.handshakeMs = 500;
        options.idleMs = 2000;
        options.log = [&closed](const QString& line) {
            if (line.endsWith("connection closed"))
                closed += line.section(' ', 1);
        };
        Simulator simulator(options);
        Client served(simulator.port()), quiet(simulator.port());
        QVERIFY(served.handshake() && quiet.handshake());
        const auto silent = connectSilently(simulator, 62);
        const QDeadlineTimer guard(GuardTime);
        while (simulator.connectionCount() > 1 && !guard.hasExpired())
            QVERIFY(served.gets(ReadM0, ReplyM0));
        simulator.stop();
        QCOMPARE(closed.count("no handshake in time: connection closed"), 62);
        QCOMPARE(closed.mid(62), QStringList("idle: connection closed"));
    }

    void program()
    {
        Program program("exec %1 --fault 'doubled:every 3' --fault 'lost:address 9' --verbose");
        QVERIFY2(program.line.startsWith("listening on 127.0.0.1:"), program.line.constData());
        Client client(program.port);
        QVERIFY(client.handshake() && client.gets(ReadM0, ReplyM0 + ReplyM0));
        program.terminate();
        QVERIFY(program.waitForFinished(GuardTime) && program.exitCode() == 0);
        const QByteArray said = program.readAllStandardError();
        QVERIFY2(said.contains("#0 read MB0 -> ok [fault: doubled]\n") &&
                     said.endsWith("fault doubled: 1 injected\nfault lost: 0 injected\n"),
                 said.constData());
    }

    void programWithFewDescriptors()
    {
        // Newcomers are turned away before there are none left, and let in when there are again.
        Program program("ulimit -n 40; exec %1 --count 3 --tsap 1100 --latency 0:1");
        QVERIFY2(program.line.contains('-'), program.line.constData());
        {
            std::vector<std::unique_ptr<Client>> clients;
            do
                clients.push_back(std::make_unique<Client>(program.port + 2));
            while (clients.back()->handshake() && clients.size() < 40);
            QVERIFY(clients.back()->isClosedUnanswered());
            QVERIFY2(clients.size() > 10, qPrintable(QString::number(clients.size())));
        }
        QTRY_VERIFY(Client(program.port).handshake());
    }

    void programWithoutRoom()
    {
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
        QSKIP("ThreadSanitizer itself does not start where no file can grow");
#endif
#endif
        const QTemporaryDir folder; // where a limit of file sizes is like a full disk
        Program program("ulimit -f 0; exec %1 --trace " + folder.filePath("trace"));
        QVERIFY(Client(program.port).handshake());
        program.terminate();
        QVERIFY(program.waitForFinished(GuardTime) && program.exitCode() == 7);
        QVERIFY(program.readAllStandardError().contains("File too large"));
    }

    void programUsage()
    {
        // clang-format off
        const std::tuple<const char*, int, const char*> rows[] = {
            {"--help", 0, ""}, {"--version", 0, ""}, {"--frobnicate", 2, "'frobnicate'"},
            {"extra", 2, "'extra'"}, {"--fault lots", 2, "\"lots\"; right are: lost, late,"},
            {"--fault lost:2", 2, "\"lost:2\""}, {"--listen nowhere", 2, "\"nowhere\""},
            {"--listen 127.0.0.1:70000", 2, "\"127.0.0.1:70000\""}, {"--seed x", 2, "\"x\""},
            {"--duration 0", 2, "\"0\""}, {"--count 0", 2, "\"0\""}, {"--tsap 10", 2, "\"10\""},
            {"--listen 127.0.0.1:65000 --count 537", 2, "536 controllers"},
            {"--latency 5:x", 2, "\"5:x\""}, {"--only 1-2", 2, "\"1-2\""}, {"--pdu 9", 2, "\"9\""},
            {"--pdu 19", 2, "20 to 960"}, {"--fault lost:address", 2, "inside its area"},
            {"--listen localhost:0", 1, "\"localhost\""}, {"--trace /dev/null/x", 1, "/dev/null/x"},
            {"--duration 1", 7, "standard output"}};
        // clang-format on
        for (const auto& [arguments, status, said] : rows) {
            QProcess process;
            if (qstrcmp(said, "standard output") == 0)
                process.setStandardOutputFile("/dev/full");
            process.start(SIMULATOR_PROGRAM, QString(arguments).split(' '));
            QVERIFY(process.waitForFinished(GuardTime));
            const QByteArray error = process.readAllStandardError();
            QVERIFY2(process.exitCode() == status && error.contains(said),
                     arguments + (": " + error));
            QCOMPARE(int(error.count('\n')), status == 0 ? 0 : 1);
        }
    }
};

QTEST_GUILESS_MAIN(SimulatorServerTest)
#include "simulator_server_test.moc"
