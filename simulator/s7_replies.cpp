#include "simulator/s7_replies.h"

#include <QtEndian>

namespace
{

constexpr int TpktHeaderLength = 4;
constexpr quint8 RosctrAck = 0x02;
constexpr quint8 RosctrAckData = 0x03;

void appendWord(QByteArray& out, int word)
{
    out.append(char(word >> 8));
    out.append(char(word));
}

QByteArray tpkt(const QByteArray& tpdu)
{
    QByteArray frame("\x03\x00", 2);
    appendWord(frame, TpktHeaderLength + int(tpdu.size()));
    return frame + tpdu;
}

QByteArray s7Reply(quint8 rosctr, quint16 reference, const QByteArray& parameters,
                   const QByteArray& data)
{
    QByteArray tpdu("\x02\xF0\x80\x32", 4);
    tpdu.append(char(rosctr));
    appendWord(tpdu, 0); // redundancy identification
    appendWord(tpdu, reference);
    appendWord(tpdu, int(parameters.size()));
    appendWord(tpdu, int(data.size()));
    appendWord(tpdu, int(JobError::None));
    return tpkt(tpdu + parameters + data);
}

QByteArray itemReply(S7Function function, quint16 reference, const QByteArray& data)
{
    const QByteArray oneItem = QByteArray(1, char(function)) + '\x01';
    return s7Reply(RosctrAckData, reference, oneItem, data);
}

} // namespace

QByteArray readReply(quint16 reference, ReplyUnit unit, const QByteArray& payload)
{
    const int length = int(payload.size()) * (unit == ReplyUnit::Bits ? 8 : 1);
    QByteArray item;
    item.append(char(ReturnCode::Success));
    item.append(char(unit));
    appendWord(item, length);
    return itemReply(S7Function::Read, reference, item + payload);
}

QByteArray readRefusal(quint16 reference, ReturnCode code)
{
    return itemReply(S7Function::Read, reference, QByteArray(1, char(code)) + QByteArray(3, '\0'));
}

QByteArray writeReply(quint16 reference, ReturnCode code)
{
    return itemReply(S7Function::Write, reference, QByteArray(1, char(code)));
}

QByteArray jobRefusal(quint16 reference, JobError error)
{
    QByteArray reply = s7Reply(RosctrAck, reference, QByteArray(), QByteArray());
    setJobError(reply, error);
    return reply;
}

QByteArray setupReply(quint16 reference, int pduLength)
{
    QByteArray parameters(1, char(S7Function::SetupCommunication));
    parameters.append('\0');
    appendWord(parameters, 1);
    appendWord(parameters, 1);
    appendWord(parameters, pduLength);
    return s7Reply(RosctrAckData, reference, parameters, QByteArray());
}

QByteArray connectionConfirm(quint16 clientReference, quint16 ownReference,
                             const QByteArray& parameters)
{
    QByteArray tpdu;
    tpdu.append(char(6 + parameters.size()));
    tpdu.append('\xD0');
    appendWord(tpdu, clientReference);
    appendWord(tpdu, ownReference);
    tpdu.append('\0'); // class 0
    return tpkt(tpdu + parameters);
}

void setJobError(QByteArray& reply, JobError error)
{
    if (reply.size() >= ErrorClassOffset + 2)
        qToBigEndian(quint16(error), reply.data() + ErrorClassOffset);
}

QString describe(ReturnCode code)
{
    switch (code) {
    case ReturnCode::AccessDenied:
        return QStringLiteral("access denied");
    case ReturnCode::AddressOutOfRange:
        return QStringLiteral("address out of range");
    case ReturnCode::TypeNotSupported:
        return QStringLiteral("data type not supported");
    case ReturnCode::LengthMismatch:
        return QStringLiteral("data does not fit the item");
    case ReturnCode::NoSuchObject:
        return QStringLiteral("object does not exist");
    case ReturnCode::Success:
        break;
    }
    return QStringLiteral("ok");
}

QString describe(JobError error)
{
    switch (error) {
    case JobError::NotSupported:
        return QStringLiteral("not supported");
    case JobError::PduTooLong:
        return QStringLiteral("longer than the granted PDU");
    case JobError::None:
        break;
    }
    return QStringLiteral("ok");
}
