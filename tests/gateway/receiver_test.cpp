// The receiver thread's dispatch and the end of a connection, with requests in flight.
#include "gateway_test_util.h"

#include <chrono>
#include <fstream>

#include "kvl_channel.h"

using namespace gwtest;
namespace wire = kvlemu::wire;

namespace {

class ReceiverTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(emulator_.start()) << emulator_.lastError();
        ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", emulator_.port(), &token_, 5));
    }
    void TearDown() override {
        emulator_.openGate();
        EXPECT_EQ(0, KVL_closeAllGatewayConnections());
        EXPECT_TRUE(gtlEmpty());
        emulator_.stop();
    }
    // A call held by the emulator until the gate opens.
    std::unique_ptr<InFlightCall> heldCall() {
        size_t waiting = emulator_.gateWaiters();
        auto call = std::make_unique<InFlightCall>(token_, "GATE");
        EXPECT_TRUE(emulator_.waitForGateWaiters(waiting + 1, 5000));
        return call;
    }
    size_t flowsOf(kvlemu::RecordedFlow::Kind kind) {
        size_t n = 0;
        for (const auto& f : emulator_.recordedFlows()) n += f.kind == kind ? 1 : 0;
        return n;
    }

    kvlemu::Emulator emulator_;
    gwTok token_ = nullptr;
};

TEST_F(ReceiverTest, APingBetweenRepliesChangesNothingAndIsNotAnswered) {
    emulator_.injectOnRequest("ECHO", kvlemu::Fault::ping());
    EXPECT_EQ(InFlightCall(token_, "ECHO").finish(), 0);
    EXPECT_EQ(InFlightCall(token_, "ECHO").finish(), 0);
    EXPECT_EQ(3u, emulator_.flowCount()) << "the handshake and the two requests, nothing else";
}

// A reply that no request awaits, or bytes that are no flow: the stream cannot be trusted.
TEST_F(ReceiverTest, AStrayReplyOrBytesThatAreNoFlowEndTheConnection) {
    for (const auto& fault : {kvlemu::Fault::strayReply(999), kvlemu::Fault::garbage()}) {
        auto held = heldCall();
        ASSERT_TRUE(emulator_.inject(fault));
        EXPECT_EQ(held->finish(), KVL_ERR_LOSTGWCON);
        EXPECT_EQ(KVL_ERR_SYSTEM_ERROR, token_->closeRc);
        EXPECT_EQ(CONN_LOST, token_->connStatus.load());
        ASSERT_EQ(0, KVL_closeGatewayConnection(&token_));
        ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", emulator_.port(), &token_, 5));
    }
}

TEST_F(ReceiverTest, ALostConnectionFailsEveryWaitingRequest) {
    auto a = heldCall();
    auto b = heldCall();
    emulator_.injectOnRequest("ECHO", kvlemu::Fault::dropMidReply());
    InFlightCall c(token_, "ECHO");
    for (auto* call : {&c, a.get(), b.get()}) EXPECT_EQ(call->finish(), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(CONN_LOST, token_->connStatus.load());
    EXPECT_EQ(KVL_ERR_LOSTGWCON, token_->closeRc);
    EXPECT_EQ(PLATFORM_INVALID_SOCKET, token_->socket.load()) << "the receiver closed the socket";

    EXPECT_EQ(0, KVL_closeGatewayConnection(&token_));
    EXPECT_EQ(0u, flowsOf(kvlemu::RecordedFlow::Kind::Close)) << "no close request on a lost connection";
}

TEST_F(ReceiverTest, AGatewayCloseFlowFailsWaitingRequestsWithGatewayClosed) {
    TraceCapture trace(2);
    auto held = heldCall();
    ASSERT_TRUE(emulator_.inject(kvlemu::Fault::closeFlow()));
    EXPECT_EQ(held->finish(), KVL_ERR_GATEWAY_CLOSED);
    EXPECT_EQ(CONN_CLOSED, token_->connStatus.load());
    EXPECT_TRUE(trace.contains("Connection closed, initiated by Gateway; closeRc=61444 (KVL_ERR_GATEWAY_CLOSED)"));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token_));
}

TEST_F(ReceiverTest, CloseWaitsForCallsInFlight) {
    TraceCapture trace(2);
    auto held = heldCall();
    std::atomic<int> closeRc{1};
    std::thread closer([&] { closeRc = KVL_closeGatewayConnection(&token_); });
    EXPECT_TRUE(waitUntil([&] { return traced(trace, 2069, "Waiting for 1 API calls and 0 async requests"); }));
    EXPECT_EQ(0u, flowsOf(kvlemu::RecordedFlow::Kind::Close));
    EXPECT_EQ(1, closeRc.load());

    emulator_.releaseGate();
    EXPECT_EQ(held->finish(), 0) << "the call got its reply before the close went out";
    closer.join();
    EXPECT_EQ(0, closeRc.load());
    EXPECT_EQ(1u, flowsOf(kvlemu::RecordedFlow::Kind::Close));
}

TEST_F(ReceiverTest, PurgeWithoutTimeOutClosesAtOnce) {
    TraceCapture trace(2);
    auto held = heldCall();
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token_, 0));
    EXPECT_EQ(nullptr, token_);
    EXPECT_EQ(held->finish(), KVL_ERR_GWTOK_CLOSED);
    EXPECT_TRUE(trace.linesWithId(2069).empty() && trace.linesWithId(2071).empty()) << "no wait";
    EXPECT_TRUE(trace.contains("Connection closed, initiated by API; closeRc=-140 (KVL_ERR_GWTOK_CLOSED)"));
}

TEST_F(ReceiverTest, PurgeClosesWhenItsTimeOutRunsOut) {
    TraceCapture trace(2);
    auto held = heldCall();
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token_, 1));
    EXPECT_EQ(held->finish(), KVL_ERR_GWTOK_CLOSED);
    EXPECT_TRUE(traced(trace, 2071, "Waiting 1 seconds for 1 API calls and 0 async requests to complete"));
}

#ifdef __linux__
// The receiver's voluntary context switches, from the kernel's count for its thread.
long receiverSwitches(const std::string& tid) {
    std::ifstream status("/proc/self/task/" + tid + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stol(line.substr(24));
    return -1;
}

// An idle connection costs nothing: its receiver sleeps in the read of the next
// flow and is woken only by the Gateway or by the close.
TEST_F(ReceiverTest, AnIdleReceiverIsNeverWoken) {
    gwTok idle = nullptr;
    std::string tid;
    {
        TraceCapture trace(3);
        ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", emulator_.port(), &idle, 5));
        auto entry = trace.linesWithId(3031);
        ASSERT_EQ(1u, entry.size());
        size_t comma = entry[0].find(",0x");
        ASSERT_NE(std::string::npos, comma);
        tid = std::to_string(std::stoul(entry[0].substr(comma + 3, 8), nullptr, 16));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    long before = receiverSwitches(tid);
    ASSERT_GE(before, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    EXPECT_EQ(before, receiverSwitches(tid)) << "the idle receiver woke up";
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&idle, 0));
    EXPECT_EQ(nullptr, idle);
}
#endif

// --- A Gateway scripted byte by byte ------------------------------------------

class ScriptedReceiverTest : public ::testing::Test {
protected:
    void SetUp() override {
        gateway_.acceptAndShakeHands();
        ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", gateway_.port(), &token_, 5));
        ASSERT_TRUE(gateway_.waitReady());
    }
    void TearDown() override {
        clapiCloseAnswerSeconds = 30;
        gateway_.closePeer();
        EXPECT_EQ(0, KVL_closeAllGatewayConnections());
        EXPECT_TRUE(gtlEmpty());
    }
    std::unique_ptr<InFlightCall> call() {
        auto c = std::make_unique<InFlightCall>(token_, "PROG");
        wire::Header header;
        EXPECT_TRUE(gateway_.readHeader(header));
        c->messageId = header.messageId;
        return c;
    }

    gwtest::ScriptedGateway gateway_;
    gwTok token_ = nullptr;
};

TEST_F(ScriptedReceiverTest, AnExceptionTextIsBoundedByItsFlowAndTheStreamStaysInStep) {
    TraceCapture trace(1);
    auto first = call();
    auto second = call();
    // Declares a 60000-byte text in a 5-byte body.
    wire::Bytes body = {0x00, 0xEA, 0x60, 'A', 'B'};
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowException, first->messageId, "BASE", body)));
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowError, second->messageId, "ECI", {}, -3)));
    EXPECT_EQ(first->finish(), KVL_ERR_GATEWAY_EXCEPTION);
    EXPECT_EQ(second->finish(), -3);
    EXPECT_FALSE(trace.linesWithId(3036).empty()) << "the error flow is traced";
    auto text = trace.linesWithId(3046);
    ASSERT_EQ(1u, text.size());
    EXPECT_EQ("Exception message: AB", text[0].substr(text[0].size() - 21));
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ScriptedReceiverTest, UnknownFlowTypesAndBodiesLeftUnreadAreSkipped) {
    auto c = call();
    wire::Bytes filler(40000, 0x77);  // more than one buffer's worth
    for (int32_t type : {2, 8, 9, 11, static_cast<int>(wire::kFlowPing), static_cast<int>(wire::kFlowClose)}) {
        ASSERT_TRUE(gateway_.send(gatewayFlow(type, c->messageId, "ECI", filler)));
    }
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowHandshake, -2, "BASE", {1, 2, 3})));
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowError, c->messageId, "ECI", {}, -22)));
    EXPECT_EQ(c->finish(), -22);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ScriptedReceiverTest, AnUnknownReplyTypeFailsItsRequest) {
    auto c = call();
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowReply, c->messageId, "XYZ", {})));
    EXPECT_EQ(c->finish(), KVL_ERR_SYSTEM_ERROR);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

// A Gateway that stops reading leaves a large request stuck in send(), holding
// the send lock; a purge must still end, and end that call too.
TEST_F(ScriptedReceiverTest, APurgeEndsACallStuckSendingToAGatewayThatDoesNotRead) {
    clapiCloseAnswerSeconds = 1;
    chanTok channel = nullptr;
    ASSERT_EQ(ECI_createChannel("BIGCHAN", &channel), ECI_NO_ERROR);
    const std::string data(64u << 20, 'x');  // far more than the socket buffers hold
    ASSERT_EQ(ECI_createContainer(channel, "DATA", ECI_BIT, 0, data.data(), data.size()), ECI_NO_ERROR);
    auto stuck = std::async(std::launch::async, [&] {
        EciParms p{};
        p.eci_call_type = ECI_SYNC;
        p.eci_version = 6;
        memcpy(p.eci_program, "CHANPROG", 8);
        p.eci_channel = channel;
        return KVL_ECI_Execute_Channel(token_, &p);
    });
    EXPECT_EQ(std::future_status::timeout, stuck.wait_for(std::chrono::milliseconds(500))) << "the send went through";
    auto purge = std::async(std::launch::async, [&] { return KVL_purgeGatewayConnection(&token_, 1); });
    bool ended = purge.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    if (!ended) gateway_.closePeer();  // frees the sender, so that the test itself ends
    ASSERT_TRUE(ended) << "the purge waited for the stuck sender";
    EXPECT_EQ(KVL_OK, purge.get());
    EXPECT_EQ(nullptr, token_);
    ASSERT_EQ(std::future_status::ready, stuck.wait_for(std::chrono::seconds(10)));
    EXPECT_EQ(KVL_ERR_LOSTGWCON, stuck.get());
    EXPECT_EQ(ECI_deleteChannel(&channel), ECI_NO_ERROR);
}

TEST_F(ScriptedReceiverTest, ACloseTheGatewayNeverAnswersStillEnds) {
    clapiCloseAnswerSeconds = 1;
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token_));
    EXPECT_EQ(nullptr, token_);
    wire::Header header;
    ASSERT_TRUE(gateway_.readHeader(header));
    EXPECT_EQ(wire::kFlowClose, header.flowType);
    EXPECT_EQ(wire::kCloseMessageId, header.messageId);
}

}  // namespace
