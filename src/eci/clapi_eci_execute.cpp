// ECI_SYNC and ECI_ASYNC requests: slot, request, send, wait, results (module clapi_eci).
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "eci/clapi_channel.h"
#include "eci/clapi_eci.h"
#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

constexpr size_t kCredentialField = 16;

bool carriesData(int extendMode) { return extendMode != ECI_COMMIT && extendMode != ECI_BACKOUT; }

bool hasAltTranId(const EciParms* parms) {
    for (char c : parms->eci_alt_tran_id)
        if (c != 0) return true;
    return false;
}

// A requested length above 0, never more than the COMMAREA holds; 0 otherwise.
int32_t clipLength(short requested, short commareaLength) {
    if (requested <= 0) return 0;
    return requested < commareaLength ? requested : commareaLength;
}

int connectionClosedRc(int32_t status) { return status == CONN_LOST ? KVL_ERR_LOSTGWCON : KVL_ERR_GATEWAY_CLOSED; }

// Terminated copies of the fixed-width credentials of a block below version 5;
// they hold a password, so they are wiped once the request has gone.
struct credentialCopies {
    char userid[kCredentialField + 1] = {};
    char password[kCredentialField + 1] = {};
    credentialCopies() = default;
    credentialCopies(const credentialCopies&) = delete;
    credentialCopies& operator=(const credentialCopies&) = delete;
    ~credentialCopies() { clapiChannelWipe(this, sizeof *this); }
};

// What the sender installs in the slot together with the state change to SLOT_SENT.
// The copy of the block may hold a password too, so it is wiped as well.
struct preparedRequest {
    EciParms copy{};
    uint64_t replyCapacity = 0;
    flowHeader header{};
    EciRequest request{};
    credentialCopies credentials;
    ~preparedRequest() { clapiChannelWipe(&copy, sizeof copy); }
};

// Steps 2 to 4: a slot when the connection is open. *slotOut is set only when
// this call now holds a slot.
int takeSlot(kvlGatewayToken* gwTok, int32_t luwToken, clapiSlot** slotOut) {
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1518, "clapi_eci.performEciExecute() Failed to lock slot table\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int rc;
    int32_t status = gwTok->connStatus.load();
    if (status == CONN_CONNECTED) {
        clapiSlot* slot = nullptr;
        rc = slotFind(&gwTok->requestTable, luwToken, &slot);
        if (rc == 0) *slotOut = slot;
    } else {
        rc = connectionClosedRc(status);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1519, "clapi_eci.performEciExecute() Failed to unlock slot table\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// Steps 6 to 9: the slot's copy of the block, the flow header and the request.
// The slot is held by this call, so its owned buffer may be replaced here.
int prepare(clapiSlot* slot, EciParms* parms, bool useChannel, preparedRequest* p) {
    memcpy(&p->copy, parms, sizeof p->copy);
    clapiInitFlowHeader(&p->header, FLOW_REQUEST, slot->number, "ECI");

    EciRequest* r = &p->request;
    memset(static_cast<void*>(r), 0, sizeof *r);
    bool alt = hasAltTranId(parms);
    r->requestType = alt ? ECI_REQUEST_CALL_ALT_TRANID : ECI_REQUEST_CALL;
    r->extendMode = parms->eci_extend_mode;
    r->timeout = static_cast<uint16_t>(parms->eci_timeout);
    r->luwToken = parms->eci_luw_token;
    r->correlator = static_cast<int32_t>(getNextCorrelator());
    memcpy(r->serverName, parms->eci_server_name, sizeof r->serverName);
    memcpy(r->program, parms->eci_program, sizeof r->program);
    memcpy(r->tranId, alt ? parms->eci_alt_tran_id : parms->eci_tran_id, sizeof r->tranId);
    r->optionalBlocks = -1;

    if (parms->eci_version < 5) {
        CLAPI_TRACE(DEBUG, 1520,
                    "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid and eci_password\n",
                    (int)parms->eci_version);
        memcpy(p->credentials.userid, parms->eci_userid, kCredentialField);
        memcpy(p->credentials.password, parms->eci_password, kCredentialField);
        r->userid = p->credentials.userid;
        r->password = p->credentials.password;
    } else {
        CLAPI_TRACE(DEBUG, 1521,
                    "clapi_eci.performEciExecute() eci_version set to %d, using eci_userid_ptr and eci_password_ptr\n",
                    (int)parms->eci_version);
        r->userid = parms->eci_userid_ptr;
        r->password = parms->eci_password_ptr;
    }

    const bool async = parms->eci_call_type == ECI_ASYNC;
    p->copy.eci_channel = nullptr;
    if (async) p->copy.eci_msg_qual = slot->number;
    // An async COMMAREA left by an earlier call of the same unit of work is not reused.
    clapiReleaseOwnedBuffer(slot);
    if (!carriesData(parms->eci_extend_mode)) {
        if (async) p->copy.eci_commarea = nullptr;
        return 0;
    }
    if (useChannel) {
        r->channel = static_cast<kvlChannel*>(parms->eci_channel);
        p->copy.eci_channel = parms->eci_channel;
        return 0;
    }
    short length = parms->eci_commarea_length;
    r->commarea = static_cast<uint8_t*>(parms->eci_commarea);
    r->commareaLength = length;
    r->inboundLength = clipLength(parms->commarea_inbound_length, length);
    r->outboundLength = clipLength(parms->commarea_outbound_length, length);
    if (!async) {
        p->replyCapacity = length > 0 ? static_cast<uint64_t>(length) : 0;
        return 0;
    }
    // The caller's COMMAREA need not outlive an async call: the reply goes to a copy.
    int32_t size = r->inboundLength > 0 ? r->inboundLength : length;
    p->copy.eci_commarea = nullptr;
    if (size <= 0) return 0;
    void* buffer = calloc(1, static_cast<size_t>(size));
    if (!buffer) {
        CLAPI_TRACE(EXC, 1522, "clapi_eci.performEciExecute() Failed to allocate %d bytes for async commarea\n",
                    (int)size);
        return ECI_ERR_RESOURCE_SHORTAGE;
    }
    CLAPI_TRACE(DEBUG, 1523, "clapi_eci.performEciExecute() Allocated %d bytes for async commarea=%p\n", (int)size,
                buffer);
    slot->ownedBuffer = buffer;
    slot->ownedBufferSize = static_cast<uint64_t>(size);
    p->copy.eci_commarea = buffer;
    p->replyCapacity = static_cast<uint64_t>(size);
    return 0;
}

// Steps 11 and 12 up to the send: the copy goes into the slot, the async count
// rises and the slot awaits its reply, all under one hold of the table lock.
// The connection is checked again there: once the receiver thread has failed
// the waiting slots it never looks at this one, so nothing may be sent.
int markSent(kvlGatewayToken* gwTok, clapiSlot* slot, preparedRequest* p, bool* counted) {
    const bool async = p->copy.eci_call_type == ECI_ASYNC;
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        if (async)
            CLAPI_TRACE(EXC, 1525, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
        else
            CLAPI_TRACE(EXC, 1518, "clapi_eci.performEciExecute() Failed to lock slot table\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int rc = 0;
    int32_t status = gwTok->connStatus.load();
    if (status != CONN_CONNECTED) {
        rc = connectionClosedRc(status);
    } else {
        memcpy(&slot->request, &p->copy, sizeof slot->request);
        slot->replyCapacity = p->replyCapacity;
        slot->channelRequest = p->copy.eci_channel ? 1 : 0;
        slot->replyRc = 0;
        slot->bodyRc = 0;
        if (async) {
            ++gwTok->asyncRequestCount;
            *counted = true;
            CLAPI_TRACE(DEBUG, 1526, "clapi_eci.performEciExecute() Async requests=%d on gwTok=%p\n",
                        (int)gwTok->asyncRequestCount, static_cast<void*>(gwTok));
        }
        rc = slotMarkSent(slot);
        if (rc == 0) clapiExtRequestStarted(gwTok, slot, async ? KVL_EXT_KIND_ECI_ASYNC : KVL_EXT_KIND_ECI_SYNC);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        if (async)
            CLAPI_TRACE(EXC, 1527,
                        "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
        else
            CLAPI_TRACE(EXC, 1519, "clapi_eci.performEciExecute() Failed to unlock slot table\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// Step 12: the whole flow under the send lock, on the socket as it is then.
int sendRequest(kvlGatewayToken* gwTok, preparedRequest* p) {
    if (clapiRequestLock(&gwTok->sendLock) != 0) {
        CLAPI_TRACE(EXC, 1528, "clapi_eci.performEciExecute() Failed to acquire send lock\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    int rc = clapiFlowECIRequest(gwTok->socket.load(), &p->header, &p->request);
    if (rc == 0)
        clapiExtRequestWritten(gwTok, p->copy.eci_call_type == ECI_ASYNC ? KVL_EXT_KIND_ECI_ASYNC : KVL_EXT_KIND_ECI_SYNC,
                               &p->header);
    if (clapiReleaseLock(&gwTok->sendLock) != 0) {
        CLAPI_TRACE(EXC, 1529, "clapi_eci.performEciExecute() Failed to release send lock\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// Steps 13 and 15, in one hold of the table lock. A request whose send failed
// on a broken connection may already have been failed by the receiver thread,
// queued as an async reply and even collected by another thread; so the slot is
// reached through its number, and left alone once it is no longer this call's.
// (No slot is handed out again after the connection broke.)
int giveBackSlot(kvlGatewayToken* gwTok, clapiSlot* slot, int32_t number, bool counted) {
    if (clapiRequestLock(&gwTok->tableLock) != 0) {
        if (counted)
            CLAPI_TRACE(EXC, 1530, "clapi_eci.performEciExecute() Failed to lock slot table to update async count\n");
        else
            CLAPI_TRACE(EXC, 1533, "clapi_eci.performEciExecute() Failed to lock slot table to free slot\n");
        return ECI_ERR_SYSTEM_ERROR;  // a slot left in use is safer than a table changed unlocked
    }
    if (slotByNumber(&gwTok->requestTable, number) == slot && slot->state != SLOT_FREE) {
        if (counted) {
            if (gwTok->asyncRequestCount > 0) --gwTok->asyncRequestCount;
            CLAPI_TRACE(DEBUG, 1531, "clapi_eci.performEciExecute() Async requests=%d on gwTok=%p\n",
                        (int)gwTok->asyncRequestCount, static_cast<void*>(gwTok));
        }
        clapiUnqueueAsyncReply(gwTok, slot);
        clapiExtRequestEnded(gwTok, slot, KVL_ERR_LOSTGWCON, false);
        slotFree(&gwTok->requestTable, slot);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        if (counted)
            CLAPI_TRACE(EXC, 1532,
                        "clapi_eci.performEciExecute() Failed to unlock slot table after updating async count\n");
        else
            CLAPI_TRACE(EXC, 1534, "clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    return 0;
}

// Step 14 for ECI_SYNC: the reply (or the connection's end) has been recorded in
// the slot by the receiver thread. Frees the slot, or keeps it for an open unit
// of work; the caller unlocks a channel, so the kept slot forgets it.
int collectSyncReply(kvlGatewayToken* gwTok, clapiSlot* slot, EciParms* parms) {
    int rc = 0;
    int waited = clapiExtAwaitReply(gwTok, slot);
    if (waited == ECI_ERR_RESPONSE_TIMEOUT) return waited;  // the slot is no longer this call's
    if (waited != 0) rc = ECI_ERR_SYSTEM_ERROR;
    bool locked = clapiRequestLock(&gwTok->tableLock) == 0;
    if (!locked) CLAPI_TRACE(EXC, 1533, "clapi_eci.performEciExecute() Failed to lock slot table to free slot\n");
    memcpy(parms->eci_abend, slot->request.eci_abend, sizeof parms->eci_abend);
    parms->eci_luw_token = slot->request.eci_luw_token;
    if (rc == 0) rc = slot->replyRc != 0 ? slot->replyRc : slot->bodyRc;
    if (!locked) return rc != 0 ? rc : ECI_ERR_SYSTEM_ERROR;
    if (parms->eci_extend_mode == ECI_EXTENDED && parms->eci_luw_token != 0) {
        slot->state = SLOT_LUW_KEPT;
        slot->channelRequest = 0;
        slot->request.eci_channel = nullptr;
        slot->request.eci_commarea = nullptr;  // the caller's memory: no reply may go there any more
        slot->replyCapacity = 0;
    } else {
        slotFree(&gwTok->requestTable, slot);
    }
    if (clapiReleaseLock(&gwTok->tableLock) != 0) {
        CLAPI_TRACE(EXC, 1534, "clapi_eci.performEciExecute() Failed to unlock slot table after freeing slot\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

}  // namespace

void clapiReleaseOwnedBuffer(clapiSlot* slot) {
    if (slot->ownedBuffer) {
        clapiChannelWipe(slot->ownedBuffer, static_cast<size_t>(slot->ownedBufferSize));
        free(slot->ownedBuffer);
    }
    slot->ownedBuffer = nullptr;
    slot->ownedBufferSize = 0;
}

int performEciExecute(kvlGatewayToken* gwTok, EciParms* parms, bool useChannel) {
    CLAPI_TRACE(ENTRY, 1517, "clapi_eci.performEciExecute(gwTok=%p, EciParms=%p, useChannel=%s)\n",
                static_cast<void*>(gwTok), static_cast<void*>(parms), useChannel ? "TRUE" : "FALSE");
    const bool async = parms->eci_call_type == ECI_ASYNC;
    clapiSlot* slot = nullptr;
    int rc = takeSlot(gwTok, parms->eci_luw_token, &slot);
    if (slot) {
        // Read while the slot is surely this call's: after the send another thread may free it.
        const int32_t number = slot->number;
        bool counted = false;
        {
            preparedRequest p;  // its credential copies are wiped when it goes
            if (rc == 0) rc = prepare(slot, parms, useChannel, &p);
            if (rc == 0 && clapiSetEvent(&slot->event) != 0) {
                CLAPI_TRACE(EXC, 1524, "clapi_eci.performEciExecute() Failed to set request event in slot\n");
                rc = ECI_ERR_SYSTEM_ERROR;
            }
            if (rc == 0) rc = markSent(gwTok, slot, &p, &counted);
            if (rc == 0) rc = sendRequest(gwTok, &p);
        }
        if (rc != 0) {
            giveBackSlot(gwTok, slot, number, counted);
        } else if (async) {
            parms->eci_msg_qual = number;
        } else {
            rc = collectSyncReply(gwTok, slot, parms);
        }
    }
    CLAPI_TRACE(EXIT, 1535, "clapi_eci.performEciExecute() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
