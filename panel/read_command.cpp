#include "panel/inbox.h"
#include "panel/old_commands.h"
#include "panel/old_session.h"

#include <QEventLoop>

int runRead(const PanelOptions& options, Session& session)
{
    QEventLoop events;
    FailureReport report(session);
    QVector<RequestResult> results(options.variables.size());
    int open = int(options.variables.size());
    Inbox inbox([&session] { session.loop().stop(); });

    for (int i = 0; i < int(options.variables.size()); ++i) {
        session.loop().read(options.variables.at(i), [&, i](const RequestResult& result) {
            inbox.post([&, i, result] {
                results[i] = result;
                if (--open == 0)
                    events.quit();
            });
        });
    }
    session.loop().start();
    events.exec();
    session.loop().stop();
    // Stations answer in any order; scripts count on that of the arguments.
    for (int i = 0; i < int(options.variables.size()); ++i) {
        const Variable& variable = options.variables.at(i);
        if (results.at(i).fault == Fault::None)
            printValue(variable, results.at(i).data);
        report.add(variable, results.at(i));
    }
    return report.finish();
}
