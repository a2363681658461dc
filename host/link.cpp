#include <s7200host/link.h>

#include <algorithm>

namespace s7200
{

namespace
{

constexpr int PerDoubling = 4;
constexpr qint64 FirstBound = 16;

/// Upper bound of a bucket: 16, 19, 22.6, 26.9, 32, ... microseconds.
qint64 upperBound(int bucket)
{
    static constexpr int Sixteenths[PerDoubling] = {16, 19, 23, 27};
    return (FirstBound << bucket / PerDoubling) * Sixteenths[bucket % PerDoubling] / 16;
}

} // namespace

QString describe(Cause cause)
{
    static const char* const names[CauseCount] = {
        "none",          "no connection", "closed",
        "time-out",      "wrong length",  "wrong reference",
        "refused",       "not S7",        "connection refused",
        "setup refused", "dropped",       "invalid",
        "stopped"};
    return QLatin1String(names[int(cause)]);
}

QString describe(LinkState state)
{
    static const char* const names[] = {"stopped", "connecting", "handshake",
                                        "up",      "waiting",    "down"};
    return QLatin1String(names[int(state)]);
}

void RoundTripHistogram::add(qint64 microseconds)
{
    int bucket = 0;
    while (bucket < Buckets - 1 && upperBound(bucket) < microseconds)
        ++bucket;
    ++m_buckets[std::size_t(bucket)];
    m_minimum = m_count == 0 ? microseconds : std::min(m_minimum, microseconds);
    m_maximum = std::max(m_maximum, microseconds);
    ++m_count;
}

void RoundTripHistogram::merge(const RoundTripHistogram& other)
{
    if (other.m_count == 0)
        return;
    for (std::size_t bucket = 0; bucket < Buckets; ++bucket)
        m_buckets[bucket] += other.m_buckets[bucket];
    m_minimum = m_count == 0 ? other.m_minimum : std::min(m_minimum, other.m_minimum);
    m_maximum = std::max(m_maximum, other.m_maximum);
    m_count += other.m_count;
}

quint64 RoundTripHistogram::count() const
{
    return m_count;
}

qint64 RoundTripHistogram::minimum() const
{
    return m_minimum;
}

qint64 RoundTripHistogram::maximum() const
{
    return m_maximum;
}

qint64 RoundTripHistogram::percentile(double share) const
{
    quint64 seen = 0;
    for (int bucket = 0; bucket < Buckets; ++bucket) {
        seen += m_buckets[std::size_t(bucket)];
        if (seen > 0 && double(seen) >= share * double(m_count))
            return std::min(upperBound(bucket), m_maximum);
    }
    return m_maximum;
}

} // namespace s7200
