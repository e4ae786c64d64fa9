// Creation of a Gateway token: allocation, its locks and events, chaining and connect (module clapi_gwytok).
#include "gateway/clapi_gwytok.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "ext/clapi_ext_hooks.h"
#include "gateway/clapi_gwycon.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"

namespace {

constexpr char kTokenEyecatcher[8] = {'K', 'V', 'L', 'G', 'W', 'T', 'O', 'K'};

void copyApplid(char (&field)[9], const char* value) {
    memset(field, 0, sizeof field);
    if (value) strncpy(field, value, sizeof field - 1);
}

void deleteEventIfCreated(clapiEvent* event) {
    if (*event) clapiDeleteEvent(event);
    *event = nullptr;
}

void destroyLockIfInitialised(clapiLock* lock) {
    if (lock->initMarker == CLAPI_LOCK_INITIALISED) clapiDestroyLock(lock);
}

}  // namespace

void freeGatewayToken(kvlGatewayToken* token) {
    if (!token) return;
    clapiExtReleaseConn(token);
    deleteEventIfCreated(&token->asyncReplyEvent);
    deleteEventIfCreated(&token->requestsEnded);
    deleteEventIfCreated(&token->recvThreadEndedEvent);
    deleteEventIfCreated(&token->connEvent);
    destroyLockIfInitialised(&token->socketLock);
    destroyLockIfInitialised(&token->sendLock);
    destroyLockIfInitialised(&token->tableLock);
    slotTableRelease(&token->requestTable);
    token->~kvlGatewayToken();
    memset(static_cast<void*>(token), 0, sizeof *token);
    free(token);
}

int allocateGatewayToken(kvlGatewayToken** tokenPtr, int32_t port, int32_t connTimeout, const char* applid,
                         const char* applidQualifier) {
    void* memory = calloc(1, sizeof(kvlGatewayToken));
    CLAPI_TRACE(DEBUG, 2001, "clapi_gwytok.clapiCreateGatewayToken() Called malloc for %d bytes. new token address=%p\n",
                (int)sizeof(kvlGatewayToken), memory);
    if (!memory) {
        CLAPI_TRACE(EXC, 2002, "clapi_gwytok.clapiCreateGatewayToken() Failed to allocate %d bytes\n",
                    (int)sizeof(kvlGatewayToken));
        CLAPI_TRACE(EXC, 2008, "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    auto* token = new (memory) kvlGatewayToken();
    memcpy(token->eyecatcher, kTokenEyecatcher, sizeof token->eyecatcher);
    token->port = port;
    token->connStatus = CONN_CONNECTING;
    token->connTimeout = connTimeout;
    token->closing = 0;
    token->socket = PLATFORM_INVALID_SOCKET;
    token->opening = 1;
    copyApplid(token->applid, applid);
    copyApplid(token->applidQualifier, applidQualifier);

    slotTableInit(&token->requestTable);
    CLAPI_TRACE(DEBUG, 2003, "clapi_gwytok.clapiCreateGatewayToken() Initialized slot table, first slot=%d, last slot=%d\n",
                (int)token->requestTable.first[0].number, (int)token->requestTable.first[SLOT_BLOCK_SIZE - 1].number);

    int rc = 0;
    if (clapiInitLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 2008, "clapi_gwytok.clapiCreateGatewayToken() Failed to create table lock\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else if (clapiInitLock(&token->sendLock) != 0) {
        CLAPI_TRACE(EXC, 2007, "clapi_gwytok.clapiCreateGatewayToken() Failed to create send lock\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else if (clapiCreateEvent(&token->connEvent) != 0) {
        CLAPI_TRACE(EXC, 2006, "clapi_gwytok.clapiCreateGatewayToken() Failed to create connEvent\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else if (clapiCreateEvent(&token->recvThreadEndedEvent) != 0) {
        CLAPI_TRACE(EXC, 2080, "clapi_gwytok.clapiCreateGatewayToken() Failed to create recvThreadEndedEvent\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else if (clapiCreateEvent(&token->requestsEnded) != 0) {
        CLAPI_TRACE(EXC, 2005, "clapi_gwytok.clapiCreateGatewayToken() Failed to create requestsEnded event\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else if ((rc = clapiCreateEvent(&token->asyncReplyEvent)) != 0) {
        CLAPI_TRACE(EXC, 2004, "clapi_gwytok.clapiCreateGatewayToken() Failed to create asyncReplyEvent\n");
    } else if (clapiInitLock(&token->socketLock) != 0) {
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        // No receiver thread runs yet.
        rc = clapiClearEvent(&token->recvThreadEndedEvent);
    }
    if (rc != 0) {
        freeGatewayToken(token);
        return rc;
    }
    *tokenPtr = token;
    return 0;
}

int openClientSocket(kvlGatewayToken* gwTok, const char* host, int32_t port, const char* applid,
                     const char* applidQualifier) {
    CLAPI_TRACE(ENTRY, 2011, "clapi_gwytok.openClientSocket(gwTokPtr=%p) Attempting to connect to %s:%d connTimeout=%d\n",
                static_cast<void*>(gwTok), host, (int)port, (int)gwTok->connTimeout);
    int rc = clapiConnectToGateway(port, host, gwTok, applid, applidQualifier);
    if (rc == 0) {
        CLAPI_TRACE(EVENT, 2012, "clapi_gwytok.openClientSocket() Connected to Gateway %s:%u - socketDescriptor(%lu)\n",
                    host, (unsigned)port, clapiLu(gwTok->socket.load()));
    } else {
        CLAPI_TRACE(EXC, 2013, "clapi_gwytok.openClientSocket() Failed to connect to Gateway %s:%u\n", host, (unsigned)port);
    }
    CLAPI_TRACE(EXIT, 2014, "clapi_gwytok.openClientSocket() rc=%d\n", rc);
    return rc;
}

int clapiCreateGatewayToken(kvlGatewayToken** gwTokPtr, const char* host, int32_t port, int32_t connTimeout,
                            const char* applid, const char* applidQualifier) {
    return clapiCreateGatewayTokenWithPlan(gwTokPtr, host, port, connTimeout, applid, applidQualifier, nullptr);
}

int clapiCreateGatewayTokenWithPlan(kvlGatewayToken** gwTokPtr, const char* host, int32_t port, int32_t connTimeout,
                                    const char* applid, const char* applidQualifier, clapiOpenPlan* plan) {
    CLAPI_TRACE(ENTRY, 2000,
                "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=%p, port=%d, connTimeout=%d, applid=%s, applidQualifier=%s)\n",
                static_cast<void*>(gwTokPtr), (int)port, (int)connTimeout, applid, applidQualifier);
    kvlGatewayToken* token = nullptr;
    int rc = allocateGatewayToken(&token, port, connTimeout, applid, applidQualifier);
    if (rc == 0) {
        token->ext.openPlan = plan;
        rc = chainGatewayToken(token);
        if (rc != 0) {
            freeGatewayToken(token);
        } else {
            rc = openClientSocket(token, host, port, applid, applidQualifier);
            if (rc != 0) {
                // Unchains it again, waits for the receiver thread and frees everything.
                clapiDeleteGatewayToken(&token, 0, true);
            } else {
                token->ext.openPlan = nullptr;
                clapiRequestLock(&clapiGtlLock);
                token->opening = 0;
                clapiReleaseLock(&clapiGtlLock);
                *gwTokPtr = token;
                if (clapiTraceAdmits(CLAPI_LEVEL_EVENT)) {
                    char text[GWTOK_FORMAT_SIZE];
                    clapiRequestLock(&clapiGtlLock);  // the line shows the token's list link
                    formatGatewayToken(token, text);
                    clapiReleaseLock(&clapiGtlLock);
                    CLAPI_TRACE(EVENT, 2009, "clapi_gwytok.clapiCreateGatewayToken(gwTokPtr=%p) %s\n",
                                static_cast<void*>(gwTokPtr), text);
                }
            }
        }
    }
    CLAPI_TRACE(EXIT, 2010, "clapi_gwytok.clapiCreateGatewayToken() rc=%d\n", rc);
    return rc;
}
