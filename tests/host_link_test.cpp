// Controllers end to end: over TCP, each with its own copy of the driver, against simulated
// controllers that come and go and spoil their replies.

#include "simulator/simulator_thread.h"

#include <s7200host/controller.h>

#include <QSignalSpy>
#include <QtTest>

using namespace s7200;
using sim::SimulatorArea;
using sim::SimulatorOptions;
using sim::SimulatorThread;

namespace
{

constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.

/// A controller with its simulator.
struct Rig {
    explicit Rig(bool remote = false)
    {
        SimulatorOptions options;
        options.liveValues = false;
        options.remote = remote;
        simulator.reset(new SimulatorThread(options));
        QString error;
        if (!simulator->start(&error))
            qFatal("%s", qPrintable(error));
        settings.endpoint = {"127.0.0.1", simulator->port()};
        settings.remoteAccess = remote;
        settings.intervalMs = 20;
        settings.timeoutMs = LongMs;
    }

    std::unique_ptr<SimulatorThread> simulator;
    ControllerSettings settings;
};

} // namespace

class HostLinkTest : public QObject
{
    Q_OBJECT

private slots:
    void tenLines()
    {
        Rig rig;
        rig.simulator->poke(SimulatorArea::V, 100, QByteArray::fromHex("0102"));
        Controller controller(rig.settings);
        QString error;
        QVERIFY2(controller.watch(QStringList{"VW100", "M0.3"}, &error), qPrintable(error));
        QVERIFY2(controller.start(&error), qPrintable(error));
        QSignalSpy cycles(&controller, &Controller::cycleDone);
        QVERIFY(cycles.wait(LongMs));
        QCOMPARE(controller.value(0).elements, QVector<quint32>{0x0102});
        QCOMPARE(controller.value(0).quality, Quality::Good);
        bool written = false;
        controller.write("VW100=7", [&](const Result& result) { written = bool(result); });
        QTRY_VERIFY_WITH_TIMEOUT(written, LongMs);
        QTRY_COMPARE_WITH_TIMEOUT(controller.value(0).elements, QVector<quint32>{7}, LongMs);
    }
};

QTEST_GUILESS_MAIN(HostLinkTest)
#include "host_link_test.moc"
