#ifndef SIEMENS_S7_200_CP243_HOST_INTERFACE_H
#define SIEMENS_S7_200_CP243_HOST_INTERFACE_H

/// Everything a host needs to load and drive the library: records, callback and entry points.
///
/// Order of calls: SetComInfo, RegistCallBackFuncIntf, FlashLocalRegister, the list calls, then one
/// thread alternates ComCommunication (what to send) and DataCom (what came back). SetComInfo must
/// come first; debug builds assert it. Without FlashLocalRegister, or with null words, the default
/// TSAPs are used. The list and value functions may be called from any thread, AddListReadVar
/// excepted.
///
/// No exception leaves an entry point. When memory runs out the call ends as said at each, with
/// lists and mutexes sound; ComCommunication then returns null and DataCom reports a failed reply,
/// so that the request comes again.

#include <siemens_s7_200_cp243/export.h>
#include <siemens_s7_200_cp243/register_types.h>
#include <siemens_s7_200_cp243/request_records.h>

#include <QByteArray>
#include <QList>
#include <QString>

/// COM_INFO::communication_mode. Any value but Mode_WriteThrough keeps host writes in the image.
enum CommunicationMode {
    Mode_ImageOnly = 0,    ///< Host writes change the driver's image and go no further.
    Mode_WriteThrough = 2, ///< Host writes are queued for the controller.
};

/// Mode of AddListWriteVar and AddListOnceReadVar. Any value but List_Append merges.
enum ListMode {
    List_Merge = 0,  ///< Parse, cut and keep free of duplicates.
    List_Append = 1, ///< Append the record as it is.
};

/// Last argument of the callback.
enum CallBackOutcome {
    Outcome_Good = 1,
    Outcome_LinkFailed = 2, ///< The last transaction failed.
};

/// `result` of the record that DataCom returns. Failures of a request come as one of six bases,
/// plus the request's host_key where that is 1 to 11, and only once the retry limit is passed.
enum ResultCode {
    Result_WillRetry = 0, ///< A reply failed; the same frame (or the handshake) goes out again.
    Result_Good = 1,      ///< Also: nothing was pending, or a handshake step succeeded.
    Result_BadContent = 11,
    Result_TimeOut = 41,
    Result_WrongLength = 71,
    Result_RemoteStored = 100, ///< Good, from another link than COM_INFO::link_id, data stored.
    Result_RemoteBadContent = 111,
    Result_RemoteTimeOut = 141,
    Result_RemoteWrongLength = 171,
    Result_Unknown = 200, ///< Not produced.
    Result_HandshakeFailed = 201,
};

/// The host's local word registers that the driver uses: the TSAPs (ISO 8073), high byte first on
/// the wire. When either is 0 the driver puts the defaults into both.
enum LocalWord {
    LocalWord_CalledTsap = 55000,  ///< The controller's; by default 0x1100.
    LocalWord_CallingTsap = 55001, ///< The driver's; by default 0x1000.
    LocalWordCount = 55002,
};

/// The host's settings and status record: 19 words of 32 bits, read and written in place.
/// Word positions are part of the interface.
struct COM_INFO {
    int unused0;            ///< 0: the host's.
    int unused1;            ///< 1: the host's.
    int unused2;            ///< 2: the host's.
    int unused3;            ///< 3: the host's.
    int block_length_limit; ///< 4, host: most bytes of one read, elements of one write piece.
    int unused5;            ///< 5: the host's.
    int default_station;    ///< 6, host: station of all variables while word 9 is 0.
    int retry_limit;        ///< 7, host: failed replies tolerated before the link counts as down.
    int retry_count;        ///< 8, driver: failed replies since the link was last declared down;
                            ///< good ones in between do not reset it.
    int per_variable_stations; ///< 9, host: non-zero: each variable carries its own station.
    int link_down;             ///< 10, driver: 1 down, 0 up.
    int frame_count;           ///< 11, driver: frames of the current transaction.
    int frame_index;           ///< 12, driver: replies received in the current transaction.
    int unused13;              ///< 13: cleared by SetComInfo.
    int remote_access;         ///< 14, host: non-zero: forward records instead of S7 jobs.
    int link_id;               ///< 15, host: link identifier; decides a reply's path.
    int communication_mode; ///< 16, host: 2: writes go to the controller; else to the image only.
    int cycle_complete;     ///< 17, driver: 1 once the whole cyclic list has been walked, and
                            ///< after a call that found nothing to send.
    int host_handle;        ///< 18, host: first argument of every callback.
};

/// A variable that the host's screens show. Only the named members are read.
struct VAR_INFO {
    unsigned char unused0 = 0;  ///< Not read.
    unsigned char reg_type = 0; ///< Register type 0 to 24.
    unsigned char station = 0;  ///< Used only while COM_INFO::per_variable_stations is set.
    unsigned char unused3 = 0;  ///< Not read.
    int unused4 = 0;            ///< Not read.
    QString address_text;       ///< "byte.bit" for bit types, else a decimal number.
    QString name;  ///< Area name; must be "T", "TV", "C" or "CV" for timers and counters.
    int count = 0; ///< Elements: bits, bytes (VB), 16-bit words, timers or counters.
};

/// Called once per finished one-shot read with COM_INFO::host_handle, the read's host_key and
/// host_index, and 1 for success or 2 when the link has failed. The result is ignored. It runs
/// inside DataCom under the list mutex: it must not call a list function, ComCommunication or
/// DataCom, nor SetRegisterData in Mode_WriteThrough; GetRegisterData is allowed.
typedef int (*CallBackFunc)(int handle, int host_key, int host_index, int outcome);

extern "C" {

/// What FlashLocalRegister was given last: local bit registers, local word registers (of which
/// the driver uses words 55000 and 55001, the two TSAPs), and a third block.
CP243_EXPORT extern void* LB;
CP243_EXPORT extern unsigned short* LW;
CP243_EXPORT extern void* RWI;

/// Hands over the settings record, which the driver uses in place from now on. Clears word 13 and
/// sets word 10 (link down) to 1. No lock; call it before the communication loop starts.
CP243_EXPORT void SetComInfo(COM_INFO* info);

/// Registers the callback for finished one-shot reads; `arg` is kept beside it and not passed on.
/// A null callback is not called. No lock.
CP243_EXPORT void RegistCallBackFuncIntf(CallBackFunc callback, int arg);

/// Stores pointers to the host's register blocks in LB, LW and RWI. `words` must hold at least
/// LocalWordCount values of 16 bits. No lock.
CP243_EXPORT void FlashLocalRegister(void* bits, void* words, void* third);

/// Replaces the cyclic read list by one built from `variables`; variables that cannot be read are
/// skipped, and of each at most 2^20 bytes or elements are listed. Returns the number of read
/// requests, 0 with an empty list when memory runs out. Takes the list mutex.
CP243_EXPORT int ReCreatReadVarList(QList<VAR_INFO> variables);

/// Appends a copy of a ready-made request (address and count in bytes) to the cyclic list and
/// returns its size; a null pointer, or one more when memory has run out, appends nothing. Takes NO
/// lock: not while the loop runs.
CP243_EXPORT int AddListReadVar(RW_VAR* var);

/// Queues a one-shot read. `link_id` must be that of COM_INFO, else its reply is not stored and the
/// callback does not come. Mode 1 appends `var` as it is; any other mode parses its address_text,
/// normalises it in place and splits it by the block length limit; duplicates and what exceeds
/// 1024 entries are skipped. Returns the size of the one-shot list, or 0, with nothing queued, for
/// an address that cannot be parsed, a null pointer and when memory runs out. Takes the list mutex.
CP243_EXPORT int AddListOnceReadVar(RW_VAR* var, int mode);

/// Queues a write. Mode 1 appends; any other mode lets it replace an equal pending write (never
/// the first) and drops it when 1024 are pending. Returns the size of the write queue, or 0 for a
/// null pointer and when memory runs out. Takes the list mutex.
CP243_EXPORT int AddListWriteVar(RW_VAR* var, int mode);

/// Converts an address text as the driver does: byte * 8 + bit for types 0 to 5, else the number.
/// Returns -1 when the text is not valid for the type, and when memory runs out. No lock.
CP243_EXPORT int PLCAddressChangeIntef(int regType, QString text);

/// Returns the record whose frame is to be sent now, or null when there is nothing to send. The
/// record stays the driver's and valid until DataCom removes it. Takes the list mutex (and the
/// data mutex within it) unless a frame is already pending.
CP243_EXPORT Protocol* ComCommunication();

/// Takes the reply to the frame handed out last: `len` bytes in `reply`, or 0 and an empty array
/// for a time-out. Returns the result record (its `result` is 1 or 100 for success, 0 for a
/// failure that will be retried, else a failure code). Takes the list and the data mutex.
CP243_EXPORT RW_VAR* DataCom(QByteArray* reply, int len);

/// Reads a value out of the image into `data` from index 0 on, growing it where needed, in host
/// encoding (least significant byte first; VB two bytes each; `count` of double words in 16-bit
/// words). `name` is not used. Returns 0 for an invalid address and when memory runs out, else 1.
/// Takes the data mutex.
CP243_EXPORT int GetRegisterData(QString name, int reg_type, QString address_text, int station,
                                 QByteArray& data, int count);

/// Writes a value in host encoding. In communication mode 2 it is queued for the controller in
/// pieces and the size of the write queue is returned; in any other mode only the image changes
/// and 1 is returned. Returns 0 for an invalid address, a type that cannot be written (mode 2),
/// nothing to write, a null pointer, and when memory runs out (pieces queued by then stay queued).
/// Takes the list and the data mutex, one after the other.
CP243_EXPORT int SetRegisterData(QString name, int reg_type, QString address_text, int station,
                                 QByteArray* data, int count, int host_key, int host_index);

/// Marks a station disabled (enable 0) or enabled (enable 1) for the host's benefit; a negative
/// station forgets all marks; when memory runs out nothing changes. A disabled station is still
/// polled. Takes the station mutex.
CP243_EXPORT void EnableEthernet(int station, int enable);

/// Always 1: the driver never keeps the host waiting.
CP243_EXPORT int QueryFinishFlag();

} // extern "C"

#endif
