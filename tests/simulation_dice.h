#ifndef TESTS_SIMULATION_DICE_H
#define TESTS_SIMULATION_DICE_H

#include <QtGlobal>

#include <set>
#include <vector>

namespace s7200::simulation
{

/// Mixes numbers to one that looks random. The same on every machine.
inline quint64 mixed(quint64 a, quint64 b = 0, quint64 c = 0, quint64 d = 0)
{
    quint64 state = 0x9E3779B97F4A7C15;
    for (quint64 part : {a, b, c, d}) {
        state = (state ^ part) * 0xBF58476D1CE4E5B9;
        state = (state ^ state >> 29) * 0x94D049BB133111EB;
        state ^= state >> 32;
    }
    return state;
}

/// Everything in a run that chance decides. Each decision is a function of the seed and of its own
/// number alone, so that to leave out one trouble leaves the others what they are.
class Dice
{
public:
    /// `spared`: troubles that do not strike this time, by their numbers.
    Dice(quint64 seed, const std::set<quint64>& spared) : m_seed(seed), m_spared(spared) {}

    /// 0 to limit - 1, for the decision with these numbers.
    int below(int limit, quint64 kind, quint64 number = 0, quint64 detail = 0) const
    {
        return int(mixed(m_seed, kind, number, detail) % quint64(limit));
    }

    /// False for a trouble that is spared; else it is noted as one that struck.
    bool strikes(quint64 trouble)
    {
        if (m_spared.count(trouble) != 0)
            return false;
        m_struck.push_back(trouble);
        return true;
    }

    const std::vector<quint64>& struck() const
    {
        return m_struck;
    }

private:
    const quint64 m_seed;
    const std::set<quint64>& m_spared;
    std::vector<quint64> m_struck;
};

} // namespace s7200::simulation

#endif
