#include "panel/driver_desk.h"

#include "host/request_plan.h"
#include "host/watch_list.h"
#include "panel/frame_text.h"
#include "wire/s7_fields.h"

#include <siemens_s7_200_cp243/register_types.h>

namespace s7200::panel
{

using namespace s7200::wire;

namespace
{

/// One in five calls gives nothing although there is something to send.
constexpr int MostIdleCalls = 2;

QByteArray acknowledgement(const QByteArray& request, const QByteArray& parameters,
                           const QByteArray& data)
{
    QByteArray reply = QByteArray::fromHex("0300000002f0803203");
    appendWord(reply, 0);
    appendWord(reply, wordAt(request, PduReferenceOffset));
    appendWord(reply, int(parameters.size()));
    appendWord(reply, int(data.size()));
    appendWord(reply, 0); // no error
    reply += parameters + data;
    QByteArray length;
    appendWord(length, int(reply.size()));
    return reply.replace(TpktLengthOffset, 2, length);
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

int DriverDesk::watch(const QVector<Variable>& variables)
{
    const int limit = listLimitFor(variables, m_settings.blockLimit);
    comInfo.block_length_limit = limit;
    QVector<int> stations;
    for (const Variable& variable : variables)
        stations.append(variable.station >= 0 ? variable.station : m_settings.defaultStation);
    WatchList list;
    list.assign(variables, stations, limit);
    QList<int> every = m_settings.stations.keys();
    if (every.isEmpty())
        every.append(m_settings.defaultStation);
    QVector<ReadBlock> blocks;
    for (int station : std::as_const(every)) {
        QVector<ReadBlock> own = list.cyclicBlocks(station);
        if (own.isEmpty()) {
            ReadBlock probe;
            probe.type = Type_SMW; // SMW0, as a controller object has it
            probe.station = station;
            probe.units = 2;
            own.append(probe);
        }
        blocks += own;
    }
    return driver.ReCreatReadVarList(cyclicRecords(blocks, !m_settings.stations.isEmpty()));
}

const Protocol* DriverDesk::pending()
{
    const Protocol* next = nullptr;
    for (int calls = 0; next == nullptr && calls < MostIdleCalls; ++calls)
        next = driver.ComCommunication();
    return next;
}

int DriverDesk::reply(const QByteArray& bytes)
{
    // Nothing received is an empty array and not a null pointer: a handshake is judged by its
    // bytes alone.
    QByteArray copy = bytes;
    return driver.DataCom(&copy, int(copy.size()))->result;
}

QByteArray DriverDesk::perfectReply(const Protocol& pending)
{
    const QByteArray& request = pending.frame;
    if (isConnectionRequest(request)) {
        QByteArray confirm = request;
        confirm[TpduTypeOffset] = char(Tpdu::ConnectionConfirm);
        confirm.replace(DestinationReferenceOffset, 2, request.mid(SourceReferenceOffset, 2));
        return confirm;
    }
    if (isSetup(request))
        return acknowledgement(request, request.mid(JobFunctionOffset), QByteArray());
    QByteArray parameters;
    parameters.append(request.at(JobFunctionOffset));
    parameters.append(char(1));
    QByteArray data(1, char(ItemCode::Success));
    if (!isWriteJob(request)) {
        data.append(char(DataSize::Bytes));
        appendWord(data, pending.data_len);
        data.append(QByteArray(pending.data_len, '\0'));
    }
    return acknowledgement(request, parameters, data);
}

} // namespace s7200::panel
