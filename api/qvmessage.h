/**
 * @file qvmessage.h
 * @brief The message bus between the gateway's processes.
 *
 *
 * Every message is one fixed 1192-byte MSGINFO record: a kind number and a
 * union of thirteen payload records. The layout is the wire format on the
 * System V queues, so every size and offset below is fixed.
 *
 * Codes that the operations leave in zq_lastErrorCode (see qverror.h):
 * - QV_ERR_ARGUMENT: a NULL record or callback; a process name too long; a
 *   record whose queue type comes out negative (the send returns -1).
 * - QV_ERR_NO_ROUTE: a send before zq_publisherMsg (the send returns 0 and
 *   the first one of the process says so in a line); zq_publisherMsg or a
 *   subscribe for a process name that ProcessConfig lacks.
 * - QV_ERR_FULL: a receiver's queue stayed full and the record was lost.
 * - QV_ERR_PERMISSION, QV_ERR_IO: a queue or /proc/self could not be used
 *   (a send returns -1: the record was lost for that receiver).
 * - and the codes of qvconf.h from the configuration store it opens.
 */
#ifndef QVMESSAGE_H
#define QVMESSAGE_H

#include <stddef.h>

#include "qverror.h"
#include "qvexport.h"
#include "qvconf.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum MsgType {
    MSGFILE_TYPE = 1,
    SOEINFO_TYPE = 2,
    PROTECTINFO_TYPE = 3,
    SBODOSAVEINFO_TYPE = 4,
    GENERALMSG_TYPE = 5,
    SBOCTRL_TYPE = 6,
    SBOCTRLRET_TYPE = 7,
    DIGITALOUT_TYPE = 8,
    DIGITALOUTRET_TYPE = 9,
    FAULTINFO_TYPE = 10,
    TOPOINFO_TYPE = 11,
    REGISTERINFO_TYPE = 12,
    UPDATEFILE_TYPE = 13
} MsgType;

typedef struct MSGFILE {
    char iedName[128];
    int fileType;
    char strFileName[128];
} MSGFILE, *LPMSGFILE;

typedef struct SOEINFO {
    int type;
    char strDa[256];
    int value;
    int minutes;
    int msec;
} SOEINFO, *LPSOEINFO;

typedef struct PROTECTINFO {
    char strDa[256];
    int type;
    int minutes;
    int msec;
    int value;
} PROTECTINFO, *LPPROTECTINFO;

typedef struct SBODOSAVEINFO {
    int minutes;
    int msec;
    char strDa[256];
    int type;
    int rtuNo;
    int source;
    int value;
} SBODOSAVEINFO, *LPSBODOSAVEINFO;

typedef struct GENERALMSG {
    int type;
    char buf[1000];
    int dataLen;
} GENERALMSG, *LPGENERALMSG;

typedef struct SBOCTRL {
    char strDa[256];
    int type;
    int duration;
    int source;
} SBOCTRL, *LPSBOCTRL;

typedef struct SBOCTRLRET {
    char strDa[256];
    int function;
    int count;
    int duration;
    int timeOut;
    int source;
} SBOCTRLRET, *LPSBOCTRLRET;

typedef struct DIGITALOUT {
    char strDa[256];
    int bVal;
    int source;
} DIGITALOUT, *LPDIGITALOUT;

typedef struct DIGITALOUTRET {
    char strDa[256];
    int bVal;
} DIGITALOUTRET, *LPDIGITALOUTRET;

typedef struct FAULTINFO {
    char strDa[256];
    int value;
    int minutes;
    int msec;
} FAULTINFO, *LPFAULTINFO;

typedef struct TOPOINFO {
    char strDa[256];
    int value;
} TOPOINFO, *LPTOPOINFO;

typedef struct REGISTERINFO {
    char devcieid[32];
    char key[1024];
    int result;
    char desc[64];
    char version[64];
} REGISTERINFO, *LPREGISTERINFO;

typedef struct UPDATEFILE {
    char iedName[512];
    int all_flag;
    int fileType;
    char strFileName[128];
} UPDATEFILE, *LPUPDATEFILE;

typedef union UNIONMSG {
    MSGFILE msgFile;
    SOEINFO soeInfo;
    PROTECTINFO protectInfo;
    SBODOSAVEINFO sbodoInfo;
    GENERALMSG generalMsg;
    SBOCTRL sboCtrlInfo;
    SBOCTRLRET sboCtrlRetInfo;
    DIGITALOUT digitalOutInfo;
    DIGITALOUTRET digitalOutRetInfo;
    FAULTINFO faultInfo;
    TOPOINFO topoInfo;
    REGISTERINFO registerInfo;
    UPDATEFILE updateFile;
} UNIONMSG;

typedef struct MSGINFO {
    int msgType;
    UNIONMSG msgInfo;
} MSGINFO, *LPMSGINFO;

/* ---- Layout on the queue ------------------------------------------------
 * Every process on the gateway reads these bytes; a change of any size or
 * offset breaks the bus, so the compiler checks them (in C and C++). */
#ifdef __cplusplus
#define QV_MSG_LAYOUT(condition, text) static_assert(condition, text)
#else
#define QV_MSG_LAYOUT(condition, text) _Static_assert(condition, text)
#endif
#define QV_MSG_FIELD_AT(record, field, offset) \
    QV_MSG_LAYOUT(offsetof(record, field) == (offset), #record "." #field " moved")
#define QV_MSG_SIZE(record, size) QV_MSG_LAYOUT(sizeof(record) == (size), #record " resized")

QV_MSG_SIZE(MSGINFO, 1192);
QV_MSG_FIELD_AT(MSGINFO, msgType, 0);
QV_MSG_FIELD_AT(MSGINFO, msgInfo, 4);
QV_MSG_SIZE(UNIONMSG, 1188);

QV_MSG_SIZE(MSGFILE, 260);
QV_MSG_FIELD_AT(MSGFILE, iedName, 0);
QV_MSG_FIELD_AT(MSGFILE, fileType, 128);
QV_MSG_FIELD_AT(MSGFILE, strFileName, 132);

QV_MSG_SIZE(SOEINFO, 272);
QV_MSG_FIELD_AT(SOEINFO, type, 0);
QV_MSG_FIELD_AT(SOEINFO, strDa, 4);
QV_MSG_FIELD_AT(SOEINFO, value, 260);
QV_MSG_FIELD_AT(SOEINFO, minutes, 264);
QV_MSG_FIELD_AT(SOEINFO, msec, 268);

QV_MSG_SIZE(PROTECTINFO, 272);
QV_MSG_FIELD_AT(PROTECTINFO, strDa, 0);
QV_MSG_FIELD_AT(PROTECTINFO, type, 256);
QV_MSG_FIELD_AT(PROTECTINFO, minutes, 260);
QV_MSG_FIELD_AT(PROTECTINFO, msec, 264);
QV_MSG_FIELD_AT(PROTECTINFO, value, 268);

QV_MSG_SIZE(SBODOSAVEINFO, 280);
QV_MSG_FIELD_AT(SBODOSAVEINFO, minutes, 0);
QV_MSG_FIELD_AT(SBODOSAVEINFO, msec, 4);
QV_MSG_FIELD_AT(SBODOSAVEINFO, strDa, 8);
QV_MSG_FIELD_AT(SBODOSAVEINFO, type, 264);
QV_MSG_FIELD_AT(SBODOSAVEINFO, rtuNo, 268);
QV_MSG_FIELD_AT(SBODOSAVEINFO, source, 272);
QV_MSG_FIELD_AT(SBODOSAVEINFO, value, 276);

QV_MSG_SIZE(GENERALMSG, 1008);
QV_MSG_FIELD_AT(GENERALMSG, type, 0);
QV_MSG_FIELD_AT(GENERALMSG, buf, 4);
QV_MSG_FIELD_AT(GENERALMSG, dataLen, 1004);

QV_MSG_SIZE(SBOCTRL, 268);
QV_MSG_FIELD_AT(SBOCTRL, strDa, 0);
QV_MSG_FIELD_AT(SBOCTRL, type, 256);
QV_MSG_FIELD_AT(SBOCTRL, duration, 260);
QV_MSG_FIELD_AT(SBOCTRL, source, 264);

QV_MSG_SIZE(SBOCTRLRET, 276);
QV_MSG_FIELD_AT(SBOCTRLRET, strDa, 0);
QV_MSG_FIELD_AT(SBOCTRLRET, function, 256);
QV_MSG_FIELD_AT(SBOCTRLRET, count, 260);
QV_MSG_FIELD_AT(SBOCTRLRET, duration, 264);
QV_MSG_FIELD_AT(SBOCTRLRET, timeOut, 268);
QV_MSG_FIELD_AT(SBOCTRLRET, source, 272);

QV_MSG_SIZE(DIGITALOUT, 264);
QV_MSG_FIELD_AT(DIGITALOUT, strDa, 0);
QV_MSG_FIELD_AT(DIGITALOUT, bVal, 256);
QV_MSG_FIELD_AT(DIGITALOUT, source, 260);

QV_MSG_SIZE(DIGITALOUTRET, 260);
QV_MSG_FIELD_AT(DIGITALOUTRET, strDa, 0);
QV_MSG_FIELD_AT(DIGITALOUTRET, bVal, 256);

QV_MSG_SIZE(FAULTINFO, 268);
QV_MSG_FIELD_AT(FAULTINFO, strDa, 0);
QV_MSG_FIELD_AT(FAULTINFO, value, 256);
QV_MSG_FIELD_AT(FAULTINFO, minutes, 260);
QV_MSG_FIELD_AT(FAULTINFO, msec, 264);

QV_MSG_SIZE(TOPOINFO, 260);
QV_MSG_FIELD_AT(TOPOINFO, strDa, 0);
QV_MSG_FIELD_AT(TOPOINFO, value, 256);

QV_MSG_SIZE(REGISTERINFO, 1188);
QV_MSG_FIELD_AT(REGISTERINFO, devcieid, 0);
QV_MSG_FIELD_AT(REGISTERINFO, key, 32);
QV_MSG_FIELD_AT(REGISTERINFO, result, 1056);
QV_MSG_FIELD_AT(REGISTERINFO, desc, 1060);
QV_MSG_FIELD_AT(REGISTERINFO, version, 1124);

QV_MSG_SIZE(UPDATEFILE, 648);
QV_MSG_FIELD_AT(UPDATEFILE, iedName, 0);
QV_MSG_FIELD_AT(UPDATEFILE, all_flag, 512);
QV_MSG_FIELD_AT(UPDATEFILE, fileType, 516);
QV_MSG_FIELD_AT(UPDATEFILE, strFileName, 520);

#undef QV_MSG_SIZE
#undef QV_MSG_FIELD_AT
#undef QV_MSG_LAYOUT

/** Called once per received message with the receiving loop's own buffer;
 * the record is valid until the callback returns. */
typedef void (*funptr)(LPMSGINFO);

/** Threads: zq_publisherMsg loads the route table that every send reads;
 * call it before any thread sends, and not while one does. The sends may
 * then be called from several threads at once. The subscribe operations
 * start one receiving loop per process. zq_setProcessName, like
 * zq_publisherMsg, belongs before the threads start.
 *
 * zq_publisherMsg learns the process name from /proc/self (the executable's
 * file name and its arguments, each after one blank) and loads the routes of
 * that name (or the one given to zq_setProcessName) from the configuration
 * store. Until it has been called, every send returns 0 and delivers
 * nothing: there are no routes, which the first send says in a line. A name
 * that ProcessConfig lacks fails the call with -1 and a line naming it. */
QV_API int zq_publisherMsg(void);

/** The name under which this process is known in ProcessConfig, used by zq_publisherMsg and the
   subscribers instead of the name taken from /proc/self. NULL or "" goes back to that name.
   0, or -1 for a name longer than the field. Call it before zq_publisherMsg. */
QV_API int zq_setProcessName(const char* name);
/** A subscriber raises its queue's capacity to 1000 records; when the system
 * does not allow that, it says once on standard error what it got. A message
 * longer than the 8192-byte receive text (where the system's msgmax allows
 * one) is taken all the same, cut to 8192 bytes (MSG_NOERROR), with a line
 * saying so; the callback gets its first 1192 bytes. */
QV_API int zq_subscriberMsg_sync(funptr callback);
QV_API int zq_subscriberMsg_async(funptr callback);

/** @name Sends
 * Each send puts the record on the queue of every receiver whose route
 * carries its kind. A full queue is raised to 1000 records where the system
 * allows it, then gets up to 50 ms to make room; when it stays full the
 * record is lost for that receiver, a line naming it goes to standard error
 * and the send returns -1 once every route was served. Until a record gets
 * through to that receiver again, its further records are tried once
 * without waiting. Any other reason that a record cannot be queued for a
 * receiver (its queue cannot be opened or the kernel refuses the record)
 * also costs that receiver the record with one line, and the send returns
 * -1. A record whose first four payload bytes make the queue's type field
 * negative (a negative SOEINFO.type, SBODOSAVEINFO.minutes or
 * GENERALMSG.type, or a fourth byte of 128 or more in the leading text, as
 * in MSGFILE.iedName "变电站1") goes to no queue: the send returns -1 with a
 * line naming that field. A NULL record returns -1. Otherwise the result is
 * 0.
 *
 * Monitors: while bus monitors watch (qvtool watch --all, up to 8 at once),
 * each send also puts a copy on every monitor's queue: one per receiver, with
 * the sender's and receiver's process numbers and whether the receiver's
 * queue took the record, or one copy without a receiver when no route
 * carries the kind. The copies never wait and never change a send's result:
 * a monitor whose queue is full loses the copy (it is told how many it
 * lost), and a monitor that died is found by its queue filling up and that
 * queue is removed. With no monitor a send reads a few words of shared
 * memory and makes no extra system call. zq_publisherMsg maps the monitors'
 * registry, a shared memory segment and a semaphore set under the key
 * QV_QUEUE_KEY_OFFSET - 1 (1999 on a gateway), creating them with the
 * build's QV_IPC_MODE when absent; a process that may not use them sends to
 * its receivers only. */
/** @{ */
QV_API int zq_sendMsg(const MSGINFO* lpMsgInfo);
QV_API int zq_sendFileMsg(const MSGFILE* msgFile);
QV_API int zq_sendSoeMsg(const SOEINFO* soeInfo);
QV_API int zq_sendDoubSoeMsg(const SOEINFO* soeInfo);
QV_API int zq_sendProMsg(const PROTECTINFO* proMsg);
QV_API int zq_sendSBODOSaveMsg(const SBODOSAVEINFO* sbodoInfo);
QV_API int zq_sendGeneralMsg(const GENERALMSG* generalMsg);
QV_API int zq_sendSBOCtrlMsg(const SBOCTRL* sboCtrlMsg);
QV_API int zq_sendSBOCtrlRetMsg(const SBOCTRLRET* sboCtrlRetMsg);
QV_API int zq_sendDigitalOutMsg(const DIGITALOUT* digitalOutMsg);
QV_API int zq_sendDigitalOutRetMsg(const DIGITALOUTRET* digitalOutRetMsg);
QV_API int zq_sendFaultMsg(const FAULTINFO* faultInfo);
QV_API int zq_sendTopoMsg(const TOPOINFO* topoInfo);
QV_API int zq_sendRegisterMsg(const REGISTERINFO* registerInfo);
QV_API int zq_sendUpdateFileMsg(const UPDATEFILE* updateMsgFile);
/** @} */

#ifdef __cplusplus
}
#endif

#endif /* QVMESSAGE_H */
