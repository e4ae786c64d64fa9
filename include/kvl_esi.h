/** @file kvl_esi.h
 * External Security Interface: verify or change a user's password on a server
 * through a Gateway connection.
 *
 * Thread safety: every function may be called from any thread; the two
 * requests are synchronous and may run on one connection alongside any other
 * calls. Passwords never reach the trace and are sent masked.
 */
#ifndef KVL_ESI_H
#define KVL_ESI_H

#include "kvl_export.h"
#include "kvlclient.h"

struct tm;

/** @name ESI return codes
 * The library translates the Gateway's security codes into these. The
 * connection codes of kvlclient.h (KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK,
 * KVL_ERR_LOSTGWCON, ...) are returned unchanged.
 * @{ */
#define ESI_ERR_USERID_INVALID (-300)    /**< the server does not know the user id */
#define ESI_ERR_NULL_USERID (-301)       /**< the user id is NULL or empty */
#define ESI_ERR_PASSWORD_INVALID (-302)  /**< the password is wrong */
#define ESI_ERR_NULL_PASSWORD (-303)     /**< the (old) password is NULL or empty */
#define ESI_ERR_PEM_NOT_SUPPORTED (-304) /**< the server does not support password management */
#define ESI_ERR_PEM_NOT_ACTIVE (-305)    /**< password management is not active on the server */
#define ESI_ERR_PASSWORD_EXPIRED (-306)  /**< the password has expired: change it */
#define ESI_ERR_SECURITY_ERROR (-307)    /**< the server's security manager refused (for example, a revoked user) */
#define ESI_ERR_RESOURCE_SHORTAGE (-308) /**< the server lacked resources */
#define ESI_ERR_NO_SESSIONS (-309)       /**< the Gateway has no session free to the server */
#define ESI_ERR_NO_ORIS (-310)           /**< no server is available */
#define ESI_ERR_ORIS_DIED (-311)         /**< the server ended during the request */
#define ESI_ERR_UNKNOWN_SERVER (-312)    /**< the Gateway knows no server of that name */
#define ESI_ERR_SYSTEM_ERROR (-313)      /**< a lock, event or thread operation failed */
#define ESI_ERR_NULL_NEW_PASSWORD (-314) /**< the new password is NULL or empty */
#define ESI_ERR_PASSWORD_REJECTED (-315) /**< the server refused the new password */
#define ESI_ERR_MAX_SYSTEMS (-316)       /**< the Gateway reached its limit of servers (KVL_getRcString() names it only as the Gateway's -28) */
#define ESI_ERR_MAX_SESSIONS (-317)      /**< the Gateway reached its limit of sessions (KVL_getRcString() names it only as the Gateway's -29) */
/** @} */

/** A time as the Gateway reports it, in the server's local time. */
typedef struct EsiTime {
    int year;     /**< the full year, for example 2024; 0: no time is set */
    int month;    /**< 0..11 (0 is January) */
    int day;      /**< day of the month, 1..31 */
    int hour;     /**< 0..23 */
    int minute;   /**< 0..59 */
    int second;   /**< 0..59 */
    int reserved; /**< not used */
} EsiTime;

/** Security details returned by a successful verification or change. */
typedef struct esiDetails {
    EsiTime lastVerifiedTime;  /**< when the password was last verified */
    EsiTime expiryTime;        /**< when the password expires */
    EsiTime lastAccessTime;    /**< when the user last signed on */
    int invalidAttemptCount;   /**< failed attempts since the last success */
} esiDetails;

KVL_EXTERN_C_BEGIN

/** Verifies a user's password on a server: a synchronous request.
 * @param token an open connection.
 * @param userid the user id (sent with at most 10 characters).
 * @param password the password.
 * @param server the server's name (at most 8 characters used), or NULL for the Gateway's first server.
 * @param esiDetailsPtr receives the details on success; left untouched on failure.
 * @return KVL_OK; KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK; ESI_ERR_NULL_USERID,
 *         ESI_ERR_NULL_PASSWORD (checked in this order); the ESI codes above as the
 *         server answered; KVL_ERR_LOSTGWCON, KVL_ERR_GATEWAY_CLOSED,
 *         KVL_ERR_GWTOK_CLOSED when the connection fails meanwhile; KVL_ERR_MALLOCFAIL. */
KVL_API int KVL_ESI_verifyPassword(gwTok token, const char* userid, const char* password, const char* server,
                                   esiDetails* esiDetailsPtr);
/** Changes a user's password on a server (an expired password may be changed):
 * a synchronous request.
 * @param token an open connection.
 * @param userid the user id.
 * @param oldPassword the current password.
 * @param newPassword the new password.
 * @param server the server's name, or NULL for the Gateway's first server.
 * @param esiDetailsPtr receives the details on success; left untouched on failure.
 * @return as KVL_ESI_verifyPassword(), and ESI_ERR_NULL_NEW_PASSWORD (checked
 *         after the old password), ESI_ERR_PASSWORD_REJECTED. */
KVL_API int KVL_ESI_changePassword(gwTok token, const char* userid, const char* oldPassword,
                                   const char* newPassword, const char* server, esiDetails* esiDetailsPtr);
/** Converts an EsiTime into a broken-down time. A year of 0 clears every field.
 * Note that tm_yday counts from 1 here (1 January gives 1), one more than the
 * C library's convention; tm_isdst is -1.
 * @param esiTime the time to convert; when NULL nothing changes.
 * @param result receives the time; when NULL nothing changes.
 * @return result. */
KVL_API struct tm* KVL_ESI_convertTime(const EsiTime* esiTime, struct tm* result);

KVL_EXTERN_C_END

#endif
