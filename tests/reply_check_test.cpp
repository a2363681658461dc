// What counts as a good reply: every byte of every kind of reply, put to the driver with its
// request outstanding. Also the checksum and digit functions beside the reply check.

#include "protocol/Func_Check.h"
#include "tests/driver_fixture.h"

#include <QHash>
#include <QtTest>

#include <algorithm>
#include <memory>
#include <tuple>

namespace
{

constexpr int Station = 2;
constexpr unsigned short PduRef = 0x0105;

/// Host codes for a request with host_key 0 whose retry limit is passed.
enum Verdict { Good = 1, BadContent = 11, TimedOut = 41, WrongLength = 71, BadHandshake = 201 };

/// The requests whose replies are judged here.
enum Request { Confirm, Setup, Read, Write };

/// A good reply to a read: `transport` 04 states its length in bits, any other in bytes.
QByteArray readReply(const QByteArray& transport, const QByteArray& payload)
{
    const int size = int(payload.size());
    const auto word = [](int value) {
        return QByteArray::number(0x10000 + value, 16).mid(1); // four hex digits
    };
    return QByteArray::fromHex("0300" + word(25 + size) + "02F080 32 03 0000 0105 0002" +
                               word(4 + size) + "0000 04 01 FF" + transport +
                               word(transport == "04" ? size * 8 : size)) +
           payload;
}

const QByteArray ConfirmReply = fromHex("03000016 11D000010008 00 C00109 C1021000 C2021100");
const QByteArray SetupReply =
    fromHex("0300001B 02F080 32 03 0000 0108 0008 0000 0000 F0 00 0001 0001 00F0");
const QByteArray WriteReply = fromHex("03000016 02F080 32 03 0000 0105 0002 0001 0000 05 01 FF");
const QByteArray BitsReply = readReply("04", fromHex("AB CD"));
const QByteArray BytesReply = readReply("09", fromHex("AB CD"));

/// For each byte the bits that the check looks at; bytes behind the masks are not looked at.
/// References, TSAPs and parameters of the handshake do not matter, nor does what setup grants.
const char* const ConfirmMask = "FFFFFFFF FFFF";
const char* const SetupMask = "FFFFFFFF FFFFFF";
/// Of a read reply's TPDU type (byte 5) only bit 0 counts; stations behind gateways answer with
/// other codes there. A length in bits is rounded down to bytes, so its low three bits are free.
const char* const ReadBitsMask = "FFFFFFFF FF01FF FF FF FFFF FFFF FFFF FFFF FFFF FF FF FF FF FFF8";
/// Any transport size but 04 means bytes: of 09 no single bit leads to 04, of 05 bit 0 does.
const char* const ReadBytesMask = "FFFFFFFF FF01FF FF FF FFFF FFFF FFFF FFFF FFFF FF FF FF 00 FFFF";
const char* const ReadRealMask = "FFFFFFFF FF01FF FF FF FFFF FFFF FFFF FFFF FFFF FF FF FF 01 FFFF";
/// A write's TPDU type counts whole, its TPKT length and return code (byte 21) do not: panels
/// judge a refused write by themselves and must not see it repeated.
const char* const WriteMask = "FFFF0000 FFFFFF FF FF FFFF FFFF FFFF FFFF FFFF FF FF 00";

/// "tpkt:001C item:0018" puts these bytes into these fields.
QByteArray edited(QByteArray reply, const QByteArray& edits)
{
    const QHash<QByteArray, int> offsets = {{"tpkt", 2},   {"reference", 11}, {"data", 15},
                                            {"error", 17}, {"code", 21},      {"item", 23}};
    for (const QByteArray& edit : edits.split(' ')) {
        const QByteArray raw = QByteArray::fromHex(edit.mid(edit.indexOf(':') + 1));
        if (!edit.isEmpty())
            reply.replace(offsets[edit.left(edit.indexOf(':'))], raw.size(), raw);
    }
    return reply;
}

} // namespace

class ReplyCheckTest : public QObject
{
    Q_OBJECT

    DriverFixture fixture;

    /// Brings the driver to where it awaits the reply; the first failure is final (limit 0).
    void await(int kind, int type, int count, const char* name = "n", int remote = 0)
    {
        fixture.reset();
        fixture.info.retry_limit = 0;
        fixture.info.remote_access = remote;
        RW_VAR var = DriverFixture::makeVar(type, 0, count, Station, QByteArray(4, '\0'));
        var.name = name;
        var.origin = kind == Write ? 1 : 0;
        if (remote == 0 && (kind == Read || kind == Write))
            fixture.connectStation(Station, PduRef);
        if (kind == Write)
            AddListWriteVar(&var, 1);
        else
            AddListReadVar(&var);
        QVERIFY(ComCommunication() != nullptr);
        if (kind == Setup) {
            QCOMPARE(judge(ConfirmReply), int(Good));
            QVERIFY(ComCommunication() != nullptr);
        }
    }
    void await(int kind)
    {
        await(kind, 12, kind == Write ? 1 : 2);
    }

    int judge(QByteArray reply)
    {
        return DataCom(&reply, int(reply.size()))->result;
    }

    static bool stationIs(int handshakeOk, int pduRef)
    {
        const PLC_CHECK check = map_list.value(Station);
        return check.hand_shake_ok == handshakeOk && check.pdu_ref == pduRef;
    }

    /// What must hold beyond the code: a refused reply leaves the image as it was and brings the
    /// station back to its handshake, a good one advances it.
    void expectConsequences(int kind, bool good)
    {
        const int reference = kind == Confirm || !good ? 0 : kind == Setup ? 1 : PduRef + 1;
        QVERIFY(stationIs(good && kind != Confirm, reference));
        QCOMPARE(int(PLC_driver.protocol_list.size()), good && kind == Confirm ? 1 : 0);
        if (!good)
            QCOMPARE(int(fixture.image().count('\0')), fixture.imageSize());
    }

    /// Puts a good reply, every shorter part of it, longer ones and every change of one bit to the
    /// driver. `mask` tells which bits matter.
    void tryEveryBit(int kind, int type, int count, const QByteArray& reply, const char* mask,
                     const char* name = "n")
    {
        const QByteArray examined = fromHex(mask);
        const bool handshake = kind == Confirm || kind == Setup;
        const Verdict refused = handshake ? BadHandshake : BadContent;
        const auto judged = [&](const QByteArray& given, Verdict expected, const QString& change) {
            if (QTest::currentTestFailed())
                return;
            await(kind, type, count, name);
            const int code = judge(given);
            const QString label = QString("kind %1 type %2 %3: %4").arg(kind).arg(type).arg(change);
            QVERIFY2(code == expected, qPrintable(label.arg(code)));
            expectConsequences(kind, expected == Good);
        };
        judged(reply, Good, "unchanged");
        if (kind == Read)
            QVERIFY(fixture.image().count('\0') < fixture.imageSize());
        judged(QByteArray(), handshake ? BadHandshake : TimedOut, "empty");
        for (int size = 1; size < reply.size(); ++size)
            judged(reply.left(size), handshake ? BadHandshake : WrongLength, "cut short");
        // A handshake reply may be followed by anything, a request's reply by nothing.
        for (int extra : {1, 2, 7, 500})
            judged(reply + reply.repeated(100).left(extra), handshake ? Good : WrongLength,
                   "longer");
        for (int bit = 0; bit < reply.size() * 8; ++bit) {
            QByteArray changed = reply;
            changed[bit / 8] = char(changed.at(bit / 8) ^ (1 << bit % 8));
            const bool matters =
                bit / 8 < examined.size() && (examined.at(bit / 8) >> bit % 8 & 1) != 0;
            judged(changed, matters ? refused : Good,
                   QString("byte %1.%2").arg(bit / 8).arg(bit % 8));
        }
    }

private slots:
    void everyBit()
    {
        const auto repeated = [](const char* hex, int times) {
            return fromHex(hex).repeated(times);
        };
        tryEveryBit(Confirm, 12, 2, ConfirmReply, ConfirmMask);
        tryEveryBit(Setup, 12, 2, SetupReply, SetupMask);
        for (int type : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 20, 21, 22, 23, 24})
            tryEveryBit(Read, type, 2, BitsReply, ReadBitsMask);
        tryEveryBit(Read, 2, 1, readReply("05", "A"), ReadRealMask);
        tryEveryBit(Read, 12, 2, BytesReply, ReadBytesMask);
        tryEveryBit(Read, 12, 100, readReply("04", repeated("AB", 100)), ReadBitsMask);
        tryEveryBit(Read, 16, 2, readReply("04", repeated("1234", 2)), ReadBitsMask);
        tryEveryBit(Read, 17, 1, readReply("04", fromHex("1234")), ReadBitsMask);
        tryEveryBit(Read, 14, 2, readReply("09", repeated("020000012C", 2)), ReadBytesMask, "TV");
        tryEveryBit(Read, 18, 1, readReply("04", fromHex("020000012C")), ReadBitsMask, "T");
        tryEveryBit(Read, 15, 2, readReply("09", repeated("100005", 2)), ReadBytesMask, "CV");
        tryEveryBit(Read, 19, 1, readReply("04", fromHex("100005")), ReadBitsMask, "C");
        for (int type : {1, 5, 7, 11, 12, 13, 14, 15, 17, 24})
            tryEveryBit(Write, type, 1, WriteReply, WriteMask);
    }

    void lyingLengths()
    {
        // Stated lengths are held against each other, but only the received one against what was
        // asked for; up to seven bits more round down to the same bytes.
        // clang-format off
        const std::tuple<QByteArray, const char*, Verdict> rows[] = {
            {BitsReply, "tpkt:001C", BadContent}, {BitsReply, "tpkt:001A", BadContent},
            {BitsReply, "tpkt:0000", BadContent}, {BitsReply, "tpkt:FFFF", BadContent},
            {BitsReply, "data:0007", BadContent}, {BitsReply, "data:0000", BadContent},
            {BitsReply, "item:0018", BadContent}, {BitsReply, "item:0002", BadContent},
            {BitsReply, "item:0017", Good}, {BytesReply, "item:0010", BadContent},
            {BytesReply, "tpkt:001C data:0007 item:0003", BadContent},
            {BitsReply, "tpkt:001C data:0007 item:0018", BadContent},
            {BytesReply, "tpkt:FFFF data:FFEA item:FFE6", BadContent},
            {BytesReply, "tpkt:0018 data:0003 item:FFFF", BadContent}, // wrapped below 0
            {BytesReply, "tpkt:001A data:0005 item:0001", Good},
            {BitsReply, "tpkt:001A data:0005 item:0008", Good},
            {BitsReply, "tpkt:0019 data:0004 item:0000", Good}, {WriteReply, "tpkt:0000", Good},
            {WriteReply, "tpkt:FFFF", Good}, {WriteReply, "data:0002", BadContent}};
        // clang-format on
        for (const auto& [reply, edits, verdict] : rows) {
            await(reply == WriteReply ? Write : Read);
            const int code = judge(edited(reply, edits));
            QVERIFY2(code == verdict, qPrintable(QString("%1: %2").arg(edits).arg(code)));
        }
    }

    void receivedLength()
    {
        // Size of the array (-1: none) and the length told with it. The handshake is judged by the
        // bytes alone, whatever length goes with them.
        // clang-format off
        const std::tuple<int, int, int, Verdict> rows[] = {
            {Read, 40, 27, Good}, {Read, 26, 27, BadContent}, {Read, 0, 27, BadContent},
            {Read, -1, 27, BadContent}, {Read, -1, 0, TimedOut}, {Read, 27, 0, TimedOut},
            {Read, 27, 26, WrongLength}, {Read, 27, -5, WrongLength},
            {Read, 27, 2000000000, WrongLength}, {Write, 21, 22, BadContent},
            {Write, -1, 22, BadContent}, {Write, -1, 0, TimedOut}, {Write, 22, -22, WrongLength},
            {Confirm, -1, 22, BadHandshake}, {Confirm, 0, 0, BadHandshake}, {Confirm, 22, 0, Good},
            {Confirm, 21, 100, BadHandshake}, {Setup, 27, -1, Good}, {Setup, -1, 0, BadHandshake}};
        // clang-format on
        const QByteArray good[] = {ConfirmReply, SetupReply, BitsReply, WriteReply};
        for (const auto& [kind, size, length, verdict] : rows) {
            await(kind);
            QByteArray reply = (good[kind] + QByteArray(20, '\x77')).left(size);
            const int code = DataCom(size < 0 ? nullptr : &reply, length)->result;
            QVERIFY2(code == verdict,
                     qPrintable(QString("%1 %2 %3").arg(kind).arg(size).arg(length)));
        }
    }

    void directCheck()
    {
        const QByteArray nothing = readReply("04", ""), refused = edited(WriteReply, "code:0A");
        // Lengths are 16 bits wide and wrap.
        const QByteArray wrapped = edited(readReply("09", ""), "tpkt:0018 data:0003 item:FFFF");
        // A host's write without an origin is judged as a read, which its answer cannot pass.
        // clang-format off
        const std::tuple<int, QByteArray, int, int> rows[] = {
            {0, BitsReply, 27, 1}, {0, BytesReply, 27, 1}, {0, BitsReply, 26, 0},
            {0, BitsReply.left(26), 27, 0}, {0, BitsReply + "more", 31, 1}, {0, BitsReply, 100, 1},
            {0, nothing, 25, 1}, {0, nothing.left(24), 24, 0}, {1, refused, 22, 2},
            {-7, refused, 22, 2}, {1, refused + "more", 26, 2}, {1, refused, 21, 0},
            {1, refused.left(21), 22, 0}, {1, refused, -22, 0}, {0, refused + "1234", 26, 0},
            {1, BitsReply, 27, 0}, {0, wrapped + QByteArray(65535, 'x'), 65560, 1},
            {0, wrapped + QByteArray(65534, 'x'), 65559, 0}};
        // clang-format on
        for (const auto& [origin, given, length, result] : rows) {
            fixture.reset();
            fixture.connectStation(Station, PduRef);
            Protocol pending;
            pending.var.station = Station;
            pending.var.origin = origin;
            PLC_driver.protocol_list.append(pending);
            QByteArray reply = given;
            QVERIFY2(CheckGetData(&reply, length) == result, given.left(30).toHex(' ').constData());
            QCOMPARE(CheckGetData(nullptr, length), 0);
            QVERIFY(stationIs(1, PduRef) && PLC_driver.protocol_list.size() == 1);
        }
    }

    void remoteReplies()
    {
        // Forwarding peers count references from 0 and append two bytes that no length covers.
        const QByteArray read =
            edited(readReply("04", fromHex("AB CD 12 34")), "reference:0000") + "xx";
        const QByteArray write = edited(WriteReply, "reference:0000") + "xx";
        const std::tuple<int, QByteArray, Verdict> rows[] = {
            {Read, read, Good},
            {Read, read.left(29), WrongLength},
            {Read, edited(read, "reference:0001"), BadContent},
            {Write, write, Good},
            {Write, write.left(22), WrongLength},
            {Write, edited(write, "error:81"), BadContent}};
        for (const auto& [kind, reply, verdict] : rows) {
            await(kind, 12, kind == Write ? 1 : 2, "n", 1);
            QCOMPARE(judge(reply), int(verdict));
            QVERIFY(stationIs(0, verdict == Good ? 1 : 0));
            QCOMPARE(int(PLC_driver.V_area[0]), verdict == Good && kind == Read ? 0xAB : 0);
        }
    }

    void checksums()
    {
        // Sum, CRC, LRC and exclusive or of so many bytes. An LRC of 0 is given as 256: panels'
        // scripts print it as it comes.
        const std::tuple<QByteArray, int, int, int, int, int> rows[] = {
            {"Z", 0, 0, 0xFFFF, 256, 'Z'},
            {fromHex("01"), 1, 1, 0x807E, 255, 1},
            {"123456789", 9, 477, 0x4B37, 35, 0x31},
            {fromHex("8080"), 2, 256, 0xD061, 256, 0},
            {fromHex("0FF0FF"), 3, 510, 0x8345, 2, 0},
            {QByteArray(300, '\xFF'), 300, 0x2AD4, 0xDB30, 0x2C, 0},
            {QByteArray(65535, '\1'), 65535, 0xFFFF, 0x807E, 1, 1}};
        for (const auto& [data, length, sum, crc, lrc, exclusiveOr] : rows) {
            // Exactly as many bytes as there are, so that a sanitizer sees any read past them.
            const std::unique_ptr<unsigned char[]> copy(new unsigned char[size_t(data.size())]);
            std::copy(data.cbegin(), data.cend(), copy.get());
            const auto size = static_cast<unsigned short>(length);
            QCOMPARE(int(CalSUM(copy.get(), size)), sum);
            QCOMPARE(CalLRC(copy.get(), size), lrc);
            QCOMPARE(int(CalXOR(copy.get(), size)), exclusiveOr);
            QCOMPARE(int(CalCRC(copy.get(), size)), crc);
        }
    }

    void digits()
    {
        // What DigitalToASCII and ASCIIToDigital make of each.
        const std::tuple<int, int, int> rows[] = {
            {0, 0x30, 0},   {9, 0x39, 0},    {10, 0x41, 0},   {15, 0x46, 0},
            {16, 0x47, 0},  {-1, 0x2F, 0},   {' ', 0x57, 0},  {'/', 0x66, 0},
            {'0', 0x67, 0}, {'9', 0x70, 9},  {':', 0x71, 10}, {'?', 0x76, 15},
            {'@', 0x77, 0}, {'A', 0x78, 10}, {'F', 0x7D, 15}, {'a', 0x98, 42}};
        for (const auto& [given, ascii, digital] : rows) {
            const QString label = QString("%1: %2 %3").arg(given);
            QCOMPARE(label.arg(DigitalToASCII(given)).arg(ASCIIToDigital(given)),
                     label.arg(ascii).arg(digital));
        }
    }
};

QTEST_GUILESS_MAIN(ReplyCheckTest)
#include "reply_check_test.moc"
