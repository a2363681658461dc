#ifndef HOST_NAME_LOOKUP_H
#define HOST_NAME_LOOKUP_H

#include <QHostAddress>
#include <QList>
#include <QObject>

#include <sys/socket.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace s7200
{

class NameLookup;

/// The threads that ask name servers, for any number of NameLookup objects in any threads. Few,
/// since each is held up for long by a server that stays silent. A name is looked up once for all
/// that want it at the time; names that are known to fail wait for those that are not, and never
/// take all threads. Nobody waits for the threads: they outlive the object if they must.
class LookupThreads : public std::enable_shared_from_this<LookupThreads>
{
public:
    static constexpr int Most = 28;
    static constexpr int MostForFailed = 20; ///< Of these.

    using Addresses = std::vector<sockaddr_storage>;
    /// The addresses of a name, none if there is no such name. Called in threads, several at once.
    using Resolve = std::function<Addresses(const std::string& name)>;

    explicit LookupThreads(Resolve resolve) : m_resolve(std::move(resolve)) {}

    /// Those of the program, which ask the C library.
    static const std::shared_ptr<LookupThreads>& ofProgram();

private:
    friend class NameLookup;
    enum class Step { Idle, Queued, UnderWay };
    /// What is known of a name while anybody asks for it.
    struct Name {
        std::set<NameLookup*> users; ///< They asked for no other one since.
        Step step = Step::Idle;
        bool failed = false; ///< The last time.
    };

    // With the lock.
    void ask(NameLookup* user);
    void leave(NameLookup* user);
    void hire();
    bool hasWork() const;
    std::string takeWork();
    void finish(const std::string& name, const Addresses& addresses);

    void work();

    const Resolve m_resolve;
    std::mutex m_mutex;
    std::map<std::string, Name> m_names;
    std::deque<std::string> m_queue;
    std::deque<std::string> m_failedQueue; ///< Of those that failed the last time.
    int m_threads = 0;
    int m_threadsForFailed = 0;
};

/// Looks host names up without ever holding anybody up: neither the event loop nor, should a name
/// server stay silent, the end of the program. One name at a time; the answer comes as a signal on
/// the object's thread.
class NameLookup : public QObject
{
    Q_OBJECT
public:
    explicit NameLookup(QObject* parent = nullptr,
                        std::shared_ptr<LookupThreads> threads = LookupThreads::ofProgram());
    ~NameLookup() override;

    /// Begins. A look-up of the same name that is still under way goes on, and an answer that came
    /// after it was given up is taken.
    void start(const QString& name);

    /// Gives the answer up. The look-up itself keeps its place and goes on by itself.
    void abandon();

Q_SIGNALS:
    void found(const QList<QHostAddress>& addresses); ///< Empty: there is no such name.

private:
    friend class LookupThreads;
    void tell();

    const std::shared_ptr<LookupThreads> m_threads;
    std::string m_name;
    bool m_wanted = false;
    // With the threads' lock.
    bool m_waits = false;                             ///< Until the threads have an answer.
    std::optional<LookupThreads::Addresses> m_answer; ///< Not yet told.
};

} // namespace s7200

#endif
