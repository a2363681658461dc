#ifndef SIMULATOR_FAULT_INJECTOR_H
#define SIMULATOR_FAULT_INJECTOR_H

#include "simulator/memory_range.h"

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>

#include <mutex>
#include <random>
#include <vector>

namespace s7200::sim
{

enum class FaultKind {
    None,
    Lost,
    Late,
    Doubled,
    Truncated,
    Corrupted,
    WrongReference,
    WrongLength,
    ErrorClass,
    ItemError,
    EmptyTpduFirst,
    Split,
    Coalesced,
    RefuseConnection,
    CloseMidFrame,
    SilentAccept,
    GarbageConfirm,
    Banner,
    RefuseSetup,
    Disconnect,
};

/// What is about to happen when a fault is chosen.
enum class FaultMoment { Accept, Connect, Setup, Job };

/// Decides which replies go wrong, spoils them and counts what was really done. The same seed and
/// the same order of calls give the same faults. Every function takes the injector's own lock.
class FaultInjector
{
public:
    explicit FaultInjector(quint32 seed);

    /// Replaces the faults: each text is KIND, KIND:PROBABILITY, "KIND:every N" or
    /// "KIND:address A", A being a variable such as VW100 or, for any area, a byte address or
    /// number. False with a one-line `error`, and nothing changed, if one is wrong.
    bool setFaults(const QStringList& texts, QString* error);

    /// The fault for this moment, None for most. At most one strikes at a time, of several that
    /// would the one named first. `touched`: what a job reads or writes.
    FaultKind choose(FaultMoment moment, const MemoryRange& touched = {});

    /// The reply as the faults that change bytes make it; the others return it as it is.
    QByteArray spoil(FaultKind kind, const QByteArray& reply);

    /// Notes that a fault was really injected.
    void count(FaultKind kind);
    QMap<QString, quint64> counts() const;

    static QString name(FaultKind kind);

    /// All kinds with what they do, one line each, for the help text.
    static QStringList descriptions();

private:
    struct Rule {
        FaultKind kind = FaultKind::None;
        double probability = 1;
        int every = 0;   ///< 0: by probability.
        int number = -1; ///< Byte address, timer or counter in any area; -1: not by number.
        std::optional<MemoryRange> place; ///< Nothing: any.
        int seen = 0;                     ///< Moments since it last struck; counted for `every`.
    };

    static bool parseRule(const QString& text, Rule* rule, QString* error);
    static bool parsePlace(const QString& text, Rule* rule);
    static bool isAimedAt(const Rule& rule, const MemoryRange& touched);
    bool strikes(Rule& rule);
    int below(int limit);

    mutable std::mutex m_mutex;
    std::mt19937 m_random;
    std::vector<Rule> m_rules;
    QMap<QString, quint64> m_injected;
};

} // namespace s7200::sim

#endif
