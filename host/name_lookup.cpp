#include "host/name_lookup.h"

#include <netdb.h>

#include <mutex>
#include <thread>

namespace s7200
{

/// What the object and the thread that asks for it share; the thread may outlive the object.
struct NameLookup::Shared {
    std::mutex mutex;
    NameLookup* owner = nullptr; ///< Null once it is gone.
    QString name;
    bool done = false;
    QList<QHostAddress> addresses;

    void resolve(const QByteArray& hostName);
};

/// On a thread of its own. The C library is used since Qt's look-ups are waited for at exit.
void NameLookup::Shared::resolve(const QByteArray& hostName)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* results = nullptr;
    QList<QHostAddress> answer;
    if (getaddrinfo(hostName.constData(), nullptr, &hints, &results) == 0) {
        for (const addrinfo* result = results; result; result = result->ai_next)
            answer.append(QHostAddress(result->ai_addr));
        freeaddrinfo(results);
    }
    const std::lock_guard<std::mutex> lock(mutex);
    done = true;
    addresses = answer;
    if (owner)
        QMetaObject::invokeMethod(
            owner,
            [object = owner] {
                if (std::exchange(object->m_wanted, false))
                    Q_EMIT object->found(object->m_shared->addresses);
            },
            Qt::QueuedConnection);
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
        if (!m_shared->done && m_shared->name == name)
            return;
        m_shared->owner = nullptr;
    }
    m_shared = std::make_shared<Shared>();
    m_shared->owner = this;
    m_shared->name = name;
    std::thread([shared = m_shared, hostName = name.toUtf8()] {
        shared->resolve(hostName);
    }).detach();
}

void NameLookup::abandon()
{
    m_wanted = false;
}

} // namespace s7200
