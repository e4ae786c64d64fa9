/** @file kvlclient.h
 * Connections to the Gateway, the API trace, versions, return-code names and
 * the list of servers; the return codes that every exported function shares.
 *
 * Thread safety: every function may be called from any thread at any time;
 * a connection (gwTok) may be used by many threads at once. A close or purge
 * blocks only its caller; other threads go on using other connections.
 */
#ifndef KVLCLIENT_H
#define KVLCLIENT_H

#include "kvl_export.h"

/** @name Return codes shared by every exported function
 * One number space holds these, the ECI codes (kvl_eci.h), the channel codes
 * (kvl_channel.h) and the ESI codes (kvl_esi.h); KVL_getRcString() names any of
 * them. 0 is success, failures are negative except the five Gateway codes
 * 61444..61451, which carry the Gateway's own error numbers unchanged. Codes are
 * never renumbered or removed.
 * @{ */
#define KVL_OK 0                       /**< success */
#define KVL_ERR_SYSTEM_ERROR (-9)      /**< a lock, event or thread operation of the system failed */
#define KVL_ERR_MORE_SYSTEMS (-25)     /**< KVL_listSystems(): the Gateway knows more servers than the list holds */
#define KVL_ERR_NO_SYSTEMS (-26)       /**< KVL_listSystems(): the Gateway knows no server */
#define KVL_ERR_NULLGWTOK (-100)       /**< the connection (gwTok) is NULL */
#define KVL_ERR_BADGWTOK (-101)        /**< the connection is not open (closed, deleted or never opened) */
#define KVL_ERR_LOSTGWCON (-102)       /**< the connection to the Gateway broke */
#define KVL_ERR_NULLPARM (-103)        /**< a required string argument is NULL */
#define KVL_ERR_TRACELEVEL (-104)      /**< trace level outside 0..5 */
#define KVL_ERR_BADPORT (-107)         /**< port outside 1..65535 */
#define KVL_ERR_NULLGWTOKPTR (-108)    /**< the pointer to the caller's gwTok variable is NULL */
#define KVL_ERR_NULLPTR (-109)         /**< a required output pointer is NULL */
#define KVL_ERR_MALLOCFAIL (-111)      /**< memory could not be allocated */
#define KVL_ERR_CONNECTFAILED (-118)   /**< the TCP connection or the Gateway's handshake failed */
#define KVL_ERR_TRACEFILE (-130)       /**< the trace file cannot be opened, or its name exceeds 1023 characters */
#define KVL_ERR_BADHOST (-132)         /**< the host name cannot be resolved */
#define KVL_ERR_NULLADDRESS (-133)     /**< the host name is NULL */
#define KVL_ERR_CONNECTTIMEOUT (-134)  /**< the connect did not complete within connTimeout */
#define KVL_ERR_NULLECIPOINTER (-137)  /**< the EciParms pointer is NULL */
#define KVL_ERR_INVALIDTIMEOUTPARM (-138) /**< connTimeout or closeTimeout outside 0..3600 */
#define KVL_ERR_APPLIDTOOLONG (-139)   /**< applid or qualifier (after the environment) longer than 8 characters */
#define KVL_ERR_GWTOK_CLOSED (-140)    /**< the connection is closing or was closed by the Gateway */
#define KVL_ERR_GATEWAY_CLOSED 61444   /**< 0xF004: the Gateway closed the connection */
#define KVL_ERR_WORK_WAS_REFUSED 61445 /**< 0xF005: the Gateway refused the connection or the work */
#define KVL_ERR_GATEWAY_EXCEPTION 61446 /**< 0xF006: the Gateway reported an exception for the request */
#define KVL_ERR_GATEWAY_BACK_LEVEL 61450 /**< 0xF00A: the Gateway is too old for the request */
#define KVL_ERR_INVALID_REQUEST_TYPE 61451 /**< 0xF00B: the Gateway does not know the request type */
/** @} */

/** Size of the buffer KVL_getRcString() fills: every name is shorter. */
#define KVL_RC_STRING_LENGTH 40

/** One server known to the Gateway: a 70-byte record, as the Gateway sends it. */
typedef struct kvlSystemInfo {
    char SystemName[9];         /**< up to 8 characters; trailing blanks replaced by NUL, so terminated */
    char SystemDescription[61]; /**< as sent by the Gateway (NUL-padded) */
} kvlSystemInfo;

/** An open Gateway connection; opaque. NULL means no connection. */
typedef struct kvlGatewayToken* gwTok;

KVL_EXTERN_C_BEGIN

/** @name Trace
 * The trace is off (level 0) when the library loads, unless the environment
 * variable KVL_CLIENT_TRACE_LEVEL says otherwise; its lines go to standard
 * error unless KVL_CLIENT_TRACE_FILE names a file. Passwords never reach it.
 * @{ */

/** Sets the trace level.
 * @param traceState 0 off; 1 failures (*EXC* lines); 2 also EVENT lines; 3 also
 *        function ENTRY and EXIT; 4 and 5 also DEBUG lines and DATA dumps.
 * @return KVL_OK, or KVL_ERR_TRACELEVEL for a level outside 0..5 (the level stays). */
KVL_API int KVL_setAPITraceLevel(int traceState);
/** Reads the trace level.
 * @param traceStatePtr receives the level 0..5.
 * @return KVL_OK, or KVL_ERR_NULLPTR when traceStatePtr is NULL. */
KVL_API int KVL_getAPITraceLevel(int* traceStatePtr);
/** Sends the trace to a file, appending; or back to standard error.
 * @param traceFile the file's name (at most 1023 characters), or NULL for standard error.
 * @return KVL_OK, or KVL_ERR_TRACEFILE when the name is too long or the file
 *         cannot be opened (the trace then stays where it was). */
KVL_API int KVL_setAPITraceFile(const char* traceFile);
/** Limits the hexadecimal dumps of DATA lines (as KVL_CLIENT_DATA_LENGTH does).
 * @param dataLength bytes dumped per buffer (128 when the library loads); 0
 *        dumps whole buffers. Not checked: pass 0 or a positive count. */
KVL_API void KVL_setAPITraceDataLength(int dataLength);
/** Starts the hexadecimal dumps of DATA lines at an offset (as KVL_CLIENT_DATA_OFFSET does).
 * @param dataOffset first byte of each buffer dumped (0 when the library
 *        loads). Not checked: pass 0 or a positive offset. */
KVL_API void KVL_setAPITraceDataOffset(int dataOffset);
/** Writes the library's state (version, trace settings, connections with their
 * requests, channels and containers) to the trace destination, whatever the level.
 * @return KVL_OK always. */
KVL_API int KVL_dumpState(void);
/** @} */

/** @name Versions and return-code names
 * @{ */

/** The version of the programming interface, "2.3.0.0".
 * @param apiVersPtr receives the address of the library's own string: do not
 *        free or change it; the same address on every call.
 * @return KVL_OK, or KVL_ERR_NULLPTR when apiVersPtr is NULL. */
KVL_API int KVL_getAPIVersion(char** apiVersPtr);
/** The version of the library itself (the package version, for example "9.1.0.4").
 * @param dllVersPtr receives the address of the library's own string: do not free or change it.
 * @return KVL_OK, or KVL_ERR_NULLPTR when dllVersPtr is NULL. */
KVL_API int KVL_getDLLVersion(char** dllVersPtr);
/** Names a return code of any family, for example "ECI_ERR_INVALID_VERSION"
 * for -21. Where two families share a value, the KVL_ name wins (-9 is
 * "KVL_ERR_SYSTEM_ERROR"). A code no table knows is "UNKNOWN".
 * @param rc any return code of the library.
 * @param rcString a buffer of KVL_RC_STRING_LENGTH bytes, filled with the name
 *        and zeros; may be NULL (nothing is copied).
 * @return rcString (NULL when NULL was given). */
KVL_API char* KVL_getRcString(int rc, char* rcString);
/** @} */

/** @name Connections
 * @{ */

/** Opens a connection to a Gateway with an empty applid and qualifier; the
 * same as KVL_openRemoteGatewayConnectionApplid(hostname, port, gwTokPtr,
 * connTimeout, "", "").
 * @param hostname host name or address of the Gateway.
 * @param port TCP port, 1..65535.
 * @param gwTokPtr receives the connection.
 * @param connTimeout seconds to wait for the TCP connect, 0..3600; 0: the system's own limit.
 * @return as KVL_openRemoteGatewayConnectionApplid(). */
KVL_API int KVL_openRemoteGatewayConnection(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout);
/** Opens a connection to a Gateway: connects, starts the connection's receiver
 * thread, and exchanges the handshake. Returns when the Gateway has answered.
 *
 * The environment variables KVL_APPLID and KVL_APPLIDQUALIFIER, when set (even
 * empty), replace applid and applidQualifier. The arguments are checked in the
 * order port, gwTokPtr, connTimeout, hostname, applid, applidQualifier; the
 * first failure is the result.
 * @param hostname host name or address of the Gateway.
 * @param port TCP port, 1..65535.
 * @param gwTokPtr receives the connection on success.
 * @param connTimeout seconds to wait for the TCP connect, 0..3600; 0: the system's own limit.
 * @param applid the application's id, at most 8 characters ("" for none).
 * @param applidQualifier its qualifier, at most 8 characters ("" for none).
 * @return KVL_OK; KVL_ERR_BADPORT, KVL_ERR_NULLGWTOKPTR, KVL_ERR_INVALIDTIMEOUTPARM,
 *         KVL_ERR_NULLADDRESS, KVL_ERR_NULLPARM, KVL_ERR_APPLIDTOOLONG for bad arguments;
 *         KVL_ERR_BADHOST, KVL_ERR_CONNECTFAILED, KVL_ERR_CONNECTTIMEOUT,
 *         KVL_ERR_LOSTGWCON when connecting fails; a Gateway code (for example
 *         KVL_ERR_WORK_WAS_REFUSED) when the Gateway refuses the handshake;
 *         KVL_ERR_MALLOCFAIL, KVL_ERR_SYSTEM_ERROR. */
KVL_API int KVL_openRemoteGatewayConnectionApplid(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout,
                                                  const char* applid, const char* applidQualifier);
/** Closes a connection: refuses new calls, waits without limit for the calls
 * and asynchronous requests in flight (and for their replies to be retrieved),
 * sends the close flow and frees the connection.
 * @param gwTokPtr the caller's connection variable; set to NULL on success.
 * @return KVL_OK; KVL_ERR_NULLGWTOKPTR, KVL_ERR_NULLGWTOK; KVL_ERR_BADGWTOK for a
 *         connection that is not open; KVL_ERR_GWTOK_CLOSED when another close
 *         of it is running; KVL_ERR_SYSTEM_ERROR. */
KVL_API int KVL_closeGatewayConnection(gwTok* gwTokPtr);
/** Closes a connection, waiting at most closeTimeout seconds for the calls in
 * flight; calls still waiting afterwards fail with KVL_ERR_GWTOK_CLOSED. A
 * Gateway that answers neither the close nor reads what is sent to it is cut
 * off after at most 30 more seconds (its calls then fail with KVL_ERR_LOSTGWCON).
 * @param gwTokPtr the caller's connection variable; set to NULL on success.
 * @param closeTimeout 0..3600 seconds; 0 does not wait at all.
 * @return as KVL_closeGatewayConnection(), and KVL_ERR_INVALIDTIMEOUTPARM for a
 *         closeTimeout outside 0..3600 (checked after the NULL tests). */
KVL_API int KVL_purgeGatewayConnection(gwTok* gwTokPtr, int closeTimeout);
/** Closes every open connection without waiting for calls in flight (they fail).
 * Callers' gwTok variables are not changed: do not use them afterwards.
 * @return KVL_OK always. */
KVL_API int KVL_closeAllGatewayConnections(void);
/** The applid a connection was opened with (after the environment applied).
 * @param token the connection.
 * @param applid receives the address of the connection's own terminated string,
 *        valid until the connection is closed.
 * @return KVL_OK; KVL_ERR_NULLGWTOK, KVL_ERR_NULLPTR, KVL_ERR_BADGWTOK, KVL_ERR_SYSTEM_ERROR. */
KVL_API int KVL_getApplid(gwTok token, char** applid);
/** The applid qualifier a connection was opened with.
 * @param token the connection.
 * @param applidQualifier receives the address of the connection's own
 *        terminated string, valid until the connection is closed.
 * @return KVL_OK; KVL_ERR_NULLGWTOK, KVL_ERR_NULLPTR, KVL_ERR_BADGWTOK, KVL_ERR_SYSTEM_ERROR. */
KVL_API int KVL_getApplidQualifier(gwTok token, char** applidQualifier);
/** @} */

/** Lists the servers the Gateway knows; a synchronous request on the connection.
 * @param token the connection.
 * @param Systems on entry the capacity of List (entries); on return the number
 *        of servers the Gateway reported, which may exceed the capacity.
 * @param List receives at most the capacity's number of entries.
 * @return KVL_OK; KVL_ERR_MORE_SYSTEMS when the Gateway knows more servers than
 *         fit (only the capacity was written; *Systems says how many to ask
 *         for); KVL_ERR_NO_SYSTEMS; KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK,
 *         KVL_ERR_NULLPTR (Systems or List NULL); KVL_ERR_LOSTGWCON,
 *         KVL_ERR_GATEWAY_CLOSED, KVL_ERR_GWTOK_CLOSED, KVL_ERR_GATEWAY_EXCEPTION
 *         when the connection fails meanwhile; KVL_ERR_MALLOCFAIL, KVL_ERR_SYSTEM_ERROR. */
KVL_API int KVL_listSystems(gwTok token, unsigned short* Systems, kvlSystemInfo* List);

KVL_EXTERN_C_END

#endif
