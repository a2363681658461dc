#include "host/name_lookup.h"

#include <netdb.h>

#include <algorithm>
#include <cstring>
#include <system_error>
#include <thread>
#include <utility>

namespace s7200
{

namespace
{

/// The C library is used since Qt's look-ups are waited for at exit.
LookupThreads::Addresses askSystem(const std::string& name)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    LookupThreads::Addresses addresses;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &results) != 0)
        return addresses;
    for (const addrinfo* result = results; result; result = result->ai_next) {
        addresses.emplace_back();
        std::memcpy(&addresses.back(), result->ai_addr, result->ai_addrlen);
    }
    freeaddrinfo(results);
    return addresses;
}

} // namespace

const std::shared_ptr<LookupThreads>& LookupThreads::ofProgram()
{
    static const std::shared_ptr<LookupThreads> threads(new LookupThreads(askSystem));
    return threads;
}

void LookupThreads::ask(NameLookup* user)
{
    Name& name = m_names[user->m_name];
    name.users.insert(user);
    user->m_waits = true;
    if (name.step != Step::Idle)
        return;
    name.step = Step::Queued;
    (name.failed ? m_failedQueue : m_queue).push_back(user->m_name);
    hire();
}

/// What nobody waits for any more is not begun.
void LookupThreads::leave(NameLookup* user)
{
    user->m_waits = false;
    user->m_answer.reset();
    const auto found = m_names.find(user->m_name);
    if (found == m_names.end())
        return;
    Name& name = found->second;
    name.users.erase(user);
    const bool isAwaited = std::any_of(name.users.begin(), name.users.end(),
                                       [](const NameLookup* each) { return each->m_waits; });
    if (name.step == Step::Queued && !isAwaited) {
        std::deque<std::string>& queue = name.failed ? m_failedQueue : m_queue;
        queue.erase(std::find(queue.begin(), queue.end(), found->first));
        name.step = Step::Idle;
    }
    if (name.step == Step::Idle && name.users.empty())
        m_names.erase(found);
}

/// One thread more, if it has anything to do.
void LookupThreads::hire()
{
    if (m_threads >= Most || !hasWork())
        return;
    ++m_threads;
    try {
        std::thread([self = shared_from_this()] { self->work(); }).detach();
    } catch (const std::system_error&) { // too many threads
        --m_threads;
        while (m_threads == 0 && hasWork()) // else those that there are come to it
            finish(takeWork(), {});
    }
}

bool LookupThreads::hasWork() const
{
    return !m_queue.empty() || (!m_failedQueue.empty() && m_threadsForFailed < MostForFailed);
}

std::string LookupThreads::takeWork()
{
    std::deque<std::string>& queue = m_queue.empty() ? m_failedQueue : m_queue;
    const std::string text = queue.front();
    queue.pop_front();
    Name& name = m_names.at(text);
    name.step = Step::UnderWay;
    m_threadsForFailed += name.failed ? 1 : 0;
    return text;
}

void LookupThreads::finish(const std::string& text, const Addresses& addresses)
{
    Name& name = m_names.at(text);
    m_threadsForFailed -= name.failed ? 1 : 0;
    name.failed = addresses.empty();
    name.step = Step::Idle;
    for (NameLookup* user : name.users) {
        if (!std::exchange(user->m_waits, false))
            continue;
        user->m_answer = addresses;
        QMetaObject::invokeMethod(user, &NameLookup::tell, Qt::QueuedConnection);
    }
    if (name.users.empty())
        m_names.erase(text);
}

void LookupThreads::work()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (hasWork()) {
        const std::string name = takeWork();
        lock.unlock();
        const Addresses addresses = m_resolve(name);
        lock.lock();
        finish(name, addresses);
    }
    --m_threads;
}

NameLookup::NameLookup(QObject* parent, std::shared_ptr<LookupThreads> threads)
    : QObject(parent), m_threads(std::move(threads))
{
}

NameLookup::~NameLookup()
{
    const std::lock_guard<std::mutex> lock(m_threads->m_mutex);
    m_threads->leave(this);
}

void NameLookup::start(const QString& name)
{
    m_wanted = true;
    const std::string text = name.toLower().toStdString(); // the same in any case
    const std::lock_guard<std::mutex> lock(m_threads->m_mutex);
    if (m_name != text)
        m_threads->leave(this);
    m_name = text;
    if (m_answer) // too late for the last time
        QMetaObject::invokeMethod(this, &NameLookup::tell, Qt::QueuedConnection);
    else if (!m_waits)
        m_threads->ask(this);
}

void NameLookup::abandon()
{
    m_wanted = false;
}

void NameLookup::tell()
{
    if (!m_wanted)
        return;
    std::optional<LookupThreads::Addresses> answer;
    {
        const std::lock_guard<std::mutex> lock(m_threads->m_mutex);
        answer.swap(m_answer);
    }
    if (!answer)
        return;
    QList<QHostAddress> addresses;
    for (const sockaddr_storage& address : *answer)
        addresses.append(QHostAddress(reinterpret_cast<const sockaddr*>(&address)));
    m_wanted = false; // the next time it is asked for anew
    Q_EMIT found(addresses);
}

} // namespace s7200
