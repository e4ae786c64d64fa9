// The Gateway Token List and the counting of API calls on a token (module clapi_gwytok).
#include <cstddef>
#include <new>
#include <unordered_set>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"

namespace {
// Guarded by clapiGtlLock, as is every token's `next` and apiCallCount.
kvlGatewayToken* head = nullptr;
kvlGatewayToken* tail = nullptr;
// The same tokens as the chain, so that proving a token is on the list costs
// one hash probe instead of a walk over every open connection on every call.
// Only pointers are stored and compared; none is followed.
std::unordered_set<const kvlGatewayToken*>& liveTokens() {
    static auto* set = new std::unordered_set<const kvlGatewayToken*>();  // never destroyed: used until unload
    return *set;
}

// The walk is needed only for what a caller or the debug trace sees of it: the
// parent, the entry number, the last token.
bool findNeedsWalk(bool parentWanted) {
    return parentWanted || clapiTraceAdmits(CLAPI_LEVEL_DEBUG);
}
}  // namespace

kvlGatewayToken* gtlHead() { return head; }
kvlGatewayToken* gtlTail() { return tail; }

int chainGatewayToken(kvlGatewayToken* newToken) {
    CLAPI_TRACE(ENTRY, 2040, "clapi_gwytok.chainGatewayToken(newToken=%p)\n", static_cast<void*>(newToken));
    int rc = 0;
    if (!newToken) {
        CLAPI_TRACE(EXC, 2042, "clapi_gwytok.chainGatewayToken() Chain request was for null token\n");
        rc = KVL_ERR_NULLGWTOKPTR;
    } else if (clapiRequestLock(&clapiGtlLock) != 0) {
        CLAPI_TRACE(EXC, 2051, "clapi_gwytok.chainGatewayToken() Release lock failed\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        bool recorded = true;
        try {
            liveTokens().insert(newToken);
        } catch (const std::bad_alloc&) {
            recorded = false;
        }
        if (!recorded) {
            rc = KVL_ERR_SYSTEM_ERROR;
        } else if (!head) {
            head = tail = newToken;
        } else if (!tail) {
            liveTokens().erase(newToken);
            CLAPI_TRACE(EXC, 2041, "clapi_gwytok.chainGatewayToken() GTL state corrupt - head(%p) tail (%p)\n",
                        static_cast<void*>(head), static_cast<void*>(tail));
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            tail->next = newToken;
            tail = newToken;
        }
        clapiReleaseLock(&clapiGtlLock);
    }
    CLAPI_TRACE(EXIT, 2043, "clapi_gwytok.chainGatewayToken() rc=%d\n", rc);
    return rc;
}

int findGatewayToken(kvlGatewayToken* targetToken, kvlGatewayToken** parentTokenPtrPtr) {
    CLAPI_TRACE(ENTRY, 2044, "clapi_gwytok.findGatewayToken(targetToken=%p, parentTokenPtrPtr=%p)\n",
                static_cast<void*>(targetToken), static_cast<void*>(parentTokenPtrPtr));
    int rc = FIND_TOKEN_NOT_FOUND;
    if (!targetToken) {
        CLAPI_TRACE(EXC, 2048, "clapi_gwytok.findGatewayToken() Token null\n");
        rc = FIND_TOKEN_NULL;
    } else if (!head) {
        CLAPI_TRACE(DEBUG, 2047, "clapi_gwytok.findGatewayToken() GTL is EMPTY\n");
    } else if (!findNeedsWalk(parentTokenPtrPtr != nullptr)) {
        rc = liveTokens().count(targetToken) != 0 ? FIND_TOKEN_FOUND : FIND_TOKEN_NOT_FOUND;
    } else {
        // Pointers are only compared, never followed, until one matches.
        kvlGatewayToken* parent = nullptr;
        kvlGatewayToken* current = head;
        int index = 0;
        if (current == targetToken) {
            rc = FIND_TOKEN_FOUND;
        } else {
            while (current->next) {
                if (current->next == targetToken) {
                    parent = current;
                    rc = FIND_TOKEN_FOUND;
                    break;
                }
                current = current->next;
                ++index;
            }
        }
        if (rc == FIND_TOKEN_FOUND) {
            CLAPI_TRACE(DEBUG, 2046, "clapi_gwytok.findGatewayToken() Token found at GTL Entry(%d)\n", index);
            if (parentTokenPtrPtr) *parentTokenPtrPtr = parent;
        } else {
            CLAPI_TRACE(DEBUG, 2045, "clapi_gwytok.findGatewayToken() Token not found. GTL entries(%d) head(%p) last(%p)\n",
                        index, static_cast<void*>(head), static_cast<void*>(current));
        }
    }
    CLAPI_TRACE(EXIT, 2049, "clapi_gwytok.findGatewayToken() rc=%d\n", rc);
    return rc;
}

void unchainGatewayToken(kvlGatewayToken* token, kvlGatewayToken* parent) {
    liveTokens().erase(token);
    if (parent) {
        parent->next = token->next;
        if (!parent->next) tail = parent;
    } else {
        head = token->next;
        // A tail left pointing at the freed head is never followed: chain resets both when head is null.
        if (!head) tail = nullptr;
    }
    token->next = nullptr;
}

int clapiRegisterRequest(kvlGatewayToken* gwTok) {
    CLAPI_TRACE(ENTRY, 2020, "clapi_gwytok.clapiRegisterRequest(gwTokPtr=%p)\n", static_cast<void*>(gwTok));
    int rc = 0;
    if (clapiRequestLock(&clapiGtlLock) != 0) {
        CLAPI_TRACE(EXC, 2021, "clapi_gwytok.clapiRegisterRequest() Failed to lock Gateway token list\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        int findRc = findGatewayToken(gwTok, nullptr);
        if (findRc == FIND_TOKEN_FOUND) {
            ++gwTok->apiCallCount;
            CLAPI_TRACE(EVENT, 2023, "clapi_gwytok.clapiRegisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n",
                        (int)gwTok->apiCallCount, static_cast<void*>(gwTok));
        } else {
            CLAPI_TRACE(EXC, 2022, "clapi_gwytok.clapiRegisterRequest() Gateway token=%p not found, findRc=%d\n",
                        static_cast<void*>(gwTok), findRc);
            rc = KVL_ERR_BADGWTOK;
        }
        clapiReleaseLock(&clapiGtlLock);
    }
    if (rc == 0) CLAPI_TEST_POINT("register.registered");
    CLAPI_TRACE(EXIT, 2024, "clapi_gwytok.clapiRegisterRequest() rc=%d\n", rc);
    return rc;
}

int clapiUnregisterRequest(kvlGatewayToken* gwTok) {
    CLAPI_TRACE(ENTRY, 2025, "clapi_gwytok.clapiUnregisterRequest(gwTokPtr=%p)\n", static_cast<void*>(gwTok));
    int rc = 0;
    if (clapiRequestLock(&clapiGtlLock) != 0) {
        CLAPI_TRACE(EXC, 2026, "clapi_gwytok.clapiUnregisterRequest() Failed to lock Gateway token list\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        // A registered token cannot be deleted while its count is above 0; this
        // check only keeps an unbalanced call from writing to freed memory.
        if (findGatewayToken(gwTok, nullptr) != FIND_TOKEN_FOUND) {
            rc = KVL_ERR_BADGWTOK;
        } else {
            int32_t count = --gwTok->apiCallCount;
            if (count == 0) {
                clapiRequestLock(&gwTok->tableLock);
                bool asyncOutstanding = gwTok->asyncRequestCount != 0;
                clapiReleaseLock(&gwTok->tableLock);
                if (!asyncOutstanding) clapiClearEvent(&gwTok->requestsEnded);
            }
            CLAPI_TRACE(EVENT, 2027, "clapi_gwytok.clapiUnregisterRequest() Outstanding API calls=%d on gwTokPtr=%p\n",
                        (int)count, static_cast<void*>(gwTok));
        }
        clapiReleaseLock(&clapiGtlLock);
    }
    CLAPI_TRACE(EXIT, 2028, "clapi_gwytok.clapiUnregisterRequest() rc=%d\n", rc);
    return rc;
}
