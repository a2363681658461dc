#ifndef SIEMENS_S7_200_CP243_REQUEST_RECORDS_H
#define SIEMENS_S7_200_CP243_REQUEST_RECORDS_H

#include <QByteArray>
#include <QString>

/// One variable request. Crosses the library boundary by value, so the order and width of its
/// members are part of the interface (pinned in siemens_s7_200.cpp).
struct RW_VAR {
    int host_key = 0;     ///< Host's tag; 1 to 11 also select the offset of failure codes.
    int host_index = 0;   ///< Host's second tag; the pair names one host request.
    int origin = 0;       ///< 0: a read; non-zero: a write (decides how its reply is judged).
    int remote = 0;       ///< COM_INFO::remote_access when the request was made.
    int link_id = 0;      ///< COM_INFO::link_id when the request was made.
    int result = 0;       ///< Result code; meaningful in the record that DataCom returns.
    QString name;         ///< Area name; "T", "TV", "C" and "CV" choose the reply's element size.
    QString address_text; ///< Address as the host wrote it, "10.3" or "100".
    int reg_type = 0;     ///< Register type 0 to 24, see register_types.h.
    int address = 0;      ///< Numeric address; its unit depends on the list the request is in.
    int station = 0;      ///< Controller station, key of map_list.
    int count = 0;        ///< Amount; bytes in the cyclic list, else units of the register type.
    int reserved1 = 0;    ///< Copied through; list builders set 0.
    int reserved2 = 0;    ///< Copied through; list builders set 0.
    QByteArray value;     ///< Bytes to write, in host encoding (least significant byte first).
};

/// A frame that was built and awaits its reply. Owned by the driver; the host only reads it.
struct Protocol {
    QByteArray frame;    ///< The bytes to send.
    int frame_len = 0;   ///< Length of frame in bytes.
    int reply_len = 0;   ///< Length of the complete reply in bytes; -1 accepts any length.
    int data_offset = 0; ///< Index of the first payload byte in the reply.
    int data_len = 0;    ///< Payload bytes expected in the reply.
    RW_VAR var;          ///< The request that produced the frame.
    int extra1 = 0;      ///< Copied with the record, never set by a builder.
    int extra2 = 0;      ///< As extra1.
    int extra3 = 0;      ///< As extra1.
};

#endif
