#include "host/name_lookup.h"

#include <netdb.h>

#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace s7200
{

/// What the object and the thread that asks for it share; the thread may outlive the object.
struct NameLookup::Shared {
    std::mutex mutex;
    NameLookup* owner = nullptr; ///< Null once it is gone.
    std::string name;
    bool done = false;
    std::vector<sockaddr_storage> addresses;

    void resolve();
};

/// On a thread of its own. The C library is used since Qt's look-ups are waited for at exit.
void NameLookup::Shared::resolve()
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    std::vector<sockaddr_storage> answer;
    if (getaddrinfo(name.c_str(), nullptr, &hints, &results) == 0) {
        for (const addrinfo* result = results; result; result = result->ai_next) {
            answer.emplace_back();
            std::memcpy(&answer.back(), result->ai_addr, result->ai_addrlen);
        }
        freeaddrinfo(results);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    done = true;
    addresses = std::move(answer);
    if (owner)
        QMetaObject::invokeMethod(owner, &NameLookup::tell, Qt::QueuedConnection);
}

void NameLookup::tell()
{
    QList<QHostAddress> addresses;
    if (!m_shared || !m_wanted)
        return;
    {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (!m_shared->done)
            return;
        for (const sockaddr_storage& address : m_shared->addresses)
            addresses.append(QHostAddress(reinterpret_cast<const sockaddr*>(&address)));
    }
    m_wanted = false;
    m_shared.reset(); // the next time it is asked for anew
    Q_EMIT found(addresses);
}

NameLookup::NameLookup(QObject* parent) : QObject(parent) {}

NameLookup::~NameLookup()
{
    if (!m_shared)
        return;
    const std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->owner = nullptr;
}

void NameLookup::start(const QString& name)
{
    m_wanted = true;
    if (m_shared) {
        const std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (m_shared->name == name.toStdString()) {
            if (m_shared->done) // too late for the last time
                QMetaObject::invokeMethod(this, &NameLookup::tell, Qt::QueuedConnection);
            return;
        }
        m_shared->owner = nullptr;
    }
    m_shared = std::make_shared<Shared>();
    m_shared->owner = this;
    m_shared->name = name.toStdString();
    try {
        std::thread([shared = m_shared] { shared->resolve(); }).detach();
    } catch (const std::system_error&) { // too many threads
        m_shared->done = true;
        QMetaObject::invokeMethod(this, &NameLookup::tell, Qt::QueuedConnection);
    }
}

void NameLookup::abandon()
{
    m_wanted = false;
}

} // namespace s7200
