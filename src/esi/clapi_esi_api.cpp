// Exported password verification and change.
#include <cstring>

#include "esi/clapi_esi.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvl_esi.h"

namespace {
bool isEmpty(const char* s) { return s == nullptr || *s == '\0'; }

// Everything after the argument checks; shared by verify and change.
int runEsiRequest(kvlGatewayToken* token, int32_t type, const char* userid, const char* password,
                  const char* newPassword, const char* server, esiDetails* esiDetailsPtr) {
    EsiRequest request;
    memset(&request, 0, sizeof request);
    request.esiRequestType = type;
    request.userid = userid;
    request.password = password;
    request.newPassword = newPassword;
    // Up to 8 bytes, unterminated when full; the rest stays zero.
    if (server) memcpy(request.server, server, strnlen(server, sizeof request.server));
    return performEsiFlow(token, &request, esiDetailsPtr);
}
}  // namespace

extern "C" {

KVL_API int KVL_ESI_verifyPassword(gwTok token, const char* userid, const char* password, const char* server,
                                   esiDetails* esiDetailsPtr) {
    CLAPI_TRACE(ENTRY, 1800, "API.KVL_ESI_verifyPassword(gwTok=%p, userid=%s, server=%s, esiDetailsPtr=%p)\n",
                (void*)token, userid ? userid : "NULL", server ? server : "NULL", (void*)esiDetailsPtr);
    int rc = 0;
    if (!token) {
        CLAPI_TRACE(EXC, 1801, "API.KVL_ESI_verifyPassword() NULL gateway token, gwTok=%p\n", (void*)token);
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        if (isEmpty(userid)) {
            CLAPI_TRACE(EXC, 1802, "API.KVL_ESI_verifyPassword() NULL user id, userid=%p\n", (const void*)userid);
            rc = ESI_ERR_NULL_USERID;
        } else if (isEmpty(password)) {
            CLAPI_TRACE(EXC, 1803, "API.KVL_ESI_verifyPassword() NULL password, password=%p\n", (const void*)password);
            rc = ESI_ERR_NULL_PASSWORD;
        } else {
            CLAPI_TRACE(EVENT, 1804, "API.KVL_ESI_verifyPassword() Verifying password for userid=%s on server=%s\n",
                        userid, server ? server : "NULL");
            rc = runEsiRequest(token, ESI_REQUEST_VERIFY, userid, password, nullptr, server, esiDetailsPtr);
        }
        if (clapiUnregisterRequest(token) != 0) {
            CLAPI_TRACE(EXC, 1826, "API.KVL_ESI_verifyPassword() Unregister request failed\n");
            if (rc == 0) rc = ESI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1805, "API.KVL_ESI_verifyPassword() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_ESI_changePassword(gwTok token, const char* userid, const char* oldPassword,
                                   const char* newPassword, const char* server, esiDetails* esiDetailsPtr) {
    CLAPI_TRACE(ENTRY, 1806, "API.KVL_ESI_changePassword(gwTok=%p, userid=%s, server=%s, esiDetailsPtr=%p)\n",
                (void*)token, userid ? userid : "NULL", server ? server : "NULL", (void*)esiDetailsPtr);
    int rc = 0;
    if (!token) {
        CLAPI_TRACE(EXC, 1807, "API.KVL_ESI_changePassword() NULL gateway token, gwTok=%p\n", (void*)token);
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        if (isEmpty(userid)) {
            CLAPI_TRACE(EXC, 1808, "API.KVL_ESI_changePassword() NULL user id, userid=%p\n", (const void*)userid);
            rc = ESI_ERR_NULL_USERID;
        } else if (isEmpty(oldPassword)) {
            CLAPI_TRACE(EXC, 1809, "API.KVL_ESI_changePassword() NULL old password, oldPassword=%p\n",
                        (const void*)oldPassword);
            rc = ESI_ERR_NULL_PASSWORD;
        } else if (isEmpty(newPassword)) {
            CLAPI_TRACE(EXC, 1810, "API.KVL_ESI_changePassword() NULL new password, newPassword=%p\n",
                        (const void*)newPassword);
            rc = ESI_ERR_NULL_NEW_PASSWORD;
        } else {
            CLAPI_TRACE(EVENT, 1811, "API.KVL_ESI_changePassword() Changing password for userid=%s on server=%s\n",
                        userid, server ? server : "NULL");
            rc = runEsiRequest(token, ESI_REQUEST_CHANGE, userid, oldPassword, newPassword, server, esiDetailsPtr);
        }
        if (clapiUnregisterRequest(token) != 0) {
            CLAPI_TRACE(EXC, 1827, "API.KVL_ESI_changePassword() Unregister request failed\n");
            if (rc == 0) rc = ESI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1812, "API.KVL_ESI_changePassword() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

}  // extern "C"
