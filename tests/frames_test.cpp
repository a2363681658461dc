// The bytes that the driver puts on the wire, and what it records of each frame.

#include "protocol/Func_HandShake.h"
#include "protocol/Func_Read.h"
#include "protocol/Func_Remote.h"
#include "protocol/Func_Write.h"
#include "tests/driver_fixture.h"

#include <QtTest>

#include <limits>
#include <tuple>

namespace
{

constexpr int Max = std::numeric_limits<int>::max();
constexpr int Min = std::numeric_limits<int>::min();
/// Station of all requests here; its reference shows that both bytes travel, high byte first.
constexpr int Station = 2;
constexpr unsigned short PduRef = 0x0102;

RW_VAR var(int regType, int address, int count, const QByteArray& value = "",
           const char* name = "n")
{
    RW_VAR made = filledRequest(regType, address, count, Station, QByteArray::fromHex(value));
    made.name = name;
    return made;
}

/// The fields of a record that tell what its reply must be.
QString expectation(const Protocol& record)
{
    return QString("%1 %2 %3").arg(record.reply_len).arg(record.data_offset).arg(record.data_len);
}

/// That of a read's reply with so many data bytes.
QString dataReply(int bytes, int trailer = 0)
{
    return QString("%1 25 %2").arg(25 + bytes + trailer).arg(bytes);
}

} // namespace

class FramesTest : public QObject
{
    Q_OBJECT

    DriverFixture fixture;

    void expectBatch(int records, int count, int index)
    {
        QCOMPARE(int(PLC_driver.protocol_list.size()), records);
        QCOMPARE(fixture.info.frame_count, count);
        QCOMPARE(fixture.info.frame_index, index);
    }

    /// Checks one record: its frame, given as hex text, its expectation() and its request.
    void expectRecord(int index, const QByteArray& frame, const QString& expected,
                      const RW_VAR& request)
    {
        const QString label = QString("type %1 address %2 count %3: ")
                                  .arg(request.reg_type)
                                  .arg(request.address)
                                  .arg(request.count);
        const Protocol record = PLC_driver.protocol_list.value(index);
        QCOMPARE(label + toHex(record.frame), label + toHex(QByteArray::fromHex(frame)));
        QCOMPARE(label + expectation(record), label + expected);
        QCOMPARE(record.frame_len, int(record.frame.size()));
        QVERIFY2(sameRequest(record.var, request), qPrintable(label));
    }

    /// Checks the one record that a builder makes of a request.
    void expectJob(void (*build)(RW_VAR*), const RW_VAR& sent, const QByteArray& frame,
                   const QString& expected)
    {
        init();
        PLC_driver.T_bits[5] = 1;
        PLC_driver.T_bits[6] = 3;
        PLC_driver.C_bits[8] = PLC_driver.C_bits[31] = 1;
        RW_VAR request = sent;
        build(&request);
        expectBatch(1, 1, 0);
        expectRecord(0, frame, expected, sent);
        QCOMPARE(map_list.value(Station).pdu_ref, PduRef);
    }

private slots:
    void init()
    {
        fixture.reset();
        fixture.connectStation(Station, PduRef);
        fixture.info.frame_count = 9;
        fixture.info.frame_index = 7;
    }

    void handshake()
    {
        const struct {
            quint16 called, calling;
            const char* tsaps;
        } rows[] = {{0, 0, "C1021000 C2021100"},
                    {0x0201, 0x0102, "C1020102 C2020201"},
                    // One missing TSAP resets both.
                    {0x0201, 0, "C1021000 C2021100"},
                    {0, 0x0102, "C1021000 C2021100"}};
        for (const auto& row : rows) {
            init();
            quint16 &called = fixture.localWords[55000], &calling = fixture.localWords[55001];
            called = row.called;
            calling = row.calling;
            RW_VAR request = var(12, 100, 4, "AB");
            SIEMENS_HandShake(&request);
            expectBatch(2, 2, 0);
            expectRecord(0, QByteArray("03000016 11E000000001 00 C00109") + row.tsaps, "22 0 0",
                         request);
            // The setup job's reference is fixed, whatever the station's is.
            expectRecord(1, "03000019 02F080 32 01 0000 0108 0008 0000 F0 00 0001 0001 00F0",
                         "27 0 0", request);
            const bool given = row.called != 0 && row.calling != 0;
            QCOMPARE(called, given ? row.called : quint16(0x1100));
            QCOMPARE(calling, given ? row.calling : quint16(0x1000));
            SIEMENS_HandShake(&request);
            expectBatch(4, 2, 0);
        }
    }

    void read()
    {
        // clang-format off
        const struct {
            int type, address, count;
            const char* item; // transport size, length, DB number, area, address
            int dataLen; // -1: layout of the reply unset
            const char* name = "n";
            void (*build)(RW_VAR*) = ReadRegister;
        } rows[] = {
            {0, 83, 2, "02 0002 0000 81 000050", 2}, {1, 83, 2, "02 0002 0000 82 000050", 2},
            {2, 83, 2, "02 0002 0000 83 000050", 2}, {3, 83, 2, "02 0002 0000 04 000050", 2},
            {4, 83, 2, "02 0002 0000 05 000050", 2},
            {5, 83, 2, "02 0002 0001 84 000298", 2}, // V bits by byte address
            {6, 100, 4, "02 0004 0000 81 000320", 4}, {7, 100, 4, "02 0004 0000 82 000320", 4},
            {8, 100, 4, "02 0004 0000 83 000320", 4}, {9, 100, 4, "02 0004 0000 04 000320", 4},
            {10, 100, 4, "02 0004 0000 05 000320", 4}, {11, 100, 3, "02 0003 0001 84 000320", 3},
            {12, 100, 4, "02 0004 0001 84 000320", 4}, {13, 10239, 4, "02 0004 0001 84 013FF8", 4},
            {14, 37, 2, "1F 0002 0000 1F 000025", 10, "TV"},
            {15, 37, 2, "1E 0002 0000 1E 000025", 6, "CV"},
            {16, 2, 3, "04 0003 0000 06 000010", 6}, {17, 2, 3, "04 0003 0000 07 000010", 6},
            {18, 255, 1, "1F 0001 0000 1F 0000FF", 5, "T"},
            {19, 300, 1, "1E 0001 0000 1E 00012C", 3, "C"},
            {20, 4, 4, "02 0004 0000 81 000020", 4}, {21, 4, 4, "02 0004 0000 82 000020", 4},
            {22, 4, 4, "02 0004 0000 83 000020", 4}, {23, 4, 4, "02 0004 0000 04 000020", 4},
            {24, 4, 4, "02 0004 0000 05 000020", 4},
            // The area follows the type and the reply's size the name: docs/oddities.md.
            {14, 37, 2, "1F 0002 0000 1F 000025", 6, "CV"},
            {15, 37, 2, "1E 0002 0000 1E 000025", 10, "T"},
            {14, 5, 2, "1F 0002 0000 1F 000005", -1, "tv"},
            {-1, 10, 3, "02 0006 0001 84 000050", 6, "n", ReadRegister_VB},
            // Bit addresses are rounded towards 0 to whole bytes.
            {2, 7, 1, "02 0001 0000 83 000000", 1}, {2, 8, 1, "02 0001 0000 83 000008", 1},
            {2, -3, 1, "02 0001 0000 83 000000", 1}, {2, -9, 1, "02 0001 0000 83 FFFFF8", 1},
            {2, Min, 1, "02 0001 0000 83 000000", 1}, {12, Max, 1, "02 0001 0001 84 FFFFF8", 1},
            {12, 0, 0, "02 0000 0001 84 000000", 0},
            {2, 0, 65541, "02 0005 0000 83 000000", 65541},
            {17, 0, 65541, "04 0005 0000 07 000000", 131082},
        };
        // clang-format on
        const QByteArray header =
            "03 00 00 1F 02 F0 80 32 01 00 00 01 02 00 0E 00 00 04 01 12 0A 10";
        for (const auto& row : rows)
            expectJob(row.build, var(row.type, row.address, row.count, "AB", row.name),
                      header + row.item, row.dataLen < 0 ? "0 0 0" : dataReply(row.dataLen));
    }

    void write()
    {
        // clang-format off
        const struct {
            int type, address, count;
            const char* value;
            int declared; // data bytes
            const char* tail; // from byte 22 on: item, data header, data
            void (*build)(RW_VAR*) = WriteRegister;
        } rows[] = {
            {1, 83, 1, "01", 1, "01 0001 0000 82 000053 00 03 0001 01"},
            {2, 83, 1, "01", 1, "01 0001 0000 83 000053 00 03 0001 01"},
            {3, 83, 1, "01", 1, "01 0001 0000 04 000053 00 03 0001 01"},
            {4, 8, 1, "01", 1, "01 0001 0000 05 000008 00 03 0001 01"},
            {5, 8, 1, "01", 1, "01 0001 0001 84 000008 00 03 0001 01"},
            {2, 0, 1, "", 1, "01 0001 0000 83 000000 00 03 0001 00"},
            {2, 0, 0, "01", 0, "00 0000 0000 83 000000 00 04 0000"},
            // Blocks of bits: one byte a bit, a length in bytes that is not turned into bits, and a
            // frame longer than it says. Deliberate: docs/oddities.md.
            {2, 83, 10, "01000201010000010101", 1,
             "02 0001 0000 83 000053 00 04 0001 01000001010000010000"},
            {5, 0, 16, "01 01", 2,
             "02 0002 0001 84 000000 00 04 0002 01010000000000000000000000000000"},
            {7, 100, 1, "34 12", 2, "04 0001 0000 82 000320 00 04 0010 1234"},
            {8, 4, 1, "34 12", 2, "04 0001 0000 83 000020 00 04 0010 1234"},
            {9, 4, 1, "34 12", 2, "04 0001 0000 04 000020 00 04 0010 1234"},
            {10, 4, 1, "34 12", 2, "04 0001 0000 05 000020 00 04 0010 1234"},
            {12, 4, 2, "34 12 78 56", 4, "04 0002 0001 84 000020 00 04 0020 12345678"},
            {12, 4, 2, "34 12 78", 4, "04 0002 0001 84 000020 00 04 0020 12340078"},
            {17, 4, 1, "34 12", 2, "04 0001 0000 07 000020 00 04 0010 1234"},
            // A V byte write covers twice the bytes it fills. Deliberate: docs/oddities.md.
            {11, 7, 3, "01 02 03 04 05 06", 6, "04 0003 0001 84 000038 00 04 0030 010203000000"},
            {11, 7, 3, "01", 6, "04 0003 0001 84 000038 00 04 0030 010000000000"},
            {13, 4, 2, "44 33 22 11", 4, "04 0002 0001 84 000020 00 04 0020 11223344"},
            {21, 4, 2, "44 33 22 11", 4, "04 0002 0000 82 000020 00 04 0020 11223344"},
            {22, 4, 4, "4433221188776655", 8, "04 0004 0000 83 000020 00 04 0040 1122334455667788"},
            {23, 4, 2, "44 33 22 11", 4, "04 0002 0000 04 000020 00 04 0020 11223344"},
            // SM double words go to area 0x85, unlike SM bits and words: docs/oddities.md.
            {24, 4, 2, "44 33 22 11", 4, "04 0002 0000 85 000020 00 04 0020 11223344"},
            // An odd number of words ends with a high half; a group not all there is left out.
            {13, 4, 1, "44 33 22 11", 2, "04 0001 0001 84 000020 00 04 0010 1122"},
            {13, 4, 2, "44 33 22", 4, "04 0002 0001 84 000020 00 04 0020 00223344"},
            {13, 4, 3, "4433221188776655", 6, "04 0003 0001 84 000020 00 04 0030 112233445566"},
            {13, 4, 4, "443322118877", 8, "04 0004 0001 84 000020 00 04 0040 1122334400000000"},
            {14, 4, 2, "2C 01 05", 10, "1F 0002 0000 1F 000004 00 04 0050 000000012C0000000000"},
            // The status byte tells whether the byte (not the bit) at the timer's number is 1; it
            // is the same for all elements. From number 32 on the counter bits are asked, which end
            // at 63. Deliberate: docs/oddities.md.
            {14, 5, 2, "2C 01 2D 01", 10, "1F 0002 0000 1F 000005 00 04 0050 020000012C020000012D"},
            {14, 6, 1, "2C 01", 5, "1F 0001 0000 1F 000006 00 04 0028 000000012C"},
            {14, 63, 1, "2C 01", 5, "1F 0001 0000 1F 00003F 00 04 0028 020000012C"},
            {15, 3, 2, "05 00 01", 6, "1E 0002 0000 1E 000003 00 04 0030 000005000000"},
            // Counters take their status from the timer bits; counter byte 8 is 1 here and is not
            // asked.
            {15, 5, 2, "05 00 06 00", 6, "1E 0002 0000 1E 000005 00 04 0030 020005020006"},
            {15, 8, 1, "05 00", 3, "1E 0001 0000 1E 000008 00 04 0018 000005"},
            {14, -1, 1, "2C 01", 5, "1F 0001 0000 1F FFFFFF 00 04 0028 000000012C"},
            // WriteRegister sends no analogue inputs, but they have an area; a type without a row
            // of its own leaves DB number and area unwritten.
            {16, 2, 1, "34 12", 2, "04 0001 0000 06 000010 00 04 0010 1234", WriteAnalog},
            {13, 2, 1, "34 12", 2, "04 0001 0000 00 000010 00 04 0010 1234", WriteAnalog},
        };
        // clang-format on
        for (const auto& row : rows)
            expectJob(row.build, var(row.type, row.address, row.count, row.value),
                      "03 00" + word16(35 + row.declared).toHex() +
                          "02 F0 80 32 01 00 00 01 02 00 0E" + word16(4 + row.declared).toHex() +
                          "05 01 12 0A 10" + row.tail,
                      "22 0 0");
    }

    void writeReachesTheImage()
    {
        // Inputs cannot be written to the controller but still show what was entered.
        for (int type : {12, 6, 0, 16, 18, 19, 20})
            for (int linkFailed : {0, 1}) {
                init();
                PLC_driver.link_failed = static_cast<unsigned char>(linkFailed);
                RW_VAR request = var(type, 4, 1, "34 12");
                WriteRegister(&request);
                QCOMPARE(int(PLC_driver.protocol_list.size()), type == 12 ? 1 : 0);
                if (type == 12 || type == 6) {
                    const unsigned char* area = type == 12 ? PLC_driver.V_area : PLC_driver.I_area;
                    QCOMPARE(area[4] * 256 + area[5], linkFailed ? 0 : 0x1234);
                }
            }
    }

    void remoteRead()
    {
        // A forwarding peer answers with twice a folded type's byte count and two bytes more than
        // an S7 reply has.
        const int perCount[] = {1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2,
                                2, 5, 3, 2, 2, 5, 3, 2, 2, 2, 2, 2};
        for (int type = -1; type <= 25; ++type) {
            init();
            RW_VAR request = var(type, 0, 3, "AB", "C");
            Remote_ReadVar(&request);
            expectBatch(1, 1, 0);
            const bool known = type >= 0 && type < 25;
            QCOMPARE(expectation(PLC_driver.protocol_list.first()),
                     known ? dataReply(3 * perCount[type], 2) : QString("0 0 0"));
        }
    }

    void remoteFrames()
    {
        // clang-format off
        const struct {
            int station, address, count, reserved;
            QByteArray value;
            const char *fields, *readSum, *writeLength, *writeSum;
        } rows[] = {
            {1, 100, 2, 0, "34 12", "03 01 00 0C 00 00 00 64 00 02 00 00 00 00 00 00 00 00",
             "93", "18", "DC"},
            {257, 100, 1, 0, "34 12", "03 01 00 0C 00 00 00 64 00 01 00 00 00 00 00 00 00 00",
             "92", "18", "DB"},
            {0, -2, 65541, 0x01020304, "", "03 00 00 0C FF FF FF FE 00 05 01 02 03 04 01 02 03 05",
             "41", "16", "42"},
            // The length byte wraps at 256; the checksum still covers the whole record.
            {1, 100, 1, 0, QByteArray("01").repeated(300),
             "03 01 00 0C 00 00 00 64 00 01 00 00 00 00 00 00 00 00", "92", "42", "EB"}};
        // clang-format on
        for (const auto& row : rows) {
            init();
            const QByteArray value = QByteArray::fromHex(row.value);
            RW_VAR request = DriverFixture::makeVar(12, row.address, row.count, row.station, value);
            request.host_key = 0x0107;
            request.link_id = 0x0203;
            request.reserved1 = row.reserved;
            request.reserved2 = row.reserved + (row.reserved != 0 ? 1 : 0);
            Remote_ReadVar(&request);
            expectBatch(1, 1, 0);
            expectRecord(0, QByteArray("16 07 00") + row.fields + row.readSum,
                         dataReply(2 * row.count, 2), request);
            request.origin = 1;
            // The batch words stay the previous builder's, by which the remote reply path tells
            // what to store. And the image takes the value even while the link is down.
            fixture.info.frame_count = 9;
            fixture.info.frame_index = 7;
            PLC_driver.link_failed = 1;
            Remote_WriteVar(&request);
            expectBatch(2, 9, 7);
            expectRecord(
                1, QByteArray(row.writeLength) + "07 01" + row.fields + row.value + row.writeSum,
                "24 0 0", request);
            if (value.size() == 2)
                QCOMPARE(PLC_driver.V_area[100] * 256 + PLC_driver.V_area[101], 0x1234);
        }
    }

    // HOLDS(10, 13, 17)
    void absurdCounts()
    {
        for (int type : {25, -1, Min, Max}) {
            RW_VAR unknown = var(type, 0, 1, "01 02", "TV");
            ReadRegister(&unknown);
            WriteRegister(&unknown);
            expectBatch(0, 9, 7);
        }
        for (int type = -1; type <= 25; ++type)
            for (int count : {Min, -2000000000, -36, -3, -1, 70000, 2000000000, Max})
                for (int address : {0, -1, Max, Min}) {
                    RW_VAR request = var(type, address, count, "01 02 03 04 05", "TV");
                    for (auto build : {ReadRegister, Remote_ReadVar, ReadRegister_VB, WriteRegister,
                                       Remote_WriteVar})
                        build(&request);
                    for (const Protocol& pending : PLC_driver.protocol_list) {
                        QVERIFY(pending.frame.size() <= 35 + 5 * 65535);
                        QCOMPARE(pending.frame_len, int(pending.frame.size()));
                    }
                    PLC_driver.protocol_list.clear();
                }
    }
};

QTEST_GUILESS_MAIN(FramesTest)
#include "frames_test.moc"
