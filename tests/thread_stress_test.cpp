// The comm loop against a simulated controller while other threads call every list and value
// function. Its point is the ThreadSanitizer build; the counts at the end hold in every build.
// Requests made on another link are left out: their replies are stored without the data mutex.

#include "simulator/s7_request_handler.h"
#include "tests/driver_fixture.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QTest>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

using namespace s7200::sim;

namespace
{

constexpr int Rounds = 4000;
constexpr int MostOutstanding = 200;
constexpr int CounterAddress = 100;  ///< VW that the writer counts up.
constexpr int PatternAddress = 1000; ///< VW 1000 on hold PatternByte in the controller.
constexpr char PatternByte = 0x5A;

std::atomic<int> callbacks{0};
std::atomic<int> working{0};
std::atomic<int> failures{0};

int countCallback(int, int, int, int outcome)
{
    callbacks += outcome == 1;
    return 0;
}

void expect(bool holds)
{
    failures += !holds;
}

void communicate(ControllerMemory* memory)
{
    S7RequestHandler controller(memory);
    // Two idle calls in a row: the one after five writes means nothing.
    for (int idle = 0; working > 0 || idle < 2;) {
        const Protocol* pending = ComCommunication();
        idle = pending ? 0 : idle + 1;
        if (!pending) {
            std::this_thread::yield();
            continue;
        }
        QByteArray reply = controller.reply(pending->frame);
        expect(DataCom(&reply, int(reply.size()))->result == 1);
        if (working == 0 && PLC_driver.write_list.isEmpty() && PLC_driver.once_read_list.isEmpty())
            break;
    }
}

void rebuildList(int round)
{
    QList<VAR_INFO> variables;
    for (int k = 0; k <= round % 5; ++k) {
        VAR_INFO variable;
        variable.reg_type = k == 1 ? 8 : 12;
        variable.address_text = QString::number(k == 0   ? CounterAddress
                                                : k == 1 ? 3 * (round % 7)
                                                         : PatternAddress + 20 * k);
        variable.count = 4;
        variables << variable;
    }
    expect(ReCreatReadVarList(variables) != 0);
}

void queueWrite(int round)
{
    QByteArray value(2, '\0');
    qToLittleEndian(quint16(round + 1), value.data());
    expect(SetRegisterData("VW", 12, QString::number(CounterAddress), 0, &value, 1, 1, round) != 0);
}

void queueOneShotRead(int round)
{
    while (round - callbacks > MostOutstanding && failures == 0)
        std::this_thread::yield();
    RW_VAR read;
    read.host_key = 2;
    read.host_index = round;
    read.reg_type = 12;
    read.address_text = QString::number(PatternAddress);
    read.count = round % 10 == 0 ? 150 : 5; // every tenth in two pieces, still one callback
    expect(AddListOnceReadVar(&read, 0) != 0);
}

void useValues(int round)
{
    QByteArray value;
    GetRegisterData("VW", 12, QString::number(PatternAddress), 0, value, 50);
    // The controller never changes these bytes, and the image starts with zeros.
    expect(value.count(PatternByte) + value.count('\0') == value.size());
    QByteArray scratch(2, char(round));
    SetRegisterData("VB", 11, "9000", 0, &scratch, 1, 1, 0);
    PLCAddressChangeIntef(2, "10.3");
    QueryFinishFlag();
    EnableEthernet(round % 9 - 1, round % 3);
}

} // namespace

class ThreadStressTest : public QObject
{
    Q_OBJECT

private slots:
    void everyFunctionAtOnce()
    {
        DriverFixture driver;
        ControllerMemory memory;
        driver.reset();
        RegistCallBackFuncIntf(countCallback, 0);
        memory.write(SimulatorArea::V, PatternAddress, QByteArray(2 * 150, PatternByte));

        void (*const work[])(int) = {rebuildList, queueWrite, queueOneShotRead, useValues,
                                     useValues};
        working = int(std::size(work));
        std::vector<std::thread> threads;
        for (const auto part : work) {
            threads.emplace_back([part] {
                for (int round = 0; round < Rounds; ++round) {
                    part(round);
                    std::this_thread::yield();
                }
                --working;
            });
        }
        threads.emplace_back(communicate, &memory);
        for (std::thread& thread : threads)
            thread.join();

        QCOMPARE(failures.load(), 0);
        QCOMPARE(callbacks.load(), Rounds);
        QCOMPARE(memory.read(SimulatorArea::V, CounterAddress, 2), word16(Rounds));
    }
};

QTEST_GUILESS_MAIN(ThreadStressTest)
#include "thread_stress_test.moc"
