#ifndef TESTS_SIMULATION_LINKS_H
#define TESTS_SIMULATION_LINKS_H

#include "tests/simulation_requests.h"

namespace s7200::simulation
{

/// Judges when a host connects, gives up, tells of it and counts.
class LinkJudge
{
public:
    LinkJudge(const ControllerSettings& settings, const Record& record, const ValueJudge& values);

    QString opens(int station, Micros now);
    void closes(int station, Micros now);
    void jobEnded(const Exchange& exchange, bool wasAsked);
    QString told(const LinkStatus& status);
    void cycleTold();
    /// The host could do nothing until then.
    void pausedUntil(Micros now)
    {
        m_pausedUntil = std::max(m_pausedUntil, now);
    }

    /// After every event.
    QString judge(const LinkMachine& machine, Micros now);
    QString judgeAtEnd(const LinkMachine& machine) const;

    std::array<quint64, 6> states = {};
    std::array<quint64, CauseCount> causes = {};

private:
    struct Attempts {
        Micros failedAt = -1;
        bool isWaiting = false; ///< For the next attempt.
        bool isNews = false;    ///< A refusal: the next one comes soon.
        Micros least = 0;       ///< Delay after the next failure, at least and at most.
        Micros most = 0;
        Micros leastNow = 0; ///< Of the wait under way.
        Micros mostNow = 0;
        bool answers = false; ///< On this connection.
        Micros answeredAt = 0;
        bool toldUp = false;
        bool everUp = false;
        int refusedProbes = 0; ///< In a row.
        bool probeMayEnd = false;
    };
    Micros lateness(Micros since) const;
    QString judgeWaits(int station, const Attempts& attempts, Micros now) const;
    QString judgeSilence(Micros now) const;
    QString judgeCounts(const LinkMachine& machine) const;

    const ControllerSettings& m_settings;
    const Record& m_record;
    const ValueJudge& m_values;
    std::map<int, Attempts> m_attempts;
    Micros m_pausedUntil = 0;
    quint64 m_cycles = 0;
    quint64 m_losses = 0;
    quint64 m_returns = 0;
};

} // namespace s7200::simulation

#endif
