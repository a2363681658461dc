// What the panel writes for other programs: records in every format, which values count as changed,
// and files that are cut, moved away, or full. And what it takes from them: lines and conditions.

#include "panel/change_filter.h"
#include "panel/output_file.h"
#include "panel/record_writer.h"
#include "panel/standard_input.h"
#include "panel/statistics.h"
#include "panel/watched_row.h"

#include <QTemporaryDir>
#include <QtTest>

#include <limits>

using namespace s7200;
using namespace s7200::panel;

namespace
{

constexpr qint64 ReadAt = 1767225599007; // 2025-12-31T23:59:59.007Z
constexpr qint64 Now = ReadAt + 1000;

Item itemOf(const QByteArray& fields)
{
    const auto table = TagTable::parse("name,address,unit,scale\n" + fields, "f", nullptr, nullptr);
    Item item;
    item.tag = table.value().tags().first();
    item.label = item.tag.label();
    return item;
}

Value valueOf(const QVector<quint32>& elements, Quality quality)
{
    Value value;
    value.elements = elements;
    value.quality = quality;
    value.timeMs = ReadAt;
    return value;
}

QByteArray contentsOf(const QString& file)
{
    QFile opened(file);
    return opened.open(QIODevice::ReadOnly) ? opened.readAll() : QByteArray("unreadable");
}

} // namespace

class PanelRecordTest : public QObject
{
    Q_OBJECT

private slots:
    // In what is wanted, ' stands for ".
    void formats_data()
    {
        QTest::addColumn<QString>("format");
        QTest::addColumn<QByteArray>("lines");
        QTest::newRow("text") << "text" << QByteArray(R"(p 1:a 'b', c=d\ 21.5 mm
p 1:a 'b', c=d\ ? stale
p 1:VW4x2/hex 0x000A 0xFFFF
VD8/float nan
)");
        QTest::newRow("csv") << "csv"
                             << QByteArray(R"(time,controller,name,address,value,unit,quality
2025-12-31T23:59:59.007Z,p 1,'a ''b'', c=d\',VW0,21.5,mm,good
2026-01-01T00:00:00.007Z,p 1,'a ''b'', c=d\',VW0,,mm,stale
2025-12-31T23:59:59.007Z,p 1,VW4x2/hex,VW4x2/hex,0x000A 0xFFFF,,good
2025-12-31T23:59:59.007Z,p 1,VD8/float,VD8/float,nan,,good
2026-01-01T00:00:00.007Z,p 1,,,,,link waiting: closed
2026-01-01T00:00:00.007Z,p 1,,,,,link up
2026-01-01T00:00:00.008Z,p 1,,,,,link up
)");
        QTest::newRow("jsonl")
            << "jsonl"
            << QByteArray(
                   R"({'address':'VW0','controller':'p 1','name':'a \'b\', c=d\\','quality':'good','time':'2025-12-31T23:59:59.007Z','unit':'mm','value':21.5}
{'address':'VW0','controller':'p 1','name':'a \'b\', c=d\\','quality':'stale','time':'2026-01-01T00:00:00.007Z','unit':'mm','value':null}
{'address':'VW4x2/hex','controller':'p 1','name':'VW4x2/hex','quality':'good','time':'2025-12-31T23:59:59.007Z','unit':'','value':[10,65535]}
{'address':'VD8/float','controller':'p 1','name':'VD8/float','quality':'good','time':'2025-12-31T23:59:59.007Z','unit':'','value':null}
{'cause':'closed','controller':'p 1','detail':'say \'no\'\\\n','event':'link','state':'waiting','time':'2026-01-01T00:00:00.007Z'}
{'controller':'p 1','event':'link','state':'up','time':'2026-01-01T00:00:00.007Z'}
{'controller':'p 1','event':'link','state':'up','time':'2026-01-01T00:00:00.008Z'}
)");
        QTest::newRow("influx")
            << "influx"
            << QByteArray(
                   R"(s7200,address=VW0,controller=p\ 1,name=a\ 'b'\,\ c\=d\_,unit=mm value=21.5,quality='good' 1767225599007000000
s7200,address=VW0,controller=p\ 1,name=a\ 'b'\,\ c\=d\_,unit=mm quality='stale' 1767225600007000000
s7200,address=VW4x2/hex,controller=p\ 1,name=VW4x2/hex value_0=10,value_1=65535,quality='good' 1767225599007000000
s7200,address=VD8/float,controller=p\ 1,name=VD8/float quality='good' 1767225599007000000
s7200_link,controller=p\ 1 cause='closed',detail='say \'no\'\\ ',state='waiting' 1767225600007000000
s7200_link,controller=p\ 1 state='up' 1767225600007000001
s7200_link,controller=p\ 1 state='up' 1767225600008000000
)");
    }

    void formats()
    {
        QFETCH(QString, format);
        QFETCH(QByteArray, lines);
        RecordWriter writer(recordFormatNamed(format).value());
        Item scaled = itemOf("t,VW0,mm,0.1");
        scaled.tag.name = scaled.label = "a \"b\", c=d\\";
        Item array = itemOf("t,VW4x2/h,,");
        Item real = itemOf("t,VD8/f,,");
        for (Item* item : {&array, &real}) {
            item->tag.name.clear();
            item->label = item->tag.label();
        }
        // Among several controllers, which records say in a field of their own.
        scaled.label.prepend("p 1:");
        array.label.prepend("p 1:");
        QByteArray got = writer.header();
        got += writer.record(scaled, "p 1", valueOf({215}, Quality::Good), Now);
        got += writer.record(scaled, "p 1", valueOf({215}, Quality::Stale), Now);
        got += writer.record(array, "p 1", valueOf({10, 0xFFFF}, Quality::Good), Now);
        got += writer.record(real, "p 1", valueOf({0x7FC00000}, Quality::Good), Now);
        LinkStatus link;
        link.state = LinkState::Waiting;
        link.cause = Cause::Closed;
        link.detail = "say \"no\"\\\n";
        got += writer.linkRecord("p 1", link, Now);
        link = LinkStatus();
        link.state = LinkState::Up;
        got += writer.linkRecord("p 1", link, Now); // so soon that the clock stands still
        got += writer.linkRecord("p 1", link, Now + 1);
        QCOMPARE(got.split('\n'), lines.replace('\'', '"').split('\n'));
        QVERIFY(!recordFormatNamed("CSV"));
    }

    // Against what was reported last, not what was seen last.
    void changes()
    {
        const Item item = itemOf("t,VW0,,");
        Tag tag = item.tag;
        tag.deadBand = Decimal{2, 0};
        ChangeFilter filter(true, 1000);
        const auto reported = [&](qint64 now, quint32 element, Quality quality) {
            return filter.take(7, tag, valueOf({element}, quality), now);
        };
        QVERIFY(reported(5000, 10, Quality::Good));
        QVERIFY(!reported(5100, 12, Quality::Good));
        QVERIFY(reported(5200, 13, Quality::Good));
        QVERIFY(!reported(6199, 11, Quality::Good));
        QVERIFY(reported(6200, 11, Quality::Good)); // the heartbeat
        QVERIFY(reported(6300, 11, Quality::Stale));
        QVERIFY(!reported(6400, 90, Quality::Stale));
        QVERIFY(reported(6500, 12, Quality::Good));
        QVERIFY(filter.take(8, tag, valueOf({12}, Quality::Good), 6500));
        ChangeFilter silent(true, 0);
        QVERIFY(silent.take(0, tag, valueOf({1}, Quality::Good), 0));
        QVERIFY(!silent.take(0, tag, valueOf({1}, Quality::Good), 1000000));
        ChangeFilter all(false, 0);
        QVERIFY(all.take(0, tag, valueOf({1}, Quality::Good), 0));
        QVERIFY(all.take(0, tag, valueOf({1}, Quality::Good), 0));
    }

    // What another program may do to the file meanwhile.
    void rotation()
    {
        const QTemporaryDir directory;
        const QString file = directory.filePath("out");
        QString error;
        OutputFile output;
        QVERIFY(output.open(file, &error));
        QVERIFY(output.write("h\n", "1\n") && output.write("h\n", "2\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n1\n2\n"));
        QVERIFY(QFile::resize(file, 0)); // cut
        QVERIFY(output.write("h\n", "3\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n3\n"));
        QVERIFY(QFile::rename(file, file + ".1")); // moved: goes there until it is reopened
        QVERIFY(output.write("h\n", "4\n") && output.reopen(&error) && output.write("h\n", "5\n"));
        QCOMPARE(contentsOf(file + ".1"), QByteArray("h\n3\n4\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n5\n"));
        OutputFile again;
        QVERIFY(again.open(file, &error) && again.write("h\n", "6\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n5\n6\n"));
        QVERIFY(!again.open(directory.filePath("none/out"), &error) && error.contains("none/out"));
        QVERIFY(again.write("h\n", "7\n")); // the old one stays
    }

    // What has no end, as after a power cut, stays alone, also in the file of after SIGHUP.
    void tornLine()
    {
        const QTemporaryDir directory;
        const QString file = directory.filePath("out");
        QFile torn(file);
        QString error;
        OutputFile output;
        QVERIFY(torn.open(QIODevice::WriteOnly) && torn.write("h\n1") == 3 && torn.flush());
        QVERIFY(output.open(file, &error) && output.write("h\n", "2\n"));
        QVERIFY(output.write("h\n", "3\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n1\n2\n3\n"));
        QVERIFY(QFile::rename(file, file + ".1"));
        QFile other(file);
        QVERIFY(other.open(QIODevice::WriteOnly) && other.write("4") == 1 && other.flush());
        QVERIFY(output.reopen(&error) && output.write("h\n", "5\n"));
        QCOMPARE(contentsOf(file), QByteArray("4\n5\n"));
        QVERIFY(other.resize(1) && output.reopen(&error) && other.resize(0)); // torn, then cut
        QVERIFY(output.write("h\n", "6\n"));
        QCOMPARE(contentsOf(file), QByteArray("h\n6\n"));
    }

    void statusOfSeveral()
    {
        const auto status = [](const QVector<Cause>& causes) { return int(exitStatusOf(causes)); };
        QCOMPARE(status({}), int(ExitGood));
        QCOMPARE(status({Cause::None, Cause::None}), int(ExitGood));
        QCOMPARE(status({Cause::TimedOut, Cause::Refused, Cause::NoConnection}), int(ExitNoAnswer));
        QCOMPARE(status({Cause::Refused, Cause::TimedOut}), int(ExitRefused));
        QCOMPARE(status({Cause::TimedOut, Cause::None}), int(ExitSomeFailed));
    }

    void statisticsOfSeveral()
    {
        LinkStatistics one;
        one.cycles = 1;
        one.lateCycles = 2;
        one.requests = 3;
        one.retries = 4;
        one.connections = 5;
        one.reconnects = 6;
        one.linkLosses = 7;
        one.failures[size_t(Cause::Stopped)] = 8;
        one.roundTrip.add(9);
        LinkStatistics all;
        QCOMPARE(statisticsText(all, 0), QString("0 cycles, 0 requests, 0 retries, 0 connections, "
                                                 "0 link losses in 0.0 s"));
        for (int i = 0; i < 10; ++i)
            addStatistics(one, &all);
        QCOMPARE(statisticsText(all, 2950),
                 QString("10 cycles (20 late), 30 requests, 40 retries, 50 connections, "
                         "70 link losses, 60 reconnects in 3.0 s"));
        QCOMPARE(all.failed(Cause::Stopped), quint64(80));
        QCOMPARE(all.roundTrip.count(), quint64(10));
    }

    void fullDisk()
    {
        if (!QFile::exists("/dev/full"))
            QSKIP("no /dev/full here");
        QString error;
        OutputFile output;
        QVERIFY(output.open("/dev/full", &error));
        QVERIFY(!output.write("h\n", "1\n") && !output.write("h\n", "2\n"));
        QCOMPARE(runEventLoop(), int(ExitOutput));
    }

    // Lines in any pieces; one without end is left out, and the next one is a line again.
    void linesOfInput()
    {
        LineCutter cutter;
        QCOMPARE(cutter.feed(" a\n\n b"), QStringList("a"));
        QCOMPARE(cutter.rest(), QString("b"));
        QCOMPARE(cutter.feed("c\r\nd\n"), QStringList({"bc", "d"}));
        for (int half = 0; half < 2; ++half)
            QCOMPARE(cutter.feed(QByteArray(600 * 1024, 'x')), QStringList());
        QCOMPARE(cutter.feed("VW0=1\nVW2=2\nVW4"), QStringList("VW2=2"));
        QCOMPARE(cutter.feed("=3\n"), QStringList("VW4=3"));
    }

    // A value that is not good, or is no number, meets no condition.
    void conditions()
    {
        using C = Condition;
        const QPair<C::Operator, QString> rows[] = {
            {C::Less, "+ . . ."}, {C::AtMost, "+ + . ."},  {C::Equal, ". + . ."},
            {C::More, ". . + ."}, {C::AtLeast, ". + + ."}, {C::Unequal, "+ . + ."}};
        for (const auto& row : rows) {
            C condition;
            condition.item = itemOf("t,VD0/f,,");
            condition.comparison = row.first;
            condition.number = 2;
            QStringList met;
            for (const quint32 element : {0x3F800000U, 0x40000000U, 0x40400000U, 0x7FC00000U}) {
                Value value;
                value.elements = {element};
                value.quality = Quality::Good;
                met += condition.holds(value) ? "+" : ".";
                value.quality = Quality::Stale;
                QVERIFY(!condition.holds(value));
            }
            QCOMPARE(met.join(' '), row.second);
            QVERIFY(!condition.holds(Value()));
        }
    }
};

QTEST_GUILESS_MAIN(PanelRecordTest)
#include "panel_record_test.moc"
