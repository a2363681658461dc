// The panel's communication loop end to end: the driver loaded from its file, over TCP, against
// simulated controllers, local, remote, and several at once.

#include "panel/options.h"
#include "simulator/simulator_thread.h"

#include <QtTest>

#include <condition_variable>
#include <future>

using namespace s7200;
using namespace s7200::sim;

namespace
{

constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.
constexpr int HourMs = 3600 * 1000;
constexpr int ShortTimeoutMs = 60;

/// An assignment if there is a =, else a variable.
Assignment parsed(const QString& text)
{
    Assignment result;
    QString error;
    const bool ok = text.contains('=')
                        ? parseAssignment(text, &result.variable, &result.values, &error)
                        : parseVariable(text, &result.variable, &error);
    if (!ok)
        qFatal("%s", qPrintable(error));
    return result;
}

/// Takes note of what a loop tells and waits for it.
class Journal
{
public:
    void add(const LoopEvent& event)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.push_back(event);
        changed.notify_all();
    }

    /// Takes events out up to the first of this kind; false if it does not come.
    bool waitFor(LoopEvent::Kind kind, LoopEvent* found = nullptr)
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (changed.wait_for(lock, std::chrono::milliseconds(LongMs),
                                [this] { return !events.empty(); })) {
            const LoopEvent event = events.front();
            events.pop_front();
            if (found)
                *found = event;
            if (event.kind == kind)
                return true;
        }
        return false;
    }

    void clear()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        events.clear();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<LoopEvent> events;
};

/// What becomes of one request. It is told once: a second time ends the test's process.
using Outcome = std::future<RequestResult>;

bool isThere(const Outcome& outcome, int timeoutMs)
{
    return outcome.wait_for(std::chrono::milliseconds(timeoutMs)) == std::future_status::ready;
}

RequestResult resultOf(Outcome outcome)
{
    return isThere(outcome, LongMs) ? outcome.get()
                                    : RequestResult{Fault::Stopped, "nothing came", {}};
}

/// A loop with its controllers.
struct Panel {
    explicit Panel(const DriverLibrary& library, bool remote = false,
                   const QList<int>& stations = {})
        : driver(library)
    {
        SimulatorOptions simulator;
        simulator.remote = settings.remote = remote;
        simulator.liveValues = false;
        settings.stationEach = !stations.isEmpty();
        settings.timeoutMs = LongMs;
        settings.retries = 2;
        settings.intervalMs = settings.pauseMs = settings.parkMs = 1;
        for (int station : stations.isEmpty() ? QList<int>{settings.defaultStation} : stations) {
            controllers[station].reset(new SimulatorThread(simulator));
            startController(station);
            settings.controllers.insert(station, {simulator.address, controllers[station]->port()});
        }
    }

    ~Panel()
    {
        loop.reset(); // before what it uses
    }

    void startController(int station)
    {
        QString error;
        if (!controllers[station]->start(&error))
            qFatal("%s", qPrintable(error));
    }

    SimulatorThread& controller()
    {
        return *controllers.begin()->second;
    }

    void start(const QString& watched = QString())
    {
        loop.reset(new CommLoop(driver, settings));
        loop->setListener([this](const LoopEvent& event) { journal.add(event); });
        if (!watched.isEmpty())
            watch(watched);
        loop->start();
    }

    /// True once the variables were read.
    bool startAndCycle(const QString& watched)
    {
        start(watched);
        return journal.waitFor(LoopEvent::CycleDone);
    }

    void watch(const QString& texts)
    {
        QVector<Variable> variables;
        for (const QString& text : texts.split(' '))
            variables.append(parsed(text).variable);
        loop->watch(variables);
    }

    /// Reads a variable, or writes an assignment.
    Outcome startAsking(const QString& text)
    {
        const Assignment wanted = parsed(text);
        const auto promise = std::make_shared<std::promise<RequestResult>>();
        const auto done = [promise](const RequestResult& result) { promise->set_value(result); };
        if (wanted.values.isEmpty())
            loop->read(wanted.variable, done);
        else
            loop->write(wanted.variable, wanted.values, done);
        return promise->get_future();
    }

    RequestResult ask(const QString& text)
    {
        return resultOf(startAsking(text));
    }

    QString valueOf(const QString& text)
    {
        const RequestResult result = ask(text);
        const Variable variable = parsed(text).variable;
        return result.fault == Fault::None
                   ? formatValues(variable, decodeValues(variable, result.data))
                   : result.detail;
    }

    void setFaults(const QStringList& faults)
    {
        QString error;
        if (!controller().setFaults(faults, &error))
            qFatal("%s", qPrintable(error));
    }

    const DriverLibrary& driver;
    LoopSettings settings;
    std::map<int, std::unique_ptr<SimulatorThread>> controllers;
    Journal journal;
    std::unique_ptr<CommLoop> loop;
};

} // namespace

class PanelLoopTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QString error;
        QVERIFY2(driver.load(QString(), &error), qPrintable(error));
    }

    // Values come from the controller, each variable's own, through blocks that were merged.
    void watchedValues()
    {
        inEachMode([](Panel& panel, const QString& suffix) {
            SimulatorThread& controller = panel.controller();
            controller.poke(SimulatorArea::V, 100, QByteArray::fromHex("0102030441AC0000"));
            controller.poke(SimulatorArea::M, 10, QByteArray::fromHex("8F"));
            controller.poke(SimulatorArea::AIW, 62, QByteArray::fromHex("7D00"));
            controller.poke(SimulatorArea::Timer, 37, QByteArray::fromHex("000000012C"));
            controller.poke(SimulatorArea::Counter, 5, QByteArray::fromHex("000007"));
            const QStringList rows = {
                "VW100/hex=0x0102", "VB103=4",  "V100.0x2=1 0", "VD104/f=21.5",
                "M10.7=1",          "MB10=143", "AIW62=32000",  "AIW0x2=0 0",
                "TV37=300",         "CV5=7",    "I0.0=0"};
            panel.start(
                QStringList(rows).replaceInStrings(QRegularExpression("=.*"), suffix).join(' '));
            QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
            for (int i = 0; i < int(rows.size()); ++i) {
                const Variable variable = parsed(rows.at(i).section('=', 0, 0) + suffix).variable;
                QVERIFY2(panel.loop->isFresh(i), qPrintable(rows.at(i)));
                QCOMPARE(
                    formatValues(variable, decodeValues(variable, panel.loop->value(variable))),
                    rows.at(i).section('=', 1));
            }
        });
    }

    // What is written comes back, for every kind that can be written.
    void roundTrip()
    {
        inEachMode([](Panel& panel, const QString& suffix) {
            panel.start();
            QStringList writes = QString("Q1.3=1 M3.6x5=1,0,1,1,0 S0.7=1 SM40.0=1 V8.1=1 QB4=165 "
                                         "QW10=4660 MW12x3=1,2,65535 SW14=7 SMW42=513 VB31=200 "
                                         "VB41x5=1,2,3,4,5 QD20=305419896 MD20=1 SD20=4294967295 "
                                         "SMD50=305419896 AQW6=32000")
                                     .split(' ');
            for (const char* value :
                 {"VW100x250=51966", "VD3000x110=3735928559", "TV5x60=299", "CV3x80=298"}) {
                const QString name = QString(value).section('=', 0, 0);
                const QString element = ',' + QString(value).section('=', 1);
                writes.append(name + '=' + element.repeated(name.section('x', 1).toInt()).mid(1));
            }
            for (const QString& write : std::as_const(writes)) {
                const QString name = write.section('=', 0, 0) + suffix;
                const QString values = write.section('=', 1);
                const RequestResult written = panel.ask(name + '=' + values);
                QVERIFY2(written.fault == Fault::None, qPrintable(name + ": " + written.detail));
                QCOMPARE(name + ' ' + panel.valueOf(name),
                         name + ' ' + QString(values).replace(',', ' '));
            }
        });
    }

    void controllerGoesAndComesBack()
    {
        inEachMode([](Panel& panel, const QString& suffix) {
            QVERIFY(panel.startAndCycle("VW0" + suffix));
            QVERIFY(panel.loop->isFresh(0));

            panel.controller().stop();
            LoopEvent down;
            QVERIFY(panel.journal.waitFor(LoopEvent::LinkLost));
            QVERIFY(panel.journal.waitFor(LoopEvent::LinkDown, &down));
            QCOMPARE(down.fault, Fault::NoConnection);
            QVERIFY(!panel.loop->isFresh(0));
            // While it is down nothing is kept for later.
            QCOMPARE(panel.ask("VW0" + suffix).fault, Fault::NoConnection);
            QCOMPARE(panel.ask("VW50" + suffix + "=7").fault, Fault::NoConnection);

            panel.controller().poke(SimulatorArea::V, 0, QByteArray::fromHex("1234"));
            panel.startController(panel.controllers.begin()->first);
            QVERIFY(panel.journal.waitFor(LoopEvent::LinkUp));
            QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
            QVERIFY(panel.loop->isFresh(0));
            QCOMPARE(panel.loop->value(parsed("VW0" + suffix).variable),
                     QByteArray::fromHex("3412"));
            QCOMPARE(panel.controller().peek(SimulatorArea::V, 50, 2), QByteArray(2, '\0'));
            QCOMPARE(panel.loop->status().linkLosses, quint64(1));
        });
    }

    // Longer than a request may be, both waiting at once.
    void longReads()
    {
        Panel panel(driver);
        QByteArray memory;
        for (int i = 0; i < 1200; ++i)
            memory.append(char(i * 7));
        panel.controller().poke(SimulatorArea::V, 0, memory);
        panel.start("VW0");
        Outcome first = panel.startAsking("VB1x1000");
        Outcome second = panel.startAsking("V3.0x2400");
        const QVector<quint32> bytes =
            decodeValues(parsed("VB1x1000").variable, resultOf(std::move(first)).data);
        for (int i = 0; i < 1000; ++i)
            QCOMPARE(char(bytes.at(i)), memory.at(1 + i));
        const QByteArray bits = resultOf(std::move(second)).data;
        for (int i = 0; i < 2400; ++i)
            QCOMPARE(int(bits.at(i)), memory.at(3 + i / 8) >> (i % 8) & 1);
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
    }

    // It keeps the connection and says nothing: what was asked fails, nothing hangs.
    void silentController()
    {
        Panel panel(driver);
        panel.settings.timeoutMs = ShortTimeoutMs;
        QVERIFY(panel.startAndCycle("VW0"));
        panel.setFaults({"lost"});
        QCOMPARE(panel.ask("VW20=5").fault, Fault::NoAnswer);
        QCOMPARE(panel.ask("VW30").fault, Fault::NoAnswer);
        panel.setFaults({});
        panel.journal.clear();
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        QVERIFY(panel.controller().faultCounts().value("lost") > 0);
        QCOMPARE(panel.valueOf("VW30"), QString("0"));
    }

    void refusals()
    {
        Panel panel(driver);
        panel.start("VW0");
        // The driver takes a refused write for a good one and the link stays up.
        const RequestResult write = panel.ask("SM0.0=0");
        QCOMPARE(write.fault, Fault::Refused);
        QVERIFY2(write.detail.contains("not allowed"), qPrintable(write.detail));
        QCOMPARE(panel.loop->status().linkLosses, quint64(0));
        QCOMPARE(panel.loop->status().refusals, quint64(1));
        // A refused read takes the link down; what waits behind it is read all the same.
        Outcome refused = panel.startAsking("MW4000");
        Outcome behind = panel.startAsking("VW0");
        QCOMPARE(resultOf(std::move(refused)).fault, Fault::Refused);
        QCOMPARE(resultOf(std::move(behind)).fault, Fault::None);
        LoopEvent event;
        QVERIFY(panel.journal.waitFor(LoopEvent::LinkLost, &event));
        QVERIFY(!event.cyclic);
        QCOMPARE(panel.loop->status().linkLosses, quint64(1));
        // In a cycle it is known which block was refused.
        panel.watch("MW4000 VW0");
        QVERIFY(panel.journal.waitFor(LoopEvent::LinkLost, &event));
        QCOMPARE(event.fault, Fault::Refused);
        QVERIFY(event.cyclic && event.block.overlaps(extentOf(parsed("MW4000").variable, 2)));
        QVERIFY(!event.block.overlaps(extentOf(parsed("VW0").variable, 2)));
        panel.watch("VW0");
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        QVERIFY(panel.loop->isFresh(0));
    }

    // Right values whatever the wire does, and one bad reply fails none of those after it. Faults
    // of every reply are harmless ones: they do not cost a single retry.
    void disturbedReplies()
    {
        for (const QString& fault :
             QStringList{"doubled", "coalesced", "split", "empty-tpdu-first", "late:every 7",
                         "lost:every 9", "wrong-reference:every 9", "truncated:every 9",
                         "wrong-length:every 9", "close-mid-frame:every 23"}) {
            const bool harmless = !fault.contains(':');
            Panel panel(driver);
            panel.settings.timeoutMs = harmless ? LongMs : ShortTimeoutMs;
            panel.controller().poke(SimulatorArea::V, 0, QByteArray(120, '\x10'));
            QVERIFY(panel.startAndCycle("VW0"));
            const quint64 retriesBefore = panel.loop->status().retries;
            panel.setFaults({fault});
            int good = 0;
            for (int i = 0; i < 120; i += 2) {
                const RequestResult result = panel.ask("VW" + QString::number(i));
                QVERIFY2(result.fault != Fault::None || result.data == "\x10\x10",
                         qPrintable(fault));
                good += result.fault == Fault::None ? 1 : 0;
            }
            QVERIFY2(good >= (harmless ? 60 : 40), qPrintable(fault));
            QVERIFY(!harmless || panel.loop->status().retries == retriesBefore);
            QVERIFY(panel.controller().faultCounts().value(fault.section(':', 0, 0)) > 0);
        }
    }

    // The station that is down neither holds up the others nor gets anything later.
    void deadStationAmongOthers()
    {
        Panel panel(driver, false, {3, 4, 5});
        panel.settings.parkMs = HourMs; // one attempt is enough here
        panel.controllers[3]->poke(SimulatorArea::V, 0, QByteArray::fromHex("0007"));
        panel.controllers[5]->poke(SimulatorArea::V, 0, QByteArray::fromHex("0008"));
        panel.controllers[4]->stop();
        panel.start("VW0@4 VW0@3 VW0@5");
        QVERIFY(panel.journal.waitFor(LoopEvent::LinkDown));
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        QVERIFY(!panel.loop->isFresh(0) && panel.loop->isFresh(1) && panel.loop->isFresh(2));
        QCOMPARE(panel.loop->status().stationsUp, 2);
        QCOMPARE(panel.valueOf("VW0@3"), QString("7"));
        QCOMPARE(panel.valueOf("VW0@5"), QString("8"));
        for (const char* write : {"VW0@4=5", "VW0@9=5"})
            QCOMPARE(panel.ask(write).fault, Fault::NoConnection);
        QCOMPARE(panel.ask("VW0@4").fault, Fault::NoConnection);
        QCOMPARE(panel.ask("VW0@5=9").fault, Fault::None);
        QCOMPARE(panel.controllers[5]->peek(SimulatorArea::V, 0, 2), QByteArray::fromHex("0009"));
        QCOMPARE(panel.controllers[3]->peek(SimulatorArea::V, 0, 2), QByteArray::fromHex("0007"));
    }

    void deadStationRevives()
    {
        Panel panel(driver, false, {3, 4});
        panel.controllers[4]->stop();
        panel.start("VW0@3 VW0@4");
        QVERIFY(panel.journal.waitFor(LoopEvent::LinkDown));
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        panel.startController(4);
        LoopEvent up;
        QVERIFY(panel.journal.waitFor(LoopEvent::LinkUp, &up));
        QCOMPARE(up.station, 4);
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        QVERIFY(panel.loop->isFresh(0) && panel.loop->isFresh(1));
    }

    // A value that is being written is not current until it has been read back: the driver's image
    // shows it before the controller has agreed.
    void writtenValueIsNotCurrent()
    {
        Panel panel(driver);
        panel.settings.intervalMs = HourMs; // one cycle, then rest
        panel.controller().poke(SimulatorArea::V, 50, QByteArray(8, '\x77'));
        QVERIFY(panel.startAndCycle("VW10 VW300 SM0.0"));
        QCOMPARE(panel.ask("SM0.0=0").fault, Fault::Refused);
        QVERIFY(!panel.loop->isFresh(2));
        QCOMPARE(panel.ask("VW10=5").fault, Fault::None);
        QVERIFY(!panel.loop->isFresh(0) && panel.loop->isFresh(1));
        // VB takes as many bytes behind it with it.
        QCOMPARE(panel.ask("VB50x3=1,2,3").fault, Fault::None);
        QCOMPARE(panel.controller().peek(SimulatorArea::V, 50, 8),
                 QByteArray::fromHex("0102030000007777"));
    }

    // Nothing in flight outlives stop(), as no rest between cycles does at the end of the test
    // above: else the time limit would tell.
    void stopInterrupts()
    {
        Panel panel(driver);
        panel.settings.timeoutMs = HourMs;
        panel.setFaults({"silent-accept"});
        panel.start("VW0");
        Outcome outcome = panel.startAsking("VW0");
        QTRY_VERIFY_WITH_TIMEOUT(!panel.controller().faultCounts().isEmpty(), LongMs);
        panel.loop->stop();
        QVERIFY(isThere(outcome, 0));
        QCOMPARE(outcome.get().fault, Fault::Stopped);
        panel.loop->stop(); // twice does no harm
        QCOMPARE(panel.ask("VW0").fault, Fault::Stopped);
    }

    // Requests come from many threads, and lists change under them.
    void manyThreads()
    {
        Panel panel(driver);
        QVERIFY(panel.startAndCycle("VW0 MW0"));
        const quint64 retriesBefore = panel.loop->status().retries;
        std::atomic<int> failures{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&panel, &failures, t] {
                for (int i = 1; i <= 40; ++i) {
                    const QString name = QStringLiteral("VW%1").arg(1000 + 2 * t);
                    const RequestResult written = panel.ask(name + '=' + QString::number(i));
                    if (written.fault != Fault::None || panel.valueOf(name) != QString::number(i))
                        ++failures;
                    panel.loop->isFresh(1);
                    panel.loop->value(parsed("VW0").variable);
                    if (i % 10 == 0)
                        panel.watch(i % 20 == 0 ? "VW0 MW0" : "MW0 VW2");
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        QCOMPARE(failures.load(), 0);
        panel.journal.clear();
        QVERIFY(panel.journal.waitFor(LoopEvent::CycleDone));
        QCOMPARE(panel.loop->status().retries, retriesBefore);
    }

private:
    template <class Scenario>
    void inEachMode(Scenario scenario)
    {
        for (const bool remote : {false, true}) {
            for (const bool stationEach : {false, true}) {
                Panel panel(driver, remote, stationEach ? QList<int>{3} : QList<int>{});
                scenario(panel, QString(stationEach ? "@3" : ""));
                if (QTest::currentTestFailed())
                    return qWarning("remote: %d, a station each: %d", remote, stationEach);
            }
        }
    }

    DriverLibrary driver;
};

QTEST_GUILESS_MAIN(PanelLoopTest)
#include "panel_loop_test.moc"
