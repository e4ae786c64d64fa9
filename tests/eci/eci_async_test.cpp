// Asynchronous COMMAREA calls and the four ways of collecting their replies.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "eci_test_util.h"
#include "trace_capture.h"

using namespace ecitest;
using kvltest::TraceCapture;

namespace {

class EciAsync : public EmulatorConnection {
protected:
    // Sends an ECI_ASYNC call; the caller's COMMAREA is scribbled over at once,
    // since the library must not need it any more.
    int32_t sendAsync(const std::string& program, const std::string& data, size_t length = 0) {
        Bytes area = text(data);
        area.resize(length ? length : data.size(), 0);
        EciParms p = callParms(ECI_ASYNC, program, area.data(), area.size());
        EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
        std::fill(area.begin(), area.end(), 0xEE);
        return p.eci_msg_qual;
    }

    // A retrieval on a thread of its own; the future is bounded by the caller.
    std::future<int> retrieveLater(EciParms* p) {
        return std::async(std::launch::async, [this, p] { return KVL_ECI_Execute(token, p); });
    }
};

TEST_F(EciAsync, ReplyCollectedByAWaitingGenericRetrieval) {
    int32_t qual = sendAsync("GATE", "async payload");
    EXPECT_GT(qual, 0);
    EXPECT_EQ(asyncCount(), 1);
    EXPECT_EQ(slotState(qual), SLOT_SENT);

    Bytes area(32, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    auto result = retrieveLater(&get);
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    emu.releaseGate();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "async payload");
    EXPECT_EQ(get.eci_call_type, ECI_ASYNC);  // the request's block comes back
    EXPECT_EQ(get.eci_msg_qual, qual);
    EXPECT_EQ(get.commarea_inbound_length, 13);
    EXPECT_EQ(get.eci_commarea, area.data());
    EXPECT_EQ(get.eci_commarea_length, 32);
    EXPECT_EQ(asyncCount(), 0);
    EXPECT_EQ(slotState(qual), SLOT_FREE);
    EXPECT_EQ(apiCalls(), 0);
}

TEST_F(EciAsync, NonWaitingRetrievalsAnswerAtOnce) {
    Bytes area(16, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY, area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_NO_REPLY);

    int32_t qual = sendAsync("GATE", "held");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    get = retrievalParms(ECI_GET_REPLY, area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_NO_REPLY);
    EciParms specific = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), qual);
    EXPECT_EQ(KVL_ECI_Execute(token, &specific), ECI_ERR_NO_REPLY);

    emu.releaseGate();
    ASSERT_TRUE(waitUntil([&] { return slotState(qual) == SLOT_REPLIED; }));
    specific = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), qual);
    EXPECT_EQ(KVL_ECI_Execute(token, &specific), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "held");
    specific = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), qual);
    EXPECT_EQ(KVL_ECI_Execute(token, &specific), ECI_ERR_INVALID_MSG_QUAL);  // collected: the slot is free
}

TEST_F(EciAsync, SpecificRetrievalTakesOnlyItsOwnReply) {
    int32_t first = sendAsync("ECHO", "first");
    int32_t second = sendAsync("ECHO", "second");
    ASSERT_NE(first, second);
    ASSERT_TRUE(waitUntil([&] { return slotState(first) == SLOT_REPLIED && slotState(second) == SLOT_REPLIED; }));
    EXPECT_EQ(asyncCount(), 2);

    Bytes area(16, 0);
    EciParms get = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, area.data(), area.size(), second);
    ASSERT_EQ(KVL_ECI_Execute(token, &get), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "second");
    EXPECT_EQ(get.eci_msg_qual, second);

    std::fill(area.begin(), area.end(), 0);
    get = retrievalParms(ECI_GET_REPLY, area.data(), area.size());
    ASSERT_EQ(KVL_ECI_Execute(token, &get), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "first");
    EXPECT_EQ(get.eci_msg_qual, first);
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, SpecificWaiterSleepsThroughOtherReplies) {
    int32_t held = sendAsync("GATE", "gated");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(16, 0);
    EciParms get = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, area.data(), area.size(), held);
    auto result = retrieveLater(&get);
    int32_t quick = sendAsync("ECHO", "quick");
    ASSERT_TRUE(waitUntil([&] { return slotState(quick) == SLOT_REPLIED; }));
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    emu.releaseGate();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), ECI_NO_ERROR);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "gated");
    EXPECT_EQ(slotState(quick), SLOT_REPLIED);  // still queued for someone else
    EXPECT_EQ(asyncCount(), 1);
}

TEST_F(EciAsync, UnknownAndUnsuitableMessageQualifiers) {
    Bytes area(16, 0);
    EciParms get = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, area.data(), area.size(), 99);
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_INVALID_MSG_QUAL);
    get = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), -5);
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_INVALID_MSG_QUAL);

    // The slot of a synchronous unit of work: not an async request.
    EciParms luw = callParms(ECI_SYNC, "LUW", area.data(), area.size());
    luw.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(KVL_ECI_Execute(token, &luw), ECI_NO_ERROR);
    ASSERT_EQ(slotState(1), SLOT_LUW_KEPT);
    get = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), 1);
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_INVALID_MSG_QUAL);
}

TEST_F(EciAsync, TooSmallBufferLeavesTheReplyQueued) {
    int32_t qual = sendAsync("ECHO", "twenty bytes of data");
    ASSERT_TRUE(waitUntil([&] { return slotState(qual) == SLOT_REPLIED; }));
    TraceCapture trace(1);
    Bytes small(10, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY, small.data(), small.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_INVALID_DATA_LENGTH);
    EXPECT_EQ(get.eci_commarea_length, 20);
    EXPECT_EQ(small, Bytes(10, 0));
    EXPECT_EQ(asyncCount(), 1);
    EXPECT_EQ(slotState(qual), SLOT_REPLIED);
    auto lines = trace.linesWithId(1543);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Caller commarea len=10 is smaller than inbound commarea len=20"), std::string::npos);

    // The block now holds the request's call type; a retry names its own again.
    Bytes big(20, 0);
    get = retrievalParms(ECI_GET_SPECIFIC_REPLY, big.data(), big.size(), qual);
    ASSERT_EQ(KVL_ECI_Execute(token, &get), ECI_NO_ERROR);
    EXPECT_EQ(std::string(big.begin(), big.end()), "twenty bytes of data");
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, AsyncCommareaIsSizedByTheClippedInboundLength) {
    Bytes area(100, 'q');
    EciParms p = callParms(ECI_ASYNC, "GATE", area.data(), area.size());
    p.commarea_inbound_length = 500;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    p = callParms(ECI_ASYNC, "GATE", area.data(), area.size());
    p.commarea_inbound_length = 10;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    const int32_t second = p.eci_msg_qual;
    clapiRequestLock(&token->tableLock);
    clapiSlot* a = slotByNumber(&token->requestTable, 1);
    clapiSlot* b = slotByNumber(&token->requestTable, second);
    uint64_t sizeA = a->ownedBufferSize, sizeB = b->ownedBufferSize;
    bool distinct = a->request.eci_commarea != area.data() && b->request.eci_commarea != area.data();
    clapiReleaseLock(&token->tableLock);
    EXPECT_EQ(sizeA, 100u);
    EXPECT_EQ(sizeB, 10u);
    EXPECT_TRUE(distinct);

    emu.releaseGate("GATE", 2);
    for (int i = 0; i < 2; ++i) {
        Bytes out(100, 0);
        EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, out.data(), out.size());
        ASSERT_EQ(KVL_ECI_Execute(token, &get), ECI_NO_ERROR);
        size_t expected = get.eci_msg_qual == second ? 10 : 100;
        EXPECT_EQ(get.commarea_inbound_length, static_cast<short>(expected));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + expected), Bytes(expected, 'q'));
    }
}

TEST_F(EciAsync, ErrorReplyIsCollectedWithItsCode) {
    int32_t qual = sendAsync("ABEND", "BOOMdata");
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, area.data(), area.size(), qual);
    EXPECT_EQ(KVL_ECI_Execute(token, &get), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(std::string(get.eci_abend, 4), "BOOM");
    EXPECT_EQ(area, Bytes(8, 0));  // nothing copied after an error
    EXPECT_EQ(slotState(qual), SLOT_FREE);
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, AsyncUnitOfWorkKeepsItsSlot) {
    Bytes area(32, 0);
    EciParms p = callParms(ECI_ASYNC, "LUW", area.data(), area.size());
    p.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    const int32_t qual = p.eci_msg_qual;
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    ASSERT_EQ(KVL_ECI_Execute(token, &get), ECI_NO_ERROR);
    ASSERT_GT(get.eci_luw_token, 0);
    EXPECT_EQ(slotState(qual), SLOT_LUW_KEPT);
    EciParms specific = retrievalParms(ECI_GET_SPECIFIC_REPLY, area.data(), area.size(), qual);
    EXPECT_EQ(KVL_ECI_Execute(token, &specific), ECI_ERR_NO_REPLY);

    // The next call of the unit of work, synchronous this time, reuses the slot.
    EciParms next = callParms(ECI_SYNC, "LUW", area.data(), area.size());
    next.eci_extend_mode = ECI_COMMIT;
    next.eci_luw_token = get.eci_luw_token;
    ASSERT_EQ(KVL_ECI_Execute(token, &next), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[1].header.messageId, qual);
    EXPECT_EQ(slotState(qual), SLOT_FREE);
}

TEST_F(EciAsync, WaitingRetrievalFailsWhenTheConnectionIsLost) {
    int32_t qual = sendAsync("GATE", "lost");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    auto result = retrieveLater(&get);
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    loseConnection();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(get.eci_msg_qual, qual);
    EXPECT_EQ(asyncCount(), 0);

    // Nothing is outstanding now: a waiting retrieval does not wait on a lost connection.
    get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &get), KVL_ERR_LOSTGWCON);
    EciParms again = callParms(ECI_ASYNC, "ECHO", area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &again), KVL_ERR_LOSTGWCON);
}

// With no asynchronous request outstanding, only the end of the connection can
// release a waiting retrieval: the receiver must wake it as it ends.
TEST_F(EciAsync, WaitingRetrievalWithNothingOutstandingEndsWithTheConnection) {
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    auto result = retrieveLater(&get);
    ASSERT_TRUE(waitUntil([&] { return apiCalls() == 1; }));
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    loseConnection();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), KVL_ERR_LOSTGWCON);
}

TEST_F(EciAsync, WaitingRetrievalIsReleasedByAClose) {
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    auto result = retrieveLater(&get);
    ASSERT_TRUE(waitUntil([&] { return apiCalls() == 1; }));
    EXPECT_EQ(result.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
    EXPECT_EQ(token, nullptr);
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(result.get(), KVL_ERR_GWTOK_CLOSED);
}

TEST_F(EciAsync, OutstandingRequestIsAnsweredByThePurge) {
    sendAsync("GATE", "purged");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    auto result = retrieveLater(&get);
    ASSERT_TRUE(waitUntil([&] { return apiCalls() == 1; }));
    gwTok purged = token;
    token = nullptr;
    EXPECT_EQ(KVL_purgeGatewayConnection(&purged, 0), KVL_OK);
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    // Failed by the close flow that names the library as the closer, or released
    // with nothing left to collect: -140 either way.
    EXPECT_EQ(result.get(), KVL_ERR_GWTOK_CLOSED);
}

}  // namespace
