// Address texts, the cyclic list and its grouping, the write queue and one-shot reads.

#include "tests/driver_fixture.h"
#include "varlists/Func_Initi.h"

#include <QStringList>
#include <QtTest>

#include <limits>
#include <tuple>

namespace
{

constexpr int Max = std::numeric_limits<int>::max();
constexpr int Min = std::numeric_limits<int>::min();

/// "12 0 1; 2 3.4 10 @3": register type, address text, count and, when given, the station.
QList<VAR_INFO> variables(const QString& text)
{
    QList<VAR_INFO> list;
    for (const QString& one : text.split(';', Qt::SkipEmptyParts)) {
        const QStringList part = (one + " @9").split(' ', Qt::SkipEmptyParts);
        VAR_INFO info;
        info.reg_type = static_cast<unsigned char>(part.at(0).toInt());
        info.address_text = part.at(1);
        info.count = part.at(2).toInt();
        info.station = static_cast<unsigned char>(part.at(3).mid(1).toInt());
        info.name = QString("name %1").arg(list.size());
        list.append(info);
    }
    return list;
}

/// The same notation for requests: register type, address, count, and the station if asked for.
QString shown(const QList<RW_VAR>& list, bool withStation = false)
{
    QStringList parts;
    for (const RW_VAR& var : list)
        parts.append(QString("%1 %2 %3").arg(var.reg_type).arg(var.address).arg(var.count) +
                     (withStation ? QString(" @%1").arg(var.station) : QString()));
    return parts.join("; ");
}

RW_VAR onceRead(int regType, const QString& text, int count)
{
    RW_VAR var = filledRequest(regType, 9, count, 5);
    var.address_text = text;
    return var;
}

} // namespace

class ListsTest : public QObject
{
    Q_OBJECT

    DriverFixture fixture;

private slots:
    void init()
    {
        fixture.reset();
        fixture.info.block_length_limit = 100;
    }

    // HOLDS(16)
    void addressText()
    {
        // Bytes and bits that are no numbers count as 0, and bits are not range-checked.
        // clang-format off
        const std::tuple<int, const char*, int> rows[] = {
            {0, "12.5", 101}, {5, "10.3", 83}, {0, "12", -1}, {5, "", -1}, {0, "x.3", 3},
            {0, "12.", 96}, {0, ".7", 7}, {4, ".", 0}, {0, "1.2.3", 10}, {0, "10.9", 89},
            {1, " +10 . 3 ", 83}, {1, "1 0.3", 3}, {2, "1.-3", 5}, {2, "-1.0", -8},
            {0, "268435455.7", Max}, {0, "268435455.8", -1}, {0, "-300000000.0", -1},
            {0, "99999999999.3", 3}, {0, "1.2147483647", -1}, {12, "100", 100}, {12, "1.5", -1},
            {12, "", -1}, {6, "a", -1}, {6, "0x10", -1}, {6, " +7 ", 7}, {12, "-5", -5},
            {25, "7", 7}, {12, "2147483647", Max}, {12, "2147483648", -1}};
        // clang-format on
        for (const auto& [type, text, address] : rows) {
            const QString label = QString("%1 '%2': %3").arg(type).arg(text);
            QCOMPARE(label.arg(StringAddressToInt(type, text)), label.arg(address));
            QCOMPARE(PLCAddressChangeIntef(type, text), address);
        }
    }

    // clang-format off
    void groupingForOneStation()
    {
        checkGrouping(100, {
            // Joined with the gap between them, up to the limit and one past it; sorted before.
            {"12 0 1; 12 4 1; 12 50 2", "12 0 54"}, {"11 0 10; 11 90 10", "11 0 100"},
            {"11 0 10; 11 90 11", "11 0 10; 11 90 11"},
            // Inside to the end, over the end; the opener's type stays, at a tie the first listed.
            {"12 0 4; 12 6 1", "12 0 8"}, {"12 0 4; 12 7 1", "12 0 9"},
            {"12 10 1; 11 0 4", "11 0 12"}, {"11 0 1; 12 0 1; 5 0.0 1", "11 0 2"},
            {"12 0 1; 11 0 1", "12 0 2"},
            // The areas have an order; timer values and bits stay apart.
            {"19 1 1; 18 1 1; 15 1 1; 14 1 1; 17 2 1; 16 2 1; 12 2 1; 10 2 1; 9 2 1; 8 2 1; 7 2 1;"
             "6 2 1",
             "6 2 2; 7 2 2; 8 2 2; 9 2 2; 10 2 2; 12 2 2; 16 2 1; 17 2 1; 14 1 1; 15 1 1; 18 1 1;"
             " 19 1 1"},
            // Bits fold to the bytes that they touch, double words to words.
            {"0 1.7 2; 1 1.7 1; 2 3.4 10; 3 1.0 9; 4 1.1 8; 5 1.0 1",
             "6 1 2; 7 1 1; 8 3 2; 9 1 2; 10 1 2; 12 1 1"},
            {"20 8 1; 21 8 2; 22 8 3; 23 8 4; 24 8 5; 13 8 6",
             "6 8 4; 7 8 4; 8 8 8; 9 8 8; 10 8 12; 12 8 12"},
            // Rejected or without elements; the last starts a byte all the same.
            {"12 -5 1; 12 abc 1; 2 10 1; 25 0 1; 255 0 1; 12 0 1", "12 0 2"},
            {"12 0 0; 2 3.0 0; 13 0 0; 14 0 0; 4 3.4 0", "10 3 1"},
            {"11 0 1; 11 2147483647 10", "11 0 1; 11 2147483647 10"}});
        // Pieces of bits are 8 L and of words 2 L bytes long, yet merging stops at L:
        // docs/oddities.md.
        checkGrouping(10, {
            {"5 0.0 800", "12 0 80; 12 80 20"}, {"12 0 25", "12 0 20; 12 20 20; 12 40 10"},
            {"22 0 25", "8 0 20; 8 20 20; 8 40 12"}, {"11 0 25", "11 0 10; 11 10 10; 11 20 5"},
            {"16 0 11; 17 0 11; 14 0 12; 15 0 12; 18 0 12; 19 0 12",
             "16 0 10; 16 10 1; 17 0 10; 17 10 1; 14 0 10; 14 10 2; 15 0 10; 15 10 2; 18 0 10; "
             "18 10 2; 19 0 10; 19 10 2"},
            {"12 0 10; 12 18 1; 12 19 1", "12 0 20; 12 19 2"}});
        checkGrouping(0, {{"12 0 4; 12 2 1; 12 8 1", "12 0 8; 12 8 2"}});
        checkGrouping(1, {{"12 0 2; 11 9 2", "12 0 2; 12 2 2; 11 9 1; 11 10 1"}});
    }

    void groupingForSeveralStations()
    {
        fixture.info.per_variable_stations = 1;
        checkGrouping(100, {
            // The next piece starts 2 L on although a piece covers only L bytes: docs/oddities.md.
            {"12 0 100 @3; 14 5 250 @3",
             "12 0 100 @3; 12 200 100 @3; 14 5 100 @3; 14 205 100 @3; 14 405 50 @3"},
            // Neither merged nor sorted, but nothing twice, be it a piece.
            {"12 50 1 @1; 12 48 1 @1; 6 0 1 @1", "12 50 2 @1; 12 48 2 @1; 6 0 2 @1"},
            {"12 0 1 @3; 12 0 1 @3; 12 0 1 @255", "12 0 2 @3; 12 0 2 @255"},
            {"12 0 50 @1; 12 0 100 @1", "12 0 100 @1; 12 200 100 @1"},
            // S words count once, other words and bytes twice.
            {"9 0 3 @1; 23 0 3 @1; 6 0 3 @1; 7 0 3 @1; 8 0 3 @1; 10 0 3 @1; 11 0 5 @1; 12 0 5 @1",
             "9 0 3 @1; 9 0 8 @1; 6 0 6 @1; 7 0 6 @1; 8 0 6 @1; 10 0 6 @1; 12 0 10 @1"},
            {"30 5 7 @4; 2 3.4 10 @4; 16 2 3 @4; 17 2 3 @4",
             "30 5 7 @4; 8 3 2 @4; 16 2 3 @4; 17 2 3 @4"},
            {"12 -5 1 @1; 2 10 1 @1; 12 x 1 @1; 12 0 0 @1", ""}});
        checkGrouping(0, {{"12 0 200 @1", "12 0 400 @1"}});
    }
    // clang-format on

    void cyclicRequestFields()
    {
        fixture.info.remote_access = 6;
        fixture.info.link_id = 7;
        for (int perVariable : {0, 1}) {
            fixture.info.per_variable_stations = perVariable;
            ReCreatReadVarList(variables("12 10 1; 11 0 1"));
            // With one station the block is opened by the variable at 0, the second listed.
            RW_VAR expected =
                perVariable ? fixture.makeVar(12, 10, 2, 9) : fixture.makeVar(11, 0, 12, 2);
            expected.host_index = -1;
            expected.remote = 6;
            expected.link_id = 7;
            expected.name = perVariable ? "name 0" : "name 1";
            expected.address_text = perVariable ? "10" : "0";
            QVERIFY(sameRequest(PLC_driver.read_list.first(), expected));
        }
    }

    void rebuilding()
    {
        // An empty list leaves the cycle as it is.
        const std::tuple<const char*, const char*, int, int> rows[] = {
            {"12 0 1", "12 0 2", 0, 0}, {"12 x 1", "", 0, 0}, {"", "", 4, 1}};
        for (const auto& [listed, requests, cycleCount, cycleComplete] : rows) {
            fixture.reset();
            RW_VAR old = fixture.makeVar(8, 1, 1);
            QCOMPARE(AddListReadVar(&old), 1);
            QCOMPARE(AddListReadVar(&old), 2);
            PLC_driver.protocol_list.append(Protocol());
            PLC_driver.cycle_count = 4;
            fixture.info.cycle_complete = 1;
            ReCreatReadVarList(variables(listed));
            QCOMPARE(shown(PLC_driver.read_list), QString(requests));
            QCOMPARE(PLC_driver.cycle_count, cycleCount);
            QCOMPARE(fixture.info.cycle_complete, cycleComplete);
            QCOMPARE(int(PLC_driver.protocol_list.size()), 1);
        }
    }

    void manyVariables()
    {
        constexpr int Places = 2000; // each listed twice, from the last one on
        QString text;
        for (int i = 2 * Places - 1; i >= 0; --i)
            text += QString("12 %1 1;").arg(i / 2 * 1000);
        for (int perVariable : {0, 1}) {
            fixture.info.per_variable_stations = perVariable;
            QCOMPARE(ReCreatReadVarList(variables(text)), Places);
            for (int i = 0; i < Places; ++i) {
                const RW_VAR& request = PLC_driver.read_list.at(perVariable ? Places - 1 - i : i);
                QCOMPARE(request.address, i * 1000);
                // Sorting keeps the order of two at one place: the first listed opens the block.
                QCOMPARE(request.name, QString("name %1").arg(2 * (Places - 1 - i)));
            }
        }
    }

    // HOLDS(10, 14, 15)
    void absurdNumbers()
    {
        for (int limit : {100, 0, -100, Max, Min})
            for (const char* text : {"0 %1.0 %2", "5 %1.0 %2", "9 %1 %2", "11 %1 %2", "12 %1 %2",
                                     "13 %1 %2", "14 %1 %2", "16 %1 %2", "24 %1 %2"})
                for (int address : {0, 268435455})
                    for (int count : {Min, -3, Max})
                        expectSoundLists(limit, variables(QString(text).arg(address).arg(count)));
        expectSoundLists(1, variables(QString("12 0 %1").arg(Max)));
    }

    /// All of a long variable is listed, and a one-shot read of nothing says how much that is.
    void longAndEmptyRequests()
    {
        fixture.info.block_length_limit = 200;
        QCOMPARE(ReCreatReadVarList(variables("12 0 40000")), 200);
        const RW_VAR last = PLC_driver.read_list.last();
        QCOMPARE(last.address + last.count, 80000);

        fixture.info.block_length_limit = -3;
        RW_VAR words = onceRead(9, "6", 2);
        words.address = 77;
        QCOMPARE(AddListOnceReadVar(&words, 0), 0);
        QVERIFY(words.count == 4 && words.reg_type == 9 && words.address == 77);
        RW_VAR doubleWords = onceRead(13, "6", -1);
        QCOMPARE(AddListOnceReadVar(&doubleWords, 0), 0);
        QVERIFY(doubleWords.count == 0 && doubleWords.reg_type == 12);
    }

    void writesMerge()
    {
        const std::tuple<int, int, int, int, int, bool> rows[] = {
            {7, 10, 1, 2, 0, true},  {7, 10, 1, 2, 2, true},  {7, 10, 1, 2, 1, false},
            {8, 10, 1, 2, 0, false}, {7, 11, 1, 2, 0, false}, {7, 10, 2, 2, 0, false},
            {7, 10, 1, 3, 0, false}};
        for (const auto& [type, address, count, station, mode, replaces] : rows) {
            fixture.reset();
            RW_VAR pending = fixture.makeVar(7, 10, 1, 2, "old");
            // The head may be on its way to the controller already: it is never overwritten. Of
            // several equal ones the first behind it is.
            QCOMPARE(AddListWriteVar(&pending, 0), 1);
            QCOMPARE(AddListWriteVar(&pending, 0), 2);
            QCOMPARE(AddListWriteVar(&pending, 1), 3);
            const RW_VAR added = filledRequest(type, address, count, station, "new");
            RW_VAR given = added;
            QCOMPARE(AddListWriteVar(&given, mode), replaces ? 3 : 4);
            const QList<RW_VAR>& list = PLC_driver.write_list;
            QVERIFY(sameRequest(given, added) && sameRequest(list.at(replaces ? 1 : 3), added));
            for (int other : {0, replaces ? 2 : 1, 2})
                QVERIFY(sameRequest(list.at(other), pending));
        }
    }

    // HOLDS(14)
    void writeQueueIsFull()
    {
        RW_VAR var = fixture.makeVar(7, 0, 1, 2, "old");
        for (; var.address < 1024; ++var.address)
            QCOMPARE(AddListWriteVar(&var, 0), var.address + 1);
        const QList<RW_VAR>& list = PLC_driver.write_list;
        var.value = "new";
        for (int address : {5000, 0, 1023}) {
            var.address = address;
            QCOMPARE(AddListWriteVar(&var, 0), 1024);
            QCOMPARE(list.first().value, QByteArray("old"));
            QCOMPARE(list.last().address, 1023);
            QCOMPARE(list.last().value, QByteArray(address == 1023 ? "new" : "old"));
        }
        QCOMPARE(AddListWriteVar(&var, 1), 1025);
        QCOMPARE(AddListWriteVar(nullptr, 0), 0);
    }

    void onceReads()
    {
        // A bit read starts in bit units here, while the cyclic list uses bytes. Bytes are not
        // folded. Timers, counters, analogue words and types beyond the table, which keep their
        // address 9, advance by twice the limit. Deliberate: docs/oddities.md. Null: refused.
        // clang-format off
        const std::tuple<int, const char*, int, int, const char*> rows[] = {
            {2, "10.3", 6, 100, "8 80 2"}, {5, "1.0", 64, 5, "12 8 5; 12 13 3"},
            {0, "10.3", 0, 100, "6 80 1"}, {0, "10.0", 0, 100, ""}, {13, "100", 3, 100, "12 100 8"},
            {20, "8", 1, 100, "6 8 4"}, {12, "0", 5, 4, "12 0 4; 12 4 4; 12 8 2"},
            {9, "2", 2, 4, "9 2 4"}, {11, "7", 3, 100, "11 7 6"}, {12, "0", 700, 0, "12 0 1400"},
            {12, "0", -3, 100, "12 0 -6"},
            {14, "5", 6, 4, "14 5 4; 14 13 2"}, {15, "5", 8, 4, "15 5 4; 15 13 4"},
            {16, "2", 6, 4, "16 2 4; 16 10 2"}, {17, "2", 6, 4, "17 2 4; 17 10 2"},
            {18, "5", 6, 4, "18 5 4; 18 13 2"}, {19, "5", 6, 4, "19 5 4; 19 13 2"},
            {25, "77", 10, 4, "25 9 4; 25 17 4; 25 25 2"}, {2, "10", 1, 100, nullptr},
            {12, "-5", 1, 100, nullptr}, {25, "x", 1, 100, nullptr},
            {0, "300000000.0", 1, 100, nullptr}};
        // clang-format on
        for (const auto& [type, text, count, limit, pieces] : rows) {
            fixture.reset();
            fixture.info.block_length_limit = limit;
            RW_VAR other = fixture.makeVar(1, 1, 1), var = onceRead(type, text, count);
            QCOMPARE(AddListOnceReadVar(&other, 1), 1);
            const int size = AddListOnceReadVar(&var, 0);
            const QList<RW_VAR> list = PLC_driver.once_read_list;
            const QString label = QString("%1 %2: ").arg(type).arg(text);
            QCOMPARE(label + shown(list.mid(1)), label + pieces);
            QCOMPARE(size, pieces ? int(list.size()) : 0);
            if (list.size() == 1)
                continue;
            // The caller's request takes the fields of its last piece.
            RW_VAR expected = onceRead(list.last().reg_type, text, list.last().count);
            expected.address = list.last().address;
            expected.station = 2;
            expected.reserved1 = expected.reserved2 = 0;
            QVERIFY(sameRequest(list.last(), expected) && sameRequest(var, expected));
            var = onceRead(type, text, count);
            QCOMPARE(AddListOnceReadVar(&var, 0), size);
        }
    }

    void onceReadDuplicates()
    {
        fixture.info.per_variable_stations = 1;
        QVector<RW_VAR> differing(4, onceRead(12, "10", 1));
        differing << onceRead(12, "10", 2) << onceRead(12, "12", 1) << onceRead(6, "10", 1);
        differing[1].station = 6;
        differing[2].host_key = 4;
        differing[3].host_index = 41;
        int size = 0;
        for (RW_VAR var : qAsConst(differing)) {
            RW_VAR again = var;
            QCOMPARE(AddListOnceReadVar(&var, 0), ++size);
            QCOMPARE(PLC_driver.once_read_list.last().station, size == 2 ? 6 : 5);
            QCOMPARE(AddListOnceReadVar(&again, 2), size);
        }
        // Mode 1 takes it as it is: unparsed, with all its fields, and a second time.
        RW_VAR raw = filledRequest(5, 9, 3);
        QCOMPARE(AddListOnceReadVar(&raw, 1), size + 1);
        QCOMPARE(AddListOnceReadVar(&raw, 1), size + 2);
        QVERIFY(sameRequest(PLC_driver.once_read_list.last(), filledRequest(5, 9, 3)));
        QCOMPARE(AddListOnceReadVar(nullptr, 0), 0);
    }

    void onceReadsAreLimited()
    {
        fixture.info.block_length_limit = 1;
        RW_VAR var = onceRead(14, "0", 2000000000);
        QCOMPARE(AddListOnceReadVar(&var, 0), 1024);
        QCOMPARE(shown({PLC_driver.once_read_list.last()}), QString("14 2046 1"));
        for (int removed : {0, 1}) {
            if (removed)
                PLC_driver.once_read_list.removeLast();
            var = onceRead(12, "0", 1);
            QCOMPARE(AddListOnceReadVar(&var, 0), 1024);
            QCOMPARE(PLC_driver.once_read_list.last().reg_type, removed ? 12 : 14);
        }
        QCOMPARE(AddListOnceReadVar(&var, 1), 1025);
    }

private:
    /// Lists an absurd variable in every way there is.
    void expectSoundLists(int limit, const QList<VAR_INFO>& listed)
    {
        const VAR_INFO& variable = listed.first();
        fixture.info.block_length_limit = limit;
        for (int perVariable : {0, 1}) {
            fixture.info.per_variable_stations = perVariable;
            QVERIFY(ReCreatReadVarList(listed) <= 1 << 20);
            // What can be listed begins at the variable's own address.
            if (limit >= 0 && variable.count > 0)
                QCOMPARE(PLC_driver.read_list.first().address,
                         variable.address_text.section('.', 0, 0).toInt());
        }
        RW_VAR var = onceRead(variable.reg_type, variable.address_text, variable.count);
        PLC_driver.once_read_list.clear();
        QVERIFY(AddListOnceReadVar(&var, 0) <= 1024);
        QVERIFY(PLC_driver.once_read_list.size() <= 1024);
    }

    void checkGrouping(int limit, const QList<QPair<QString, QString>>& rows)
    {
        fixture.info.block_length_limit = limit;
        for (const auto& [listed, requests] : rows) {
            const int size = ReCreatReadVarList(variables(listed));
            const QString given = shown(PLC_driver.read_list, listed.contains('@'));
            QCOMPARE(listed + " -> " + given, listed + " -> " + requests);
            QCOMPARE(size, int(PLC_driver.read_list.size()));
        }
    }
};

QTEST_GUILESS_MAIN(ListsTest)
#include "lists_test.moc"
