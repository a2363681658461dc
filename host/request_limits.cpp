#include "host/request_limits.h"

#include "host/variable_bounds.h"

#include <siemens_s7_200_cp243/register_types.h>

#include <algorithm>

namespace s7200
{

namespace
{

constexpr int JobBytes = 28; ///< Of a write job, its data apart.
constexpr int TimerBytes = 5;
constexpr int CounterBytes = 3;
constexpr int WordBytes = 2;
constexpr int DoubleWordBytes = 4;

bool isTimer(int type)
{
    return type == Type_TV || type == Type_T;
}

bool isCounter(int type)
{
    return type == Type_CV || type == Type_C;
}

bool isAnalog(int type)
{
    return type == Type_AIW || type == Type_AQW;
}

} // namespace

RequestLimits::RequestLimits(int wanted, bool remote, int pdu)
    : m_wanted(wanted > 0 ? std::max(wanted, WordBytes) : 0), m_isRemote(remote),
      m_pdu(std::min(pdu, UsualPdu))
{
}

/// What the PDU has room for. All even in a usual PDU, and bytes in whole double words.
int RequestLimits::fitting(int type) const
{
    const int data = std::max(0, m_pdu - JobBytes);
    if (isTimer(type))
        return std::max(1, data / TimerBytes);
    if (isCounter(type))
        return std::max(1, data / CounterBytes);
    const int bytes = m_isRemote && !isAnalog(type) ? data / 2 : data;
    // Half of a usual PDU's data are an even number of words, but no whole double words.
    const int whole =
        m_isRemote ? bytes / WordBytes * WordBytes : bytes / DoubleWordBytes * DoubleWordBytes;
    return std::max(DoubleWordBytes, whole);
}

int RequestLimits::read(int type) const
{
    return m_wanted > 0 ? std::min(m_wanted, fitting(type)) : fitting(type);
}

int RequestLimits::write(int type) const
{
    const bool numbered = isTimer(type) || isCounter(type);
    const int most =
        numbered ? fitting(type) : std::max(1, std::max(0, m_pdu - JobBytes) / WordBytes);
    return m_wanted > 0 ? std::min(m_wanted, most) : most;
}

int RequestLimits::single() const
{
    return read(Type_VW);
}

int RequestLimits::list(const QVector<Variable>& variables) const
{
    int limit = single();
    for (const Variable& variable : variables) {
        if (isInItsArea(variable) && !variable.isAnalog())
            limit = std::min(limit, read(variable.area->reads));
    }
    return limit;
}

bool RequestLimits::mergesAnalog(int bytes, int listLimit) const
{
    return bytes <= read(Type_AIW) && bytes / WordBytes <= listLimit;
}

} // namespace s7200
