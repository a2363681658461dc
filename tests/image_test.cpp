#include "image/Func_DealData.h"
#include "image/Func_GetOrSetData.h"
#include "tests/driver_fixture.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QtTest>

#include <climits>

namespace
{

using namespace ImageArea;

// Bytes are written in hex.

// V memory: 11 22 33 44 55 from byte 0, 08 in byte 10, A1 B2 C3 D4 in the last four bytes.
const struct GetRow {
    const char* label;
    void (*get)(QByteArray&, unsigned char*, int, int);
    int start, count;
    const char *out, *before = "";
} GetRows[] = {
    {"words keep the tail", GetWord_unsigned_char, 0, 2, "22114433EE", "EEEEEEEEEE"},
    {"negative words", GetWord_unsigned_char, 0, -1, "EE", "EE"},
    {"last word", GetWord_unsigned_char, 10238, 2, "D4C3"},
    {"word across the end", GetWord_unsigned_char, 10239, 1, ""},
    {"word across the start", GetWord_unsigned_char, -1, 2, "EEEE3322", "EEEEEEEE"},
    {"word far off", GetWord_unsigned_char, INT_MAX, 2, ""},
    {"bytes", Get8BitFromUC, 0, 3, "110022003300", "EEEEEEEE"},
    {"bytes from too far below", Get8BitFromUC, -10241, 20000, ""},
    {"bytes far off", Get8BitFromUC, INT_MAX, INT_MAX, ""},
    // The low-order word here, the high-order word when setting: docs/oddities.md.
    {"double, 1", Get32BitFromUc, 0, 1, "4433"},
    {"double, negative", Get32BitFromUc, 0, INT_MIN, "4433EE", "EEEEEE"},
    {"double, 5", Get32BitFromUc, 0, 5, "4433221100000055"},
    {"double across the end", Get32BitFromUc, 10237, 2, ""},
    {"bits across a byte", GetBit_unsigned_char, 7, 3, "000001"}, // 0x11, then 0x22
    {"last bit", GetBit_unsigned_char, 81919, 3, "01"},
    {"bits from below", GetBit_unsigned_char, -9, 10, "00000000000000000001"},
};

const struct SetRow {
    const char* label;
    void (*set)(int, unsigned char*, QByteArray*, int);
    int start, count, offset;
    const char *in, *stored; // everything else keeps its EE
} SetRows[] = {
    {"half a word missing", SetValue_unsigned_char, 4, 2, 4, "341256", "1234EE"},
    {"word across the end", SetValue_unsigned_char, 10239, 1, 0, "3412", ""},
    {"word across the start", SetValue_unsigned_char, -1, 2, 1, "34127856", "5678"},
    {"absurd word count", SetValue_unsigned_char, 4, INT_MAX, 4, "3412", "1234"},
    {"words far off", SetValue_unsigned_char, INT_MAX, 2, 0, "34127856", ""},
    {"bytes missing", Set8BitToUC, 4, INT_MAX, 4, "0102", "0102EE"},
    {"last byte", Set8BitToUC, 10239, 2, 10239, "0102", "01"},
    {"byte below", Set8BitToUC, -1, 2, 0, "0102", "02EE"},
    {"double, 1", Set32BitToUC, 4, 1, 4, "AABB", "BBAAEEEE"},
    {"double, negative", Set32BitToUC, 4, INT_MIN, 4, "AABBCCDD", "BBAAEE"},
    {"double missing a byte", Set32BitToUC, 4, 4, 4, "AABBCCDD112233", "DDCCBBAAEE"},
    {"double across the end", Set32BitToUC, 10237, 2, 0, "AABBCCDD", ""},
    {"high word across the end", Set32BitToUC, 10239, 1, 0, "AABB", ""},
    {"only 1 sets", SetBit_unsigned_char, 33, 3, 4, "02FF01", "E8EE"},
    {"bits across a byte", SetBit_unsigned_char, 39, 2, 4, "0001", "6EEF"},
    {"fewer bits than counted", SetBit_unsigned_char, 33, INT_MAX, 4, "00", "ECEE"},
    {"last bit", SetBit_unsigned_char, 81919, 2, 10239, "0000", "6E"},
    {"bits from below", SetBit_unsigned_char, -1, 2, 0, "0101", "EF"},
};

const char* const Timers = "02 0000 012C 00 0000 000A";

const struct ReplyRow {
    const char* label;
    int regType, address, length, area, offset;
    const char *payload, *stored; // everything else keeps its EE
} ReplyRows[] = {
    {"I bits, a bit address", 0, 83, 4, I, 10, "01020304", "01020304"},
    {"V bits, taken as a byte address", 5, 10, 4, V, 10, "01020304", "01020304"},
    {"VB", 11, 100, 3, V, 100, "01020304", "010203EE"},
    {"less than nothing", 11, 100, INT_MIN, V, 0, "01020304", ""},
    {"bytes across the end", 11, 10238, 4, V, 10238, "01020304", "0102"},
    {"bytes across the start", 11, -1, 4, V, 0, "01020304", "020304EE"},
    {"last byte at a bit", 2, 32767, 2, M, 4095, "01020304", "01"},
    {"bit below, towards zero", 2, -7, 2, M, 0, "01020304", "0102EE"},
    {"bit far below", 2, -16, 4, M, 0, "01020304", "0304EE"},
    {"AIW at the end", 16, 62, 4, AIW, 62, "01020304", "0102"},
    {"type 25", 25, 10, 4, I, 10, "01020304", ""},
    {"TV", 14, 5, 10, TV, 10, Timers, "2C010A00EE"},
    {"TV, a byte short", 14, 5, 10, TV, 10, "02 0000 012C 00 0000 00", "2C01EE"},
    {"TV, at the end", 14, 255, 10, TV, 510, Timers, "2C01"},
    {"TV, absurd", 14, 5, 2000000000, TV, 10, Timers, "2C010A00EE"},
    {"TV, from below", 14, -1, 10, TV, 0, Timers, "0A00EE"},
    {"CV", 15, 5, 6, CV, 10, "10 012C 00 000A", "2C010A00EE"},
    // Timer and counter bits are only ever set: EE keeps the bits that a reply would clear.
    {"T", 18, 0, 10, T, 0, "02 0000 0000 00 0000 0000", "EFEE"},
    {"T, other status", 18, 3, 10, T, 0, "01 0000 0000 03 0000 0000", ""},
    {"T, last", 18, 4, 5, T, 0, "02 0000 0000", "FE"},
    {"T, beyond the end", 18, 256, 5, T, 0, "02 0000 0000", ""},
    {"C", 19, 248, 6, C, 31, "10 0000 00 0000", "EF"},
};

const struct ExtendReplyRow {
    const char* label;
    int regType, address, length;
    const char *payload, *after, *before = "";
} ExtendReplyRows[] = {
    // The entry visited last is stretched to the length of the whole payload; kept as it is.
    {"MW", 8, 10, 2, "0102", "3/8/10=01 3/8/11=0200"},
    {"updated in place", 8, 10, 2, "0102", "3/8/11=0200 4/8/10=AA 3/8/10=01",
     "3/8/11=BBBB 4/8/10=AA 3/8/10=CCCC"},
    {"bit address not divided", 2, 83, 1, "07", "3/8/83=07"},
    {"SMD", 24, 10, 1, "07", "3/10/10=07"},
    {"TV", 14, 5, 10, Timers, "3/14/5=2C01 3/14/6=0A000000"},
    {"CV", 15, 5, 6, "10 012C 00 000A", "3/15/5=2C01 3/15/6=0A000000"},
    {"T keeps any status", 18, 5, 10, "01 0000 0000 FF 0000 0000", "3/18/5=01 3/18/6=FF00"},
    {"a byte short", 8, 10, 2, "01", "3/8/10=01 3/8/11=0000", "3/8/10=AA 3/8/11=BB"},
    {"TV a byte short", 14, 5, 5, "02 0000 01", "3/14/5=0000", "3/14/5=2C01"},
    // Without a visit the first entry of the list is the one that is resized.
    {"nothing", 8, 10, 0, "", "4/8/1= 4/8/2=BB", "4/8/1=AA 4/8/2=BB"},
    {"no timer", 14, 5, 4, "02000001", "4/8/1= 4/8/2=BB", "4/8/1=AA 4/8/2=BB"},
    {"less than nothing", 8, 10, -5, "", "4/8/1=", "4/8/1=AA"},
};

} // namespace

class ImageTest : public QObject, private DriverFixture
{
    Q_OBJECT

private slots:
    void init()
    {
        reset();
    }

    void getAccessors()
    {
        poke(V, 0, fromHex("1122334455"));
        poke(V, 10, fromHex("08"));
        poke(V, 10236, fromHex("A1B2C3D4"));
        const QByteArray before = image();
        for (const GetRow& row : GetRows) {
            QByteArray out = fromHex(row.before);
            row.get(out, PLC_driver.V_area, row.start, row.count);
            QVERIFY2(out == fromHex(row.out), got(row.label, out));
        }
        QCOMPARE(image(), before);
    }

    // HOLDS(13)
    void setAccessors()
    {
        for (const SetRow& row : SetRows) {
            writeImage(imageWith('\xEE'));
            QByteArray in = fromHex(row.in);
            row.set(row.start, PLC_driver.V_area, &in, row.count);
            QVERIFY2(imageIs('\xEE', V, row.offset, row.stored), row.label);
        }
    }

    void accessorsOf16BitValues()
    {
        unsigned short* const values = PLC_driver.TV_area;
        QByteArray in = fromHex("2C01341256");
        SetValue_unsigned_short(5, values, &in, 3);
        SetValue_unsigned_short(-1, values, &in, INT_MAX);
        QByteArray reply = fromHex("FFFF 0102 0304 0506 07");
        awaitReply(14, 254, 7);
        SaveWord_unsigned_short(&reply, values); // two bytes are no payload, two values fit
        QByteArray expected = imageWith('\0', TV, 508, "02010403");
        expected.replace(areaOffset(TV), 2, fromHex("3412"));
        QVERIFY(image() == expected.replace(areaOffset(TV) + 10, 4, fromHex("2C013412")));

        const struct {
            void (*get)(QByteArray&, unsigned short*, int, int);
            int start, count;
            const char* out;
        } rows[] = {
            {GetWord_unsigned_short, 5, 2, "2C013412EEEE"},
            {GetWord_unsigned_short, 255, 2, "0403EEEEEEEE"},
            {GetWord_unsigned_short, -1, 2, "EEEE3412EEEE"},
            {GetBit_unsigned_short, -2, 5, "0000000001EE"},
            {GetBit_unsigned_short, 4095, 2, "00EEEEEEEEEE"},
        };
        for (const auto& row : rows) {
            QByteArray out(6, '\xEE');
            row.get(out, values, row.start, row.count);
            QVERIFY2(out == fromHex(row.out), got(QString::number(row.start), out));
        }
    }

    // HOLDS(4)
    void repliesReachTheirAreas()
    {
        for (const ReplyRow& row : ReplyRows) {
            writeImage(imageWith('\xEE'));
            awaitReply(row.regType, row.address, row.length);
            storeReply(fromHex(row.payload));
            QVERIFY2(imageIs('\xEE', row.area, row.offset, row.stored), row.label);
        }
        QVERIFY(PLC_driver.extend_list.isEmpty());
    }

    // HOLDS(18)
    void elementsOfStationsAreFoundOrMade()
    {
        const int keys[][4] = {
            {3, 12, 5, 0}, {4, 12, 5, 1}, {3, 8, 5, 2}, {3, 12, 6, 3}, {3, 12, 5, 0}};
        for (const auto& key : keys)
            QCOMPARE(ExtendFindSameVar(key[0], key[1], key[2]), key[3]);
        QCOMPARE(extendList(),
                 QString("3/12/5=00000000 4/12/5=00000000 3/8/5=00000000 3/12/6=00000000"));
        extendBy("3/12/5=FF");
        QCOMPARE(ExtendFindSameVar(3, 12, 5), 0);
        // A key that a host changes in place is found at once at the list's end, else only after a
        // look for what it was before.
        PLC_driver.extend_list.last().address = 70;
        QCOMPARE(ExtendFindSameVar(3, 12, 70), 4);
        PLC_driver.extend_list[2].address = 80;
        QCOMPARE(ExtendFindSameVar(3, 8, 80), 5);
        QCOMPARE(ExtendFindSameVar(3, 8, 5), 6);
        QCOMPARE(ExtendFindSameVar(3, 8, 80), 2);
    }

    void lastTimerBitOfAStationShowsItsStatus()
    {
        info.per_variable_stations = 1;
        awaitReply(18, 0, 15);
        storeReply(fromHex("02 0000 0005 02 0000 0006 02 0000 0007"));
        QByteArray bits, last;
        GetRegisterData("T", 18, "0", 3, bits, 3);
        GetRegisterData("T", 18, "2", 3, last, 1);
        QCOMPARE(bits.toHex() + ' ' + last.toHex(), QByteArray("000000000200 0200"));
    }

    void repliesReachTheExtendList()
    {
        for (const ExtendReplyRow& row : ExtendReplyRows) {
            reset();
            info.per_variable_stations = 1;
            extendBy(row.before);
            awaitReply(row.regType, row.address, row.length);
            storeReply(fromHex(row.payload));
            const QString list = extendList();
            QVERIFY2(list == row.after, got(row.label, list));
            QCOMPARE(PLC_driver.protocol_list.first().var.reg_type, row.regType);
            QVERIFY2(imageIs('\0'), row.label);
        }
    }
};

QTEST_GUILESS_MAIN(ImageTest)
#include "image_test.moc"
