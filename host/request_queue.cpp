#include "host/request_queue.h"

#include <algorithm>
#include <utility>

namespace s7200
{

Request* RequestQueue::activate(const std::function<bool(int station)>& isReady)
{
    if (m_active)
        return m_active.get();
    const auto ready =
        std::find_if(m_waiting.begin(), m_waiting.end(),
                     [&](const RequestPtr& request) { return isReady(request->station); });
    if (ready == m_waiting.end())
        return nullptr;
    m_active = std::move(*ready);
    m_waiting.erase(ready);
    return m_active.get();
}

bool RequestQueue::hasAny(int station) const
{
    const auto isItsOwn = [station](const RequestPtr& request) {
        return request && request->station == station;
    };
    return isItsOwn(m_active) || std::any_of(m_waiting.begin(), m_waiting.end(), isItsOwn);
}

std::vector<RequestPtr> RequestQueue::takeWaiting(int station)
{
    std::vector<RequestPtr> taken;
    std::deque<RequestPtr> kept;
    for (RequestPtr& request : std::exchange(m_waiting, {})) {
        if (request->station == station)
            taken.push_back(std::move(request));
        else
            kept.push_back(std::move(request));
    }
    m_waiting = std::move(kept);
    return taken;
}

} // namespace s7200
