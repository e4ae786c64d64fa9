/** @file kvl_ext.h
 * kvlclient extensions: connection options, call deadlines, a pollable
 * completion handle, error texts, statistics and TLS.
 *
 * Purely additive: a program that never calls a KVL_EXT_ function sees every
 * other function of the library behave, trace and answer exactly as before.
 * Valid C99 and C++.
 *
 * Return codes of the extensions lie in -900..-999 and trace points in
 * 9000..9299; the whole list, with what each means, is in docs/extensions.md.
 * KVL_EXT_getRcName names these codes and every code of the library.
 *
 * Thread safety: every function may be called from any thread at any time.
 * Error texts are kept per thread.
 */
#ifndef KVL_EXT_H
#define KVL_EXT_H

#include <stddef.h>
#include <stdint.h>

#include "kvlclient.h"

/** @name Return codes of the extensions
 * A deadline that passes gives ECI_ERR_RESPONSE_TIMEOUT (-6) from kvl_eci.h:
 * the library's own code for "no reply in time". Codes are never renumbered.
 * @{ */
#define KVL_EXT_ERR_BADOPTIONS (-900)      /**< options record NULL, its size too small, or a field out of range */
#define KVL_EXT_ERR_BADDEADLINE (-901)     /**< a deadline below 0 */
#define KVL_EXT_ERR_NOHANDLE (-902)        /**< the completion handle could not be created */
#define KVL_EXT_ERR_BUFFERTOOSMALL (-903)  /**< a caller's buffer of length 0 */
#define KVL_EXT_ERR_NOADDRESS (-904)       /**< the host name resolved to no address */
#define KVL_EXT_ERR_TLS_UNAVAILABLE (-920) /**< TLS asked for, but this build has no TLS */
#define KVL_EXT_ERR_TLS_CONFIG (-921)      /**< a CA, certificate, key, cipher list or version that cannot be used */
#define KVL_EXT_ERR_TLS_HANDSHAKE (-922)   /**< the TLS handshake failed (protocol, alert, peer closed) */
#define KVL_EXT_ERR_TLS_VERIFY (-923)      /**< the Gateway's certificate was not accepted (CA, name, dates) */
#define KVL_EXT_ERR_TLS_IO (-924)          /**< reserved, not returned: a record failure ends the connection (usual codes) */
/** @} */

/** TLS protocol versions for KVL_EXT_ConnectOptions.tlsMinVersion. */
#define KVL_EXT_TLS_1_2 0x0303 /**< the default (also taken for 0) */
#define KVL_EXT_TLS_1_3 0x0304 /**< TLS 1.3 only */

/** Options of KVL_EXT_openConnection.
 *
 * Fill it with KVL_EXT_initConnectOptions, then set what differs. The record
 * grows only at its end; `size` tells the library which fields the caller
 * knows. Every field left at its initial value keeps the behaviour of
 * KVL_openRemoteGatewayConnectionApplid. Strings are only read during the open.
 */
typedef struct KVL_EXT_ConnectOptions {
    uint32_t size;              /**< sizeof(KVL_EXT_ConnectOptions) as the caller was built */
    const char* host;           /**< host name or address (IPv4 or IPv6); required */
    int port;                   /**< 1..65535 */
    const char* applid;         /**< at most 8 characters, or NULL; KVL_APPLID replaces it when set */
    const char* applidQualifier; /**< at most 8 characters, or NULL; KVL_APPLIDQUALIFIER replaces it when set */
    int connectTimeoutMs;       /**< bound on resolving, connecting (every address in turn) and the handshake; 0: none */
    int callDeadlineMs;         /**< default deadline of synchronous calls and waiting retrievals; 0: none */
    int keepAlive;              /**< 1: TCP keep-alive on (the default), 0: off */
    int keepAliveIdleSec;       /**< idle time before the first probe; 0: the system's */
    int keepAliveIntervalSec;   /**< time between probes; 0: the system's */
    int keepAliveCount;         /**< probes before the connection is dropped; 0: the system's */

    /* TLS: used only when tls is 1. */
    int tls;                    /**< 0: plain TCP (the default); 1: TLS */
    int tlsNoVerify;            /**< 1: accept any certificate (tests only); 0: verify (the default) */
    int tlsNoHostnameCheck;     /**< 1: skip the host name check; 0: check it (the default) */
    int tlsMinVersion;          /**< KVL_EXT_TLS_1_2 (also 0) or KVL_EXT_TLS_1_3 */
    const char* tlsCaFile;      /**< PEM file of trusted CAs; NULL: the system's store */
    const char* tlsCertFile;    /**< PEM client certificate for mutual TLS, or NULL */
    const char* tlsKeyFile;     /**< PEM key of the client certificate, or NULL */
    const char* tlsCipherList;  /**< cipher list where the platform allows one, or NULL */
    const char* tlsServerName;  /**< name sent (SNI) and checked; NULL: host */
} KVL_EXT_ConnectOptions;

/** Request kinds counted by KVL_EXT_Statistics. */
enum {
    KVL_EXT_KIND_ECI_SYNC = 0,  /**< synchronous ECI calls, COMMAREA or channel */
    KVL_EXT_KIND_ECI_ASYNC = 1, /**< asynchronous ECI calls */
    KVL_EXT_KIND_ESI = 2,       /**< password verification and change */
    KVL_EXT_KIND_LIST = 3,      /**< lists of servers */
    KVL_EXT_KIND_COUNT = 4
};

/** Failure classes counted by KVL_EXT_Statistics. */
enum {
    KVL_EXT_FAIL_CONNECTION = 0, /**< connection lost or closed, Gateway codes 61444..61451 */
    KVL_EXT_FAIL_DEADLINE = 1,   /**< a deadline passed */
    KVL_EXT_FAIL_PROGRAM = 2,    /**< the server or program answered with an error (abend, unknown server, ...) */
    KVL_EXT_FAIL_SECURITY = 3,   /**< security codes */
    KVL_EXT_FAIL_OTHER = 4,      /**< anything else */
    KVL_EXT_FAIL_COUNT = 5
};

/** Figures of one connection; read with KVL_EXT_getStatistics. */
typedef struct KVL_EXT_Statistics {
    uint32_t size;                                /**< sizeof(KVL_EXT_Statistics) as the caller was built */
    uint64_t requestsSent[KVL_EXT_KIND_COUNT];    /**< requests written to the Gateway, by kind */
    uint64_t requestsCompleted[KVL_EXT_KIND_COUNT]; /**< requests that got their reply, by kind */
    uint64_t failures[KVL_EXT_FAIL_COUNT];        /**< requests that ended with a failure, by class */
    uint64_t bytesOut;                            /**< bytes written to the socket */
    uint64_t bytesIn;                             /**< bytes read from the socket */
    uint32_t inFlight;                            /**< requests sent and not yet answered, now */
    uint32_t inFlightMax;                         /**< the most in flight at once */
    uint64_t latencyP50Us;                        /**< call latency quantiles, microseconds */
    uint64_t latencyP90Us;                        /**< 90th percentile, microseconds */
    uint64_t latencyP99Us;                        /**< 99th percentile, microseconds */
    uint64_t latencyMaxUs;                        /**< the slowest call, microseconds (exact) */
} KVL_EXT_Statistics;

/** An object an event loop can wait on: a file descriptor on Linux, an event HANDLE on Windows. */
typedef intptr_t KVL_EXT_Handle;

KVL_EXTERN_C_BEGIN

/** Fills `options` with the defaults and sets its size. Does nothing for NULL.
 * @param options the record to fill */
KVL_API void KVL_EXT_initConnectOptions(KVL_EXT_ConnectOptions* options);

/** Opens a connection as KVL_openRemoteGatewayConnectionApplid does, with options.
 * Tries every address the host resolves to (IPv6 and IPv4), in the resolver's
 * order, within connectTimeoutMs: each address gets an equal share of the time
 * left, the last all of it. The same bound covers TLS and the handshake.
 * @return KVL_OK; KVL_EXT_ERR_BADOPTIONS; KVL_ERR_NULLGWTOKPTR; KVL_ERR_BADPORT;
 *         KVL_ERR_APPLIDTOOLONG; KVL_EXT_ERR_NOADDRESS (the name did not resolve);
 *         KVL_ERR_CONNECTFAILED (every address refused or failed);
 *         KVL_ERR_CONNECTTIMEOUT (the time ran out); the Gateway's refusal of
 *         the handshake (for example KVL_ERR_WORK_WAS_REFUSED); a KVL_EXT_ERR_TLS_ code.
 *         KVL_EXT_getLastErrorText says why an open failed.
 * @param options the connection's settings (see KVL_EXT_ConnectOptions)
 * @param gwTokPtr receives the new connection; written only on success */
KVL_API int KVL_EXT_openConnection(const KVL_EXT_ConnectOptions* options, gwTok* gwTokPtr);

/** Sets the deadline, in milliseconds, of the connection's synchronous calls
 * (ECI, channel, ESI, list of servers) and waiting retrievals (0: none; at most
 * 86400000). Works on any open connection, also one opened without options;
 * takes effect for calls that start waiting after it.
 * A call whose deadline passes returns ECI_ERR_RESPONSE_TIMEOUT with nothing
 * of the reply in the caller's memory (a channel unlocked and unchanged); its
 * late reply is read and dropped. Its work on the server is in doubt: see
 * "Deadlines" in docs/extensions.md.
 * @param token an open connection
 * @param deadlineMs the deadline in milliseconds, 0 for none
 * @return KVL_OK, KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK, KVL_EXT_ERR_BADDEADLINE. */
KVL_API int KVL_EXT_setCallDeadline(gwTok token, int deadlineMs);
/** Reads the connection's deadline in milliseconds.
 * @param token an open connection
 * @param deadlineMs receives the deadline (0: none)
 * @return KVL_OK, KVL_ERR_NULLPTR, KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK. */
KVL_API int KVL_EXT_getCallDeadline(gwTok token, int* deadlineMs);

/** The connection's completion handle: readable (signalled) exactly while async
 * replies are queued, level-triggered; replies that a lost connection fails are
 * queued too. It belongs to the connection and is closed with it; do not close
 * it, read it or write it. Collect with the non-waiting retrievals
 * (ECI_GET_REPLY, ECI_GET_SPECIFIC_REPLY) until ECI_ERR_NO_REPLY.
 * @param token an open connection
 * @param handle receives the handle
 * @return KVL_OK, KVL_ERR_NULLPTR, KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK, KVL_EXT_ERR_NOHANDLE. */
KVL_API int KVL_EXT_getCompletionHandle(gwTok token, KVL_EXT_Handle* handle);

/** Copies the reason for the calling thread's last failure of an extension
 * function or of a call that a deadline ended (NUL-terminated, cut to
 * bufferLength - 1 bytes). An extension function that succeeds empties it.
 * @param buffer receives the text
 * @param bufferLength the size of buffer in bytes
 * @return KVL_OK, KVL_ERR_NULLPTR, KVL_EXT_ERR_BUFFERTOOSMALL. */
KVL_API int KVL_EXT_getLastErrorText(char* buffer, size_t bufferLength);

/** Copies the connection's figures without stopping its traffic; set
 * stats->size first (a record from an earlier, shorter version gets its own fields).
 * @param token an open connection
 * @param stats receives the figures
 * @return KVL_OK, KVL_ERR_NULLPTR, KVL_EXT_ERR_BADOPTIONS (size too small),
 *         KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK. */
KVL_API int KVL_EXT_getStatistics(gwTok token, KVL_EXT_Statistics* stats);

/** The name of any code of the library or of its extensions.
 * @param rc a return code
 * @return the code's name, "UNKNOWN" for a code no table knows; a static string. */
KVL_API const char* KVL_EXT_getRcName(int rc);

/** Whether this build can open TLS connections.
 * @return 1 when it can, 0 when not. */
KVL_API int KVL_EXT_tlsAvailable(void);

KVL_EXTERN_C_END

#endif
