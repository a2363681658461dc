#include "host/link_health.h"

#include <algorithm>

namespace s7200
{

void LinkHealth::failed(const Failure& failure, Micros now)
{
    ++m_attempts;
    m_failure = failure;
    scheduleAfter(m_delay, now);
    m_delay = std::min(2 * m_delay, LongestDelay);
}

bool LinkHealth::failedWithNews(const Failure& failure, Micros now)
{
    constexpr int MostNews = 100;
    if (++m_news > MostNews) {
        failed(failure, now);
        return false;
    }
    ++m_attempts;
    m_failure = failure;
    scheduleAfter(FirstDelay, now);
    return true;
}

void LinkHealth::up()
{
    m_attempts = 0;
    m_failure = Failure();
}

void LinkHealth::hasLearnt()
{
    m_news = 0;
}

void LinkHealth::goodCycle()
{
    m_delay = FirstDelay;
    m_news = 0;
}

void LinkHealth::scheduleAfter(Micros delay, Micros now)
{
    constexpr int Least = 70;
    constexpr int Most = 95;
    m_nextAttempt = now + delay * std::uniform_int_distribution<int>(Least, Most)(m_random) / 100;
}

} // namespace s7200
