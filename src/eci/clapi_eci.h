// ECI program calls: sending ECI_SYNC and ECI_ASYNC requests and collecting
// the replies of asynchronous ones.
//
// Lock order: a channel's long-lived lock before the token's table lock; the
// table lock and the send lock are never held together here. No lock is held
// across the wait for a reply.
#pragma once

#include "gateway/clapi_gwytok.h"
#include "kvl_eci.h"

// Call types 1 and 2 only; parms has passed verifyEciParms. With useChannel the
// caller holds parms->eci_channel locked (unless the extend mode is 2 or 4).
// An ECI_ASYNC request leaves its slot, its async COMMAREA and its channel lock
// for getAsyncReply.
int performEciExecute(kvlGatewayToken* gwTok, EciParms* parms, bool useChannel);

// Call types 3 to 6: takes a queued reply, copies it to the caller, frees or
// keeps its slot and unlocks the channel of a channel request.
int getAsyncReply(kvlGatewayToken* gwTok, EciParms* parms);

// Takes `slot` off the token's async reply queue if it is on it; table lock held.
void clapiUnqueueAsyncReply(kvlGatewayToken* gwTok, clapiSlot* slot);

// Wipes and frees the slot's library-owned reply buffer and forgets it; table lock held.
void clapiReleaseOwnedBuffer(clapiSlot* slot);
