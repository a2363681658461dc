#ifndef CORE_SIEMENS_S7_200_H
#define CORE_SIEMENS_S7_200_H

/// The one driver object, its records and the data image.

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/host_interface.h>
#include <siemens_s7_200_cp243/request_records.h>

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>

/// Connection state of one station.
struct PLC_CHECK {
    unsigned char hand_shake_ok = 0; ///< 1 once the connection handshake has completed.
    unsigned short pdu_ref = 0;      ///< S7 PDU reference of the station's next request.
};

/// One stored controller element of one station, used while variables carry their own stations.
struct EXTENDVAR {
    int station = 0;
    int reg_type = 0;
    int address = 0;  ///< Byte address, or timer or counter number.
    QByteArray value; ///< Byte areas: first byte; TV and CV: two bytes, low byte first.
};

/// The driver's whole state. Member order is fixed. The comm loop's thread alone uses
/// protocol_list; the mutexes guard what is named beside them.
class CP243_EXPORT Siemens_S7_200
{
public:
    Siemens_S7_200();
    ~Siemens_S7_200();

    COM_INFO* com_info; ///< Null until SetComInfo.
    QList<RW_VAR> read_list;
    QList<RW_VAR> write_list;
    QList<RW_VAR> once_read_list;
    QList<RW_VAR> spare_list;      ///< Always empty.
    QList<Protocol> protocol_list; ///< Frames built and not yet answered.
    QList<EXTENDVAR> extend_list;  ///< Grows only; an index stays valid.
    QMap<int, int> disabled_stations;
    CallBackFunc call_back; ///< Null until registered.
    int call_back_arg;
    QMutex list_mutex;    ///< Request lists and the counters of turns and cycles.
    QMutex data_mutex;    ///< Data image and extend_list.
    QMutex station_mutex; ///< disabled_stations.
    RW_VAR ret_var;       ///< What DataCom returns.
    int request_kind;     ///< RequestKind of the request issued last.
    int write_turns;
    int once_read_turns;
    int cycle_count;
    int read_seq;
    int write_seq;
    unsigned char
        link_failed; ///< Last transaction failed; read by other threads, see shared_word.h.
    unsigned char spare_flag; ///< Zero, unused.

    // The data image: controller memory byte for byte, most significant byte first; timer and
    // counter values as host-order numbers, their bits packed eight to a byte.
    unsigned char I_area[4096];
    unsigned char Q_area[4096];
    unsigned char M_area[4096];
    unsigned char S_area[4096];
    unsigned char SM_area[4096];
    unsigned char V_area[10240];
    unsigned char AIW_area[64];
    unsigned char AQW_area[64];
    unsigned short TV_area[256];
    unsigned short CV_area[256];
    unsigned char T_bits[32];
    unsigned char C_bits[32];

private:
    Q_DISABLE_COPY(Siemens_S7_200)
};

/// Values of Siemens_S7_200::request_kind.
enum RequestKind { CyclicRead = 0, QueuedWrite = 1, OneShotRead = 2, NoRequestYet = 100 };

extern CP243_EXPORT Siemens_S7_200 PLC_driver;

/// Connection state by station; entries are created on first use and never removed.
extern CP243_EXPORT QMap<int, PLC_CHECK> map_list;

/// Copies all fields of a finished request but its value, which is cleared in `to`: the host reads
/// values through GetRegisterData.
CP243_EXPORT void passRetValue(const RW_VAR& from, RW_VAR& to);

#endif
