// The request slot table: numbering, growth and give-back, LUW slots, lookup by number.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "gateway/clapi_slots.h"
#include "kvlclient.h"
#include "support/trace_capture.h"

using kvltest::TraceCapture;

namespace {

class SlotTableTest : public ::testing::Test {
protected:
    void SetUp() override {
        table_ = static_cast<slotTable*>(calloc(1, sizeof(slotTable)));
        slotTableInit(table_);
    }
    void TearDown() override {
        for (clapiSlot* s = table_->first; s;) {
            if (s->state != SLOT_FREE) {
                slotFree(table_, s);
                s = table_->first;
            } else {
                s = s->next;
            }
        }
        slotTableRelease(table_);
        free(table_);
    }

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
    EXPECT_EQ(seventeenth, table_->first[15].next);
    clapiSlot* last = slotByNumber(table_, 32);
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(nullptr, last->next);
    EXPECT_EQ(SLOT_FREE, last->state);
}

TEST_F(SlotTableTest, TheLowestFreeNumberIsTakenFirst) {
    auto slots = take(20);
    slotFree(table_, slots[2]);
    slotFree(table_, slots[17]);
    EXPECT_EQ(3, take(1)[0]->number);
    EXPECT_EQ(18, take(1)[0]->number);
}

TEST_F(SlotTableTest, AnEmptyTrailingBlockIsGivenBackTheEmbeddedBlockNever) {
    auto slots = take(17);
    slotFree(table_, slots[2]);
    EXPECT_EQ(2, slotBlockCount(table_)) << "slot 3 lives in the embedded block";
    slotFree(table_, slots[16]);
    EXPECT_EQ(1, slotBlockCount(table_));
    EXPECT_EQ(nullptr, table_->first[15].next);
    EXPECT_EQ(nullptr, slotByNumber(table_, 17));
}

TEST_F(SlotTableTest, AFreeMiddleBlockWaitsForTheBlocksBehindIt) {
    TraceCapture trace(4);
    auto slots = take(48);
    ASSERT_EQ(3, slotBlockCount(table_));
    for (int n = 17; n <= 32; ++n) slotFree(table_, slots[n - 1]);
    EXPECT_EQ(3, slotBlockCount(table_));
    for (int n = 33; n <= 47; ++n) slotFree(table_, slots[n - 1]);
    EXPECT_EQ(3, slotBlockCount(table_));
    slotFree(table_, slots[47]);
    EXPECT_EQ(1, slotBlockCount(table_));

    auto released = trace.linesWithId(2059);
    ASSERT_EQ(2u, released.size());
    EXPECT_NE(std::string::npos, released[0].find("first=33, last=48")) << released[0];
    EXPECT_NE(std::string::npos, released[1].find("first=17, last=32")) << released[1];
    auto created = trace.linesWithId(2053);
    ASSERT_EQ(2u, created.size());
    EXPECT_NE(std::string::npos, created[1].find("first=33, last=48")) << created[1];
}

TEST_F(SlotTableTest, NumberingContinuesWhenTheTableGrowsAgain) {
    auto slots = take(33);
    slotFree(table_, slots[32]);
    EXPECT_EQ(2, slotBlockCount(table_));
    clapiSlot* again = take(1)[0];
    EXPECT_EQ(33, again->number);
    EXPECT_EQ(3, slotBlockCount(table_));
    EXPECT_EQ(again, slotByNumber(table_, 32)->next);
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

}  // namespace
