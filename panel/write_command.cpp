#include "panel/inbox.h"
#include "panel/old_commands.h"
#include "panel/old_session.h"

#include <QEventLoop>

namespace
{

/// One run of the command, on the main thread.
class WriteRun
{
public:
    WriteRun(const PanelOptions& panelOptions, Session& panelSession)
        : options(panelOptions), session(panelSession), report(panelSession),
          open(int(panelOptions.assignments.size())), inbox([this] { session.loop().stop(); })
    {
    }

    int run()
    {
        for (const Assignment& assignment : options.assignments) {
            session.loop().write(assignment.variable, assignment.values,
                                 [this, &assignment](const RequestResult& result) {
                                     inbox.post([=, &assignment] { written(assignment, result); });
                                 });
        }
        session.loop().start();
        events.exec();
        session.loop().stop();
        return report.finish();
    }

private:
    void written(const Assignment& assignment, const RequestResult& result)
    {
        if (result.fault != Fault::None || !options.verify) {
            finished(assignment, result);
            return;
        }
        session.loop().read(assignment.variable, [this, &assignment](const RequestResult& read) {
            inbox.post([=, &assignment] { readBack(assignment, read); });
        });
    }

    void readBack(const Assignment& assignment, RequestResult result)
    {
        const Variable& variable = assignment.variable;
        if (result.fault == Fault::None) {
            printValue(variable, result.data);
            const QVector<quint32> values = decodeValues(variable, result.data);
            if (values != assignment.values) {
                result.fault = Fault::Invalid;
                result.detail = QStringLiteral("written %1, reads back %2")
                                    .arg(formatValues(variable, assignment.values),
                                         formatValues(variable, values));
            }
        }
        finished(assignment, result);
    }

    void finished(const Assignment& assignment, const RequestResult& result)
    {
        report.add(assignment.variable, result);
        if (result.fault == Fault::None)
            complain(assignment.variable.label() + QStringLiteral(": written"));
        if (--open == 0)
            events.quit();
    }

    const PanelOptions& options;
    Session& session;
    FailureReport report;
    int open;
    QEventLoop events;
    Inbox inbox;
};

} // namespace

int runWrite(const PanelOptions& options, Session& session)
{
    return WriteRun(options, session).run();
}
