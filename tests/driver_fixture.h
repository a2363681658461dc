#ifndef TESTS_DRIVER_FIXTURE_H
#define TESTS_DRIVER_FIXTURE_H

/// Puts the driver's one global object into a known state between test cases.

#include "core/siemens_s7_200.h"
#include "image/Func_DealData.h"
#include "tests/s7_bytes.h"

#include <QDebug>
#include <QRegularExpression>
#include <QStringList>
#include <QVector>
#include <QtEndian>

#include <cstddef>
#include <cstring>
#include <new>
#include <tuple>

namespace ImageArea
{
enum { I, Q, M, S, SM, V, AIW, AQW, TV, CV, T, C, Count };
}

struct DriverFixture {
    COM_INFO info{};
    QVector<unsigned short> localWords = QVector<unsigned short>(55002, 0);
    static inline QStringList callbacks; ///< "handle key index outcome" of each call, in order.

    static int recordCallback(int handle, int hostKey, int hostIndex, int outcome)
    {
        callbacks << QString::asprintf("%d %d %d %d", handle, hostKey, hostIndex, outcome);
        return 0;
    }

    /// The state right after load, with settings, callback and local registers handed over.
    void reset()
    {
        for (QMutex* mutex :
             {&PLC_driver.list_mutex, &PLC_driver.data_mutex, &PLC_driver.station_mutex}) {
            if (!mutex->tryLock())
                qFatal("a call left a mutex locked");
            mutex->unlock();
        }
        PLC_driver.~Siemens_S7_200();
        new (&PLC_driver) Siemens_S7_200;
        map_list.clear();
        callbacks.clear();
        localWords.fill(0);
        info = COM_INFO();
        info.block_length_limit = 200;
        info.default_station = 2;
        info.retry_limit = 3;
        info.communication_mode = 2;
        info.host_handle = 99;
        SetComInfo(&info);
        RegistCallBackFuncIntf(recordCallback, 4711);
        FlashLocalRegister(nullptr, localWords.data(), nullptr);
    }

    static RW_VAR makeVar(int regType, int address, int count, int station = 2,
                          const QByteArray& value = QByteArray())
    {
        return {0, 0, 0, 0, 0, 0, {}, {}, regType, address, station, count, 0, 0, value};
    }

    /// The list that requests of a RequestKind wait in.
    static QList<RW_VAR>& listOf(int kind)
    {
        return kind == CyclicRead    ? PLC_driver.read_list
               : kind == QueuedWrite ? PLC_driver.write_list
                                     : PLC_driver.once_read_list;
    }

    /// Hands the driver a reply; its result.
    static int answer(QByteArray reply)
    {
        return DataCom(&reply, int(reply.size()))->result;
    }

    /// A station whose handshake is done.
    static void connectStation(int station, unsigned short pduRef = 1)
    {
        map_list.insert(station, {1, pduRef});
    }

    /// The request whose reply is to be stored; the payload starts at byte 2.
    static void awaitReply(int regType, int address, int dataLen, int station = 3)
    {
        const RW_VAR var = makeVar(regType, address, 1, station);
        PLC_driver.protocol_list = {{QByteArray(), 0, 0, 2, dataLen, var}};
    }

    static void storeReply(const QByteArray& payload)
    {
        QByteArray reply = "##" + payload;
        SaveToLocalDataErea(&reply);
    }

    static int areaSize(int area)
    {
        const int sizes[] = {4096, 4096, 4096, 4096, 4096, 10240, 64, 64, 512, 512, 32, 32};
        return sizes[area];
    }

    /// Start of an area within the copy that image() gives.
    static int areaOffset(int area)
    {
        return area == 0 ? 0 : areaOffset(area - 1) + areaSize(area - 1);
    }

    static int imageSize()
    {
        return areaOffset(ImageArea::Count);
    }

    /// The twelve areas one behind the other; timer and counter values low byte first.
    static QByteArray image()
    {
        QByteArray copy(imageBytes(), imageSize());
        char* const values = copy.data() + areaOffset(ImageArea::TV);
        qToLittleEndian<quint16>(values, 512, values);
        return copy;
    }

    static void writeImage(QByteArray copy)
    {
        char* const values = copy.data() + areaOffset(ImageArea::TV);
        qFromLittleEndian<quint16>(values, 512, values);
        std::memcpy(imageBytes(), copy.constData(), size_t(imageSize()));
    }

    /// The image filled with one byte, but for some bytes (in hex) of one area.
    static QByteArray imageWith(char fill, int area = 0, int offset = 0, const char* bytes = "")
    {
        const QByteArray part = QByteArray::fromHex(bytes);
        return QByteArray(imageSize(), fill).replace(areaOffset(area) + offset, part.size(), part);
    }

    static bool imageIs(char fill, int area = 0, int offset = 0, const char* bytes = "")
    {
        return image() == imageWith(fill, area, offset, bytes);
    }

    /// Changes bytes of one area; for timer and counter values `offset` counts bytes too.
    static void poke(int area, int offset, const QByteArray& bytes)
    {
        writeImage(image().replace(areaOffset(area) + offset, bytes.size(), bytes));
    }

    /// "station/type/address=hex" of every extend list entry, in order.
    static QString extendList()
    {
        QStringList entries;
        for (const EXTENDVAR& entry : PLC_driver.extend_list)
            entries << QString::asprintf("%d/%d/%d=", entry.station, entry.reg_type,
                                         entry.address) +
                           entry.value.toHex().toUpper();
        return entries.join(' ');
    }

    /// Appends entries written as extendList() gives them.
    static void extendBy(const QString& text)
    {
        for (const QString& entry : text.split(' ', Qt::SkipEmptyParts)) {
            const QStringList part = entry.split(QRegularExpression("[/=]"));
            PLC_driver.extend_list.append({part[0].toInt(), part[1].toInt(), part[2].toInt(),
                                           QByteArray::fromHex(part[3].toLatin1())});
        }
    }

private:
    /// The areas lie in the driver object as ImageArea lists them, without gaps.
    static char* imageBytes()
    {
        return reinterpret_cast<char*>(&PLC_driver) + offsetof(Siemens_S7_200, I_area);
    }
};

/// A request whose fields all differ from each other and from their defaults.
inline RW_VAR filledRequest(int regType, int address, int count, int station = 2,
                            const QByteArray& value = QByteArray())
{
    return {101,     102,     103,     104,   105, 106, "name", "text",
            regType, address, station, count, 107, 108, value};
}

inline bool sameRequest(const RW_VAR& a, const RW_VAR& b)
{
    const auto fields = [](const RW_VAR& v) {
        return std::tie(v.host_key, v.host_index, v.origin, v.remote, v.link_id, v.result, v.name,
                        v.address_text, v.reg_type, v.address, v.station, v.count, v.reserved1,
                        v.reserved2, v.value);
    };
    return fields(a) == fields(b);
}

/// Message of a failed table row: its label and what came out.
template <typename Value>
QByteArray got(const QString& label, const Value& value)
{
    QString text;
    QDebug(&text) << qPrintable(label) << "got" << value;
    return text.toLocal8Bit();
}

#endif
