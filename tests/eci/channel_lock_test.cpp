// The long-lived channel lock: waiters block until the holder unlocks, from any thread.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "channel_test_util.h"
#include "eci/clapi_channel.h"
#include "kvl_channel.h"

using kvltest::BoundedThread;
using kvltest::TraceCapture;
using kvltest::waitForTrace;

TEST(ChannelLock, RefusesNullAndUninitialisedRecords) {
    TraceCapture trace(1);
    kvlChannel zeroed{};
    EXPECT_EQ(lockChannel(nullptr), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(unlockChannel(nullptr), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(lockChannel(&zeroed), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(unlockChannel(&zeroed), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(trace.linesWithId(1461).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1462).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1472).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1473).size(), 1u);
    EXPECT_EQ(zeroed.isLocked, 0);
}

TEST(ChannelLock, SecondLockerWaitsUntilTheOwnerUnlocks) {
    TraceCapture trace(2);
    chanTok ch = nullptr;
    ASSERT_EQ(ECI_createChannel("LOCKME", &ch), ECI_NO_ERROR);
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);  // unlocking a free channel is harmless
    ASSERT_EQ(lockChannel(ch), ECI_NO_ERROR);
    auto acquired = std::make_shared<std::atomic<bool>>(false);
    BoundedThread other([ch, acquired] {
        int rc = lockChannel(ch);
        *acquired = true;
        return rc;
    });
    ASSERT_TRUE(waitForTrace(trace, 1463));
    EXPECT_FALSE(*acquired);
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
    auto rc = other.join();
    ASSERT_TRUE(rc.has_value()) << "lockChannel did not return after the unlock";
    EXPECT_EQ(*rc, ECI_NO_ERROR);
    EXPECT_EQ(ch->isLocked, 1);  // now held for the other thread; any thread may unlock it
    auto waiting = trace.linesWithId(1463);
    auto finished = trace.linesWithId(1468);
    ASSERT_EQ(waiting.size(), 1u);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_NE(waiting[0].find("clapi_channel.lockChannel() Waiting for channel \"LOCKME\" ("), std::string::npos);
    EXPECT_NE(finished[0].find("clapi_channel.lockChannel() Finished waiting for channel \"LOCKME\""),
              std::string::npos);
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
}

TEST(ChannelLock, EachUnlockHandsTheChannelToOneWaiter) {
    TraceCapture trace(2);
    chanTok ch = nullptr;
    ASSERT_EQ(ECI_createChannel("SHARED", &ch), ECI_NO_ERROR);
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
        auto deadline = std::chrono::steady_clock::now() + kvltest::kWaitLimit;
        while (*done < round && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
        ASSERT_EQ(*done, round);
    }
    for (auto& w : waiters) EXPECT_EQ(w->join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
}

TEST(ChannelLock, ContainerCallsWaitWhileTheChannelIsHeld) {
    TraceCapture trace(2);
    chanTok ch = nullptr;
    ASSERT_EQ(ECI_createChannel("BUSY", &ch), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(ch, "OLD", ECI_BIT, 0, "x", 1), ECI_NO_ERROR);
    ASSERT_EQ(lockChannel(ch), ECI_NO_ERROR);  // as an outstanding channel request would
    BoundedThread creator([ch] { return ECI_createContainer(ch, "NEW", ECI_BIT, 0, "abc", 3); });
    ASSERT_TRUE(waitForTrace(trace, 1463));
    BoundedThread reader([ch] {
        EciContainerInfo info;
        return ECI_getContainerInfo(ch, "OLD", &info);
    });
    ASSERT_TRUE(waitForTrace(trace, 1463, 2));
    EXPECT_FALSE(creator.finished());
    EXPECT_FALSE(reader.finished());
    EXPECT_EQ(ch->numContainers, 1);
    EXPECT_EQ(unlockChannel(ch), ECI_NO_ERROR);
    EXPECT_EQ(creator.join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(reader.join(), std::optional<int>(ECI_NO_ERROR));
    EciContainerInfo info;
    EXPECT_EQ(ECI_getContainerInfo(ch, "NEW", &info), ECI_NO_ERROR);
    EXPECT_EQ(info.dataLength, 3u);
    EXPECT_EQ(ch->isLocked, 0);
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
}
