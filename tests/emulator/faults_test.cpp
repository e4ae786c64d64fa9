// Faults on demand and the flow record.
#include <algorithm>
#include <mutex>

#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

TEST_F(EmulatorTest, TriggeredPingPrecedesTheReplyOnceOrUntilCleared) {
    emu.injectOnRequest("ECHO", Fault::ping());
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 3, call("ECHO", text("x"))));
    EXPECT_EQ(nextFlow(*c, wire::kFlowPing).header.bodyLength, 0u);
    EXPECT_EQ(eciReply(*c, 3).commarea, text("x"));
    EXPECT_EQ(roundTrip(*c, 4, call("ECHO", text("y"))).commarea, text("y"));  // only once

    emu.injectOnRequest("ECHO", Fault::ping(), -1);
    for (int id = 5; id <= 7; ++id) {
        ASSERT_TRUE(sendEci(*c, id, call("ECHO", text("x"))));
        nextFlow(*c, wire::kFlowPing);
        eciReply(*c, id);
    }
    emu.clearFaults();
    EXPECT_EQ(roundTrip(*c, 8, call("ECHO", text("z"))).commarea, text("z"));
}

TEST_F(EmulatorTest, TriggeredStrayReplyPrecedesTheReplyExceptionAndErrorReplaceIt) {
    emu.injectOnRequest("ECHO", Fault::strayReply(999));
    emu.injectOnRequest("SHORT", Fault::exception("Server on fire"));
    emu.injectOnRequest("ABEND", Fault::errorFlow(61446));
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("ECHO", text("x"))));
    EXPECT_EQ(nextFlow(*c, wire::kFlowReply).header.messageId, 999);
    EXPECT_EQ(eciReply(*c, 1).commarea, text("x"));
    ASSERT_TRUE(sendEci(*c, 5, call("SHORT", text("x"))));
    auto ex = nextFlow(*c, wire::kFlowException);
    EXPECT_EQ(ex.header.messageId, 5);
    EXPECT_EQ(decodeAll<std::string>(ex.body, wire::decodeExceptionBody), "Server on fire");

    ASSERT_TRUE(sendEci(*c, 6, call("ABEND", text("x"))));
    auto err = nextFlow(*c, wire::kFlowError);
    EXPECT_EQ(err.header.messageId, 6);
    EXPECT_EQ(err.header.rc, 61446);
    EXPECT_EQ(err.header.requestType, "ECI");
    EXPECT_TRUE(emu.waitForRepliesSent(3, kWaitMs));
}

TEST_F(EmulatorTest, TriggeredGarbageIsNoHeader) {
    Bytes junk = text("0123456789012345678901234567890123456789");
    emu.injectOnRequest("ECHO", Fault::garbage(junk));
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("ECHO", text("x"))));
    ASSERT_TRUE(c->receiveAtLeast(junk.size(), kWaitMs));
    EXPECT_EQ(c->pending(), junk);
}

TEST_F(EmulatorTest, TriggeredCloseFlowAndDropsEndTheConnection) {
    emu.injectOnRequest(kTriggerAny, Fault::closeFlow());
    auto b = client();
    ASSERT_TRUE(sendEci(*b, 1, call("ECHO", text("x"))));
    EXPECT_EQ(nextFlow(*b, wire::kFlowClose).header.messageId, -1);
    EXPECT_TRUE(b->waitClosed(kWaitMs));

    emu.injectOnRequest("ECHO", Fault::drop());
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("ECHO", text("x"))));
    EXPECT_TRUE(c->waitClosed(kWaitMs));
    EXPECT_TRUE(c->pending().empty());

    emu.injectOnRequest("ECHO", Fault::dropMidReply());
    auto d = client();
    ASSERT_TRUE(sendEci(*d, 2, call("ECHO", Bytes(1000, 0x42))));
    EXPECT_TRUE(d->waitClosed(kWaitMs));
    // The header and part of the body came; the body did not complete.
    ASSERT_GT(d->pending().size(), 32u);
    wire::MemorySource src(d->pending());
    wire::Header h;
    std::string error;
    ASSERT_TRUE(wire::decodeHeader(src, h, error));
    EXPECT_EQ(h.messageId, 2);
    EXPECT_LT(src.remaining(), h.bodyLength);
}

TEST_F(EmulatorTest, NoReplySwallowsOnlyTheTriggeringRequest) {
    emu.injectOnRequest("GATE", Fault::noReply());
    emu.openGate();
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("GATE", text("lost"))));
    ASSERT_TRUE(sendEci(*c, 2, call("ECHO", text("kept"))));
    EXPECT_EQ(eciReply(*c, 2).commarea, text("kept"));
    EXPECT_FALSE(c->readFlow(kQuietMs));
}

TEST_F(EmulatorTest, FaultsForListSystemsAndEsiUseTheirTriggerNames) {
    emu.injectOnRequest(kTriggerListSystems, Fault::errorFlow(-9));
    emu.injectOnRequest(kTriggerEsi, Fault::exception("no security today"));
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, listSystems(4)));
    EXPECT_EQ(nextFlow(*c, wire::kFlowError).header.rc, -9);
    wire::EsiRequest esi;
    esi.userid = "U";
    esi.password = "p";
    ASSERT_TRUE(c->sendRequest(2, "ESI", wire::encodeEsiRequestBody(esi)));
    EXPECT_EQ(nextFlow(*c, wire::kFlowException).header.messageId, 2);
}

TEST_F(EmulatorTest, InjectedFaultsReachTheChosenConnection) {
    auto first = client("FIRST");
    auto second = client("SECOND");
    ASSERT_TRUE(emu.waitForHandshakes(2, kWaitMs));
    ASSERT_TRUE(emu.inject(Fault::ping(), 0));
    nextFlow(*first, wire::kFlowPing);
    EXPECT_FALSE(second->readFlow(kQuietMs));
    ASSERT_TRUE(emu.inject(Fault::exception("hello", 77)));  // latest: the second
    EXPECT_EQ(nextFlow(*second, wire::kFlowException).header.messageId, 77);
    ASSERT_TRUE(emu.inject(Fault::strayReply(55), 1));
    EXPECT_EQ(nextFlow(*second, wire::kFlowReply).header.messageId, 55);
    ASSERT_TRUE(emu.inject(Fault::errorFlow(-102, 9), 0));
    EXPECT_EQ(nextFlow(*first, wire::kFlowError).header.rc, -102);
    ASSERT_TRUE(emu.inject(Fault::garbage(), 1));
    EXPECT_TRUE(second->receiveAtLeast(8, kWaitMs));

    EXPECT_FALSE(emu.inject(Fault::dropMidReply()));
    EXPECT_FALSE(emu.inject(Fault::ping(), 42));

    ASSERT_TRUE(emu.inject(Fault::closeFlow(), 0));
    EXPECT_EQ(nextFlow(*first, wire::kFlowClose).header.messageId, -1);
    EXPECT_TRUE(first->waitClosed(kWaitMs));
    ASSERT_TRUE(emu.inject(Fault::drop(), 1));
    EXPECT_TRUE(second->waitClosed(kWaitMs));
    EXPECT_TRUE(emu.waitForConnectionClosed(1, kWaitMs));
}

TEST_F(EmulatorTest, RecordKeepsRawBytesAndDecodedBodiesUpToItsLimit) {
    auto c = client("APPL1");
    auto req = call("ECHO", text("abc"));
    req.userid = wire::nameField("ALICE");
    req.password = "pw";
    req.correlator = 1234;
    Bytes body = wire::encodeEciRequestBody(req);
    ASSERT_TRUE(c->sendRequest(4, "ECI", body));
    eciReply(*c, 4);

    ASSERT_TRUE(emu.waitForFlows(2, kWaitMs));
    auto flows = emu.recordedFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].kind, RecordedFlow::Kind::Handshake);
    ASSERT_TRUE(flows[0].handshake);
    EXPECT_EQ(flows[0].handshake->applidUtf8, "APPL1");
    EXPECT_EQ(flows[0].raw.size(), 33u + 27u);

    const auto& f = flows[1];
    EXPECT_EQ(f.kind, RecordedFlow::Kind::EciCall);
    EXPECT_EQ(f.sequence, 1u);
    EXPECT_EQ(f.header.messageId, 4);
    EXPECT_EQ(f.header.requestType, "ECI");
    EXPECT_EQ(f.bodyBytesRead, body.size());
    EXPECT_EQ(Bytes(f.raw.end() - static_cast<std::ptrdiff_t>(body.size()), f.raw.end()), body);
    ASSERT_TRUE(f.eci);
    EXPECT_EQ(f.eci->password, "pw");
    EXPECT_EQ(f.eci->passwordMasked, wire::mask("pw"));
    EXPECT_EQ(f.eci->correlator, 1234);
    EXPECT_EQ(f.eci->commarea, text("abc"));

    emu.clearRecordedFlows();
    EXPECT_EQ(emu.flowCount(), 0u);
    EXPECT_TRUE(emu.recordedFlows().empty());

    emu.setRecordLimit(2);  // keeps the newest
    for (int id = 5; id <= 7; ++id) roundTrip(*c, id, call("ECHO", text("x")));
    ASSERT_TRUE(emu.waitForFlows(3, kWaitMs));
    flows = emu.recordedFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].header.messageId, 6);
    EXPECT_EQ(flows[1].header.messageId, 7);
    EXPECT_EQ(emu.flowCount(), 3u);
}

TEST_F(EmulatorTest, MalformedFlowsAreRecordedAndCloseOnlyTheirConnection) {
    auto healthy = client("GOOD");
    auto bad = client("BAD");
    ASSERT_TRUE(bad->sendBytes(text("GARBAGE GARBAGE GARBAGE GARBAGE GARBAGE")));
    EXPECT_TRUE(bad->waitClosed(kWaitMs));

    emu.setMaxBodyLength(1000);
    auto big = client("BIG");
    ASSERT_TRUE(big->sendRequest(1, "ECI", {}, 5000));
    EXPECT_TRUE(big->waitClosed(kWaitMs));

    auto shortBody = client("SHORT");
    auto req = call("ECHO", Bytes(50, 1));
    Bytes body = wire::encodeEciRequestBody(req);
    body.resize(40);  // declared length says 40 but the COMMAREA needs 50
    ASSERT_TRUE(shortBody->sendRequest(1, "ECI", body));
    EXPECT_TRUE(shortBody->waitClosed(kWaitMs));

    ASSERT_TRUE(emu.waitForFlows(7, kWaitMs));
    size_t malformed = 0;
    for (const auto& f : emu.recordedFlows())
        if (f.kind == RecordedFlow::Kind::Malformed) {
            ++malformed;
            EXPECT_FALSE(f.error.empty());
        }
    EXPECT_EQ(malformed, 3u);
    EXPECT_EQ(roundTrip(*healthy, 1, call("ECHO", text("still here"))).commarea, text("still here"));
}

TEST_F(EmulatorTest, LogWritesOneLinePerRequestAndAtLevelTwoPerFlow) {
    std::vector<std::string> lines;
    std::mutex mu;
    emu.setLog(
        [&](const std::string& line) {
            std::lock_guard<std::mutex> lock(mu);
            lines.push_back(line);
        },
        2);
    auto c = client();
    roundTrip(*c, 1, call("ECHO", text("xyz")));
    ASSERT_TRUE(emu.waitForRepliesSent(1, kWaitMs));
    emu.setLog(nullptr, 0);  // the sink's captures end with this test
    auto has = [&](const std::string& a, const std::string& b) {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) {
            return l.find(a) != std::string::npos && l.find(b) != std::string::npos;
        });
    };
    EXPECT_TRUE(has("<- REQUEST ECI id=1", "program=ECHO"));
    // The request's own line: program, lengths, code and time.
    EXPECT_TRUE(has("conn 0 id 1 ECI ECHO in 3 out 3 rc 0 ", " ms"));
}
