#include "simulator/s7_replies.h"

#include <QtEndian>

namespace s7200::sim
{

using namespace wire;

namespace
{

QByteArray tpkt(const QByteArray& tpdu)
{
    QByteArray frame("\x03\x00", 2);
    appendWord(frame, TpktHeaderLength + int(tpdu.size()));
    return frame + tpdu;
}

QByteArray s7Reply(Rosctr rosctr, quint16 reference, const QByteArray& parameters,
                   const QByteArray& data)
{
    QByteArray tpdu;
    for (int byte : {2, int(Tpdu::Data), int(EndOfTpdu), int(S7ProtocolId), int(rosctr)})
        tpdu.append(char(byte));
    appendWord(tpdu, 0); // redundancy identification
    appendWord(tpdu, reference);
    appendWord(tpdu, int(parameters.size()));
    appendWord(tpdu, int(data.size()));
    appendWord(tpdu, int(JobError::None));
    return tpkt(tpdu + parameters + data);
}

QByteArray itemReply(Function function, quint16 reference, const QByteArray& data)
{
    const QByteArray oneItem = QByteArray(1, char(function)) + '\x01';
    return s7Reply(Rosctr::AckData, reference, oneItem, data);
}

/// A TPDU that sets up or ends a connection: type, both references, class or reason, parameters.
QByteArray connectionTpdu(Tpdu type, quint16 clientReference, quint16 ownReference, int last,
                          const QByteArray& parameters)
{
    QByteArray tpdu;
    tpdu.append(char(6 + parameters.size()));
    tpdu.append(char(type));
    appendWord(tpdu, clientReference);
    appendWord(tpdu, ownReference);
    tpdu.append(char(last));
    return tpkt(tpdu + parameters);
}

} // namespace

QByteArray readReply(quint16 reference, DataSize unit, const QByteArray& payload)
{
    const int length = int(payload.size()) * (unit == DataSize::Bits ? 8 : 1);
    QByteArray item;
    item.append(char(ItemCode::Success));
    item.append(char(unit));
    appendWord(item, length);
    return itemReply(Function::Read, reference, item + payload);
}

QByteArray readRefusal(quint16 reference, ItemCode code)
{
    return itemReply(Function::Read, reference, QByteArray(1, char(code)) + QByteArray(3, '\0'));
}

QByteArray writeReply(quint16 reference, ItemCode code)
{
    return itemReply(Function::Write, reference, QByteArray(1, char(code)));
}

QByteArray jobRefusal(quint16 reference, JobError error)
{
    QByteArray reply = s7Reply(Rosctr::Ack, reference, QByteArray(), QByteArray());
    setJobError(reply, error);
    return reply;
}

QByteArray setupReply(quint16 reference, int pduLength)
{
    QByteArray parameters(1, char(Function::SetupCommunication));
    parameters.append('\0');
    appendWord(parameters, 1);
    appendWord(parameters, 1);
    appendWord(parameters, pduLength);
    return s7Reply(Rosctr::AckData, reference, parameters, QByteArray());
}

QByteArray connectionConfirm(quint16 clientReference, quint16 ownReference,
                             const QByteArray& parameters)
{
    return connectionTpdu(Tpdu::ConnectionConfirm, clientReference, ownReference, 0, parameters);
}

QByteArray disconnectRequest(quint16 clientReference, DisconnectReason reason)
{
    return connectionTpdu(Tpdu::DisconnectRequest, clientReference, 0, int(reason), QByteArray());
}

void setJobError(QByteArray& reply, JobError error)
{
    if (reply.size() >= ErrorClassOffset + 2)
        qToBigEndian(quint16(error), reply.data() + ErrorClassOffset);
}

} // namespace s7200::sim
