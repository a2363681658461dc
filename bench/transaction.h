#ifndef BENCH_TRANSACTION_H
#define BENCH_TRANSACTION_H

/// A driver with a connected station and a cyclic list, and the good reply to its reads. With
/// several stations each of the entries lists other bytes, so that they fill the extend list.

#include "core/siemens_s7_200.h"
#include "protocol/s7_frame.h"

#include <QtEndian>

#include <cstdlib>
#include <vector>

constexpr int PayloadBytes = 200;

class TransactionBench
{
public:
    /// Lists `entries` reads of 200 bytes of V memory.
    explicit TransactionBench(int entries, bool severalStations = false) : m_words(55002)
    {
        m_info.per_variable_stations = severalStations ? 1 : 0;
        m_info.block_length_limit = PayloadBytes;
        m_info.retry_limit = 3;
        SetComInfo(&m_info);
        FlashLocalRegister(nullptr, m_words.data(), nullptr);
        PLC_driver.read_list.clear();
        for (int i = 0; i < entries; ++i) {
            RW_VAR read;
            read.reg_type = 12;
            read.address = (severalStations ? i : i % 50) * PayloadBytes;
            read.count = PayloadBytes;
            AddListReadVar(&read);
        }
        map_list[0].hand_shake_ok = 1;
        map_list[0].pdu_ref = 1;
        m_reply = QByteArray::fromHex("030000e102f080320300000001000200cc00000401ff040640");
        m_reply.append(QByteArray(PayloadBytes, 'v'));
    }

    /// One request and its reply; ends the program if the driver does not take it.
    void transact()
    {
        const Protocol* pending = ComCommunication();
        m_reply[11] = pending->frame.at(11);
        m_reply[12] = pending->frame.at(12);
        if (DataCom(&m_reply, int(m_reply.size()))->result != 1)
            std::abort();
    }

    /// The host's read of the same 200 bytes.
    void readValue()
    {
        GetRegisterData(m_name, 12, m_address, 0, m_value, PayloadBytes / 2);
    }

private:
    const QString m_name = QStringLiteral("VW");
    const QString m_address = QStringLiteral("400");
    QByteArray m_value;
    COM_INFO m_info = {};
    std::vector<unsigned short> m_words;
    QByteArray m_reply;
};

#endif
