// Collecting the replies of ECI_ASYNC requests (module clapi_eci).
#include <cstring>

#include "eci/clapi_channel.h"
#include "eci/clapi_eci.h"
#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

bool isSpecific(short callType) { return callType == ECI_GET_SPECIFIC_REPLY || callType == ECI_GET_SPECIFIC_REPLY_WAIT; }
bool waits(short callType) { return callType == ECI_GET_REPLY_WAIT || callType == ECI_GET_SPECIFIC_REPLY_WAIT; }
bool carriesData(int extendMode) { return extendMode != ECI_COMMIT && extendMode != ECI_BACKOUT; }

// Step 2: whether msgQual names an async request still to be collected. Checked
// again after every wait, since another thread may have collected it meanwhile.
int checkMessageQualifier(kvlGatewayToken* gwTok, int32_t msgQual) {
    clapiSlot* slot = slotByNumber(&gwTok->requestTable, msgQual);
    if (!slot || slot->state == SLOT_FREE || slot->request.eci_call_type != ECI_ASYNC) return ECI_ERR_INVALID_MSG_QUAL;
    if (slot->state != SLOT_SENT && slot->state != SLOT_REPLIED) return ECI_ERR_NO_REPLY;
    return 0;
}

clapiSlot* findQueued(kvlGatewayToken* gwTok, bool specific, int32_t msgQual) {
    clapiSlot* slot = gwTok->asyncQueueHead;
    if (specific) {
        while (slot && slot->request.eci_msg_qual != msgQual) slot = slot->queueNext;
    }
    return slot;
}

// Step 4.3: the reply's COMMAREA into the caller's. False when the caller's
// buffer is too small; the reply then stays queued.
bool copyCommarea(clapiSlot* slot, EciParms* parms) {
    if (slot->replyRc != 0) return true;
    int32_t inbound = slot->request.commarea_inbound_length;
    if (inbound < 0) inbound = 0;
    if (parms->eci_commarea_length >= inbound) {
        if (slot->bodyRc == 0 && carriesData(slot->request.eci_extend_mode) && slot->ownedBuffer) {
            // The receiver stored no more than the buffer holds; never copy more than that.
            uint64_t count = static_cast<uint64_t>(inbound);
            if (count > slot->ownedBufferSize) count = slot->ownedBufferSize;
            if (count > 0 && parms->eci_commarea) memcpy(parms->eci_commarea, slot->ownedBuffer, count);
            CLAPI_TRACE(DEBUG, 1544, "clapi_eci.getAsyncReply() Freeing async commarea=%p\n", slot->ownedBuffer);
            clapiReleaseOwnedBuffer(slot);
            slot->request.eci_commarea = nullptr;
        }
        return true;
    }
    if (slot->bodyRc != 0) return true;
    CLAPI_TRACE(EXC, 1543, "clapi_eci.getAsyncReply() Caller commarea len=%d is smaller than inbound commarea len=%d\n",
                (int)parms->eci_commarea_length, (int)inbound);
    parms->eci_commarea_length = static_cast<short>(inbound);
    return false;
}

// Step 4: hands a queued reply to the caller; table lock held.
int deliver(kvlGatewayToken* gwTok, clapiSlot* slot, EciParms* parms) {
    CLAPI_TRACE(EVENT, 1542, "clapi_eci.getAsyncReply() Async reply found, msg qual=%d\n",
                (int)slot->request.eci_msg_qual);
    void* callerCommarea = parms->eci_commarea;
    short callerLength = parms->eci_commarea_length;
    memcpy(parms, &slot->request, sizeof *parms);
    parms->eci_commarea = callerCommarea;
    parms->eci_commarea_length = callerLength;
    if (!copyCommarea(slot, parms)) return ECI_ERR_INVALID_DATA_LENGTH;

    if (gwTok->asyncRequestCount > 0) --gwTok->asyncRequestCount;
    CLAPI_TRACE(DEBUG, 1545, "clapi_eci.getAsyncReply() Async requests=%d on gwTok=%p\n", (int)gwTok->asyncRequestCount,
                static_cast<void*>(gwTok));
    clapiUnqueueAsyncReply(gwTok, slot);

    int rc = slot->replyRc != 0 ? slot->replyRc : slot->bodyRc;
    // A slot kept under token 0 could never be found again: only a real token keeps it.
    if (slot->replyRc == 0 && parms->eci_extend_mode == ECI_EXTENDED && parms->eci_luw_token > 0) {
        slot->state = SLOT_LUW_KEPT;
        clapiReleaseOwnedBuffer(slot);
        slot->request.eci_commarea = nullptr;
        slot->replyCapacity = 0;
        slot->channelRequest = 0;  // unlocked below; a later close must not unlock it again
        slot->request.eci_channel = nullptr;
    } else {
        slotFree(&gwTok->requestTable, slot);
    }
    if (parms->eci_channel && clapiReleaseListedChannel(static_cast<kvlChannel*>(parms->eci_channel)) != 0) {
        CLAPI_TRACE(EXC, 1566, "clapi_eci.getAsyncReply() Unlock channel failed\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    // Later waiters block, unless the token is closing with nothing to come: then all return.
    bool drained = gwTok->closing.load() != 0 && gwTok->asyncRequestCount < 1;
    if (!gwTok->asyncQueueHead && !drained && clapiSetEvent(&gwTok->asyncReplyEvent) != 0) {
        CLAPI_TRACE(EXC, 1546, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

}  // namespace

void clapiUnqueueAsyncReply(kvlGatewayToken* gwTok, clapiSlot* slot) {
    clapiSlot* previous = nullptr;
    clapiSlot* current = gwTok->asyncQueueHead;
    while (current && current != slot) {
        previous = current;
        current = current->queueNext;
    }
    if (!current) return;
    if (previous)
        previous->queueNext = slot->queueNext;
    else
        gwTok->asyncQueueHead = slot->queueNext;
    if (gwTok->asyncQueueTail == slot) gwTok->asyncQueueTail = previous;
    slot->queueNext = nullptr;
    clapiExtAsyncQueueChanged(gwTok);
}

int getAsyncReply(kvlGatewayToken* gwTok, EciParms* parms) {
    CLAPI_TRACE(ENTRY, 1536, "clapi_eci.getAsyncReply(gwTok=%p, EciParms=%p)\n", static_cast<void*>(gwTok),
                static_cast<void*>(parms));
    int rc = 0;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1537, "clapi_eci.getAsyncReply() Failed to lock slot table\n");
        rc = ECI_ERR_SYSTEM_ERROR;
    } else {
        const short callType = parms->eci_call_type;
        const bool specific = isSpecific(callType);
        const int32_t msgQual = parms->eci_msg_qual;
        bool locked = true;
        clapiSlot* found = nullptr;
        clapiExtRetrievalDeadline deadline;
        if (specific) rc = checkMessageQualifier(gwTok, msgQual);
        while (rc == 0) {
            if (gwTok->closing.load() != 0 && gwTok->asyncRequestCount == 0) {
                rc = KVL_ERR_GWTOK_CLOSED;
                break;
            }
            found = findQueued(gwTok, specific, msgQual);
            if (found) break;
            if (!waits(callType)) {
                rc = ECI_ERR_NO_REPLY;
                break;
            }
            int32_t status = gwTok->connStatus.load();
            if (status != CONN_CONNECTED) {
                CLAPI_TRACE(EXC, 1562, "clapi_eci.getAsyncReply() Connection status not open\n");
                rc = status == CONN_LOST ? KVL_ERR_LOSTGWCON : KVL_ERR_GATEWAY_CLOSED;
                break;
            }
            // Armed under the table lock, where the receiver thread queues and releases,
            // so a reply queued after this point always wakes the wait.
            if (clapiSetEvent(&gwTok->asyncReplyEvent) != 0) {
                CLAPI_TRACE(EXC, 1541, "clapi_eci.getAsyncReply() Failed to set asyncReplyEvent\n");
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            locked = false;
            if (clapiReleaseLock(&gwTok->tableLock) != 0) {
                CLAPI_TRACE(EXC, 1540, "clapi_eci.getAsyncReply() Failed to unlock slot table before waiting\n");
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            int waited = clapiExtAwaitAsyncReply(gwTok, &deadline);
            if (waited == ECI_ERR_RESPONSE_TIMEOUT) {
                rc = waited;
                break;
            }
            if (waited != 0) {
                CLAPI_TRACE(EXC, 1539, "clapi_eci.getAsyncReply() Failed to wait on asyncReplyEvent\n");
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            if (clapiRequestLock(&gwTok->tableLock) != 0) {
                CLAPI_TRACE(EXC, 1538, "clapi_eci.getAsyncReply() Failed to lock slot table after waiting\n");
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            locked = true;
            if (specific) rc = checkMessageQualifier(gwTok, msgQual);
        }
        if (found) rc = deliver(gwTok, found, parms);
        if (locked && clapiReleaseLock(&gwTok->tableLock) != 0 && rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    CLAPI_TRACE(EXIT, 1547, "clapi_eci.getAsyncReply() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
