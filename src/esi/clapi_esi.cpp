// The ESI request path: slot, send under the send lock, wait, map the code.
#include "esi/clapi_esi.h"

#include <cstring>

#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"

namespace {
struct GatewayMapping {
    int gatewayRc;
    int esiRc;
};

constexpr GatewayMapping kMappings[] = {
    {-108, ESI_ERR_USERID_INVALID},   {-100, ESI_ERR_NULL_USERID},        {-106, ESI_ERR_PASSWORD_INVALID},
    {-101, ESI_ERR_NULL_PASSWORD},    {-103, ESI_ERR_PEM_NOT_SUPPORTED},  {-104, ESI_ERR_PEM_NOT_ACTIVE},
    {-105, ESI_ERR_PASSWORD_EXPIRED}, {-27, ESI_ERR_SECURITY_ERROR},      {-16, ESI_ERR_RESOURCE_SHORTAGE},
    {-17, ESI_ERR_NO_SESSIONS},       {-3, ESI_ERR_NO_ORIS},              {-4, ESI_ERR_ORIS_DIED},
    {-22, ESI_ERR_UNKNOWN_SERVER},    {-9, ESI_ERR_SYSTEM_ERROR},         {-102, ESI_ERR_NULL_NEW_PASSWORD},
    {-107, ESI_ERR_PASSWORD_REJECTED}, {-28, ESI_ERR_MAX_SYSTEMS},        {-29, ESI_ERR_MAX_SESSIONS},
};

// Gives the slot back under the table lock; the first error wins.
void freeSlot(kvlGatewayToken* gwTok, clapiSlot* slot, int* rc, bool traced) {
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        if (traced) CLAPI_TRACE(EXC, 1822, "clapi_esi.performEsiFlow() Failed to lock slot table to free slot\n");
        if (*rc == 0) *rc = ESI_ERR_SYSTEM_ERROR;
        return;
    }
    clapiExtRequestEnded(gwTok, slot, *rc, false);  // a request whose send failed
    slotFree(&gwTok->requestTable, slot);
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        if (traced)
            CLAPI_TRACE(EXC, 1823, "clapi_esi.performEsiFlow() Failed to unlock slot table after freeing slot\n");
        if (*rc == 0) *rc = ESI_ERR_SYSTEM_ERROR;
    }
}
// ALLOCATED -> SENT in one hold of the table lock with a second look at the
// connection: once the receiver has failed the waiting slots it never looks at
// this one again, so a request the connection's end missed is not sent at all.
int markSent(kvlGatewayToken* gwTok, clapiSlot* slot, esiDetails* esiDetailsPtr) {
    CLAPI_TEST_POINT("esi.beforeMarkSent");
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1817, "clapi_esi.performEsiFlow() Failed to lock slot table\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    int rc = clapiConnectionEndedRc(gwTok);
    if (rc == 0) {
        slot->esiDetailsPtr = esiDetailsPtr;
        rc = slotMarkSent(slot);
        if (rc == 0) clapiExtRequestStarted(gwTok, slot, KVL_EXT_KIND_ESI);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1818, "clapi_esi.performEsiFlow() Failed to unlock slot table\n");
        if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
    }
    return rc;
}
}  // namespace

int mapGwyRc(int rc) {
    int mapped = rc;
    for (const auto& m : kMappings) {
        if (m.gatewayRc == rc) {
            mapped = m.esiRc;
            break;
        }
    }
    CLAPI_TRACE(DEBUG, 1825, "clapi_esi.mapGwyRc() Mapped rc=%d to newRc=%d\n", rc, mapped);
    return mapped;
}

int performEsiFlow(kvlGatewayToken* gwTok, EsiRequest* esiRequest, esiDetails* esiDetailsPtr) {
    CLAPI_TRACE(ENTRY, 1816, "clapi_esi.performEsiFlow(gwTok=%p, esiRequest=%p, esiDetails=%p)\n", (void*)gwTok,
                (void*)esiRequest, (void*)esiDetailsPtr);
    int rc = 0;
    clapiSlot* slot = nullptr;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1817, "clapi_esi.performEsiFlow() Failed to lock slot table\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    } else {
        // A connection that is no longer open has no receiver to answer: refuse
        // rather than wait for a reply that cannot come.
        int status = gwTok->connStatus.load();
        if (status != CONN_CONNECTED) {
            rc = status == CONN_LOST ? KVL_ERR_LOSTGWCON : KVL_ERR_GATEWAY_CLOSED;
        } else {
            rc = slotFind(&gwTok->requestTable, 0, &slot);
            if (rc != 0) slot = nullptr;
        }
        if (clapiReleaseLock(&gwTok->tableLock) != 0) {
            CLAPI_TRACE(EXC, 1818, "clapi_esi.performEsiFlow() Failed to unlock slot table\n");
            if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
        }
    }

    bool sent = false;
    if (rc == 0) {
        flowHeader header;
        clapiInitFlowHeader(&header, FLOW_REQUEST, slot->number, "ESI");
        if (clapiSetEvent(&slot->event) != 0) {
            CLAPI_TRACE(EXC, 1819, "clapi_esi.performEsiFlow() Failed to set request event\n");
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            rc = markSent(gwTok, slot, esiDetailsPtr);
        }
        if (rc == 0) {
            if (clapiRequestLock(&gwTok->sendLock) != 0) {
                CLAPI_TRACE(EXC, 1820, "clapi_esi.performEsiFlow() Failed to acquire send lock\n");
                rc = KVL_ERR_SYSTEM_ERROR;
            } else {
                rc = clapiFlowESIRequest(gwTok->socket.load(), &header, esiRequest);
                sent = rc == 0;
                if (sent) clapiExtRequestWritten(gwTok, KVL_EXT_KIND_ESI, &header);
                if (clapiReleaseLock(&gwTok->sendLock) != 0) {
                    CLAPI_TRACE(EXC, 1821, "clapi_esi.performEsiFlow() Failed to release send lock\n");
                    if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
                }
            }
        }
    }
    bool abandoned = false;
    if (sent) {
        // Released by the receiver thread once the reply is decoded, or when the connection ends.
        abandoned = clapiExtAwaitReply(gwTok, slot) == ECI_ERR_RESPONSE_TIMEOUT;
        if (abandoned)
            rc = ECI_ERR_RESPONSE_TIMEOUT;  // the slot now belongs to the receiver thread
        else if (rc == 0)
            rc = slot->replyRc != 0 ? slot->replyRc : mapGwyRc(slot->bodyRc);
    }
    if (slot && !abandoned) freeSlot(gwTok, slot, &rc, sent);
    CLAPI_TRACE(EXIT, 1824, "clapi_esi.performEsiFlow() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
