#ifndef WIRE_S7_FIELDS_H
#define WIRE_S7_FIELDS_H

/// The vocabulary of the wire, for whoever reads frames or makes them without the driver: where the
/// fields of TPKT (RFC 1006), COTP (ISO 8073 class 0) and S7 stand, which values they take, and
/// what those are called. Offsets count from the first byte of the TPKT; numbers are most
/// significant byte first.

#include <QByteArray>
#include <QString>

#include <optional>

namespace s7200::wire
{

// Any frame.
constexpr int TpktLengthOffset = 2; ///< Word: the whole TPKT.
constexpr int TpktHeaderLength = 4;
constexpr int CotpLengthOffset = 4; ///< Bytes of the TPDU's header that follow.
constexpr int TpduTypeOffset = 5;
constexpr int ShortestTpkt = 7;

// Connection request, confirm and disconnect request.
constexpr int DestinationReferenceOffset = 6; ///< Word.
constexpr int SourceReferenceOffset = 8;      ///< Word.
constexpr int CotpClassOffset = 10;           ///< High half: the class.
constexpr int DisconnectReasonOffset = 10;
constexpr int CotpParametersOffset = 11; ///< Each: code, length, value.

// Data TPDU and S7 header.
constexpr int EndOfTpduOffset = 6;
constexpr int ProtocolIdOffset = 7; ///< The S7 PDU begins here.
constexpr int RosctrOffset = 8;
constexpr int PduReferenceOffset = 11;    ///< Word.
constexpr int ParameterLengthOffset = 13; ///< Word.
constexpr int DataLengthOffset = 15;      ///< Word.

// Job.
constexpr int JobFunctionOffset = 17;
constexpr int JobItemCountOffset = 18;
constexpr int JobItemOffset = 19;
constexpr int JobSyntaxOffset = 21;
constexpr int JobTransportSizeOffset = 22;
constexpr int JobItemLengthOffset = 23; ///< Word, in units of the transport size.
constexpr int JobDbNumberOffset = 25;   ///< Word.
constexpr int JobAreaOffset = 27;
constexpr int JobAddressOffset = 28; ///< Three bytes: bits, or a timer's or counter's number.
constexpr int JobDataOffset = 31;    ///< A write's data item.
constexpr int JobDataSizeOffset = 32;
constexpr int JobDataLengthOffset = 33; ///< Word, in bits or bytes by the data size.
constexpr int JobPayloadOffset = 35;
constexpr int JobPduLengthOffset = 23; ///< Word: setup communication.

// Acknowledgement.
constexpr int ErrorClassOffset = 17;
constexpr int ErrorCodeOffset = 18;
constexpr int AckFunctionOffset = 19;
constexpr int AckItemCountOffset = 20;
constexpr int ItemCodeOffset = 21;
constexpr int ItemDataSizeOffset = 22;
constexpr int ItemLengthOffset = 23; ///< Word, in bits or bytes by the data size.
constexpr int PayloadOffset = 25;
constexpr int AckPduLengthOffset = 25; ///< Word: setup communication.

/// Type of a TPDU; the low half of a request's or confirm's is the credit, 0 in class 0.
enum class Tpdu : quint8 {
    DisconnectRequest = 0x80,
    ConnectionConfirm = 0xD0,
    ConnectionRequest = 0xE0,
    Data = 0xF0
};
constexpr quint8 EndOfTpdu = 0x80;
constexpr quint8 CallingTsap = 0xC1; ///< Parameter code: of the side that connects.
constexpr quint8 CalledTsap = 0xC2;  ///< Parameter code: of the controller.

/// Reason of a disconnect request.
enum class DisconnectReason : quint8 {
    NotSpecified = 0,
    Congestion = 1,
    NotAttached = 2,
    AddressUnknown = 3
};

constexpr quint8 S7ProtocolId = 0x32;
enum class Rosctr : quint8 { Job = 1, Ack = 2, AckData = 3, UserData = 7 };
enum class Function : quint8 { Read = 0x04, Write = 0x05, SetupCommunication = 0xF0 };
constexpr quint8 AnySyntax = 0x10;

/// Area of an item.
enum class AreaCode : quint8 {
    S = 0x04,
    SM = 0x05,
    AIW = 0x06,
    AQW = 0x07,
    Counter = 0x1E,
    Timer = 0x1F,
    I = 0x81,
    Q = 0x82,
    M = 0x83,
    V = 0x84, ///< With data block 1.
    SpecialWrites = 0x85
};

/// Transport size of a job's item.
enum class ItemSize : quint8 {
    Bit = 0x01,
    Byte = 0x02,
    Word = 0x04,
    DoubleWord = 0x06,
    Counter = 0x1E,
    Timer = 0x1F
};

/// Transport size of data; it decides the unit of their length.
enum class DataSize : quint8 { None = 0x00, Bit = 0x03, Bits = 0x04, Bytes = 0x09 };

/// Return code of a reply's item.
enum class ItemCode : quint8 {
    HardwareFault = 0x01,
    AccessDenied = 0x03,
    AddressOutOfRange = 0x05,
    TypeNotSupported = 0x06,
    LengthMismatch = 0x07,
    NoSuchObject = 0x0A,
    Success = 0xFF
};

/// Error class and code of an acknowledgement, class first.
enum class JobError : quint16 { None = 0, NotSupported = 0x8104, PduTooLong = 0x8500 };

/// In words, for example "address out of range"; codes without a name as "return code 0x42",
/// "error class 0x81, code 0x01", "reason 0x80".
QString describe(ItemCode code);
QString describe(JobError error);
QString describe(DisconnectReason reason);

/// The byte or word at an offset of a frame; 0 behind its end.
int byteAt(const QByteArray& frame, int offset);
int wordAt(const QByteArray& frame, int offset);

/// Appends the low 16 bits of `word`.
void appendWord(QByteArray& bytes, int word);

/// Type of the frame's TPDU, its credit left out; nothing if the frame has none.
std::optional<Tpdu> tpduType(const QByteArray& frame);

/// True for an S7 PDU in a data TPDU, whole up to its header's end (17 bytes).
bool isS7Pdu(const QByteArray& frame);

/// True for a data TPDU without data (03 00 00 07 02 F0 xx, ISO 8073), which some peers send ahead
/// of a reply and which carries nothing to answer. Trailing bytes of a remote link do not matter.
bool isEmptyDataTpdu(const QByteArray& frame);

/// A transport service access point from two hexadecimal bytes, "10.00" or "1000".
std::optional<quint16> parseTsap(const QString& text);

/// "10.00".
QString tsapText(quint16 tsap);

/// The TSAP under a code (CallingTsap, CalledTsap) among the parameters of a connection request or
/// confirm; nothing if there is none of two bytes.
std::optional<quint16> tsapParameter(const QByteArray& parameters, quint8 code);

} // namespace s7200::wire

#endif
