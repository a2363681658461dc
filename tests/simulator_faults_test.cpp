// Which faults the simulated controller chooses, and what they are aimed at.

#include "simulator/fault_injector.h"
#include "simulator/remote_request_handler.h"
#include "tests/simulator_frames.h"

#include <tuple>

using namespace s7200::sim;

namespace
{

/// Whether faults aimed at these places strike a request, and at those do not.
void expectStruck(RequestHandler& handler, const QByteArray& request, const QString& struck,
                  const QString& spared)
{
    const RequestSummary summary = handler.parse(request);
    QCOMPARE(summary.kind, RequestSummary::Job);
    for (const QString& aim : (struck + ' ' + spared).split(' ', Qt::SkipEmptyParts)) {
        QString error;
        FaultInjector injector(1);
        QVERIFY2(injector.setFaults({"lost:address " + aim}, &error), qPrintable(error));
        const bool strikes = injector.choose(FaultMoment::Job, summary.touched) == FaultKind::Lost;
        QVERIFY2(strikes == struck.split(' ').contains(aim),
                 qPrintable(toHex(request) + ' ' + aim));
    }
}

/// What strikes each of so many reads of a byte, VB100 and on.
QStringList chosen(quint32 seed, const QStringList& faults, int times)
{
    QString error;
    FaultInjector injector(seed);
    injector.setFaults({"split"}, &error); // kept when a text is wrong
    injector.setFaults(faults, &error);
    QStringList kinds;
    for (int i = 0; i < times; ++i)
        kinds += FaultInjector::name(
            injector.choose(FaultMoment::Job, {V, 8 * (100 + i), 8 * (101 + i)}));
    return kinds;
}

} // namespace

class SimulatorFaultsTest : public QObject
{
    Q_OBJECT

private slots:
    void faultsAreAimed()
    {
        // A job, what strikes it, and what does not.
        // clang-format off
        const std::tuple<const char*, const char*, const char*, const char*> jobs[] = {
            {Read, "0200040001840001E0", "60 63 VB60 VB63 VW59 VD63 V63.7 VB0x61", // VB60 to VB63
             "59 64 VB59 VB64 VW58 MB60 T60 IW60 V64.0 VB0x60"},
            {Read, "0600010001840001E0", "63 VB63", "64 VB64"}, // a double word
            {Read, "010001000083000053", "10 M10.3 MB10 MW9", "M10.2 M10.4 11 V10.3"},
            {Write, "010001000083000053", "10 M10.3 MB10", "M10.2 M10.4 11"},
            {Read, "1F000800001F00001E", "30 37 T37 TV37 T20x11", "29 38 T38 C37 VB37 T20x10"},
            {Read, "1E000800001E00001E", "37 C37 CV30", "38 T37 C38"},
            {Read, "040002000006000010", "2 5 AIW4 AIW2", "1 6 AIW0 AIW6 AQW4 VW4"},
            {Write, "040002000085000140", "40 43 SMD40 SMB43", "44 SMB44 VB40"},
            {Read, "020004000299000000", "0 3", "4 VB0"}}; // no such area
        // clang-format on
        ConnectedHandler s7;
        for (const auto& [function, item, struck, spared] : jobs)
            expectStruck(s7, job(function, item, function == Write ? "03000101" : ""), struck,
                         spared);
        // Forwarded: origin, type, address, count.
        // clang-format off
        const std::tuple<int, int, int, int, const char*, const char*> records[] = {
            {0, 12, 98, 2, "98 101 VW100", "97 102 VB102 MB98"}, // brings twice its count
            {0, 2, 83, 2, "10 11 M10.0 MB11", "9 12 M12.0"},
            {0, 14, 30, 8, "37 T37", "38 T38 C37 VB37"},
            {0, 16, 4, 1, "4 AIW4", "AIW6 AQW4"},
            {1, 2, 83, 3, "10 M10.3 M10.5", "M10.2 M10.6 11"},
            {1, 12, 100, 1, "101 VB101", "VB102 102"}, {1, 11, 7, 2, "VB8", "VB9"},
            {1, 13, 100, 2, "VB103", "VB104"}, {1, 15, 3, 2, "C4", "C5 T4 VB4"},
            {0, 25, 0, 1, "", "VB0 0"}}; // no such type
        // clang-format on
        ControllerMemory memory;
        RemoteRequestHandler peer(&memory);
        for (const auto& [origin, type, address, count, struck, spared] : records)
            expectStruck(peer, record(origin, type, address, count, origin ? "0000" : ""), struck,
                         spared);
    }

    void faultRules()
    {
        for (const QString& line : FaultInjector::descriptions())
            QCOMPARE(chosen(1, {"lost", line.section(' ', 0, 0)}, 1), QStringList("lost"));
        for (const char* text :
             {"lost:0", "late:1", "late:0.25", "split:every 1", "doubled:address 0",
              "silent-accept:every 2", "late:address vw0", "late:address VB10239",
              "late:address M0.7", "late:address AIW62", "late:address T255x1"})
            QCOMPARE(chosen(1, {"lost", text}, 1), QStringList("lost"));
        // clang-format off
        for (const char* text :
             {"lots", "lost:", "lost:1.1", "lost:-0.1", "lost:nan", "lost:every", "lost:every 0",
              "lost:every x", "lost:address -1", "lost:address 1x", "lost:0.5:every 2",
              "silent-accept:address 1", "lost:address V100", "lost:address VW100.1",
              "lost:address M0.8", "lost:address XW1", "lost:address VW", "lost:address VW10239",
              "lost:address AIW63", "lost:address T255x2", "lost:address C256",
              "lost:address T37.0", "lost:address VW0x0", "lost:address "})
            QCOMPARE(chosen(1, {"lost", text}, 1), QStringList("split"));
        // clang-format on
        QCOMPARE(chosen(1, {"late:address 102", "lost:every 3", "refuse-connection", "late:0"}, 6),
                 QStringList({"", "", "late", "", "", "lost"}));
        const QStringList draws = chosen(7, {"lost:0.25"}, 4000);
        QCOMPARE(draws, chosen(7, {"lost:0.25"}, 4000));
        QVERIFY(draws != chosen(8, {"lost:0.25"}, 4000));
        QVERIFY(draws.count("lost") > 900 && draws.count("lost") < 1100);
    }
};

QTEST_APPLESS_MAIN(SimulatorFaultsTest)
#include "simulator_faults_test.moc"
