// Requests foretold: what the plan says is what a controller is asked for.

#include "panel/frame_text.h"
#include "panel/request_preview.h"
#include "simulator/simulator_thread.h"
#include "tests/plant.h"
#include "wire/s7_fields.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

using namespace s7200;
using namespace s7200::panel;

namespace
{

/// "read AIW2 to AIW6" as the simulated controller logs it: "read AIW2 x 3".
QString asLogged(const QString& planned)
{
    static const QRegularExpression form("^read ([A-Z]+)(\\d+) to [A-Z]+(\\d+)$");
    const auto match = form.match(planned);
    const int step = match.captured(1).startsWith("AI") ? 2 : 1;
    const int count = (match.captured(3).toInt() - match.captured(2).toInt()) / step + 1;
    return match.hasMatch() ? planned.section(' ', 0, 1) + QString(" x %1").arg(count) : planned;
}

} // namespace

class PreviewTest : public QObject
{
    Q_OBJECT

private slots:
    void plans()
    {
        const QStringList local = {
            "read MB0 to MB1: 2 bytes, 1 wasted, reply 27, PDU 20, for 2",
            "read VB0 to VB11: 12 bytes, 6 wasted, reply 37, PDU 30, for 0 1",
            "read AIW2 to AIW4: 4 bytes, 0 wasted, reply 29, PDU 22, for 6",
            "read T3 to T10: 40 bytes, 25 wasted, reply 65, PDU 58, for 3 4",
            "read C5: 3 bytes, 0 wasted, reply 28, PDU 21, for 5"};
        // A peer that forwards sends byte areas twice over, and two bytes behind each reply.
        const QStringList remote = {
            "read MB0 to MB1: 4 bytes, 3 wasted, reply 31, PDU 22, for 2",
            "read VB0 to VB11: 24 bytes, 18 wasted, reply 51, PDU 42, for 0 1",
            "read AIW2 to AIW4: 4 bytes, 0 wasted, reply 31, PDU 22, for 6",
            "read T3 to T10: 40 bytes, 25 wasted, reply 67, PDU 58, for 3 4",
            "read C5: 3 bytes, 0 wasted, reply 30, PDU 21, for 5"};
        for (bool remoteAccess : {false, true}) {
            QString error;
            ControllerSettings settings;
            settings.remoteAccess = remoteAccess;
            const auto plan = planRequests(
                settings, variablesOf({"VW10", "VW0x2", "M0.3", "TV3", "TV9x2", "C5", "AIW2x2"}),
                240, &error);
            QVERIFY2(plan, qPrintable(error));
            QStringList lines;
            for (const PlannedRead& read : plan->reads) {
                QStringList served;
                for (int index : read.variables)
                    served.append(QString::number(index));
                lines.append(QString("%1: %2 bytes, %3 wasted, reply %4, PDU %5, for %6")
                                 .arg(read.text)
                                 .arg(read.dataBytes)
                                 .arg(read.wastedBytes)
                                 .arg(read.replyLength)
                                 .arg(read.pduLength)
                                 .arg(served.join(' ')));
                QVERIFY(remoteAccess || read.text == describeRequest(read.frame));
            }
            QCOMPARE(lines, remoteAccess ? remote : local);
            QCOMPARE(plan->cycleMs(20), 100.0);
        }
    }

    void plansHold_data()
    {
        QTest::addColumn<bool>("remote");
        QTest::addColumn<int>("pdu");
        for (int pdu : {240, 200, 100, 64, 24})
            QTest::addRow("%d bytes", pdu) << false << pdu;
        QTest::newRow("remote") << true << 240;
    }

    /// What is foretold is what a controller object asks of a controller that grants no more.
    void plansHold()
    {
        QFETCH(bool, remote);
        QFETCH(int, pdu);
        sim::SimulatorOptions options;
        options.remote = remote;
        options.largestPdu = pdu;
        QStringList asked; // "read VB0 x 70 -> ok"
        options.log = [&asked](const QString& line) {
            if (line.contains(" read "))
                asked.append(line.section(' ', 1));
        };
        sim::SimulatorThread simulator(options);
        QString error;
        QVERIFY2(simulator.start(&error), qPrintable(error));
        ControllerSettings settings;
        settings.endpoint = {"127.0.0.1", simulator.port()};
        settings.timeoutMs = 20000;
        settings.remoteAccess = remote;
        const QVector<Variable> variables =
            variablesOf({"VB0x300", "VB400x3", "AIW0", "AIW60", "C0x80", "C100", "M0.3"});
        const auto plan = planRequests(settings, variables, pdu, &error);
        QVERIFY2(plan, qPrintable(error));
        QVERIFY(plan->misfits() == 0 && plan->grantedPdu == pdu);
        Controller controller(settings);
        controller.watch(variables);
        QSignalSpy cycles(&controller, &Controller::cycleDone);
        controller.start();
        QVERIFY(cycles.wait(60000));
        controller.stop();
        simulator.stop();
        for (int i = 0; i < int(plan->reads.size()); ++i) {
            QCOMPARE(QString(asked.value(i)).replace(" -> ok", QString()),
                     asLogged(plan->reads.at(i).text));
        }
    }

    void requestsAreForetold()
    {
        QString error;
        // Any list: what is sent afterwards is the plan.
        const int lists = qEnvironmentVariableIntValue("DIAGNOSIS_LISTS");
        QRandomGenerator random(5);
        for (int i = 0; i < std::max(12, lists); ++i) {
            QStringList texts;
            for (int n = 1 + int(random.bounded(40)); n > 0; --n) {
                static const char* const Names[] = {"VW%1x%2", "VB%1x%2", "VD%1x%2",
                                                    "MW%1x%2", "TV%1x%2", "CV%1x%2",
                                                    "AIW%1",   "SMW%1",   "Q%1.5x%2"};
                const QString name = QLatin1String(Names[random.bounded(9)]);
                const int address = int(random.bounded(name.startsWith('V') ? 1200 : 28)) & ~1;
                const QString text = name.arg(address);
                texts.append(text.contains('%') ? text.arg(1 + random.bounded(3)) : text);
            }
            const QVector<Variable> variables = variablesOf(texts);
            const auto plan = planRequests(Plant::settings(), variables, 240, &error);
            QVERIFY2(plan, qPrintable(error));
            const QTemporaryDir folder;
            Plant plant({}, folder.filePath("trace.pcap"));
            plant.run(variables, 2 * int(plan->reads.size()) + 2, false);
            for (int sent = 2; sent < int(plant.sent.size()); ++sent) {
                const PlannedRead& read = plan->reads.at((sent - 2) % int(plan->reads.size()));
                QCOMPARE(plant.sent.at(sent).mid(wire::ParameterLengthOffset),
                         read.frame.mid(wire::ParameterLengthOffset));
            }
        }
    }
};

QTEST_GUILESS_MAIN(PreviewTest)
#include "preview_test.moc"
