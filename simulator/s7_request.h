#ifndef SIMULATOR_S7_REQUEST_H
#define SIMULATOR_S7_REQUEST_H

#include <QByteArray>

namespace s7200::sim
{

/// What a client sent in one TPKT, read field by field but not judged.
struct S7Request {
    enum Kind {
        Malformed,   ///< TPKT or COTP headers make no sense, or it is not S7.
        EmptyTpdu,   ///< A data TPDU without data; nothing to answer.
        Connect,     ///< Connection request (ISO 8073).
        Setup,       ///< Setup communication.
        Read,        ///< Read variable, one item.
        Write,       ///< Write variable, one item.
        Unsupported, ///< S7, but no job of these, or its lengths contradict each other.
    };
    Kind kind = Malformed;

    quint16 clientReference = 0;  ///< Connect: the client's source reference.
    QByteArray connectParameters; ///< Connect: TPDU size and TSAPs, as sent.

    quint16 reference = 0; ///< S7: PDU reference.
    int pduLength = 0;     ///< S7: bytes of the whole PDU.
    int requestedPdu = 0;  ///< Setup: PDU length asked for.

    quint8 transportSize = 0; ///< Read, Write: of the item.
    int count = 0;            ///< Item length, in units of the transport size.
    int dbNumber = 0;
    quint8 area = 0;
    int address = 0; ///< In bits, or the number of the first timer or counter.

    quint8 dataTransportSize = 0; ///< Write: of the data.
    int dataLength = 0;           ///< Write: the data item's own length field.
    QByteArray data;              ///< Write: the data themselves.
};

/// Reads one TPKT as it was received. Any bytes are safe.
S7Request parseS7Request(const QByteArray& tpkt);

} // namespace s7200::sim

#endif
