// Sets of values, and single ones, through the program: what it writes, prints and leaves alone.

#include "tests/panel_process.h"

#include <s7200host/controller.h>

#include <sys/stat.h>

using namespace s7200::panel;
using namespace s7200::sim;

namespace
{

const QByteArray Tags = "name,address,format,unit,scale\n"
                        "speed,VW100,signed,rpm,0.1\n"
                        "temp,VD104,float,,\n"
                        "mode,VB111,hex,,\n"
                        "zones,VW112x2,,mm,0.01\n"
                        "run,M0.3,,,\n"
                        "in,AIW2,,,\n";

const QByteArray Saved = "name,controller,address,format,unit,scale,offset,decimals,value\n"
                         "speed,,VW100,signed,rpm,0.1,0,,-12.3\n"
                         "temp,,VD104,float,,,,,21.5\n"
                         "mode,,VB111,hex,,,,,0x00\n"
                         "zones,,VW112x2,,mm,0.01,0,,\"0.07,655.35\"\n"
                         "run,,M0.3,,,,,,1\n";

struct Run {
    int status = -1;
    QString out;
    QString err;
};

} // namespace

class PanelSetsTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SimulatorOptions options;
        options.liveValues = false;
        m_simulator.reset(new SimulatorThread(options));
        QString error;
        QVERIFY2(m_simulator->start(&error), qPrintable(error));
        m_address = QStringLiteral("127.0.0.1:%1").arg(m_simulator->port());
        put("tags.csv", Tags);
        put("values.csv", Saved);
    }

    // What is saved, changed, compared and applied; only what differs is written, and nothing
    // beside it.
    void roundTrip()
    {
        const QByteArray memory = QByteArray::fromHex("ff85eeee41ac0000eeeeee000007ffffeeee");
        m_simulator->poke(SimulatorArea::V, 100, memory);
        m_simulator->poke(SimulatorArea::M, 0, QByteArray(1, '\xFF'));
        const Run save = run("save --tags tags.csv");
        QCOMPARE(save.status, 0);
        QCOMPARE(save.out, QString(Saved));
        QVERIFY2(save.err.contains("left out, since it cannot be written: in\n"), "inputs");
        QCOMPARE(run("diff values.csv").status, 0);

        // The same in a file, which is as it was unless all could be read and written.
        put("set.csv", "old");
        const Run half = run("save --output set.csv VW0 MW4000");
        QCOMPARE(half.status, 6);
        QVERIFY2(half.out.isEmpty() && half.err.contains("nothing saved"), qPrintable(half.err));
        QCOMPARE(contentsOf("set.csv"), QByteArray("old"));
        QCOMPARE(run("save --output set.csv --tags tags.csv").status, 0);
        QCOMPARE(contentsOf("set.csv"), Saved);
        QCOMPARE(::mkfifo(QFile::encodeName(m_directory.filePath("pipe")).constData(), 0600), 0);
        for (const QString file : {"pipe", "none/set.csv", "."}) {
            const Run nowhere = run("save VW0 --output " + file);
            QVERIFY2(nowhere.status == 2 && nowhere.err.contains("cannot write to " + file),
                     qPrintable(nowhere.err));
        }
        QCOMPARE(QDir(m_directory.path()).entryList(QDir::Files),
                 QStringList({"set.csv", "tags.csv", "values.csv"}));

        m_simulator->poke(SimulatorArea::V, 100, QByteArray::fromHex("0005"));
        m_simulator->poke(SimulatorArea::V, 111, QByteArray::fromHex("80"));
        const Run diff = run("diff values.csv");
        QCOMPARE(diff.status, 1);
        QCOMPARE(diff.out, QString("speed: saved -12.3 rpm, now 0.5 rpm\n"
                                   "mode: saved 0x00, now 0x80\n"));
        const Run apply = run("apply --verify values.csv --trace -");
        QCOMPARE(apply.out, QString("speed: verified, -12.3 rpm instead of 0.5 rpm\n"
                                    "temp: verified, was so already\n"
                                    "mode: verified, 0x00 instead of 0x80\n"
                                    "zones: verified, was so already\n"
                                    "run: verified, was so already\n"));
        QCOMPARE(apply.status, 0);
        // One word, and the eight bits of a byte.
        QCOMPARE(int(apply.err.count("0501120a10")), 9);
        QCOMPARE(m_simulator->peek(SimulatorArea::V, 100, int(memory.size())), memory);
    }

    // Nothing is sent unless every line is good and every variable can be read; of each one it is
    // said what has become of it.
    void whatCannotBeApplied()
    {
        put("values.csv", Saved + "far,,VW9999x9,,,,,,1\nlow,,VB0,,,,,,300\n");
        const Run bad = run("apply values.csv");
        QCOMPARE(bad.status, 2);
        QVERIFY2(bad.err.contains("line 7: far takes 9 values") &&
                     bad.err.contains("line 8: low cannot take '300'"),
                 qPrintable(bad.err));
        put("values.csv", "name,address,value\na,MW4000,1\nb,VW0,1\n");
        const Run unreadable = run("apply values.csv");
        QCOMPARE(unreadable.status, 6);
        QVERIFY(unreadable.err.contains("nothing written"));
        QVERIFY2(QRegularExpression("^a: refused when read, .*; not written\nb: not written\n$")
                     .match(unreadable.out)
                     .hasMatch(),
                 qPrintable(unreadable.out));
        QCOMPARE(m_simulator->peek(SimulatorArea::V, 0, 2), QByteArray(2, '\0'));
        // What was read is told, and that it is not all.
        const Run partly = run("diff values.csv");
        QCOMPARE(partly.status, 6);
        QCOMPARE(partly.out, QString("b: saved 1, now 0\n"));
        QVERIFY2(partly.err.contains("a: refused by"), qPrintable(partly.err));
        put("values.csv", "name;address;value\na;SM0.0;0\nb;VW0;7\n");
        const Run refused = run("apply --verify values.csv");
        QCOMPARE(refused.status, 6);
        QVERIFY2(QRegularExpression("^a: refused, .*; not written\nb: verified, 7 instead of 0\n$")
                     .match(refused.out)
                     .hasMatch(),
                 qPrintable(refused.out));
        m_simulator->stop();
        const Run gone = run("apply values.csv");
        QCOMPARE(gone.status, 3);
        QCOMPARE(gone.out, QString("a: not reached\nb: not reached\n"));
        const Run save = run("save VW0");
        QCOMPARE(save.status, 3);
        QCOMPARE(save.out, QString());
    }

    // It goes on with a new connection, and what is not known is neither refused nor unreached.
    void closedMeanwhile()
    {
        QByteArray values = "name,address,value\n";
        QString verified;
        for (int i = 0; i < 8; ++i) {
            values += "v" + QByteArray::number(i) + ",VW" + QByteArray::number(300 * i) + ",7\n";
            verified += QString("v%1: verified, 7 instead of 0\n").arg(i);
        }
        put("values.csv", values);
        QString error;
        QVERIFY(m_simulator->setFaults({"close-mid-frame:every 8"}, &error));
        const Run apply = run("apply --verify values.csv");
        QCOMPARE(apply.out, verified);
        QCOMPARE(apply.status, 0);
        QVERIFY(m_simulator->setFaults({"wrong-length"}, &error));
        const Run unknown = run("write --retries 0 VW0=8");
        QVERIFY2(unknown.err.contains("sent, but whether it was written is not known: a reply of"),
                 qPrintable(unknown.err));
        QCOMPARE(unknown.status, 5);
        QCOMPARE(m_simulator->peek(SimulatorArea::V, 0, 2), QByteArray::fromHex("0008"));
        // Eight bits, of which the last ones do not arrive.
        QVERIFY(m_simulator->setFaults({"item-error:every 5"}, &error));
        const QString refused = run("write VB121=255").err;
        QVERIFY2(refused.contains("object does not exist, but a part of it was written"),
                 qPrintable(refused));
        QVERIFY(m_simulator->setFaults({"close-mid-frame:every 6"}, &error));
        const QString broken = run("write --verify VB123=255").err;
        QVERIFY2(broken.contains(QRegularExpression("reads back \\d+ in place of 255: the conn")),
                 qPrintable(broken));
    }

    // Of what is refused it is said whether it was written: a part of it, or all but not read back.
    void refusedInParts()
    {
        put("values.csv", "name,address,value\na,VB121,255\n");
        QString error;
        QVERIFY(m_simulator->setFaults({"item-error:every 5"}, &error)); // the third of eight bits
        const Run part = run("apply values.csv");
        QVERIFY2(QRegularExpression("^a: refused, .*, but a part of it was written\n$")
                     .match(part.out)
                     .hasMatch(),
                 qPrintable(part.out));
        put("values.csv", "name,address,value\na,VW0,255\n");
        QVERIFY(m_simulator->setFaults({"item-error:every 3"}, &error)); // read, written, read
        const Run unread = run("apply --verify --retries 0 values.csv");
        QCOMPARE(unread.status, 5);
        QVERIFY2(unread.out.startsWith("a: written, not read back: "), qPrintable(unread.out));
    }

    // A tag of no controller is one of each that has none of its name; labels say whose a value is,
    // whatever else is shown.
    void severalControllers()
    {
        SimulatorThread other{SimulatorOptions()};
        QString error;
        QVERIFY(other.start(&error));
        put("tags.csv", "name,controller,address\nspeed,,VW100\nspeed,p2,VW102\nmode,,VB111\n");
        for (SimulatorThread* each : {m_simulator.get(), &other})
            each->poke(SimulatorArea::V, 100, QByteArray::fromHex("00010002eeeeeeeeeeeeee03"));
        const auto panel = [&](const QString& line) {
            return runProgram(line.split(' ')
                              << "--controller"
                              << "p1=" + m_address << "--controller"
                              << QStringLiteral("p2=127.0.0.1:%1").arg(other.port()));
        };
        const QString all = "p1:speed 1\np2:speed 2\np1:mode 3\np2:mode 3\n";
        QCOMPARE(panel("read --tags tags.csv *").out, all);
        const Run watch = panel("watch --tags tags.csv --count 1 --timeout 20000");
        QCOMPARE(watch.status, 0);
        for (const QString& line : all.split('\n'))
            QVERIFY2(watch.out.contains(line), qPrintable(watch.out + watch.err));
        QCOMPARE(panel("read --tags tags.csv p1:mode p1:VW100 *:VB111").out,
                 QString("p1:mode 3\np1:VW100 1\np1:VB111 3\np2:VB111 3\n"));
        QCOMPARE(panel("write --tags tags.csv --verify p1:speed=5").out, QString("p1:speed 5\n"));
        const Run save = panel("save --tags tags.csv");
        QVERIFY2(save.out.contains("\nspeed,p1,VW100,,,,,,5\n") &&
                     save.out.contains("\nspeed,p2,VW102,,,,,,2\n"),
                 qPrintable(save.out));
        QVERIFY(
            panel("read --format csv p1:VW100 --tags tags.csv").out.contains(",p1,VW100,VW100,"));
        QVERIFY(panel("write --tags tags.csv speed=1").err.contains("2 tags"));
        QVERIFY(panel("write --tags tags.csv mode=1").err.contains("as in p1:mode"));
        // One alone has no need to be told apart.
        QCOMPARE(run("read --tags tags.csv mode").out, QString("mode 3\n"));
    }

    // A write changes nothing beside what it names, and reads back in the format that was written.
    void writes()
    {
        m_simulator->poke(SimulatorArea::V, 20, QByteArray(12, '\xEE'));
        const Run write = run("write --verify --tags tags.csv VB21x3=1,2,3 VB26x2=0x4,0xFF VW28=-2 "
                              "VD32=21.5 speed=-0.7");
        QCOMPARE(write.status, 0);
        QCOMPARE(write.out,
                 QString("VB21x3 1 2 3\nVB26x2 0x04 0xFF\nVW28 -2\nVD32 21.5\nspeed -0.7\n"));
        QCOMPARE(m_simulator->peek(SimulatorArea::V, 20, 12),
                 QByteArray::fromHex("ee010203eeee04fffffeeeee"));
        const Run wrong = run("write --tags tags.csv VW20=1 speed=0.75 temp=x in=1");
        QCOMPARE(wrong.status, 2);
        QCOMPARE(int(wrong.err.count('\n')), 3);
        QCOMPARE(m_simulator->peek(SimulatorArea::V, 20, 2), QByteArray::fromHex("ee01"));
        const QString err = runProgram({"write", "VW0=1"}).err;
        QVERIFY2(err.contains("--controller"), qPrintable(err));
    }

    // Neighbours are read together, and each gets what it gets alone.
    void neighbours()
    {
        QByteArray memory;
        for (int i = 0; i < 220; ++i)
            memory.append(char(0x35 + 7 * i));
        m_simulator->poke(SimulatorArea::V, 200, memory);
        m_simulator->poke(SimulatorArea::M, 0, memory.left(9));
        m_simulator->poke(SimulatorArea::AIW, 0, memory.left(8));
        m_simulator->poke(SimulatorArea::Timer, 5, QByteArray::fromHex("0000000007"));
        m_simulator->poke(SimulatorArea::Timer, 10, QByteArray::fromHex("0000000008"));
        const QString variables = "VD203 VW200 V201.3x9 TV9x2 VB207 VB411 VW206/s VW413 MB3 MD1 "
                                  "M2.7x2 TV5 CV3 AIW6 AIW2 VD203";
        QString alone;
        for (const QString& variable : variables.split(' '))
            alone += run("read " + variable).out;
        const Run together = run("read --trace - " + variables);
        QCOMPARE(together.out, alone);
        // VW413 would be beyond what one request brings.
        QCOMPARE(int(together.err.count(QRegularExpression("0401120a1002....000184"))), 2);
    }

    void reads()
    {
        const Run text = run("read --tags tags.csv s* VW100 VW100/h MW254 MW256");
        QCOMPARE(text.status, 6);
        QCOMPARE(text.out, QString("speed 0.0 rpm\nVW100 0\nVW100/hex 0x0000\nMW254 0\n"));
        // Programs get a record of what could not be read, too.
        const QString csv = run("read --format csv VW100 MW4000").out;
        QVERIFY2(QRegularExpression("^time,[^\n]*\n[^\n]*,VW100,VW100,0,,good\n"
                                    "[^\n]*,MW4000,MW4000,,,refused\n$")
                     .match(csv)
                     .hasMatch(),
                 qPrintable(csv));
        QCOMPARE(run("read --format xml VW0").status, 2);
        if (QFile::exists("/dev/full")) {
            const Run full = run("read VW0", "/dev/full");
            QCOMPARE(full.status, 7);
            QVERIFY2(full.err.contains("No space left"), qPrintable(full.err));
        }
    }

    // Sent is sent: a connection that is closed then is no reason to write again.
    void sentOnce()
    {
        QString error;
        QVERIFY(m_simulator->setFaults({"close-mid-frame:address 40"}, &error));
        const Run write = run("write --trace - VW40=7");
        QCOMPARE(write.status, 3);
        QVERIFY2(write.err.contains("VW40: 127.0.0.1") &&
                     write.err.contains("sent, but whether it was written is not known: "),
                 qPrintable(write.err));
        QCOMPARE(int(write.err.count("0501120a10")), 1);
    }

    // A set that the file system has no room for leaves the one that was there.
    void noRoomForASet()
    {
        put("set.csv", "old");
        QString error;
        // A copy of the driver has room.
        const qint64 room = QFileInfo(s7200::findDriver(QString(), &error)).size() + 4096;
        QString line = "save --output set.csv --controller " + m_address;
        for (int i = 0; i <= room / 50000; ++i)
            line += " VB0x5120/binary";
        QProcess shell;
        shell.setWorkingDirectory(m_directory.path());
        shell.start(
            "sh",
            {"-c",
             QStringLiteral("ulimit -f %1; exec " PANEL_PROGRAM " %2").arg(room / 512).arg(line)});
        QVERIFY(shell.waitForFinished(LongMs));
        const QByteArray err = shell.readAllStandardError();
        QVERIFY2(shell.exitCode() == 7 && err.contains("cannot write to set.csv: "), err);
        QCOMPARE(contentsOf("set.csv"), QByteArray("old"));
        QCOMPARE(int(QDir(m_directory.path()).entryList(QDir::Files).size()), 3);
    }

private:
    QByteArray contentsOf(const QString& name) const
    {
        QFile file(m_directory.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
    }

    void put(const QString& name, const QByteArray& contents)
    {
        QFile file(m_directory.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size());
    }

    Run run(const QString& line, const QString& output = QString())
    {
        return runProgram(line.split(' ') << "--controller" << m_address, output);
    }

    Run runProgram(const QStringList& arguments, const QString& output = QString())
    {
        Panel panel(arguments, output, m_directory.path());
        const int status = panel.finish();
        return {status, QString::fromUtf8(panel.process.readAllStandardOutput()),
                QString::fromUtf8(panel.process.readAllStandardError())};
    }

    const QTemporaryDir m_directory;
    std::unique_ptr<SimulatorThread> m_simulator;
    QString m_address;
};

QTEST_GUILESS_MAIN(PanelSetsTest)
#include "panel_sets_test.moc"
