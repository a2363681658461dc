// Names of controllers are looked up by few threads, for many and in no harm's way of anybody.

#include "host/name_lookup.h"

#include <QtTest>

#include <condition_variable>

using namespace s7200;

namespace
{

constexpr int LongMs = 30000; ///< For what must happen; not reached unless something is wrong.

/// Answers a name when it is told to; those that begin with "no" are unknown, and with "late" the
/// first time. Threads that still wait for it outlive the test.
struct NameServer {
    /// Threads of their own, which ask this one.
    static std::shared_ptr<LookupThreads> asker(const std::shared_ptr<NameServer>& server)
    {
        return std::make_shared<LookupThreads>(
            [server](const std::string& name) { return server->resolve(name); });
    }

    LookupThreads::Addresses resolve(const std::string& name)
    {
        const QString text = QString::fromStdString(name);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_asked.append(text);
        most = std::max(most, ++m_underWay);
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_answersAll || m_answers.removeOne(text); });
        --m_underWay;
        const bool isUnknown =
            text.startsWith("no") || (text.startsWith("late") && m_asked.count(text) == 1);
        return LookupThreads::Addresses(isUnknown ? 0 : 1);
    }

    void answer(bool all, const QString& name = QString())
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answersAll = all;
        m_answers.append(name);
        m_changed.notify_all();
    }

    /// What was asked for, as soon as it is so much.
    QStringList asked(int count)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(LongMs),
                           [&] { return m_asked.size() >= count; });
        return m_asked;
    }

    int most = 0; ///< At a time.

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    QStringList m_asked;
    QStringList m_answers;
    bool m_answersAll = false;
    int m_underWay = 0;
};

} // namespace

class NameLookupTest : public QObject
{
    Q_OBJECT

private slots:
    // A name server that takes longer than any attempt must not keep a controller away for good.
    void lateAnswer()
    {
        const auto server = std::make_shared<NameServer>();
        struct Lookup : NameLookup {
            using NameLookup::NameLookup;
            bool event(QEvent* event) override
            {
                isAnswered = true;
                return NameLookup::event(event);
            }
            bool isAnswered = false;
        };
        Lookup lookup(nullptr, NameServer::asker(server));
        int found = 0;
        connect(&lookup, &NameLookup::found, this, [&found] { ++found; });
        lookup.start("plc");
        lookup.abandon();
        server->answer(true);
        QTRY_VERIFY_WITH_TIMEOUT(lookup.isAnswered, LongMs);
        QCOMPARE(found, 0);
        lookup.start("plc");
        QCoreApplication::sendPostedEvents(&lookup); // no time for asking anew
        QCOMPARE(found, 1);
    }

    // However many controllers wait for however many names: each name is asked for once, by few
    // threads, and all get the answer.
    void manyNames()
    {
        const auto server = std::make_shared<NameServer>();
        const auto threads = NameServer::asker(server);
        int found = 0;
        std::vector<std::unique_ptr<NameLookup>> lookups;
        for (int i = 0; i < 300; ++i) {
            lookups.emplace_back(new NameLookup(nullptr, threads));
            connect(lookups.back().get(), &NameLookup::found, this,
                    [&](const QList<QHostAddress>& addresses) { found += int(addresses.size()); });
            lookups.back()->start(QString(i % 2 == 0 ? "plc%1" : "PLC%1").arg(i / 3));
        }
        QCOMPARE(int(server->asked(LookupThreads::Most).size()), LookupThreads::Most);
        server->answer(true);
        QTRY_COMPARE_WITH_TIMEOUT(found, 300, LongMs);
        QStringList names = server->asked(100);
        QCOMPARE(int(names.size()), 100);
        QCOMPARE(names.removeDuplicates(), 0);
        QCOMPARE(server->most, LookupThreads::Most);
        for (int i : {0, 1}) { // anew, also for who heard of the answer but had not asked
            lookups.at(size_t(i))->start("plc0");
            QTRY_COMPARE_WITH_TIMEOUT(found, 301 + i, LongMs);
        }
        QCOMPARE(int(server->asked(102).size()), 102);
    }

    // Names that failed keep neither the place in the queue nor all of the threads.
    void failedNames()
    {
        const auto server = std::make_shared<NameServer>();
        const auto threads = NameServer::asker(server);
        int told = 0;
        std::map<QString, std::unique_ptr<NameLookup>> lookups;
        const auto start = [&](const QString& name, int count) {
            for (int i = 0; i < count; ++i) {
                auto& lookup = lookups[name + QString::number(i)];
                if (!lookup) {
                    lookup.reset(new NameLookup(nullptr, threads));
                    connect(lookup.get(), &NameLookup::found, this, [&] { ++told; });
                }
                lookup->start(name + QString::number(i));
            }
        };
        server->answer(true);
        start("no", 40);
        for (int i : {0, 1}) {
            start("late", 1);
            QTRY_COMPARE_WITH_TIMEOUT(told, 41 + i, LongMs);
        }
        server->answer(false);
        start("no", 40);
        QCOMPARE(int(server->asked(42 + LookupThreads::MostForFailed).size()),
                 42 + LookupThreads::MostForFailed);
        const int free = LookupThreads::Most - LookupThreads::MostForFailed;
        start("late", 1); // it did not fail the last time
        start("yes", free);
        const QStringList underWay = server->asked(42 + LookupThreads::Most).mid(42);
        QCOMPARE(int(underWay.size()), LookupThreads::Most);
        QCOMPARE(int(underWay.filter("yes").size()), free - 1);
        QVERIFY(underWay.contains("late0"));
        server->answer(false, underWay.filter("no").first());
        QCOMPARE(server->asked(43 + LookupThreads::Most).last(), QString("yes%1").arg(free - 1));
        server->answer(true);
        QTRY_COMPARE_WITH_TIMEOUT(told, 42 + 40 + 1 + free, LongMs);
        QCOMPARE(server->most, LookupThreads::Most);
    }

    // What nobody waits for is not begun; what is under way serves whoever asks for it next, and is
    // nobody's loss, least of all the program's, when it never ends.
    void leftAlone()
    {
        const auto server = std::make_shared<NameServer>();
        const auto threads = NameServer::asker(server);
        std::vector<std::unique_ptr<NameLookup>> busy;
        for (int i = 0; i < LookupThreads::Most; ++i) {
            busy.emplace_back(new NameLookup(nullptr, threads));
            busy.back()->start(QString("busy%1").arg(i));
        }
        const QString first = server->asked(LookupThreads::Most).first();
        QStringList found;
        NameLookup changed(nullptr, threads);
        connect(&changed, &NameLookup::found, this, [&] { found += "changed"; });
        {
            NameLookup gone(nullptr, threads);
            gone.start("queued");
            changed.start("queued");
            changed.start(first);
        }
        busy.clear();
        NameLookup last(nullptr, threads);
        connect(&last, &NameLookup::found, this, [&] { found += "last"; });
        last.start("last");
        server->answer(false, first);
        QTRY_COMPARE_WITH_TIMEOUT(found, QStringList("changed"), LongMs);
        const QStringList asked = server->asked(LookupThreads::Most + 1);
        QCOMPARE(asked.mid(LookupThreads::Most), QStringList("last"));
    }
};

QTEST_GUILESS_MAIN(NameLookupTest)
#include "name_lookup_test.moc"
