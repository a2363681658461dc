// Replies that end at a page that must not be touched, and bits in front of an area.

#include "tests/driver_fixture.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QtTest>

#include <climits>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

/// Bytes that end at an inaccessible page: any access behind them faults, with or without a
/// sanitizer.
class GuardedBytes
{
public:
    GuardedBytes() : m_page(int(sysconf(_SC_PAGESIZE)))
    {
        void* const pages = mmap(nullptr, size_t(2 * m_page), PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_end = static_cast<char*>(pages) + m_page;
        if (pages == MAP_FAILED || mprotect(m_end, size_t(m_page), PROT_NONE) != 0)
            qFatal("no memory with an inaccessible page behind it");
    }

    ~GuardedBytes()
    {
        munmap(m_end - m_page, size_t(2 * m_page));
    }

    /// Valid until the next call.
    QByteArray put(const QByteArray& bytes)
    {
        char* const begin = m_end - bytes.size();
        std::memcpy(begin, bytes.constData(), size_t(bytes.size()));
        return QByteArray::fromRawData(begin, int(bytes.size()));
    }

private:
    Q_DISABLE_COPY(GuardedBytes)
    int m_page;
    char* m_end;
};

} // namespace

class HostileTest : public QObject, private DriverFixture
{
    Q_OBJECT

    GuardedBytes m_guarded;

    /// Puts the first `size` bytes of a reply to a request of `type`, saying they are `length`.
    void readCut(int type, int stations, const QByteArray& whole, int size, int length)
    {
        reset();
        info.per_variable_stations = stations;
        connectStation(2);
        RW_VAR var = makeVar(type, 8, 2);
        var.name = type == 15 || type == 19 ? "C" : "T";
        AddListReadVar(&var);
        QVERIFY(ComCommunication());
        QByteArray reply = m_guarded.put(whole.left(size));
        const bool good = size == int(whole.size());
        QCOMPARE(DataCom(&reply, length)->result, good ? 1 : 0);
        // Timer bits are set by another status than the payload's.
        QCOMPARE(!imageIs('\0') || !PLC_driver.extend_list.isEmpty(),
                 good && (stations || type != 18));
    }

private slots:
    /// Replies to requests of every type, cut at every length, with the true length and a false
    /// one.
    // HOLDS(1, 3)
    void repliesAreReadToTheirEndOnly()
    {
        for (int type = 0; type < 25; ++type) {
            const bool timer = type == 14 || type == 18;
            const bool counter = type == 15 || type == 19;
            const int payload = timer ? 10 : counter ? 6 : type == 16 || type == 17 ? 4 : 2;
            const QByteArray whole = readReply(1, QByteArray(payload, '\x10'));
            for (int size = 0; size <= int(whole.size()); ++size) {
                for (int stations : {0, 1}) {
                    readCut(type, stations, whole, size, size);
                    readCut(type, stations, whole, size, int(whole.size()));
                }
            }
        }
        for (int size = 0; size <= 22; ++size) {
            for (int length : {0, size, INT_MAX, -1}) {
                reset();
                RW_VAR var = makeVar(8, 0, 2);
                AddListReadVar(&var);
                QVERIFY(ComCommunication());
                QByteArray reply = m_guarded.put(connectionConfirm().left(size));
                DataCom(&reply, length);
                QCOMPARE(int(PLC_driver.protocol_list.size()), size == 22 ? 1 : 0);
            }
        }
    }

    /// A bit in front of the area is no bit of its first byte.
    // HOLDS(12)
    void bitsBelowZeroAreSkipped()
    {
        for (int stations : {0, 1}) {
            reset();
            info.per_variable_stations = stations;
            connectStation(2);
            RW_VAR var = makeVar(2, -3, 5, 2, QByteArray(5, '\1'));
            AddListWriteVar(&var, 1);
            QVERIFY(ComCommunication());
            QByteArray out;
            GetRegisterData("", 2, "0.0", 2, out, 8);
            QCOMPARE(toHex(out), QByteArray("01 01 00 00 00 00 00 00"));
        }
    }
};

QTEST_GUILESS_MAIN(HostileTest)
#include "hostile_test.moc"
