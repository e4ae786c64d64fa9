// Channel records under a reply that rewrites them: a dump walking the
// containers, a container call waiting for the channel and printing its name,
// and handles that no longer name a channel.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "eci/clapi_channel.h"
#include "gateway/gateway_test_util.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvlclient.h"
#include "support/test_points.h"
#include "support/trace_capture.h"

namespace {
using kvltest::TestPointGate;
namespace wire = kvlemu::wire;

class ChannelReplyRace : public ::testing::Test {
protected:
    void SetUp() override {
        clapiCloseAnswerSeconds = 1;  // this Gateway never answers a close request
        gateway_.acceptAndShakeHands();
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", gateway_.port(), &token_, 10), KVL_OK);
        ASSERT_TRUE(gateway_.waitReady());
        ASSERT_EQ(ECI_createChannel("CHAN1", &channel_), ECI_NO_ERROR);
        const std::string data(100, 'x');
        ASSERT_EQ(ECI_createContainer(channel_, "FIRST", ECI_BIT, 0, data.data(), data.size()), ECI_NO_ERROR);
        ASSERT_EQ(ECI_createContainer(channel_, "SECOND", ECI_BIT, 0, data.data(), data.size()), ECI_NO_ERROR);
    }
    void TearDown() override {
        struct Restore {
            ~Restore() { clapiCloseAnswerSeconds = 30; }
        } restore;
        if (token_) EXPECT_EQ(KVL_closeGatewayConnection(&token_), KVL_OK);
        if (channel_) EXPECT_EQ(ECI_deleteChannel(&channel_), ECI_NO_ERROR);
    }
    // An async channel call; the Gateway has read it when this returns.
    void sendAsyncChannelCall() {
        EciParms p{};
        p.eci_call_type = ECI_ASYNC;
        p.eci_version = 6;
        memcpy(p.eci_program, "CHANPROG", 8);
        p.eci_channel = channel_;
        ASSERT_EQ(KVL_ECI_Execute_Channel(token_, &p), ECI_NO_ERROR);
        ASSERT_TRUE(gateway_.readHeaderAndDrain(request_));
    }
    // The reply: the channel renamed, both containers deleted.
    bool sendReply(const std::string& newName) {
        wire::EciReply reply;
        wire::Channel ch;
        ch.name = wire::nameField(newName);
        for (const char* name : {"FIRST", "SECOND"}) {
            wire::Container c;
            c.name = wire::nameField(name);
            c.state = wire::kContainerDeleted;
            ch.containers.push_back(c);
        }
        reply.channel = ch;
        return gateway_.send(
            gwtest::gatewayFlow(wire::kFlowReply, request_.messageId, "ECI", wire::encodeEciReplyBody(reply)));
    }
    int collect() {
        EciParms get{};
        get.eci_call_type = ECI_GET_REPLY_WAIT;
        get.eci_version = 6;
        return KVL_ECI_Execute(token_, &get);
    }
    gwtest::ScriptedGateway gateway_;
    gwTok token_ = nullptr;
    chanTok channel_ = nullptr;
    wire::Header request_;
};

// Finding: the dump walked the containers while the receiver deleted them.
// The dump is held between reading a container's address and printing it,
// and the reply deleting every container arrives in that gap.
TEST_F(ChannelReplyRace, DumpNeverReadsAContainerTheReplyDeletes) {
    if (!kvltest::testPointsAvailable()) GTEST_SKIP() << "this build has no test points";
    sendAsyncChannelCall();
    TestPointGate inWalk("dump.container");
    std::thread dump([] { KVL_ECI_dumpChannels(); });
    ASSERT_TRUE(inWalk.waitArrived());
    ASSERT_TRUE(sendReply("CHAN1"));
    // Time for the receiver to apply the reply, were it not kept out.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    inWalk.release();
    dump.join();
    EXPECT_EQ(collect(), ECI_NO_ERROR);
    EciContainerInfo info{};
    EXPECT_EQ(ECI_getContainerInfo(channel_, "FIRST", &info), ECI_ERR_CONTAINER_NOTFOUND);
}

// Finding: the reply rewrote the channel's name while a container call that
// waited for the channel printed it (trace point 1463); ThreadSanitizer sees
// the race whatever the timing.
TEST_F(ChannelReplyRace, WaitingCallPrintsTheNameTheReplyRewrites) {
    kvltest::TraceCapture trace(2);
    sendAsyncChannelCall();
    EciContainerInfo info{};
    int waitingRc = -1;
    std::thread waiting([&] { waitingRc = ECI_getContainerInfo(channel_, "FIRST", &info); });
    EXPECT_TRUE(gwtest::waitUntil([&] {
        clapiRequestLock(&channel_->serlock);
        bool locked = channel_->isLocked != 0;
        clapiReleaseLock(&channel_->serlock);
        return locked;
    }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(sendReply("RENAMED"));
    EXPECT_EQ(collect(), ECI_NO_ERROR);
    waiting.join();
    EXPECT_EQ(waitingRc, ECI_ERR_CONTAINER_NOTFOUND);
    EXPECT_TRUE(gwtest::traced(trace, 1463, "Waiting for channel \"CHAN1"));
    char name[17] = {};
    EXPECT_EQ(ECI_getChannelName(channel_, name), ECI_NO_ERROR);
    EXPECT_STREQ(name, "RENAMED");
}

}  // namespace
