/* kvlclient: connections to the Gateway, the API trace, versions and return codes.
 *
 * Thread safety: every function may be called from any thread at any time;
 * a connection (gwTok) may be used by many threads at once. */
#ifndef KVLCLIENT_H
#define KVLCLIENT_H

#include "kvl_export.h"

/* Return codes shared by every exported function. The five positive codes carry
 * the Gateway's own error numbers. Codes are never renumbered or removed. */
#define KVL_OK 0
#define KVL_ERR_SYSTEM_ERROR (-9)
#define KVL_ERR_MORE_SYSTEMS (-25)
#define KVL_ERR_NO_SYSTEMS (-26)
#define KVL_ERR_NULLGWTOK (-100)
#define KVL_ERR_BADGWTOK (-101)
#define KVL_ERR_LOSTGWCON (-102)
#define KVL_ERR_NULLPARM (-103)
#define KVL_ERR_TRACELEVEL (-104)
#define KVL_ERR_BADPORT (-107)
#define KVL_ERR_NULLGWTOKPTR (-108)
#define KVL_ERR_NULLPTR (-109)
#define KVL_ERR_MALLOCFAIL (-111)
#define KVL_ERR_CONNECTFAILED (-118)
#define KVL_ERR_TRACEFILE (-130)
#define KVL_ERR_BADHOST (-132)
#define KVL_ERR_NULLADDRESS (-133)
#define KVL_ERR_CONNECTTIMEOUT (-134)
#define KVL_ERR_NULLECIPOINTER (-137)
#define KVL_ERR_INVALIDTIMEOUTPARM (-138)
#define KVL_ERR_APPLIDTOOLONG (-139)
#define KVL_ERR_GWTOK_CLOSED (-140)
#define KVL_ERR_GATEWAY_CLOSED 61444
#define KVL_ERR_WORK_WAS_REFUSED 61445
#define KVL_ERR_GATEWAY_EXCEPTION 61446
#define KVL_ERR_GATEWAY_BACK_LEVEL 61450
#define KVL_ERR_INVALID_REQUEST_TYPE 61451

/* KVL_getRcString copies a name into a buffer of this many bytes. */
#define KVL_RC_STRING_LENGTH 40

/* One server known to the Gateway: a 70-byte record, as the Gateway sends it. */
typedef struct kvlSystemInfo {
    char SystemName[9];         /* up to 8 characters, NUL-terminated */
    char SystemDescription[61]; /* as sent by the Gateway */
} kvlSystemInfo;

/* An open Gateway connection; opaque. */
typedef struct kvlGatewayToken* gwTok;

KVL_EXTERN_C_BEGIN

/* Trace: level 0 (off) to 5; *EXC* lines from 1, EVENT 2, ENTRY/EXIT 3, DEBUG and DATA 4. */
KVL_API int KVL_setAPITraceLevel(int traceState);
KVL_API int KVL_getAPITraceLevel(int* traceStatePtr);
/* Appends to the named file (at most 1023 characters); NULL returns to standard error. */
KVL_API int KVL_setAPITraceFile(const char* traceFile);
KVL_API void KVL_setAPITraceDataLength(int dataLength);
KVL_API void KVL_setAPITraceDataOffset(int dataOffset);
/* Writes the library's state to the trace destination, whatever the level. */
KVL_API int KVL_dumpState(void);

/* Versions: the strings are the library's own; do not free or change them. */
KVL_API int KVL_getAPIVersion(char** apiVersPtr);
KVL_API int KVL_getDLLVersion(char** dllVersPtr);
/* Copies the name of rc into rcString (KVL_RC_STRING_LENGTH bytes); returns rcString. */
KVL_API char* KVL_getRcString(int rc, char* rcString);

/* Connections. port 1..65535; connTimeout and closeTimeout 0..3600 seconds
 * (connTimeout 0: the connect is not bounded; closeTimeout 0: the purge does not
 * wait for calls in flight). applid and qualifier: at most 8 characters; the
 * environment variables KVL_APPLID and KVL_APPLIDQUALIFIER, when set, replace them.
 * Close and purge set *gwTokPtr to NULL on success. */
KVL_API int KVL_openRemoteGatewayConnection(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout);
KVL_API int KVL_openRemoteGatewayConnectionApplid(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout,
                                                  const char* applid, const char* applidQualifier);
KVL_API int KVL_closeGatewayConnection(gwTok* gwTokPtr);
KVL_API int KVL_purgeGatewayConnection(gwTok* gwTokPtr, int closeTimeout);
KVL_API int KVL_closeAllGatewayConnections(void);
/* The strings belong to the connection and stay valid until it is closed. */
KVL_API int KVL_getApplid(gwTok token, char** applid);
KVL_API int KVL_getApplidQualifier(gwTok token, char** applidQualifier);

/* Lists the servers the Gateway knows. *Systems: on entry the capacity of List,
 * on return the number the Gateway reported (which may exceed the capacity; then
 * the result is KVL_ERR_MORE_SYSTEMS and only the capacity was written). */
KVL_API int KVL_listSystems(gwTok token, unsigned short* Systems, kvlSystemInfo* List);

KVL_EXTERN_C_END

#endif
