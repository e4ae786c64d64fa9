// Opening and closing Gateway connections end to end against the emulator.
#include "gateway_test_util.h"
#include "support/process_env.h"

using namespace gwtest;

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
    // As the getters report them and as the emulator saw them in the handshake.
    void expectApplids(gwTok token, int connection, const std::string& applid, const std::string& qualifier) {
        char* got[2] = {nullptr, nullptr};
        EXPECT_TRUE(KVL_getApplid(token, &got[0]) == 0 && KVL_getApplidQualifier(token, &got[1]) == 0);
        EXPECT_STREQ(applid.c_str(), got[0]);
        EXPECT_STREQ(qualifier.c_str(), got[1]);
        ASSERT_TRUE(emulator_.waitForHandshakes(connection + 1, 5000));
        EXPECT_EQ(applid, emulator_.connections().at(connection).applid);
        EXPECT_EQ(qualifier, emulator_.connections().at(connection).qualifier);
    }
    kvlemu::Emulator emulator_;
};

TEST_F(ConnectionTest, OpenHandshakesWithTheApplidAndCloseSendsTheCloseFlow) {
    gwTok token = nullptr;
    ASSERT_EQ(0, open(&token, 5, "APPL1", "QUAL\xE9"));
    expectApplids(token, 0, "APPL1", "QUAL\xE9");
    EXPECT_EQ(CONN_CONNECTED, token->connStatus.load());
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
    EXPECT_TRUE(traced(trace, 1008, "rc=-107 (KVL_ERR_BADPORT)", 10));

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
    kvltest::unsetEnv("KVL_APPLID");
    kvltest::unsetEnv("KVL_APPLIDQUALIFIER");
    expectApplids(token, 0, envApplid, "ENVQUAL");
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
}

TEST_F(ConnectionTest, CloseAndPurgeCheckTheirArgumentsAndRefuseAClosedToken) {
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
    gwTok stale = token;
    EXPECT_EQ(0, KVL_purgeGatewayConnection(&token, 3600));
    EXPECT_EQ(nullptr, token);

    // A token that was closed is unknown.
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_closeGatewayConnection(&stale));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_purgeGatewayConnection(&stale, 0));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_getApplid(stale, &text));
    EXPECT_EQ(KVL_ERR_BADGWTOK, KVL_getApplidQualifier(stale, &text));
    EXPECT_EQ(nullptr, text);
}

// A failed open leaves no token and closes its socket.
TEST_F(ConnectionTest, AFailedHandshakeFailsTheOpen) {
    using kvlemu::HandshakeMode;
    struct Case {
        HandshakeMode mode;
        int connTimeout, rc, otherRc;  // a drop may be seen while connecting or after
        size_t timeOutLines;           // "Timed out waiting for handshake response"
    };
    const Case cases[] = {
        {HandshakeMode::Refuse, 5, KVL_ERR_WORK_WAS_REFUSED, KVL_ERR_WORK_WAS_REFUSED, 0},
        {HandshakeMode::Silent, 1, KVL_ERR_CONNECTTIMEOUT, KVL_ERR_CONNECTTIMEOUT, 1},
        {HandshakeMode::DropOnHandshake, 5, KVL_ERR_LOSTGWCON, KVL_ERR_CONNECTFAILED, 0},
        {HandshakeMode::DropOnAccept, 5, KVL_ERR_LOSTGWCON, KVL_ERR_CONNECTFAILED, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<int>(c.mode));
        TraceCapture trace(1);
        emulator_.setHandshake(c.mode, kvlemu::rc::kWorkWasRefused);
        gwTok token = kUntouched;
        int rc = open(&token, c.connTimeout);
        EXPECT_TRUE(rc == c.rc || rc == c.otherRc) << rc;
        EXPECT_EQ(kUntouched, token);
        EXPECT_TRUE(gtlEmpty());
        EXPECT_TRUE(waitUntil([&] { return emulator_.openConnectionCount() == 0; })) << "the socket is closed";
        EXPECT_EQ(c.timeOutLines, trace.linesWithId(2504).size());
        // Traced once: as sent and answered with an error (3012), or as not sent (3007).
        EXPECT_EQ(1u, trace.linesWithId(3012).size() + trace.linesWithId(3007).size());
    }
}

TEST(ConnectFailureTest, AnUnresolvableHostOrARefusedPortFailsTheConnect) {
    platformSocket listener = PLATFORM_INVALID_SOCKET;
    uint16_t closedPort = 0;
    ASSERT_EQ(0, platformListen("127.0.0.1", 0, &listener, &closedPort));
    platformCloseSocket(listener);
    struct Case {
        const char* host;
        uint16_t port;
        int connTimeout, rc;
        size_t connectFailedLines;
    };
    const Case cases[] = {
        {"nonexistent.invalid", 2006, 2, KVL_ERR_BADHOST, 0},
        {"127.0.0.1", closedPort, 0, KVL_ERR_CONNECTFAILED, 1},
        {"127.0.0.1", closedPort, 2, KVL_ERR_CONNECTFAILED, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.host) + " timeout " + std::to_string(c.connTimeout));
        TraceCapture trace(1);
        gwTok token = kUntouched;
        EXPECT_EQ(c.rc, KVL_openRemoteGatewayConnection(c.host, c.port, &token, c.connTimeout));
        EXPECT_EQ(kUntouched, token);
        EXPECT_TRUE(gtlEmpty());
        EXPECT_EQ(c.connectFailedLines, trace.linesWithId(3008).size());
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

// Close-all during a close: it counts the token and is refused its close and
// delete; the running close still ends it, once.
TEST_F(ConnectionTest, CloseAllDuringACloseLeavesTheTokenToIt) {
    gwTok token = nullptr;
    ASSERT_EQ(0, open(&token));
    gwTok copy = token;
    ASSERT_EQ(0, clapiRegisterRequest(token));  // a call inside the library holds the close
    std::atomic<int> closeRc{1};
    TraceCapture trace(4);
    std::thread closer([&] { closeRc = KVL_closeGatewayConnection(&token); });
    ASSERT_TRUE(waitUntil([&] { return traced(trace, 2069, "Waiting for 1 API calls"); }));
    EXPECT_EQ(0, KVL_closeAllGatewayConnections());
    EXPECT_TRUE(traced(trace, 2037, "Entries deleted=1, rc=0"));
    EXPECT_EQ(1u, trace.linesWithId(2035).size());
    EXPECT_EQ(1, closeRc.load());
    EXPECT_EQ(0, clapiUnregisterRequest(copy));
    closer.join();
    EXPECT_EQ(0, closeRc.load());
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(1u, trace.linesWithId(2032).size()) << "freed exactly once";
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
    ASSERT_TRUE(emulator.waitForGateWaiters(1, 5000));

    EXPECT_EQ(0, KVL_closeAllGatewayConnections());
    EXPECT_TRUE(gtlEmpty());
    EXPECT_EQ(call.finish(), KVL_ERR_GWTOK_CLOSED) << "the close flow answered the waiting call";
    EXPECT_TRUE(waitUntil([&] { return emulator.openConnectionCount() == 0; }));
    emulator.stop();
    if (threadsBefore > 0) {
        EXPECT_EQ(threadsBefore, gwtest::processThreadCount());
    }
    EXPECT_EQ(0, KVL_closeAllGatewayConnections()) << "nothing left to close";
}

}  // namespace
