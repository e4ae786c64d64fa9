// Serving: handshake modes, program replies, ordering, units of work, concurrency.
#include <atomic>
#include <thread>
#include <vector>

#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

TEST_F(EmulatorTest, HandshakeIsAnsweredAndApplidRecorded) {
    RawClient c;
    ASSERT_TRUE(c.connect("127.0.0.1", emu.port()));
    auto answer = c.handshake("APPL\xE9", "QUAL1", kWaitMs);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.flowType, wire::kFlowHandshake);
    EXPECT_EQ(answer->header.messageId, wire::kHandshakeMessageId);
    EXPECT_EQ(answer->header.requestType, "BASE");
    ASSERT_TRUE(emu.waitForHandshakes(1, kWaitMs));
    auto conns = emu.connections();
    ASSERT_EQ(conns.size(), 1u);
    EXPECT_EQ(conns[0].applid, "APPL\xE9");
    EXPECT_EQ(conns[0].qualifier, "QUAL1");
    EXPECT_TRUE(conns[0].open);
}

TEST_F(EmulatorTest, RefusedHandshakeGetsErrorFlowWithChosenRc) {
    emu.setHandshake(HandshakeMode::Refuse, 61450);
    RawClient c;
    ASSERT_TRUE(c.connect("127.0.0.1", emu.port()));
    auto answer = c.handshake("APPL1", "", kWaitMs);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.flowType, wire::kFlowError);
    EXPECT_EQ(answer->header.messageId, -2);
    EXPECT_EQ(answer->header.rc, 61450);
}

TEST_F(EmulatorTest, SilentHandshakeNeverAnswersButKeepsTheConnection) {
    emu.setHandshake(HandshakeMode::Silent);
    RawClient c;
    ASSERT_TRUE(c.connect("127.0.0.1", emu.port()));
    EXPECT_FALSE(c.handshake("APPL1", "", kQuietMs));
    EXPECT_FALSE(c.ended());
    EXPECT_TRUE(emu.waitForHandshakes(1, kWaitMs));
}

TEST_F(EmulatorTest, HandshakeDropModesCloseTheConnection) {
    struct Case {
        HandshakeMode mode;
        bool answered;
    };
    for (auto [mode, answered] : {Case{HandshakeMode::DropOnAccept, false}, Case{HandshakeMode::DropOnHandshake, false},
                                  Case{HandshakeMode::AcceptThenDrop, true}}) {
        emu.setHandshake(mode);
        RawClient c;
        ASSERT_TRUE(c.connect("127.0.0.1", emu.port()));
        auto answer = c.handshake("APPL1", "", kWaitMs);
        EXPECT_EQ(answer.has_value(), answered);
        EXPECT_TRUE(c.waitClosed(kWaitMs));
    }
    EXPECT_TRUE(emu.waitForConnectionClosed(2, kWaitMs));
    EXPECT_EQ(emu.connectionCount(), 3u);
}

TEST_F(EmulatorTest, EchoReturnsTheWholeCommarea) {
    auto c = client();
    Bytes data = text("Hello, Gateway!");
    auto reply = roundTrip(*c, 1, call("ECHO", data));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.commareaLength, static_cast<int32_t>(data.size()));
    EXPECT_FALSE(reply.explicitCount);
    EXPECT_EQ(reply.commarea, data);
    EXPECT_EQ(emu.programCallCount("ECHO"), 1u);
}

TEST_F(EmulatorTest, ReturnedBytesFollowOutboundInboundAndShortReplies) {
    auto c = client();
    // Only 10 of 100 bytes sent: the rest of the program's COMMAREA is zero.
    auto req = call("ECHO", Bytes(10, 0x31));
    req.commareaLength = 100;
    req.outboundLength = 10;
    auto reply = roundTrip(*c, 1, req);
    EXPECT_EQ(reply.commarea.size(), 100u);
    EXPECT_EQ(reply.commarea[9], 0x31);
    EXPECT_EQ(reply.commarea[10], 0);

    // The client expects only 20 back.
    auto in = call("ECHO", Bytes(100, 0x32));
    in.inboundLength = 20;
    reply = roundTrip(*c, 2, in);
    EXPECT_TRUE(reply.explicitCount);
    EXPECT_EQ(reply.count, 20);
    EXPECT_EQ(reply.commareaLength, 100);
    EXPECT_EQ(reply.commarea, Bytes(20, 0x32));

    reply = roundTrip(*c, 3, call("SHORT", Bytes(100, 0x33)));
    EXPECT_TRUE(reply.explicitCount);
    EXPECT_EQ(reply.count, 50);
    EXPECT_EQ(reply.commarea.size(), 50u);
}

TEST_F(EmulatorTest, AbendUnknownProgramAndServerRouting) {
    auto c = client();
    auto reply = roundTrip(*c, 1, call("ABEND", text("XY12 rest")));
    EXPECT_EQ(reply.rc, rc::kTransactionAbend);
    EXPECT_EQ(reply.abend, "XY12");

    reply = roundTrip(*c, 2, call("NOSUCH", text("abc")));
    EXPECT_EQ(reply.rc, rc::kTransactionAbend);
    EXPECT_EQ(reply.abend, kUnknownProgramAbend);
    EXPECT_EQ(reply.count, 0);

    auto named = call("ECHO", text("abc"));
    named.serverName = wire::nameField("NOWHERE", 8);
    reply = roundTrip(*c, 3, named);
    EXPECT_EQ(reply.rc, rc::kUnknownServer);

    emu.addServer({"SRV2", "second", false});
    named.serverName = wire::nameField("SRV2", 8, ' ');  // blank padding works too
    reply = roundTrip(*c, 4, named);
    EXPECT_EQ(reply.rc, 0);

    emu.clearServers();
    reply = roundTrip(*c, 5, call("ECHO", text("abc")));
    EXPECT_EQ(reply.rc, rc::kNoServer);
}

TEST_F(EmulatorTest, RegisteredProgramSeesTheDecodedCall) {
    ProgramCall seen;
    emu.registerProgram("MYPROG", [&](const ProgramCall& call) {
        seen = call;
        ProgramResult r;
        r.commarea = text("done");
        r.rc = -30;
        r.abend = "ROLL";
        return r;
    });
    auto c = client();
    auto req = call("MYPROG", text("input"));
    req.userid = wire::nameField("ALICE");
    req.password = "s3cret";
    req.tranId = "TR01";
    req.timeout = 30;
    auto reply = roundTrip(*c, 7, req);
    EXPECT_EQ(reply.rc, -30);
    EXPECT_EQ(reply.abend, "ROLL");
    EXPECT_EQ(reply.commarea, (Bytes{'d', 'o', 'n', 'e', 0}));
    EXPECT_EQ(seen.program, "MYPROG");
    EXPECT_EQ(seen.userid, "ALICE");
    EXPECT_EQ(seen.password, "s3cret");
    EXPECT_EQ(seen.tranId, "TR01");
    EXPECT_EQ(seen.server, "EMUSRV");
    EXPECT_EQ(seen.timeout, 30);
    EXPECT_EQ(seen.messageId, 7);
    EXPECT_EQ(seen.commarea, text("input"));
}

TEST_F(EmulatorTest, ThrowingProgramAbendsInsteadOfCrashing) {
    emu.registerProgram("THROWS", [](const ProgramCall&) -> ProgramResult { throw std::runtime_error("boom"); });
    auto c = client();
    auto reply = roundTrip(*c, 1, call("THROWS", text("x")));
    EXPECT_EQ(reply.rc, rc::kTransactionAbend);
    EXPECT_EQ(reply.abend, "EXCP");
}

TEST_F(EmulatorTest, SlowProgramDoesNotHoldUpAFastOneOnTheSameConnection) {
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("GATE", text("first"))));
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    ASSERT_TRUE(sendEci(*c, 2, call("ECHO", text("second"))));
    auto fast = eciReply(*c, 2);
    EXPECT_EQ(fast.commarea, text("second"));
    emu.releaseGate();
    auto slow = eciReply(*c, 1);
    EXPECT_EQ(slow.commarea, text("first"));
}

TEST_F(EmulatorTest, DelayProgramAnswersAndStopInterruptsIt) {
    auto c = client();
    auto reply = roundTrip(*c, 1, call("DELAY", text("20")));
    EXPECT_EQ(reply.commarea, text("20"));

    ASSERT_TRUE(sendEci(*c, 2, call("DELAY", text("60000"))));
    ASSERT_TRUE(emu.waitForProgramCalls("DELAY", 2, kWaitMs));
    emu.stop();  // must not wait a minute
    EXPECT_FALSE(emu.running());
}

TEST_F(EmulatorTest, StopReleasesGateWaitersAndClosesConnections) {
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("GATE", text("x"))));
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    emu.stop();
    EXPECT_TRUE(c->waitClosed(kWaitMs));
    EXPECT_EQ(emu.openConnectionCount(), 0u);
}

TEST_F(EmulatorTest, UnitOfWorkOpensContinuesAndEnds) {
    auto c = client();
    auto open = call("LUW", Bytes(20, 0));
    open.extendMode = 1;
    auto first = roundTrip(*c, 1, open);
    ASSERT_EQ(first.rc, 0);
    ASSERT_NE(first.luwToken, 0);
    const int32_t token = first.luwToken;
    const std::string call1 = "LUW " + std::to_string(token) + " CALL 1";
    EXPECT_EQ(std::string(first.commarea.begin(), first.commarea.begin() + call1.size()), call1);

    auto more = open;
    more.luwToken = token;
    auto second = roundTrip(*c, 1, more);
    EXPECT_EQ(second.luwToken, token);
    const std::string call2 = "LUW " + std::to_string(token) + " CALL 2";
    EXPECT_EQ(std::string(second.commarea.begin(), second.commarea.begin() + call2.size()), call2);

    auto commit = call("", Bytes(20, 0));
    commit.extendMode = 2;
    commit.luwToken = token;
    auto ended = roundTrip(*c, 1, commit);
    EXPECT_EQ(ended.rc, 0);
    EXPECT_EQ(ended.luwToken, 0);
    EXPECT_TRUE(ended.commarea.empty());

    // The token is gone now.
    auto again = roundTrip(*c, 1, commit);
    EXPECT_EQ(again.rc, rc::kLuwToken);

    auto second_luw = roundTrip(*c, 2, open);
    auto backout = commit;
    backout.extendMode = 4;
    backout.luwToken = second_luw.luwToken;
    EXPECT_EQ(roundTrip(*c, 2, backout).rc, 0);

    auto events = emu.luwEvents();
    ASSERT_EQ(events.size(), 4u);
    EXPECT_EQ(events[0].kind, LuwEvent::Kind::Opened);
    EXPECT_EQ(events[1].kind, LuwEvent::Kind::Committed);
    EXPECT_EQ(events[1].token, token);
    EXPECT_EQ(events[2].kind, LuwEvent::Kind::Opened);
    EXPECT_EQ(events[3].kind, LuwEvent::Kind::BackedOut);
}

TEST_F(EmulatorTest, UnitOfWorkErrorsAndAbandonment) {
    auto c = client();
    auto bad = call("ECHO", text("x"));
    bad.extendMode = 1;
    bad.luwToken = 4242;
    EXPECT_EQ(roundTrip(*c, 1, bad).rc, rc::kLuwToken);
    bad.extendMode = 3;
    bad.luwToken = 0;
    EXPECT_EQ(roundTrip(*c, 1, bad).rc, rc::kInvalidExtendMode);

    // A failing program backs its unit of work out.
    auto open = call("ECHO", text("x"));
    open.extendMode = 1;
    int32_t token = roundTrip(*c, 1, open).luwToken;
    auto fail = call("ABEND", text("x"));
    fail.extendMode = 1;
    fail.luwToken = token;
    auto failed = roundTrip(*c, 1, fail);
    EXPECT_EQ(failed.rc, rc::kTransactionAbend);
    EXPECT_EQ(failed.luwToken, 0);

    int32_t left = roundTrip(*c, 2, open).luwToken;
    c->close();
    ASSERT_TRUE(emu.waitForConnectionClosed(0, kWaitMs));
    auto events = emu.luwEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().kind, LuwEvent::Kind::Abandoned);
    EXPECT_EQ(events.back().token, left);
}

TEST_F(EmulatorTest, ManyConnectionsWorkAtOnce) {
    constexpr int kClients = 8;
    constexpr int kCalls = 10;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kClients; ++t) {
        threads.emplace_back([&, t] {
            RawClient c;
            if (!c.connect("127.0.0.1", emu.port()) || !c.handshake("APPL" + std::to_string(t), "", kWaitMs)) return;
            for (int i = 1; i <= kCalls; ++i) {
                std::string payload = "client " + std::to_string(t) + " call " + std::to_string(i);
                auto r = call("ECHO", text(payload));
                if (!c.sendRequest(i, "ECI", wire::encodeEciRequestBody(r))) return;
                auto f = c.readFlow(kWaitMs);
                if (!f || f->header.messageId != i) return;
                wire::MemorySource src(f->body);
                wire::EciReply reply;
                std::string error;
                if (wire::decodeEciReplyBody(src, 0, reply, error) && reply.commarea == text(payload)) ++good;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kClients * kCalls);
    EXPECT_EQ(emu.connectionCount(), static_cast<size_t>(kClients));
    EXPECT_EQ(emu.programCallCount("ECHO"), static_cast<size_t>(kClients * kCalls));
}

TEST_F(EmulatorTest, ClientCloseFlowIsAnsweredAndTheConnectionEnds) {
    auto c = client();
    wire::Header close;
    close.flowType = wire::kFlowClose;
    close.messageId = wire::kCloseMessageId;
    close.requestType = "BASE";
    ASSERT_TRUE(c->sendFlow(close, {}));
    auto answer = c->readFlow(kWaitMs);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->header.flowType, wire::kFlowClose);
    EXPECT_EQ(answer->header.messageId, -1);
    EXPECT_TRUE(c->waitClosed(kWaitMs));
    EXPECT_TRUE(emu.waitForConnectionClosed(0, kWaitMs));
}

TEST_F(EmulatorTest, UnknownRequestTypeGetsAnErrorFlow) {
    auto c = client();
    ASSERT_TRUE(c->sendRequest(5, "XYZ", text("body")));
    auto f = c->readFlow(kWaitMs);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->header.flowType, wire::kFlowError);
    EXPECT_EQ(f->header.messageId, 5);
    EXPECT_EQ(f->header.rc, rc::kInvalidRequestType);
    // The connection is still usable.
    EXPECT_EQ(roundTrip(*c, 6, call("ECHO", text("ok"))).commarea, text("ok"));
}
