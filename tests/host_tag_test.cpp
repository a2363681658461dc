// Tags: names, exact scaling, what is shown and taken, and sets of values.

#include "host/controller_tags.h"
#include "tests/text_table.h"
#include <s7200host/tag.h>
#include <s7200host/value_file.h>

#include <QtTest>

#include <cmath>

using namespace s7200;

namespace
{

const QByteArray Header =
    "name,controller,address,format,unit,scale,offset,decimals,deadband,low,high,comment\n";

/// A tag from the fields of its line from the address on.
Tag tagOf(const QString& fields)
{
    QStringList errors;
    const auto table = TagTable::parse(Header + "t,," + fields.toUtf8(), "f", nullptr, &errors);
    return table ? table->tags().first() : Tag();
}

/// Elements in hexadecimal, separated by blanks.
QVector<quint32> elementsOf(const QString& hex)
{
    QVector<quint32> elements;
    for (const QString& element : hex.split(' '))
        elements.append(element.toUInt(nullptr, 16));
    return elements;
}

/// A decimal text made without the code under test: `number` in units of 10^-places.
QString decimalText(qint64 number, int places)
{
    QString digits = QString::number(std::abs(number)).rightJustified(places + 1, '0');
    if (places > 0)
        digits.insert(digits.size() - places, '.');
    return (number < 0 ? "-" : "") + digits;
}

} // namespace

class HostTagTest : public QObject
{
    Q_OBJECT

private slots:
    // Every word, both ways; what lies between two is refused with both.
    void wordsScaleExactly_data()
    {
        QTest::addColumn<QString>("fields");
        QTest::addColumn<int>("scale"); // and offset, in units of 10^-places
        QTest::addColumn<int>("offset");
        QTest::addColumn<int>("places");
        QTest::newRow("1") << "VW0,u,,1,0" << 1 << 0 << 0;
        QTest::newRow("0.1") << "VW0,s,,0.1" << 1 << 0 << 1;
        QTest::newRow("0.01") << "VW0,u,,0.01,-100" << 1 << -10000 << 2;
        QTest::newRow("-0.3") << "VW0,s,,-0.3,0.05" << -30 << 5 << 2;
    }

    void wordsScaleExactly()
    {
        QFETCH(QString, fields);
        QFETCH(int, scale);
        QFETCH(int, offset);
        QFETCH(int, places);
        const Tag tag = tagOf(fields);
        QVector<quint32> back;
        QString error;
        for (int bits = 0; bits <= 0xFFFF; ++bits) {
            const bool isSigned = tag.variable.format == Format::Signed;
            const qint64 number = isSigned ? qint16(bits) : bits;
            const QString text = decimalText(number * scale + offset, places);
            QCOMPARE(tag.text(quint32(bits)), text);
            QVERIFY2(tag.parseValues(text, &back, &error) && back.first() == quint32(bits),
                     qPrintable(text + error));
            // A tenth of a unit beside it.
            const qint64 beside = 10 * (number * scale + offset) + 1;
            const Scaling::Inverse between = tag.scaling.invert(Decimal{beside, places + 1});
            QVERIFY(!between.exact && between.lower == number - (scale < 0 ? 1 : 0) &&
                    between.upper == between.lower + 1);
        }
    }

    // Fields, elements: what is shown, what is saved (which reads back as the same bits), the
    // first one's number, and where it stands against the limits.
    void shown()
    {
        const char* const table = R"(
            VW0 ; FFFF -> 65535 ; 65535 ; 65535 ; 0    | VW0,s,,0.1,,0 ; FFF1 -> -2 ; -1.5 ; -2 ; 0
            VW0,u,,0.01,,1 ; 7CF 4 -> 20.0 ; 19.99 ; 20 ; 0 | VW0,,,,,2 ; 7 -> 7.00 ; 7 ; 7 ; 0
            VW0x2,u,,0.5 ; 3 4 -> 1.5 2.0 ; 1.5,2.0 ; 1.5 ; 0 | VW0,h ; A -> 0x000A ; 0x000A ; 10 ; 0
            M0.0 ; 1 -> 1 ; 1 ; 1 ; 0                  | VB0,b ; 5 -> 0b00000101 ; 0b00000101 ; 5 ; 0
            VD0,f ; 41AC0000 -> 21.5 ; 21.5 ; 21.5 ; 0 | VD0,f ; 7FC00000 -> nan ; 0x7FC00000 ; nan ; 0
            VD0,f,,,,1 ; 3DCCCCCE -> 0.1 ; 0.10000001 ; 0.1 ; 0
            VD0,f,,0.1,2 ; 41AC0000 -> 4.15 ; 4.15 ; 4.15 ; 0 | VD0,f ; 80000000 -> 0 ; 0x80000000 ; 0 ; 0
            VD0,f,,0.001 ; 3F800001 -> 0.001 ; 0.0010000001 ; 0.001 ; 0
            VD0,s,,1e-9 ; 80000000 -> -2.147483648 ; -2.147483648 ; -2.147483648 ; 0
            VD0,u,,1 ; FFFFFFFF -> 4294967295 ; 4294967295 ; 4294967295 ; 0
            TV5,,s,0.01 ; 7FFF -> 327.67 ; 327.67 ; 327.67 ; 0
            VW0,u,,0.1,,,,1,2 ; 9 -> 0.9 ; 0.9 ; 0.9 ; 1 | VW0,u,,0.1,,,,1,2 ; A -> 1.0 ; 1.0 ; 1 ; 0
            VW0,u,,0.1,,,,1,2 ; 14 -> 2.0 ; 2.0 ; 2 ; 0  | VW0,u,,0.1,,,,1,2 ; 15 -> 2.1 ; 2.1 ; 2.1 ; 2
            VW0,u,,0.01,,,,0.5 ; 31 -> 0.49 ; 0.49 ; 0.49 ; 1
            VD0,f,,,,,,-1 ; C0000000 -> -2 ; -2 ; -2 ; 1 | VD0,f,,,,,,1,2 ; 40000000 -> 2 ; 2 ; 2 ; 0)";
        check(table, [](const QString& given) {
            const Tag tag = tagOf(given.section(';', 0, 0).trimmed());
            QVector<quint32> elements = elementsOf(given.section(';', 1).trimmed());
            elements.resize(tag.variable.repeat);
            const QString exact = tag.exactText(elements);
            QVector<quint32> back;
            QString error;
            if (!tag.parseValues(exact, &back, &error) || back != elements)
                return exact + " is not read back: " + error;
            return QStringList{tag.text(elements), exact,
                               QString::number(tag.number(elements.first()), 'g', 10),
                               QString::number(int(tag.limit(elements.first())))}
                .join(" ; ");
        });
    }

    // Fields, and a text that the tag does not take, with what would be right.
    void refusedValues()
    {
        const char* const table = R"(
            VW0,s,,0.1 ; 12.34 -> nearest that can be written are 12.3 and 12.4
            VW0,u,,-0.5 ; -0.6 -> -1.0 and -0.5     | VW0,s,,0.1 ; 3276.8 -> -3276.8 to 3276.7
            VW0,u,,0.1,-5 ; 6548.6 -> -5.0 to 6548.5 | VW0,u,,0.1 ; -0.05 -> 0.0 to 6553.5
            VW0,u,,0.1 ; 6553.55 -> 0.0 to 6553.5   | VW0,u,,0.1 ; 1e64 -> 0.0 to 6553.5      | VW0,u,,0.1 ; x -> t cannot take 'x'
            VW0,s,,0.1 ; 12.300000000000000000001 -> 12.3 and 12.4
            VW0,s,,-0.1 ; -1e-11 -> -0.1 and 0.0 | VW0,s,,0.1 ; -12.30000000000000000001 -> -12.4 and -12.3
            VW0,s,,0.1 ;  -> takes                  | VW0,,,,,2 ; 7.5 -> 7 and 8
            VD0,f,,2 ; 33554434 -> 33554432 and 33554436 | VD0,f,,2 ; 1e39 -> finite
            VW0,u,,0.1 ; 1;2 -> cannot take         | VW0x2,u,,0.1 ; 1 -> 2 values
            VW0,u,,0.1 ; 21,5 -> a decimal number takes a point: 21.5 | VW0,u,,1,0.5 ; 1,5 -> point: 1.5
            VW0,u,,2 ; 1,5 -> not 2; that many      | VW0x2,u,,0.1 ; 1,5,2 -> not 3 (decimal numbers)";
        check(
            table,
            [](const QString& given) {
                QVector<quint32> elements;
                QString error;
                tagOf(given.section(';', 0, 0).trimmed())
                    .parseValues(given.section(';', 1).trimmed(), &elements, &error);
                return error;
            },
            Match::Message);
    }

    // Fields, two values: is the second a change?
    void deadBand()
    {
        const char* const table = R"(
            VW0 ; 1 ; 1 -> no          | VW0 ; 1 ; 2 -> yes         | VW0,,,,,,2 ; 1 ; 3 -> no
            VW0,,,,,,2 ; 4 ; 1 -> yes  | VW0,u,,0.1,,,0.1 ; 7 ; 8 -> no | VW0,u,,0.1,,,0.1 ; 9 ; 7 -> yes
            VW0,s,,0.1,,,0.2 ; FFFF ; 1 -> no | VW0,s,,0.1,,,0.2 ; FFFE ; 1 -> yes
            VD0,f,,,,,1 ; 3F800000 ; 40000000 -> no | VD0,f,,,,,1 ; 3F800000 ; 7FC00000 -> yes
            VW0x2,,,,,,2 ; 1 1 ; 1 9 -> yes | VW0,h,,,,,2 ; 1 ; 2 -> yes | VW0x2 ; 1 2 ; 1 -> yes)";
        check(table, [](const QString& given) -> QString {
            const Tag tag = tagOf(given.section(';', 0, 0).trimmed());
            return tag.hasChanged(elementsOf(given.section(';', 1, 1).trimmed()),
                                  elementsOf(given.section(';', 2).trimmed()))
                       ? "yes"
                       : "no";
        });
    }

    // What stands where a variable may, among these tags: CONTROLLER:LABEL=ADDRESS of what is
    // meant.
    void lookups()
    {
        const QByteArray csv = "name,controller,address\n"
                               "press.temp,p1,VW0\npress.speed,p1,VW2\npress.temp,p2,VW4/s\n"
                               "VW100,,VB7\n[x].y,,T37\nT1,p1,VW6\nt1,,VW8\n";
        const TagTable table = TagTable::parse(csv, "f", nullptr, nullptr).value();
        const auto meant = [&](const QString& text) {
            QString error;
            QStringList found;
            const QVector<Tag> tags = table.lookup(text, &error);
            const QStringList labels = labelsOf(tags);
            for (int i = 0; i < int(tags.size()); ++i)
                found.append(labels.at(i) + '=' + tags.at(i).controller + ':' +
                             tags.at(i).address());
            return found.join(' ') + error;
        };
        QCOMPARE(meant("press.Speed"), QString("press.speed=p1:VW2"));
        QCOMPARE(meant("press.temp"), QString("p1:press.temp=p1:VW0 p2:press.temp=p2:VW4/signed"));
        QCOMPARE(meant(" P2:press.temp "), QString("press.temp=p2:VW4/signed"));
        QCOMPARE(meant("p1:*"),
                 QString("press.temp=p1:VW0 press.speed=p1:VW2 VW100=p1:VB7 [x].y=p1:T37 "
                         "T1=p1:VW6"));
        QCOMPARE(meant("*.?"), QString("[x].y=:T37"));
        QCOMPARE(meant("vw100"), QString("VW100=:VB7"));
        QCOMPARE(meant("VW101/h"), QString("VW101=:VW101/hex"));
        // One of no controller is one of each that has none of that name; no tag is ever taken
        // for the address that it is spelt as.
        QCOMPARE(meant("p9:vw100"), QString("VW100=p9:VB7"));
        QCOMPARE(meant("P1:t1"), QString("T1=p1:VW6"));
        QCOMPARE(meant("p2:T1"), QString("t1=p2:VW8"));
        QCOMPARE(meant("p2:press.speed"), QString("'p2:press.speed': that tag is one of p1"));
        QCOMPARE(meant("p2:T2"), QString("T2=p2:T2"));
        QCOMPARE(meant("press.*d.*"), QString("no tag is named like 'press.*d.*'"));
        QVERIFY(meant("p2:speed").startsWith("'p2:speed' is no tag; as a variable: no such"));
        // A plain one takes the format in which it is written; a tag keeps its own.
        const auto assigned = [&](const QString& text) {
            QString error;
            QVector<quint32> elements;
            Tag tag;
            const bool ok = table.parseAssignment(text, &tag, &elements, &error);
            return ok ? tag.label() + '=' + tag.text(elements) : error;
        };
        QCOMPARE(assigned("VW101=-1"), QString("VW101=-1"));
        QCOMPARE(assigned("press.speed=0x10"), QString("press.speed=0x0010"));
        QCOMPARE(assigned("p2:press.temp=0xFFFF"), QString("press.temp=-1"));
        QVERIFY(assigned("press.temp=1").contains("2 tags"));
        QVERIFY(assigned("[x].y=1").contains("TV37"));
        QVERIFY(assigned("VW101").contains("VW100=7"));
        const QVector<Tag> twice = table.lookup("VW0", nullptr) + table.lookup("VW0/h", nullptr);
        QCOMPARE(labelsOf(twice), QStringList({"VW0", "VW0/hex"}));
    }

    // A tag of no controller is one of each that has none of its name, and every label says whose
    // it is. What is meant, by its labels, among the controllers named before it.
    void tagsOfSeveral()
    {
        const TagTable table =
            TagTable::parse("name,controller,address\nspeed,,VW0\npos,P2,VW2\nSpeed,p2,VW4\n"
                            "far@,,VW6@7\n",
                            "f", nullptr, nullptr)
                .value();
        const auto meant = [&](const QString& given) {
            QString error;
            const QStringList names = given.section(' ', 0, 0).split(',', Qt::SkipEmptyParts);
            const QVector<Tag> tags = lookup(table, given.section(' ', 1), names, &error);
            QStringList texts = labelsWithControllers(tags);
            for (int i = 0; i < int(texts.size()); ++i)
                texts[i] += '=' + tags.at(i).variable.label();
            return texts.join(' ') + error;
        };
        QCOMPARE(meant("p1,p2,p3 speed"), QString("p1:speed=VW0 p3:speed=VW0 p2:Speed=VW4"));
        QCOMPARE(meant("p1,p2 *"), QString("p1:speed=VW0 P2:pos=VW2 p2:Speed=VW4 7:far@=VW6@7"));
        QCOMPARE(meant("p1,p2 *:s*"), QString("p1:speed=VW0 p2:Speed=VW4"));
        QCOMPARE(meant("p1,p2 P?:pos"), QString("P2:pos=VW2"));
        QCOMPARE(meant("p1,p2 *1 : VW8/h"), QString("p1:VW8=VW8"));
        QCOMPARE(meant("p1,p2 VW8"), QString("VW8=VW8"));
        QCOMPARE(meant("p1,p2 x*:speed"), QString("no controller is named like 'x*'"));
        QVERIFY(meant("p1,p2 *:XW0").startsWith("'p2:XW0' is no tag"));
        QCOMPARE(meant("p1 speed"), QString("speed=VW0 p2:Speed=VW4")); // as it stands
        QCOMPARE(meant("p2 speed"), QString("p2:Speed=VW4"));
        QCOMPARE(meant(" speed"), QString("speed=VW0 p2:Speed=VW4"));
        const auto labels = [](const QStringList& texts) {
            QVector<Tag> tags;
            for (const QString& text : texts)
                tags += TagTable().lookup(text, nullptr);
            return labelsOf(tags).join(' ');
        };
        QCOMPARE(labels({"p1:VW0", "p1:VW2/h"}), QString("VW0 VW2"));
        QCOMPARE(labels({"p1:VW0", "p1:VW0/h", "p2:VW2"}), QString("p1:VW0 p1:VW0/hex p2:VW2"));
        QCOMPARE(labels({"p1:VW0", "VW0@2", "VW2"}), QString("p1:VW0 VW0@2 VW2"));
        QCOMPARE(labels({"2:VW0", "VW0@2"}), QString("VW0 VW0@2"));
    }

    // A set of values is read back with the bits that were saved, and with what shows them.
    void valueFiles()
    {
        QVector<TagValue> values = {{tagOf("VW0x2,s,mm,0.1,5,0"), {0xFFFF, 7}},
                                    {tagOf("VW20,,,,,1"), {7}},
                                    {tagOf("VD4,f"), {0x3DCCCCCE}},
                                    {tagOf("VD8,f"), {0x7FC00001}},
                                    {tagOf("VB3,h"), {0xAB}},
                                    {tagOf("V3.0x3"), {1, 0, 1}},
                                    {tagOf("TV7"), {300}}};
        for (int i = 0; i < int(values.size()); ++i)
            values[i].tag.name = i == 6 ? QString() : QStringLiteral("n,%1\";").arg(i);
        QStringList errors;
        const QByteArray file = valueFile(values);
        const auto back =
            parseValueFile(QByteArray(file).replace("n,", "n;"), "v", nullptr, &errors);
        QVERIFY2(back && back->size() == values.size(), qPrintable(errors.join('\n')));
        for (int i = 0; i < int(values.size()); ++i) {
            const Tag& was = values.at(i).tag;
            const Tag& is = back->at(i).tag;
            QCOMPARE(is.address() + is.unit, was.address() + was.unit);
            QCOMPARE(is.text(values.at(i).elements), was.text(values.at(i).elements));
            QCOMPARE(back->at(i).elements, values.at(i).elements);
        }
        QVERIFY(!parseValueFile("name;address;value\na;VW0;70000\nb;AIW0;1\n;VD4/f;21,5\n;VW2;\n",
                                "v", nullptr, &errors));
        QVERIFY(errors.join('\n').contains("v line 2: a cannot take '70000'"));
        QVERIFY(errors.join('\n').contains("v line 3: b is an input"));
        QCOMPARE(int(errors.size()), 3);
    }
};

QTEST_GUILESS_MAIN(HostTagTest)
#include "host_tag_test.moc"
