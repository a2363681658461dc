#ifndef SIMULATOR_SIMULATOR_PROCESS_H
#define SIMULATOR_SIMULATOR_PROCESS_H

#include <QCoreApplication>
#include <QProcess>

namespace s7200::sim
{

/// The program s7200-sim beside this one, as a process that can be killed and started again.
class SimulatorProcess
{
public:
    /// `options`: further ones of the program.
    explicit SimulatorProcess(int count, const QStringList& options = {})
        : m_count(count), m_options(options)
    {
    }
    ~SimulatorProcess()
    {
        kill();
    }

    /// Listens on `count` consecutive ports, the same as before; the first time on free ones from
    /// `lowestPort` on, below those that connections are given by themselves. False if that fails.
    bool start(int lowestPort = 10000)
    {
        constexpr int Highest = 32000;
        for (int port = m_port ? m_port : lowestPort; port + m_count < Highest; port += m_count) {
            m_process.start(program(), arguments(port));
            const bool listens = m_process.waitForReadyRead(StartMs);
            if (listens)
                m_port = quint16(port);
            if (listens || m_port)
                return listens;
            m_process.waitForFinished(StartMs);
        }
        return false;
    }

    /// Starts again on the same ports, without waiting; isListening() tells when it does.
    void startAgain()
    {
        m_process.start(program(), arguments(m_port));
    }

    bool isListening() const
    {
        return m_process.bytesAvailable() > 0;
    }

    void kill()
    {
        m_process.kill();
        m_process.waitForFinished(StartMs);
    }

    quint16 port() const
    {
        return m_port;
    }

private:
    static constexpr int StartMs = 60000;

    static QString program()
    {
        return QCoreApplication::applicationDirPath() + "/s7200-sim";
    }

    QStringList arguments(int port) const
    {
        return QStringList{"--frozen", "--count", QString::number(m_count), "--listen",
                           QString("127.0.0.1:%1").arg(port)} +
               m_options;
    }

    const int m_count;
    const QStringList m_options;
    QProcess m_process;
    quint16 m_port = 0; ///< Of the first; 0 before it has listened.
};

} // namespace s7200::sim

#endif
