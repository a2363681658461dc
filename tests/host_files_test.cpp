// Files of tags and of controllers as spreadsheets and people write them.

#include "host/csv.h"
#include "tests/text_table.h"
#include <s7200host/controller_file.h>
#include <s7200host/tag.h>

#include <QTemporaryDir>
#include <QtTest>

using namespace s7200;

namespace
{

const QByteArray Header =
    "name,controller,address,format,unit,scale,offset,decimals,deadband,low,high,comment\n";

/// The faults of a tag file, without its name, one to a line.
QString tagFaults(const QByteArray& csv)
{
    QStringList errors;
    const QStringList controllers = {"press1"};
    const auto table = TagTable::parse(csv, "tags", &controllers, &errors);
    if (table.has_value() != errors.isEmpty())
        return "a table and faults, or neither";
    return errors.join('\n').remove("tags line ");
}

} // namespace

class HostFilesTest : public QObject
{
    Q_OBJECT

private slots:
    // Files that say the same thing in different spelling.
    void spellings()
    {
        const QByteArray files[] = {
            "name,address,unit,comment,scale\r\na.b,VW10/s,\xC2\xB0"
            "C,\"one; \"\"two\"\"\nthree\",0.1\r\n",
            "\xEF\xBB\xBFsep=;\r\n\"Name\";ADDRESS;Dead "
            "Band;Unit;Scale;comment;;\n\na.b;vw10/signed;;\xC2\xB0"
            "C;0,1;\"one; \"\"two\"\"\nthree\";;\n;;;;\n",
            "sep=\t\ncomment\tscale\tunit\taddress\tformat\tname\n\"one; "
            "\"\"two\"\"\nthree\"\t1e-1\t\xC2\xB0"
            "C\tVW10\tS\ta.b",
            "  name ,\taddress, unit,comment ,scale\n  \n a.b  , VW10/s,\xC2\xB0"
            "C , \" one; \"\"two\"\"\nthree \" ,\t0.1 \n , ,,,\n",
            "unit\tname\taddress\tscale\tcomment\n\xC2\xB0"
            "C\ta.b\tVW10/s\t0,1\t\"one; \"\"two\"\"\nthree\"\n\t\t\t\t\n"};
        for (const QByteArray& file : files) {
            QStringList errors;
            const auto table = TagTable::parse(file, "f", nullptr, &errors);
            QVERIFY2(table && table->tags().size() == 1, qPrintable(errors.join('\n')));
            const Tag tag = table->tags().first();
            QCOMPARE(QStringList({tag.name, tag.address(), tag.unit, tag.comment, tag.text(15)}),
                     QStringList({"a.b", "VW10/signed",
                                  QString::fromUtf8("\xC2\xB0"
                                                    "C"),
                                  "one; \"two\"\nthree", "1.5"}));
        }
    }

    // Every bad line of a file is named at once, each with its number and what is wrong.
    void faults()
    {
        const QByteArray csv = Header + "a,press1,VW0\n"
                                        "b,press9,VX3,octal\n" // 3
                                        "A,PRESS1,VW2\n"
                                        ",,VW4\n"
                                        "c=d,,\n" // 6
                                        "\n"
                                        "e,,VW0,s,,0,x,12\n"
                                        "f,,VW0,h,,0.1\n" // 9
                                        "g,,M0.0,,,,,1\n"
                                        "h,,VW0,,,,,-1,-1,5,4\n"
                                        "i,,VW0,,,1.5,0.123456789\n" // 12
                                        "j,,VW0,,,,,,,,\"1,000\",,much\n"
                                        "k,,VW0,,,,,,,,,\"two\nlines\"x\n"
                                        "l,,VW0,,\xFF\n" // 16
                                        "m,,VW0,,,,,,,,,\"open\n";
        const char* const wanted = R"(3: no controller is called 'press9'
3: 'VX3/octal': no such variable
4: 'A' is already that of line 2
5: the name is missing
6: 'c=d' cannot be a name
6: the address is missing
8: offset is a number
8: the scale cannot be 0
8: decimals is 0 to 9, not '12'
9: scale, offset and decimals go with the formats unsigned, signed and float, not with hex
10: a bit takes no scale
11: decimals is 0 to 9, not '-1'
11: a dead band is 0 or more, not -1
11: the low limit 5 is above the high limit 4
12: scale and offset have more digits
13: 'much' stands in no column
13: '1,000' may be 1000 or 1.000
14: the quotes do not match
16: '\ufffd' is not UTF-8
17: the quotes do not match)";
        const QStringList got = tagFaults(csv).split('\n');
        const QStringList texts = QString(wanted).replace("\\ufffd", QChar(0xFFFD)).split('\n');
        for (int i = 0; i < int(qMax(got.size(), texts.size())); ++i)
            QVERIFY2(i < got.size() && i < texts.size() && got.at(i).startsWith(texts.at(i)),
                     qPrintable(got.value(i) + " / " + texts.value(i)));
    }

    void headerFaults()
    {
        const char* const table = R"(
            name,adress -> 1: unknown column 'adress'; the columns are name, controller, address
            name,address -> tags: there is no tag in it
            name -> 1: column address is missing | name,address,Name -> 1: column name is there twice
             -> tags: the header line is missing)";
        check(
            table,
            [](const QString& given) { return tagFaults(given.toUtf8()).section('\n', 0, 0); },
            Match::Message);
        QVERIFY(!tagFaults("name\nx,y").contains('\n')); // of the header alone
        QStringList errors;
        const QStringList known = {"press1"};
        const auto tags =
            TagTable::parse("name,address,controller\na,VW0,PRESS1\n", "f", &known, &errors);
        QVERIFY(tags && tags->tags().first().controller == "press1");
        QVERIFY(!TagTable::load("/nowhere/tags.csv", nullptr, &errors));
        QVERIFY(errors.value(0).startsWith("/nowhere/tags.csv: "));
    }

    // "1,000" may be two numbers where commas separate fields, and is one elsewhere.
    void thousands()
    {
        const char* const table = R"(
            , ; -1,000 -> 2: '-1,000' may be -1000 or -1.000 | , ; +12,345 -> 2: '+12,345' may be +12345 or
            , ; 0,125 -> | , ; 1,00 -> | , ; 1,0000 -> | ; ; -1,000 -> | , ; 1234,567 -> )";
        check(
            table,
            [](const QString& given) {
                const QString separator = given.left(1);
                return tagFaults(QStringLiteral("name%1address%1offset\na%1VW0%1\"%2\"\n")
                                     .arg(separator, given.mid(4))
                                     .toUtf8());
            },
            Match::Message);
    }

    // However wrong or large a file is, what is said of it has an end.
    void hopelessFiles()
    {
        QByteArray csv = "name,address\n";
        for (int i = 2; i <= 10001; ++i)
            csv += "a" + QByteArray::number(i) + ",XW1\n";
        QStringList faults = tagFaults(csv + "b,\"\n").split('\n');
        QCOMPARE(int(faults.size()), 21);
        QVERIFY2(faults.at(19).startsWith("21: 'XW1'"), qPrintable(faults.at(19)));
        QCOMPARE(faults.last(), QString("tags: 9981 more faults"));
        QStringList texts;
        for (int i = 1; i <= 21; ++i)
            texts.append(QString::number(i));
        QCOMPARE(firstOf(texts.mid(1)), texts.mid(1));
        QCOMPARE(firstOf(texts), texts.mid(0, 20) << "and 1 more such");

        const QTemporaryDir directory;
        QFile file(directory.filePath("f"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("name,address\na,VW0\n");
        file.write(QByteArray(int(LargestFile - file.pos()), '\n'));
        QVERIFY(file.flush());
        QStringList errors;
        const auto whole = TagTable::load(file.fileName(), nullptr, &errors);
        QVERIFY2(whole && whole->tags().size() == 1, qPrintable(errors.join('\n')));
        file.write("\n");
        file.close();
        QStringList names = {file.fileName()};
        if (QFile::exists("/dev/zero"))
            names.append("/dev/zero");
        for (const QString& name : names) {
            errors.clear();
            QVERIFY(!TagTable::load(name, nullptr, &errors));
            QCOMPARE(errors.join('\n'),
                     name + ": more than 16 MiB; a file of this kind is never so large");
        }
    }

    void controllers()
    {
        ControllerSettings defaults;
        defaults.timeoutMs = 700;
        QStringList errors;
        const auto good = parseControllers("name;host;port;Local TSAP;remote_tsap;retries\n"
                                           "p1;10.0.0.5;;4d.57;0200;0\np2;plc;1102;;;\n",
                                           "c", defaults, &errors);
        QVERIFY2(good && good->size() == 2, qPrintable(errors.join('\n')));
        const ControllerSettings& p1 = good->first();
        QVERIFY(p1.name == "p1" && p1.endpoint.host == "10.0.0.5" && p1.endpoint.port == 102 &&
                p1.localTsap == 0x4D57 && p1.remoteTsap == 0x0200 && p1.retries == 0);
        QVERIFY(p1.timeoutMs == 700 && good->last().endpoint.port == 1102 &&
                good->last().remoteTsap == defaults.remoteTsap);
        QVERIFY(!parseControllers("name,host,port,local_tsap,remote_tsap,timeout,retries,interval\n"
                                  "p1,a b,0,10,1.00,0,1001,-1\nP1,\n,h\n1:2,h:1",
                                  "c", defaults, &errors));
        const QString all = errors.join('\n');
        for (const char* text : {"2: 'a b' is no host", "2: port is a whole number from 1 to 65535",
                                 "2: local_tsap is two hexadecimal bytes", "2: remote_tsap",
                                 "2: timeout", "2: retries", "2: interval", "3: the host",
                                 "3: 'P1' is already the name of line 2", "4: the name is missing",
                                 "5: '1:2' cannot be a controller's name", "5: 'h:1' is no host"})
            QVERIFY2(all.contains(QString("c line ") + text), text);
        QCOMPARE(int(errors.size()), 12);
    }
};

QTEST_GUILESS_MAIN(HostFilesTest)
#include "host_files_test.moc"
