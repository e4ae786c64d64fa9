// Asynchronous COMMAREA calls and the four ways of collecting their replies.
#include "eci_test_util.h"

using namespace ecitest;

namespace {

class EciAsync : public EmulatorConnection {
protected:
    // Sends an ECI_ASYNC call; the caller's COMMAREA is scribbled over at once,
    // since the library must not need it any more.
    int32_t sendAsync(const std::string& program, const std::string& data) {
        Bytes area = text(data);
        EciParms p = callParms(ECI_ASYNC, program, area);
        EXPECT_EQ(execute(p), ECI_NO_ERROR);
        std::fill(area.begin(), area.end(), 0xEE);
        return p.eci_msg_qual;
    }
    bool replied(int32_t qual) {
        return waitUntil([&] { return slotState(qual) == SLOT_REPLIED; });
    }
};

TEST_F(EciAsync, ReplyCollectedByAWaitingGenericRetrieval) {
    int32_t qual = sendAsync("GATE", "async payload");
    EXPECT_GT(qual, 0);
    EXPECT_EQ(asyncCount(), 1);
    EXPECT_EQ(slotState(qual), SLOT_SENT);

    Bytes area(32, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area);
    auto retrieval = executeLater(&get);
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_TRUE(retrieval->blocked());
    emu.releaseGate();
    EXPECT_EQ(retrieval->join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(cstr(area), "async payload");
    EXPECT_EQ(get.eci_call_type, ECI_ASYNC);  // the request's block comes back
    EXPECT_EQ(get.eci_msg_qual, qual);
    EXPECT_EQ(get.commarea_inbound_length, 13);
    EXPECT_EQ(get.eci_commarea, area.data());
    EXPECT_EQ(get.eci_commarea_length, 32);
    EXPECT_EQ(asyncCount(), 0);
    EXPECT_EQ(slotState(qual), SLOT_FREE);
}

TEST_F(EciAsync, NonWaitingRetrievalsAnswerAtOnce) {
    Bytes area(16, 0);
    EXPECT_EQ(retrieve(ECI_GET_REPLY, area), ECI_ERR_NO_REPLY);

    int32_t qual = sendAsync("GATE", "held");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_EQ(retrieve(ECI_GET_REPLY, area), ECI_ERR_NO_REPLY);
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, qual), ECI_ERR_NO_REPLY);

    emu.releaseGate();
    ASSERT_TRUE(replied(qual));
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, qual), ECI_NO_ERROR);
    EXPECT_EQ(cstr(area), "held");
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, qual), ECI_ERR_INVALID_MSG_QUAL);  // collected: the slot is free
}

// The specific waiter sleeps through other replies and takes its own from behind them.
TEST_F(EciAsync, SpecificRetrievalTakesOnlyItsOwnReply) {
    int32_t held = sendAsync("GATE", "gated");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(16, 0);
    EciParms get = retrievalParms(ECI_GET_SPECIFIC_REPLY_WAIT, area, held);
    auto retrieval = executeLater(&get);
    int32_t quick = sendAsync("ECHO", "quick");
    ASSERT_TRUE(replied(quick));
    EXPECT_TRUE(retrieval->blocked());
    emu.releaseGate();
    EXPECT_EQ(retrieval->join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(cstr(area), "gated");
    EXPECT_EQ(get.eci_msg_qual, held);
    EXPECT_EQ(slotState(quick), SLOT_REPLIED);  // still queued for someone else
    EXPECT_EQ(asyncCount(), 1);

    Bytes other(16, 0);
    ASSERT_EQ(retrieve(ECI_GET_REPLY, other), ECI_NO_ERROR);
    EXPECT_EQ(cstr(other), "quick");
    EXPECT_EQ(got.eci_msg_qual, quick);
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, UnknownAndUnsuitableMessageQualifiers) {
    Bytes area(16, 0);
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY_WAIT, area, 99), ECI_ERR_INVALID_MSG_QUAL);
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, -5), ECI_ERR_INVALID_MSG_QUAL);

    // The slot of a synchronous unit of work: not an async request.
    EciParms luw = callParms(ECI_SYNC, "LUW", area);
    luw.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(execute(luw), ECI_NO_ERROR);
    ASSERT_EQ(slotState(1), SLOT_LUW_KEPT);
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, 1), ECI_ERR_INVALID_MSG_QUAL);
}

TEST_F(EciAsync, TooSmallBufferLeavesTheReplyQueued) {
    int32_t qual = sendAsync("ECHO", "twenty bytes of data");
    ASSERT_TRUE(replied(qual));
    TraceCapture trace(1);
    Bytes small(10, 0);
    EXPECT_EQ(retrieve(ECI_GET_REPLY, small), ECI_ERR_INVALID_DATA_LENGTH);
    EXPECT_EQ(got.eci_commarea_length, 20);
    EXPECT_EQ(small, Bytes(10, 0));
    EXPECT_EQ(asyncCount(), 1);
    EXPECT_EQ(slotState(qual), SLOT_REPLIED);
    EXPECT_TRUE(traced(trace, 1543, "Caller commarea len=10 is smaller than inbound commarea len=20"));

    // The block now holds the request's call type; a retry names its own again.
    Bytes big(20, 0);
    ASSERT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, big, qual), ECI_NO_ERROR);
    EXPECT_EQ(std::string(big.begin(), big.end()), "twenty bytes of data");
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, AsyncCommareaIsSizedByTheClippedInboundLength) {
    Bytes area(100, 'q');
    int32_t quals[2] = {};
    const short inbound[2] = {500, 10};
    for (int i = 0; i < 2; ++i) {
        EciParms p = callParms(ECI_ASYNC, "GATE", area);
        p.commarea_inbound_length = inbound[i];
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        quals[i] = p.eci_msg_qual;
    }
    clapiRequestLock(&token->tableLock);
    clapiSlot* a = slotByNumber(&token->requestTable, quals[0]);
    clapiSlot* b = slotByNumber(&token->requestTable, quals[1]);
    uint64_t sizeA = a->ownedBufferSize, sizeB = b->ownedBufferSize;
    bool distinct = a->request.eci_commarea != area.data() && b->request.eci_commarea != area.data();
    clapiReleaseLock(&token->tableLock);
    EXPECT_EQ(sizeA, 100u);
    EXPECT_EQ(sizeB, 10u);
    EXPECT_TRUE(distinct);

    emu.releaseGate("GATE", 2);
    for (int i = 0; i < 2; ++i) {
        Bytes out(100, 0);
        ASSERT_EQ(retrieve(ECI_GET_REPLY_WAIT, out), ECI_NO_ERROR);
        size_t expected = got.eci_msg_qual == quals[1] ? 10 : 100;
        EXPECT_EQ(got.commarea_inbound_length, static_cast<short>(expected));
        EXPECT_EQ(Bytes(out.begin(), out.begin() + expected), Bytes(expected, 'q'));
    }
}

TEST_F(EciAsync, ErrorReplyIsCollectedWithItsCode) {
    int32_t qual = sendAsync("ABEND", "BOOMdata");
    Bytes area(8, 0);
    EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY_WAIT, area, qual), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(std::string(got.eci_abend, 4), "BOOM");
    EXPECT_EQ(area, Bytes(8, 0));  // nothing copied after an error
    EXPECT_EQ(slotState(qual), SLOT_FREE);
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciAsync, WaitingRetrievalFailsWhenTheConnectionIsLost) {
    int32_t qual = sendAsync("GATE", "lost");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area);
    auto retrieval = executeLater(&get);
    EXPECT_TRUE(retrieval->blocked());
    loseConnection();
    EXPECT_EQ(retrieval->join(), std::optional<int>(KVL_ERR_LOSTGWCON));
    EXPECT_EQ(get.eci_msg_qual, qual);
    EXPECT_EQ(asyncCount(), 0);

    // Nothing is outstanding now: a waiting retrieval does not wait on a lost connection.
    EXPECT_EQ(retrieve(ECI_GET_REPLY_WAIT, area), KVL_ERR_LOSTGWCON);
    EciParms again = callParms(ECI_ASYNC, "ECHO", area);
    EXPECT_EQ(execute(again), KVL_ERR_LOSTGWCON);
}

// With no asynchronous request outstanding, only the end of the connection can
// release a waiting retrieval: the receiver (lost) or the close must wake it.
TEST_F(EciAsync, WaitingRetrievalWithNothingOutstandingEndsWithTheConnection) {
    for (bool lost : {true, false}) {
        SCOPED_TRACE(lost ? "lost" : "closed");
        Bytes area(8, 0);
        EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area);
        auto retrieval = executeLater(&get);
        ASSERT_TRUE(waitUntil([&] { return apiCalls() == 1; }));
        EXPECT_TRUE(retrieval->blocked());
        if (lost) {
            loseConnection();
            EXPECT_EQ(retrieval->join(), std::optional<int>(KVL_ERR_LOSTGWCON));
            ASSERT_EQ(KVL_purgeGatewayConnection(&token, 0), KVL_OK);
            ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10), KVL_OK);
        } else {
            EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
            EXPECT_EQ(retrieval->join(), std::optional<int>(KVL_ERR_GWTOK_CLOSED));
        }
    }
}

TEST_F(EciAsync, OutstandingRequestIsAnsweredByThePurge) {
    sendAsync("GATE", "purged");
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    Bytes area(8, 0);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area);
    auto retrieval = executeLater(&get);
    ASSERT_TRUE(waitUntil([&] { return apiCalls() == 1; }));
    gwTok purged = token;
    token = nullptr;
    EXPECT_EQ(KVL_purgeGatewayConnection(&purged, 0), KVL_OK);
    // Failed by the close flow that names the library as the closer, or released
    // with nothing left to collect: -140 either way.
    EXPECT_EQ(retrieval->join(), std::optional<int>(KVL_ERR_GWTOK_CLOSED));
}

}  // namespace
