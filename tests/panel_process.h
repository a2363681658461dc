#ifndef TESTS_PANEL_PROCESS_H
#define TESTS_PANEL_PROCESS_H

#include "simulator/simulator_thread.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace s7200::panel
{

using namespace s7200::sim;

constexpr auto Out = QProcess::StandardOutput;
constexpr auto Err = QProcess::StandardError;
constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.

/// A panel at work.
class Panel
{
public:
    explicit Panel(const QStringList& arguments, const QString& output = QString(),
                   const QString& folder = QString())
    {
        // A shell's background job, which the tests may be, ignores them, and so would the panel.
        for (const int number : {SIGHUP, SIGINT, SIGQUIT})
            std::signal(number, SIG_DFL);
        process.setWorkingDirectory(folder);
        if (!output.isEmpty())
            process.setStandardOutputFile(output);
        process.start(PANEL_PROGRAM, arguments);
    }

    ~Panel()
    {
        process.kill();
        process.waitForFinished();
    }

    /// Exit status; -1 if it does not end by itself.
    int finish()
    {
        process.closeWriteChannel();
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(LongMs))
            return -1;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    void signal(int number)
    {
        // Without a process there is no id, and the signal would go to the caller's group.
        if (process.waitForStarted(LongMs))
            ::kill(pid_t(process.processId()), number);
    }

    /// Waits until the channel has this text behind what was waited for.
    bool waitFor(QProcess::ProcessChannel channel, const QString& text)
    {
        QString& unread = seen[channel];
        const QDeadlineTimer deadline(LongMs);
        for (;;) {
            process.setReadChannel(channel);
            unread += QString::fromUtf8(process.readAll());
            const auto at = unread.indexOf(text);
            if (at >= 0) {
                unread.remove(0, at + text.size());
                return true;
            }
            if (deadline.hasExpired() || !process.waitForReadyRead(LongMs)) {
                qWarning("'%s' has not come; there is '%s'", qPrintable(text), qPrintable(unread));
                return false;
            }
        }
    }

    QProcess process;

private:
    QMap<int, QString> seen; ///< By channel; not yet waited for.
};

/// A controller outside of the panel.
struct Simulator {
    explicit Simulator(const QString& fault = QString())
    {
        SimulatorOptions options;
        options.liveValues = false;
        if (!fault.isEmpty())
            options.faults = QStringList{fault};
        thread.reset(new SimulatorThread(options));
        start();
    }

    void start()
    {
        QString error;
        if (!thread->start(&error))
            qFatal("%s", qPrintable(error));
    }

    QString address() const
    {
        return QStringLiteral("127.0.0.1:%1").arg(thread->port());
    }

    QStringList command(const QString& line) const
    {
        return line.split(' ') << "--controller" << address();
    }

    std::unique_ptr<SimulatorThread> thread;
};

} // namespace s7200::panel

#endif
