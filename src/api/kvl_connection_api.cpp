// The exported connection functions: open, close, purge, close all, applid getters.
#include <cstring>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"
#include "platform/platform.h"

namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxTimeout = 3600;
constexpr size_t kMaxApplid = 8;
// An environment value is cut to 16 characters, then checked like an argument.
constexpr size_t kEnvCopy = 16;

const char* orNull(const char* text) { return text ? text : "NULL"; }

bool longerThan(const char* text, size_t limit) {
    for (size_t i = 0; i <= limit; ++i) {
        if (text[i] == '\0') return false;
    }
    return true;
}

// The variable's value, cut to 16 characters, when it is present (even empty).
bool fromEnvironment(const char* name, char (&copy)[kEnvCopy + 1]) {
    memset(copy, 0, sizeof copy);
    const char* value = platformGetEnv(name);
    if (!value) return false;
    strncpy(copy, value, kEnvCopy);
    return true;
}

}  // namespace

KVL_API int KVL_openRemoteGatewayConnectionApplid(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout,
                                                  const char* applid, const char* applidQualifier) {
    CLAPI_TRACE(ENTRY, 1000,
                "API.KVL_openRemoteGatewayConnectionApplid(hostname=%s, port=%d, &gwTokPtr=%p, connTimeout=%d, "
                "applid=%s, applidQualifier=%s\n",
                orNull(hostname), port, static_cast<void*>(gwTokPtr), connTimeout, orNull(applid), orNull(applidQualifier));
    int rc = 0;
    if (port < 1 || port > kMaxPort) {
        CLAPI_TRACE(EXC, 1001, "API.KVL_openRemoteGatewayConnectionApplid() Port value out of range, port=%d\n", port);
        rc = KVL_ERR_BADPORT;
    } else if (!gwTokPtr) {
        CLAPI_TRACE(EXC, 1002, "API.KVL_openRemoteGatewayConnectionApplid() NULL gateway token pointer, gwTokPtr=%p\n",
                    static_cast<void*>(gwTokPtr));
        rc = KVL_ERR_NULLGWTOKPTR;
    } else if (connTimeout < 0 || connTimeout > kMaxTimeout) {
        CLAPI_TRACE(EXC, 1003, "API.KVL_openRemoteGatewayConnectionApplid() Timeout value out of range, connTimeout=%d\n",
                    connTimeout);
        rc = KVL_ERR_INVALIDTIMEOUTPARM;
    } else if (!hostname) {
        CLAPI_TRACE(EXC, 1004, "API.KVL_openRemoteGatewayConnectionApplid() NULL host name, hostname=%p\n",
                    static_cast<const void*>(hostname));
        rc = KVL_ERR_NULLADDRESS;
    } else if (!applid) {
        CLAPI_TRACE(EXC, 1005, "API.KVL_openRemoteGatewayConnectionApplid() NULL applid, applid=%p\n",
                    static_cast<const void*>(applid));
        rc = KVL_ERR_NULLPARM;
    } else if (!applidQualifier) {
        CLAPI_TRACE(EXC, 1006, "API.KVL_openRemoteGatewayConnectionApplid() NULL applid qualifier, applidQualifier=%p\n",
                    static_cast<const void*>(applidQualifier));
        rc = KVL_ERR_NULLPARM;
    } else {
        char applidEnv[kEnvCopy + 1];
        char qualifierEnv[kEnvCopy + 1];
        if (fromEnvironment("KVL_APPLID", applidEnv)) applid = applidEnv;
        if (fromEnvironment("KVL_APPLIDQUALIFIER", qualifierEnv)) applidQualifier = qualifierEnv;
        CLAPI_TRACE(DEBUG, 1007,
                    "API.KVL_openRemoteGatewayConnectionApplid() Environment variables: applidEnv=%s and applidQualifierEnv=%s\n",
                    applidEnv, qualifierEnv);
        if (longerThan(applid, kMaxApplid) || longerThan(applidQualifier, kMaxApplid)) {
            rc = KVL_ERR_APPLIDTOOLONG;
        } else {
            rc = clapiCreateGatewayToken(gwTokPtr, hostname, port, connTimeout, applid, applidQualifier);
        }
    }
    CLAPI_TRACE(EXIT, 1008, "API.KVL_openRemoteGatewayConnectionApplid() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_openRemoteGatewayConnection(const char* hostname, int port, gwTok* gwTokPtr, int connTimeout) {
    return KVL_openRemoteGatewayConnectionApplid(hostname, port, gwTokPtr, connTimeout, "", "");
}

KVL_API int KVL_closeGatewayConnection(gwTok* gwTokPtr) {
    CLAPI_TRACE(ENTRY, 1009, "API.KVL_closeGatewayConnection(gwTokPtr=%p)\n", static_cast<void*>(gwTokPtr));
    int rc;
    if (!gwTokPtr) {
        CLAPI_TRACE(EXC, 1010, "API.KVL_closeGatewayConnection() NULL gateway token pointer, gwTokPtr=%p\n",
                    static_cast<void*>(gwTokPtr));
        rc = KVL_ERR_NULLGWTOKPTR;
    } else if (!*gwTokPtr) {
        CLAPI_TRACE(EXC, 1011, "API.KVL_closeGatewayConnection() NULL gateway token, *gwTokPtr=%p\n",
                    static_cast<void*>(*gwTokPtr));
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiCloseGatewayToken(*gwTokPtr, true)) == 0) {
        // Waits without limit for calls and asynchronous requests in flight.
        rc = clapiDeleteGatewayToken(gwTokPtr, -1, true);
        CLAPI_TRACE(EVENT, 1012, "API.KVL_closeGatewayConnection() Closed Gateway connection for token %p\n",
                    static_cast<void*>(gwTokPtr));
    }
    CLAPI_TRACE(EXIT, 1013, "API.KVL_closeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n", static_cast<void*>(gwTokPtr), rc,
                clapiRcName(rc));
    return rc;
}

KVL_API int KVL_purgeGatewayConnection(gwTok* gwTokPtr, int closeTimeout) {
    CLAPI_TRACE(ENTRY, 1080, "API.KVL_purgeGatewayConnection(gwTokPtr=%p, closeTimeout=%d)\n", static_cast<void*>(gwTokPtr),
                closeTimeout);
    int rc;
    if (!gwTokPtr) {
        CLAPI_TRACE(EXC, 1081, "API.KVL_purgeGatewayConnection() NULL gateway token pointer, gwTokPtr=%p\n",
                    static_cast<void*>(gwTokPtr));
        rc = KVL_ERR_NULLGWTOKPTR;
    } else if (!*gwTokPtr) {
        CLAPI_TRACE(EXC, 1082, "API.KVL_purgeGatewayConnection() NULL gateway token, *gwTokPtr=%p\n",
                    static_cast<void*>(*gwTokPtr));
        rc = KVL_ERR_NULLGWTOK;
    } else if (closeTimeout < 0 || closeTimeout > kMaxTimeout) {
        CLAPI_TRACE(EXC, 1083, "API.KVL_purgeGatewayConnection() Timeout value out of range, closeTimeout=%d\n", closeTimeout);
        rc = KVL_ERR_INVALIDTIMEOUTPARM;
    } else if ((rc = clapiCloseGatewayToken(*gwTokPtr, true)) == 0) {
        rc = clapiDeleteGatewayToken(gwTokPtr, closeTimeout, true);
        CLAPI_TRACE(EVENT, 1084, "API.KVL_purgeGatewayConnection() Closed Gateway connection for token %p\n",
                    static_cast<void*>(gwTokPtr));
    }
    CLAPI_TRACE(EXIT, 1085, "API.KVL_purgeGatewayConnection(gwTokPtr=%p) rc=%d (%s)\n", static_cast<void*>(gwTokPtr), rc,
                clapiRcName(rc));
    return rc;
}

KVL_API int KVL_closeAllGatewayConnections(void) {
    CLAPI_TRACE(ENTRY, 1014, "API.KVL_closeAllGatewayConnections()\n");
    int rc = clapiDeleteGatewayTokens();
    CLAPI_TRACE(EVENT, 1015, "API.KVL_closeAllGatewayConnections() Closed all Gateway connections\n");
    CLAPI_TRACE(EXIT, 1016, "API.KVL_closeAllGatewayConnections() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_getApplid(gwTok token, char** applid) {
    CLAPI_TRACE(ENTRY, 1054, "API.KVL_getApplid(gwTok=%p, applid=%p)\n", static_cast<void*>(token),
                static_cast<void*>(applid));
    int rc;
    if (!token) {
        CLAPI_TRACE(EXC, 1055, "API.KVL_getApplid() NULL gateway token, gwTok=%p\n", static_cast<void*>(token));
        rc = KVL_ERR_NULLGWTOK;
    } else if (!applid) {
        CLAPI_TRACE(EXC, 1056, "API.KVL_getApplid() Supplied pointer is NULL, applid=%p\n", static_cast<void*>(applid));
        rc = KVL_ERR_NULLPTR;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        *applid = token->applid;
        rc = clapiUnregisterRequest(token);
    }
    CLAPI_TRACE(EXIT, 1057, "API.KVL_getApplid() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_getApplidQualifier(gwTok token, char** applidQualifier) {
    CLAPI_TRACE(ENTRY, 1058, "API.KVL_getApplidQualifier(gwTok=%p, applidQualifier=%p)\n", static_cast<void*>(token),
                static_cast<void*>(applidQualifier));
    int rc;
    if (!token) {
        CLAPI_TRACE(EXC, 1059, "API.KVL_getApplidQualifier() NULL gateway token, gwTok=%p\n", static_cast<void*>(token));
        rc = KVL_ERR_NULLGWTOK;
    } else if (!applidQualifier) {
        CLAPI_TRACE(EXC, 1060, "API.KVL_getApplidQualifier() Supplied pointer is NULL, applidQualifier=%p\n",
                    static_cast<void*>(applidQualifier));
        rc = KVL_ERR_NULLPTR;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        *applidQualifier = token->applidQualifier;
        rc = clapiUnregisterRequest(token);
    }
    CLAPI_TRACE(EXIT, 1061, "API.KVL_getApplidQualifier() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
