// The request slot table of one Gateway connection.
//
// Every request sent on a connection occupies one slot until its reply has been
// taken; the slot's number is the message id of the request's flow, so the
// receiver thread finds the waiting caller by the reply's message id. The first
// block of 16 slots is embedded in the token; further blocks of 16 are chained
// behind it with continued numbering and given back from the end when empty.
//
// None of these functions locks: the caller holds the token's table lock.
//
// The request state machine. Every request kind (ECI sync and async, channel,
// ESI, list systems) moves its slot through these states, and every transition
// is made under the token's table lock:
//
//   FREE ------slotFind------> ALLOCATED      connection checked CONNECTED in the same hold
//   LUW_KEPT --slotFind(luw)-> ALLOCATED
//   ALLOCATED --slotMarkSent-> SENT           connection checked CONNECTED again in the same
//                                             hold; the sender's fields are installed there
//   ALLOCATED --slotFree-----> FREE           refused, or preparing the request failed
//   SENT ------markReplied---> REPLIED        (receiver) a reply, error or exception flow
//   SENT ------endConnection-> REPLIED        (receiver) drop, close flow, purge: the code
//                                             of the end; connStatus leaves CONNECTED in
//                                             the same hold, so every SENT slot is failed
//                                             exactly once and no slot becomes SENT after
//   SENT ------slotAbandon---> ABANDONED      a sync caller's deadline passed while no reply
//                                             was being decoded for it (replyInProgress 0);
//                                             the caller's memory is forgotten and the
//                                             caller returns without touching the slot again
//   ABANDONED --late reply---> FREE           (receiver) the reply, error or exception flow
//                                             is read whole and dropped
//   ABANDONED --endConnection-> FREE          (receiver) in the same hold that fails the SENT
//                                             slots: no reply can come any more
//   SENT or REPLIED --slotFree-> FREE         the sender, when its send failed
//   REPLIED ---slotFree------> FREE           the collector: the sync caller after its
//                                             wait, or get-reply for an async request
//   REPLIED ---collector-----> LUW_KEPT       a unit of work stays open
//   any -------slotFree------> FREE           token delete, after every call has left
//
// An async slot enters the token's reply queue in the same hold that makes it
// REPLIED, and leaves it in the hold that frees or keeps it. Replies match SENT
// and ABANDONED slots only (a reply for any other slot ends the connection);
// the end of the connection fails every SENT slot and frees every ABANDONED one,
// each exactly once. A caller waits on the slot's event only once its slot is
// SENT, and the receiver releases the event in the hold that makes the slot
// REPLIED, so no wait can outlive the connection. An ABANDONED slot has no
// waiter and no owner but the receiver thread.
#pragma once

#include <cstdint>

#include "gateway/clapi_slotindex.h"
#include "impl/clapi_lock.h"
#include "kvl_eci.h"
#include "kvl_esi.h"

constexpr int32_t SLOT_BLOCK_SIZE = 16;

enum slotState : int32_t {
    SLOT_FREE = 0,
    SLOT_ALLOCATED = 1,  // taken by a caller that is building its request
    SLOT_SENT = 2,       // request sent, reply awaited; the only state a reply matches
    SLOT_REPLIED = 3,    // reply (or the connection's end) recorded by the receiver thread
    SLOT_LUW_KEPT = 4,   // reserved for an open unit of work between calls
    // The caller's deadline passed before the reply came; the caller has gone.
    // A late reply is read and dropped (nothing reaches the caller's memory)
    // and the receiver thread frees the slot, as it does when the connection ends.
    SLOT_ABANDONED = 5,
};

// One request. Fields marked (sender) are filled by the code that sends the
// request before it sets the state to SLOT_SENT; (receiver) by the receiver
// thread before it releases `event`. slotFree wipes every field after `event`.
struct clapiSlot {
    char eyecatcher[8];    // "KVLRSLOT", no terminator
    clapiSlot* next;       // following slot across block boundaries; null in the very last one
    clapiSlot* queueNext;  // link in the token's async reply queue (table lock)
    int32_t state;         // slotState; leaves and enters SLOT_FREE only through slotFind/slotFree
    int32_t number;        // 1..16 in block 0, 16k+1..16k+16 in block k; the flow's message id
    int32_t replyRc;       // (receiver) reply header rc, or the close code when the connection ended
    int32_t bodyRc;        // (receiver) ECI or ESI return code decoded from the reply body
    clapiEvent event;      // created by slotFind, deleted by slotFree; waiters block until the reply
    // (sender) Copy of the caller's block. The receiver primes its decode from
    // eci_extend_mode, eci_commarea (reply destination: COMMAREA, async copy or
    // system array) and eci_channel, and writes back eci_abend,
    // commarea_inbound_length and eci_luw_token. eci_call_type 2 queues the
    // completed slot on the async reply queue. eci_luw_token selects LUW_KEPT slots.
    EciParms request;
    esiDetails* esiDetailsPtr;  // (sender) ESI: where a successful reply's details go; may be null
    int32_t channelRequest;   // (sender) 1 when request.eci_channel is a channel this request locked
    int32_t systemsReturned;  // (receiver) list systems: the count the Gateway reported
    // (sender) Bytes at request.eci_commarea that a reply may fill: the COMMAREA
    // length, the async copy's size, or 70 * capacity for a system list. Reply
    // bytes beyond it are dropped; 0 lets nothing be written.
    uint64_t replyCapacity;
    // (sender) A library-owned reply buffer (the async COMMAREA). slotFree wipes
    // and frees it; whoever frees it earlier must null it here.
    void* ownedBuffer;
    uint64_t ownedBufferSize;
    // (extensions) When the request went to SLOT_SENT, in microseconds of the
    // monotonic clock; 0 once the statistics have counted its end.
    uint64_t extStartedUs;
    int32_t extKind;  // KVL_EXT_KIND_ of the request
    // (receiver) 1 while the reply is decoded into the caller's memory (table
    // lock): a caller whose deadline passes then waits for it to finish.
    int32_t replyInProgress;
};

// The whole table; `first` is the embedded block and the start of the chain.
// `extra` indexes the chained blocks so that a number finds its block directly.
struct slotTable {
    clapiSlot first[SLOT_BLOCK_SIZE];
    clapiSlot** extra;      // extra[k-1] = first slot of block k
    int32_t extraCount;     // blocks chained behind the embedded one
    int32_t extraCapacity;  // entries allocated in `extra`
    slotFreeIndex freeIndex;  // marks the FREE slots: slotFind takes the lowest without a walk
};

// Numbers the embedded block 1..16 and links it; no allocation.
void slotTableInit(slotTable* table);
// Wipes and frees every chained block and the index (the token is going away;
// every slot must already be free).
void slotTableRelease(slotTable* table);

// luwToken 0: the free slot with the lowest number, growing the table when none
// is free. Otherwise the slot kept for that LUW. Returns 0, -8, -15, -111 or -9.
int slotFind(slotTable* table, int32_t luwToken, clapiSlot** requestSlotPP);
// ALLOCATED -> SENT: 0, or -9 when the slot is not ALLOCATED. The caller has
// checked under the same hold of the table lock that the connection is open.
int slotMarkSent(clapiSlot* slotP);
// SENT -> ABANDONED when no reply is being decoded into it: true. The caller's
// memory (COMMAREA, channel, ESI details) is forgotten, so nothing reaches it.
// false leaves the slot as it is: the reply is (being) stored, wait for it.
bool slotAbandon(clapiSlot* slotP);
// Returns the slot to SLOT_FREE and gives back trailing blocks that are empty.
void slotFree(slotTable* table, clapiSlot* slotP);
// The slot numbered messageId when it awaits a reply (SLOT_SENT): 0, else -9.
// *slotPP gets the slot of that number, or null when there is none.
int slotLookup(slotTable* table, int32_t messageId, clapiSlot** slotPP);

// The slot numbered `number`, or null when the table has no such slot.
clapiSlot* slotByNumber(slotTable* table, int32_t number);
// Blocks in the chain, the embedded one included.
int32_t slotBlockCount(const slotTable* table);
