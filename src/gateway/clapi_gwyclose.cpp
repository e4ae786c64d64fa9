// Ending a connection: close, quiesce and delete of Gateway tokens (module clapi_gwytok).
#include <cstdint>

#include "eci/clapi_channel.h"
#include "gateway/clapi_gwycon.h"
#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"

uint32_t clapiCloseAnswerSeconds = 30;

namespace {

const char* boolText(bool value) { return value ? "TRUE" : "FALSE"; }

int32_t apiCallsNow(kvlGatewayToken* token) {
    clapiRequestLock(&clapiGtlLock);
    int32_t count = token->apiCallCount;
    clapiReleaseLock(&clapiGtlLock);
    return count;
}

// Step 6: until no receiver thread runs. A Gateway that leaves the close
// request unanswered gets its socket shut down, which ends the thread.
void awaitReceiverEnd(kvlGatewayToken* token) {
    uint32_t expired = 0;
    int rc = clapiTimedWaitEvent(&token->recvThreadEndedEvent, clapiCloseAnswerSeconds, &expired);
    if (rc == 0 && expired) {
        clapiStopReceiver(token);
        rc = clapiWaitEvent(&token->recvThreadEndedEvent);
    }
    if (rc != 0) {
        CLAPI_TRACE(EXC, 2082, "clapi_gwytok.quiesceConnection() Failed to wait on recvThreadEndedEvent\n");
        return;
    }
    platformThreadJoin(&token->receiver);
}

// Step 9: waits until no API call is inside the library with this token. The
// event is armed under the GTL lock, the lock under which calls unregister.
int awaitApiCalls(kvlGatewayToken* token) {
    if (clapiRequestLock(&clapiGtlLock) != 0) return KVL_ERR_SYSTEM_ERROR;
    int rc = 0;
    while (rc == 0 && token->apiCallCount > 0) {
        CLAPI_TRACE(EVENT, 2075, "clapi_gwytok.quiesceConnection() Waiting for %d API calls to complete\n",
                    (int)token->apiCallCount);
        clapiSetEvent(&token->requestsEnded);
        clapiReleaseLock(&clapiGtlLock);
        if (clapiWaitEvent(&token->requestsEnded) != 0) {
            CLAPI_TRACE(EXC, 2076, "clapi_gwytok.quiesceConnection() Failed to wait for API calls to complete\n");
            return KVL_ERR_SYSTEM_ERROR;
        }
        if (clapiRequestLock(&clapiGtlLock) != 0) return KVL_ERR_SYSTEM_ERROR;
    }
    clapiReleaseLock(&clapiGtlLock);
    return rc;
}

// Step 4: work in flight, without limit (-1), not at all (0 or below) or for closeTimeout seconds.
int awaitWorkInFlight(kvlGatewayToken* token, int32_t closeTimeout, int32_t apiCalls, int32_t asyncRequests) {
    if (apiCalls < 1 && asyncRequests < 1) return 0;
    if (closeTimeout == -1) {
        CLAPI_TRACE(EVENT, 2069, "clapi_gwytok.quiesceConnection() Waiting for %d API calls and %d async requests to complete\n",
                    (int)apiCalls, (int)asyncRequests);
        if (clapiWaitEvent(&token->requestsEnded) != 0) {
            CLAPI_TRACE(EXC, 2070, "clapi_gwytok.quiesceConnection() Failed to wait (indefinitely) for work to complete\n");
            return KVL_ERR_SYSTEM_ERROR;
        }
    } else if (closeTimeout > 0) {
        CLAPI_TRACE(EVENT, 2071,
                    "clapi_gwytok.quiesceConnection() Waiting %d seconds for %d API calls and %d async requests to complete\n",
                    (int)closeTimeout, (int)apiCalls, (int)asyncRequests);
        uint32_t expired = 0;
        // Running out of time is not an error: the close goes ahead with work outstanding.
        if (clapiTimedWaitEvent(&token->requestsEnded, static_cast<uint32_t>(closeTimeout), &expired) != 0) {
            CLAPI_TRACE(EXC, 2072, "clapi_gwytok.quiesceConnection() Failed to wait (for %d seconds) for work to complete\n",
                        (int)closeTimeout);
            return KVL_ERR_SYSTEM_ERROR;
        }
    }
    return 0;
}

// Step 10: channels of requests that will never be answered are given back.
void unlockAbandonedChannels(kvlGatewayToken* token) {
    for (clapiSlot* s = token->requestTable.first; s; s = s->next) {
        if (s->state != SLOT_FREE && s->channelRequest && s->request.eci_channel) {
            clapiReleaseListedChannel(static_cast<kvlChannel*>(s->request.eci_channel));
            s->request.eci_channel = nullptr;
        }
    }
}

// Step 6 of the delete: slotFree may give back trailing blocks, so restart from the first slot.
void freeAllSlots(slotTable* table) {
    clapiSlot* s = table->first;
    while (s) {
        if (s->state != SLOT_FREE) {
            slotFree(table, s);
            s = table->first;
        } else {
            s = s->next;
        }
    }
}

// Close-all walks (GTL lock). Passes only grow, so of two concurrent walks the
// later one owns the marks and neither visits a token twice.
uint64_t lastCloseAllPass = 0;

// The first token from `token` that this walk has not visited. Tokens still
// being opened have not been handed out and are left to their opener.
kvlGatewayToken* nextUnvisited(kvlGatewayToken* token, uint64_t pass) {
    while (token && (token->opening || token->closeAllPass >= pass)) token = token->next;
    return token;
}

}  // namespace

int clapiCloseGatewayToken(kvlGatewayToken* gwTok, bool lockRequired) {
    CLAPI_TRACE(ENTRY, 2015, "clapi_gwytok.clapiCloseGatewayToken(gwTokPtr=%p, lockRequired=%s)\n",
                static_cast<void*>(gwTok), boolText(lockRequired));
    int rc = 0;
    if (lockRequired && clapiRequestLock(&clapiGtlLock) != 0) {
        CLAPI_TRACE(EXC, 2016, "clapi_gwytok.clapiCloseGatewayToken() Failed to lock Gateway token list\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        int findRc = findGatewayToken(gwTok, nullptr);
        // The token is known to be on the list before its flag is read: a
        // pointer to a deleted token must not be followed.
        if (findRc == FIND_TOKEN_FOUND && gwTok->closing.load() == 1) {
            rc = KVL_ERR_GWTOK_CLOSED;
        } else if (findRc != FIND_TOKEN_FOUND || gwTok->opening) {
            CLAPI_TRACE(EXC, 2018, "clapi_gwytok.clapiCloseGatewayToken() Gateway token=%p not found, findRc=%d\n",
                        static_cast<void*>(gwTok), findRc);
            rc = KVL_ERR_BADGWTOK;
        } else {
            gwTok->closing = 1;
            clapiRequestLock(&gwTok->tableLock);
            int32_t asyncRequests = gwTok->asyncRequestCount;
            clapiReleaseLock(&gwTok->tableLock);
            CLAPI_TRACE(DEBUG, 2065, "clapi_gwytok.clapiCloseGatewayToken() There are %d API calls and %d async requests outstanding\n",
                        (int)gwTok->apiCallCount, (int)asyncRequests);
            if (gwTok->apiCallCount > 0 || asyncRequests >= 1) {
                if (clapiSetEvent(&gwTok->requestsEnded) != 0) {
                    CLAPI_TRACE(EXC, 2017, "clapi_gwytok.clapiCloseGatewayToken() Failed to set event\n");
                    gwTok->closing = 0;
                    rc = KVL_ERR_SYSTEM_ERROR;
                }
            }
        }
        if (lockRequired) clapiReleaseLock(&clapiGtlLock);
    }
    CLAPI_TRACE(EXIT, 2019, "clapi_gwytok.clapiCloseGatewayToken() rc=%d\n", rc);
    return rc;
}

int quiesceConnection(kvlGatewayToken* gwTok, int32_t closeTimeout) {
    CLAPI_TRACE(ENTRY, 2065, "clapi_gwytok.quiesceConnection(gwToken=%p, closeTimeout=%d)\n", static_cast<void*>(gwTok),
                (int)closeTimeout);
    int rc = 0;
    int32_t apiCalls = apiCallsNow(gwTok);
    int32_t asyncRequests = 0;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 2066, "clapi_gwytok.quiesceConnection() Failed to lock slot table\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        asyncRequests = gwTok->asyncRequestCount;
        // No reply can come now: get-reply calls that wait are released.
        if (asyncRequests == 0 && clapiClearEvent(&gwTok->asyncReplyEvent) != 0) {
            CLAPI_TRACE(EXC, 2067, "clapi_gwytok.quiesceConnection() Failed to clear event to release waiting get reply calls\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        }
        if (clapiReleaseLock(&gwTok->tableLock) != 0) {
            CLAPI_TRACE(EXC, 2068, "clapi_gwytok.quiesceConnection() Failed to unlock slot table\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        }
    }
    if (rc == 0) rc = awaitWorkInFlight(gwTok, closeTimeout, apiCalls, asyncRequests);
    if (rc == 0 && gwTok->connStatus.load() == CONN_CONNECTED) rc = clapiCloseConnection(gwTok);
    awaitReceiverEnd(gwTok);
    // A close request that could not be sent because the connection broke under
    // it has nothing left to close: the token must still be deletable.
    if (rc == KVL_ERR_LOSTGWCON && gwTok->connStatus.load() != CONN_CONNECTED) rc = 0;

    if (rc == 0) {
        if (clapiRequestLock(&gwTok->tableLock) != 0) {
            CLAPI_TRACE(EXC, 2073, "clapi_gwytok.quiesceConnection() Failed to lock slot table after close\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            gwTok->asyncRequestCount = 0;
            // The API call count lives under the GTL lock, which comes before the table lock.
            if (clapiReleaseLock(&gwTok->tableLock) != 0) {
                CLAPI_TRACE(EXC, 2074, "clapi_gwytok.quiesceConnection() Failed to unlock slot table\n");
                rc = KVL_ERR_SYSTEM_ERROR;
            }
        }
    }
    if (rc == 0) rc = awaitApiCalls(gwTok);
    if (rc == 0) {
        if (clapiRequestLock(&gwTok->tableLock) != 0) {
            CLAPI_TRACE(EXC, 2077, "clapi_gwytok.quiesceConnection() Failed to lock slot table after waiting\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            unlockAbandonedChannels(gwTok);
            if (clapiReleaseLock(&gwTok->tableLock) != 0) {
                CLAPI_TRACE(EXC, 2078, "clapi_gwytok.quiesceConnection() Failed to unlock slot table\n");
                rc = KVL_ERR_SYSTEM_ERROR;
            }
        }
    }
    CLAPI_TRACE(EXIT, 2079, "clapi_gwytok.quiesceConnection() rc=%d\n", rc);
    return rc;
}

namespace {

// Takes the GTL lock for the free with no API call inside the library on the
// token. The token stays on the list until it is freed, so a call can still
// register between the quiesce's last wait and this lock; it finds the token
// closing and leaves at once, and the free waits for it to go.
int lockForFree(kvlGatewayToken* token) {
    for (;;) {
        if (clapiRequestLock(&clapiGtlLock) != 0) return KVL_ERR_SYSTEM_ERROR;
        if (token->apiCallCount == 0) return 0;
        clapiReleaseLock(&clapiGtlLock);
        if (awaitApiCalls(token) != 0) return KVL_ERR_SYSTEM_ERROR;
    }
}

}  // namespace

int clapiDeleteGatewayToken(kvlGatewayToken** gwTokPtr, int32_t closeTimeout, bool lockRequired) {
    CLAPI_TRACE(ENTRY, 2029, "clapi_gwytok.clapiDeleteGatewayToken(gwTokPtr=%p, closeTimeout=%d, lockRequired=%s)\n",
                static_cast<void*>(gwTokPtr), (int)closeTimeout, boolText(lockRequired));
    int rc = 0;
    kvlGatewayToken* token = gwTokPtr ? *gwTokPtr : nullptr;
    if (!gwTokPtr) {
        rc = KVL_ERR_NULLGWTOKPTR;
    } else if (!token) {
        rc = KVL_ERR_NULLGWTOK;
    } else if (lockRequired && clapiRequestLock(&clapiGtlLock) != 0) {
        CLAPI_TRACE(EXC, 2030, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        if (lockRequired && findGatewayToken(token, nullptr) != FIND_TOKEN_FOUND) {
            rc = KVL_ERR_BADGWTOK;
        } else if (token->deleting) {
            rc = KVL_ERR_GWTOK_CLOSED;  // another thread is deleting it
        } else {
            token->deleting = 1;
        }
        // Released whether this call took the lock or the caller held it.
        if (clapiReleaseLock(&clapiGtlLock) != 0) {
            CLAPI_TRACE(EXC, 2050, "clapi_gwytok.clapiDeleteGatewayToken() Release lock failed\n");
            if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
        }
        if (rc == 0) rc = quiesceConnection(token, closeTimeout);
        CLAPI_TEST_POINT("delete.beforeFree");
        if (rc == 0 && lockForFree(token) != 0) {
            CLAPI_TRACE(EXC, 2081, "clapi_gwytok.clapiDeleteGatewayToken() Failed to lock Gateway token list after quiesce\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        } else if (rc == 0) {
            kvlGatewayToken* parent = nullptr;
            findGatewayToken(token, &parent);
            freeAllSlots(&token->requestTable);
            unchainGatewayToken(token, parent);
            CLAPI_TRACE(DEBUG, 2032, "clapi_gwytok.clapiDeleteGatewayToken() Free gateway token=%p\n", static_cast<void*>(token));
            freeGatewayToken(token);
            *gwTokPtr = nullptr;
            clapiReleaseLock(&clapiGtlLock);
        } else if (rc != KVL_ERR_GWTOK_CLOSED && rc != KVL_ERR_BADGWTOK) {
            // A failed quiesce leaves the token on the list, closing, for a later attempt.
            clapiRequestLock(&clapiGtlLock);
            token->deleting = 0;
            clapiReleaseLock(&clapiGtlLock);
        }
    }
    CLAPI_TRACE(EXIT, 2033, "clapi_gwytok.clapiDeleteGatewayToken() rc=%d\n", rc);
    return rc;
}

int clapiDeleteGatewayTokens() {
    CLAPI_TRACE(ENTRY, 2034, "clapi_gwytok.clapiDeleteGatewayTokens()\n");
    int count = 0;
    clapiRequestLock(&clapiGtlLock);
    if (!gtlHead()) CLAPI_TRACE(EVENT, 2036, "clapi_gwytok.clapiDeleteGatewayTokens() GTL is EMPTY\n");
    // Every token is walked, also one whose close is already running: its close
    // gives -140, and its delete, while another delete of it runs, touches nothing.
    // Each delete releases the GTL lock while it waits, so the list may change
    // under the walk: visited tokens are marked and the walk starts again from the head.
    const uint64_t pass = ++lastCloseAllPass;
    kvlGatewayToken* token = nextUnvisited(gtlHead(), pass);
    while (token) {
        ++count;
        token->closeAllPass = pass;
        if (clapiTraceAdmits(CLAPI_LEVEL_EVENT)) {
            char text[GWTOK_FORMAT_SIZE];
            formatGatewayToken(token, text);
            CLAPI_TRACE(EVENT, 2035, "clapi_gwytok.clapiDeleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n",
                        static_cast<void*>(token), count, text);
        }
        clapiCloseGatewayToken(token, false);
        clapiDeleteGatewayToken(&token, 0, false);  // releases the GTL lock
        clapiRequestLock(&clapiGtlLock);
        token = nextUnvisited(gtlHead(), pass);
    }
    clapiReleaseLock(&clapiGtlLock);
    CLAPI_TRACE(EXIT, 2037, "clapi_gwytok.clapiDeleteGatewayTokens() Entries deleted=%d, rc=%d\n", count, 0);
    return 0;
}
