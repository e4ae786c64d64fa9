// Exported list of the servers that the Gateway knows.
#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "ext/clapi_ext_hooks.h"
#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

static_assert(sizeof(kvlSystemInfo) == 70, "system entries travel as 70-byte records");

namespace {
// Blanks and NULs at the end of a name become NULs; the first byte always stays.
void trimName(kvlSystemInfo* entry) {
    for (int i = 8; i >= 1; --i) {
        char c = entry->SystemName[i];
        if (c != ' ' && c != '\0') break;
        entry->SystemName[i] = '\0';
    }
}

void freeSlot(kvlGatewayToken* token, clapiSlot* slot, int* rc, bool traced) {
    if (clapiRequestLock(&token->tableLock) != 0) {
        if (traced) CLAPI_TRACE(EXC, 1026, "API.KVL_listSystems() Failed to lock slot table to free slot\n");
        if (*rc == 0) *rc = KVL_ERR_SYSTEM_ERROR;
        return;
    }
    clapiExtRequestEnded(token, slot, *rc, false);  // a request whose send failed
    slotFree(&token->requestTable, slot);
    if (clapiReleaseLock(&token->tableLock) != 0) {
        if (traced) CLAPI_TRACE(EXC, 1027, "API.KVL_listSystems() Failed to unlock slot table after freeing slot\n");
        if (*rc == 0) *rc = KVL_ERR_SYSTEM_ERROR;
    }
}

// ALLOCATED -> SENT in one hold of the table lock, with a second look at the
// connection (a request that the connection's end has missed is never sent).
// The receiver decodes the entries straight into the caller's array, never past it.
int markSent(kvlGatewayToken* token, clapiSlot* slot, kvlSystemInfo* List, unsigned short capacity) {
    CLAPI_TEST_POINT("list.beforeMarkSent");
    if (clapiRequestLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1021, "API.KVL_listSystems() Failed to lock slot table\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    int rc = clapiConnectionEndedRc(token);
    if (rc == 0) {
        slot->request.eci_call_type = 1;
        slot->request.eci_commarea = List;
        slot->replyCapacity = static_cast<uint64_t>(capacity) * sizeof(kvlSystemInfo);
        rc = slotMarkSent(slot);
        if (rc == 0) clapiExtRequestStarted(token, slot, KVL_EXT_KIND_LIST);
    }
    if (clapiReleaseLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1022, "API.KVL_listSystems() Failed to unlock slot table\n");
        if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
    }
    return rc;
}

int listSystems(kvlGatewayToken* token, unsigned short* Systems, kvlSystemInfo* List) {
    int rc = 0;
    clapiSlot* slot = nullptr;
    const unsigned short capacity = *Systems;
    if (clapiRequestLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1021, "API.KVL_listSystems() Failed to lock slot table\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    // No receiver thread answers on a connection that has ended: refuse rather than wait.
    int status = token->connStatus.load();
    if (status != CONN_CONNECTED) {
        rc = status == CONN_LOST ? KVL_ERR_LOSTGWCON : KVL_ERR_GATEWAY_CLOSED;
    } else {
        rc = slotFind(&token->requestTable, 0, &slot);
        if (rc != 0) slot = nullptr;
    }
    if (clapiReleaseLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1022, "API.KVL_listSystems() Failed to unlock slot table\n");
        if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
    }
    if (rc != 0) {
        if (slot) freeSlot(token, slot, &rc, false);
        return rc;
    }

    flowHeader header;
    clapiInitFlowHeader(&header, FLOW_REQUEST, slot->number, "ECI");
    EciRequest request;
    memset(&request, 0, sizeof request);
    request.requestType = ECI_REQUEST_LIST_SYSTEMS;
    request.optionalBlocks = -1;
    request.listParm = capacity;
    request.correlator = static_cast<int32_t>(getNextCorrelator());
    bool sent = false;
    if (clapiSetEvent(&slot->event) != 0) {
        CLAPI_TRACE(EXC, 1023, "API.KVL_listSystems() Failed to set request event\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        rc = markSent(token, slot, List, capacity);
    }
    if (rc == 0) {
        if (clapiRequestLock(&token->sendLock) != 0) {
            CLAPI_TRACE(EXC, 1024, "API.KVL_listSystems() Failed to acquire send lock\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            rc = clapiFlowECIRequest(token->socket.load(), &header, &request);
            sent = rc == 0;
            if (sent) clapiExtRequestWritten(token, KVL_EXT_KIND_LIST, &header);
            if (clapiReleaseLock(&token->sendLock) != 0) {
                CLAPI_TRACE(EXC, 1025, "API.KVL_listSystems() Failed to release send lock\n");
                if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
            }
        }
    }
    if (sent) {
        rc = clapiExtAwaitReply(token, slot);
        if (rc == ECI_ERR_RESPONSE_TIMEOUT) return rc;  // the slot now belongs to the receiver thread
        if (rc == 0) {
            if (slot->replyRc != 0) {
                rc = slot->replyRc;
            } else {
                rc = slot->bodyRc;
                int reported = slot->systemsReturned;
                *Systems = static_cast<unsigned short>(reported < 0 ? 0 : reported);
                int written = reported < capacity ? reported : capacity;
                for (int i = 0; i < written; ++i) trimName(&List[i]);
            }
        }
    }
    freeSlot(token, slot, &rc, sent);
    return rc;
}
}  // namespace

extern "C" KVL_API int KVL_listSystems(gwTok token, unsigned short* Systems, kvlSystemInfo* List) {
    CLAPI_TRACE(ENTRY, 1017, "API.KVL_listSystems(gwTok=%p, Systems=%p, List=%p)\n", (void*)token, (void*)Systems,
                (void*)List);
    int rc = 0;
    if (!token) {
        CLAPI_TRACE(EXC, 1018, "API.KVL_listSystems() NULL gateway token, gwTok=%p\n", (void*)token);
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        if (!Systems) {
            CLAPI_TRACE(EXC, 1019, "API.KVL_listSystems() NULL Systems Parameter, Systems=%p\n", (void*)Systems);
            rc = KVL_ERR_NULLPTR;
        } else if (!List) {
            CLAPI_TRACE(EXC, 1020, "API.KVL_listSystems() NULL List Parameter, List=%p\n", (void*)List);
            rc = KVL_ERR_NULLPTR;
        } else {
            rc = listSystems(token, Systems, List);
        }
        if (clapiUnregisterRequest(token) != 0) {
            CLAPI_TRACE(EXC, 1080, "API.KVL_listSystems() Unregister request failed\n");
            if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1028, "API.KVL_listSystems() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
