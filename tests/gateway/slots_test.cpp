// The request slot table: numbering, growth and give-back, LUW slots, lookup by number.
#include "gateway_test_util.h"

using namespace gwtest;

namespace {

std::vector<int> range(int first, int last) {
    std::vector<int> numbers;
    for (int n = first; n <= last; ++n) numbers.push_back(n);
    return numbers;
}

slotTable* newTable() {
    auto* table = static_cast<slotTable*>(calloc(1, sizeof(slotTable)));
    slotTableInit(table);
    return table;
}

void releaseTable(slotTable* table) {
    for (int n = slotBlockCount(table) * SLOT_BLOCK_SIZE; n > 0; --n) {
        if (clapiSlot* s = slotByNumber(table, n)) slotFree(table, s);
    }
    slotTableRelease(table);
    free(table);
}

class SlotTableTest : public ::testing::Test {
protected:
    void SetUp() override { table_ = newTable(); }
    void TearDown() override { releaseTable(table_); }

    std::vector<clapiSlot*> take(int n) {
        std::vector<clapiSlot*> slots;
        for (int i = 0; i < n; ++i) {
            clapiSlot* s = nullptr;
            EXPECT_EQ(0, slotFind(table_, 0, &s));
            slots.push_back(s);
        }
        return slots;
    }

    slotTable* table_ = nullptr;
};

TEST_F(SlotTableTest, SixteenSlotsComeFromTheEmbeddedBlockTheSeventeenthGrowsTheTable) {
    TraceCapture trace(4);
    auto slots = take(16);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(&table_->first[i], slots[i]);
        EXPECT_EQ(i + 1, slots[i]->number);
        EXPECT_EQ(SLOT_ALLOCATED, slots[i]->state);
        EXPECT_NE(nullptr, slots[i]->event);
        EXPECT_EQ(0, memcmp(slots[i]->eyecatcher, "KVLRSLOT", 8));
    }
    EXPECT_EQ(1, slotBlockCount(table_));

    clapiSlot* seventeenth = take(1)[0];
    EXPECT_EQ(17, seventeenth->number);
    EXPECT_EQ(2, slotBlockCount(table_));
    EXPECT_TRUE(traced(trace, 2053, "first=17, last=32"));
    EXPECT_EQ(seventeenth, table_->first[15].next);
    clapiSlot* last = slotByNumber(table_, 32);
    EXPECT_TRUE(last && last->state == SLOT_FREE);
}

// Slots taken, then freed in the order given; then one more taken.
TEST(SlotTableGrowth, TrailingBlocksGoBackWhenEmptyTheEmbeddedBlockNever) {
    struct Case {
        const char* what;
        int taken;
        std::vector<int> freed;
        int blocksAfterFree, nextNumber, blocksAfterNext;
        std::vector<std::string> released;  // the blocks given back, in order
    };
    const Case cases[] = {
        {"a free slot in the embedded block keeps the second block", 17, {3}, 2, 3, 2, {}},
        {"an empty trailing block goes back", 17, {17}, 1, 17, 2, {"first=17, last=32"}},
        {"the lowest free number first", 20, {18, 3}, 2, 3, 2, {}},
        {"numbering continues when the table grows again", 33, {33}, 2, 33, 3, {"first=33, last=48"}},
        {"a free middle block waits for the blocks behind it", 48, range(17, 47), 3, 17, 3, {}},
        {"the last block emptied takes the empty ones before it", 48, range(17, 48), 1, 17, 2,
         {"first=33, last=48", "first=17, last=32"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TraceCapture trace(4);
        slotTable* table = newTable();
        clapiSlot* s = nullptr;
        for (int i = 0; i < c.taken; ++i) ASSERT_EQ(0, slotFind(table, 0, &s));
        for (int n : c.freed) slotFree(table, slotByNumber(table, n));
        EXPECT_EQ(c.blocksAfterFree, slotBlockCount(table));
        auto released = trace.linesWithId(2059);
        ASSERT_EQ(c.released.size(), released.size());
        for (size_t i = 0; i < released.size(); ++i) EXPECT_NE(std::string::npos, released[i].find(c.released[i]));
        clapiSlot* last = slotByNumber(table, c.blocksAfterFree * SLOT_BLOCK_SIZE);
        EXPECT_TRUE(last && last->next == nullptr);
        ASSERT_EQ(0, slotFind(table, 0, &s));
        EXPECT_EQ(c.nextNumber, s->number);
        EXPECT_EQ(c.blocksAfterNext, slotBlockCount(table));
        releaseTable(table);
    }
}

TEST_F(SlotTableTest, LookupMatchesOnlyASlotThatAwaitsItsReply) {
    auto slots = take(4);
    slotFree(table_, slots[3]);
    slots[1]->state = SLOT_SENT;
    slots[2]->state = SLOT_REPLIED;

    clapiSlot* found = nullptr;
    EXPECT_EQ(0, slotLookup(table_, 2, &found));
    EXPECT_EQ(slots[1], found);
    for (int32_t id : {1, 3, 4}) {
        EXPECT_EQ(ECI_ERR_SYSTEM_ERROR, slotLookup(table_, id, &found)) << "message id " << id;
        EXPECT_EQ(slotByNumber(table_, id), found);
    }
    for (int32_t id : {0, -1, -2, 17, 1 << 30}) {
        found = slots[0];
        EXPECT_EQ(ECI_ERR_SYSTEM_ERROR, slotLookup(table_, id, &found)) << "message id " << id;
        EXPECT_EQ(nullptr, found);
    }
}

TEST_F(SlotTableTest, EveryNumberFindsItsSlotAmongThousands) {
    constexpr int kSlots = 5000;
    auto slots = take(kSlots);
    EXPECT_EQ((kSlots + 15) / 16, slotBlockCount(table_));
    for (int n = 1; n <= kSlots; ++n) {
        ASSERT_EQ(slots[n - 1], slotByNumber(table_, n)) << n;
        ASSERT_EQ(n, slots[n - 1]->number);
    }
    slots[4320]->state = SLOT_SENT;
    clapiSlot* found = nullptr;
    EXPECT_EQ(0, slotLookup(table_, 4321, &found));
    EXPECT_EQ(slots[4320], found);

    // Freed from the front, the blocks go back only when the last one empties.
    for (int n = 1; n < kSlots; ++n) slotFree(table_, slots[n - 1]);
    EXPECT_EQ((kSlots + 15) / 16, slotBlockCount(table_));
    slotFree(table_, slots[kSlots - 1]);
    EXPECT_EQ(1, slotBlockCount(table_));
}

TEST_F(SlotTableTest, AKeptLuwSlotIsFoundByItsToken) {
    clapiSlot* kept = take(2)[1];
    kept->request.eci_luw_token = 77;
    kept->state = SLOT_LUW_KEPT;
    void* event = kept->event;

    clapiSlot* found = nullptr;
    EXPECT_EQ(0, slotFind(table_, 77, &found));
    EXPECT_EQ(kept, found);
    EXPECT_EQ(SLOT_ALLOCATED, kept->state);
    EXPECT_EQ(event, kept->event) << "the slot keeps its event";

    kept->state = SLOT_SENT;
    EXPECT_EQ(ECI_ERR_ALREADY_ACTIVE, slotFind(table_, 77, &found));
    EXPECT_EQ(SLOT_SENT, kept->state);

    EXPECT_EQ(ECI_ERR_LUW_TOKEN, slotFind(table_, 99, &found));
    slotFree(table_, kept);
    EXPECT_EQ(ECI_ERR_LUW_TOKEN, slotFind(table_, 77, &found)) << "a freed slot forgets its LUW";
}

TEST_F(SlotTableTest, FreeWipesTheRequestAndFreesTheOwnedBuffer) {
    clapiSlot* s = take(1)[0];
    memset(&s->request, 0x5A, sizeof s->request);
    s->ownedBuffer = malloc(100);
    s->ownedBufferSize = 100;
    s->replyCapacity = 100;
    s->replyRc = -102;
    s->bodyRc = -7;
    s->channelRequest = 1;
    esiDetails details{};
    s->esiDetailsPtr = &details;

    slotFree(table_, s);
    EXPECT_EQ(SLOT_FREE, s->state);
    EXPECT_EQ(nullptr, s->event);
    EXPECT_EQ(nullptr, s->ownedBuffer);
    EXPECT_EQ(nullptr, s->esiDetailsPtr);
    EXPECT_EQ(0, s->replyRc);
    EXPECT_EQ(0, s->bodyRc);
    EXPECT_EQ(0, s->channelRequest);
    EciParms zero{};
    EXPECT_EQ(0, memcmp(&zero, &s->request, sizeof zero));
    EXPECT_EQ(1, s->number) << "identity survives";

    slotFree(table_, s);  // already free: nothing is deleted twice
    EXPECT_EQ(SLOT_FREE, s->state);
}

// The lowest free number, checked against a walk of the whole chain, while
// thousands of slots are taken and freed in a scattered order, trailing
// blocks go back and the table grows again (the index behind slotFind).
TEST_F(SlotTableTest, TheLowestFreeSlotIsTakenWhateverTheOrderOfFrees) {
    auto lowestFreeByWalk = [&] {
        for (clapiSlot* s = table_->first; s; s = s->next) {
            if (s->state == SLOT_FREE) return s->number;
        }
        return slotBlockCount(table_) * SLOT_BLOCK_SIZE + 1;  // the next block's first
    };
    std::vector<clapiSlot*> taken = take(5000);
    uint32_t seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u; };
    for (int round = 0; round < 4000; ++round) {
        if (!taken.empty() && (next() >> 16) % 3 != 0) {
            size_t at = (next() >> 8) % taken.size();
            slotFree(table_, taken[at]);
            taken[at] = taken.back();
            taken.pop_back();
        } else {
            int expected = lowestFreeByWalk();
            clapiSlot* s = nullptr;
            ASSERT_EQ(0, slotFind(table_, 0, &s));
            ASSERT_EQ(expected, s->number) << "round " << round;
            taken.push_back(s);
        }
    }
    // Everything back: the table shrinks to the embedded block, and slot 1 comes first.
    for (clapiSlot* s : taken) slotFree(table_, s);
    EXPECT_EQ(1, slotBlockCount(table_));
    EXPECT_EQ(1, take(1)[0]->number);
}

}  // namespace
