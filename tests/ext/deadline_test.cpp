// Call deadlines: calls that get no reply in time return -6, leave the
// caller's memory alone, and their late replies are dropped without harm.
#include <atomic>

#include "eci/clapi_channel.h"
#include "ext_test_util.h"

namespace {

using namespace exttest;

// Far above what a call answered at once takes, even on a loaded machine.
constexpr int kDeadlineMs = 500;

class Deadline : public ExtConnection {
protected:
    void SetUp() override {
        ExtConnection::SetUp();
        ASSERT_EQ(KVL_EXT_setCallDeadline(token, kDeadlineMs), KVL_OK);
        // The gated channel program: answers only when the test lets it, then
        // follows its EMUCTL commands (which add a container).
        kvlemu::Program ctl = kvlemu::builtinProgram("CHANCTL");
        emu.registerProgram("GATECTL", [ctl](const kvlemu::ProgramCall& call) {
            call.waitGate("GATE");
            return ctl(call);
        });
    }
    // An ECHO on the same connection works and answers its own data.
    void expectEchoWorks() {
        Bytes area = text("still alive", 32);
        EciParms p = callParms(ECI_SYNC, "ECHO", area);
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "still alive");
        EXPECT_EQ(token->connStatus.load(), CONN_CONNECTED);
    }
};

TEST_F(Deadline, SyncCallTimesOutLeavesCommareaAndDropsTheLateReply) {
    Bytes area = text("untouched", 64);
    const Bytes before = area;
    EciParms p = callParms(ECI_SYNC, "GATE", area);
    EXPECT_EQ(execute(p), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(lastErrorText(), "no reply within " + std::to_string(kDeadlineMs) + " ms");
    EXPECT_EQ(slotsInUse(), 1) << "the abandoned request keeps its slot until its reply comes";

    // The late reply (an echo, which would rewrite the COMMAREA) is read and dropped.
    size_t replies = emu.repliesSent();
    for (auto& b : area) b = 'x';  // the caller reuses its buffer at once
    const Bytes reused = area;
    emu.releaseGate();
    ASSERT_TRUE(emu.waitForRepliesSent(replies + 1, kWaitMs));
    ASSERT_TRUE(waitUntil([&] { return slotsInUse() == 0; }));
    EXPECT_EQ(area, reused);
    EXPECT_NE(before, reused);
    expectEchoWorks();
}

TEST_F(Deadline, ChannelCallTimesOutLeavesChannelUnlockedAndUnchanged) {
    chanTok channel = nullptr;
    ASSERT_EQ(ECI_createChannel("DEADLINECHAN", &channel), ECI_NO_ERROR);
    const char cmd[] = "ADD NEWC late";
    ASSERT_EQ(ECI_createContainer(channel, "EMUCTL", ECI_CHAR, 0, cmd, sizeof cmd - 1), ECI_NO_ERROR);
    Bytes none;
    EciParms p = callParms(ECI_SYNC, "GATECTL", none);
    p.eci_channel = channel;
    EXPECT_EQ(KVL_ECI_Execute_Channel(token, &p), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(channel->isLocked, 0);

    size_t replies = emu.repliesSent();
    emu.releaseGate();
    ASSERT_TRUE(emu.waitForRepliesSent(replies + 1, kWaitMs));
    ASSERT_TRUE(waitUntil([&] { return slotsInUse() == 0; }));
    EciContainerInfo info;
    EXPECT_EQ(ECI_getContainerInfo(channel, "NEWC", &info), ECI_ERR_CONTAINER_NOTFOUND)
        << "the late reply must not reach the channel";
    // The channel is usable: the same request, answered in time, applies its reply.
    emu.openGate();
    EXPECT_EQ(KVL_ECI_Execute_Channel(token, &p), ECI_NO_ERROR);
    EXPECT_EQ(ECI_getContainerInfo(channel, "NEWC", &info), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&channel), ECI_NO_ERROR);
    expectEchoWorks();
}

TEST_F(Deadline, EsiAndListCallsTimeOut) {
    kvlemu::User user;
    user.userid = "ALICE";
    user.password = "SECRET1";
    emu.addUser(user);
    emu.injectOnRequest(kvlemu::kTriggerEsi, kvlemu::Fault::noReply());
    esiDetails details;
    memset(&details, 0x5A, sizeof details);
    esiDetails before = details;
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", nullptr, &details), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(memcmp(&details, &before, sizeof details), 0);

    emu.injectOnRequest(kvlemu::kTriggerListSystems, kvlemu::Fault::noReply());
    kvlSystemInfo list[4];
    unsigned short count = 4;
    EXPECT_EQ(KVL_listSystems(token, &count, list), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(lastErrorText(), "no reply within " + std::to_string(kDeadlineMs) + " ms");

    // Answered in time, both work on the same connection.
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", nullptr, &details), 0);
    count = 4;
    EXPECT_EQ(KVL_listSystems(token, &count, list), KVL_OK);
    EXPECT_EQ(count, 1);
    expectEchoWorks();
}

TEST_F(Deadline, WaitingRetrievalTimesOutAndTheReplyStaysCollectable) {
    Bytes area = text("async", 16);
    EciParms p = callParms(ECI_ASYNC, "GATE", area);
    ASSERT_EQ(execute(p), ECI_NO_ERROR);
    const int msgQual = p.eci_msg_qual;

    for (short type : {ECI_GET_REPLY_WAIT, ECI_GET_SPECIFIC_REPLY_WAIT}) {
        Bytes reply(16);
        EciParms r = retrievalParms(type, reply, msgQual);
        EXPECT_EQ(execute(r), ECI_ERR_RESPONSE_TIMEOUT) << type;
    }
    emu.releaseGate();
    Bytes reply(16);
    EciParms r = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, reply, msgQual);
    EXPECT_EQ(execute(r), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(reply.data())), "async");
}

TEST_F(Deadline, ZeroTurnsItOffAndBadValuesAreRefused) {
    int ms = -1;
    EXPECT_EQ(KVL_EXT_getCallDeadline(token, &ms), KVL_OK);
    EXPECT_EQ(ms, kDeadlineMs);
    EXPECT_EQ(KVL_EXT_setCallDeadline(token, -1), KVL_EXT_ERR_BADDEADLINE);
    EXPECT_EQ(KVL_EXT_setCallDeadline(nullptr, 10), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_EXT_getCallDeadline(token, nullptr), KVL_ERR_NULLPTR);
    ASSERT_EQ(KVL_EXT_setCallDeadline(token, 0), KVL_OK);

    // Without a deadline a slow call waits for its reply.
    Bytes area = text("1000", 16);
    EciParms p = callParms(ECI_SYNC, "DELAY", area);
    EXPECT_EQ(execute(p), ECI_NO_ERROR);
}

// Many threads with deadlines at once: the slow calls time out, the fast ones
// get their own data back, and every abandoned slot is freed by its late reply.
TEST_F(Deadline, ManyThreadsMixSlowAndFastCalls) {
    ASSERT_EQ(KVL_EXT_setCallDeadline(token, 1000), KVL_OK);
    constexpr int kThreads = 8;
    constexpr int kCalls = 6;
    std::atomic<int> wrong{0}, timeouts{0}, fine{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                bool slow = (t + i) % 3 == 0;
                std::string mark = slow ? "2500" : "T" + std::to_string(t) + "C" + std::to_string(i);
                Bytes area = text(mark, 40);
                Bytes sent = area;
                EciParms p = callParms(ECI_SYNC, slow ? "DELAY" : "ECHO", area);
                int rc = KVL_ECI_Execute(token, &p);
                if (slow && rc == ECI_ERR_RESPONSE_TIMEOUT && area == sent)
                    ++timeouts;
                else if (!slow && rc == ECI_NO_ERROR && area == sent)
                    ++fine;
                else
                    ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(timeouts.load() + fine.load(), kThreads * kCalls);
    EXPECT_EQ(timeouts.load(), 16);
    ASSERT_TRUE(waitUntil([&] { return slotsInUse() == 0; }, 20000));
    EXPECT_EQ(stats().inFlight, 0u);
    expectEchoWorks();
}

TEST_F(Deadline, ConnectionEndFreesAbandonedSlots) {
    Bytes area = text("x", 8);
    EciParms p = callParms(ECI_SYNC, "GATE", area);
    EXPECT_EQ(execute(p), ECI_ERR_RESPONSE_TIMEOUT);
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    ASSERT_TRUE(waitUntil([&] { return token->connStatus.load() == CONN_LOST; }));
    EXPECT_EQ(slotsInUse(), 0);
}

}  // namespace
