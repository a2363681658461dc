#include "tests/driver_fixture.h"

#include <QtTest>

#include <cstdlib>

#include <dlfcn.h>

// Every allocation of this program goes through here; the one that is counted down to fails.
static long allocationsLeft = -1; ///< -1: none fails.

static bool allocationFails()
{
    return allocationsLeft >= 0 && allocationsLeft-- == 0;
}

template <typename Function>
static Function* real(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

extern "C" __attribute__((visibility("default"))) void* malloc(size_t size)
{
    static const auto next = real<void*(size_t)>("malloc");
    return allocationFails() ? nullptr : next(size);
}

extern "C" __attribute__((visibility("default"))) void* realloc(void* block, size_t size)
{
    static const auto next = real<void*(void*, size_t)>("realloc");
    return allocationFails() ? nullptr : next(block, size);
}

// HOLDS(24)
/// Out of memory at every single allocation of a host's calls: each call comes back, with nothing
/// half done that would pass for done.
class OutOfMemoryTest : public QObject
{
    Q_OBJECT

private slots:
    void everyAllocationFailsOnce_data()
    {
        QTest::addColumn<int>("perVariableStations");
        QTest::addColumn<int>("remoteAccess");
        QTest::newRow("one station") << 0 << 0;
        QTest::newRow("several stations") << 1 << 0;
        QTest::newRow("remote access") << 1 << 1;
    }

    // HOLDS(24)
    void everyAllocationFailsOnce()
    {
        QFETCH(int, perVariableStations);
        QFETCH(int, remoteAccess);
        int failing = 0;
        for (bool ranOut = true; ranOut; ++failing) {
            m_fixture.reset(); // also sees that no mutex was left locked
            m_fixture.info.block_length_limit = 20;
            m_fixture.info.per_variable_stations = perVariableStations;
            m_fixture.info.remote_access = remoteAccess;
            m_stored = m_halfDone = 0;
            ranOut = callsSurvive(failing);
            expectSound();
            if (QTest::currentTestFailed())
                return;
        }
        QVERIFY2(failing > 20 && (remoteAccess || m_stored > 2),
                 qPrintable(QStringLiteral("%1 %2").arg(failing).arg(m_stored)));
    }

private:
    static constexpr int MostReplyBytes = 512;

    /// Runs a host's calls with the `failing`-th allocation among them missing. False if there were
    /// fewer.
    bool callsSurvive(int failing)
    {
        const QString address = QStringLiteral("100");
        const QString bits = QStringLiteral("300.0");
        QList<VAR_INFO> variables;
        VAR_INFO variable;
        variable.reg_type = 12;
        variable.address_text = address;
        variable.count = 30;
        variables.append(variable);
        RW_VAR read = DriverFixture::makeVar(12, 0, 30);
        read.address_text = address;
        QByteArray value(60, '\1');
        QByteArray out;

        m_reply.reserve(MostReplyBytes);
        allocationsLeft = failing;
        const int listed = ReCreatReadVarList(variables);
        const bool listedAll = listed == (m_fixture.info.per_variable_stations ? 3 : 2);
        const int once = AddListOnceReadVar(&read, 0);
        m_halfDone += int(PLC_driver.once_read_list.size()) != once;
        const int written = SetRegisterData(address, 12, address, 2, &value, 30, 0, 0);
        AddListWriteVar(&read, 0);
        for (int i = 0; i < 12; ++i)
            transact();
        PLC_driver.link_failed = 1;
        const int writtenHere = SetRegisterData(address, 5, bits, 2, &value, 30, 0, 0);
        GetRegisterData(address, 12, address, 2, out, 30);
        const int parsed = PLCAddressChangeIntef(0, bits);
        EnableEthernet(3, 0);
        const bool ranOut = allocationsLeft < 0;
        allocationsLeft = -1;

        [&] {
            QCOMPARE(m_halfDone, 0);
            QVERIFY(listedAll || (listed == 0 && ranOut));
            QVERIFY(once == 3 || (once == 0 && ranOut));
            QVERIFY(written == 2 || (written == 0 && ranOut));
            QVERIFY(writtenHere >= 30 || (writtenHere == 0 && ranOut));
            QVERIFY(parsed == 2400 || (parsed == -1 && ranOut));
            QVERIFY(ranOut || out.size() == 60);
        }();
        return ranOut;
    }

    /// What is to be sent, and a good reply to it. Notes what is half done: a frame that nobody was
    /// given, half a handshake, a good read that is not stored.
    void transact()
    {
        const Protocol* pending = ComCommunication();
        const int frames = int(PLC_driver.protocol_list.size());
        if (!pending) {
            m_halfDone += frames != 0;
            return;
        }
        const RW_VAR var = pending->var;
        const bool shakesHands =
            map_list.value(var.station).hand_shake_ok == 0 && m_fixture.info.remote_access == 0;
        const bool isRead = var.origin == 0 && pending->data_len > 0;
        const int step = m_fixture.info.frame_index;
        if (shakesHands)
            m_reply.replace(0, m_reply.size(), step == 0 ? m_confirm : m_setup);
        else
            answer(*pending);
        m_halfDone += shakesHands && step == 0 && frames != 2;
        const bool good = DataCom(&m_reply, int(m_reply.size()))->result == Result_Good;
        if (good && isRead && !shakesHands && m_fixture.info.remote_access == 0) {
            ++m_stored;
            m_halfDone += storedByte(var) != '\7';
        }
    }

    char storedByte(const RW_VAR& var) const
    {
        if (m_fixture.info.per_variable_stations == 0)
            return char(PLC_driver.V_area[var.address]);
        for (const EXTENDVAR& entry : PLC_driver.extend_list) {
            if (entry.address == var.address && entry.station == var.station &&
                !entry.value.isEmpty())
                return entry.value.at(0);
        }
        return '\0';
    }

    /// Makes m_reply a good reply to a read, in the memory that it has; bad for anything else.
    void answer(const Protocol& pending)
    {
        m_reply.replace(0, m_reply.size(), m_readReply);
        const int length = qBound(int(m_readReply.size()), pending.reply_len, MostReplyBytes);
        while (m_reply.size() < length)
            m_reply.append('\7');
        put16(2, length);
        put16(11, map_list.value(pending.var.station).pdu_ref);
        put16(15, length - 21);
        put16(23, 8 * (length - 25));
    }

    void put16(int offset, int value)
    {
        m_reply[offset] = char(value >> 8);
        m_reply[offset + 1] = char(value);
    }

    void expectSound() const
    {
        for (const QList<RW_VAR>* list :
             {&PLC_driver.read_list, &PLC_driver.write_list, &PLC_driver.once_read_list}) {
            for (const RW_VAR& entry : *list)
                QVERIFY(entry.reg_type >= 0 && entry.count >= 0);
        }
        for (const EXTENDVAR& entry : PLC_driver.extend_list)
            QVERIFY(entry.station == 2 || entry.station == 0);
    }

    DriverFixture m_fixture;
    const QByteArray m_confirm = connectionConfirm();
    const QByteArray m_setup = setupReply();
    const QByteArray m_readReply = readReply(0, QByteArray());
    QByteArray m_reply;
    int m_stored = 0; ///< Good reads.
    int m_halfDone = 0;
};

QTEST_GUILESS_MAIN(OutOfMemoryTest)
#include "out_of_memory_test.moc"
