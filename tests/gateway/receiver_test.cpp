// The receiver thread's dispatch and the end of a connection, with requests in flight.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "eci/clapi_channel.h"
#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/emulator.h"
#include "gateway_test_util.h"
#include "kvlclient.h"
#include "support/trace_capture.h"

using gwtest::gatewayFlow;
using gwtest::gtlEmpty;
using gwtest::InFlightCall;
using gwtest::waitUntil;
using kvltest::TraceCapture;
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
        EXPECT_EQ(0, call->sendRc());
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

TEST_F(ReceiverTest, AReplyIsDecodedIntoItsSlotAndWakesTheCaller) {
    InFlightCall abend(token_, "ABEND", 8);
    InFlightCall shortReply(token_, "SHORT", 20);
    ASSERT_TRUE(abend.finish());
    ASSERT_TRUE(shortReply.finish());
    EXPECT_EQ(0, abend.replyRc);
    EXPECT_EQ(ECI_ERR_TRANSACTION_ABEND, abend.bodyRc);
    EXPECT_EQ("EMAB", abend.abend);
    EXPECT_EQ(0, shortReply.replyRc);
    EXPECT_EQ(0, shortReply.bodyRc);
    EXPECT_EQ(10, shortReply.inboundLength);
    EXPECT_FALSE(abend.queued);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ReceiverTest, AnAsyncReplyIsQueuedBeforeItsCallerWakes) {
    InFlightCall call(token_, "ECHO", 16, ECI_ASYNC);
    ASSERT_TRUE(call.finish());
    EXPECT_EQ(0, call.replyRc);
    EXPECT_TRUE(call.queued);
    uint32_t expired = 1;
    EXPECT_EQ(0, clapiTimedWaitEvent(&token_->asyncReplyEvent, 0, &expired));
    EXPECT_EQ(0u, expired) << "get-reply waiters were released";
}

TEST_F(ReceiverTest, APingBetweenRepliesChangesNothingAndIsNotAnswered) {
    emulator_.injectOnRequest("ECHO", kvlemu::Fault::ping());
    InFlightCall first(token_, "ECHO");
    ASSERT_TRUE(first.finish());
    InFlightCall second(token_, "ECHO");
    ASSERT_TRUE(second.finish());
    EXPECT_EQ(0, first.replyRc);
    EXPECT_EQ(0, second.replyRc);
    EXPECT_EQ(3u, emulator_.flowCount()) << "the handshake and the two requests, nothing else";
}

TEST_F(ReceiverTest, ExceptionAndErrorFlowsFailOnlyTheirOwnRequest) {
    TraceCapture trace(1);
    emulator_.injectOnRequest("ECHO", kvlemu::Fault::exception("Program check in EMUPROG"));
    InFlightCall excepted(token_, "ECHO");
    ASSERT_TRUE(excepted.finish());
    EXPECT_EQ(KVL_ERR_GATEWAY_EXCEPTION, excepted.replyRc);
    EXPECT_TRUE(trace.contains("Exception message: Program check in EMUPROG"));

    emulator_.injectOnRequest("ECHO", kvlemu::Fault::errorFlow(KVL_ERR_WORK_WAS_REFUSED));
    InFlightCall refused(token_, "ECHO");
    ASSERT_TRUE(refused.finish());
    EXPECT_EQ(KVL_ERR_WORK_WAS_REFUSED, refused.replyRc);
    EXPECT_FALSE(trace.linesWithId(3036).empty());

    InFlightCall fine(token_, "ECHO");
    ASSERT_TRUE(fine.finish());
    EXPECT_EQ(0, fine.replyRc);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ReceiverTest, AReplyNoRequestAwaitsEndsTheConnection) {
    auto held = heldCall();
    ASSERT_TRUE(emulator_.inject(kvlemu::Fault::strayReply(999)));
    ASSERT_TRUE(held->finish());
    EXPECT_EQ(KVL_ERR_LOSTGWCON, held->replyRc);
    EXPECT_EQ(KVL_ERR_SYSTEM_ERROR, token_->closeRc);
    EXPECT_EQ(CONN_LOST, token_->connStatus.load());
}

TEST_F(ReceiverTest, BytesThatAreNoFlowEndTheConnection) {
    auto held = heldCall();
    ASSERT_TRUE(emulator_.inject(kvlemu::Fault::garbage()));
    ASSERT_TRUE(held->finish());
    EXPECT_EQ(KVL_ERR_LOSTGWCON, held->replyRc);
    EXPECT_EQ(KVL_ERR_SYSTEM_ERROR, token_->closeRc);
}

TEST_F(ReceiverTest, ALostConnectionFailsEveryWaitingRequest) {
    auto a = heldCall();
    auto b = heldCall();
    emulator_.injectOnRequest("ECHO", kvlemu::Fault::dropMidReply());
    InFlightCall c(token_, "ECHO");
    ASSERT_TRUE(c.finish());
    ASSERT_TRUE(a->finish());
    ASSERT_TRUE(b->finish());
    for (auto* call : {a.get(), b.get(), &c}) EXPECT_EQ(KVL_ERR_LOSTGWCON, call->replyRc);
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
    ASSERT_TRUE(held->finish());
    EXPECT_EQ(KVL_ERR_GATEWAY_CLOSED, held->replyRc);
    EXPECT_EQ(CONN_CLOSED, token_->connStatus.load());
    EXPECT_TRUE(trace.contains("Connection closed, initiated by Gateway; closeRc=61444 (KVL_ERR_GATEWAY_CLOSED)"));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token_));
}

TEST_F(ReceiverTest, CloseWaitsForCallsInFlight) {
    TraceCapture trace(2);
    auto held = heldCall();
    std::atomic<int> closeRc{1};
    std::thread closer([&] { closeRc = KVL_closeGatewayConnection(&token_); });
    EXPECT_TRUE(waitUntil([&] { return !trace.linesWithId(2069).empty(); }));
    EXPECT_EQ(0u, flowsOf(kvlemu::RecordedFlow::Kind::Close));
    EXPECT_EQ(1, closeRc.load());

    emulator_.releaseGate();
    ASSERT_TRUE(held->finish());
    closer.join();
    EXPECT_EQ(0, held->replyRc) << "the call got its reply before the close went out";
    EXPECT_EQ(0, closeRc.load());
    EXPECT_EQ(1u, flowsOf(kvlemu::RecordedFlow::Kind::Close));
    EXPECT_NE(std::string::npos, trace.linesWithId(2069)[0].find("Waiting for 1 API calls and 0 async requests"));
}

TEST_F(ReceiverTest, PurgeWithoutTimeOutClosesAtOnce) {
    TraceCapture trace(2);
    auto held = heldCall();
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token_, 0));
    EXPECT_EQ(nullptr, token_);
    ASSERT_TRUE(held->finish());
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, held->replyRc);
    EXPECT_TRUE(trace.linesWithId(2069).empty());
    EXPECT_TRUE(trace.linesWithId(2071).empty());
    EXPECT_TRUE(trace.contains("Connection closed, initiated by API; closeRc=-140 (KVL_ERR_GWTOK_CLOSED)"));
}

TEST_F(ReceiverTest, PurgeClosesWhenItsTimeOutRunsOut) {
    TraceCapture trace(2);
    auto held = heldCall();
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token_, 1));
    ASSERT_TRUE(held->finish());
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, held->replyRc);
    auto waits = trace.linesWithId(2071);
    ASSERT_EQ(1u, waits.size());
    EXPECT_NE(std::string::npos, waits[0].find("Waiting 1 seconds for 1 API calls and 0 async requests to complete"));
}

// An asynchronous channel request that nobody collects: the close gives its channel back.
TEST_F(ReceiverTest, CloseUnlocksTheChannelOfAnAbandonedChannelRequest) {
    chanTok channel = nullptr;
    ASSERT_EQ(0, ECI_createChannel("ABANDONED", &channel));
    ASSERT_EQ(0, lockChannel(channel));
    clapiRequestLock(&token_->tableLock);
    clapiSlot* slot = nullptr;
    ASSERT_EQ(0, slotFind(&token_->requestTable, 0, &slot));
    slot->request.eci_call_type = ECI_ASYNC;
    slot->request.eci_channel = channel;
    slot->channelRequest = 1;
    slot->state = SLOT_SENT;
    token_->asyncRequestCount = 1;
    clapiReleaseLock(&token_->tableLock);

    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token_, 0));
    EXPECT_EQ(0, channel->isLocked);
    EXPECT_EQ(0, ECI_deleteChannel(&channel));
}

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
        EXPECT_EQ(0, c->sendRc());
        wire::Header header;
        EXPECT_TRUE(gateway_.readHeader(header));
        EXPECT_EQ(c->messageId(), header.messageId);
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
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowException, first->messageId(), "BASE", body)));
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowError, second->messageId(), "ECI", {}, -3)));
    ASSERT_TRUE(first->finish());
    ASSERT_TRUE(second->finish());
    EXPECT_EQ(KVL_ERR_GATEWAY_EXCEPTION, first->replyRc);
    EXPECT_EQ(-3, second->replyRc);
    auto text = trace.linesWithId(3046);
    ASSERT_EQ(1u, text.size());
    EXPECT_EQ("Exception message: AB", text[0].substr(text[0].size() - 21));
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ScriptedReceiverTest, UnknownFlowTypesAndBodiesLeftUnreadAreSkipped) {
    auto c = call();
    wire::Bytes filler(40000, 0x77);  // more than one buffer's worth
    for (int32_t type : {2, 8, 9, 11, static_cast<int>(wire::kFlowPing), static_cast<int>(wire::kFlowClose)}) {
        ASSERT_TRUE(gateway_.send(gatewayFlow(type, c->messageId(), "ECI", filler)));
    }
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowHandshake, -2, "BASE", {1, 2, 3})));
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowError, c->messageId(), "ECI", {}, -22)));
    ASSERT_TRUE(c->finish());
    EXPECT_EQ(-22, c->replyRc);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
}

TEST_F(ScriptedReceiverTest, AnUnknownReplyTypeFailsItsRequest) {
    auto c = call();
    ASSERT_TRUE(gateway_.send(gatewayFlow(wire::kFlowReply, c->messageId(), "XYZ", {})));
    ASSERT_TRUE(c->finish());
    EXPECT_EQ(KVL_ERR_SYSTEM_ERROR, c->replyRc);
    EXPECT_EQ(CONN_CONNECTED, token_->connStatus.load());
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
