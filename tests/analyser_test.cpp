// The frames that the driver sends, decoded by a packet analyser that knows nothing of it.

#include "protocol/Func_HandShake.h"
#include "protocol/Func_Read.h"
#include "protocol/Func_Write.h"
#include "tests/driver_fixture.h"
#include "wire/frame_trace.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using s7200::wire::FrameTrace;

class AnalyserTest : public QObject, private DriverFixture
{
    Q_OBJECT

    QTemporaryDir m_folder;
    QString m_file = m_folder.filePath("frames.pcap");
    std::unique_ptr<FrameTrace> m_trace;
    QStringList m_odd; ///< Connections that the analyser may remark on.

    QStringList analyse(const QStringList& fields, const QString& filter)
    {
        QStringList arguments = {"-n",     "-r", m_file,        "-Y", filter,        "-T",
                                 "fields", "-E", "separator=|", "-E", "occurrence=f"};
        for (const QString& field : fields)
            arguments << "-e" << field;
        QProcess tshark;
        tshark.start("tshark", arguments);
        if (!tshark.waitForFinished(120000) || tshark.exitCode() != 0)
            return {"tshark did not run: " + tshark.errorString() + ' ' +
                    QString::fromLocal8Bit(tshark.readAllStandardError())};
        return QString::fromLatin1(tshark.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    }

    /// Gives what one request makes a connection of its own in the capture.
    void record(void (*build)(RW_VAR*), int regType, int count, bool odd = false)
    {
        RW_VAR var = makeVar(regType, 80, count, 2, QByteArray(16, '\1'));
        var.name = regType == 15 || regType == 19 ? "C" : "T";
        PLC_driver.protocol_list.clear();
        build(&var);
        const int connection = m_trace->newConnection();
        for (const Protocol& pending : qAsConst(PLC_driver.protocol_list))
            m_trace->record(connection, FrameTrace::ToController, pending.frame);
        if (odd)
            m_odd << QString::number(connection);
    }

private slots:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("tshark").isEmpty())
            QSKIP("the packet analyser (package tshark) is not installed");
        QString error;
        m_trace = FrameTrace::open(m_file, FrameTrace::KeepExisting, &error);
        QVERIFY2(m_trace, qPrintable(error));
        reset();
        connectStation(2);
        record(SIEMENS_HandShake, 12, 1);
        for (int type = 0; type < 25; ++type) {
            record(ReadRegister, type, 2);
            // A double word of special memory goes to the area after the one it is read from.
            record(WriteRegister, type, type >= 13 && type != 17 ? 2 : 1, type == 24);
        }
        // A block of bits declares an eighth of the bytes that it sends: the analyser reads the
        // declared part and finds garbage behind it. Counts of 0 ask for nothing.
        record(WriteRegister, 2, 16, true);
        record(ReadRegister, 12, 0, true);
        record(WriteRegister, 2, 0, true);
        record(WriteRegister, 12, 0, true);
        m_trace.reset();
    }

    void handshake()
    {
        QCOMPARE(analyse({"tpkt.length", "cotp.li", "cotp.type", "cotp.srcref", "cotp.tpdu_size"},
                         "tcp.stream == 0 and cotp.type == 0x0e"),
                 QStringList{"22|17|0x0e|0x0001|512"});
        QCOMPARE(analyse({"s7comm.header.rosctr", "s7comm.header.pduref", "s7comm.param.func",
                          "s7comm.param.maxamq_calling", "s7comm.param.maxamq_called",
                          "s7comm.param.pdu_length"},
                         "tcp.stream == 0 and s7comm"),
                 QStringList{"1|264|0xf0|1|1|240"});
    }

    void onlyTheOddFramesAreRemarked()
    {
        QCOMPARE(int(analyse({"tcp.stream"}, "s7comm and tcp.stream > 0").size()), 25 + 19 + 4);
        for (const QString& stream :
             analyse({"tcp.stream"},
                     "_ws.malformed or tcp.analysis.flags or _ws.expert.severity >= 0x400000"))
            QVERIFY2(m_odd.contains(stream), qPrintable("a remark on connection " + stream));
    }
};

QTEST_GUILESS_MAIN(AnalyserTest)
#include "analyser_test.moc"
