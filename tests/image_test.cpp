#include "image/Func_DealData.h"
#include "image/Func_GetOrSetData.h"
#include "tests/driver_fixture.h"

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
    {"word far below", GetWord_unsigned_char, INT_MIN, 2, ""},
    {"bytes", Get8BitFromUC, 0, 3, "110022003300", "EEEEEEEE"},
    {"last bytes", Get8BitFromUC, 10238, 3, "C300D400"},
    {"bytes from too far below", Get8BitFromUC, -10241, 20000, ""},
    {"bytes far off", Get8BitFromUC, INT_MAX, INT_MAX, ""},
    // The low-order word here, the high-order word when setting: both are as peers know them.
    {"double, 1", Get32BitFromUc, 0, 1, "4433"},
    {"double, negative", Get32BitFromUc, 0, INT_MIN, "4433EE", "EEEEEE"},
    {"double, 2", Get32BitFromUc, 0, 2, "44332211"},
    {"double, 5", Get32BitFromUc, 0, 5, "4433221100000055"},
    {"last double", Get32BitFromUc, 10236, 4, "D4C3B2A1"},
    {"double across the end", Get32BitFromUc, 10237, 2, ""},
    {"low word across the end", Get32BitFromUc, 10237, 1, ""},
    {"bits", GetBit_unsigned_char, 83, 2, "0100"},
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
    {"last word", SetValue_unsigned_char, 10238, 2, 10238, "34127856", "1234"},
    {"word across the end", SetValue_unsigned_char, 10239, 1, 0, "3412", ""},
    {"word across the start", SetValue_unsigned_char, -1, 2, 1, "34127856", "5678"},
    {"absurd word count", SetValue_unsigned_char, 4, INT_MAX, 4, "3412", "1234"},
    {"words far off", SetValue_unsigned_char, INT_MAX, 2, 0, "34127856", ""},
    {"bytes", Set8BitToUC, 4, 3, 4, "0100020003", "010002EE"},
    {"bytes missing", Set8BitToUC, 4, INT_MAX, 4, "0102", "0102EE"},
    {"last byte", Set8BitToUC, 10239, 2, 10239, "0102", "01"},
    {"byte below", Set8BitToUC, -1, 2, 0, "0102", "02EE"},
    {"double, 1", Set32BitToUC, 4, 1, 4, "AABB", "BBAAEEEE"},
    {"double, negative", Set32BitToUC, 4, INT_MIN, 4, "AABBCCDD", "BBAAEE"},
    {"double, 1, value too short", Set32BitToUC, 4, 1, 4, "AA", "00AAEE"},
    {"double missing a byte", Set32BitToUC, 4, 4, 4, "AABBCCDD112233", "DDCCBBAAEE"},
    {"odd double", Set32BitToUC, 4, 3, 4, "AABBCCDD11223344", "DDCCBBAAEE"},
    {"last double", Set32BitToUC, 10236, 4, 10236, "AABBCCDD11223344", "DDCCBBAA"},
    {"double across the end", Set32BitToUC, 10237, 2, 0, "AABBCCDD", ""},
    {"last high word", Set32BitToUC, 10238, 1, 10238, "AABB", "BBAA"},
    {"high word across the end", Set32BitToUC, 10239, 1, 0, "AABB", ""},
    {"only 1 sets", SetBit_unsigned_char, 33, 3, 4, "02FF01", "E8EE"},
    {"bits across a byte", SetBit_unsigned_char, 39, 2, 4, "0001", "6EEF"},
    {"fewer bits than counted", SetBit_unsigned_char, 33, INT_MAX, 4, "00", "ECEE"},
    {"last bit", SetBit_unsigned_char, 81919, 2, 10239, "0000", "6E"},
    {"bits from below", SetBit_unsigned_char, -1, 2, 0, "0101", "EF"},
    {"bits far below", SetBit_unsigned_char, INT_MIN, 2, 0, "0101", ""},
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
    {"bytes far off", 11, INT_MAX, 4, V, 0, "01020304", ""},
    {"last byte at a bit", 2, 32767, 2, M, 4095, "01020304", "01"},
    {"bit below, towards zero", 2, -7, 2, M, 0, "01020304", "0102EE"},
    {"bit far below", 2, -16, 4, M, 0, "01020304", "0304EE"},
    {"VW, short reply", 12, 100, INT_MAX, V, 100, "010203", "010203EE"},
    {"AIW at the end", 16, 62, 4, AIW, 62, "01020304", "0102"},
    {"type 25", 25, 10, 4, I, 10, "01020304", ""},
    {"type -1", -1, 10, 4, I, 10, "01020304", ""},
    {"TV", 14, 5, 10, TV, 10, Timers, "2C010A00EE"},
    {"TV, rest", 14, 5, 9, TV, 10, Timers, "2C01EEEE"},
    {"TV, a byte short", 14, 5, 10, TV, 10, "02 0000 012C 00 0000 00", "2C01EE"},
    {"TV, at the end", 14, 255, 10, TV, 510, Timers, "2C01"},
    {"TV, absurd", 14, 5, 2000000000, TV, 10, Timers, "2C010A00EE"},
    {"TV, from below", 14, -1, 10, TV, 0, Timers, "0A00EE"},
    {"CV", 15, 5, 6, CV, 10, "10 012C 00 000A", "2C010A00EE"},
    // Timer and counter bits are only ever set: EE keeps the bits that a reply would clear.
    {"T", 18, 0, 10, T, 0, "02 0000 0000 00 0000 0000", "EFEE"},
    {"T, other status", 18, 3, 10, T, 0, "01 0000 0000 03 0000 0000", ""},
    {"T, last", 18, 4, 5, T, 0, "02 0000 0000", "FE"},
    {"T, a byte short", 18, 4, 5, T, 0, "02 0000 00", ""},
    {"T, beyond the end", 18, 256, 5, T, 0, "02 0000 0000", ""},
    {"C", 19, 248, 6, C, 31, "10 0000 00 0000", "EF"},
    {"C, other status", 19, 3, 9, C, 0, "01 0000 02 0000 11 0000", ""},
    {"C, too little", 19, 4, 2, C, 0, "10 0000", ""},
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
    {"unknown type", 25, 10, 1, "07", "3/25/10=07"},
    {"TV", 14, 5, 10, Timers, "3/14/5=2C01 3/14/6=0A000000"},
    {"CV", 15, 5, 6, "10 012C 00 000A", "3/15/5=2C01 3/15/6=0A000000"},
    {"T keeps any status", 18, 5, 10, "01 0000 0000 FF 0000 0000", "3/18/5=01 3/18/6=FF00"},
    {"a byte short", 8, 10, 2, "01", "3/8/10=01 3/8/11=0000", "3/8/10=AA 3/8/11=BB"},
    {"TV a byte short", 14, 5, 5, "02 0000 01", "3/14/5=0000", "3/14/5=2C01"},
    {"nothing, empty list", 8, 10, 0, "", ""},
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
        SetValue_unsigned_short(255, values, &in, 2);
        SetValue_unsigned_short(-2, values, &in, INT_MAX);
        poke(TV, 0, fromHex("0180"));
        QByteArray reply = fromHex("FFFF 0102 0304 0506 07");
        awaitReply(14, 254, 9);
        SaveWord_unsigned_short(&reply, values); // 0102 and 0304 into the last two
        awaitReply(14, 9, 8);
        SaveWord_unsigned_short(&reply, values); // the last pair lacks a byte
        QByteArray expected = imageWith('\0', TV, 508, "02010403");
        const int begin = areaOffset(TV);
        expected.replace(begin, 2, fromHex("0180"));
        expected.replace(begin + 10, 4, fromHex("2C013412"));
        expected.replace(begin + 18, 6, fromHex("020104030605"));
        QVERIFY(image() == expected);

        const struct {
            void (*get)(QByteArray&, unsigned short*, int, int);
            int start, count;
            const char *out, *before = "";
        } rows[] = {
            {GetWord_unsigned_short, 5, 2, "2C013412"},
            {GetWord_unsigned_short, 255, 2, "0403EE", "EEEEEE"},
            {GetWord_unsigned_short, -1, 2, "EEEE0180", "EEEE"},
            {GetWord_unsigned_short, 256, INT_MAX, ""},
            {GetBit_unsigned_short, 15, 2, "0100"},
            {GetBit_unsigned_short, -2, 4, "00000100"},
            {GetBit_unsigned_short, 4095, 2, "00"},
        };
        for (const auto& row : rows) {
            QByteArray out = fromHex(row.before);
            row.get(out, values, row.start, row.count);
            QVERIFY2(out == fromHex(row.out), got(QString::number(row.start), out));
        }
    }

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
