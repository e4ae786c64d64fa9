// Serving: handshake modes, program replies, ordering, units of work, concurrency.
#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

namespace {

wire::EciRequest unitCall(const std::string& program, int32_t extendMode, int32_t token) {
    wire::EciRequest r;
    r.program = wire::nameField(program, 8);
    r.extendMode = extendMode;
    r.luwToken = token;
    r.commareaLength = 20;
    r.commarea = Bytes(20, 0);
    return r;
}

bool startsWith(const Bytes& data, const std::string& prefix) {
    return data.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), data.begin());
}

}  // namespace

TEST_F(EmulatorTest, HandshakeModesAnswerRefuseStaySilentOrDrop) {
    struct Case {
        HandshakeMode mode;
        int32_t answer;  // flow type, 0 for none
        bool closes;
    };
    const Case cases[] = {
        {HandshakeMode::Accept, wire::kFlowHandshake, false},   {HandshakeMode::Refuse, wire::kFlowError, false},
        {HandshakeMode::Silent, 0, false},                      {HandshakeMode::DropOnAccept, 0, true},
        {HandshakeMode::DropOnHandshake, 0, true},              {HandshakeMode::AcceptThenDrop, wire::kFlowHandshake, true},
    };
    std::vector<std::unique_ptr<RawClient>> clients;
    for (const Case& k : cases) {
        SCOPED_TRACE(static_cast<int>(k.mode));
        emu.setHandshake(k.mode, 61450);
        clients.push_back(connected());
        RawClient& c = *clients.back();
        auto answer = c.handshake("APPL\xE9", "QUAL1", k.answer || k.closes ? kWaitMs : kQuietMs);
        ASSERT_EQ(answer.has_value(), k.answer != 0);
        if (answer) {
            EXPECT_EQ(answer->header.flowType, k.answer);
            EXPECT_EQ(answer->header.messageId, wire::kHandshakeMessageId);
            EXPECT_EQ(answer->header.requestType, "BASE");
            EXPECT_EQ(answer->header.rc, k.mode == HandshakeMode::Refuse ? 61450 : 0);
        }
        EXPECT_EQ(k.closes ? c.waitClosed(kWaitMs) : c.ended(), k.closes);
    }
    EXPECT_TRUE(emu.waitForHandshakes(3, kWaitMs));  // the silent one counts too
    EXPECT_TRUE(emu.waitForConnectionClosed(5, kWaitMs));
    auto conns = emu.connections();
    ASSERT_EQ(conns.size(), 6u);
    EXPECT_EQ(conns[0].applid, "APPL\xE9");
    EXPECT_EQ(conns[0].qualifier, "QUAL1");
    EXPECT_TRUE(conns[0].open);
}

TEST_F(EmulatorTest, EchoReturnsWhatOutboundInboundAndShortRepliesAllow) {
    auto c = client();
    Bytes data = text("Hello, Gateway!");
    auto reply = roundTrip(*c, 1, call("ECHO", data));
    EXPECT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.commareaLength, static_cast<int32_t>(data.size()));
    EXPECT_FALSE(reply.explicitCount);
    EXPECT_EQ(reply.commarea, data);
    EXPECT_EQ(emu.programCallCount("ECHO"), 1u);

    // Only 10 of 100 bytes sent: the rest of the program's COMMAREA is zero.
    auto req = call("ECHO", Bytes(10, 0x31));
    req.commareaLength = 100;
    req.outboundLength = 10;
    reply = roundTrip(*c, 2, req);
    EXPECT_EQ(reply.commarea, cat({Bytes(10, 0x31), Bytes(90, 0)}));

    // The client expects only 20 back.
    auto in = call("ECHO", Bytes(100, 0x32));
    in.inboundLength = 20;
    reply = roundTrip(*c, 3, in);
    EXPECT_TRUE(reply.explicitCount);
    EXPECT_EQ(reply.count, 20);
    EXPECT_EQ(reply.commareaLength, 100);
    EXPECT_EQ(reply.commarea, Bytes(20, 0x32));

    reply = roundTrip(*c, 4, call("SHORT", Bytes(100, 0x33)));
    EXPECT_TRUE(reply.explicitCount);
    EXPECT_EQ(reply.count, 50);
    EXPECT_EQ(reply.commarea.size(), 50u);
}

TEST_F(EmulatorTest, AbendsUnknownProgramsThrowingProgramsAndServerRouting) {
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

    emu.registerProgram("THROWS", [](const ProgramCall&) -> ProgramResult { throw std::runtime_error("boom"); });
    reply = roundTrip(*c, 5, call("THROWS", text("x")));  // abends instead of crashing
    EXPECT_EQ(reply.rc, rc::kTransactionAbend);
    EXPECT_EQ(reply.abend, "EXCP");

    emu.clearServers();
    EXPECT_EQ(roundTrip(*c, 6, call("ECHO", text("abc"))).rc, rc::kNoServer);
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

TEST_F(EmulatorTest, SlowProgramDoesNotHoldUpAFastOneOnTheSameConnection) {
    auto c = client();
    ASSERT_TRUE(sendEci(*c, 1, call("GATE", text("first"))));
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    ASSERT_TRUE(sendEci(*c, 2, call("ECHO", text("second"))));
    EXPECT_EQ(eciReply(*c, 2).commarea, text("second"));
    emu.releaseGate();
    EXPECT_EQ(eciReply(*c, 1).commarea, text("first"));
}

TEST_F(EmulatorTest, DelayProgramAnswersAndStopInterruptsDelaysAndGateWaiters) {
    auto c = client();
    EXPECT_EQ(roundTrip(*c, 1, call("DELAY", text("20"))).commarea, text("20"));
    ASSERT_TRUE(sendEci(*c, 2, call("DELAY", text("60000"))));
    ASSERT_TRUE(sendEci(*c, 3, call("GATE", text("x"))));
    ASSERT_TRUE(emu.waitForProgramCalls("DELAY", 2, kWaitMs));
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    emu.stop();  // must not wait a minute
    EXPECT_FALSE(emu.running());
    EXPECT_TRUE(c->waitClosed(kWaitMs));
    EXPECT_EQ(emu.openConnectionCount(), 0u);
}

TEST_F(EmulatorTest, UnitOfWorkOpensContinuesAndEnds) {
    auto c = client();
    auto first = roundTrip(*c, 1, unitCall("LUW", 1, 0));
    ASSERT_EQ(first.rc, 0);
    ASSERT_NE(first.luwToken, 0);
    const int32_t token = first.luwToken;
    EXPECT_TRUE(startsWith(first.commarea, "LUW " + std::to_string(token) + " CALL 1"));
    auto second = roundTrip(*c, 1, unitCall("LUW", 1, token));
    EXPECT_EQ(second.luwToken, token);
    EXPECT_TRUE(startsWith(second.commarea, "LUW " + std::to_string(token) + " CALL 2"));

    auto ended = roundTrip(*c, 1, unitCall("", 2, token));
    EXPECT_EQ(ended.rc, 0);
    EXPECT_EQ(ended.luwToken, 0);
    EXPECT_TRUE(ended.commarea.empty());
    EXPECT_EQ(roundTrip(*c, 1, unitCall("", 2, token)).rc, rc::kLuwToken);  // the token is gone now

    int32_t another = roundTrip(*c, 2, unitCall("LUW", 1, 0)).luwToken;
    EXPECT_EQ(roundTrip(*c, 2, unitCall("", 4, another)).rc, 0);

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
    EXPECT_EQ(roundTrip(*c, 1, unitCall("ECHO", 1, 4242)).rc, rc::kLuwToken);
    EXPECT_EQ(roundTrip(*c, 1, unitCall("ECHO", 3, 0)).rc, rc::kInvalidExtendMode);

    // A failing program backs its unit of work out.
    int32_t token = roundTrip(*c, 1, unitCall("ECHO", 1, 0)).luwToken;
    auto failed = roundTrip(*c, 1, unitCall("ABEND", 1, token));
    EXPECT_EQ(failed.rc, rc::kTransactionAbend);
    EXPECT_EQ(failed.luwToken, 0);

    int32_t left = roundTrip(*c, 2, unitCall("ECHO", 1, 0)).luwToken;
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
                if (decodeEciReply(f->body, 0).commarea == text(payload)) ++good;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kClients * kCalls);
    EXPECT_EQ(emu.connectionCount(), static_cast<size_t>(kClients));
    EXPECT_EQ(emu.programCallCount("ECHO"), static_cast<size_t>(kClients * kCalls));
}

TEST_F(EmulatorTest, UnknownRequestTypeGetsAnErrorFlowAndACloseFlowEndsTheConnection) {
    auto c = client();
    ASSERT_TRUE(c->sendRequest(5, "XYZ", text("body")));
    auto f = nextFlow(*c, wire::kFlowError);
    EXPECT_EQ(f.header.messageId, 5);
    EXPECT_EQ(f.header.rc, rc::kInvalidRequestType);
    EXPECT_EQ(roundTrip(*c, 6, call("ECHO", text("ok"))).commarea, text("ok"));  // still usable

    ASSERT_TRUE(c->sendFlow({.flowType = wire::kFlowClose, .messageId = wire::kCloseMessageId, .requestType = "BASE"}, {}));
    EXPECT_EQ(nextFlow(*c, wire::kFlowClose).header.messageId, -1);
    EXPECT_TRUE(c->waitClosed(kWaitMs));
    EXPECT_TRUE(emu.waitForConnectionClosed(0, kWaitMs));
}
