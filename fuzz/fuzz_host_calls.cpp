// A host that says absurd things: every entry point with any count, address, name, station, mode
// and limit, between turns of the communication loop. The first byte chooses the method for
// stations, each further call starts with the byte that names it.

#include "fuzz/reply_model.h"
#include "fuzz/support.h"
#include "varlists/Func_Initi.h"

#include <utility>

namespace
{

constexpr int MostCalls = 48;
constexpr int QueueLimit = 1024;
constexpr int LargestRange = 0xFFFF; ///< Bytes or elements that one listed variable covers.
constexpr int LargestArea = 10240;   ///< Bytes; also the extend-list entries one call may visit.

/// Where a host write of each register type may change the image: `unitBits` per element.
struct WriteRow {
    int area;
    int unitBits;
};
constexpr WriteRow NoWrite = {-1, 0};
const WriteRow WriteRows[] = {{ImageArea::I, 1},
                              {ImageArea::Q, 1},
                              {ImageArea::M, 1},
                              {ImageArea::S, 1},
                              {ImageArea::SM, 1},
                              {ImageArea::V, 1},
                              {ImageArea::I, 16},
                              {ImageArea::Q, 16},
                              {ImageArea::M, 16},
                              {ImageArea::S, 16},
                              {ImageArea::SM, 16},
                              {ImageArea::V, 8},
                              {ImageArea::V, 16},
                              {ImageArea::V, 16},
                              {ImageArea::TV, 16},
                              {ImageArea::CV, 16},
                              {ImageArea::AIW, 16},
                              {ImageArea::AQW, 16},
                              NoWrite,
                              NoWrite,
                              NoWrite,
                              {ImageArea::Q, 16},
                              {ImageArea::M, 16},
                              {ImageArea::S, 16},
                              {ImageArea::SM, 16}};
constexpr int TypeCount = int(sizeof WriteRows / sizeof WriteRows[0]);

bool isBitType(int regType)
{
    return regType >= 0 && regType <= 5;
}

bool isNumbered(int regType)
{
    return regType == 14 || regType == 15;
}

bool isQueueable(int regType)
{
    static const int Refused[] = {0, 6, 16, 18, 19, 20};
    for (int type : Refused) {
        if (regType == type)
            return false;
    }
    return regType >= 0 && regType < TypeCount;
}

/// What a call must leave alone, or change in a stated way only.
struct Snapshot {
    QByteArray image = DriverFixture::image();
    int extendEntries = int(PLC_driver.extend_list.size());
    int reads = int(PLC_driver.read_list.size());
    int writes = int(PLC_driver.write_list.size());
    int onces = int(PLC_driver.once_read_list.size());
    int frames = int(PLC_driver.protocol_list.size());

    void requireSameData() const
    {
        require(DriverFixture::image() == image, "the call leaves the image alone");
        require(int(PLC_driver.extend_list.size()) == extendEntries,
                "the call leaves the extend list alone");
    }

    enum List { Reads = 1, Writes = 2, Onces = 4 };
    void requireSameLists(int but = 0) const
    {
        require((but & Reads) != 0 || int(PLC_driver.read_list.size()) == reads,
                "the call leaves the cyclic list alone");
        require((but & Writes) != 0 || int(PLC_driver.write_list.size()) == writes,
                "the call leaves the write queue alone");
        require((but & Onces) != 0 || int(PLC_driver.once_read_list.size()) == onces,
                "the call leaves the one-shot list alone");
        require(int(PLC_driver.protocol_list.size()) == frames,
                "host calls leave pending frames alone");
    }
};

class Host
{
public:
    Host(DriverFixture& fixture, ByteSource& source) : m_info(fixture.info), m_source(source)
    {
        m_info.per_variable_stations = m_source.flag() ? 1 : 0;
    }

    void call()
    {
        using Call = void (Host::*)();
        static const Call Calls[] = {&Host::communicate,   &Host::communicate, &Host::settings,
                                     &Host::listVariables, &Host::readOnce,    &Host::queueWrite,
                                     &Host::appendRead,    &Host::readValue,   &Host::writeValue,
                                     &Host::enableStation, &Host::convert,     &Host::cycle};
        (this->*Calls[m_source.below(int(sizeof Calls / sizeof Calls[0]))])();
        checkState();
    }

private:
    bool severalStations() const
    {
        return m_info.per_variable_stations != 0;
    }

    /// In the several-stations method each element of a count is an entry to look for in a list:
    /// too slow to repeat here, hostile_test does it once.
    int count()
    {
        const int any = m_source.number();
        return severalStations() ? qBound(-100, any, 300) : any;
    }

    QString text()
    {
        switch (m_source.below(6)) {
        case 0:
            return QString::number(m_source.number());
        case 1:
        case 2: {
            const int byte = m_source.number();
            return QStringLiteral("%1.%2").arg(byte).arg(m_source.number());
        }
        case 3:
            return QString::fromLatin1(m_source.bytes(m_source.below(16)));
        case 4:
            return QStringLiteral(" +%1 ").arg(m_source.number());
        default:
            return QString::number(m_source.byte());
        }
    }

    QString name()
    {
        static const char* const Names[] = {"T", "TV", "C", "CV", "VW", ""};
        return QString::fromLatin1(Names[m_source.below(6)]);
    }

    RW_VAR request()
    {
        RW_VAR var;
        var.reg_type = m_source.number();
        var.address = m_source.number();
        var.count = count();
        var.station = m_source.number();
        var.host_key = m_source.below(4);
        var.host_index = m_source.below(4);
        var.address_text = text();
        var.name = name();
        const int flags = m_source.byte();
        var.origin = flags & 1;
        var.link_id = (flags >> 1) & 1;
        var.value = m_source.bytes(flags >> 2);
        return var;
    }

    void settings()
    {
        switch (m_source.below(8)) {
        case 0:
            m_info.block_length_limit = m_source.number();
            break;
        case 1:
            m_info.retry_limit = m_source.number();
            break;
        case 2:
            m_info.remote_access = m_source.below(2);
            break;
        case 3:
            m_info.communication_mode = m_source.below(4);
            break;
        case 4:
            m_info.link_id = m_source.below(2);
            break;
        case 5:
            m_info.default_station = m_source.number();
            break;
        case 6:
            SetComInfo(&m_info);
            break;
        default:
            RegistCallBackFuncIntf(DriverFixture::recordCallback, m_source.number());
            break;
        }
    }

    /// A count that makes as many requests as it has elements: one absurd count in a story shows
    /// what there is to see, and many would make it long.
    int countOfPieces()
    {
        const int any = count();
        const bool isLong = qAbs(qint64(any)) > 300;
        if (isLong && m_longListMade)
            return any % 300;
        m_longListMade = m_longListMade || isLong;
        return any;
    }

    bool isLimitTiny() const
    {
        return qAbs(qint64(m_info.block_length_limit)) < 64;
    }

    void listVariables()
    {
        QList<VAR_INFO> variables;
        for (int left = m_source.below(6); left > 0; --left) {
            VAR_INFO variable;
            variable.reg_type = static_cast<unsigned char>(m_source.byte());
            variable.station = static_cast<unsigned char>(m_source.byte());
            variable.address_text = text();
            variable.name = name();
            variable.count = isLimitTiny() ? countOfPieces() : count();
            variables.append(variable);
        }
        const Snapshot before;
        require(ReCreatReadVarList(variables) == int(PLC_driver.read_list.size()),
                "the number of cyclic requests is returned");
        before.requireSameLists(Snapshot::Reads);
        before.requireSameData();
        require(PLC_driver.read_list.size() <= variables.size() * (LargestRange + 1),
                "a variable makes no more requests than a length field can name bytes");
        checkCyclicList();
    }

    void checkCyclicList() const
    {
        const int largest = qMax(LargestRange, m_info.block_length_limit);
        RW_VAR folded;
        int type = -1;
        int address = -1;
        for (const RW_VAR& entry : std::as_const(PLC_driver.read_list)) {
            require(severalStations() || entry.station == m_info.default_station,
                    "one-station requests are for the default station");
            require(entry.count <= largest, "no request is longer than a length field can name");
            folded.reg_type = entry.reg_type;
            setReg_type(&folded);
            require(severalStations() || folded.reg_type != type || entry.address >= address,
                    "an area's requests are in ascending order");
            type = folded.reg_type;
            address = entry.address;
        }
    }

    void readOnce()
    {
        RW_VAR var = request();
        const bool append = m_source.below(4) == 0;
        const bool invalid = !append && PLCAddressChangeIntef(var.reg_type, var.address_text) < 0;
        const Snapshot before;
        const int result = AddListOnceReadVar(&var, append ? 1 : 0);
        const int size = int(PLC_driver.once_read_list.size());
        before.requireSameLists(Snapshot::Onces);
        before.requireSameData();
        require(result == (invalid ? 0 : size), "the size is returned, 0 for an invalid address");
        require(size >= before.onces && (!invalid || size == before.onces), "none is removed");
        require(append ? size == before.onces + 1 : size <= qMax(before.onces, QueueLimit),
                "one-shot reads keep their limit");
    }

    void queueWrite()
    {
        RW_VAR var = request();
        const bool append = m_source.below(4) == 0;
        const Snapshot before;
        const int result = AddListWriteVar(&var, append ? 1 : 0);
        const int size = int(PLC_driver.write_list.size());
        before.requireSameLists(Snapshot::Writes);
        before.requireSameData();
        require(result == size, "the size of the write queue is returned");
        require(size == before.writes || size == before.writes + 1, "at most one is queued");
        require(append || size <= qMax(before.writes, QueueLimit), "writes keep their limit");
    }

    void appendRead()
    {
        RW_VAR var = request();
        const Snapshot before;
        require(AddListReadVar(&var) == before.reads + 1, "one cyclic request is appended");
        before.requireSameLists(Snapshot::Reads);
        before.requireSameData();
    }

    void readValue()
    {
        const int type = m_source.number();
        const QString address = text();
        const bool invalid = PLCAddressChangeIntef(type, address) < 0;
        const int station = m_source.number();
        const QByteArray held = m_source.bytes(m_source.below(64));
        QByteArray data = held;
        const Snapshot before;
        const int result = GetRegisterData(name(), type, address, station, data, count());
        before.requireSameLists();
        require(result == (invalid ? 0 : 1), "1, or 0 for an invalid address");
        require(!invalid || data == held, "an invalid address gives nothing");
        require(data.size() >= held.size(), "the output is never shortened");
        require(data.size() <= qMax(int(held.size()), 8 * LargestArea),
                "a read gives no more than an area has");
        require(DriverFixture::image() == before.image, "a read changes no value");
        require(int(PLC_driver.extend_list.size()) <=
                    before.extendEntries + (severalStations() ? 2 * LargestArea : 0),
                "a read adds at most the entries that it visits");
    }

    /// Everything outside the addressed part of the type's area is as before.
    static void checkWrittenPart(const QByteArray& before, int type, qint64 address,
                                 qint64 elements)
    {
        QByteArray after = DriverFixture::image();
        const WriteRow row = type >= 0 && type < TypeCount ? WriteRows[type] : NoWrite;
        if (row.area >= 0) {
            const qint64 area = DriverFixture::areaSize(row.area);
            const qint64 unit = isBitType(type) ? 1 : isNumbered(type) ? 16 : 8;
            const qint64 first = qMin(address * unit / 8, area);
            const qint64 bits = qMax(elements, qint64(1)) * row.unitBits;
            const qint64 end = qBound(first, (address * unit + bits + 7) / 8, area);
            const int from = DriverFixture::areaOffset(row.area) + int(first);
            const int part = int(end - first);
            after.replace(from, part, before.mid(from, part));
        }
        require(after == before, "a write changes nothing outside its place in the image");
    }

    /// Each piece of a host write is looked for in the queue, so a full queue and a long write are
    /// enough.
    int writtenCount(int type)
    {
        constexpr int Enough = 2000;
        if (m_info.communication_mode != 2 || !(isBitType(type) || isLimitTiny()))
            return count();
        return qBound(-Enough, countOfPieces(), Enough);
    }

    void writeValue()
    {
        const int type = m_source.number();
        const QString written = text();
        const int address = PLCAddressChangeIntef(type, written);
        const int elements = writtenCount(type);
        const int station = m_source.number();
        QByteArray data = m_source.bytes(m_source.byte());
        const QByteArray given(data.constData(), int(data.size()));
        const Snapshot before;
        const int result =
            SetRegisterData(name(), type, written, station, &data, elements, m_source.byte(), 0);
        require(data == given, "the host's value is only read");
        const int size = int(PLC_driver.write_list.size());
        if (address < 0) {
            require(result == 0 && size == before.writes, "an invalid address writes nothing");
            before.requireSameData();
        } else if (m_info.communication_mode != 2) {
            require(result == 1 && size == before.writes, "other modes queue nothing");
            checkWrittenPart(before.image, type, address, elements);
        } else {
            require(size >= before.writes && size <= qMax(before.writes, QueueLimit),
                    "host writes keep the queue's limit");
            require(isQueueable(type) || (result == 0 && size == before.writes),
                    "what cannot be written is not queued");
            require(result == 0 || result == size, "the size of the write queue is returned");
            if (PLC_driver.link_failed == 0)
                before.requireSameData();
            else
                checkWrittenPart(before.image, type, address, elements + 1);
        }
        before.requireSameLists(Snapshot::Writes);
    }

    void enableStation()
    {
        const int station = m_source.number();
        const int enable = m_source.number();
        const int before = int(PLC_driver.disabled_stations.size());
        EnableEthernet(station, enable);
        const int after = int(PLC_driver.disabled_stations.size());
        require(station >= 0 ? after <= before + 1 : after == 0,
                "a mark for each disabled station at most");
    }

    void convert()
    {
        const int type = m_source.number();
        const Snapshot before;
        PLCAddressChangeIntef(type, text());
        require(QueryFinishFlag() == 1, "never keeps the host waiting");
        before.requireSameLists();
        before.requireSameData();
    }

    /// One turn of the loop with any reply.
    void communicate()
    {
        const Protocol* pending = nextFrame();
        const int kind = m_source.below(8);
        QByteArray reply = pending ? goodReply(*pending, m_source) : QByteArray();
        if (kind == 5 && !reply.isEmpty()) {
            const int at = m_source.byte() % int(reply.size());
            reply[at] = char(m_source.byte());
        } else if (kind == 6) {
            reply = m_source.bytes(m_source.byte());
        } else if (kind == 7) {
            reply.clear();
        }
        deliver(reply, int(reply.size()));
    }

    /// Several turns with good replies.
    void cycle()
    {
        ByteSource zeros(nullptr, 0);
        for (int left = m_source.below(16); left > 0; --left) {
            const Protocol* pending = nextFrame();
            const QByteArray reply = pending ? goodReply(*pending, zeros) : QByteArray();
            deliver(reply, int(reply.size()));
        }
    }

    COM_INFO& m_info;
    ByteSource& m_source;
    bool m_longListMade = false;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    ByteSource source(data, size);
    Host host(freshDriver(), source);
    for (int i = 0; i < MostCalls && !source.isEmpty(); ++i)
        host.call();
    return 0;
}
