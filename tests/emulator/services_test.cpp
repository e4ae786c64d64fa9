// Channels, the system list, ESI and secured servers.
#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

namespace {

wire::Container container(const std::string& name, const std::string& data, int8_t type = 2) {
    wire::Container c;
    c.name = wire::nameField(name);
    c.type = type;
    c.ccsid = 819;
    c.data = text(data);
    c.dataLength = static_cast<uint32_t>(data.size());
    return c;
}

wire::EciRequest channelCall(const std::string& program, std::vector<wire::Container> containers) {
    wire::EciRequest r;
    r.program = wire::nameField(program, 8);
    wire::Channel ch;
    ch.name = wire::nameField("MYCHANNEL");
    ch.ccsid = 819;
    ch.containers = std::move(containers);
    r.channel = ch;
    return r;
}

const wire::Container& entryNamed(const wire::Channel& ch, const std::string& name) {
    const wire::Container* c = ch.find(name);
    EXPECT_NE(c, nullptr) << name;
    static wire::Container none;
    return c ? *c : none;
}

wire::EsiReply esi(RawClient& c, int32_t id, const wire::EsiRequest& r) {
    EXPECT_TRUE(c.sendRequest(id, "ESI", wire::encodeEsiRequestBody(r)));
    auto f = nextFlow(c, wire::kFlowReply);
    EXPECT_EQ(f.header.messageId, id);
    EXPECT_EQ(f.header.requestType, "ESI");
    return decodeAll<wire::EsiReply>(f.body, wire::decodeEsiReplyBody);
}

wire::EsiRequest verify(const std::string& user, const std::string& pw, const std::string& server = "") {
    wire::EsiRequest r;
    r.userid = user;
    r.password = pw;
    r.server = wire::nameField(server, 8);
    return r;
}

}  // namespace

TEST_F(EmulatorTest, ChannelEchoReturnsEveryContainerModifiedOtherProgramsNone) {
    auto c = client();
    auto req = channelCall("CHANECHO", {container("ONE", "first"), container("TWO", std::string(1000, 'x'), 1)});
    auto reply = roundTrip(*c, 1, req);
    EXPECT_EQ(reply.rc, 0);
    ASSERT_TRUE(reply.channel);
    EXPECT_EQ(wire::fieldText(reply.channel->name), "MYCHANNEL");
    EXPECT_EQ(reply.channel->ccsid, 819);
    ASSERT_EQ(reply.channel->containers.size(), 2u);
    for (const auto& ct : reply.channel->containers) EXPECT_EQ(ct.state, wire::kContainerModified);
    EXPECT_EQ(entryNamed(*reply.channel, "ONE").data, text("first"));
    EXPECT_EQ(entryNamed(*reply.channel, "TWO").data.size(), 1000u);
    EXPECT_EQ(entryNamed(*reply.channel, "TWO").type, 1);

    // A program that does not answer with a channel leaves every container unchanged.
    reply = roundTrip(*c, 2, channelCall("ECHO", {container("ONLY", "data")}));
    ASSERT_TRUE(reply.channel);
    ASSERT_EQ(reply.channel->containers.size(), 1u);
    EXPECT_EQ(reply.channel->containers[0].state, wire::kContainerUnchanged);
}

TEST_F(EmulatorTest, ChannelControlAddsModifiesDeletesAndLeavesUnchanged) {
    auto c = client();
    auto req = channelCall("CHANCTL", {container("EMUCTL", "ADD NEW1 fresh data;MOD KEEPME2 changed\nDEL GOAWAY"),
                                       container("KEEPME1", "same"), container("KEEPME2", "old"),
                                       container("GOAWAY", "bye")});
    auto reply = roundTrip(*c, 1, req);
    ASSERT_TRUE(reply.channel);
    const auto& ch = *reply.channel;
    ASSERT_EQ(ch.containers.size(), 5u);
    EXPECT_EQ(entryNamed(ch, "KEEPME1").state, wire::kContainerUnchanged);
    EXPECT_TRUE(entryNamed(ch, "KEEPME1").data.empty());  // unchanged entries carry no data
    EXPECT_EQ(entryNamed(ch, "KEEPME2").state, wire::kContainerModified);
    EXPECT_EQ(entryNamed(ch, "KEEPME2").data, text("changed"));
    EXPECT_EQ(entryNamed(ch, "GOAWAY").state, wire::kContainerDeleted);
    EXPECT_EQ(entryNamed(ch, "NEW1").state, wire::kContainerAdded);
    EXPECT_EQ(entryNamed(ch, "NEW1").data, text("fresh data"));
    EXPECT_EQ(entryNamed(ch, "NEW1").type, 2);
}

TEST_F(EmulatorTest, ChannelRequestsDeclaringFourExtraBytesPerContainerKeepTheStreamInStep) {
    auto c = client();
    auto req = channelCall("CHANECHO", {container("A", "aaa"), container("B", "bbbb"), container("C", "")});
    // Two requests back to back: if the emulator waited for the declared
    // extra bytes it would eat the second request's header.
    ASSERT_TRUE(sendEci(*c, 1, req));
    ASSERT_TRUE(sendEci(*c, 2, call("ECHO", text("next"))));
    auto replies = std::vector<std::optional<RawClient::Flow>>{c->readFlow(kWaitMs), c->readFlow(kWaitMs)};
    ASSERT_TRUE(replies[0] && replies[1]);
    EXPECT_EQ(replies[0]->header.messageId + replies[1]->header.messageId, 3);

    ASSERT_TRUE(emu.waitForFlows(3, kWaitMs));
    auto flows = emu.recordedFlows();
    const auto& chanFlow = flows[1];
    EXPECT_EQ(chanFlow.kind, RecordedFlow::Kind::EciCall);
    EXPECT_EQ(chanFlow.header.bodyLength, chanFlow.bodyBytesRead + 12);
    ASSERT_TRUE(chanFlow.eci && chanFlow.eci->channel);
    EXPECT_EQ(chanFlow.eci->channel->containers.size(), 3u);
}

TEST_F(EmulatorTest, ListSystemsReportsCountMoreAndNone) {
    emu.addServer({"SRV2", "Second server", false});
    emu.addServer({"SRV3", "Third server", false});
    auto c = client();
    auto list = [&](int32_t capacity) { return roundTrip(*c, 9, listSystems(capacity)); };

    auto all = list(5);
    EXPECT_EQ(all.rc, 0);
    EXPECT_EQ(all.listParm, 3);
    EXPECT_EQ(all.commarea, cat({wire::encodeSystemEntry("EMUSRV", "Gateway emulator server"),
                                 wire::encodeSystemEntry("SRV2", "Second server"),
                                 wire::encodeSystemEntry("SRV3", "Third server")}));

    auto some = list(2);
    EXPECT_EQ(some.rc, rc::kMoreSystems);
    EXPECT_EQ(some.listParm, 3);
    EXPECT_EQ(some.commarea.size(), 2 * wire::kSystemEntrySize);

    auto zero = list(0);
    EXPECT_EQ(zero.rc, rc::kMoreSystems);
    EXPECT_TRUE(zero.commarea.empty());

    emu.clearServers();
    auto none = list(5);
    EXPECT_EQ(none.rc, rc::kNoSystems);
    EXPECT_EQ(none.listParm, 0);
    EXPECT_TRUE(none.commarea.empty());
}

TEST_F(EmulatorTest, EsiVerifyAnswersWithTheGatewayCodes) {
    emu.addUser({.userid = "ALICE", .password = "pw1"});
    emu.addUser({.userid = "OLD", .password = "pw", .expired = true});
    emu.addUser({.userid = "LOCKED", .password = "pw", .revoked = true});
    emu.addUser({.userid = "FORCED", .password = "pw", .forcedRc = -28});

    auto c = client();
    auto ok = esi(*c, 1, verify("ALICE", "pw1"));
    EXPECT_EQ(ok.rc, 0);
    EXPECT_EQ(ok.details, User::defaultDetails());
    EXPECT_EQ(esi(*c, 2, verify("NOBODY", "pw")).rc, rc::kEsiUseridInvalid);
    EXPECT_EQ(esi(*c, 3, verify("ALICE", "wrong")).rc, rc::kEsiPasswordInvalid);
    EXPECT_EQ(esi(*c, 4, verify("OLD", "pw")).rc, rc::kEsiPasswordExpired);
    EXPECT_EQ(esi(*c, 5, verify("LOCKED", "pw")).rc, rc::kSecurityError);
    EXPECT_EQ(esi(*c, 6, verify("FORCED", "pw")).rc, -28);
    EXPECT_EQ(esi(*c, 7, verify("", "pw")).rc, rc::kEsiNullUserid);
    EXPECT_EQ(esi(*c, 8, verify("ALICE", "")).rc, rc::kEsiNullPassword);
    EXPECT_EQ(esi(*c, 9, verify("ALICE", "pw1", "NOWHERE")).rc, rc::kUnknownServer);
    EXPECT_EQ(esi(*c, 10, verify("ALICE", "pw1", "EMUSRV")).rc, 0);
}

TEST_F(EmulatorTest, EsiChangeRejectsBadNewPasswordsAndStoresGoodOnes) {
    User bob{.userid = "BOB", .password = "old", .expired = true};
    bob.details[21] = 5;
    emu.addUser(bob);
    auto c = client();
    auto change = [](const std::string& oldPw, const std::string& newPw) {
        wire::EsiRequest r = verify("BOB", oldPw);
        r.type = 1;
        r.newPassword = newPw;
        return r;
    };
    EXPECT_EQ(esi(*c, 1, change("old", "old")).rc, rc::kEsiPasswordRejected);
    EXPECT_EQ(esi(*c, 2, change("old", "muchtoolong")).rc, rc::kEsiPasswordRejected);
    EXPECT_EQ(esi(*c, 3, change("old", "")).rc, rc::kEsiNullNewPassword);
    EXPECT_EQ(esi(*c, 4, change("bad", "new1")).rc, rc::kEsiPasswordInvalid);
    auto ok = esi(*c, 5, change("old", "new1"));
    EXPECT_EQ(ok.rc, 0);
    EXPECT_EQ(ok.details[21], 5);
    auto stored = emu.user("BOB");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->password, "new1");
    EXPECT_FALSE(stored->expired);
    EXPECT_EQ(esi(*c, 6, verify("BOB", "new1")).rc, 0);
}

TEST_F(EmulatorTest, SecuredServerChecksEciCredentials) {
    emu.addServer({"SECURE", "needs a password", true});
    emu.addUser({.userid = "CAROL", .password = "letmein"});
    auto c = client();
    auto req = call("ECHO", text("x"));
    req.serverName = wire::nameField("SECURE", 8);
    req.userid = wire::nameField("CAROL");
    req.password = "wrong";
    EXPECT_EQ(roundTrip(*c, 1, req).rc, rc::kSecurityError);
    req.password = "letmein";
    EXPECT_EQ(roundTrip(*c, 2, req).rc, 0);
    req.userid = wire::nameField("DAVE");
    EXPECT_EQ(roundTrip(*c, 3, req).rc, rc::kSecurityError);
    EXPECT_EQ(emu.programCallCount("ECHO"), 1u);
}
