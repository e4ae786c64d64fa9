// The receiver thread: the only reader of a connection's socket (module clapi_gwycon).
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "comms/clapi_socketcomms.h"
#include "ext/clapi_ext_hooks.h"
#include "gateway/clapi_gwycon.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"

namespace {

constexpr uint64_t kReadBufferSize = 33000;
// lookupSlot: the reply belongs to a request whose caller gave up waiting.
constexpr int kLateReply = 1;

// What a decoded reply leaves for its slot.
struct replyResult {
    bool isEci = false;
    bool isEsi = false;
    EciRequest eci{};
    EsiResponse esi{};
};

// The receiver's own state for one connection.
struct receiver {
    kvlGatewayToken* token;
    sockBuffer sb;
    flowHeader header;
    char requestType[7];  // the header's field, terminated for the trace
    int32_t closeCode;    // non-zero once a close flow arrived: the close code for the slots
};

// Appends a completed async slot to the reply queue; table lock held.
void queueAsyncReply(kvlGatewayToken* token, clapiSlot* slot) {
    slot->queueNext = nullptr;
    if (token->asyncQueueTail) {
        token->asyncQueueTail->queueNext = slot;
    } else {
        token->asyncQueueHead = slot;
    }
    token->asyncQueueTail = slot;
    clapiExtAsyncQueueChanged(token);
    clapiClearEvent(&token->asyncReplyEvent);
}

// Records the reply's code; table lock held. An async reply is queued and its
// slot's event released here: nobody waits on that event, and a get-reply may
// free the slot as soon as the lock is dropped. True for a sync slot when
// `deferWake`: its caller's event is then released by the caller of
// markReplied once the lock is dropped, so that the woken caller does not
// block on the table lock at once (the slot stays until its caller has woken).
bool markReplied(kvlGatewayToken* token, clapiSlot* slot, int32_t replyRc, bool deferWake) {
    slot->replyRc = replyRc;
    slot->state = SLOT_REPLIED;
    const bool async = slot->request.eci_call_type == ECI_ASYNC;
    if (async) queueAsyncReply(token, slot);
    if (async || !deferWake) {
        clapiClearEvent(&slot->event);
        return false;
    }
    return true;
}

void storeReply(clapiSlot* slot, const replyResult& reply) {
    if (reply.isEci) {
        memcpy(slot->request.eci_abend, reply.eci.abend, sizeof slot->request.eci_abend);
        slot->bodyRc = reply.eci.rc;
        slot->request.commarea_inbound_length = static_cast<short>(reply.eci.inboundLength);
        if (reply.eci.requestType == ECI_REQUEST_LIST_SYSTEMS) {
            slot->systemsReturned = reply.eci.listParm;
        } else {
            slot->request.eci_luw_token = reply.eci.luwToken;
        }
    } else if (reply.isEsi) {
        slot->bodyRc = reply.esi.rc;
        if (reply.esi.rc == 0 && slot->esiDetailsPtr) *slot->esiDetailsPtr = reply.esi.details;
    }
}

// Completes the slot numbered messageId if it still awaits its reply. Looked up
// again under the lock: the slot may have been given up while the body was read.
int completeSlot(kvlGatewayToken* token, int32_t messageId, int32_t replyRc, const replyResult* reply) {
    if (clapiRequestLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 3039, "clapi_gwycon.receiverThread() Failed to acquire table lock\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    clapiSlot* slot = slotByNumber(&token->requestTable, messageId);
    clapiEvent* wake = nullptr;
    if (slot && slot->state == SLOT_SENT) {
        slot->replyInProgress = 0;
        if (reply) storeReply(slot, *reply);
        clapiExtRequestEnded(token, slot, replyRc != 0 ? replyRc : slot->bodyRc, true);
        if (markReplied(token, slot, replyRc, true)) wake = &slot->event;
    } else if (slot && slot->state == SLOT_ABANDONED) {
        CLAPI_TRACE(DEBUG, 9150, "clapi_gwycon.receiverThread() Late reply for slot %d dropped, its caller gave up\n",
                    (int)messageId);
        slotFree(&token->requestTable, slot);
    }
    int rc = 0;
    if (clapiReleaseLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 3040, "clapi_gwycon.receiverThread() Failed to release table lock\n");
        rc = KVL_ERR_SYSTEM_ERROR;
    }
    if (wake) clapiClearEvent(wake);
    return rc;
}

// slotLookup under the table lock: 0 when the slot awaits a reply. On success
// the decode destinations are copied out while the lock is held.
int lookupSlot(kvlGatewayToken* token, int32_t messageId, EciRequest* prime) {
    if (clapiRequestLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 3039, "clapi_gwycon.receiverThread() Failed to acquire table lock\n");
        return KVL_ERR_SYSTEM_ERROR;
    }
    clapiSlot* slot = slotByNumber(&token->requestTable, messageId);
    int rc;
    if (slot && slot->state == SLOT_ABANDONED) {
        rc = kLateReply;  // nothing is decoded: the flow is dropped whole
    } else {
        rc = slotLookup(&token->requestTable, messageId, &slot);
        if (rc == 0 && prime) {
            prime->extendMode = slot->request.eci_extend_mode;
            prime->commarea = static_cast<uint8_t*>(slot->request.eci_commarea);
            prime->channel = static_cast<kvlChannel*>(slot->request.eci_channel);
            prime->commareaCapacity = prime->commarea ? slot->replyCapacity : 0;
            slot->replyInProgress = 1;
        }
    }
    if (clapiReleaseLock(&token->tableLock) != 0) {
        CLAPI_TRACE(EXC, 3040, "clapi_gwycon.receiverThread() Failed to release table lock\n");
        if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// A short read or a dead socket shows in the buffer, not in the decoders' results.
int bufferState(const sockBuffer* sb) { return sb->lastError != 0 ? KVL_ERR_LOSTGWCON : 0; }

int onReply(receiver* r) {
    kvlGatewayToken* token = r->token;
    flowHeader* h = &r->header;
    CLAPI_TRACE(DEBUG, 3038, "clapi_gwycon.receiverThread() Flow type is FLOW_REPLY, request type %s\n", r->requestType);
    replyResult reply;
    int rc = lookupSlot(token, h->messageId, &reply.eci);
    if (rc == kLateReply) return completeSlot(token, h->messageId, h->rc, nullptr);
    if (rc != 0) return rc;  // a reply that no request awaits ends the connection
    size_t n = h->requestTypeLen < sizeof h->requestType ? h->requestTypeLen : sizeof h->requestType;
    if (strncmp(h->requestType, "ECI", n) == 0) {
        reply.isEci = true;
        rc = clapiReadECIResponse(&r->sb, &reply.eci);
        if (rc == 0) rc = bufferState(&r->sb);
        if (rc != 0) return rc;
        if (reply.eci.rc != 0) {
            CLAPI_TRACE(EXC, 3043, "clapi_gwycon.receiverThread() Gateway returned ECI error, rc=%d (%s)\n",
                        (int)reply.eci.rc, clapiEciRcName(reply.eci.rc));
        }
    } else if (strncmp(h->requestType, "ESI", n) == 0) {
        reply.isEsi = true;
        clapiReadESIResponse(&r->sb, &reply.esi);
        rc = bufferState(&r->sb);
        if (rc != 0) return rc;
        if (reply.esi.rc != 0) {
            CLAPI_TRACE(EXC, 3044, "clapi_gwycon.receiverThread() Gateway returned ESI error, rc=%d (%s)\n",
                        (int)reply.esi.rc, clapiEsiRcName(reply.esi.rc));
        }
    } else {
        CLAPI_TRACE(EXC, 3042, "clapi_gwycon.receiverThread() Gateway returned unexpected request type %s\n",
                    r->requestType);
        h->rc = KVL_ERR_SYSTEM_ERROR;
    }
    return completeSlot(token, h->messageId, h->rc, &reply);
}

int onError(receiver* r) {
    flowHeader* h = &r->header;
    int code = 0;
    bool found = false;
    if (h->messageId != FLOW_MSGID_HANDSHAKE) {
        int looked = lookupSlot(r->token, h->messageId, nullptr);
        found = looked == 0 || looked == kLateReply;
    } else {
        // The handshake was refused: this ends the connection, and the code reaches the connect as closeRc.
        code = h->rc != 0 ? h->rc : KVL_ERR_CONNECTFAILED;
    }
    CLAPI_TRACE(EXC, 3036, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_ERROR, rc=%d (%s)\n",
                (int)h->rc, clapiRcName(h->rc));
    if (code != 0) return code;
    return found ? completeSlot(r->token, h->messageId, h->rc, nullptr) : 0;
}

int onException(receiver* r) {
    flowHeader* h = &r->header;
    CLAPI_TRACE(EXC, 3037, "clapi_gwycon.receiverThread() Gateway returned a flow type of FLOW_EXCEPTION\n");
    int code = 0;
    readByte(&r->sb);
    uint64_t length = readShort(&r->sb);
    // The text can be no longer than what is left of the flow.
    uint64_t available = sockBufferFlowRemaining(&r->sb);
    if (length > available) length = available;
    char* text = static_cast<char*>(malloc(length + 1));
    if (!text) {
        CLAPI_TRACE(EXC, 3045, "clapi_gwycon.receiverThread() Failed to allocate %d bytes for exception message\n",
                    (int)length);
        code = KVL_ERR_SYSTEM_ERROR;
    } else {
        readBytes(&r->sb, text, length);
        if (r->sb.lastError == 0) {
            CLAPI_TRACE(EXC, 3046, "clapi_gwycon.receiverThread() Exception message: %.*s\n", (int)length, text);
        }
        memset(text, 0, length + 1);
        free(text);
    }
    if (code == 0) code = bufferState(&r->sb);
    h->rc = KVL_ERR_GATEWAY_EXCEPTION;
    int looked = lookupSlot(r->token, h->messageId, nullptr);
    bool found = looked == 0 || looked == kLateReply;
    if (code != 0) return code;
    return found ? completeSlot(r->token, h->messageId, h->rc, nullptr) : 0;
}

// Reads and drops what the handlers left of the flow, so that the next header
// starts where the Gateway put it, in pieces of kDiscardPiece bytes. Most
// remainders are a few bytes (the handshake answer's body) and go through a
// small buffer on the stack, so that an idle receiver's stack stays small; a
// larger one through a heap buffer.
int discardRestOfFlow(sockBuffer* sb) {
    constexpr uint64_t kDiscardPiece = 4096;
    unsigned char small[256];
    std::unique_ptr<unsigned char[]> large;
    uint64_t remaining = sockBufferFlowRemaining(sb);
    unsigned char* scratch = small;
    if (remaining > sizeof small) {
        large.reset(new (std::nothrow) unsigned char[kDiscardPiece]);
        if (!large) return KVL_ERR_MALLOCFAIL;
        scratch = large.get();
    }
    while (remaining > 0) {
        uint64_t n = remaining < kDiscardPiece ? remaining : kDiscardPiece;
        readBytes(sb, scratch, n);
        uint64_t after = sockBufferFlowRemaining(sb);
        if (sb->lastError != 0 || after >= remaining) return KVL_ERR_LOSTGWCON;
        remaining = after;
    }
    return 0;
}

// Waits for the next flow (waitSeconds 0: without limit). An unbounded wait is
// the read of the header itself: no timer and no poll, so an idle connection
// costs nothing. A stop shuts the socket down, which ends the read at once;
// the flag covers a stop that came before the wait began.
int awaitFlow(receiver* r, int waitSeconds) {
    if (r->token->stopReceiver.load() != 0) return KVL_ERR_LOSTGWCON;
    return waitForResponse(&r->sb, waitSeconds);
}

// One flow: header, body, dispatch. Non-zero ends the connection.
int receiveFlow(receiver* r, int waitSeconds) {
    kvlGatewayToken* token = r->token;
    CLAPI_TRACE(DEBUG, 3032, "clapi_gwycon.receiverThread() Waiting for a reply\n");
    int rc = awaitFlow(r, waitSeconds);
    if (rc == 0) rc = clapiReadHeader(&r->sb, &r->header);
    if (rc != 0) return rc;
    flowHeader* h = &r->header;
    clapiExtFlowReceived(token, h);
    memset(r->requestType, 0, sizeof r->requestType);
    memcpy(r->requestType, h->requestType, sizeof h->requestType);

    if (h->messageId == FLOW_MSGID_CLOSE) {
        bool byApi = token->closing.load() != 0;
        int closeCode = byApi ? KVL_ERR_GWTOK_CLOSED : KVL_ERR_GATEWAY_CLOSED;
        CLAPI_TRACE(EVENT, 3042, "clapi_gwycon.receiverThread() Connection closed, initiated by %s; closeRc=%d (%s)\n",
                    byApi ? "API" : "Gateway", closeCode, clapiRcName(closeCode));
        // The state changes in endConnection, in the same hold of the table lock
        // that queues or fails every request still waiting: a get-reply never sees
        // the connection closed while a reply is still to be queued.
        r->closeCode = closeCode;
        return KVL_ERR_GATEWAY_CLOSED;
    }

    uint64_t buffered = r->sb.bufferLen;
    r->sb.dataRemaining = h->bodyLen > buffered ? h->bodyLen - buffered : 0;
    rc = fillBuffer(&r->sb);
    if (rc != 0) return rc;

    switch (h->flowType) {
    case FLOW_REPLY:
        rc = onReply(r);
        break;
    case FLOW_ERROR:
        rc = onError(r);
        break;
    case FLOW_HANDSHAKE:
        CLAPI_TRACE(DEBUG, 3034, "clapi_gwycon.receiverThread() Flow type is FLOW_HANDSHAKE\n");
        token->connStatus = CONN_CONNECTED;
        clapiClearEvent(&token->connEvent);
        break;
    case FLOW_EXCEPTION:
        rc = onException(r);
        break;
    case FLOW_PING:
        CLAPI_TRACE(DEBUG, 3033, "clapi_gwycon.receiverThread() Flow type is FLOW_PING\n");
        break;
    case FLOW_CLOSE:
        CLAPI_TRACE(DEBUG, 3035, "clapi_gwycon.receiverThread() Flow type is FLOW_CLOSE\n");
        break;
    default:
        break;  // other flow types are skipped
    }
    if (rc == 0) rc = discardRestOfFlow(&r->sb);
    // A connection often waits long after its handshake before its first request
    // (a pool opened ahead): its read buffer's memory goes back until then.
    if (rc == 0 && h->flowType == FLOW_HANDSHAKE) sockBufferReleaseIdle(&r->sb);
    return rc;
}

// Records why the connection ended and fails every request still waiting, in
// one hold of the table lock (the SENT -> REPLIED transition of the connection's
// end; see clapi_slots.h). closeCode: the close flow's code, or 0.
void endConnection(kvlGatewayToken* token, int code, int32_t closeCode) {
    CLAPI_TEST_POINT("receiver.beforeEnd");
    clapiRequestLock(&token->tableLock);
    int32_t status = token->connStatus.load();
    int32_t slotCode = closeCode;
    if (closeCode != 0) {
        token->closeRc = closeCode;
        token->connStatus = CONN_CLOSED;
    } else {
        token->closeRc = code;
        token->connStatus = status == CONN_CONNECTED ? CONN_LOST : CONN_FAILED;
        slotCode = KVL_ERR_LOSTGWCON;
    }
    // Always released: a connect still waiting for the handshake wakes and sees the
    // failure, and get-reply calls waiting with nothing queued see the connection gone.
    clapiClearEvent(&token->connEvent);
    clapiClearEvent(&token->asyncReplyEvent);
    for (clapiSlot* s = token->requestTable.first; s; s = s->next) {
        if (s->state == SLOT_SENT) {
            s->replyInProgress = 0;
            clapiExtRequestEnded(token, s, slotCode, false);
            // Released under the lock: once it is dropped, a woken caller may free
            // its slot, and the walk could not go on (a rare path, many slots).
            markReplied(token, s, slotCode, false);
        }
    }
    // No reply can come for an abandoned request any more. slotFree may give
    // back trailing blocks, so the walk starts again after each.
    for (clapiSlot* s = token->requestTable.first; s;) {
        if (s->state == SLOT_ABANDONED) {
            slotFree(&token->requestTable, s);
            s = token->requestTable.first;
        } else {
            s = s->next;
        }
    }
    clapiReleaseLock(&token->tableLock);
}

}  // namespace

void receiverThread(void* conn) {
    CLAPI_TRACE(ENTRY, 3031, "clapi_gwycon.receiverThread(conn=%p)\n", conn);
    auto* token = static_cast<kvlGatewayToken*>(conn);
    clapiSetEvent(&token->recvThreadEndedEvent);

    receiver r;
    memset(static_cast<void*>(&r), 0, sizeof r);
    r.token = token;
    int code = initReadBuffer(&r.sb, token->socket.load(), kReadBufferSize);
    if (code == 0) {
        // Only the first wait, for the handshake answer, is bounded.
        int waitSeconds = token->connTimeout;
        while (code == 0) {
            int32_t status = token->connStatus.load();
            if (status != CONN_CONNECTING && status != CONN_CONNECTED) break;
            code = receiveFlow(&r, waitSeconds);
            waitSeconds = 0;
        }
        freeBuffer(&r.sb);
    }
    endConnection(token, code, r.closeCode);
    CLAPI_TEST_POINT("receiver.afterEnd");
    clapiCloseTokenSocket(token);
    clapiClearEvent(&token->recvThreadEndedEvent);
    CLAPI_TRACE(EXIT, 3041, "clapi_gwycon.receiverThread(conn=%p)\n", conn);
}
