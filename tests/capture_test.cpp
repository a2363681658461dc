// Captures read back: every file format that is understood, TCP streams put in order, damage.

#include "wire/frame_trace.h"
#include "wire/tcp_streams.h"

#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

using namespace s7200::wire;

namespace
{

QByteArray hex(const char* digits)
{
    return QByteArray::fromHex(digits);
}

/// Builds a file of either byte order.
struct Writer {
    bool bigEndian = false;
    QByteArray bytes;

    Writer& number(quint64 value, int size)
    {
        for (int i = 0; i < size; ++i)
            bytes.append(char(value >> 8 * (bigEndian ? size - 1 - i : i)));
        return *this;
    }
    Writer& block(quint32 type, const QByteArray& body)
    {
        const QByteArray padded = body + QByteArray((4 - body.size() % 4) % 4, '\0');
        number(type, 4).number(quint64(padded.size()) + 12, 4);
        bytes += padded;
        return number(quint64(padded.size()) + 12, 4);
    }
    QByteArray body(std::initializer_list<std::pair<quint64, int>> numbers) const
    {
        Writer writer{bigEndian, {}};
        for (const auto& [value, size] : numbers)
            writer.number(value, size);
        return writer.bytes;
    }
};

struct FileFormat {
    const char* name;
    bool blocks; ///< pcapng.
    bool bigEndian;
    quint32 magicOrBlock; ///< pcap: magic; pcapng: type of the blocks that hold packets.
    int linkType;
    const char* linkHeader; ///< In front of each IP packet, hex.
};

const FileFormat Formats[] = {
    {"raw IP, microseconds", false, false, 0xA1B2C3D4, 101, ""},
    {"nanoseconds, VLAN", false, true, 0xA1B23C4D, 1, "0102030405060708090a0b0c8100000a0800"},
    {"Ethernet, big-endian", false, true, 0xA1B2C3D4, 1, "0102030405060708090a0b0c0800"},
    {"any interface", false, false, 0xA1B2C3D4, 113, "00000001000600000000000000000800"},
    {"any interface, new", false, false, 0xA1B2C3D4, 276,
     "0800000000000001000100060000000000000000"},
    {"loopback", false, false, 0xA1B2C3D4, 0, "02000000"},
    {"pcapng", true, false, 6, 1, "0102030405060708090a0b0c0800"},
    {"pcapng, big-endian", true, true, 6, 101, ""},
    {"pcapng, simple", true, false, 3, 101, ""},
    {"pcapng, old", true, true, 2, 101, ""},
};

constexpr quint64 TimeUs = 1700000000123456;

QByteArray fileOf(const FileFormat& format, const QVector<QByteArray>& packets)
{
    Writer file{format.bigEndian, {}};
    if (format.blocks) {
        file.block(0x0A0D0D0A, file.body({{0x1A2B3C4D, 4}, {1, 2}, {0, 2}, {~0ULL, 8}}));
        // Its times are in tenths of milliseconds.
        file.block(1, file.body({{quint64(format.linkType), 2},
                                 {0, 2},
                                 {65535, 4},
                                 {9, 2},
                                 {1, 2},
                                 {format.bigEndian ? 0x04000000U : 4U, 4},
                                 {0, 4}}));
        file.block(0x999, "of another kind");
    } else {
        file.number(format.magicOrBlock, 4).number(2, 2).number(4, 2).number(0, 8);
        file.number(65535, 4).number(quint64(format.linkType), 4);
    }
    const quint64 ticks = TimeUs / 100;
    for (const QByteArray& packet : packets) {
        // Ethernet frames are padded to their least length.
        QByteArray frame = hex(format.linkHeader) + packet;
        frame += QByteArray(std::max(0, 60 - int(frame.size())), '\0');
        const auto length = quint64(frame.size());
        // Of the last one there was more than was captured.
        const quint64 original = length + (&packet == &packets.last() ? 4 : 0);
        if (format.magicOrBlock == 6)
            file.block(6, file.body({{0, 4},
                                     {ticks >> 32, 4},
                                     {ticks & 0xFFFFFFFF, 4},
                                     {length, 4},
                                     {original, 4}}) +
                              frame);
        else if (format.magicOrBlock == 2)
            file.block(2, file.body({{0, 2},
                                     {0, 2},
                                     {ticks >> 32, 4},
                                     {ticks & 0xFFFFFFFF, 4},
                                     {length, 4},
                                     {original, 4}}) +
                              frame);
        else if (format.magicOrBlock == 3)
            file.block(3, file.body({{original, 4}}) + frame);
        else
            file.number(TimeUs / 1000000, 4)
                .number(TimeUs % 1000000 * (format.magicOrBlock == 0xA1B23C4D ? 1000 : 1), 4)
                .number(length, 4)
                .number(original, 4)
                .bytes += frame;
    }
    return file.bytes;
}

/// "0 open", "0 > 0300", "0 < 0300", "0 closed <", "1 failed CLIENT>CONTROLLER", with ! after a
/// gap.
QStringList textOf(TcpStreams& streams)
{
    QStringList lines;
    for (const StreamEvent& event : streams.finish()) {
        const QString side = event.direction == FrameTrace::ToController ? ">" : "<";
        QString what = "open";
        if (event.kind == StreamEvent::AttemptFailed)
            what = "failed " +
                   streams.connections().at(event.connection).client.address.toString() + ">" +
                   streams.connections().at(event.connection).controller.address.toString();
        if (event.kind == StreamEvent::Closed)
            what = "closed " + side;
        else if (event.kind == StreamEvent::Bytes)
            what = side + (event.afterGap ? "! " : " ") + event.bytes.toHex();
        lines.append(QString("%1 %2").arg(event.connection).arg(what));
    }
    return lines;
}

class Folder
{
public:
    /// Events of a file; `error` also if it is damaged.
    QStringList read(const QByteArray& file, QString* error, qint64* timeUs = nullptr)
    {
        QFile out(m_folder.filePath("capture"));
        if (!out.open(QIODevice::WriteOnly) || out.write(file) != file.size())
            qFatal("cannot write");
        out.close();
        error->clear();
        const auto reader = CaptureReader::open(out.fileName(), error);
        if (!reader)
            return {};
        TcpStreams streams;
        while (const auto segment = reader->next()) {
            streams.add(*segment);
            if (timeUs != nullptr)
                *timeUs = segment->timeUs;
        }
        *error = reader->error();
        cutFrames = reader->cutFrames();
        return textOf(streams);
    }

    qint64 cutFrames = 0; ///< Of the last file.

    /// The IP packets of a trace of one exchange.
    QVector<QByteArray> packets()
    {
        QString error;
        const QString name = m_folder.filePath("trace");
        auto trace = FrameTrace::open(name, FrameTrace::ReplaceExisting, &error);
        trace->newConnection();
        trace->record(0, FrameTrace::ToController, hex("03000007aabbcc"));
        trace->record(0, FrameTrace::FromController, hex("0300"));
        trace->closeConnection(0, FrameTrace::FromController);
        trace->failedConnection({QHostAddress("fe80::9"), 102});
        trace.reset();
        QFile file(name);
        if (!file.open(QIODevice::ReadOnly))
            qFatal("cannot read");
        const QByteArray bytes = file.readAll();
        QVector<QByteArray> packets;
        for (int at = 24; at < bytes.size();) {
            const int length = int(qFromUnaligned<quint32>(bytes.constData() + at + 8));
            packets.append(bytes.mid(at + 16, length));
            at += 16 + length;
        }
        return packets;
    }

private:
    QTemporaryDir m_folder;
};

const QStringList Exchange = {"0 open", "0 > 03000007aabbcc", "0 < 0300", "0 closed <",
                              "1 failed 2001:db8::1>fe80::9"};

} // namespace

class CaptureTest : public QObject
{
    Q_OBJECT

private slots:
    void formats()
    {
        Folder folder;
        const QVector<QByteArray> packets = folder.packets();
        for (const FileFormat& format : Formats) {
            QString error;
            qint64 timeUs = 0;
            const QStringList events = folder.read(fileOf(format, packets), &error, &timeUs);
            QVERIFY2(events == Exchange && error.isEmpty(),
                     qPrintable(format.name + (": " + events.join(", ") + error)));
            QVERIFY2(folder.cutFrames == 1, format.name);
            if (format.magicOrBlock == 3)
                continue; // without times
            QVERIFY2(timeUs == qint64(format.blocks ? TimeUs / 100 * 100 : TimeUs), format.name);
        }
    }

    void damage()
    {
        Folder folder;
        QString error;
        const QVector<QByteArray> packets = folder.packets();
        for (const FileFormat* format : {&Formats[0], &Formats[6]}) {
            const QByteArray file = fileOf(*format, packets);
            int seen = 0;
            for (int size = 0; size < file.size(); size += 5) {
                const QStringList events = folder.read(file.left(size), &error);
                // What can be read is read, up to what the end of the file may mean.
                QVERIFY(events.size() >= seen || events.contains("0 failed 192.0.2.1>192.0.2.2"));
                seen = int(events.size());
                QVERIFY(size > 300 || size == 0 || !error.isEmpty() || events.size() <= 1);
            }
            QVERIFY(folder.read(file + "x", &error) == Exchange && error.contains("after frame"));
            // Lengths beyond all measure.
            const int lengthAt = format->blocks ? int(file.indexOf(hex("06000000"))) + 4 : 24 + 8;
            QVERIFY(folder.read(QByteArray(file).replace(lengthAt, 4, hex("fcffffff")), &error)
                        .isEmpty() &&
                    error.contains("damaged"));
        }
        folder.read("GIF89a, a picture and not a capture", &error);
        QVERIFY2(error.contains("no capture file"), qPrintable(error));
    }

    /// Segments as SIDE SEQUENCE FLAGS BYTES, what comes of them.
    void streams_data()
    {
        QTest::addColumn<QStringList>("segments");
        QTest::addColumn<QStringList>("events");
        QTest::newRow("out of order, twice, overlapping, over the end of the numbers")
            << QStringList{"> fffffffe S",      "< 500 SA",   "> ffffffff A 0300", "> 3 A cc",
                           "> 3 A cc",          "> 1 A aabb", "> 0 A 00aabb",      "> 2 A bbccdd",
                           "> ffffffff A 0300", "> 4 A dd"}
            << QStringList{"0 open", "0 > 0300", "0 > aabb", "0 > cc", "0 > dd"};
        QTest::newRow("missing for good")
            << QStringList{"> 0 S", "< 0 SA", "> 1 A 0300", "> 5 A aa", "> 9 A bb"}
            << QStringList{"0 open", "0 > 0300", "0 >! aa", "0 >! bb"};
        QTest::newRow("asked again, refused, tried again")
            << QStringList{"> 7 S", "> 7 S", "< 0 RA", "> 9 S", "< 3 SA", "> a A 0300", "< 4 R"}
            << QStringList{"0 failed 10.0.0.7>10.0.0.9", "1 open", "1 > 0300", "1 closed <"};
        QTest::newRow("port used again")
            << QStringList{"> 7 S", "< 3 SA", "> 8 A 0300", "> 900 S", "< 3 SA", "> 901 A 0300"}
            << QStringList{"0 open", "0 > 0300", "1 open", "1 > 0300"};
        QTest::newRow("from its middle") << QStringList{"< 90 A 0300", "> 70 A 0300", "> 72 A bb"}
                                         << QStringList{"0 open", "0 < 0300", "0 > 0300", "0 > bb"};
        QTest::newRow("another protocol")
            << QStringList{"> 0 S", "< 0 SA", "> 1 A 474554", "< 1 A 0300"} << QStringList{};
    }

    void streams()
    {
        QFETCH(QStringList, segments);
        QFETCH(QStringList, events);
        TcpStreams streams;
        int number = 0;
        for (const QString& text : segments) {
            const QStringList fields = text.split(' ');
            CapturedSegment segment;
            segment.number = ++number;
            segment.from = {QHostAddress("10.0.0.7"), 40000};
            segment.to = {QHostAddress("10.0.0.9"), 102};
            if (fields.at(0) == "<")
                std::swap(segment.from, segment.to);
            segment.sequence = fields.at(1).toUInt(nullptr, 16);
            segment.syn = fields.at(2).contains('S');
            segment.ack = fields.at(2).contains('A');
            segment.reset = fields.at(2).contains('R');
            segment.bytes = hex(fields.value(3).toLatin1());
            streams.add(segment);
        }
        QCOMPARE(textOf(streams), events);
    }
};

QTEST_APPLESS_MAIN(CaptureTest)
#include "capture_test.moc"
