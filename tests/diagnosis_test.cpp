// Diagnosis: recorded faults replayed at a desk, and which step of a connection fails.

#include "panel/frame_text.h"
#include "panel/link_probe.h"
#include "panel/replay.h"
#include "simulator/simulator_thread.h"
#include "tests/plant.h"
#include "wire/frame_trace.h"
#include "wire/s7_fields.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

#include <numeric>

using namespace s7200;
using namespace s7200::panel;
using wire::FrameTrace;

namespace
{

/// Without the offset for a request's host_key, which no capture shows.
int classOf(int result)
{
    for (int first : {Result_BadContent, Result_TimeOut, Result_WrongLength}) {
        if (result >= first && result < first + 12)
            return first;
    }
    return result;
}

QVector<Conversation> conversationsIn(const QString& file)
{
    QString error;
    const auto reader = wire::CaptureReader::open(file, &error);
    if (!reader)
        qFatal("%s", qPrintable(error));
    wire::TcpStreams streams;
    while (const auto segment = reader->next())
        streams.add(*segment);
    const auto events = streams.finish();
    return conversationsOf(events, streams.connections());
}

struct Replayed {
    QVector<ReplayStep> steps;
    QVector<int> results;
    QVector<ReplayStep> differences;
};

Replayed replay(const Conversation& conversation, const QStringList& variables = {},
                int retries = 3)
{
    ControllerSettings settings;
    settings.retries = retries;
    QString error;
    const auto desk = DriverDesk::open(settings, &error);
    if (!desk)
        qFatal("%s", qPrintable(error));
    Replayed replayed;
    Replay run(*desk, variablesOf(variables), [&replayed](const ReplayStep& step) {
        replayed.steps.append(step);
        if (step.result >= 0)
            replayed.results.append(step.result);
        if (step.isDifferent())
            replayed.differences.append(step);
    });
    run.run(conversation, 1000);
    return replayed;
}

/// Kind, byte and field of each difference.
QStringList told(const Replayed& replayed)
{
    QStringList lines;
    for (const ReplayStep& step : replayed.differences)
        lines.append(QString("%1 %2 %3")
                         .arg(step.kind)
                         .arg(step.firstDifference())
                         .arg(fieldName(step.expected, step.firstDifference())));
    return lines;
}

const QStringList Watched = {"VW0", "VD100x20", "M0.3", "T37x3", "AIW2", "CV5"};

} // namespace

class DiagnosisTest : public QObject
{
    Q_OBJECT

private slots:
    void faultsReplay_data()
    {
        QTest::addColumn<QStringList>("faults");
        QTest::addColumn<bool>("ownList"); ///< The driver's own list, without other requests.
        for (const char* fault :
             {"lost", "late", "doubled", "truncated", "corrupted", "wrong-reference",
              "wrong-length", "error-class", "item-error", "empty-tpdu-first", "split",
              "close-mid-frame", "refuse-connection", "silent-accept", "garbage-confirm"}) {
            const QString text = QLatin1String(fault);
            // A refusal changes the list: what is refused is read apart from the others.
            const bool refuses = text.contains("error") || text == "corrupted";
            QTest::newRow(fault) << QStringList{text + ":0.08"} << !refuses;
        }
        QTest::newRow("all") << QStringList{"lost:0.02",        "late:0.02",
                                            "truncated:0.02",   "wrong-reference:0.02",
                                            "item-error:0.01",  "close-mid-frame:0.02",
                                            "silent-accept:0.1"}
                             << false;
    }

    void faultsReplay()
    {
        QFETCH(QStringList, faults);
        QFETCH(bool, ownList);
        for (bool own : {false, true}) {
            if (own && !ownList)
                continue;
            const QTemporaryDir folder;
            Plant plant(faults, folder.filePath("trace.pcap"));
            plant.run(variablesOf(Watched), 500, !own);
            const QString first = faults.first().section(':', 0, 0);
            QVERIFY2(faults.size() > 1 || plant.faultCounts().value(first) > 0, qPrintable(first));
            const auto conversations = conversationsIn(folder.filePath("trace.pcap"));
            QCOMPARE(int(conversations.size()), 1);
            const Replayed replayed = replay(conversations.first(), own ? Watched : QStringList());
            for (const ReplayStep& step : replayed.differences)
                QFAIL(qPrintable(
                    QString("frame %1, byte %2: %3, driver %4")
                        .arg(step.number)
                        .arg(step.firstDifference())
                        .arg(QString(step.captured.toHex()), QString(step.expected.toHex()))));
            QVector<int> expected = resultsOfHost;
            if (!own)
                std::transform(expected.begin(), expected.end(), expected.begin(), classOf);
            QVERIFY(replayed.results.size() > 400);
            // What the host did after the last frame is not in the trace.
            QCOMPARE(replayed.results, expected.mid(0, int(replayed.results.size())));
            QVERIFY(expected.size() - replayed.results.size() < 8);
        }
    }

    /// A controller that grants a smaller PDU: other cuts, and analogue words read apart.
    void smallGrantReplays()
    {
        const QTemporaryDir folder;
        const QString file = folder.filePath("trace.pcap");
        const QStringList watched = {"VB0x100", "AIW0", "AIW62", "M0.3"};
        QString error;
        const auto trace = FrameTrace::open(file, FrameTrace::KeepExisting, &error);
        sim::SimulatorOptions options;
        options.largestPdu = 64;
        options.trace = trace.get();
        sim::SimulatorThread simulator(options);
        QVERIFY2(simulator.start(&error), qPrintable(error));
        ControllerSettings settings;
        settings.endpoint = {"127.0.0.1", simulator.port()};
        settings.intervalMs = 1;
        settings.timeoutMs = 20000;
        Controller controller(settings);
        controller.watch(variablesOf(watched));
        QSignalSpy cycles(&controller, &Controller::cycleDone);
        controller.start();
        controller.write("VW200=7");
        QTRY_VERIFY_WITH_TIMEOUT(cycles.size() >= 3, 60000);
        controller.stop();
        simulator.stop();
        const Replayed replayed = replay(conversationsIn(file).first(), watched);
        QCOMPARE(told(replayed), QStringList());
        QVERIFY(replayed.results.size() > 15 &&
                replayed.results.count(Result_Good) == replayed.results.size());
    }

    /// What a replay says about a capture that was tampered with.
    void differences()
    {
        const QTemporaryDir folder;
        Plant plant({}, folder.filePath("trace.pcap"));
        plant.run(variablesOf(Watched), 60, false);
        const Conversation whole = conversationsIn(folder.filePath("trace.pcap")).first();
        const QString compared = QString::number(ReplayStep::Compared);

        Conversation changed = whole;
        changed.exchanges[10].request[wire::JobItemLengthOffset + 1] = 99;
        QCOMPARE(told(replay(changed, Watched)), QStringList{compared + " 24 item length"});
        changed = whole;
        changed.exchanges.removeLast(); // the capture ends before its reply
        changed.endsUnanswered = false;
        for (int i = 12; i < int(changed.exchanges.size()); ++i) { // one reference was left out
            for (QByteArray* frame : {&changed.exchanges[i].request, &changed.exchanges[i].reply})
                (*frame)[wire::PduReferenceOffset + 1] =
                    char(frame->at(wire::PduReferenceOffset + 1) + 1);
        }
        QCOMPARE(told(replay(changed)), QStringList{compared + " 12 PDU reference"});
        changed = whole;
        changed.exchanges[9].request[wire::JobItemCountOffset] = 2;
        QCOMPARE(replay(changed).differences.first().kind, ReplayStep::NotDrivers);
        // A host with more patience than the driver is told to have.
        changed = whole;
        Exchange unanswered = whole.exchanges.at(9);
        unanswered.reply.clear();
        changed.exchanges.insert(9, 4, unanswered);
        QCOMPARE(replay(changed, {}, 5).differences.size(), 0);
        QCOMPARE(replay(changed, {}, 3).differences.first().kind, ReplayStep::OutOfStep);

        // A good reply, and yet asked again: it came too late.
        changed = whole;
        changed.exchanges.insert(9, whole.exchanges.at(9));
        const Replayed late = replay(changed, Watched);
        QCOMPARE(told(late), QStringList());
        QCOMPARE(late.results.count(Result_WillRetry), 1);

        // A capture that begins amid a connection, where its references are.
        for (int first : {1, 2, 5, 31}) {
            changed = whole;
            changed.exchanges.remove(0, first);
            QCOMPARE(told(replay(changed)), QStringList());
            QCOMPARE(told(replay(changed, Watched)), QStringList());
        }
    }

    /// A closed connection ends a request; the end of the capture leaves it open.
    void lastRequest()
    {
        wire::TcpStreams::Connection connection;
        wire::StreamEvent asked;
        asked.bytes = QByteArray::fromHex("0300000702e000");
        wire::StreamEvent closed;
        closed.kind = wire::StreamEvent::Closed;
        QVERIFY(conversationsOf({asked}, {connection}).first().endsUnanswered);
        QVERIFY(!conversationsOf({asked, closed}, {connection}).first().endsUnanswered);
    }

    void ping_data()
    {
        QTest::addColumn<QString>("fault"); ///< Or "": none, "remote": none, "nobody" listens.
        QTest::addColumn<int>("step");
        QTest::addColumn<int>("cause");
        const auto row = [](const char* fault, ProbeStep step, Cause cause) {
            QTest::newRow(fault) << QString(fault) << int(step) << int(cause);
        };
        row("", ProbeStep::Read, Cause::None);
        row("nobody", ProbeStep::Connect, Cause::NoConnection);
        row("silent-accept", ProbeStep::TpduConnection, Cause::TimedOut);
        row("refuse-connection", ProbeStep::TpduConnection, Cause::Closed);
        row("garbage-confirm", ProbeStep::TpduConnection, Cause::NotS7);
        row("error-class:address 0", ProbeStep::Read, Cause::Refused);
        row("wrong-length:address 0", ProbeStep::Read, Cause::WrongLength);
        row("close-mid-frame:address 0", ProbeStep::Read, Cause::None);
        row("remote", ProbeStep::Read, Cause::None);
    }

    void ping()
    {
        QFETCH(QString, fault);
        QFETCH(int, step);
        QFETCH(int, cause);
        sim::SimulatorOptions options;
        const bool remote = fault == "remote";
        options.remote = remote;
        if (!fault.isEmpty() && fault != "nobody" && !remote)
            options.faults = QStringList{fault};
        sim::SimulatorThread simulator(options);
        QString error;
        QVERIFY2(simulator.start(&error), qPrintable(error));
        if (fault == "nobody")
            simulator.stop();
        ControllerSettings settings;
        settings.endpoint = {"127.0.0.1", simulator.port()};
        settings.intervalMs = 1;
        settings.remoteAccess = remote;
        settings.timeoutMs = fault == "silent-accept" ? 300 : 20000;
        LinkProbe probe(settings, DriverDesk::open(settings, &error), 6);
        QSignalSpy finished(&probe, &LinkProbe::finished);
        QSignalSpy connected(&probe, &LinkProbe::connected);
        probe.start();
        QVERIFY(finished.wait(60000));
        const ProbeResults& results = probe.results();
        const bool shaken = ProbeStep(step) == ProbeStep::Read;
        QCOMPARE(results.gaveUp, !shaken);
        const bool good = fault.isEmpty() || remote;
        QCOMPARE(int(connected.size()), shaken ? 1 : 0);
        QCOMPARE(results.grantedPdu, shaken && !remote ? 240 : 0);
        QCOMPARE(int(results.roundTripsUs.size()), good ? 6 : 0);
        QCOMPARE(results.reads, shaken ? 6 : 0);
        if (good)
            return;
        const int failures = std::accumulate(results.failures.begin(), results.failures.end(), 0);
        QCOMPARE(failures, shaken ? 6 : 1);
        if (fault.startsWith("close"))
            return; // cut short or closed, as the kernel has it
        QCOMPARE(int(results.step), step);
        QCOMPARE(int(results.failure.cause), cause);
        QCOMPARE(results.failures[size_t(cause)], failures);
        QVERIFY(!usualCause(results, settings).isEmpty() || ProbeStep(step) == ProbeStep::Read);
    }

    /// Once a client has connected anew, the connection before it answers nothing.
    void givenUpConnection()
    {
        const QByteArray read = QByteArray::fromHex("0300001f02f080320100000007000e00000401120a10"
                                                    "020002000184000000");
        const QByteArray late = QByteArray::fromHex("0300001902f080320300000007000200060000040"
                                                    "1ff0400101234");
        const auto event = [](int connection, FrameTrace::Direction direction,
                              const QByteArray& bytes) {
            wire::StreamEvent made;
            made.connection = connection;
            made.direction = direction;
            made.bytes = bytes;
            return made;
        };
        const auto found = conversationsOf(
            {event(0, FrameTrace::ToController, read), event(1, FrameTrace::ToController, read),
             event(0, FrameTrace::FromController, late), event(0, FrameTrace::ToController, read)},
            {{}, {}});
        QCOMPARE(int(found.size()), 1);
        QCOMPARE(int(found.first().exchanges.size()), 2);
        QVERIFY(found.first().exchanges.at(1).reply.isEmpty());
    }
};

QTEST_GUILESS_MAIN(DiagnosisTest)
#include "diagnosis_test.moc"
