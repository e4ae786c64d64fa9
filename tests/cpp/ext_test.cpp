// The extensions through the C++ interface: connection options, deadlines with
// the library's text, statistics, and the end of a connection while many
// asynchronous calls are in flight.
#include "cpp_fixture.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <vector>

using namespace std::chrono_literals;

namespace {

kvl::ConnectOptions options(int port) {
    return {.host = "127.0.0.1", .port = port, .applid = "EXTAPPL", .connect_timeout = 5000ms};
}

// The kvl::Error that `body` throws; fails the test when it throws none.
template <class Body>
kvl::Error errorOf(Body body) {
    try {
        body();
    } catch (const kvl::Error& e) {
        return e;
    }
    ADD_FAILURE() << "no kvl::Error thrown";
    return kvl::Error(0);
}

}  // namespace

TEST_F(CppTest, OptionsOpenCallsAndKeepTheirDeadline) {
    kvl::ConnectOptions o = options(emu.port());
    o.deadline = 2500ms;
    o.keep_alive_idle = 30s;
    kvl::Connection c(o);
    EXPECT_EQ(c.applid(), "EXTAPPL");
    EXPECT_EQ(c.deadline(), 2500ms);
    EXPECT_EQ(c.call("ECHO", "with options").text(), "with options");
    c.set_deadline(0ms);
    EXPECT_EQ(c.deadline(), 0ms);
    EXPECT_EQ(rcOf([&] { c.set_deadline(-1ms); }), KVL_EXT_ERR_BADDEADLINE);
}

TEST_F(CppTest, OptionsOpenFailuresCarryTheLibrarysText) {
    struct Case {
        kvl::ConnectOptions options;
        int rc;
        const char* text;  // a part of detail()
    };
    kvl::ConnectOptions noHost = options(emu.port());
    noHost.host.clear();
    kvl::ConnectOptions badPort = options(0);
    kvl::ConnectOptions longApplid = options(emu.port());
    longApplid.applid = "NINECHARS";
    kvl::ConnectOptions tooLong = options(emu.port());
    tooLong.connect_timeout = 4000s;
    const int port = emu.port();
    const Case cases[] = {
        {noHost, KVL_EXT_ERR_BADOPTIONS, "host is required"},
        {badPort, KVL_ERR_BADPORT, "port 0 is outside 1..65535"},
        {longApplid, KVL_ERR_APPLIDTOOLONG, "longer than 8 characters"},
        {tooLong, KVL_EXT_ERR_BADOPTIONS, "connectTimeoutMs"},
    };
    for (const Case& c : cases) {
        kvl::Error e = errorOf([&] { kvl::Connection conn(c.options); });
        EXPECT_EQ(e.rc(), c.rc) << e.what();
        EXPECT_NE(e.detail().find(c.text), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find(e.name()), std::string::npos) << e.what();
    }
    emu.stop();  // nothing listens there now
    kvl::Error refused = errorOf([&] { kvl::Connection conn(options(port)); });
    EXPECT_EQ(refused.rc(), KVL_ERR_CONNECTFAILED);
    EXPECT_NE(refused.detail().find("connect to 127.0.0.1:" + std::to_string(port)), std::string::npos)
        << refused.what();
}

TEST_F(CppTest, DeadlineThrowsTimeoutWithTextAndTheConnectionGoesOn) {
    kvl::Connection c(options(emu.port()));
    c.set_deadline(200ms);
    kvl::Error e = errorOf([&] { c.call("GATE", "held"); });
    EXPECT_EQ(e.rc(), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(e.name(), "ECI_ERR_RESPONSE_TIMEOUT");
    EXPECT_EQ(e.detail(), "no reply within 200 ms");
    EXPECT_EQ(std::string(e.what()), "ECI_ERR_RESPONSE_TIMEOUT (-6): no reply within 200 ms");

    // A later failure of another kind does not inherit the text of the deadline.
    kvl::Error abend = errorOf([&] { c.call("ABEND", "AB12"); });
    EXPECT_EQ(abend.rc(), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(abend.detail(), "") << abend.what();

    // A channel call's deadline leaves the channel as it was.
    kvl::Channel ch("DEADLINE");
    ch.set_text("IN", "x");
    emu.registerProgram("CHANGATE", [](const kvlemu::ProgramCall& call) {
        call.waitGate("CG");
        return kvlemu::ProgramResult{};
    });
    kvl::Error channel = errorOf([&] { c.call("CHANGATE", ch); });
    EXPECT_EQ(channel.rc(), ECI_ERR_RESPONSE_TIMEOUT);
    EXPECT_EQ(channel.detail(), "no reply within 200 ms");
    EXPECT_EQ(ch.text("IN"), "x");

    emu.openGate();
    emu.openGate("CG");
    c.set_deadline(0ms);
    EXPECT_EQ(c.call("ECHO", "after").text(), "after");
}

TEST_F(CppTest, StatisticsCountCallsFailuresAndBytes) {
    kvl::Connection c(options(emu.port()));
    kvl::Statistics before = c.statistics();
    EXPECT_EQ(before.total_sent(), 0u);
    for (int i = 0; i < 5; ++i) c.call("ECHO", "counted");
    EXPECT_THROW(c.call("ABEND", "AB12"), kvl::Error);
    auto f = c.call_async("ECHO", "async");
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    f.get();
    c.set_deadline(100ms);
    EXPECT_THROW(c.call("GATE", "late"), kvl::Error);

    kvl::Statistics s = c.statistics();
    EXPECT_EQ(s.sent[KVL_EXT_KIND_ECI_SYNC], 7u);
    EXPECT_EQ(s.completed[KVL_EXT_KIND_ECI_SYNC], 6u);
    EXPECT_EQ(s.sent[KVL_EXT_KIND_ECI_ASYNC], 1u);
    EXPECT_EQ(s.completed[KVL_EXT_KIND_ECI_ASYNC], 1u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_PROGRAM], 1u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_DEADLINE], 1u);
    EXPECT_EQ(s.total_failures(), 2u);
    EXPECT_EQ(s.in_flight, 0u) << "the deadline ended the gated call";
    EXPECT_GT(s.bytes_out, 7u * 7u);
    EXPECT_GT(s.bytes_in, 0u);
    EXPECT_GT(s.latency_max.count(), 0);
    EXPECT_LE(s.latency_p50, s.latency_max);
    emu.openGate();
}

// The destructor purges while replies are still coming in; every future ends,
// with its reply or with KVL_ERR_GWTOK_CLOSED, and a connection opened at once
// afterwards (which may get the same address) keeps all of its own replies.
TEST_F(CppTest, FuturesFailCleanlyWhenTheConnectionEndsUnderManyInFlight) {
    constexpr int kRounds = 100;
    constexpr int kCalls = 24;
    // A retrieval with an ended token is refused and traced ("... not found") at level 1.
    const std::string traceFile = ::testing::TempDir() + "kvl_cpp_race_trace.txt";
    std::remove(traceFile.c_str());
    kvl::trace::set_file(traceFile);
    kvl::trace::set_level(1);
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::future<kvl::Reply>> futures;
        {
            kvl::Connection c = connect();
            for (int i = 0; i < kCalls; ++i)
                futures.push_back(c.call_async(i % 4 == 0 ? "GATE" : "ECHO", "r" + std::to_string(i)));
        }
        kvl::Connection next = connect();
        std::vector<std::future<kvl::Reply>> own;
        for (int i = 0; i < 8; ++i) own.push_back(next.call_async("ECHO", "own " + std::to_string(i)));

        for (int i = 0; i < kCalls; ++i) {
            ASSERT_EQ(futures[i].wait_for(10s), std::future_status::ready) << "round " << round << " call " << i;
            try {
                EXPECT_EQ(futures[i].get().text(), "r" + std::to_string(i));
                EXPECT_NE(i % 4, 0) << "a gated call cannot have been answered";
            } catch (const kvl::Error& e) {
                EXPECT_EQ(e.rc(), KVL_ERR_GWTOK_CLOSED) << e.what();
            }
        }
        for (int i = 0; i < 8; ++i) {
            ASSERT_EQ(own[i].wait_for(10s), std::future_status::ready) << "round " << round;
            EXPECT_EQ(own[i].get().text(), "own " + std::to_string(i));
        }
    }
    kvl::trace::set_level(0);
    kvl::trace::set_file("");
    std::ifstream in(traceFile);
    std::string line;
    while (std::getline(in, line)) EXPECT_EQ(line.find("not found"), std::string::npos) << line;
    std::remove(traceFile.c_str());
    emu.openGate();
}

TEST_F(CppTest, PurgeWithWaitDeliversRepliesThatComeInTime) {
    kvl::Connection c = connect();
    auto quick = c.call_async("DELAY", "50");
    auto gated = c.call_async("GATE", "never");
    ASSERT_TRUE(emu.waitForGateWaiters(1, 10000));
    c.purge(1);
    ASSERT_EQ(quick.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(quick.get().text(), "50");
    ASSERT_EQ(gated.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(rcOf([&] { gated.get(); }), KVL_ERR_GWTOK_CLOSED);
    EXPECT_EQ(rcOf([&] { c.purge(0); }), KVL_ERR_NULLGWTOK);
    emu.openGate();
}
