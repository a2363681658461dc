#ifndef TESTS_SIMULATION_REQUESTS_H
#define TESTS_SIMULATION_REQUESTS_H

#include "tests/simulation_values.h"

namespace s7200::simulation
{

/// Judges what becomes of reads and writes that somebody asks for.
class RequestJudge
{
public:
    RequestJudge(const ControllerSettings& settings, const Record& record,
                 const ValueJudge& values);

    /// Returns its number.
    int asked(const Variable& variable, int station, const QVector<quint32>& values);
    /// A frame was sent, for the first time or once more.
    QString sent(const ExchangePtr& exchange);
    /// After every event: no probe has come between what was asked for and its end.
    QString judge();
    QString done(int number, const Result& result, Micros now);
    void stopped()
    {
        m_isStopped = true;
    }
    /// Empty if every request has ended.
    QString unended() const;
    bool hasOpen(int station) const;
    /// True if a write that has not ended yet is of something there.
    bool isWriting(int station, const Span& span) const;

    /// Ways for requests to end: by cause, of reads, of writes that were sent and that were not.
    std::array<std::array<quint64, 3>, CauseCount> ends = {};

private:
    struct Asking {
        Variable variable;
        int station = 0;
        QVector<quint32> values;
        QByteArray bytes; ///< Of a write, as the controller is to have it.
        quint64 order = 0;
        bool hasEnded = false;
        std::vector<ExchangePtr> frames; ///< Of a write.
    };

    bool isPartOf(const Asked& write, const Asking& asking) const;
    QString writeSent(const ExchangePtr& exchange);
    QString readSent(const ExchangePtr& exchange);
    QString judgeWritten(const Asking& asking) const;
    QString judgeFailed(const Asking& asking, const Result& result) const;
    bool wasRefused(const Asking& asking) const;
    bool isProbeNeeded(const ExchangePtr& exchange);
    int firstOpen(int station) const;

    const ControllerSettings& m_settings;
    const Record& m_record;
    const ValueJudge& m_values;
    std::vector<Asking> m_askings;
    std::map<int, int> m_lastWriter; ///< Of each station.
    std::map<int, int> m_lastEnded;
    bool m_isStopped = false;
    int m_open = 0;
    int m_probedAmid = -1; ///< A request that was open when a probe was sent.
};

} // namespace s7200::simulation

#endif
