// The comm loop against a simulated controller while other threads call every list and value
// function. Its point is the ThreadSanitizer build; the counts at the end hold in every build.
// Requests made on another link are left out: their replies are stored without the data mutex,
// which hosts rely on.

#include "core/siemens_s7_200.h"
#include "simulator/s7_request_handler.h"
#include "tests/driver_fixture.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

using namespace s7200::sim;

namespace
{

constexpr int Rounds = 4000;
constexpr int MostOutstanding = 200;
constexpr int CounterAddress = 100;  ///< VW that the writer counts up.
constexpr int PatternAddress = 1000; ///< VW 1000 to 1098 hold PatternWord in the controller.
constexpr int PatternWords = 50;
constexpr char PatternByte = 0x5A;
constexpr int RegTypeVW = 12;
constexpr int RegTypeVB = 11;

std::atomic<int> callbacks{0};

int countCallback(int, int, int, int outcome)
{
    if (outcome == 1)
        ++callbacks;
    return 0;
}

VAR_INFO variable(int regType, int address, int count)
{
    VAR_INFO info;
    info.reg_type = static_cast<unsigned char>(regType);
    info.address_text = QString::number(address);
    info.count = count;
    return info;
}

} // namespace

class ThreadStressTest : public QObject
{
    Q_OBJECT

private slots:
    void everyFunctionAtOnce();

private:
    void communicate();
    void rebuildLists();
    void queueWrites();
    void queueOneShotReads();
    void readValues();
    void toggleStations();

    DriverFixture m_driver;
    ControllerMemory m_memory;
    std::atomic<int> m_working{0};
    std::atomic<int> m_failures{0};
    std::atomic<int> m_tornValues{0};
    std::atomic<int> m_oneShotReads{0};
};

void ThreadStressTest::communicate()
{
    S7RequestHandler controller(&m_memory);
    int idle = 0;
    // Two idle calls in a row: the one after five writes means nothing.
    while (m_working > 0 || idle < 2) {
        const Protocol* pending = ComCommunication();
        idle = pending ? 0 : idle + 1;
        if (!pending) {
            std::this_thread::yield();
            continue;
        }
        QByteArray reply = controller.reply(pending->frame);
        if (DataCom(&reply, int(reply.size()))->result != 1)
            ++m_failures;
        if (m_working == 0 && PLC_driver.write_list.isEmpty() &&
            PLC_driver.once_read_list.isEmpty())
            break;
    }
}

void ThreadStressTest::rebuildLists()
{
    for (int i = 0; i < Rounds; ++i) {
        QList<VAR_INFO> variables;
        for (int k = 0; k <= i % 5; ++k)
            variables << variable(RegTypeVW, PatternAddress + 20 * k, 10);
        variables << variable(RegTypeVW, CounterAddress, 1) << variable(8, 3 * (i % 7), 4);
        if (ReCreatReadVarList(variables) == 0)
            ++m_failures;
        std::this_thread::yield();
    }
}

void ThreadStressTest::queueWrites()
{
    for (int i = 1; i <= Rounds; ++i) {
        QByteArray value(2, '\0');
        qToLittleEndian(quint16(i), value.data());
        if (SetRegisterData("VW", RegTypeVW, QString::number(CounterAddress), 0, &value, 1, 1, i) ==
            0)
            ++m_failures;
        std::this_thread::yield();
    }
}

void ThreadStressTest::queueOneShotReads()
{
    for (int i = 0; i < Rounds; ++i) {
        while (m_oneShotReads - callbacks > MostOutstanding)
            std::this_thread::yield();
        RW_VAR read;
        read.host_key = 2;
        read.host_index = i;
        read.reg_type = RegTypeVW;
        read.address_text = QString::number(PatternAddress);
        read.count = i % 10 == 0 ? 150 : 5; // every tenth in two pieces, still one callback
        if (AddListOnceReadVar(&read, 0) == 0)
            ++m_failures;
        ++m_oneShotReads;
    }
}

void ThreadStressTest::readValues()
{
    for (int i = 0; i < Rounds; ++i) {
        QByteArray value;
        GetRegisterData("VW", RegTypeVW, QString::number(PatternAddress), 0, value, PatternWords);
        // The controller never changes these bytes, and the image starts with zeros.
        if (value.count(PatternByte) + value.count('\0') != value.size())
            ++m_tornValues;
        QByteArray scratch(2, char(i));
        SetRegisterData("VB", RegTypeVB, "9000", 0, &scratch, 1, 1, 0);
        GetRegisterData("M", 2, QString("%1.%2").arg(i % 30).arg(i % 8), 0, value, 8);
        PLCAddressChangeIntef(2, "10.3");
        QueryFinishFlag();
    }
}

void ThreadStressTest::toggleStations()
{
    for (int i = 0; i < Rounds; ++i)
        EnableEthernet(i % 9 - 1, i % 3);
}

void ThreadStressTest::everyFunctionAtOnce()
{
    m_driver.reset();
    RegistCallBackFuncIntf(countCallback, 0);
    m_memory.write(SimulatorArea::V, PatternAddress, QByteArray(2 * 150, PatternByte));

    const std::vector<void (ThreadStressTest::*)()> work = {
        &ThreadStressTest::rebuildLists, &ThreadStressTest::queueWrites,
        &ThreadStressTest::queueOneShotReads, &ThreadStressTest::readValues,
        &ThreadStressTest::toggleStations};
    m_working = int(work.size());
    std::vector<std::thread> threads;
    for (const auto& part : work) {
        threads.emplace_back([this, part] {
            (this->*part)();
            --m_working;
        });
    }
    std::thread loop(&ThreadStressTest::communicate, this);
    for (std::thread& thread : threads)
        thread.join();
    loop.join();

    QCOMPARE(m_failures.load(), 0);
    QCOMPARE(m_tornValues.load(), 0);
    QCOMPARE(callbacks.load(), m_oneShotReads.load());
    const QByteArray last = m_memory.read(SimulatorArea::V, CounterAddress, 2);
    QCOMPARE(int(qFromBigEndian<quint16>(last.constData())), Rounds);
}

QTEST_GUILESS_MAIN(ThreadStressTest)
#include "thread_stress_test.moc"
