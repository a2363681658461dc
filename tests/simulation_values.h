#ifndef TESTS_SIMULATION_VALUES_H
#define TESTS_SIMULATION_VALUES_H

#include "host/link_machine.h"
#include "tests/simulation_record.h"

#include <array>
#include <functional>

namespace s7200::simulation
{

constexpr int UnknownStation = 99; ///< That no settings have.

/// Judges what a host says about values by what passed between it and the controllers.
class ValueJudge
{
public:
    ValueJudge(const ControllerSettings& settings, const Record& record);

    /// Another list is going to be watched.
    void lists(const QVector<Variable>& variables, const LinkMachine& machine, Micros now);
    /// It is; who has asked for it looks at it.
    QString listed(const LinkMachine& machine, Micros now);
    QString told(const QVector<int>& indexes, const LinkMachine& machine, Micros now);
    QString cycleTold(const LinkMachine& machine, Micros now);
    void refused(const Exchange& exchange);

    /// After every event. `newsToCome`: what has changed is told in the next turn.
    QString judge(const LinkMachine& machine, Micros now, bool newsToCome);

    /// The result of a single read that was asked for behind `order`.
    QString judgeRead(const Variable& variable, int station, const Value& value, quint64 order,
                      Micros now) const;

    /// A watched variable that was not good since `time`; where something is refused for ever, and
    /// the link lost for that again and again, since `calm`. Empty: none.
    QString notGoodSince(Micros time, Micros calm) const;
    /// True if something is set aside, or may be.
    int setAside() const;
    bool hasWatched(int station) const;
    /// True if a variable that is or was watched lies there.
    bool wasWatched(int station, const Span& span) const;

    /// Whether a write that overlaps is yet to end: its value may not count as read any more.
    std::function<bool(int station, const Span& span)> isBeingWritten;

    quint64 judged = 0;
    std::array<quint64, 5> qualities = {};

private:
    struct Entry {
        Variable variable;
        int station = 0;
        Value last;     ///< As judged last.
        Value lastTold; ///< As the host's user knows it.
        bool isSettled = false;
        ExchangePtr oldest; ///< Whose sending is its time, as long as it is good.
        quint64 listedAt = 0;
        quint64 writesSeen = 0;
        Micros lastGood = -1;
        bool isAbsent = false; ///< No controller has it.
    };

    static bool isSame(const Value& a, const Value& b);
    QString judgeOne(Entry& entry, const Value& value, Micros now);
    QString judgeGood(Entry& entry, const Value& value, Micros now);
    QString judgeOther(const Entry& entry, const Value& value, Micros now) const;
    QString explain(const Variable& variable, int station, const Value& value, quint64 after,
                    bool isCurrent, Micros now, ExchangePtr* oldest) const;
    bool isLater(const Variable& variable, const Element& element, int station,
                 quint64 order) const;
    ExchangePtr newest(const Variable& variable, int station, quint64 after) const;
    /// One read brings it, and only reads of its own kind.
    bool isOneBlock(const Variable& variable) const;
    Micros lifetime() const;

    const ControllerSettings& m_settings;
    const Record& m_record;
    std::vector<Entry> m_entries;
    std::vector<std::pair<int, Span>> m_refused;
    std::vector<std::pair<int, Span>> m_everWatched;
    Micros m_tripsBefore = 0; ///< At the end of the cycle before the last,
    Micros m_tripsThen = 0;   ///< and of the last one.
    quint64 m_cycleOrder = 0;
};

} // namespace s7200::simulation

#endif
