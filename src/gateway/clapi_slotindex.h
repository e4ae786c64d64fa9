// Which slots of a table are free, so that the lowest free number is found in
// a few steps however many requests are outstanding. One bit per slot, set
// while the slot is SLOT_FREE; above it levels of summary bits, where bit i of
// a word is set while word i of the level below is not 0. None of these
// functions locks: the caller holds the token's table lock.
#pragma once

#include <cstdint>

// 64^6 bits cover every positive int32 slot number.
constexpr int SLOT_INDEX_LEVELS = 6;

struct slotFreeIndex {
    uint64_t* words[SLOT_INDEX_LEVELS];        // level 0: bit n-1 stands for slot n
    int32_t capacity[SLOT_INDEX_LEVELS];       // words allocated for each level
    uint64_t inlineWords[SLOT_INDEX_LEVELS];   // the one word of each level while it needs no more
};

// Every bit clear; no allocation.
void slotIndexInit(slotFreeIndex* index);
// Frees what slotIndexReserve allocated.
void slotIndexRelease(slotFreeIndex* index);
// Room for slots 1..count: false when memory is short (what was there stays).
bool slotIndexReserve(slotFreeIndex* index, int32_t count);
// Marks slot `number` (within the reserved room) free or not.
void slotIndexMark(slotFreeIndex* index, int32_t number, bool isFree);
// The lowest number marked free, or 0 when none is.
int32_t slotIndexLowest(const slotFreeIndex* index);
