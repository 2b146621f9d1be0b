/*
 * qvmessage: the message bus between the gateway's processes.
 *
 * Every message is one fixed 1192-byte MSGINFO record: a kind number and a
 * union of thirteen payload records. The layout is the wire format on the
 * System V queues, so every size and offset below is fixed.
 */
#ifndef QVMESSAGE_H
#define QVMESSAGE_H

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

/* Called once per received message with the receiving loop's own buffer;
 * the record is valid until the callback returns. */
typedef void (*funptr)(LPMSGINFO);

QV_API int zq_publisherMsg(void);
QV_API int zq_subscriberMsg_sync(funptr callback);
QV_API int zq_subscriberMsg_async(funptr callback);

QV_API int zq_sendMsg(const LPMSGINFO lpMsgInfo);
QV_API int zq_sendFileMsg(const LPMSGFILE msgFile);
QV_API int zq_sendSoeMsg(const LPSOEINFO soeInfo);
QV_API int zq_sendDoubSoeMsg(const LPSOEINFO soeInfo);
QV_API int zq_sendProMsg(const LPPROTECTINFO proMsg);
QV_API int zq_sendSBODOSaveMsg(const LPSBODOSAVEINFO sbodoInfo);
QV_API int zq_sendGeneralMsg(const LPGENERALMSG generalMsg);
QV_API int zq_sendSBOCtrlMsg(const LPSBOCTRL sboCtrlMsg);
QV_API int zq_sendSBOCtrlRetMsg(const LPSBOCTRLRET sboCtrlRetMsg);
QV_API int zq_sendDigitalOutMsg(const LPDIGITALOUT digitalOutMsg);
QV_API int zq_sendDigitalOutRetMsg(const LPDIGITALOUTRET digitalOutRetMsg);
QV_API int zq_sendFaultMsg(const LPFAULTINFO faultInfo);
QV_API int zq_sendTopoMsg(const LPTOPOINFO topoInfo);
QV_API int zq_sendRegisterMsg(const LPREGISTERINFO registerInfo);
QV_API int zq_sendUpdateFileMsg(const LPUPDATEFILE updateMsgFile);

#ifdef __cplusplus
}
#endif

#endif /* QVMESSAGE_H */
