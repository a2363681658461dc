#include "panel/commands.h"

#include "host/request_limits.h"
#include "panel/messages.h"
#include "panel/request_preview.h"
#include "panel/requests.h"

#include <algorithm>

namespace s7200::panel
{

namespace
{

const char* const Description =
    "Shows which requests the driver will send for these variables, without any\n"
    "controller: the driver itself is asked, and given perfect replies. One line a\n"
    "request: what it reads, its reply's bytes, of them those in gaps that nobody\n"
    "asked for, the reply's PDU length, and whom it serves. Then, for each\n"
    "controller, the requests of a cycle and how long it takes at a given round-trip\n"
    "time.";

constexpr int MostNames = 6; // in a line

struct Wanted {
    double roundTripMs = 0;
    int pdu = RequestLimits::UsualPdu; // what the driver asks for, and is granted at most
};

bool readRoundTrip(const CommandLine& line, double* milliseconds, QString* error)
{
    if (!line.options().isSet(QStringLiteral("rtt")))
        return true;
    bool ok = false;
    const QString text = line.options().value(QStringLiteral("rtt"));
    *milliseconds = text.toDouble(&ok);
    if (ok && *milliseconds > 0 && *milliseconds <= 60000)
        return true;
    *error = QStringLiteral("--rtt takes milliseconds above 0 up to 60000, not '%1'")
                 .arg(text.simplified());
    return false;
}

QString namesOf(const PlannedRead& read, const QStringList& labels, bool all)
{
    QStringList names;
    for (int index : read.variables)
        names.append(labels.at(index));
    if (names.isEmpty())
        return QStringLiteral("(keeps up the link)");
    const int left = int(names.size()) - MostNames;
    if (all || left <= 1)
        return names.join(QLatin1Char(' '));
    return names.mid(0, MostNames).join(QLatin1Char(' ')) +
           QStringLiteral(" and %1 more").arg(left);
}

void printPlan(const RequestPlan& plan, const QStringList& labels, bool all)
{
    print(QStringLiteral("%1  %2 %3 %4  %5  serves")
              .arg(QStringLiteral("#"), 3)
              .arg(QStringLiteral("request"), -24)
              .arg(QStringLiteral("data"), 6)
              .arg(QStringLiteral("gaps"), 6)
              .arg(QStringLiteral("reply PDU"), 10));
    int number = 0;
    for (const PlannedRead& read : plan.reads)
        print(QStringLiteral("%1  %2 %3 %4  %5 of %6  %7")
                  .arg(++number, 3)
                  .arg(read.text, -24)
                  .arg(read.dataBytes, 6)
                  .arg(read.wastedBytes, 6)
                  .arg(read.pduLength, 3)
                  .arg(plan.grantedPdu)
                  .arg(namesOf(read, labels, all)));
}

QString summaryOf(const RequestPlan& plan, const ControllerSettings& settings, double roundTripMs)
{
    QString text = QStringLiteral("%1 a cycle, %2 of data, %3 of them in gaps")
                       .arg(counted(quint64(plan.reads.size()), "request"),
                            counted(quint64(plan.dataBytes()), "byte"))
                       .arg(plan.wastedBytes());
    if (plan.misfits() > 0)
        text += QStringLiteral("; %1 beyond the PDU, which the controller refuses")
                    .arg(counted(quint64(plan.misfits()), "reply", "replies"));
    if (roundTripMs <= 0)
        return text;
    const double cycle = plan.cycleMs(roundTripMs);
    text += QStringLiteral("; at %1 ms a round trip a cycle takes %2 ms")
                .arg(roundTripMs)
                .arg(cycle, 0, 'f', 1);
    if (cycle > settings.intervalMs)
        text += QStringLiteral(", more than the interval of %1 ms").arg(settings.intervalMs);
    return text;
}

int explainController(const ControllerSettings& settings, const QVector<Item>& items,
                      const CommandLine& line, const Wanted& wanted)
{
    QVector<Variable> variables;
    QStringList labels;
    for (const Item& item : items) {
        variables.append(item.tag.variable);
        labels.append(item.label);
    }
    QString error;
    const std::optional<RequestPlan> plan = planRequests(settings, variables, wanted.pdu, &error);
    if (!plan)
        return usageError(error);
    if (line.options().isSet(QStringLiteral("frames"))) {
        for (const PlannedRead& read : plan->reads)
            print(QString::fromLatin1(read.frame.toHex()));
        return ExitGood;
    }
    printPlan(*plan, labels, line.options().isSet(QStringLiteral("all")));
    print(summaryOf(*plan, settings, wanted.roundTripMs));
    return ExitGood;
}

int run(CommandLine& line)
{
    QVector<Item> items;
    QString error;
    Wanted wanted;
    if (!readRoundTrip(line, &wanted.roundTripMs, &error) ||
        !line.number("pdu", RequestLimits::SmallestPdu, RequestLimits::UsualPdu, &wanted.pdu,
                     &error) ||
        !line.resolve(line.operands(), &items, &error) ||
        (items.isEmpty() && !line.resolveAllTags(&items, &error)))
        return usageErrors(error);
    if (items.isEmpty())
        return usageError(QStringLiteral("name at least one variable, as in VW100"));
    const QVector<ControllerSettings>& controllers = line.controllers();
    for (int i = 0; i < int(controllers.size()); ++i) {
        QVector<Item> own;
        std::copy_if(items.begin(), items.end(), std::back_inserter(own),
                     [i](const Item& item) { return item.controller == i; });
        if (own.isEmpty())
            continue;
        if (controllers.size() > 1)
            print((controllers.at(i).name.isEmpty() ? QStringLiteral("no controller named")
                                                    : controllers.at(i).name) +
                  QLatin1Char(':'));
        const int status = explainController(controllers.at(i), own, line, wanted);
        if (status != ExitGood)
            return status;
    }
    return outputFailure().isEmpty() ? ExitGood : ExitOutput;
}

} // namespace

Command explainCommand()
{
    return {"explain",
            "[VARIABLE...]",
            "which requests the driver will send for them",
            Description,
            TakesControllers | SimulatesIfNone | TakesTags | TakesVariables | TakesInterval,
            {
                {"rtt", "Round-trip time for which to give the cycle's length.", "ms"},
                {"pdu", "For a controller that grants a PDU of so many bytes (default 240).",
                 "bytes", "240"},
                {"frames", "Print nothing but the frames, in hexadecimal."},
                {"all", "Name all variables that a request serves."},
            },
            run};
}

} // namespace s7200::panel
