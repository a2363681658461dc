// Every kind of frame that the driver sends, decoded by a packet analyser that knows nothing of it.

#include "core/siemens_s7_200.h"
#include "protocol/Func_HandShake.h"
#include "protocol/Func_Read.h"
#include "protocol/Func_Write.h"
#include "tests/driver_fixture.h"
#include "wire/frame_trace.h"
#include <siemens_s7_200_cp243/host_interface.h>

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using s7200::wire::FrameTrace;

namespace
{

enum Direction { Read, Write };

/// One frame and the fields that the analyser must see in it.
struct Case {
    const char* label;
    Direction direction;
    int regType;
    const char* name;
    int address;
    int count;
    const char* value; ///< Hex, host encoding.
    const char* item;  ///< Function, transport size, length, DB, area, bit address or number.
    const char* data;  ///< Data length; a write's data item: transport size, length in bytes.
};

const Case Cases[] = {
    {"I bits", Read, 0, "I", 11, 2, "", "0x04,2,2,0,0x81,8", "0"},
    {"Q bits", Read, 1, "Q", 8, 2, "", "0x04,2,2,0,0x82,8", "0"},
    {"M bits", Read, 2, "M", 83, 2, "", "0x04,2,2,0,0x83,80", "0"},
    {"S bits", Read, 3, "S", 0, 1, "", "0x04,2,1,0,0x04,0", "0"},
    {"SM bits", Read, 4, "SM", 5, 1, "", "0x04,2,1,0,0x05,0", "0"},
    {"V bits", Read, 5, "V", 10, 1, "", "0x04,2,1,1,0x84,80", "0"},
    {"IW", Read, 6, "IW", 2, 4, "", "0x04,2,4,0,0x81,16", "0"},
    {"QW", Read, 7, "QW", 2, 4, "", "0x04,2,4,0,0x82,16", "0"},
    {"MW", Read, 8, "MW", 2, 4, "", "0x04,2,4,0,0x83,16", "0"},
    {"SW", Read, 9, "SW", 2, 4, "", "0x04,2,4,0,0x04,16", "0"},
    {"SMW", Read, 10, "SMW", 2, 4, "", "0x04,2,4,0,0x05,16", "0"},
    {"VB", Read, 11, "VB", 100, 222, "", "0x04,2,222,1,0x84,800", "0"},
    {"VW", Read, 12, "VW", 100, 4, "", "0x04,2,4,1,0x84,800", "0"},
    {"VD", Read, 13, "VD", 8000, 4, "", "0x04,2,4,1,0x84,64000", "0"},
    {"TV", Read, 14, "TV", 37, 2, "", "0x04,31,2,0,0x1f,37", "0"},
    {"CV", Read, 15, "CV", 5, 3, "", "0x04,30,3,0,0x1e,5", "0"},
    {"AIW", Read, 16, "AIW", 2, 3, "", "0x04,4,3,0,0x06,16", "0"},
    {"AQW", Read, 17, "AQW", 4, 1, "", "0x04,4,1,0,0x07,32", "0"},
    {"T", Read, 18, "T", 37, 1, "", "0x04,31,1,0,0x1f,37", "0"},
    {"C", Read, 19, "C", 5, 1, "", "0x04,30,1,0,0x1e,5", "0"},
    {"ID", Read, 20, "ID", 0, 4, "", "0x04,2,4,0,0x81,0", "0"},
    {"QD", Read, 21, "QD", 0, 4, "", "0x04,2,4,0,0x82,0", "0"},
    {"MD", Read, 22, "MD", 0, 4, "", "0x04,2,4,0,0x83,0", "0"},
    {"SD", Read, 23, "SD", 0, 4, "", "0x04,2,4,0,0x04,0", "0"},
    {"SMD", Read, 24, "SMD", 0, 4, "", "0x04,2,4,0,0x05,0", "0"},

    {"write Q bit", Write, 1, "Q", 11, 1, "01", "0x05,1,1,0,0x82,11", "5,0x03,1"},
    {"write M bit", Write, 2, "M", 83, 1, "01", "0x05,1,1,0,0x83,83", "5,0x03,1"},
    {"write S bit", Write, 3, "S", 9, 1, "00", "0x05,1,1,0,0x04,9", "5,0x03,1"},
    {"write SM bit", Write, 4, "SM", 245, 1, "01", "0x05,1,1,0,0x05,245", "5,0x03,1"},
    {"write V bit", Write, 5, "V", 7, 1, "01", "0x05,1,1,1,0x84,7", "5,0x03,1"},
    {"write QW", Write, 7, "QW", 100, 1, "3412", "0x05,4,1,0,0x82,800", "6,0x04,2"},
    {"write MW block", Write, 8, "MW", 20, 2, "34127856", "0x05,4,2,0,0x83,160", "8,0x04,4"},
    {"write SW", Write, 9, "SW", 0, 1, "0100", "0x05,4,1,0,0x04,0", "6,0x04,2"},
    {"write SMW", Write, 10, "SMW", 34, 1, "0100", "0x05,4,1,0,0x05,272", "6,0x04,2"},
    {"write VB", Write, 11, "VB", 7, 1, "0500", "0x05,4,1,1,0x84,56", "6,0x04,2"},
    {"write VW block", Write, 12, "VW", 0, 3, "010002000300", "0x05,4,3,1,0x84,0", "10,0x04,6"},
    {"write VD", Write, 13, "VD", 8, 2, "01020304", "0x05,4,2,1,0x84,64", "8,0x04,4"},
    {"write TV", Write, 14, "TV", 5, 1, "2c01", "0x05,31,1,0,0x1f,5", "9,0x04,5"},
    {"write CV block", Write, 15, "CV", 3, 2, "0a000b00", "0x05,30,2,0,0x1e,3", "10,0x04,6"},
    {"write AQW", Write, 17, "AQW", 0, 1, "0010", "0x05,4,1,0,0x07,0", "6,0x04,2"},
    {"write QD", Write, 21, "QD", 0, 2, "01020304", "0x05,4,2,0,0x82,0", "8,0x04,4"},
    {"write MD", Write, 22, "MD", 0, 2, "01020304", "0x05,4,2,0,0x83,0", "8,0x04,4"},
    {"write SD", Write, 23, "SD", 0, 2, "01020304", "0x05,4,2,0,0x04,0", "8,0x04,4"},

    // Odd on purpose. A block of bits declares an eighth of the bytes it sends (and not in bits):
    // the analyser reads the declared part and finds garbage behind it.
    {"odd: write M bit block", Write, 2, "M", 80, 16, "01010101010101010101010101010101",
     "0x05,2,2,0,0x83,80", "6,0x04,1"},
    // A double word of special memory goes to the area after the one it is read from.
    {"odd: write SMD", Write, 24, "SMD", 4, 2, "01020304", "0x05,4,2,0,0x85,32", "8,0x04,4"},
    // Counts of 0 ask for nothing and write nothing.
    {"odd: read none", Read, 12, "VW", 100, 0, "", "0x04,2,0,1,0x84,800", "0"},
    {"odd: write no bits", Write, 2, "M", 80, 0, "", "0x05,0,0,0,0x83,80", "4,0x04,0"},
    {"odd: write no words", Write, 12, "VW", 0, 0, "", "0x05,4,0,1,0x84,0", "4,0x04,0"},
};
constexpr quint16 FirstPduReference = 0x0105;

QStringList analyse(const QString& file, const QStringList& fields, const QString& filter)
{
    QStringList arguments = {"-n",     "-r", file,          "-Y", filter,        "-T",
                             "fields", "-E", "separator=|", "-E", "occurrence=f"};
    for (const QString& field : fields)
        arguments << "-e" << field;
    QProcess tshark;
    tshark.start("tshark", arguments);
    if (!tshark.waitForFinished(120000) || tshark.exitCode() != 0)
        return {"tshark (package tshark) did not run: " + tshark.errorString() + ' ' +
                QString::fromLocal8Bit(tshark.readAllStandardError())};
    return QString::fromLatin1(tshark.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
}

} // namespace

class AnalyserTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void handshake();
    void requests_data();
    void requests();
    void onlyTheOddFramesAreRemarked();

private:
    /// Frames `request`, gives every frame a connection of its own in the capture.
    void record(const QList<Protocol>& frames);

    DriverFixture m_driver;
    QTemporaryDir m_folder;
    QString m_file;
    std::unique_ptr<FrameTrace> m_trace;
    QStringList m_requests;
    QStringList m_remarks;
};

void AnalyserTest::record(const QList<Protocol>& frames)
{
    const int connection = m_trace->newConnection();
    for (const Protocol& pending : frames)
        m_trace->record(connection, FrameTrace::ToController, pending.frame);
}

void AnalyserTest::initTestCase()
{
    QString error;
    m_file = m_folder.filePath("frames.pcap");
    m_trace = FrameTrace::open(m_file, FrameTrace::KeepExisting, &error);
    QVERIFY2(m_trace, qPrintable(error));

    m_driver.reset();
    RW_VAR first;
    SIEMENS_HandShake(&first);
    record(PLC_driver.protocol_list);
    quint16 reference = FirstPduReference;
    for (const Case& request : Cases) {
        PLC_driver.protocol_list.clear();
        RW_VAR var;
        var.reg_type = request.regType;
        var.name = request.name;
        var.address = request.address;
        var.count = request.count;
        var.value = QByteArray::fromHex(request.value);
        map_list[0].pdu_ref = reference++;
        request.direction == Read ? ReadRegister(&var) : WriteRegister(&var);
        QVERIFY2(PLC_driver.protocol_list.size() == 1, request.label);
        record(PLC_driver.protocol_list);
    }
    m_trace.reset();
    m_requests = analyse(m_file,
                         {"tcp.stream", "s7comm.header.pduref", "s7comm.param.func",
                          "s7comm.param.item.transp_size", "s7comm.param.item.length",
                          "s7comm.param.item.db", "s7comm.param.item.area",
                          "s7comm.param.item.address", "s7comm.param.item.address.number",
                          "s7comm.header.datlg", "s7comm.data.transportsize", "s7comm.data.length"},
                         "s7comm");
    m_remarks = analyse(m_file, {"tcp.stream"},
                        "_ws.malformed or tcp.analysis.flags or _ws.expert.severity >= 0x400000");
}

void AnalyserTest::handshake()
{
    const QStringList request =
        analyse(m_file, {"tpkt.length", "cotp.li", "cotp.type", "cotp.srcref", "cotp.tpdu_size"},
                "tcp.stream == 0 and cotp.type == 0x0e");
    QCOMPARE(request, QStringList{"22|17|0x0e|0x0001|512"});
    const QStringList setup = analyse(m_file,
                                      {"s7comm.header.rosctr", "s7comm.header.pduref",
                                       "s7comm.param.func", "s7comm.param.maxamq_calling",
                                       "s7comm.param.maxamq_called", "s7comm.param.pdu_length"},
                                      "tcp.stream == 0 and s7comm");
    QCOMPARE(setup, QStringList{"1|264|0xf0|1|1|240"});
}

void AnalyserTest::requests_data()
{
    QTest::addColumn<int>("index");
    int index = 0;
    for (const Case& request : Cases)
        QTest::newRow(request.label) << index++;
}

void AnalyserTest::requests()
{
    QFETCH(int, index);
    const Case& request = Cases[index];
    const QString stream = QString::number(index + 1);
    QStringList seen;
    for (const QString& line : m_requests) {
        if (line.section('|', 0, 0) == stream)
            seen = line.split('|');
    }
    QVERIFY2(seen.size() == 12, qPrintable(m_requests.join('\n')));
    QCOMPARE(seen.at(1), QString::number(FirstPduReference + index));
    const QString address = seen.at(8).isEmpty() ? seen.at(7) : seen.at(8);
    const QString decimal = QString::number(address.toUInt(nullptr, 0));
    QCOMPARE((seen.mid(2, 5) << decimal).join(','), QString(request.item));
    QStringList data = seen.mid(9);
    data.removeAll(QString());
    QCOMPARE(data.join(','), QString(request.data));
}

void AnalyserTest::onlyTheOddFramesAreRemarked()
{
    for (const QString& stream : m_remarks) {
        const int index = stream.toInt() - 1;
        QVERIFY2(index >= 0 && QByteArray(Cases[index].label).startsWith("odd:"),
                 qPrintable("the analyser complains about stream " + stream));
    }
}

QTEST_GUILESS_MAIN(AnalyserTest)
#include "analyser_test.moc"
