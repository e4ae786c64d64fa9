// The completion handle: ready exactly while async replies are queued, so an
// event loop collects them with the non-waiting retrievals.
#include <map>

#include "ext_test_util.h"

namespace {

using namespace exttest;

class Completion : public ExtConnection {
protected:
    void SetUp() override {
        ExtConnection::SetUp();
        ASSERT_EQ(KVL_EXT_getCompletionHandle(token, &handle), KVL_OK);
    }
    bool ready(int timeoutMs = 0) { return platformSignalWait(handle, timeoutMs) == 1; }
    int sendAsync(const std::string& program, const std::string& data) {
        Bytes area = text(data, 32);
        EciParms p = callParms(ECI_ASYNC, program, area);
        EXPECT_EQ(execute(p), ECI_NO_ERROR);
        return p.eci_msg_qual;
    }
    int collect(Bytes& area, EciParms& got) {
        area.assign(32, 0);
        got = retrievalParms(ECI_GET_REPLY, area);
        return execute(got);
    }
    KVL_EXT_Handle handle = -1;
};

TEST_F(Completion, ReadyExactlyWhileRepliesAreQueued) {
    EXPECT_FALSE(ready());
    KVL_EXT_Handle again = -1;
    EXPECT_EQ(KVL_EXT_getCompletionHandle(token, &again), KVL_OK);
    EXPECT_EQ(again, handle) << "one handle per connection";

    sendAsync("ECHO", "one");
    sendAsync("ECHO", "two");
    // Both replies queued: the receiver has counted them.
    ASSERT_TRUE(waitUntil([&] { return stats().requestsCompleted[KVL_EXT_KIND_ECI_ASYNC] == 2; }));
    EXPECT_TRUE(ready());
    Bytes area;
    EciParms got;
    ASSERT_EQ(collect(area, got), ECI_NO_ERROR);
    EXPECT_TRUE(ready()) << "level-triggered: one reply is still queued";
    EXPECT_TRUE(ready()) << "waiting does not consume readiness";
    ASSERT_EQ(collect(area, got), ECI_NO_ERROR);
    EXPECT_FALSE(ready());
    EXPECT_EQ(collect(area, got), ECI_ERR_NO_REPLY);

    // A reply still in flight does not make the handle ready.
    int gated = sendAsync("GATE", "gated");
    EXPECT_FALSE(ready(100));
    emu.releaseGate();
    EXPECT_TRUE(ready(kWaitMs));
    Bytes area2(32);
    EciParms specific = retrievalParms(ECI_GET_SPECIFIC_REPLY, area2, gated);
    EXPECT_EQ(execute(specific), ECI_NO_ERROR);
    EXPECT_FALSE(ready());
}

TEST_F(Completion, EventLoopCollectsHundredsOfReplies) {
    constexpr int kRequests = 300;
    std::map<int, std::string> expected;
    for (int i = 0; i < kRequests; ++i) {
        std::string data = "req" + std::to_string(i);
        // Some replies wait a little, so that they arrive while others are collected.
        int q = sendAsync(i % 10 == 0 ? "DELAY" : "ECHO", i % 10 == 0 ? "20" : data);
        expected[q] = i % 10 == 0 ? "20" : data;
    }
    int collected = 0, wrong = 0, spurious = 0, rounds = 0;
    while (collected < kRequests && rounds++ < 100000) {
        if (!ready(kWaitMs)) break;
        Bytes area;
        EciParms got;
        int rc = collect(area, got);
        if (rc == ECI_ERR_NO_REPLY) {
            ++spurious;  // readiness without a reply would be a fault of the handle
            continue;
        }
        auto it = expected.find(got.eci_msg_qual);
        if (rc != ECI_NO_ERROR || it == expected.end() || std::string(reinterpret_cast<char*>(area.data())) != it->second)
            ++wrong;
        else
            expected.erase(it);
        ++collected;
    }
    EXPECT_EQ(collected, kRequests);
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(spurious, 0);
    EXPECT_TRUE(expected.empty());
    EXPECT_FALSE(ready());
}

TEST_F(Completion, LostConnectionMakesQueuedFailuresReady) {
    sendAsync("GATE", "lost");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_FALSE(ready());
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    EXPECT_TRUE(ready(kWaitMs));
    Bytes area;
    EciParms got;
    EXPECT_EQ(collect(area, got), KVL_ERR_LOSTGWCON);
    EXPECT_FALSE(ready());
}

TEST(CompletionArguments, AreChecked) {
    KVL_EXT_Handle h = -1;
    EXPECT_EQ(KVL_EXT_getCompletionHandle(nullptr, &h), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_EXT_getCompletionHandle(reinterpret_cast<gwTok>(&h), &h), KVL_ERR_BADGWTOK);
    EXPECT_EQ(KVL_EXT_getCompletionHandle(reinterpret_cast<gwTok>(&h), nullptr), KVL_ERR_NULLPTR);
}

}  // namespace
