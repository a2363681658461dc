#include "core/siemens_s7_200.h"
#include "image/Func_DealData.h"

#include <QtTest>

#include <cstdlib>
#include <random>

/// Asks for a value at the very end of a host's program, when main() has long returned.
static struct LateScreen {
    ~LateScreen()
    {
        if (ExtendFindSameVar(2, 12, 4000) != int(PLC_driver.extend_list.size()) - 1)
            std::_Exit(3);
    }
} lateScreen;

/// The way to an entry of the extend list must give what a search from its start gives, whatever
/// others do to the list.
class ExtendListTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        PLC_driver.extend_list.clear();
    }

    void findsWhatASearchFinds()
    {
        std::mt19937 random(7);
        const auto below = [&](int limit) { return int(random() % unsigned(limit)); };
        for (int step = 0; step < 20000; ++step) {
            const int what = below(1000);
            if (what == 0)
                PLC_driver.extend_list.clear(); // as a host that starts afresh
            else if (what < 20)
                appendAsOthersDo(below(3), below(40));
            else if (what == 20 && !PLC_driver.extend_list.isEmpty())
                PLC_driver.extend_list.removeLast();
            const int station = below(3);
            const int address = below(4) != 0 ? (m_lastAddress + 1) % 40 : below(40);
            m_lastAddress = address;
            const int before = int(PLC_driver.extend_list.size());
            const int expected = searched(station, address);
            const int found = ExtendFindSameVar(station, Type, address);
            QCOMPARE(found, expected >= 0 ? expected : before);
            QCOMPARE(int(PLC_driver.extend_list.size()), expected >= 0 ? before : before + 1);
        }
    }

    /// Another list of the same length, with the same ends, is still searched right for what it
    /// has.
    void aReplacedListIsNotMistaken()
    {
        for (int address : {1, 2, 3, 4, 1})
            ExtendFindSameVar(0, Type, address);
        QList<EXTENDVAR> other;
        for (int i : {0, 2, 1, 3})
            other.append(PLC_driver.extend_list.at(i));
        PLC_driver.extend_list = other;
        for (int address : {2, 3})
            QCOMPARE(ExtendFindSameVar(0, Type, address), address == 2 ? 2 : 1);
        QCOMPARE(int(PLC_driver.extend_list.size()), 4);
    }

private:
    static constexpr int Type = 12;

    static void appendAsOthersDo(int station, int address)
    {
        EXTENDVAR entry;
        entry.station = station;
        entry.reg_type = Type;
        entry.address = address;
        PLC_driver.extend_list.append(entry);
    }

    static int searched(int station, int address)
    {
        const QList<EXTENDVAR>& list = PLC_driver.extend_list;
        for (int i = 0; i < int(list.size()); ++i) {
            if (list.at(i).station == station && list.at(i).address == address)
                return i;
        }
        return -1;
    }

    int m_lastAddress = 0;
};

QTEST_GUILESS_MAIN(ExtendListTest)
#include "extend_list_test.moc"
