#include "panel/commands.h"

#include "host/reply_judgement.h"
#include "panel/conversation.h"
#include "panel/frame_text.h"
#include "panel/messages.h"
#include "panel/replay.h"
#include "panel/requests.h"
#include "wire/s7_fields.h"

#include <algorithm>

namespace s7200::panel
{

namespace
{

const char* const Description =
    "Gives the replies of a capture (pcap or pcapng, from --trace or from any network\n"
    "analyser) to the driver, which has no clock and no sockets, and compares what it\n"
    "asks for with what was asked for. With variables or --tags the driver makes its\n"
    "own list of them; without, each request of the capture is handed to it, which\n"
    "checks references, repeats and handshakes. Prints what went wrong, where the\n"
    "requests differ, and how often each result code came. A request that was sent\n"
    "again, or had no reply when the connection ended, counts as a time-out.";

constexpr int MostHexBytes = 16;

QString hexAround(const QByteArray& frame, int offset)
{
    if (offset >= frame.size())
        return QStringLiteral("nothing");
    const QByteArray hex = frame.mid(offset, MostHexBytes).toHex();
    return QString::fromLatin1(hex) +
           (frame.size() > offset + MostHexBytes ? QStringLiteral("...") : QString());
}

QString endText(const wire::TcpEnd& end)
{
    return Endpoint{end.address.toString(), end.port}.text();
}

void printDifference(const ReplayStep& step)
{
    const QString where =
        QStringLiteral("frame %1, %2: ").arg(step.number).arg(describeRequest(step.captured));
    if (step.kind == ReplayStep::NotDrivers) {
        print(where + QStringLiteral("not a request of this driver's"));
    } else if (step.kind == ReplayStep::OutOfStep) {
        print(where + QStringLiteral("the driver would connect anew here (too many failed replies "
                                     "for its --retries)"));
    } else {
        const int offset = step.firstDifference();
        print(where +
              QStringLiteral("differs at byte %1, %2: the driver sends %3, the capture has %4")
                  .arg(offset)
                  .arg(fieldName(step.expected, offset), hexAround(step.expected, offset),
                       hexAround(step.captured, offset)));
    }
}

void printStep(const ReplayStep& step, bool all)
{
    if (step.isDifferent())
        printDifference(step);
    const bool good = step.result == Result_Good || step.result == Result_RemoteStored;
    if (step.result < 0 || (good && !all))
        return;
    QString what = describeReply(step.reply);
    if (!good && !step.reply.isEmpty())
        what = judgeBadReply({step.expected, step.replyLength, false}, step.reply).detail;
    if (step.late)
        what = QStringLiteral("reply came too late");
    else if (step.kind == ReplayStep::NotSent)
        what = QStringLiteral("no connection, not sent");
    print(QStringLiteral("frame %1, %2: %3; result %4, %5")
              .arg(step.number)
              .arg(describeRequest(step.expected), what)
              .arg(step.result)
              .arg(describeResult(step.result)));
}

QString resultsText(const std::map<int, int>& results)
{
    QStringList texts;
    for (const auto& entry : results)
        texts.append(QStringLiteral("%1 (%2): %3")
                         .arg(entry.first)
                         .arg(describeResult(entry.first))
                         .arg(entry.second));
    return texts.join(QStringLiteral(", "));
}

/// What the user should know about a capture that is not whole.
void printRemarks(const Conversation& conversation)
{
    if (conversation.gaps > 0)
        complain(QStringLiteral("bytes are missing in the capture in %1")
                     .arg(counted(quint64(conversation.gaps), "place")));
    if (!isConnectionRequest(conversation.exchanges.first().request))
        complain(QStringLiteral("the capture begins amid a connection: the driver was brought to "
                                "that point with perfect replies"));
    if (conversation.failedAttempts > 0)
        complain(counted(quint64(conversation.failedAttempts), "attempt") +
                 QStringLiteral(" to connect came to nothing"));
}

/// Gives the number of frames that differ; -1 if there is no driver.
int replayOne(const Conversation& conversation, const ControllerSettings& settings,
              const QVector<Variable>& variables, const CommandLine& line, int mostDifferences)
{
    print(QStringLiteral("%1 -> %2, %3")
              .arg(endText(conversation.client), endText(conversation.controller),
                   counted(quint64(conversation.exchanges.size()), "request")));
    printRemarks(conversation);
    QString error;
    const std::unique_ptr<DriverDesk> desk = DriverDesk::open(settings, &error);
    if (!desk) {
        complain(error);
        return -1;
    }
    int differences = 0;
    const bool all = line.options().isSet(QStringLiteral("all"));
    Replay replay(*desk, variables, [&](const ReplayStep& step) {
        differences += step.isDifferent() ? 1 : 0;
        printStep(step, all);
    });
    const bool whole = replay.run(conversation, mostDifferences);
    print(QStringLiteral("results: ") +
          (replay.results().empty() ? QStringLiteral("none") : resultsText(replay.results())));
    if (!whole)
        print(QStringLiteral("%1; the rest was not looked at")
                  .arg(counted(quint64(differences), "difference")));
    else
        print(differences == 0 ? QStringLiteral("no difference")
                               : counted(quint64(differences), "difference"));
    return differences;
}

bool readCapture(const QString& fileName, QVector<Conversation>* conversations, QString* error)
{
    const std::unique_ptr<wire::CaptureReader> reader = wire::CaptureReader::open(fileName, error);
    if (!reader)
        return false;
    wire::TcpStreams streams;
    while (const std::optional<wire::CapturedSegment> segment = reader->next())
        streams.add(*segment);
    if (!reader->error().isEmpty())
        complain(reader->error());
    if (reader->cutFrames() > 0)
        complain(QStringLiteral("only the beginning of %1 was captured; capture whole ones")
                     .arg(counted(quint64(reader->cutFrames()), "frame")));
    const QVector<wire::StreamEvent> events = streams.finish();
    *conversations = conversationsOf(events, streams.connections());
    if (conversations->isEmpty())
        *error = QStringLiteral("%1 holds no requests to a controller").arg(fileName);
    return !conversations->isEmpty();
}

int run(CommandLine& line)
{
    QString error;
    QVector<Item> items;
    QVector<Conversation> conversations;
    ControllerSettings settings;
    int mostDifferences = 10;
    QStringList operands = line.operands();
    if (operands.isEmpty())
        return usageError(QStringLiteral("name a capture file"));
    const QString fileName = operands.takeFirst();
    if (!line.number("retries", 0, 1000, &settings.retries, &error) ||
        !line.number("differences", 1, 1000000, &mostDifferences, &error) ||
        !line.resolve(operands, &items, &error) ||
        (items.isEmpty() && !line.resolveAllTags(&items, &error)) ||
        !readCapture(fileName, &conversations, &error))
        return usageErrors(error);
    settings.driverFile = line.driverFile();
    QVector<Variable> variables;
    for (const Item& item : items)
        variables.append(item.tag.variable);
    int different = 0;
    for (const Conversation& conversation : conversations) {
        const int found = replayOne(conversation, settings, variables, line, mostDifferences);
        if (found < 0)
            return ExitUsage;
        different += found;
    }
    if (!outputFailure().isEmpty())
        return ExitOutput;
    return different == 0 ? ExitGood : ExitDiffers;
}

} // namespace

Command replayCommand()
{
    return {
        "replay",
        "CAPTURE [VARIABLE...]",
        "what the driver makes of a recorded capture",
        Description,
        TakesTags | TakesVariables | TakesDriver,
        {
            {"retries", "Failed replies that the host tolerated (default 3).", "n", "3"},
            {"differences", "End after this many requests that differ (default 10).", "n", "10"},
            {"all", "List every request, not only what went wrong."},
        },
        run};
}

} // namespace s7200::panel
