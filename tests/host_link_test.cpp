// Controllers end to end: over TCP, each with its own copy of the driver, against simulated
// controllers that come and go and spoil their replies.

#include "host/driver_copy.h"
#include "simulator/simulator_thread.h"
#include "tests/parsed.h"

#include <s7200host/controller.h>

#include <QHostInfo>
#include <QtTest>

using namespace s7200;
using sim::SimulatorArea;
using sim::SimulatorOptions;
using sim::SimulatorThread;

namespace
{

constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.
constexpr int ShortTimeoutMs = 50;

SimulatorOptions plainSimulator(bool remote = false)
{
    SimulatorOptions options;
    options.liveValues = false;
    options.remote = remote;
    return options;
}

/// A controller with its simulator.
struct Rig {
    explicit Rig(bool remote = false) : simulator(plainSimulator(remote))
    {
        startSimulator();
        settings.endpoint = {"127.0.0.1", simulator.port()};
        settings.remoteAccess = remote;
        settings.intervalMs = 20;
        settings.timeoutMs = LongMs;
    }

    void startSimulator()
    {
        QString error;
        if (!simulator.start(&error))
            qFatal("%s", qPrintable(error));
    }

    void start(const QString& watched)
    {
        controller.reset(new Controller(settings));
        QString error;
        if (!controller->watch(watched.split(' ', Qt::SkipEmptyParts), &error) ||
            !controller->start(&error))
            qFatal("%s", qPrintable(error));
    }

    /// Reads a variable, or writes an assignment; what became of it, in words.
    QString ask(const QString& text)
    {
        QString answer;
        QEventLoop loop;
        const Variable variable = parsed(text.section('=', 0, 0));
        const auto done = [&](const Result& result) {
            answer = result ? formatValues(variable, result.value.elements)
                            : describe(result.cause) + ": " + result.detail;
            answer = answer.isEmpty() ? "done" : answer;
            loop.quit();
        };
        QString error;
        if (!text.contains('='))
            controller->read(variable, done);
        else if (!controller->write(text, done, &error))
            qFatal("%s", qPrintable(error));
        QTimer::singleShot(LongMs, &loop, [&] {
            answer = "nothing came";
            loop.quit();
        });
        if (answer.isEmpty())
            loop.exec();
        return answer;
    }

    QString shown(int index) const
    {
        const Value value = controller->value(index);
        return value.quality == Quality::Good
                   ? formatValues(controller->watched().at(index), value.elements)
                   : describe(value.quality);
    }

    /// Whether everything that is watched is fresh and what the controller's memory holds.
    bool isFreshAndEqual(const QStringList& values) const
    {
        for (int i = 0; i < int(values.size()); ++i) {
            if (shown(i) != values.at(i))
                return false;
        }
        return controller->link().state == LinkState::Up;
    }

    SimulatorThread simulator;
    ControllerSettings settings;
    std::unique_ptr<Controller> controller;
};

int countOpenFiles()
{
    return int(QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size());
}

} // namespace

class HostLinkTest : public QObject
{
    Q_OBJECT

private slots:
    // Each kind of variable in both modes: what is watched comes, and what is written comes back.
    void valuesOfEveryKind_data()
    {
        QTest::addColumn<bool>("remote");
        QTest::newRow("local") << false;
        QTest::newRow("remote") << true;
    }

    void valuesOfEveryKind()
    {
        QFETCH(bool, remote);
        Rig rig(remote);
        rig.simulator.poke(SimulatorArea::V, 100, QByteArray::fromHex("0102030441AC0000"));
        rig.simulator.poke(SimulatorArea::M, 10, QByteArray::fromHex("8F"));
        rig.simulator.poke(SimulatorArea::AIW, 62, QByteArray::fromHex("7D00"));
        rig.simulator.poke(SimulatorArea::Timer, 37, QByteArray::fromHex("000000012C"));
        rig.simulator.poke(SimulatorArea::Counter, 5, QByteArray::fromHex("000007"));
        rig.start("VW100/hex VB103 V100.0x2 VD104/f M10.7 MB10 AIW62 AIW0x2 TV37 CV5 I0.0");
        const QStringList wanted = {"0x0102", "4",   "1 0", "21.5", "1", "143",
                                    "32000",  "0 0", "300", "7",    "0"};
        QTRY_VERIFY_WITH_TIMEOUT(rig.isFreshAndEqual(wanted), LongMs);
        QStringList writes = QString("Q1.3=1 M3.6x5=1,0,1,1,0 S0.7=1 SM40.0=1 V8.1=1 QB4=165 "
                                     "QW10=4660 MW12x3=1,2,65535 SW14=7 SMW42=513 VB31=200 "
                                     "VB41x5=1,2,3,4,5 QD20=305419896 MD20=1 SD20=4294967295 "
                                     "AQW6=32000")
                                 .split(' ');
        for (const char* value :
             {"VW200x250=51966", "VD3000x110=3735928559", "TV5x60=299", "CV3x80=298"}) {
            const QString name = QString(value).section('=', 0, 0);
            const QString element = ',' + QString(value).section('=', 1);
            writes.append(name + '=' + element.repeated(name.section('x', 1).toInt()).mid(1));
        }
        for (const QString& write : std::as_const(writes)) {
            QCOMPARE(rig.ask(write), QString("done"));
            const QString name = write.section('=', 0, 0);
            QCOMPARE(name + ' ' + rig.ask(name),
                     name + ' ' + write.section('=', 1).replace(',', ' '));
        }
        // Double words of SM go to an area that the controller does not have.
        QCOMPARE(rig.ask("SMD50=305419896"), QString("refused: object does not exist"));
        QCOMPARE(rig.ask("SMD50"), QString("0"));
    }

    void comesAndGoes_data()
    {
        valuesOfEveryKind_data();
    }

    void comesAndGoes()
    {
        QFETCH(bool, remote);
        Rig rig(remote);
        rig.start("VW0");
        QSignalSpy links(rig.controller.get(), &Controller::linkChanged);
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString("0"), LongMs);
        rig.simulator.stop();
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString("link down"), LongMs);
        // Nothing is kept for later.
        QVERIFY(!rig.ask("VW50=7").startsWith("done"));
        rig.simulator.poke(SimulatorArea::V, 0, QByteArray::fromHex("1234"));
        rig.startSimulator();
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString::number(0x1234), LongMs);
        QCOMPARE(rig.simulator.peek(SimulatorArea::V, 50, 2), QByteArray(2, '\0'));
        const LinkStatistics& statistics = rig.controller->statistics();
        QCOMPARE(statistics.linkLosses, quint64(1));
        QCOMPARE(statistics.reconnects, quint64(1));
        QCOMPARE(statistics.grantedPdu, remote ? 0 : 240);
        QVERIFY(statistics.roundTrip.count() > 0);
        QVERIFY(links.size() < 10);
        rig.controller->stop();
        QCOMPARE(rig.controller->link().state, LinkState::Stopped);
        QCOMPARE(rig.ask("VW0").section(':', 0, 0), QString("stopped"));
    }

    // In one thread; who is dead, or has no name, holds nobody up.
    void manyControllers()
    {
        SimulatorOptions options = plainSimulator();
        options.count = 10;
        SimulatorThread simulators(options);
        QString error;
        QVERIFY2(simulators.start(&error), qPrintable(error));
        std::vector<std::unique_ptr<Controller>> controllers;
        const bool hasName = !QHostInfo::fromName("localhost").addresses().isEmpty();
        for (int i = 0; i < 12; ++i) {
            ControllerSettings settings;
            settings.endpoint = {i % 2 == 0 || !hasName ? "127.0.0.1" : "localhost",
                                 quint16(simulators.port() + i)};
            if (i >= 10)
                settings.endpoint = {i == 10 ? "127.0.0.1" : "nowhere.invalid", 1};
            settings.intervalMs = 20;
            controllers.emplace_back(new Controller(settings));
            QVERIFY2(controllers.back()->watch(QStringList{"VW0"}, &error), qPrintable(error));
            QVERIFY2(controllers.back()->start(&error), qPrintable(error));
            if (i < 10)
                simulators.poke(SimulatorArea::V, 0, QByteArray(1, '\0') + char(i), i);
        }
        for (int i = 0; i < 10; ++i)
            QTRY_COMPARE_WITH_TIMEOUT(controllers[std::size_t(i)]->value(0).elements,
                                      QVector<quint32>{quint32(i)}, LongMs);
        for (int i = 10; i < 12; ++i)
            QTRY_COMPARE_WITH_TIMEOUT(controllers[std::size_t(i)]->link().cause,
                                      Cause::NoConnection, LongMs);
        // A completion may run an event loop, in which its own controller is ended.
        Controller* const first = controllers.front().release();
        first->read(parsed("VW2"), [first](const Result&) {
            QEventLoop loop;
            QTimer::singleShot(0, &loop, [&loop, first] {
                delete first;
                QTimer::singleShot(1, &loop, &QEventLoop::quit);
            });
            loop.exec();
        });
        QSignalSpy gone(first, &QObject::destroyed);
        QVERIFY(gone.wait(LongMs));
    }

    void severalStations()
    {
        SimulatorThread second(plainSimulator());
        QString error;
        QVERIFY2(second.start(&error), qPrintable(error));
        second.poke(SimulatorArea::V, 0, QByteArray::fromHex("0007"));
        Rig rig;
        rig.settings.stations = {{2, rig.settings.endpoint}, {5, {"127.0.0.1", second.port()}}};
        rig.start("VW0 VW0@5 VB300x300@5");
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(1), QString("7"), LongMs);
        QCOMPARE(rig.ask("VW20x150@5=" + QString("3,").repeated(150).chopped(1)), QString("done"));
        QCOMPARE(second.peek(SimulatorArea::V, 318, 2), QByteArray::fromHex("0003"));
        QCOMPARE(rig.ask("VW20@2"), QString("0"));
        QCOMPARE(rig.ask("VW20@9").section(':', 0, 0), QString("invalid"));
        second.stop();
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(1), QString("link down"), LongMs);
        QCOMPARE(rig.controller->link(5).state == LinkState::Up, false);
        QSignalSpy cycles(rig.controller.get(), &Controller::cycleDone);
        QTRY_VERIFY_WITH_TIMEOUT(cycles.size() >= 3, LongMs);
        QCOMPARE(rig.shown(0), QString("0"));
        QVERIFY2(second.start(&error), qPrintable(error));
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(1), QString("7"), LongMs);
    }

    // Whatever way replies come: what is shown as good was held by the controller, nothing hangs,
    // and afterwards everything is fresh and equal.
    void faults()
    {
        Rig rig;
        rig.settings.timeoutMs = ShortTimeoutMs;
        rig.settings.intervalMs = 1;
        for (int i = 0; i < 4; ++i)
            rig.simulator.poke(SimulatorArea::V, 200 * i, QByteArray::fromHex("0807"));
        rig.start("VW0 VW200 MW0 VW400 VW600 SMW40");
        const QStringList values{"2055", "2055", "0", "2055", "2055", "0"};
        QTRY_VERIFY_WITH_TIMEOUT(rig.isFreshAndEqual(values), LongMs);
        int wrong = 0;
        connect(rig.controller.get(), &Controller::valuesChanged, this,
                [&](const QVector<int>& indexes) {
                    for (int i : indexes)
                        wrong += rig.controller->value(i).quality == Quality::Good &&
                                 rig.shown(i) != values.at(i);
                });
        const QStringList faults{"lost:every 23", "late:every 19",     "doubled:every 5",
                                 "split:every 7", "coalesced:every 3", "close-mid-frame:every 31"};
        QString error;
        QVERIFY2(rig.simulator.setFaults(faults, &error), qPrintable(error));
        QTRY_COMPARE_WITH_TIMEOUT(int(rig.simulator.faultCounts().size()), int(faults.size()),
                                  LongMs);
        const QString answer = rig.ask("VW20=9");
        QVERIFY(rig.simulator.setFaults({}, &error));
        QTRY_VERIFY_WITH_TIMEOUT(rig.isFreshAndEqual(values), LongMs);
        QCOMPARE(wrong, 0);
        if (answer == "done")
            QCOMPARE(rig.simulator.peek(SimulatorArea::V, 20, 2), QByteArray::fromHex("0009"));
    }

    // When a value was read is one fact, whenever it is asked for.
    void times()
    {
        const auto now = [] { return QDateTime::currentMSecsSinceEpoch(); };
        Rig rig;
        rig.settings.intervalMs = 3600000;
        const qint64 before = now();
        rig.start("VW0");
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString("0"), LongMs);
        const Value value = rig.controller->value(0);
        Result read;
        rig.controller->read(parsed("VW2"), [&read](const Result& result) { read = result; });
        QTRY_COMPARE_WITH_TIMEOUT(int(read.value.elements.size()), 1, LongMs);
        QVERIFY(before <= value.timeMs && value.timeMs <= read.value.timeMs &&
                read.value.timeMs <= now());
        QTest::qWait(20);
        QVERIFY(rig.controller->value(0).ageMs >= 20);
        QCOMPARE(rig.controller->value(0).timeMs, value.timeMs);
    }

    void refusedVariable()
    {
        Rig rig;
        rig.start("VW0 MW0 MW4000");
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(2), QString("refused"), LongMs);
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(1), QString("0"), LongMs);
        QCOMPARE(rig.ask("SM0.0=0").section(':', 0, 0), QString("refused"));
        QCOMPARE(rig.ask("MW4000").section(':', 0, 0), QString("refused"));
        QTRY_COMPARE_WITH_TIMEOUT(rig.ask("VW4"), QString("0"), LongMs);
    }

    // What no text can say, but a program can; a start that fails names what was given.
    void nonsense()
    {
        Rig rig;
        rig.start("VW0");
        Variable tooLong = parsed("VW0");
        tooLong.repeat = std::numeric_limits<int>::max();
        rig.controller->watch({Variable(), tooLong, parsed("VW0")});
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(2), QString("0"), LongMs);
        QCOMPARE(rig.shown(0) + ' ' + rig.shown(1), QString("never read never read"));
        QVector<Cause> causes;
        const auto done = [&](const Result& result) { causes.append(result.cause); };
        for (const Variable& variable : {Variable(), tooLong})
            rig.controller->read(variable, done);
        rig.controller->write(parsed("VW0x2"), {1}, done);
        QTRY_COMPARE_WITH_TIMEOUT(causes, QVector<Cause>(3, Cause::Invalid), LongMs);
        Controller(rig.settings).read(parsed("VW0"), done); // told before it is gone
        QCOMPARE(causes.value(3), Cause::Stopped);
        QTemporaryFile file;
        ControllerSettings settings = rig.controller->settings();
        settings.driverFile = file.open() ? file.fileName() : QString();
        QString error;
        QVERIFY(!Controller(ControllerSettings()).start() && !Controller(settings).start(&error));
        QVERIFY2(error.contains(file.fileName()) && !error.contains("s7200-driver"),
                 qPrintable(error));
        settings.stations = {{255, {"127.0.0.1", 1}}};
        QVERIFY(!Controller(settings).start(&error) && !error.contains("station"));
        settings.stations = {{256, {"127.0.0.1", 1}}};
        QVERIFY(!Controller(settings).start(&error) && error.contains("station 256"));
    }

    // A library that was installed anew is the one that is used from then on.
    void replacedLibrary()
    {
        Rig rig;
        QString error;
        const QTemporaryDir folder;
        rig.settings.driverFile = folder.filePath("driver.so");
        QVERIFY(QFile::copy(findDriver(QString(), &error), rig.settings.driverFile));
        rig.start("VW0");
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString("0"), LongMs);
        QFile file(rig.settings.driverFile);
        QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) &&
                file.open(QIODevice::WriteOnly) && file.write("no library") > 0 &&
                file.setFileTime(QDateTime::currentDateTime().addSecs(60),
                                 QFileDevice::FileModificationTime));
        file.close();
        QVERIFY(!Controller(rig.settings).start(&error));
        QVERIFY2(error.contains(file.fileName()), qPrintable(error));
    }

    void nothingIsLeftBehind()
    {
        Rig rig;
        rig.start("VW0");
        QTRY_COMPARE_WITH_TIMEOUT(rig.shown(0), QString("0"), LongMs);
        const int before = countOpenFiles();
        for (int i = 0; i < 5; ++i) {
            Controller controller(rig.settings);
            QVERIFY(controller.start());
            QSignalSpy cycles(&controller, &Controller::cycleDone);
            QVERIFY(cycles.wait(LongMs));
        }
        QTRY_COMPARE_WITH_TIMEOUT(countOpenFiles(), before, LongMs);
        QFile maps("/proc/self/maps");
        QVERIFY(maps.open(QIODevice::ReadOnly));
        const QStringList lines = QString(maps.readAll()).split('\n').filter("s7200-driver");
        QSet<QString> copies;
        for (const QString& line : lines)
            copies.insert(line.section(' ', -2));
        QCOMPARE(int(copies.size()), 1);
    }
};

QTEST_GUILESS_MAIN(HostLinkTest)
#include "host_link_test.moc"
