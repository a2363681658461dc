// A host that says absurd things: every entry point with any count, address, name, station, mode
// and limit, between turns of the communication loop. The first byte chooses the method for
// stations, each further call starts with the byte that names it.

#include "fuzz/driver_calls.h"

namespace
{

constexpr int MostCalls = 48;
constexpr int QueueLimit = 1024;
constexpr int LargestArea = 10240; ///< Bytes; also the extend-list entries one call may visit.

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
                                     &Host::enableStation};
        (this->*Calls[m_source.below(int(sizeof Calls / sizeof Calls[0]))])();
        checkState();
    }

private:
    /// One absurd count in a story shows what there is to see, and many would make it long, above
    /// all where each element is an entry to look for in a list.
    int count()
    {
        const int any = m_source.number();
        const bool isLong = qAbs(qint64(any)) > 300;
        if (isLong && (m_longCountGiven || m_info.per_variable_stations != 0))
            return any % 300;
        m_longCountGiven = m_longCountGiven || isLong;
        return any;
    }

    QString text()
    {
        switch (m_source.below(4)) {
        case 0:
            return QString::number(m_source.number());
        case 1:
            return QStringLiteral("%1.%2").arg(m_source.number()).arg(m_source.byte());
        case 2:
            return QString::fromLatin1(m_source.bytes(m_source.below(16)));
        default:
            return QStringLiteral("%1.%2").arg(m_source.byte()).arg(m_source.below(8));
        }
    }

    RW_VAR request()
    {
        static const char* const Names[] = {"T", "TV", "C", "CV", "VW", ""};
        RW_VAR var;
        var.reg_type = m_source.number();
        var.address = m_source.number();
        var.count = count();
        var.station = m_source.number();
        var.host_key = m_source.below(4);
        var.address_text = text();
        var.name = QString::fromLatin1(Names[m_source.below(6)]);
        const int flags = m_source.byte();
        var.origin = flags & 1;
        var.link_id = (flags >> 1) & 1;
        var.value = m_source.bytes(flags >> 2);
        return var;
    }

    void settings()
    {
        int* const words[] = {&m_info.block_length_limit, &m_info.retry_limit,
                              &m_info.default_station,    &m_info.remote_access,
                              &m_info.communication_mode, &m_info.link_id};
        const int which = m_source.below(6);
        *words[which] = which < 3 ? m_source.number() : m_source.below(3);
    }

    // HOLDS(15, 16)
    void listVariables()
    {
        QList<VAR_INFO> variables;
        for (int left = m_source.below(6); left > 0; --left) {
            VAR_INFO variable;
            variable.reg_type = static_cast<unsigned char>(m_source.byte());
            variable.station = static_cast<unsigned char>(m_source.byte());
            variable.address_text = text();
            variable.count = count();
            variables.append(variable);
        }
        const QByteArray before = storedValues();
        require(ReCreatReadVarList(variables) == int(PLC_driver.read_list.size()),
                "the number of cyclic requests is returned");
        require(storedValues() == before, "listing changes no value");
    }

    // HOLDS(14)
    void readOnce()
    {
        RW_VAR var = request();
        const bool append = m_source.below(4) == 0;
        const int before = int(PLC_driver.once_read_list.size());
        AddListOnceReadVar(&var, append ? 1 : 0);
        const int size = int(PLC_driver.once_read_list.size());
        require(append ? size == before + 1 : size <= qMax(before, QueueLimit),
                "one-shot reads keep their limit");
    }

    void queueWrite()
    {
        RW_VAR var = request();
        const bool append = m_source.below(4) == 0;
        const int before = int(PLC_driver.write_list.size());
        const int size = AddListWriteVar(&var, append ? 1 : 0);
        require(size == int(PLC_driver.write_list.size()), "the size of the queue is returned");
        require(append ? size == before + 1 : size <= qMax(before + 1, QueueLimit),
                "writes keep their limit");
    }

    void appendRead()
    {
        RW_VAR var = request();
        AddListReadVar(&var);
    }

    // HOLDS(11)
    void readValue()
    {
        const int type = m_source.number();
        const QString address = text();
        const QByteArray held = m_source.bytes(m_source.below(64));
        QByteArray data = held;
        const QByteArray before = DriverFixture::image();
        const int result = GetRegisterData("", type, address, m_source.number(), data, count());
        require(result == (PLCAddressChangeIntef(type, address) < 0 ? 0 : 1),
                "1, or 0 for an invalid address");
        require(data.size() >= held.size() && (result == 1 || data == held),
                "what is not read stays in the output");
        require(data.size() <= qMax(int(held.size()), 8 * LargestArea),
                "a read gives no more than an area has");
        require(DriverFixture::image() == before, "a read changes no value");
    }

    // HOLDS(12)
    void writeValue()
    {
        const int type = m_source.number();
        const QString address = text();
        const int elements = qBound(-2000, count(), 2000);
        QByteArray data = m_source.bytes(m_source.byte());
        const QByteArray given(data.constData(), int(data.size()));
        const QByteArray before = storedValues();
        const int queued = int(PLC_driver.write_list.size());
        const int result = SetRegisterData("", type, address, m_source.number(), &data, elements,
                                           m_source.byte(), 0);
        require(data == given, "the host's value is only read");
        const bool through = m_info.communication_mode == 2;
        const int size = int(PLC_driver.write_list.size());
        require(through ? size <= qMax(queued, QueueLimit) : size == queued,
                "host writes keep the queue's limit, and queue in mode 2 only");
        if (result == 0 || (through && PLC_driver.link_failed == 0))
            require(storedValues() == before,
                    "what waits for the link, or is refused, is not shown");
    }

    void enableStation()
    {
        const int station = m_source.number();
        EnableEthernet(station, m_source.number());
        require(station >= 0 || PLC_driver.disabled_stations.isEmpty(),
                "a negative station forgets all marks");
    }

    /// One turn of the loop with any reply.
    void communicate()
    {
        const Protocol* pending = nextFrame();
        const int kind = m_source.below(8);
        QByteArray reply = pending ? goodReply(*pending, m_source) : QByteArray();
        if (kind == 5 && !reply.isEmpty())
            reply[m_source.byte() % int(reply.size())] = char(m_source.byte());
        else if (kind == 6)
            reply = m_source.bytes(m_source.byte());
        else if (kind == 7)
            reply.clear();
        deliver(reply, int(reply.size()), pending && kind < 5);
    }

    COM_INFO& m_info;
    ByteSource& m_source;
    bool m_longCountGiven = false;
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
