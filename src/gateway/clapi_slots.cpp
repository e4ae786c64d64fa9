// Request slot table: finding, freeing and looking up slots (module clapi_gwytok).
#include "gateway/clapi_slots.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

constexpr char kSlotEyecatcher[8] = {'K', 'V', 'L', 'R', 'S', 'L', 'O', 'T'};
// Numbers must stay positive int32 values.
constexpr int32_t kMaxExtraBlocks = INT32_MAX / SLOT_BLOCK_SIZE - 2;

void initBlock(slotTable* table, clapiSlot* block, int32_t firstNumber) {
    for (int32_t i = 0; i < SLOT_BLOCK_SIZE; ++i) {
        clapiSlot* s = &block[i];
        memcpy(s->eyecatcher, kSlotEyecatcher, sizeof s->eyecatcher);
        s->state = SLOT_FREE;
        s->number = firstNumber + i;
        s->next = (i + 1 < SLOT_BLOCK_SIZE) ? &block[i + 1] : nullptr;
        slotIndexMark(&table->freeIndex, s->number, true);
    }
}

clapiSlot* blockAt(slotTable* table, int32_t k) { return k == 0 ? table->first : table->extra[k - 1]; }

clapiSlot* lastBlock(slotTable* table) { return blockAt(table, table->extraCount); }

// Everything a request left in the slot; the event is the caller's concern.
void wipeRequest(clapiSlot* s) {
    if (s->ownedBuffer) {
        memset(s->ownedBuffer, 0, s->ownedBufferSize);
        free(s->ownedBuffer);
    }
    s->ownedBuffer = nullptr;
    s->ownedBufferSize = 0;
    memset(&s->request, 0, sizeof s->request);
    s->esiDetailsPtr = nullptr;
    s->channelRequest = 0;
    s->systemsReturned = 0;
    s->replyCapacity = 0;
    s->replyRc = 0;
    s->bodyRc = 0;
    s->queueNext = nullptr;
    s->extStartedUs = 0;
    s->replyInProgress = 0;
}

bool blockAllFree(const clapiSlot* block) {
    for (int32_t i = 0; i < SLOT_BLOCK_SIZE; ++i) {
        if (block[i].state != SLOT_FREE) return false;
    }
    return true;
}

// Appends a block of 16 free slots; null (chain unchanged) when memory is short.
clapiSlot* growTable(slotTable* table) {
    if (table->extraCount >= kMaxExtraBlocks) return nullptr;
    if (!slotIndexReserve(&table->freeIndex, (table->extraCount + 2) * SLOT_BLOCK_SIZE)) return nullptr;
    if (table->extraCount == table->extraCapacity) {
        int32_t capacity = table->extraCapacity == 0 ? 8 : table->extraCapacity * 2;
        if (capacity > kMaxExtraBlocks) capacity = kMaxExtraBlocks;
        void* grown = realloc(table->extra, sizeof(clapiSlot*) * static_cast<size_t>(capacity));
        if (!grown) return nullptr;
        table->extra = static_cast<clapiSlot**>(grown);
        table->extraCapacity = capacity;
    }
    auto* block = static_cast<clapiSlot*>(calloc(SLOT_BLOCK_SIZE, sizeof(clapiSlot)));
    if (!block) return nullptr;
    clapiSlot* previousLast = &lastBlock(table)[SLOT_BLOCK_SIZE - 1];
    initBlock(table, block, previousLast->number + 1);
    previousLast->next = block;
    table->extra[table->extraCount++] = block;
    return block;
}

// Takes a free slot: its event is created here and lives until slotFree.
int takeFreeSlot(slotTable* table, clapiSlot* s) {
    CLAPI_TRACE(DEBUG, 2055, "clapi_gwytok.slotFind() Allocated slot %d for request\n", (int)s->number);
    if (clapiCreateEvent(&s->event) != 0) {
        CLAPI_TRACE(EXC, 2065, "clapi_gwytok.slotFind() Create event failed\n");
        return ECI_ERR_SYSTEM_ERROR;
    }
    s->state = SLOT_ALLOCATED;
    slotIndexMark(&table->freeIndex, s->number, false);
    return 0;
}

int findLuwSlot(slotTable* table, int32_t luwToken, clapiSlot** found) {
    clapiSlot* s = table->first;
    while (s && s->request.eci_luw_token != luwToken) s = s->next;
    *found = s;
    if (!s || s->state == SLOT_FREE) return ECI_ERR_LUW_TOKEN;
    if (s->state != SLOT_LUW_KEPT) return ECI_ERR_ALREADY_ACTIVE;
    CLAPI_TRACE(DEBUG, 2056, "clapi_gwytok.slotFind() Found existing slot %d for request\n", (int)s->number);
    s->state = SLOT_ALLOCATED;
    return 0;
}

}  // namespace

void slotTableInit(slotTable* table) {
    slotIndexInit(&table->freeIndex);
    initBlock(table, table->first, 1);
    table->extra = nullptr;
    table->extraCount = 0;
    table->extraCapacity = 0;
}

void slotTableRelease(slotTable* table) {
    for (int32_t k = table->extraCount; k >= 1; --k) {
        clapiSlot* block = table->extra[k - 1];
        for (int32_t i = 0; i < SLOT_BLOCK_SIZE; ++i) wipeRequest(&block[i]);
        memset(static_cast<void*>(block), 0, sizeof(clapiSlot) * SLOT_BLOCK_SIZE);
        free(block);
    }
    if (table->extra) {
        memset(static_cast<void*>(table->extra), 0, sizeof(clapiSlot*) * static_cast<size_t>(table->extraCapacity));
        free(table->extra);
    }
    table->extra = nullptr;
    table->extraCount = 0;
    table->extraCapacity = 0;
    table->first[SLOT_BLOCK_SIZE - 1].next = nullptr;
    for (int32_t i = 0; i < SLOT_BLOCK_SIZE; ++i) wipeRequest(&table->first[i]);
    slotIndexRelease(&table->freeIndex);
}

int32_t slotBlockCount(const slotTable* table) { return table->extraCount + 1; }

clapiSlot* slotByNumber(slotTable* table, int32_t number) {
    if (number < 1) return nullptr;
    int32_t k = (number - 1) / SLOT_BLOCK_SIZE;
    if (k > table->extraCount) return nullptr;
    clapiSlot* s = &blockAt(table, k)[(number - 1) % SLOT_BLOCK_SIZE];
    return s->number == number ? s : nullptr;
}

int slotFind(slotTable* table, int32_t luwToken, clapiSlot** requestSlotPP) {
    CLAPI_TRACE(ENTRY, 2052, "clapi_gwytok.slotFind(requestTableP=%p, luwToken=%d, requestSlotPP=%p)\n",
                static_cast<void*>(table), (int)luwToken, static_cast<void*>(requestSlotPP));
    int rc = 0;
    clapiSlot* s = nullptr;
    if (luwToken != 0) {
        rc = findLuwSlot(table, luwToken, &s);
    } else {
        s = slotByNumber(table, slotIndexLowest(&table->freeIndex));
        if (!s) {
            s = growTable(table);
            if (!s) {
                CLAPI_TRACE(EXC, 2054, "clapi_gwytok.slotFind() Failed to create new slot table\n");
                rc = KVL_ERR_MALLOCFAIL;
            } else {
                CLAPI_TRACE(DEBUG, 2053, "clapi_gwytok.slotFind() Created new slot table at slotP=%p, first=%d, last=%d\n",
                            static_cast<void*>(s), (int)s->number, (int)(s->number + SLOT_BLOCK_SIZE - 1));
            }
        }
        if (s) rc = takeFreeSlot(table, s);
    }
    if (requestSlotPP) *requestSlotPP = s;
    CLAPI_TRACE(EXIT, 2057, "clapi_gwytok.slotFind() rc=%d\n", rc);
    return rc;
}

int slotMarkSent(clapiSlot* slotP) {
    if (slotP->state != SLOT_ALLOCATED) return ECI_ERR_SYSTEM_ERROR;
    slotP->state = SLOT_SENT;
    return 0;
}

bool slotAbandon(clapiSlot* slotP) {
    if (slotP->state != SLOT_SENT || slotP->replyInProgress) return false;
    slotP->state = SLOT_ABANDONED;
    slotP->channelRequest = 0;
    slotP->request.eci_channel = nullptr;
    slotP->request.eci_commarea = nullptr;
    slotP->replyCapacity = 0;
    slotP->esiDetailsPtr = nullptr;
    return true;
}

void slotFree(slotTable* table, clapiSlot* slotP) {
    CLAPI_TRACE(ENTRY, 2058, "clapi_gwytok.slotFree(requestTableP=%p, slotP=%p)\n", static_cast<void*>(table),
                static_cast<void*>(slotP));
    // Only slots of this table are touched: a stray pointer is ignored.
    if (slotP && slotByNumber(table, slotP->number) == slotP) {
        if (slotP->state != SLOT_FREE) {
            slotP->state = SLOT_FREE;
            slotIndexMark(&table->freeIndex, slotP->number, true);
            clapiDeleteEvent(&slotP->event);
            slotP->event = nullptr;
            wipeRequest(slotP);
        }
        int32_t k = (slotP->number - 1) / SLOT_BLOCK_SIZE;
        // The embedded block stays; a block in the middle waits for the ones behind it.
        if (k != 0 && k == table->extraCount) {
            while (table->extraCount > 0 && blockAllFree(lastBlock(table))) {
                clapiSlot* block = lastBlock(table);
                for (int32_t i = 0; i < SLOT_BLOCK_SIZE; ++i) slotIndexMark(&table->freeIndex, block[i].number, false);
                CLAPI_TRACE(DEBUG, 2059, "clapi_gwytok.slotFree() Freeing slot table at slotP=%p, first=%d, last=%d\n",
                            static_cast<void*>(block), (int)block->number, (int)(block->number + SLOT_BLOCK_SIZE - 1));
                memset(static_cast<void*>(block), 0, sizeof(clapiSlot) * SLOT_BLOCK_SIZE);
                free(block);
                table->extra[--table->extraCount] = nullptr;
                lastBlock(table)[SLOT_BLOCK_SIZE - 1].next = nullptr;
            }
        }
    }
    CLAPI_TRACE(EXIT, 2060, "clapi_gwytok.slotFree()\n");
}

int slotLookup(slotTable* table, int32_t messageId, clapiSlot** slotPP) {
    CLAPI_TRACE(ENTRY, 2061, "clapi_gwytok.slotLookup(requestTableP=%p, messageId=%d, slotPP=%p)\n",
                static_cast<void*>(table), (int)messageId, static_cast<void*>(slotPP));
    clapiSlot* s = slotByNumber(table, messageId);
    int rc;
    if (s && s->state == SLOT_SENT) {
        CLAPI_TRACE(DEBUG, 2063, "clapi_gwytok.slotLookup() Found slot %d for request\n", (int)messageId);
        rc = 0;
    } else {
        CLAPI_TRACE(EXC, 2062, "clapi_gwytok.slotLookup() Failed to find slot %d for request\n", (int)messageId);
        rc = ECI_ERR_SYSTEM_ERROR;
    }
    if (slotPP) *slotPP = s;
    CLAPI_TRACE(EXIT, 2064, "clapi_gwytok.slotLookup() rc=%d\n", rc);
    return rc;
}
