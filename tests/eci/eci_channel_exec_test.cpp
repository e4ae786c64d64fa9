// Channel program calls end to end: containers changed by the server, large
// data, asynchronous calls and the channel lock around a request.
#include "eci_test_util.h"

using namespace ecitest;

namespace {

class EciChannel : public EmulatorConnection {
protected:
    void SetUp() override {
        EmulatorConnection::SetUp();
        ASSERT_EQ(ECI_createChannel("TESTCHAN", &channel), ECI_NO_ERROR);
    }
    void TearDown() override {
        EmulatorConnection::TearDown();
        if (channel) {
            EXPECT_EQ(ECI_deleteChannel(&channel), ECI_NO_ERROR);
        }
    }

    void add(const std::string& name, const void* data, size_t length) {
        ASSERT_EQ(ECI_createContainer(channel, name.c_str(), ECI_BIT, 0, data, length), ECI_NO_ERROR);
    }
    void add(const std::string& name, const std::string& data) { add(name, data.data(), data.size()); }

    std::string dataOf(const std::string& name) {
        EciContainerInfo info;
        if (ECI_getContainerInfo(channel, name.c_str(), &info) != ECI_NO_ERROR) return "<missing>";
        std::string out(static_cast<size_t>(info.dataLength), '\0');
        size_t read = 0;
        if (ECI_getContainerData(channel, name.c_str(), out.data(), out.size(), 0, &read) != ECI_NO_ERROR)
            return "<unreadable>";
        out.resize(read);
        return out;
    }

    EciParms channelParms(short callType, const std::string& program) {
        Bytes none;
        EciParms p = callParms(callType, program, none);
        p.eci_channel = channel;
        return p;
    }

    int executeChannel(EciParms& p) { return KVL_ECI_Execute_Channel(token, &p); }
    int32_t isLocked() {
        clapiRequestLock(&channel->serlock);
        int32_t locked = channel->isLocked;
        clapiReleaseLock(&channel->serlock);
        return locked;
    }

    chanTok channel = nullptr;
};

TEST_F(EciChannel, ServerAddsDeletesModifiesAndLeavesContainers) {
    add("KEEP", "stays as it was");
    add("CHANGE", "old");
    add("DROP", "goes away");
    add("EMUCTL", "MOD CHANGE new contents;DEL DROP;ADD FRESH added by the server");
    TraceCapture trace(2);
    EciParms p = channelParms(ECI_SYNC, "CHANCTL");
    ASSERT_EQ(executeChannel(p), ECI_NO_ERROR);

    EXPECT_EQ(dataOf("KEEP"), "stays as it was");
    EXPECT_EQ(dataOf("CHANGE"), "new contents");
    EXPECT_EQ(dataOf("DROP"), "<missing>");
    EXPECT_EQ(dataOf("FRESH"), "added by the server");
    EciContainerInfo info;
    ASSERT_EQ(ECI_getFirstContainer(channel, &info), ECI_NO_ERROR);
    EXPECT_STREQ(info.name, "FRESH");  // added containers go to the head
    EXPECT_EQ(info.type, ECI_CHAR);
    EXPECT_EQ(isLocked(), 0);

    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 1u);
    ASSERT_TRUE(flows[0].eci->channel.has_value());
    EXPECT_EQ(kvlemu::wire::fieldText(flows[0].eci->channel->name), "TESTCHAN");
    EXPECT_EQ(flows[0].eci->channel->containers.size(), 4u);
    EXPECT_EQ(flows[0].eci->commareaLength, 0);

    // The channel had no CCSID: it was given the process's, and said so once.
    int ccsid = 0;
    getCurrentCcsid(&ccsid);
    EXPECT_EQ(channel->ccsid, ccsid);
    EXPECT_EQ(flows[0].eci->channel->ccsid, ccsid);
    EXPECT_TRUE(traced(trace, 1514, "Channel \"TESTCHAN\" CCSID set to " + std::to_string(ccsid)));
    // Without commands every container comes back unchanged; the CCSID is not set again.
    ASSERT_EQ(ECI_deleteContainer(channel, "EMUCTL"), ECI_NO_ERROR);
    ASSERT_EQ(executeChannel(p), ECI_NO_ERROR);
    EXPECT_EQ(trace.linesWithId(1514).size(), 1u);
    EXPECT_EQ(dataOf("CHANGE"), "new contents");
}

TEST_F(EciChannel, LargeContainersTravelBothWays) {
    Bytes big = pattern(3u << 20, 11);
    Bytes bigger = pattern(5u << 20, 77);
    add("BIG", big.data(), big.size());
    add("BIGGER", bigger.data(), bigger.size());
    EciParms p = channelParms(ECI_SYNC, "CHANECHO");
    ASSERT_EQ(executeChannel(p), ECI_NO_ERROR);
    EXPECT_EQ(dataOf("BIG"), std::string(big.begin(), big.end()));
    EXPECT_EQ(dataOf("BIGGER"), std::string(bigger.begin(), bigger.end()));
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 1u);
    const auto* sent = flows[0].eci->channel->find("BIGGER");
    ASSERT_NE(sent, nullptr);
    EXPECT_EQ(sent->data, bigger);
}

TEST_F(EciChannel, AsyncCallHoldsTheChannelUntilTheReplyIsCollected) {
    add("ONE", "1");
    EciParms p = channelParms(ECI_ASYNC, "GATE");
    ASSERT_EQ(executeChannel(p), ECI_NO_ERROR);
    const int32_t qual = p.eci_msg_qual;
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_EQ(isLocked(), 1);
    TraceCapture trace(2);
    BoundedThread reader([this] {
        EciContainerInfo info;
        return ECI_getContainerInfo(channel, "ONE", &info);
    });
    BoundedThread creator([this] { return ECI_createContainer(channel, "TWO", ECI_BIT, 0, "2", 1); });
    ASSERT_TRUE(waitForTrace(trace, 1463, 2)) << "both wait for the channel";
    EXPECT_TRUE(reader.blocked() && creator.blocked());

    emu.releaseGate();
    ASSERT_TRUE(waitUntil([&] { return slotState(qual) == SLOT_REPLIED; }));
    EXPECT_EQ(isLocked(), 1);  // replied, but not yet collected
    Bytes none;
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, none);
    ASSERT_EQ(executeChannel(get), ECI_NO_ERROR);
    EXPECT_EQ(get.eci_channel, channel);
    EXPECT_EQ(get.eci_msg_qual, qual);
    EXPECT_EQ(reader.join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(creator.join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(dataOf("ONE"), "1");
    EXPECT_EQ(dataOf("TWO"), "2");
    EXPECT_EQ(isLocked(), 0);
    EXPECT_EQ(asyncCount(), 0);
}

TEST_F(EciChannel, LostConnectionGivesTheChannelBack) {
    add("DATA", "before");
    EciParms p = channelParms(ECI_SYNC, "GATE");
    BoundedThread call([&] { return executeChannel(p); });
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    EXPECT_EQ(isLocked(), 1);
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    EXPECT_EQ(call.join(), std::optional<int>(KVL_ERR_LOSTGWCON));
    EXPECT_EQ(isLocked(), 0);
    add("AFTER", "usable");
    EXPECT_EQ(dataOf("DATA"), "before");
    EXPECT_EQ(dataOf("AFTER"), "usable");
}

// An asynchronous channel call that is never collected: the close gives its channel
// back, whether the call was still waiting or failed with the connection.
TEST_F(EciChannel, CloseUnlocksTheChannelOfAnUncollectedAsyncCall) {
    add("DATA", "x");
    for (bool lost : {true, false}) {
        SCOPED_TRACE(lost ? "lost, then purged" : "purged while waiting");
        EciParms p = channelParms(ECI_ASYNC, "GATE");
        ASSERT_EQ(executeChannel(p), ECI_NO_ERROR);
        ASSERT_TRUE(emu.waitForProgramCalls("GATE", lost ? 1 : 2, kWaitMs));
        if (lost) loseConnection();
        EXPECT_EQ(isLocked(), 1);  // a failed reply waits to be collected too
        EXPECT_EQ(KVL_purgeGatewayConnection(&token, 0), KVL_OK);
        EXPECT_EQ(isLocked(), 0);
        if (lost) {
            ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10), KVL_OK);
        }
    }
}

TEST_F(EciChannel, CommitNeitherLocksNorSendsTheChannel) {
    Bytes area(16, 0);
    EciParms open = callParms(ECI_SYNC, "LUW", area);
    open.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(execute(open), ECI_NO_ERROR);

    ASSERT_EQ(lockChannel(channel), ECI_NO_ERROR);  // held elsewhere: a lock attempt would wait
    EciParms p = channelParms(ECI_SYNC, "LUW");
    p.eci_extend_mode = ECI_COMMIT;
    p.eci_luw_token = open.eci_luw_token;
    BoundedThread call([&] { return executeChannel(p); });
    EXPECT_EQ(call.join(), std::optional<int>(ECI_NO_ERROR));
    EXPECT_EQ(isLocked(), 1);
    EXPECT_EQ(unlockChannel(channel), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[1].eci->channelFlag, 0);
    EXPECT_FALSE(flows[1].eci->channel.has_value());
}

TEST_F(EciChannel, CommitAndBackoutStillSettleAnUnsetCcsid) {
    int ccsid = 0;
    ASSERT_EQ(getCurrentCcsid(&ccsid), 0);
    for (short mode : {ECI_COMMIT, ECI_BACKOUT}) {
        Bytes area(16, 0);
        EciParms open = callParms(ECI_SYNC, "LUW", area);
        open.eci_extend_mode = ECI_EXTENDED;
        ASSERT_EQ(execute(open), ECI_NO_ERROR);
        chanTok fresh = nullptr;
        ASSERT_EQ(ECI_createChannel("LUWCHAN", &fresh), ECI_NO_ERROR);
        ASSERT_EQ(fresh->ccsid, -1) << "a new channel has no CCSID";
        TraceCapture trace(2);
        EciParms p = channelParms(ECI_SYNC, "LUW");
        p.eci_channel = fresh;
        p.eci_extend_mode = mode;
        p.eci_luw_token = open.eci_luw_token;
        EXPECT_EQ(executeChannel(p), ECI_NO_ERROR) << mode;
        EXPECT_EQ(fresh->ccsid, ccsid) << mode;
        EXPECT_TRUE(traced(trace, 1514, "Channel \"LUWCHAN\" CCSID set to " + std::to_string(ccsid))) << mode;
        EXPECT_EQ(fresh->isLocked, 0) << mode;
        EXPECT_EQ(ECI_deleteChannel(&fresh), ECI_NO_ERROR);
    }
}

TEST_F(EciChannel, ChecksComeInOrder) {
    TraceCapture trace(1);
    EciParms p = channelParms(ECI_SYNC, "CHANECHO");
    p.eci_version = 3;
    EXPECT_EQ(executeChannel(p), ECI_ERR_INVALID_VERSION);
    p.eci_version = 4;
    p.eci_channel = nullptr;
    EXPECT_EQ(executeChannel(p), ECI_ERR_INVALID_CHANNEL);
    Bytes area(4, 0);
    p.eci_channel = channel;
    p.eci_commarea = area.data();
    p.eci_commarea_length = 4;
    EXPECT_EQ(executeChannel(p), ECI_ERR_COMMAREA_AND_CHANNEL);
    p.eci_commarea = nullptr;
    p.eci_commarea_length = 0;
    p.eci_channel = &area;  // not a channel of this process
    EXPECT_EQ(executeChannel(p), ECI_ERR_INVALID_CHANNEL);
    p.eci_channel = channel;
    token->closing = 1;
    EXPECT_EQ(executeChannel(p), KVL_ERR_GWTOK_CLOSED);
    token->closing = 0;
    EXPECT_EQ(KVL_ECI_Execute_Channel(nullptr, &p), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_ECI_Execute_Channel(token, nullptr), KVL_ERR_NULLECIPOINTER);

    for (int id : {1508, 1509, 1511, 1512}) EXPECT_EQ(trace.linesWithId(id).size(), 1u) << id;
    EXPECT_EQ(trace.linesWithId(1510).size(), 2u);
    EXPECT_TRUE(eciFlows().empty());
    EXPECT_EQ(isLocked(), 0);
}

}  // namespace
