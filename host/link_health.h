#ifndef HOST_LINK_HEALTH_H
#define HOST_LINK_HEALTH_H

#include "host/moment.h"
#include "host/reply_judgement.h"

#include <random>

namespace s7200
{

/// How one station's link fares: failed attempts, why, and when the next one is due.
class LinkHealth
{
public:
    explicit LinkHealth(quint32 seed = 1) : m_random(seed) {}

    static constexpr Micros FirstDelay = 200 * 1000;
    static constexpr Micros LongestDelay = 10 * 1000 * 1000;

    /// An attempt or the link has failed. The next attempt is due after 0.2 s, doubled with each
    /// failure up to 10 s, less 5 to 30 % by chance so that many links do not return at once.
    void failed(const Failure& failure, Micros now);

    /// As failed(), but the delay stays short: something was learnt that makes the next attempt
    /// different, such as a variable that the controller refuses. False if it is as failed() after
    /// all, since there is no end of such news.
    bool failedWithNews(const Failure& failure, Micros now);

    /// The link works again: the count of attempts begins anew, but not yet the delays.
    void up();

    /// Such news were of a kind that comes to an end: a variable that is not asked for any more.
    void hasLearnt();

    /// Everything was read: the next failure is the first.
    void goodCycle();

    int attempts() const
    {
        return m_attempts;
    }
    const Failure& failure() const
    {
        return m_failure;
    }
    Micros nextAttempt() const
    {
        return m_nextAttempt;
    }

private:
    void scheduleAfter(Micros delay, Micros now);

    std::minstd_rand m_random;
    Failure m_failure;
    int m_attempts = 0;
    int m_news = 0; ///< Since the last good cycle.
    Micros m_delay = FirstDelay;
    Micros m_nextAttempt = 0;
};

} // namespace s7200

#endif
