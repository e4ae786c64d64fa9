// The free-slot index of a request slot table (module clapi_gwytok).
#include "gateway/clapi_slotindex.h"

#include <cstdlib>
#include <cstring>

namespace {

int lowestBit(uint64_t word) { return __builtin_ctzll(word); }

// Words a level needs to hold `bits` bits of the level below it (level 0: slots).
int32_t wordsFor(int64_t bits) { return bits <= 64 ? 1 : static_cast<int32_t>((bits + 63) / 64); }

bool grow(slotFreeIndex* index, int level, int32_t needed) {
    int32_t capacity = index->capacity[level];
    if (needed <= capacity) return true;
    int32_t grown = capacity * 2 > needed ? capacity * 2 : needed;
    uint64_t* old = index->words[level];
    uint64_t* words;
    if (old == &index->inlineWords[level]) {
        words = static_cast<uint64_t*>(malloc(sizeof(uint64_t) * static_cast<size_t>(grown)));
        if (words) words[0] = *old;
    } else {
        words = static_cast<uint64_t*>(realloc(old, sizeof(uint64_t) * static_cast<size_t>(grown)));
    }
    if (!words) return false;
    memset(words + capacity, 0, sizeof(uint64_t) * static_cast<size_t>(grown - capacity));
    index->words[level] = words;
    index->capacity[level] = grown;
    return true;
}

}  // namespace

void slotIndexInit(slotFreeIndex* index) {
    for (int level = 0; level < SLOT_INDEX_LEVELS; ++level) {
        index->inlineWords[level] = 0;
        index->words[level] = &index->inlineWords[level];
        index->capacity[level] = 1;
    }
}

void slotIndexRelease(slotFreeIndex* index) {
    for (int level = 0; level < SLOT_INDEX_LEVELS; ++level) {
        if (index->words[level] != &index->inlineWords[level]) free(index->words[level]);
    }
    slotIndexInit(index);
}

bool slotIndexReserve(slotFreeIndex* index, int32_t count) {
    int64_t bits = count;
    for (int level = 0; level < SLOT_INDEX_LEVELS; ++level) {
        int32_t needed = wordsFor(bits);
        if (!grow(index, level, needed)) return false;
        bits = needed;
    }
    return true;
}

void slotIndexMark(slotFreeIndex* index, int32_t number, bool isFree) {
    int64_t bit = static_cast<int64_t>(number) - 1;
    for (int level = 0; level < SLOT_INDEX_LEVELS; ++level) {
        uint64_t& word = index->words[level][bit / 64];
        const uint64_t mask = uint64_t{1} << (bit % 64);
        const bool wasEmpty = word == 0;
        word = isFree ? (word | mask) : (word & ~mask);
        // The level above changes only when this word turns empty or stops being so.
        if (wasEmpty == (word == 0)) return;
        bit /= 64;
    }
}

int32_t slotIndexLowest(const slotFreeIndex* index) {
    const uint64_t top = index->words[SLOT_INDEX_LEVELS - 1][0];
    if (top == 0) return 0;
    int64_t bit = lowestBit(top);
    for (int level = SLOT_INDEX_LEVELS - 2; level >= 0; --level) {
        bit = bit * 64 + lowestBit(index->words[level][bit]);
    }
    return static_cast<int32_t>(bit + 1);
}
