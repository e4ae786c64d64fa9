// The few places where the connection's own code calls into the extensions.
// Each is cheap when the extensions are not used, and changes nothing that a
// program using only the specified functions can see.
#pragma once

#include <cstdint>

#include "gateway/clapi_gwytok.h"

struct flowHeader;

// A request in `slot` goes to SLOT_SENT (table lock held): in flight from now.
void clapiExtRequestStarted(kvlGatewayToken* token, clapiSlot* slot, int kind);
// Its flow was written whole: counted as sent, with its bytes.
void clapiExtRequestWritten(kvlGatewayToken* token, int kind, const flowHeader* header);
// The request leaves SLOT_SENT (table lock held): replied true with the reply's
// code, false when the connection ended under it or it was given up. Counts a
// request once however often it is called.
void clapiExtRequestEnded(kvlGatewayToken* token, clapiSlot* slot, int rc, bool replied);
// A flow of `bytes` bytes was read by the receiver thread.
void clapiExtFlowReceived(kvlGatewayToken* token, const flowHeader* header);
// The async reply queue changed (table lock held): the completion signal follows it.
void clapiExtAsyncQueueChanged(kvlGatewayToken* token);

// Waits for the reply of a synchronous request in `slot`, within the
// connection's deadline. 0: the slot holds the reply (or the connection's end);
// ECI_ERR_RESPONSE_TIMEOUT: the deadline passed and the slot is abandoned, so
// the caller must not touch it again (the receiver thread frees it); -1: the
// wait failed. Without a deadline this is exactly clapiWaitEvent.
int clapiExtAwaitReply(kvlGatewayToken* token, clapiSlot* slot);

// The deadline of one waiting retrieval, started at its first wait.
struct clapiExtRetrievalDeadline {
    uint64_t endUs = 0;
    int32_t ms = 0;
    bool started = false;
};
// One wait of a waiting retrieval on the async reply event: 0 woken,
// ECI_ERR_RESPONSE_TIMEOUT the deadline passed, -1 the wait failed.
int clapiExtAwaitAsyncReply(kvlGatewayToken* token, clapiExtRetrievalDeadline* deadline);

// Frees what the extensions hold for the token (its completion signal).
void clapiExtReleaseConn(kvlGatewayToken* token);
