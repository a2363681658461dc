// Runs of the real link machine, each with a driver of its own, in virtual time against controllers
// that change all the time, over a network where everything goes wrong that can, beside a user who
// does anything at any time. S7200_SEEDS=FROM..TO chooses the runs; one seed is one run.

#include "tests/simulation_run.h"

#include <QRegularExpression>
#include <QtTest>

#include <cstdio>
#include <ctime>

using namespace s7200;
using simulation::Outcome;
using simulation::Run;

namespace
{

/// All that has to happen in a thousand runs, or the simulation does not test what it says.
struct Coverage {
    quint64 runs = 0;
    quint64 digest = 0;
    quint64 judged = 0;
    Micros lasted = 0;
    Outcome sums;

    template <typename Array>
    static void addTo(Array& sums, const Array& more)
    {
        for (std::size_t i = 0; i < sums.size(); ++i)
            sums[i] += more[i];
    }

    void add(const Outcome& one)
    {
        ++runs;
        digest = simulation::mixed(digest, one.digest);
        judged += one.judged;
        lasted += one.lasted;
        addTo(sums.faults, one.faults);
        addTo(sums.states, one.states);
        addTo(sums.qualities, one.qualities);
        addTo(sums.causes, one.causes);
        for (std::size_t cause = 0; cause < sums.ends.size(); ++cause)
            addTo(sums.ends[cause], one.ends[cause]);
    }
};

/// The same fault, whatever it struck and when.
QString kindOf(QString wrong)
{
    wrong = wrong.section(QStringLiteral(": "), -1);
    return wrong.remove(QRegularExpression(QStringLiteral("[0-9]+")));
}

/// Leaves out as many troubles and actions as the failure can do without.
Outcome shrunk(quint64 seed, const Outcome& failed)
{
    constexpr int MostRuns = 300;
    std::set<quint64> spared;
    Outcome smallest = failed;
    int runs = 0;
    for (std::size_t piece = failed.struck.size(); piece > 0 && runs < MostRuns;) {
        bool smaller = false;
        const std::vector<quint64> left = smallest.struck;
        for (std::size_t at = 0; at < left.size() && runs < MostRuns; at += piece, ++runs) {
            std::set<quint64> tried = spared;
            tried.insert(left.begin() + long(at),
                         left.begin() + long(std::min(at + piece, left.size())));
            const Outcome one = Run(seed, tried, false).carryOut();
            if (kindOf(one.wrong) != kindOf(failed.wrong))
                continue;
            spared = tried;
            smallest = one;
            smaller = true;
        }
        if (!smaller || piece > smallest.struck.size())
            piece = std::min(piece / 2, smallest.struck.size());
    }
    return Run(seed, spared, true).carryOut();
}

void print(quint64 seed, const Outcome& failed)
{
    const Outcome one = shrunk(seed, failed);
    std::printf(
        "seed %llu: %s\nshrunk to %d troubles and actions: %s\nadd(\"seed %llu\", \"%s\",\n",
        static_cast<unsigned long long>(seed), qPrintable(failed.wrong), int(one.struck.size()),
        qPrintable(one.wrong), static_cast<unsigned long long>(seed), qPrintable(one.options));
    for (const QString& event : one.events)
        std::printf("    \"%s\\n\"\n", qPrintable(event));
    std::printf(");\n");
    std::fflush(stdout);
}

/// What cannot happen, with the reason; everything else has to, in a thousand runs.
bool canTell(Cause cause)
{
    // These three are of requests.
    return cause != Cause::Dropped && cause != Cause::Invalid && cause != Cause::Stopped;
}

bool canEnd(Cause cause, int way)
{
    constexpr int Sent = 1;
    constexpr int NotSent = 2;
    switch (cause) {
    case Cause::None:
        return way != NotSent;
    case Cause::Refused: // a link that was lost so comes back at once, and who waits goes on
                         // waiting
        return way != NotSent;
    case Cause::NoConnection:
    case Cause::ConnectionRefused:
    case Cause::SetupRefused:
    case Cause::Invalid: // nothing was sent
        return way != Sent;
    default:
        return true;
    }
}

/// What did not happen although it can.
QStringList missing(const Outcome& sums)
{
    QStringList list;
    const auto add = [&list](bool can, quint64 count, const QString& what) {
        if (can && count == 0)
            list << what;
    };
    for (int i = 0; i < simulation::FaultCount; ++i)
        add(true, sums.faults[std::size_t(i)], simulation::describe(simulation::Fault(i)));
    for (int i = 0; i < int(sums.states.size()); ++i)
        add(true, sums.states[std::size_t(i)], describe(LinkState(i)));
    for (int i = 0; i < int(sums.qualities.size()); ++i)
        add(true, sums.qualities[std::size_t(i)], describe(Quality(i)));
    static const char* const ways[] = {"read ", "sent write ", "waiting write "};
    for (int i = 0; i < CauseCount; ++i) {
        add(canTell(Cause(i)), sums.causes[std::size_t(i)], "link: " + describe(Cause(i)));
        for (int way = 0; way < 3; ++way)
            add(canEnd(Cause(i), way), sums.ends[std::size_t(i)][std::size_t(way)],
                ways[way] + describe(Cause(i)));
    }
    return list;
}

void printCounts(const Outcome& sums)
{
    for (int i = 0; i < simulation::FaultCount; ++i)
        std::printf("%s %llu, ", simulation::describe(simulation::Fault(i)),
                    static_cast<unsigned long long>(sums.faults[std::size_t(i)]));
    for (int i = 0; i < int(sums.states.size()); ++i)
        std::printf("%s %llu, ", qPrintable(describe(LinkState(i))),
                    static_cast<unsigned long long>(sums.states[std::size_t(i)]));
    for (int i = 0; i < int(sums.qualities.size()); ++i)
        std::printf("%s %llu, ", qPrintable(describe(Quality(i))),
                    static_cast<unsigned long long>(sums.qualities[std::size_t(i)]));
    std::printf("\nlinks and ends of reads, sent writes, waiting writes by cause:\n");
    for (int i = 0; i < CauseCount; ++i) {
        const auto& ends = sums.ends[std::size_t(i)];
        std::printf("    %s %llu: %llu %llu %llu\n", qPrintable(describe(Cause(i))),
                    static_cast<unsigned long long>(sums.causes[std::size_t(i)]),
                    static_cast<unsigned long long>(ends[0]),
                    static_cast<unsigned long long>(ends[1]),
                    static_cast<unsigned long long>(ends[2]));
    }
}

} // namespace

class SimulationTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void oneSeedIsOneRun();
    void seeds();
};

void SimulationTest::oneSeedIsOneRun()
{
    for (const quint64 seed : {7u, 8u, 9u})
        QCOMPARE(Run(seed, {}, false).carryOut().digest, Run(seed, {}, true).carryOut().digest);
}

void SimulationTest::seeds()
{
    constexpr quint64 EnoughForAll = 1000;
    const QString range = qEnvironmentVariable("S7200_SEEDS", QStringLiteral(SIMULATION_SEEDS));
    const quint64 from = range.section(QStringLiteral(".."), 0, 0).toULongLong();
    const quint64 to = range.section(QStringLiteral(".."), -1).toULongLong();
    QVERIFY2(from > 0 && to >= from, "S7200_SEEDS is FROM..TO");
    const int mostFailures = qEnvironmentVariableIntValue("S7200_FAILURES");
    Coverage coverage;
    const std::clock_t began = std::clock();
    int failures = 0;
    for (quint64 seed = from; seed <= to && failures <= mostFailures; ++seed) {
        const Outcome one = Run(seed, {}, false).carryOut();
        coverage.add(one);
        if (one.wrong.isEmpty())
            continue;
        print(seed, one);
        ++failures;
    }
    const double seconds = double(std::clock() - began) / CLOCKS_PER_SEC;
    std::printf("%llu runs in %.1f s: %.0f virtual seconds a second, %llu values judged, digest "
                "%016llx\n",
                static_cast<unsigned long long>(coverage.runs), seconds,
                double(coverage.lasted) / 1e6 / seconds,
                static_cast<unsigned long long>(coverage.judged),
                static_cast<unsigned long long>(coverage.digest));
    printCounts(coverage.sums);
    QCOMPARE(failures, 0);
    if (coverage.runs >= EnoughForAll)
        QCOMPARE(missing(coverage.sums), QStringList());
}

int main(int argc, char** argv)
{
    qputenv("QTEST_FUNCTION_TIMEOUT", "3600000"); // beside others it may take minutes
    QCoreApplication application(argc, argv);
    SimulationTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "simulation_test.moc"
