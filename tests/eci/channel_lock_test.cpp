// The long-lived channel lock: waiters block until the holder unlocks, from any thread.
#include "eci_test_util.h"

using namespace ecitest;

TEST(ChannelLock, RefusesNullAndUninitialisedRecords) {
    TraceCapture trace(1);
    kvlChannel zeroed{};
    EXPECT_EQ(lockChannel(nullptr), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(unlockChannel(nullptr), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(lockChannel(&zeroed), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(unlockChannel(&zeroed), ECI_ERR_INVALID_CHANNEL);
    for (int id : {1461, 1462, 1472, 1473}) EXPECT_EQ(trace.linesWithId(id).size(), 1u) << id;
    EXPECT_EQ(zeroed.isLocked, 0);
}

// Waiters block until the owner unlocks; each unlock hands the channel to one of them,
// and any thread may unlock it.
TEST(ChannelLock, EachUnlockHandsTheChannelToOneWaiter) {
    TraceCapture trace(2);
    chanTok ch = nullptr;
    ASSERT_EQ(ECI_createChannel("LOCKME", &ch), ECI_NO_ERROR);
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);  // unlocking a free channel is harmless
    ASSERT_EQ(lockChannel(ch), ECI_NO_ERROR);
    auto done = std::make_shared<std::atomic<int>>(0);
    std::vector<std::unique_ptr<BoundedThread>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::make_unique<BoundedThread>([ch, done] {
            int rc = lockChannel(ch);
            ++*done;
            return rc;
        }));
    }
    ASSERT_TRUE(waitForTrace(trace, 1463, 3));
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(*done, round - 1);
        EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
        // The channel is locked again as soon as one waiter has taken it.
        ASSERT_TRUE(ecitest::waitUntil([&] { return *done >= round; }));
        ASSERT_EQ(*done, round);
        EXPECT_EQ(ch->isLocked, 1);
    }
    for (auto& w : waiters) EXPECT_EQ(w->join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_TRUE(traced(trace, 1463, "clapi_channel.lockChannel() Waiting for channel \"LOCKME\" (", 3));
    EXPECT_TRUE(traced(trace, 1468, "clapi_channel.lockChannel() Finished waiting for channel \"LOCKME\"", 3));
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
}
