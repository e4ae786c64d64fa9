// Call deadlines: a synchronous call or a waiting retrieval that gets no reply
// in time returns ECI_ERR_RESPONSE_TIMEOUT; a request it leaves behind is
// abandoned to the receiver thread, which drops its late reply.
#include "ext/clapi_ext.h"
#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"

namespace {

constexpr int kMaxDeadlineMs = 24 * 3600 * 1000;

int32_t deadlineOf(kvlGatewayToken* token) { return token->ext.callDeadlineMs.load(std::memory_order_relaxed); }

}  // namespace

int clapiExtAwaitReply(kvlGatewayToken* token, clapiSlot* slot) {
    const int32_t deadlineMs = deadlineOf(token);
    if (deadlineMs <= 0) return clapiWaitEvent(&slot->event) == 0 ? 0 : -1;
    bool timedOut = false;
    if (platformEventTimedWait(slot->event, static_cast<uint32_t>(deadlineMs), &timedOut) != 0) return -1;
    if (!timedOut) return 0;
    if (clapiRequestLock(&token->tableLock) != 0) return -1;
    // A reply being stored into the caller's memory arrived in time: it is waited for.
    const int32_t number = slot->number;
    bool gaveUp = slotAbandon(slot);
    if (gaveUp) clapiExtRequestEnded(token, slot, ECI_ERR_RESPONSE_TIMEOUT, false);
    clapiReleaseLock(&token->tableLock);
    if (!gaveUp) return clapiWaitEvent(&slot->event) == 0 ? 0 : -1;
    CLAPI_TRACE(EXC, 9016, "clapi_ext.awaitReply() No reply within %d ms for slot %d; request abandoned\n",
                (int)deadlineMs, (int)number);
    clapiExtSetError("no reply within %d ms", (int)deadlineMs);
    return ECI_ERR_RESPONSE_TIMEOUT;
}

int clapiExtAwaitAsyncReply(kvlGatewayToken* token, clapiExtRetrievalDeadline* deadline) {
    const int32_t deadlineMs = deadlineOf(token);
    if (deadlineMs <= 0 && !deadline->started) return clapiWaitEvent(&token->asyncReplyEvent) == 0 ? 0 : -1;
    uint64_t now = platformMonotonicMicros();
    if (!deadline->started) {
        deadline->started = true;
        deadline->endUs = now + static_cast<uint64_t>(deadlineMs) * 1000u;
        deadline->ms = deadlineMs;
    }
    bool timedOut = now >= deadline->endUs;
    if (!timedOut) {
        uint64_t leftMs = (deadline->endUs - now + 999) / 1000;
        if (platformEventTimedWait(token->asyncReplyEvent, static_cast<uint32_t>(leftMs), &timedOut) != 0) return -1;
    }
    if (!timedOut) return 0;
    CLAPI_TRACE(EXC, 9017, "clapi_ext.awaitAsyncReply() No reply within %d ms\n", (int)deadline->ms);
    clapiExtSetError("no reply within %d ms", (int)deadline->ms);
    return ECI_ERR_RESPONSE_TIMEOUT;
}

KVL_API int KVL_EXT_setCallDeadline(gwTok token, int deadlineMs) {
    CLAPI_TRACE(ENTRY, 9010, "API.KVL_EXT_setCallDeadline(gwTok=%p, deadlineMs=%d)\n", static_cast<void*>(token),
                deadlineMs);
    int rc;
    if (deadlineMs < 0 || deadlineMs > kMaxDeadlineMs) {
        CLAPI_TRACE(EXC, 9011, "API.KVL_EXT_setCallDeadline() Deadline out of range, deadlineMs=%d\n", deadlineMs);
        clapiExtSetError("deadline %d ms is outside 0..%d", deadlineMs, kMaxDeadlineMs);
        rc = KVL_EXT_ERR_BADDEADLINE;
    } else if ((rc = clapiExtBeginCall(token)) == 0) {
        token->ext.callDeadlineMs.store(deadlineMs, std::memory_order_relaxed);
        rc = clapiExtEndCall(token, rc);
        if (rc == 0) clapiExtClearError();
    }
    CLAPI_TRACE(EXIT, 9012, "API.KVL_EXT_setCallDeadline() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}

KVL_API int KVL_EXT_getCallDeadline(gwTok token, int* deadlineMs) {
    CLAPI_TRACE(ENTRY, 9013, "API.KVL_EXT_getCallDeadline(gwTok=%p, deadlineMs=%p)\n", static_cast<void*>(token),
                static_cast<void*>(deadlineMs));
    int rc;
    if (!deadlineMs) {
        CLAPI_TRACE(EXC, 9014, "API.KVL_EXT_getCallDeadline() NULL deadline pointer\n");
        clapiExtSetError("NULL deadline pointer");
        rc = KVL_ERR_NULLPTR;
    } else if ((rc = clapiExtBeginCall(token)) == 0) {
        *deadlineMs = deadlineOf(token);
        rc = clapiExtEndCall(token, rc);
        if (rc == 0) clapiExtClearError();
    }
    CLAPI_TRACE(EXIT, 9015, "API.KVL_EXT_getCallDeadline() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}
