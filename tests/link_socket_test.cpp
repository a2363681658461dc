// The connection to a controller and what watches it, below everything that knows S7: what a peer,
// a name or a system short of descriptors may do to it.

#include "host/link_socket.h"
#include "wire/capture_reader.h"

#include <QAbstractEventDispatcher>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <numeric>

using namespace s7200;

static std::atomic<int> lookUps{0};

/// In place of the system's: any name has two addresses, and nobody listens at the first.
extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo** results)
{
    ++lookUps;
    static sockaddr_in addresses[2] = {};
    static addrinfo entries[2] = {};
    for (int i : {1, 0}) {
        addresses[i].sin_family = AF_INET;
        addresses[i].sin_addr.s_addr = qToBigEndian(i == 0 ? 0x7F000002U : 0x7F000001U);
        entries[i].ai_addr = reinterpret_cast<sockaddr*>(&addresses[i]);
        entries[i].ai_addrlen = sizeof addresses[i];
        entries[i].ai_next = i == 0 ? &entries[1] : nullptr;
    }
    *results = entries;
    return 0;
}

extern "C" void freeaddrinfo(addrinfo*) {}

namespace
{

constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.

/// A socket, what it has told, and a server that is waited for without the event loop.
struct Rig {
    explicit Rig(const QString& host = "127.0.0.1",
                 QHostAddress::SpecialAddress address = QHostAddress::LocalHost,
                 wire::FrameTrace* trace = nullptr)
    {
        if (!server.listen(address))
            qFatal("%s", qPrintable(server.errorString()));
        socket.reset(new LinkSocket({host, server.serverPort()}, trace, nullptr));
        QObject::connect(socket.get(), &LinkSocket::opened, [this] { told += "opened"; });
        QObject::connect(socket.get(), &LinkSocket::closed, [this] { told += "closed"; });
        QObject::connect(socket.get(), &LinkSocket::openFailed,
                         [this](const QString& why) { told += "failed: " + why; });
        QObject::connect(socket.get(), &LinkSocket::received,
                         [this](const QByteArray& bytes) { told += bytes; });
    }

    /// Opens it; the server's side, null if that fails.
    QTcpSocket* connected()
    {
        socket->open();
        if (!QTest::qWaitFor([this] { return !told.isEmpty(); }, LongMs) ||
            told != QStringList("opened"))
            return nullptr;
        QTcpSocket* peer = nullptr;
        while (server.hasPendingConnections() || (!peer && server.waitForNewConnection(LongMs)))
            peer = server.nextPendingConnection();
        return peer;
    }

    QTcpServer server;
    std::unique_ptr<LinkSocket> socket;
    QStringList told;
};

void sendNow(QTcpSocket* peer, const QByteArray& bytes)
{
    peer->write(bytes);
    while (peer->bytesToWrite() > 0 && peer->waitForBytesWritten(LongMs)) {
    }
}

struct User : SocketUser {
    void socketReady() override
    {
        ++count;
        if (then)
            then();
    }
    int count = 0;
    std::function<void()> then;
};

} // namespace

class LinkSocketTest : public QObject
{
    Q_OBJECT

private slots:
    void conversation_data()
    {
        QTest::addColumn<QString>("host");
        QTest::addColumn<bool>("ipv6");
        QTest::newRow("IPv4") << "127.0.0.1" << false;
        QTest::newRow("name") << "two.addresses" << false;
        QTest::newRow("IPv6") << "::1" << true;
    }

    // Any amount goes both ways, and an end is told once, behind the last bytes.
    void conversation()
    {
        QFETCH(QString, host);
        QFETCH(bool, ipv6);
        if (ipv6 && !QTcpServer().listen(QHostAddress::LocalHostIPv6))
            QSKIP("no IPv6 here");
        Rig rig(host, ipv6 ? QHostAddress::LocalHostIPv6 : QHostAddress::LocalHost);
        const int before = lookUps;
        QTcpSocket* const peer = rig.connected();
        QVERIFY2(peer, qPrintable(rig.told.join(", ")));
        QCOMPARE(lookUps - before, host == "two.addresses" ? 1 : 0);
        QByteArray all(8 << 20, '\0'); // more than the system takes at once
        std::iota(all.begin(), all.end(), char(0));
        rig.socket->send(all);
        rig.socket->send("end");
        QByteArray arrived;
        connect(peer, &QTcpSocket::readyRead, [&] { arrived += peer->readAll(); });
        QTRY_COMPARE_WITH_TIMEOUT(int(arrived.size()), int(all.size()) + 3, LongMs);
        QVERIFY(arrived == all + "end");
        int turns = 0; // of the event loop: there is room, but nothing to send any more
        connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, peer,
                [&turns] { ++turns; });
        QTest::qWait(50);
        QVERIFY2(turns < 100, qPrintable(QString::number(turns)));
        rig.told.clear();
        sendNow(peer, QByteArray(10000, 'x'));
        peer->close();
        QTRY_COMPARE_WITH_TIMEOUT(rig.told.value(rig.told.size() - 1), QString("closed"), LongMs);
        QCOMPARE(rig.told.join(""), QString(10000, 'x') + "closed");
    }

    void nobodyThere()
    {
        Rig rig;
        rig.server.close();
        rig.socket->open();
        QCOMPARE(rig.told, QStringList());
        QTRY_COMPARE_WITH_TIMEOUT(rig.told, QStringList("failed: connection refused"), LongMs);
    }

    // What is given up tells nothing more, whatever state it was in.
    void givenUp()
    {
        Rig rig;
        rig.socket->open();
        rig.socket->close();
        QTcpSocket* const peer = rig.connected();
        sendNow(peer, "reply");
        rig.socket->close();
        QTest::qWait(20);
        QCOMPARE(rig.told, QStringList("opened"));
        QTRY_COMPARE_WITH_TIMEOUT(peer->state(), QAbstractSocket::UnconnectedState, LongMs);
    }

    // What is there before the first frame tells who has answered; later it can be no reply.
    void staleInput()
    {
        Rig rig;
        QTcpSocket* const peer = rig.connected();
        sendNow(peer, "banner");
        rig.socket->send("request");
        QVERIFY(peer->waitForReadyRead(LongMs));
        QTRY_COMPARE_WITH_TIMEOUT(rig.told, QStringList({"opened", "banner"}), LongMs);
        rig.told = QStringList("opened");
        sendNow(peer, "late");
        rig.socket->send("request");
        QVERIFY(peer->waitForReadyRead(LongMs));
        sendNow(peer, "reply");
        QTRY_COMPARE_WITH_TIMEOUT(rig.told, QStringList({"opened", "reply"}), LongMs);
        // Of a flood only so much is dropped at a time; its owner sees the rest.
        rig.told.clear();
        sendNow(peer, QByteArray(100000, 'x'));
        rig.socket->send("request");
        QTRY_VERIFY_WITH_TIMEOUT(rig.told.join("").size() >= 60000, LongMs);
    }

    // In a trace: both ends, all bytes, and who ended it.
    void traced()
    {
        for (const bool byPeer : {true, false}) {
            const QTemporaryDir folder;
            const QString file = folder.filePath("trace.pcap");
            QString error;
            auto trace = wire::FrameTrace::open(file, wire::FrameTrace::KeepExisting, &error);
            QVERIFY2(trace, qPrintable(error));
            Rig rig("127.0.0.1", QHostAddress::LocalHost, trace.get());
            QTcpSocket* const peer = rig.connected();
            rig.socket->send("request");
            sendNow(peer, "reply");
            QTRY_COMPARE_WITH_TIMEOUT(rig.told.value(1), QString("reply"), LongMs);
            const quint16 port = peer->peerPort();
            if (byPeer)
                peer->close();
            else
                rig.socket->close();
            QTRY_COMPARE_WITH_TIMEOUT(int(rig.told.size()), byPeer ? 3 : 2, LongMs);
            trace.reset();
            const auto reader = wire::CaptureReader::open(file, &error);
            QVERIFY2(reader, qPrintable(error));
            QStringList seen;
            while (const auto segment = reader->next())
                if (!segment->bytes.isEmpty() || segment->fin)
                    seen += QString("%1:%2").arg(segment->from.port == port ? "own" : "peer",
                                                 QString(segment->bytes));
            QCOMPARE(seen.mid(0, 3),
                     QStringList({"own:request", "peer:reply", byPeer ? "peer:" : "own:"}));
        }
    }

    void noDescriptorLeft()
    {
        Rig rig;
        rlimit limit = {};
        getrlimit(RLIMIT_NOFILE, &limit);
        rlimit none = limit;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
        rig.socket->open();
        rig.socket->open(); // in its place
        setrlimit(RLIMIT_NOFILE, &limit);
        QCOMPARE(rig.told, QStringList());
        QTRY_COMPARE_WITH_TIMEOUT(rig.told, QStringList("failed: too many open files"), LongMs);
        rig.told.clear();
        QVERIFY(rig.connected());
    }

    // News that were fetched for a socket which another user has closed meanwhile must not reach
    // the next one that gets its descriptor.
    void descriptorUsedAgain()
    {
        int pairs[3][2];
        for (auto& pair : pairs)
            QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
        const auto watcher = SocketWatcher::ofThisThread();
        User users[2];
        User next;
        for (int i = 0; i < 2; ++i) {
            users[i].then = [&, i] {
                for (int each : {0, 1})
                    watcher->forget(pairs[each][0]);
                QCOMPARE(dup2(pairs[2][0], pairs[1 - i][0]), pairs[1 - i][0]);
                QVERIFY(watcher->watch(pairs[1 - i][0], SocketWatcher::Await::Input, &next));
            };
            QVERIFY(watcher->watch(pairs[i][0], SocketWatcher::Await::Input, &users[i]));
            QCOMPARE(int(write(pairs[i][1], "x", 1)), 1);
        }
        QTRY_COMPARE_WITH_TIMEOUT(users[0].count + users[1].count, 1, LongMs);
        QTest::qWait(20);
        QCOMPARE(next.count, 0);
        QCOMPARE(int(write(pairs[2][1], "x", 1)), 1);
        QTRY_VERIFY_WITH_TIMEOUT(next.count > 0, LongMs);
        for (auto& pair : pairs) {
            watcher->forget(pair[0]);
            ::close(pair[0]);
            ::close(pair[1]);
        }
    }
};

QTEST_GUILESS_MAIN(LinkSocketTest)
#include "link_socket_test.moc"
