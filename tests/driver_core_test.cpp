#include "driver/return_codes.h"
#include "tests/driver_fixture.h"

#include <QLibrary>
#include <QtTest>

#include <climits>
#include <cstring>
#include <new>

namespace
{

const char* const ExportedNames = R"(
    SetComInfo RegistCallBackFuncIntf FlashLocalRegister ReCreatReadVarList AddListReadVar
    AddListOnceReadVar AddListWriteVar PLCAddressChangeIntef ComCommunication DataCom
    GetRegisterData SetRegisterData EnableEthernet QueryFinishFlag PLC_driver map_list LB LW RWI)";

/// Functions with a name of their own, as the C++ ABI writes their signatures.
const char* const MangledNames = R"(
    _Z12passRetValueRK6RW_VARRS_ _Z18StringAddressToInti7QString _Z11setReg_typeP6RW_VAR
    _Z12WhetherGroupiiP6RW_VARP5QListIS_E _Z11Bubble_SortP5QListI6RW_VARE
    _Z17SIEMENS_HandShakeP6RW_VAR _Z21SIEMENS_CheckHSReturnP10QByteArray
    _Z12ReadRegisterP6RW_VAR _Z8ReadBoolP6RW_VAR _Z10ReadAnalogP6RW_VAR _Z12ReadAnalog_WP6RW_VAR
    _Z15ReadRegister_TCP6RW_VAR _Z15ReadRegister_VBP6RW_VAR _Z13WriteRegisterP6RW_VAR
    _Z9WriteBoolP6RW_VAR _Z11WriteAnalogP6RW_VAR _Z14WriteAnalog_VBP6RW_VAR
    _Z14WriteAnalog_VDP6RW_VAR _Z14WriteAnalog_TVP6RW_VAR _Z14WriteAnalog_CVP6RW_VAR
    _Z14Remote_ReadVarP6RW_VAR _Z15Remote_WriteVarP6RW_VAR _Z12CheckGetDataP10QByteArrayi
    _Z6CalSUMPht _Z6CalCRCPht _Z6CalLRCPht _Z6CalXORPht _Z14DigitalToASCIIi _Z14ASCIIToDigitali
    _Z19DealDataOfLocalAreaP10QByteArrayi _Z20DealDataOfRemoteAreaP10QByteArrayi
    _Z20GetDriverReturnValuei _Z17SwitchErrorReturni _Z19SaveToLocalDataEreaP10QByteArray
    _Z17ExtendFindSameVariii _Z20GetBit_unsigned_charR10QByteArrayPhii
    _Z21GetBit_unsigned_shortR10QByteArrayPtii _Z21GetWord_unsigned_charR10QByteArrayPhii
    _Z13Get8BitFromUCR10QByteArrayPhii _Z22GetWord_unsigned_shortR10QByteArrayPtii
    _Z14Get32BitFromUcR10QByteArrayPhii _Z20SetBit_unsigned_chariPhP10QByteArrayi
    _Z22SetValue_unsigned_chariPhP10QByteArrayi _Z11Set8BitToUCiPhP10QByteArrayi
    _Z23SetValue_unsigned_shortiPtP10QByteArrayi _Z12Set32BitToUCiPhP10QByteArrayi
    _Z22SaveWord_unsigned_charP10QByteArrayPh _Z21SaveBit_unsigned_charP10QByteArrayPh
    _Z23SaveWord_unsigned_shortP10QByteArrayPt _Z16WriteDataToLocalP6RW_VAR)";

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
    void initTestCase()
    {
        // Only here is the library in the state that loading leaves it in.
        QVERIFY(isFresh(PLC_driver));
        QVERIFY(map_list.isEmpty());
        QVERIFY(LB == nullptr && LW == nullptr && RWI == nullptr);
    }

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
        const QString names = QString(ExportedNames) + MangledNames;
        for (const QString& name : names.simplified().split(' '))
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
        QCOMPARE(members.first(), static_cast<const void*>(&d));
        for (int i = 1; i < members.size(); ++i)
            QVERIFY2(std::less<const void*>()(members[i - 1], members[i]), QByteArray::number(i));
    }

    void finishedRequestIsCopiedWithoutItsValue()
    {
        RW_VAR from = filledRequest(12, 100, 3, 4, "data");
        RW_VAR to;
        to.value = "older data";
        passRetValue(from, to);
        QCOMPARE(from.value, QByteArray("data"));
        from.value.clear();
        QVERIFY(sameRequest(from, to));
    }

    void settingsRecordIsTakenOver()
    {
        int words[19];
        for (int i = 0; i < 19; ++i)
            words[i] = i;
        COM_INFO own;
        std::memcpy(&own, words, sizeof own);
        const QVector<int> named = {own.block_length_limit,
                                    own.default_station,
                                    own.retry_limit,
                                    own.retry_count,
                                    own.per_variable_stations,
                                    own.link_down,
                                    own.frame_count,
                                    own.frame_index,
                                    own.remote_access,
                                    own.link_id,
                                    own.communication_mode,
                                    own.cycle_complete,
                                    own.host_handle};
        QCOMPARE(named, (QVector<int>{4, 6, 7, 8, 9, 10, 11, 12, 14, 15, 16, 17, 18}));
        SetComInfo(&own);
        QVERIFY(PLC_driver.com_info == &own);
        words[10] = 1;
        words[13] = 0;
        QVERIFY(std::memcmp(&own, words, sizeof own) == 0);
    }

    void callbackAndLocalRegistersAreStored()
    {
        RegistCallBackFuncIntf(nullptr, 1);
        RegistCallBackFuncIntf(recordCallback, -7);
        QVERIFY(PLC_driver.call_back == recordCallback);
        QCOMPARE(PLC_driver.call_back_arg, -7);
        int bits = 0;
        int third = 0;
        FlashLocalRegister(&bits, localWords.data(), &third);
        QVERIFY(LB == &bits && LW == localWords.constData() && RWI == &third);
        FlashLocalRegister(nullptr, nullptr, nullptr);
        QVERIFY(LB == nullptr && LW == nullptr && RWI == nullptr);
    }

    void stationsAreMarked()
    {
        const struct {
            const char* label;
            QVector<QPair<int, int>> calls;
            QList<int> disabled;
        } rows[] = {
            {"disable", {{3, 0}, {1, 0}, {3, 0}, {0, 0}}, {0, 1, 3}},
            {"enable one", {{3, 0}, {1, 0}, {3, 1}}, {1}},
            {"enable unknown", {{3, 0}, {4, 1}}, {3}},
            {"other flags", {{3, 0}, {3, 2}, {4, 2}, {3, -1}}, {3}},
            {"negative enables all", {{3, 0}, {0, 0}, {-1, 0}}, {}},
            {"whatever the flag", {{3, 0}, {-5, 2}}, {}},
        };
        for (const auto& row : rows) {
            reset();
            for (const auto& call : row.calls)
                EnableEthernet(call.first, call.second);
            const QMap<int, int>& marks = PLC_driver.disabled_stations;
            QVERIFY2(marks.keys() == row.disabled, got(row.label, marks.keys()));
            QCOMPARE(marks.keys(0), row.disabled);
            QCOMPARE(QueryFinishFlag(), 1);
        }
    }

    void outcomesBecomeHostCodes()
    {
        // Only the request whose reply is awaited decides, not what stands behind it.
        PLC_driver.protocol_list << Protocol() << Protocol();
        PLC_driver.protocol_list[1].var.host_key = 3;
        int& hostKey = PLC_driver.protocol_list[0].var.host_key;
        const QPair<int, int> keyOffsets[] = {{0, 0},  {1, 1},  {5, 5},       {11, 11},
                                              {12, 0}, {-1, 0}, {INT_MIN, 0}, {INT_MAX, 0}};
        const QPair<int, int> failures[] = {{1, 11},  {2, 41},  {3, 71},
                                            {5, 111}, {6, 141}, {7, 171}};
        const QPair<int, int> others[] = {{0, 1}, {4, 100}, {8, 200}, {-1, 200}};
        for (const auto& key : keyOffsets) {
            hostKey = key.first;
            for (const auto& failure : failures)
                QCOMPARE(GetDriverReturnValue(failure.first), failure.second + key.second);
            for (const auto& other : others)
                QCOMPARE(GetDriverReturnValue(other.first), other.second);
        }
    }
};

QTEST_GUILESS_MAIN(DriverCoreTest)
#include "driver_core_test.moc"
