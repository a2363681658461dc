// Absurd host arguments and hostile replies: memory and work stay within what the driver's own
// records need. Work is measured in what is left behind, entries and bytes, never in time.

#include <siemens_s7_200_cp243/host_interface.h>
#include "tests/driver_fixture.h"

#include <QSet>
#include <QtTest>

#include <climits>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace
{

constexpr int Absurd = 2000000000;
constexpr int QueueLimit = 1024;
constexpr int LargestArea = 10240; ///< Bytes of V, the most entries that one call may visit.
constexpr int LastAddress = (1 << 21) - 1; ///< 24 bits of bit address name no byte behind it.
const int Stations[] = {0, -1, INT_MAX};
const int Types[] = {-1, 0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                     13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, INT_MAX};

QString addressText(int type, int byteOrNumber)
{
    const QString number = QString::number(byteOrNumber);
    return type >= 0 && type <= 5 ? number + QStringLiteral(".3") : number;
}

QByteArray word(int value)
{
    return QByteArray(1, char(value >> 8)) + char(value);
}

/// A good reply to a read of `payload` bytes at a station whose reference is `pduRef`.
QByteArray readReply(int pduRef, const QByteArray& payload)
{
    const int bytes = int(payload.size());
    return fromHex("03 00") + word(25 + bytes) + fromHex("02 F0 80 32 03 00 00") + word(pduRef) +
           fromHex("00 02") + word(bytes + 4) + fromHex("00 00 04 01 FF 04") + word(8 * bytes) +
           payload;
}

/// Bytes that end at a page that must not be touched: any access behind them faults, with or
/// without a sanitizer.
class GuardedBytes
{
public:
    GuardedBytes() : m_page(int(sysconf(_SC_PAGESIZE)))
    {
        void* const pages = mmap(nullptr, size_t(2 * m_page), PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        Q_ASSERT(pages != MAP_FAILED);
        m_end = static_cast<char*>(pages) + m_page;
        mprotect(m_end, size_t(m_page), PROT_NONE);
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

/// What the driver keeps: entries of its lists and maps, and the bytes behind them.
struct Held {
    qint64 entries = 0;
    qint64 bytes = 0;

    bool operator==(const Held& other) const
    {
        return entries == other.entries && bytes == other.bytes;
    }
};

Held held()
{
    const Siemens_S7_200& driver = PLC_driver;
    Held sum;
    for (const QList<RW_VAR>* list :
         {&driver.read_list, &driver.write_list, &driver.once_read_list, &driver.spare_list}) {
        sum.entries += list->size();
        for (const RW_VAR& var : *list)
            sum.bytes += var.value.size();
    }
    for (const Protocol& pending : driver.protocol_list)
        sum.bytes += pending.frame.size() + pending.var.value.size();
    for (const EXTENDVAR& entry : driver.extend_list)
        sum.bytes += entry.value.size();
    sum.bytes += driver.ret_var.value.size();
    sum.entries += driver.protocol_list.size() + driver.extend_list.size() +
                   driver.disabled_stations.size() + map_list.size();
    return sum;
}

QByteArray shown(const Held& sum)
{
    return QByteArray::number(sum.entries) + " entries, " + QByteArray::number(sum.bytes) +
           " bytes";
}

} // namespace

class HostileTest : public QObject
{
    Q_OBJECT

    DriverFixture fixture;

    /// Turns of the loop with replies that are never good.
    static void failToAnswer(int turns)
    {
        QByteArray rubbish(300, '\x03');
        for (int i = 0; i < turns; ++i) {
            if (const Protocol* pending = ComCommunication())
                DriverFixture::connectStation(pending->var.station);
            DataCom(&rubbish, i % 2 == 0 ? int(rubbish.size()) : 0);
        }
    }

    static void forgetRequests()
    {
        PLC_driver.protocol_list.clear();
        PLC_driver.write_list.clear();
        PLC_driver.once_read_list.clear();
        PLC_driver.read_list.clear();
    }

    /// Every kind of call for one type, station and place.
    void callEverything(int type, int station, int byteOrNumber, int count)
    {
        const QString text = addressText(type, byteOrNumber);
        QByteArray data(64, '\1');
        QByteArray out;
        fixture.info.default_station = station;
        fixture.info.communication_mode = 0;
        SetRegisterData("TV", type, text, station, &data, count, 1, 2);
        // Enough pieces to fill the queue.
        fixture.info.communication_mode = 2;
        fixture.info.block_length_limit = 1;
        SetRegisterData("TV", type, text, station, &data, qMin(count, QueueLimit + 1), 1, 2);
        fixture.info.block_length_limit = 200;
        GetRegisterData("TV", type, text, station, out, count);
        RW_VAR var = DriverFixture::makeVar(type, byteOrNumber, count, station, data);
        var.address_text = text;
        AddListOnceReadVar(&var, 0);
        var = DriverFixture::makeVar(type, byteOrNumber, count, station, data);
        AddListWriteVar(&var, 0);
        VAR_INFO shownVariable;
        shownVariable.reg_type = static_cast<unsigned char>(type);
        shownVariable.station = static_cast<unsigned char>(station);
        shownVariable.address_text = text;
        shownVariable.count = count;
        ReCreatReadVarList({shownVariable, shownVariable});
        EnableEthernet(station, 0);
    }

    /// All types at all stations, at the start of memory and, with an absurd count, at its end.
    void abuse()
    {
        for (int type : Types) {
            for (int station : Stations) {
                callEverything(type, station, 0, 4);
                callEverything(type, station, LastAddress, Absurd);
                callEverything(type, station, INT_MAX, Absurd);
                QVERIFY(PLC_driver.write_list.size() <= QueueLimit);
                QVERIFY(PLC_driver.once_read_list.size() <= QueueLimit);
                QVERIFY(PLC_driver.read_list.size() <= 0xFFFF + 1);
                failToAnswer(12);
                forgetRequests();
            }
        }
    }

private slots:
    void init()
    {
        fixture.reset();
    }

    /// Whatever is called, and however often, the driver holds what was there after the first time.
    void memoryIsBoundedByWhatWasNamed_data()
    {
        QTest::addColumn<int>("stations");
        QTest::newRow("default station") << 0;
        QTest::newRow("several stations") << 1;
    }

    void memoryIsBoundedByWhatWasNamed()
    {
        QFETCH(int, stations);
        fixture.info.per_variable_stations = stations;
        fixture.info.retry_limit = 0;
        abuse();
        const Held once = held();
        abuse();
        QVERIFY2(held() == once, shown(held()) + " after " + shown(once));

        QSet<QPair<int, QPair<int, int>>> keys;
        for (const EXTENDVAR& entry : std::as_const(PLC_driver.extend_list)) {
            QVERIFY(entry.address >= 0 && entry.address <= LastAddress);
            keys.insert({entry.station, {entry.reg_type, entry.address}});
        }
        QCOMPARE(int(keys.size()), int(PLC_driver.extend_list.size()));
        // At each station 16 bytes of a type at the start of memory and 8 at its end, and the bits
        // of as many timers and of as many counters as one call may visit.
        constexpr int StationCount = int(std::size(Stations));
        constexpr int TypeCount = int(std::size(Types));
        constexpr int PerStation = TypeCount * (16 + 8) + 2 * LargestArea / 8;
        QVERIFY2(keys.size() <= (stations ? StationCount * PerStation : 0),
                 QByteArray::number(keys.size()));
        QVERIFY(once.bytes <= 8 * once.entries);
        // The negative station forgets all marks before it.
        QCOMPARE(int(PLC_driver.disabled_stations.size()), 1);
        QVERIFY(map_list.size() <= StationCount + 1);
    }

    /// An absurd count gives all of the area and no more, in the host's encoding.
    void absurdReadGivesTheArea_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("bytes");
        const auto rows = [](std::initializer_list<int> types, int bytes) {
            for (int type : types)
                QTest::addRow("type %d", type) << type << bytes;
        };
        rows({0, 1, 2, 3, 4}, 8 * 4096);
        rows({5}, 8 * 10240);
        rows({6, 7, 8, 9, 10, 20, 21, 22, 23, 24}, 4096);
        rows({11}, 2 * 10240);
        rows({12, 13}, 10240);
        rows({14, 15}, 2 * 256);
        rows({16, 17}, 64);
        rows({18, 19}, 256);
        rows({-1, 25, INT_MAX}, 0);
    }

    void absurdReadGivesTheArea()
    {
        QFETCH(int, type);
        QFETCH(int, bytes);
        const QString text = type >= 0 && type <= 5 ? "0.0" : "0";
        const QByteArray tail(3, 'x');
        for (int count : {Absurd, INT_MAX}) {
            QByteArray out;
            QCOMPARE(GetRegisterData("", type, text, 2, out, count), 1);
            QCOMPARE(int(out.size()), bytes);
            out += tail;
            QCOMPARE(GetRegisterData("", type, text, 2, out, count), 1);
            QCOMPARE(out, QByteArray(bytes, '\0') + tail);
        }
        for (int count : {0, -1, INT_MIN}) {
            QByteArray out;
            GetRegisterData("", type, text, 2, out, count);
            const bool doubleWord = type == 13 || (type >= 20 && type <= 24);
            QCOMPARE(int(out.size()), doubleWord ? 2 : 0);
        }
    }

    /// With the link down every piece of a host write is put into the extend list at once: all
    /// pieces together visit no more of it than one absurd request does.
    void absurdWriteVisitsOneAreasEntries_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("limit");
        QTest::newRow("bits") << 5 << 200;
        QTest::newRow("bytes") << 11 << 200;
        QTest::newRow("words") << 12 << 200;
        QTest::newRow("words in one piece") << 12 << 0;
        QTest::newRow("double words") << 24 << 200;
    }

    void absurdWriteVisitsOneAreasEntries()
    {
        QFETCH(int, type);
        QFETCH(int, limit);
        fixture.info.per_variable_stations = 1;
        fixture.info.block_length_limit = limit;
        PLC_driver.link_failed = 1;
        QByteArray data(2 * 0xFFFF, '\1');
        const int queued = SetRegisterData("", type, addressText(type, 0), 3, &data, Absurd, 0, 0);
        QVERIFY(queued >= 1 && queued <= QueueLimit);
        const int entries = int(PLC_driver.extend_list.size());
        const int lastPiece = 2 * limit;
        QVERIFY2(entries >= LargestArea / 8 && entries <= LargestArea + lastPiece,
                 QByteArray::number(entries));
    }

    /// A bit in front of the area is no bit of its first byte.
    void bitsBelowZeroAreSkipped()
    {
        for (int stations : {0, 1}) {
            fixture.reset();
            fixture.info.per_variable_stations = stations;
            DriverFixture::connectStation(2);
            RW_VAR var = DriverFixture::makeVar(2, -3, 5, 2, QByteArray(5, '\1'));
            AddListWriteVar(&var, 1);
            QVERIFY(ComCommunication());
            QByteArray out;
            GetRegisterData("", 2, "0.0", 2, out, 8);
            QCOMPARE(toHex(out), QByteArray("01 01 00 00 00 00 00 00"));
        }
    }

    /// Replies cut at every length, for every kind of store, end where memory does.
    void repliesAreReadToTheirEndOnly_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("payload");
        QTest::addColumn<int>("stations");
        for (int type = 0; type < 25; ++type) {
            const bool timer = type == 14 || type == 18;
            const bool counter = type == 15 || type == 19;
            const int payload = timer ? 10 : counter ? 6 : type == 16 || type == 17 ? 4 : 2;
            QTest::addRow("image, type %d", type) << type << payload << 0;
            QTest::addRow("stations, type %d", type) << type << payload << 1;
        }
    }

    void repliesAreReadToTheirEndOnly()
    {
        QFETCH(int, type);
        QFETCH(int, payload);
        QFETCH(int, stations);
        static GuardedBytes guarded;
        const QByteArray whole = readReply(1, QByteArray(payload, '\x10'));
        for (int size = 0; size <= int(whole.size()); ++size) {
            for (bool lie : {false, true}) {
                fixture.reset();
                fixture.info.per_variable_stations = stations;
                DriverFixture::connectStation(2);
                RW_VAR var = DriverFixture::makeVar(type, 8, 2, 2);
                var.name = type == 15 || type == 19 ? "C" : "T";
                AddListReadVar(&var);
                QVERIFY(ComCommunication());
                const QByteArray before = DriverFixture::image();
                QByteArray reply = guarded.put(whole.left(size));
                const bool good = size == int(whole.size());
                DataCom(&reply, lie ? int(whole.size()) : size);
                QCOMPARE(PLC_driver.ret_var.result, good ? 1 : 0);
                QCOMPARE(DriverFixture::image() != before || !PLC_driver.extend_list.isEmpty(),
                         good && (stations || type != 18));
            }
        }
    }

    /// A handshake reply is judged by its bytes alone, whatever length the host states.
    void handshakeRepliesAreReadToTheirEndOnly()
    {
        GuardedBytes guarded;
        const QByteArray confirm =
            fromHex("03 00 00 16 11 D0 00 01 00 07 00 C0 01 09 C1 02 10 00 C2 02 11 00");
        for (int size = 0; size <= int(confirm.size()); ++size) {
            for (int len : {0, size, INT_MAX, -1}) {
                fixture.reset();
                RW_VAR var = DriverFixture::makeVar(8, 0, 2);
                AddListReadVar(&var);
                QVERIFY(ComCommunication());
                QByteArray reply = guarded.put(confirm.left(size));
                DataCom(&reply, len);
                QCOMPARE(int(PLC_driver.protocol_list.size()), size == int(confirm.size()) ? 1 : 0);
            }
        }
    }
};

QTEST_GUILESS_MAIN(HostileTest)
#include "hostile_test.moc"
