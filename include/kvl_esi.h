/* kvlclient: External Security Interface (password verification and change). */
#ifndef KVL_ESI_H
#define KVL_ESI_H

#include "kvl_export.h"
#include "kvlclient.h"

struct tm;

/* ESI return codes. ESI_ERR_MAX_SYSTEMS and ESI_ERR_MAX_SESSIONS are the names of the
 * Gateway's -28 and -29; the library returns them as -316 and -317. */
#define ESI_ERR_USERID_INVALID (-300)
#define ESI_ERR_NULL_USERID (-301)
#define ESI_ERR_PASSWORD_INVALID (-302)
#define ESI_ERR_NULL_PASSWORD (-303)
#define ESI_ERR_PEM_NOT_SUPPORTED (-304)
#define ESI_ERR_PEM_NOT_ACTIVE (-305)
#define ESI_ERR_PASSWORD_EXPIRED (-306)
#define ESI_ERR_SECURITY_ERROR (-307)
#define ESI_ERR_RESOURCE_SHORTAGE (-308)
#define ESI_ERR_NO_SESSIONS (-309)
#define ESI_ERR_NO_ORIS (-310)
#define ESI_ERR_ORIS_DIED (-311)
#define ESI_ERR_UNKNOWN_SERVER (-312)
#define ESI_ERR_SYSTEM_ERROR (-313)
#define ESI_ERR_NULL_NEW_PASSWORD (-314)
#define ESI_ERR_PASSWORD_REJECTED (-315)
#define ESI_ERR_MAX_SYSTEMS (-316)
#define ESI_ERR_MAX_SESSIONS (-317)

/* A time as the Gateway reports it. year 0 means that no time is set; month is 0-based. */
typedef struct EsiTime {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
    int reserved;
} EsiTime;

/* Security details returned by a successful verification or change. */
typedef struct esiDetails {
    EsiTime lastVerifiedTime;
    EsiTime expiryTime;
    EsiTime lastAccessTime;
    int invalidAttemptCount;
} esiDetails;

KVL_EXTERN_C_BEGIN

/* Verifies a user's password on a server (server may be NULL: the Gateway's default).
 * On success the details are filled in; on failure they are left untouched. */
KVL_API int KVL_ESI_verifyPassword(gwTok token, const char* userid, const char* password, const char* server,
                                   esiDetails* esiDetailsPtr);
/* Changes a user's password; details as for KVL_ESI_verifyPassword. */
KVL_API int KVL_ESI_changePassword(gwTok token, const char* userid, const char* oldPassword,
                                   const char* newPassword, const char* server, esiDetails* esiDetailsPtr);
/* Fills *result from an EsiTime (year 0 clears it); tm_yday counts from 1. Returns result. */
KVL_API struct tm* KVL_ESI_convertTime(const EsiTime* esiTime, struct tm* result);

KVL_EXTERN_C_END

#endif
