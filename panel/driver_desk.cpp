#include "panel/driver_desk.h"

#include "host/request_plan.h"
#include "panel/frame_text.h"
#include "wire/s7_fields.h"

#include <siemens_s7_200_cp243/host_interface.h>
#include <siemens_s7_200_cp243/register_types.h>

#include <algorithm>

namespace s7200::panel
{

using namespace s7200::wire;

namespace
{

/// One in five calls gives nothing although there is something to send.
constexpr int MostIdleCalls = 2;

constexpr int ApartKey = 1; // any that is not a cyclic read's

/// Bytes that a peer's reply to a forwarding record has beyond the length in its TPKT header.
constexpr int RemoteTrailingBytes = 2;

QByteArray acknowledgement(int reference, const QByteArray& parameters, const QByteArray& data)
{
    QByteArray reply = QByteArray::fromHex("0300000002f0803203");
    appendWord(reply, 0);
    appendWord(reply, reference);
    appendWord(reply, int(parameters.size()));
    appendWord(reply, int(data.size()));
    appendWord(reply, 0); // no error
    reply += parameters + data;
    QByteArray length;
    appendWord(length, int(reply.size()));
    return reply.replace(TpktLengthOffset, 2, length);
}

/// Of a read or write of one item.
QByteArray itemAcknowledgement(int reference, Function function, int dataBytes)
{
    QByteArray parameters(1, char(function));
    parameters.append(char(1));
    QByteArray data(1, char(ItemCode::Success));
    if (function == Function::Read) {
        data.append(char(DataSize::Bytes));
        appendWord(data, dataBytes);
        data.append(QByteArray(dataBytes, '\0'));
    }
    return acknowledgement(reference, parameters, data);
}

} // namespace

std::unique_ptr<DriverDesk> DriverDesk::open(const ControllerSettings& settings, QString* error)
{
    std::unique_ptr<DriverDesk> desk(new DriverDesk);
    const QString file = findDriver(settings.driverFile, error);
    if (file.isEmpty() || !desk->driver.load(file, error))
        return nullptr;
    desk->m_settings = settings;
    desk->comInfo = comInfoFor(settings);
    desk->m_localWords.fill(0, LocalWordCount);
    desk->setTsaps(settings.localTsap, settings.remoteTsap);
    desk->driver.SetComInfo(&desk->comInfo);
    desk->driver.FlashLocalRegister(nullptr, desk->m_localWords.data(), nullptr);
    return desk;
}

void DriverDesk::setTsaps(quint16 local, quint16 remote)
{
    if (local == 0 || remote == 0)
        local = remote = 0; // the driver's defaults
    m_localWords[LocalWord_CalledTsap] = remote;
    m_localWords[LocalWord_CallingTsap] = local;
}

void DriverDesk::setPdu(int bytes)
{
    m_pdu = bytes;
}

RequestLimits DriverDesk::limits() const
{
    return RequestLimits(m_settings.blockLimit, m_settings.remoteAccess, m_pdu);
}

QVector<int> DriverDesk::stations() const
{
    return m_settings.stations.isEmpty() ? QVector<int>{m_settings.defaultStation}
                                         : QVector<int>::fromList(m_settings.stations.keys());
}

int DriverDesk::watch(const QVector<Variable>& variables)
{
    QVector<int> own;
    for (const Variable& variable : variables)
        own.append(variable.station >= 0 ? variable.station : m_settings.defaultStation);
    m_list = WatchList();
    m_list.assign(variables, own, limits());
    comInfo.block_length_limit = m_list.blockLimit();
    QVector<ReadBlock> blocks;
    for (int station : stations()) {
        const QVector<ReadBlock> cyclic = m_list.cyclicBlocks(station);
        if (cyclic.isEmpty() && m_list.apartBlocks(station).isEmpty()) {
            ReadBlock probe;
            probe.type = Type_SMW; // SMW0, as a controller object has it
            probe.station = station;
            probe.units = 2;
            blocks.append(probe);
        }
        blocks += cyclic;
    }
    return driver.ReCreatReadVarList(cyclicRecords(blocks, !m_settings.stations.isEmpty()));
}

int DriverDesk::readApart()
{
    int queued = 0;
    for (int station : stations()) {
        for (const ReadBlock& block : m_list.apartBlocks(station)) {
            RW_VAR record = oneShotRecord(block);
            record.host_key = ApartKey;
            record.remote = comInfo.remote_access;
            record.link_id = comInfo.link_id;
            comInfo.block_length_limit = std::max(limits().single(), block.units); // never cut
            queued = driver.AddListOnceReadVar(&record, List_Merge);
        }
    }
    comInfo.block_length_limit = m_list.blockLimit();
    return queued;
}

bool DriverDesk::isReadApart(const RW_VAR& request) const
{
    return m_list.apartBlocks(request.station).contains(blockOf(request));
}

const Protocol* DriverDesk::pending()
{
    const Protocol* next = nullptr;
    for (int calls = 0; next == nullptr && calls < MostIdleCalls; ++calls)
        next = driver.ComCommunication();
    if (next != nullptr)
        m_pendingStation = next->var.station;
    return next;
}

int DriverDesk::reply(const QByteArray& bytes)
{
    // Nothing received is an empty array and not a null pointer: a handshake is judged by its
    // bytes alone.
    QByteArray copy = bytes;
    const int result = driver.DataCom(&copy, int(copy.size()))->result;
    // As the driver counts: its good replies, beginning anew when it has given the link up.
    quint16& reference = m_references[m_pendingStation];
    if (result == Result_Good || result == Result_RemoteStored)
        reference = reference == 0xFFFF ? 1 : quint16(reference + 1);
    else if (result != Result_WillRetry)
        reference = 0;
    return result;
}

QByteArray DriverDesk::perfectReply(const Protocol& pending) const
{
    if (m_settings.remoteAccess)
        return perfectRecordReply(pending);
    const QByteArray& request = pending.frame;
    const int reference = wordAt(request, PduReferenceOffset);
    if (isConnectionRequest(request)) {
        QByteArray confirm = request;
        confirm[TpduTypeOffset] = char(Tpdu::ConnectionConfirm);
        confirm.replace(DestinationReferenceOffset, 2, request.mid(SourceReferenceOffset, 2));
        return confirm;
    }
    if (isSetup(request))
        return acknowledgement(reference, request.mid(JobFunctionOffset), QByteArray());
    const Function function = isWriteJob(request) ? Function::Write : Function::Read;
    return itemAcknowledgement(reference, function, pending.data_len);
}

/// A record has no reference of its own: the peer counts its good replies instead.
QByteArray DriverDesk::perfectRecordReply(const Protocol& pending) const
{
    const Function function = pending.var.origin != 0 ? Function::Write : Function::Read;
    return itemAcknowledgement(m_references.value(pending.var.station), function,
                               pending.data_len) +
           QByteArray(RemoteTrailingBytes, '\0');
}

} // namespace s7200::panel
