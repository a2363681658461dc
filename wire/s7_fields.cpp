#include "wire/s7_fields.h"

#include <QtEndian>

namespace s7200::wire
{

namespace
{

QString hexByte(int byte)
{
    return QStringLiteral("0x%1").arg(byte, 2, 16, QLatin1Char('0'));
}

} // namespace

QString describe(ItemCode code)
{
    switch (code) {
    case ItemCode::HardwareFault:
        return QStringLiteral("hardware fault");
    case ItemCode::AccessDenied:
        return QStringLiteral("access denied");
    case ItemCode::AddressOutOfRange:
        return QStringLiteral("address out of range");
    case ItemCode::TypeNotSupported:
        return QStringLiteral("data type not supported");
    case ItemCode::LengthMismatch:
        return QStringLiteral("data do not fit the item");
    case ItemCode::NoSuchObject:
        return QStringLiteral("object does not exist");
    case ItemCode::Success:
        return QStringLiteral("ok");
    }
    return QStringLiteral("return code ") + hexByte(int(code));
}

QString describe(JobError error)
{
    switch (error) {
    case JobError::None:
        return QStringLiteral("ok");
    case JobError::NotSupported:
        return QStringLiteral("not supported");
    case JobError::PduTooLong:
        return QStringLiteral("longer than the granted PDU");
    }
    return QStringLiteral("error class %1, code %2")
        .arg(hexByte(int(error) >> 8), hexByte(int(error) & 0xFF));
}

QString describe(DisconnectReason reason)
{
    switch (reason) {
    case DisconnectReason::NotSpecified:
        return QStringLiteral("no reason given");
    case DisconnectReason::Congestion:
        return QStringLiteral("congestion");
    case DisconnectReason::NotAttached:
        return QStringLiteral("nothing attached to the TSAP");
    case DisconnectReason::AddressUnknown:
        return QStringLiteral("TSAP unknown");
    }
    return QStringLiteral("reason ") + hexByte(int(reason));
}

int byteAt(const QByteArray& frame, int offset)
{
    return offset < frame.size() ? quint8(frame.at(offset)) : 0;
}

int wordAt(const QByteArray& frame, int offset)
{
    return offset + 1 < frame.size() ? qFromBigEndian<quint16>(frame.constData() + offset) : 0;
}

void appendWord(QByteArray& bytes, int word)
{
    bytes.append(char(word >> 8));
    bytes.append(char(word));
}

std::optional<Tpdu> tpduType(const QByteArray& frame)
{
    const int type = byteAt(frame, TpduTypeOffset) & 0xF0;
    for (Tpdu known :
         {Tpdu::DisconnectRequest, Tpdu::ConnectionConfirm, Tpdu::ConnectionRequest, Tpdu::Data}) {
        if (type == int(known))
            return known;
    }
    return std::nullopt;
}

bool isS7Pdu(const QByteArray& frame)
{
    return frame.size() >= JobFunctionOffset && byteAt(frame, CotpLengthOffset) == 2 &&
           byteAt(frame, TpduTypeOffset) == int(Tpdu::Data) &&
           byteAt(frame, ProtocolIdOffset) == S7ProtocolId;
}

bool isEmptyDataTpdu(const QByteArray& frame)
{
    return frame.size() >= ShortestTpkt &&
           frame.startsWith(QByteArray::fromRawData("\x03\x00\x00\x07\x02\xF0", 6));
}

std::optional<quint16> parseTsap(const QString& text)
{
    QString digits = text;
    if (digits.size() == 5 && digits.at(2) == QLatin1Char('.'))
        digits.remove(2, 1);
    bool good = digits.size() == 4;
    for (QChar digit : digits) // toUShort() would take a sign and blanks
        good = good && QStringLiteral("0123456789abcdefABCDEF").contains(digit);
    if (!good)
        return std::nullopt;
    return digits.toUShort(nullptr, 16);
}

QString tsapText(quint16 tsap)
{
    return QStringLiteral("%1.%2")
        .arg(tsap >> 8, 2, 16, QLatin1Char('0'))
        .arg(tsap & 0xFF, 2, 16, QLatin1Char('0'))
        .toUpper();
}

std::optional<quint16> tsapParameter(const QByteArray& parameters, quint8 code)
{
    for (int at = 0; at + 2 <= parameters.size();) {
        const int length = byteAt(parameters, at + 1);
        const bool whole = at + 2 + length <= parameters.size();
        if (whole && length == 2 && byteAt(parameters, at) == code)
            return quint16(wordAt(parameters, at + 2));
        at += 2 + length;
    }
    return std::nullopt;
}

} // namespace s7200::wire
