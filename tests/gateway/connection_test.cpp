// Opening and closing Gateway connections end to end against the emulator.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/emulator.h"
#include "gateway_test_util.h"
#include "kvlclient.h"
#include "support/process_env.h"
#include "support/trace_capture.h"

using gwtest::gtlEmpty;
using gwtest::waitUntil;
using kvltest::TraceCapture;

namespace {

gwTok const kUntouched = reinterpret_cast<gwTok>(static_cast<uintptr_t>(0x5A5A5A5A));

class ConnectionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emulator_.start()) << emulator_.lastError(); }
    void TearDown() override {
        EXPECT_EQ(0, KVL_closeAllGatewayConnections());
        EXPECT_TRUE(gtlEmpty());
        emulator_.stop();
    }
    int open(gwTok* token, int connTimeout = 5, const char* applid = "", const char* qualifier = "") {
        return KVL_openRemoteGatewayConnectionApplid("127.0.0.1", emulator_.port(), token, connTimeout, applid, qualifier);
    }
    kvlemu::Emulator emulator_;
};

TEST_F(ConnectionTest, OpenHandshakesWithTheApplidAndCloseSendsTheCloseFlow) {
    gwTok token = nullptr;
    ASSERT_EQ(0, open(&token, 5, "APPL1", "QUAL\xE9"));
    ASSERT_NE(nullptr, token);
    ASSERT_TRUE(emulator_.waitForHandshakes(1, 5000));
    auto connections = emulator_.connections();
    ASSERT_EQ(1u, connections.size());
    EXPECT_EQ("APPL1", connections[0].applid);
    EXPECT_EQ("QUAL\xE9", connections[0].qualifier);
    EXPECT_EQ(CONN_CONNECTED, token->connStatus.load());

    char* applid = nullptr;
    char* qualifier = nullptr;
    EXPECT_EQ(0, KVL_getApplid(token, &applid));
    EXPECT_STREQ("APPL1", applid);
    EXPECT_EQ(0, KVL_getApplidQualifier(token, &qualifier));
    EXPECT_STREQ("QUAL\xE9", qualifier);
    EXPECT_EQ(0, token->apiCallCount);

    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
    EXPECT_EQ(nullptr, token);
    EXPECT_TRUE(gtlEmpty());
    EXPECT_TRUE(emulator_.waitForConnectionClosed(0, 5000));
    auto flows = emulator_.recordedFlows();
    ASSERT_EQ(2u, flows.size());
    EXPECT_EQ(kvlemu::RecordedFlow::Kind::Handshake, flows[0].kind);
    EXPECT_EQ(kvlemu::RecordedFlow::Kind::Close, flows[1].kind);
    EXPECT_EQ(33u, flows[1].raw.size());
}

TEST_F(ConnectionTest, OpenChecksItsArgumentsInOrder) {
    TraceCapture trace(3);
    gwTok token = kUntouched;
    uint16_t port = emulator_.port();
    EXPECT_EQ(KVL_ERR_BADPORT, KVL_openRemoteGatewayConnectionApplid(nullptr, 0, nullptr, -1, nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_BADPORT, KVL_openRemoteGatewayConnection("127.0.0.1", 65536, &token, 5));
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, KVL_openRemoteGatewayConnectionApplid(nullptr, port, nullptr, -1, nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_INVALIDTIMEOUTPARM, KVL_openRemoteGatewayConnectionApplid(nullptr, port, &token, -1, nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_INVALIDTIMEOUTPARM, KVL_openRemoteGatewayConnection("127.0.0.1", port, &token, 3601));
    EXPECT_EQ(KVL_ERR_NULLADDRESS, KVL_openRemoteGatewayConnectionApplid(nullptr, port, &token, 5, nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_NULLPARM, KVL_openRemoteGatewayConnectionApplid("127.0.0.1", port, &token, 5, nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_NULLPARM, KVL_openRemoteGatewayConnectionApplid("127.0.0.1", port, &token, 5, "A", nullptr));
    EXPECT_EQ(KVL_ERR_APPLIDTOOLONG, KVL_openRemoteGatewayConnectionApplid("127.0.0.1", port, &token, 5, "APPLID789", ""));
    EXPECT_EQ(KVL_ERR_APPLIDTOOLONG, KVL_openRemoteGatewayConnectionApplid("127.0.0.1", port, &token, 5, "", "QUALIF789"));
    EXPECT_EQ(kUntouched, token);
    EXPECT_EQ(0u, emulator_.connectionCount());

    auto entry = trace.linesWithId(1000);
    ASSERT_FALSE(entry.empty());
    EXPECT_NE(std::string::npos, entry[0].find("(hostname=NULL, port=0, &gwTokPtr=")) << entry[0];
    EXPECT_NE(std::string::npos, entry[0].find(", connTimeout=-1, applid=NULL, applidQualifier=NULL")) << entry[0];
    // The line ends without a closing parenthesis.
    EXPECT_EQ("applidQualifier=NULL", entry[0].substr(entry[0].size() - 20)) << entry[0];
    auto exits = trace.linesWithId(1008);
    ASSERT_FALSE(exits.empty());
    EXPECT_NE(std::string::npos, exits[0].find("rc=-107 (KVL_ERR_BADPORT)")) << exits[0];

    // The limits themselves are accepted.
    ASSERT_EQ(0, KVL_openRemoteGatewayConnectionApplid("127.0.0.1", port, &token, 3600, "APPLID78", "QUALIF78"));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
}

TEST_F(ConnectionTest, TheEnvironmentReplacesApplidAndQualifier) {
    gwTok token = nullptr;
    kvltest::setEnv("KVL_APPLID", "TOOLONGID");
    EXPECT_EQ(KVL_ERR_APPLIDTOOLONG, open(&token, 5, "OK", "OK"));
    EXPECT_EQ(KVL_ERR_NULLPARM, open(&token, 5, nullptr, "OK")) << "a null argument is refused before the environment";

#ifdef _WIN32
    const char* envApplid = "ENVAPPL";  // the Windows runtime cannot hold an empty variable
#else
    const char* envApplid = "";  // present but empty: replaces the caller's applid too
#endif
    kvltest::setEnv("KVL_APPLID", envApplid);
    kvltest::setEnv("KVL_APPLIDQUALIFIER", "ENVQUAL");
    ASSERT_EQ(0, open(&token, 5, "CALLER", "CALLERQ"));
    char* applid = nullptr;
    char* qualifier = nullptr;
    EXPECT_EQ(0, KVL_getApplid(token, &applid));
    EXPECT_STREQ(envApplid, applid);
    EXPECT_EQ(0, KVL_getApplidQualifier(token, &qualifier));
    EXPECT_STREQ("ENVQUAL", qualifier);
    kvltest::unsetEnv("KVL_APPLID");
    kvltest::unsetEnv("KVL_APPLIDQUALIFIER");
    ASSERT_TRUE(emulator_.waitForHandshakes(1, 5000));
    EXPECT_EQ(envApplid, emulator_.connections()[0].applid);
    EXPECT_EQ("ENVQUAL", emulator_.connections()[0].qualifier);
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
}

TEST_F(ConnectionTest, CloseAndPurgeCheckTheirArguments) {
    gwTok token = nullptr;
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, KVL_closeGatewayConnection(nullptr));
    EXPECT_EQ(KVL_ERR_NULLGWTOK, KVL_closeGatewayConnection(&token));
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, KVL_purgeGatewayConnection(nullptr, -1));
    EXPECT_EQ(KVL_ERR_NULLGWTOK, KVL_purgeGatewayConnection(&token, -1)) << "the token is tested before the range";
    ASSERT_EQ(0, open(&token));
    EXPECT_EQ(KVL_ERR_INVALIDTIMEOUTPARM, KVL_purgeGatewayConnection(&token, -1));
    EXPECT_EQ(KVL_ERR_INVALIDTIMEOUTPARM, KVL_purgeGatewayConnection(&token, 3601));
    EXPECT_NE(nullptr, token);

    char* text = nullptr;
    EXPECT_EQ(KVL_ERR_NULLGWTOK, KVL_getApplid(nullptr, nullptr));
    EXPECT_EQ(KVL_ERR_NULLPTR, KVL_getApplid(token, nullptr));
    EXPECT_EQ(KVL_ERR_NULLGWTOK, KVL_getApplidQualifier(nullptr, &text));
    EXPECT_EQ(KVL_ERR_NULLPTR, KVL_getApplidQualifier(token, nullptr));
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token, 3600));
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectionTest, AClosedTokenIsUnknown) {
    gwTok token = nullptr;
    ASSERT_EQ(0, open(&token));
    gwTok stale = token;
    ASSERT_EQ(0, KVL_closeGatewayConnection(&token));
    char* text = nullptr;
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_closeGatewayConnection(&stale));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_purgeGatewayConnection(&stale, 0));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_getApplid(stale, &text));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_getApplidQualifier(stale, &text));
    EXPECT_EQ(nullptr, text);
}

TEST_F(ConnectionTest, ARefusedHandshakeReturnsTheGatewaysCode) {
    emulator_.setHandshake(kvlemu::HandshakeMode::Refuse, kvlemu::rc::kWorkWasRefused);
    gwTok token = kUntouched;
    EXPECT_EQ(KVL_ERR_WORK_WAS_REFUSED, open(&token));
    EXPECT_EQ(kUntouched, token);
    EXPECT_TRUE(gtlEmpty());
    EXPECT_TRUE(emulator_.waitForConnectionClosed(0, 5000));
}

TEST_F(ConnectionTest, AGatewayThatNeverAnswersTheHandshakeTimesOut) {
    TraceCapture trace(1);
    emulator_.setHandshake(kvlemu::HandshakeMode::Silent);
    gwTok token = kUntouched;
    EXPECT_EQ(KVL_ERR_CONNECTTIMEOUT, open(&token, 1));
    EXPECT_EQ(kUntouched, token);
    EXPECT_TRUE(gtlEmpty());
    EXPECT_TRUE(emulator_.waitForConnectionClosed(0, 5000)) << "the socket is closed";
    EXPECT_TRUE(trace.contains("Timed out waiting for handshake response"));
    EXPECT_FALSE(trace.linesWithId(3012).empty());
}

TEST_F(ConnectionTest, AGatewayThatDropsTheHandshakeFailsTheOpen) {
    for (auto mode : {kvlemu::HandshakeMode::DropOnHandshake, kvlemu::HandshakeMode::DropOnAccept}) {
        emulator_.setHandshake(mode);
        gwTok token = kUntouched;
        int rc = open(&token);
        EXPECT_TRUE(rc == KVL_ERR_LOSTGWCON || rc == KVL_ERR_CONNECTFAILED) << rc;
        EXPECT_EQ(kUntouched, token);
        EXPECT_TRUE(gtlEmpty());
    }
}

TEST(ConnectFailureTest, AnUnresolvableHostIsABadHost) {
    gwTok token = kUntouched;
    EXPECT_EQ(KVL_ERR_BADHOST, KVL_openRemoteGatewayConnection("nonexistent.invalid", 2006, &token, 2));
    EXPECT_EQ(kUntouched, token);
    EXPECT_TRUE(gtlEmpty());
}

TEST(ConnectFailureTest, ARefusedPortFailsTheConnectWithAndWithoutTimeOut) {
    platformSocket listener = PLATFORM_INVALID_SOCKET;
    uint16_t port = 0;
    ASSERT_EQ(0, platformListen("127.0.0.1", 0, &listener, &port));
    platformCloseSocket(listener);
    for (int connTimeout : {0, 2}) {
        TraceCapture trace(1);
        gwTok token = kUntouched;
        EXPECT_EQ(KVL_ERR_CONNECTFAILED, KVL_openRemoteGatewayConnection("127.0.0.1", port, &token, connTimeout))
            << "connTimeout " << connTimeout;
        EXPECT_EQ(kUntouched, token);
        EXPECT_TRUE(gtlEmpty());
        EXPECT_EQ(1u, trace.linesWithId(3008).size());
    }
}

TEST(ConnectFailureTest, HostNamesAndIpv6LiteralsAreResolved) {
    platformAddress v4;
    ASSERT_EQ(0, platformResolve("127.0.0.1", "1", &v4));
    for (const char* host : {"localhost", "::1"}) {
        platformAddress first;
        if (platformResolve(host, "1", &first) != 0) continue;
        // Only the first address of a lookup is tried: listen where it points.
        kvlemu::Emulator emulator;
        if (!emulator.start(first.family == v4.family ? "127.0.0.1" : "::1")) continue;  // no IPv6 here
        gwTok token = nullptr;
        EXPECT_EQ(0, KVL_openRemoteGatewayConnection(host, emulator.port(), &token, 5)) << host;
        EXPECT_EQ(0, KVL_closeGatewayConnection(&token)) << host;
        emulator.stop();
    }
    EXPECT_TRUE(gtlEmpty());
}

// A second close or purge of a connection whose close is under way is refused.
TEST_F(ConnectionTest, ASecondCloseWhileOneRunsIsRefused) {
    gwTok token = nullptr;
    ASSERT_EQ(0, open(&token));
    gwTok copy = token;
    ASSERT_EQ(0, clapiRegisterRequest(token));  // a call inside the library holds the close
    std::atomic<int> closeRc{1};
    std::thread closer([&] { closeRc = KVL_closeGatewayConnection(&token); });
    ASSERT_TRUE(waitUntil([&] { return copy->closing.load() == 1; }));
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, KVL_closeGatewayConnection(&copy));
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, KVL_purgeGatewayConnection(&copy, 0));
    EXPECT_EQ(1, closeRc.load());
    EXPECT_EQ(0, clapiUnregisterRequest(copy));
    closer.join();
    EXPECT_EQ(0, closeRc.load());
    EXPECT_EQ(nullptr, token);
}

TEST_F(ConnectionTest, ManyConnectionsOpenAndCloseFromSeveralThreads) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 10;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                gwTok token = nullptr;
                if (open(&token) != 0 || KVL_closeGatewayConnection(&token) != 0 || token != nullptr) ++failures;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_TRUE(gtlEmpty());
    EXPECT_EQ(static_cast<size_t>(kThreads * kRounds), emulator_.connectionCount());
    EXPECT_TRUE(waitUntil([&] { return emulator_.openConnectionCount() == 0; }));
}

TEST(CloseAllTest, LeavesNoConnectionThreadOrToken) {
    int threadsBefore = gwtest::processThreadCount();
    kvlemu::Emulator emulator;
    ASSERT_TRUE(emulator.start());
    std::vector<gwTok> tokens(4, nullptr);
    for (auto& token : tokens) ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", emulator.port(), &token, 5));
    gwtest::InFlightCall call(tokens[1], "GATE");
    ASSERT_EQ(0, call.sendRc());
    ASSERT_TRUE(emulator.waitForGateWaiters(1, 5000));

    EXPECT_EQ(0, KVL_closeAllGatewayConnections());
    EXPECT_TRUE(gtlEmpty());
    ASSERT_TRUE(call.finish());
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, call.replyRc) << "the close flow answered the waiting call";
    EXPECT_TRUE(waitUntil([&] { return emulator.openConnectionCount() == 0; }));
    emulator.stop();
    if (threadsBefore > 0) {
        EXPECT_EQ(threadsBefore, gwtest::processThreadCount());
    }
    EXPECT_EQ(0, KVL_closeAllGatewayConnections()) << "nothing left to close";
}

}  // namespace
