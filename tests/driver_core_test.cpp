#include "driver/return_codes.h"
#include "tests/driver_fixture.h"

#include <QLibrary>
#include <QtTest>

#include <climits>
#include <cstring>
#include <new>

namespace
{

const char* const UnmangledNames =
    "SetComInfo RegistCallBackFuncIntf FlashLocalRegister ReCreatReadVarList AddListReadVar "
    "AddListOnceReadVar AddListWriteVar PLCAddressChangeIntef ComCommunication DataCom "
    "GetRegisterData SetRegisterData EnableEthernet QueryFinishFlag PLC_driver map_list LB LW RWI";

/// Visible functions that no other test links to, as the C++ ABI writes their signatures.
const char* const MangledNames =
    " _Z8ReadBoolP6RW_VAR _Z10ReadAnalogP6RW_VAR _Z12ReadAnalog_WP6RW_VAR _Z9WriteBoolP6RW_VAR"
    " _Z15ReadRegister_TCP6RW_VAR _Z14WriteAnalog_VBP6RW_VAR _Z14WriteAnalog_VDP6RW_VAR"
    " _Z14WriteAnalog_TVP6RW_VAR _Z14WriteAnalog_CVP6RW_VAR _Z11Bubble_SortP5QListI6RW_VARE"
    " _Z11setReg_typeP6RW_VAR _Z12WhetherGroupiiP6RW_VARP5QListIS_E _Z17SwitchErrorReturni"
    " _Z22SaveWord_unsigned_charP10QByteArrayPh _Z21SaveBit_unsigned_charP10QByteArrayPh";

} // namespace

class DriverCoreTest : public QObject, private DriverFixture
{
    Q_OBJECT

private:
    /// Whether the object is as a host finds it before its first call.
    static bool isFresh(const Siemens_S7_200& d)
    {
        const char* const bytes = reinterpret_cast<const char*>(&d);
        const int image = int(reinterpret_cast<const char*>(d.I_area) - bytes);
        const QByteArray areas(bytes + image, imageSize());
        return d.com_info == nullptr && d.call_back == nullptr && d.call_back_arg == 0 &&
               d.read_list.isEmpty() && d.write_list.isEmpty() && d.once_read_list.isEmpty() &&
               d.spare_list.isEmpty() && d.protocol_list.isEmpty() && d.extend_list.isEmpty() &&
               d.disabled_stations.isEmpty() && sameRequest(d.ret_var, RW_VAR()) &&
               d.request_kind == 100 && d.write_turns == 0 && d.once_read_turns == 0 &&
               d.cycle_count == 0 && d.read_seq == -1 && d.write_seq == -1 && d.link_failed == 0 &&
               d.spare_flag == 0 && areas.count('\0') == areas.size();
    }

private slots:
    void init()
    {
        reset();
    }

    void constructorSetsEveryMember()
    {
        // Static storage is zero before any constructor runs; dirty memory shows what it forgets.
        alignas(Siemens_S7_200) static unsigned char memory[sizeof(Siemens_S7_200)];
        std::memset(memory, 0xA5, sizeof memory);
        auto* const driver = new (memory) Siemens_S7_200;
        const bool fresh = isFresh(*driver);
        driver->~Siemens_S7_200();
        QVERIFY(fresh);
    }

    void everyNameIsExported()
    {
        QLibrary library(QStringLiteral(DRIVER_LIBRARY_FILE));
        QVERIFY2(library.load(), qPrintable(library.errorString()));
        for (const QString& name : (QString(UnmangledNames) + MangledNames).split(' '))
            QVERIFY2(library.resolve(qPrintable(name)) != nullptr, qPrintable(name));
    }

    void driverKeepsItsMemberOrder()
    {
        const Siemens_S7_200& d = PLC_driver;
        const QVector<const void*> members = {
            &d.com_info,        &d.read_list,     &d.write_list,   &d.once_read_list,
            &d.spare_list,      &d.protocol_list, &d.extend_list,  &d.disabled_stations,
            &d.call_back,       &d.call_back_arg, &d.list_mutex,   &d.data_mutex,
            &d.station_mutex,   &d.ret_var,       &d.request_kind, &d.write_turns,
            &d.once_read_turns, &d.cycle_count,   &d.read_seq,     &d.write_seq,
            &d.link_failed,     &d.spare_flag,    &d.I_area,       &d.Q_area,
            &d.M_area,          &d.S_area,        &d.SM_area,      &d.V_area,
            &d.AIW_area,        &d.AQW_area,      &d.TV_area,      &d.CV_area,
            &d.T_bits,          &d.C_bits};
        QVERIFY(std::is_sorted(members.begin(), members.end(), std::less<const void*>()));
    }

    void settersStoreAndClear()
    {
        COM_INFO own;
        std::memset(static_cast<void*>(&own), 0x5A, sizeof own);
        COM_INFO expected = own;
        expected.link_down = 1;
        expected.unused13 = 0;
        SetComInfo(&own);
        QVERIFY(PLC_driver.com_info == &own);
        QVERIFY(std::memcmp(&own, &expected, sizeof own) == 0);
        RegistCallBackFuncIntf(recordCallback, -7);
        QVERIFY(PLC_driver.call_back == recordCallback);
        QCOMPARE(PLC_driver.call_back_arg, -7);
        int bits = 0;
        int third = 0;
        FlashLocalRegister(&bits, localWords.data(), &third);
        QVERIFY(LB == &bits && LW == localWords.constData() && RWI == &third);
        RW_VAR from = filledRequest(12, 100, 3, 4, "data");
        RW_VAR to;
        to.value = "older data";
        passRetValue(from, to);
        from.value.clear();
        QVERIFY(sameRequest(from, to));
    }

    void stationsAreMarked()
    {
        const QPair<QVector<QPair<int, int>>, QList<int>> rows[] = {
            {{{3, 0}, {1, 0}, {3, 0}, {0, 0}}, {0, 1, 3}},
            {{{3, 0}, {1, 0}, {3, 1}}, {1}},
            {{{3, 0}, {3, 2}, {4, 2}, {3, -1}}, {3}},
            {{{3, 0}, {0, 0}, {-1, 0}}, {}},
            {{{3, 0}, {-5, 2}}, {}},
        };
        for (const auto& row : rows) {
            reset();
            for (const auto& call : row.first)
                EnableEthernet(call.first, call.second);
            QCOMPARE(PLC_driver.disabled_stations.keys(0), row.second);
            QCOMPARE(QueryFinishFlag(), 1);
        }
    }

    // HOLDS(6)
    void outcomesBecomeHostCodes()
    {
        // Only the request whose reply is awaited decides, not what stands behind it.
        PLC_driver.protocol_list << Protocol() << Protocol();
        PLC_driver.protocol_list[1].var.host_key = 3;
        const QPair<int, int> keyOffsets[] = {{0, 0},  {1, 1},  {11, 11},
                                              {12, 0}, {-1, 0}, {INT_MAX, 0}};
        const int codes[] = {1, 11, 41, 71, 100, 111, 141, 171, 200};
        for (const auto& key : keyOffsets) {
            PLC_driver.protocol_list[0].var.host_key = key.first;
            for (int outcome = 0; outcome < 9; ++outcome)
                QCOMPARE(GetDriverReturnValue(outcome),
                         codes[outcome] + (outcome % 4 == 0 ? 0 : key.second));
        }
    }
};

QTEST_GUILESS_MAIN(DriverCoreTest)
#include "driver_core_test.moc"
