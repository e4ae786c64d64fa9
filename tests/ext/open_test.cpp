// KVL_EXT_openConnection: options, every address of a host, time-outs and the
// reason for each failure of the open.
#include "ext_test_util.h"

namespace {

using namespace exttest;

// A port on which nothing listens (bound, then closed).
uint16_t deadPort() {
    platformSocket s;
    uint16_t port = 0;
    if (platformListen("127.0.0.1", 0, &s, &port) != 0) return 0;
    platformCloseSocket(s);
    return port;
}

// The platform's own words for a refused connection, as the open must report them.
std::string refusedText(uint16_t port) {
    platformAddress a;
    if (platformResolve("127.0.0.1", std::to_string(port).c_str(), &a) != 0) return "?";
    platformSocket s = platformSocketCreate(a.family, a.socktype, a.protocol);
    int rc = platformConnect(s, &a);
    int error = platformSocketError();
    platformCloseSocket(s);
    if (rc != -1) return "?";
    char text[256];
    platformSocketErrorText(error, text, sizeof text);
    return text;
}

// The address list the next opens see, in place of the resolver's.
std::vector<std::pair<std::string, uint16_t>> injected;
int injectedResolve(const char*, const char*, platformAddress* out, int max, int* count) {
    *count = 0;
    for (const auto& [host, port] : injected) {
        if (*count == max) break;
        int n = 0;
        if (platformResolveAll(host.c_str(), std::to_string(port).c_str(), &out[*count], 1, &n) == 0) *count += n;
    }
    return *count > 0 ? 0 : -1;
}

class Open : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError(); }
    void TearDown() override {
        clapiExtResolveHook = nullptr;
        if (token) {
            EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
        }
        emu.stop();
    }
    int open(const KVL_EXT_ConnectOptions& o) { return KVL_EXT_openConnection(&o, &token); }
    void expectEchoWorks() {
        Bytes area = text("hello", 16);
        EciParms p = callParms(ECI_SYNC, "ECHO", area);
        EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    }

    kvlemu::Emulator emu;
    gwTok token = nullptr;
};

TEST_F(Open, WithOptionsConnectsAndTakesTheDeadline) {
    KVL_EXT_ConnectOptions o = optionsFor(emu.port());
    o.applid = "APPL1";
    o.applidQualifier = "QUAL1";
    o.callDeadlineMs = 1500;
    o.keepAliveIdleSec = 30;
    o.keepAliveIntervalSec = 5;
    o.keepAliveCount = 4;
    ASSERT_EQ(open(o), KVL_OK) << lastErrorText();
    EXPECT_EQ(lastErrorText(), "");
    int ms = 0;
    EXPECT_EQ(KVL_EXT_getCallDeadline(token, &ms), KVL_OK);
    EXPECT_EQ(ms, 1500);
    ASSERT_TRUE(emu.waitForHandshakes(1, kWaitMs));
    EXPECT_EQ(emu.connections()[0].applid, "APPL1");
    EXPECT_EQ(emu.connections()[0].qualifier, "QUAL1");
    expectEchoWorks();
}

TEST_F(Open, RecordOfAnEarlierSizeOpensWithDefaults) {
    KVL_EXT_ConnectOptions o = optionsFor(emu.port());
    o.size = offsetof(KVL_EXT_ConnectOptions, tls);
    o.tls = 7;  // beyond the caller's size: never read
    ASSERT_EQ(open(o), KVL_OK) << lastErrorText();
}

TEST_F(Open, TriesEveryAddressInTurn) {
    // The first address refuses (nothing listens on 127.0.0.2, nor on IPv6:
    // the emulator has only 127.0.0.1), the second is the emulator.
    clapiExtResolveHook = injectedResolve;
    for (const char* first : {"127.0.0.2", "::1"}) {
        SCOPED_TRACE(first);
        injected = {{first, emu.port()}, {"127.0.0.1", emu.port()}};
        ASSERT_EQ(open(optionsFor(emu.port(), "gateway.test")), KVL_OK) << lastErrorText();
        expectEchoWorks();
        EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
    }
}

TEST_F(Open, WhenEveryAddressFailsTheTextNamesEach) {
    uint16_t dead = deadPort();
    injected = {{"127.0.0.2", dead}, {"127.0.0.1", dead}};
    clapiExtResolveHook = injectedResolve;
    EXPECT_EQ(open(optionsFor(dead, "gateway.test")), KVL_ERR_CONNECTFAILED);
    EXPECT_EQ(lastErrorText(), "connect to gateway.test:" + std::to_string(dead) +
                                   ": 127.0.0.2: " + refusedText(dead) + "; 127.0.0.1: " + refusedText(dead));
}

TEST_F(Open, TriesIpv6AndIpv4AddressesOfOneName) {
    // Only where "localhost" has an IPv6 and an IPv4 address; the emulator listens on IPv4 only.
    platformAddress addresses[8];
    int count = 0;
    if (platformResolveAll("localhost", "1", addresses, 8, &count) != 0 || count < 2 || addresses[0].family == addresses[1].family)
        GTEST_SKIP() << "localhost has no IPv6 and IPv4 address here";
    ASSERT_EQ(open(optionsFor(emu.port(), "localhost")), KVL_OK) << lastErrorText();
    expectEchoWorks();
}

TEST_F(Open, EveryFailureHasItsCodeAndText) {
    uint16_t dead = deadPort();
    ASSERT_NE(dead, 0);
    const std::string refused = refusedText(dead);
    EXPECT_NE(refused, "?");
    EXPECT_NE(refused, "Unknown");
    struct Case {
        const char* what;
        std::function<void(KVL_EXT_ConnectOptions&)> change;
        kvlemu::HandshakeMode mode;
        int rc;
        std::string text;  // the whole text, or its start when it ends with '*'
    } cases[] = {
        {"refused", [&](auto& o) { o.port = dead; }, kvlemu::HandshakeMode::Accept, KVL_ERR_CONNECTFAILED,
         "connect to 127.0.0.1:" + std::to_string(dead) + ": " + refusedText(dead)},
        {"unknown host", [](auto& o) { o.host = "no-such-host.invalid"; }, kvlemu::HandshakeMode::Accept,
         KVL_EXT_ERR_NOADDRESS, "resolve no-such-host.invalid: *"},
        {"handshake refused", [](auto&) {}, kvlemu::HandshakeMode::Refuse, KVL_ERR_WORK_WAS_REFUSED,
         "handshake refused by the Gateway, rc=61445 (KVL_ERR_WORK_WAS_REFUSED)"},
        {"no handshake answer", [](auto& o) { o.connectTimeoutMs = 300; }, kvlemu::HandshakeMode::Silent,
         KVL_ERR_CONNECTTIMEOUT, "no handshake answer from the Gateway at 127.0.0.1:*"},
        // A Gateway without TLS answers the ClientHello with no TLS record.
        {"tls", [](auto& o) { o.tls = 1; }, kvlemu::HandshakeMode::Accept,
         KVL_EXT_tlsAvailable() ? KVL_EXT_ERR_TLS_HANDSHAKE : KVL_EXT_ERR_TLS_UNAVAILABLE, "TLS with 127.0.0.1:*"},
        {"bad size", [](auto& o) { o.size = 4; }, kvlemu::HandshakeMode::Accept, KVL_EXT_ERR_BADOPTIONS,
         "options record size 4 is smaller than *"},
        {"no host", [](auto& o) { o.host = nullptr; }, kvlemu::HandshakeMode::Accept, KVL_EXT_ERR_BADOPTIONS,
         "host is required"},
        {"bad port", [](auto& o) { o.port = 70000; }, kvlemu::HandshakeMode::Accept, KVL_ERR_BADPORT,
         "port 70000 is outside 1..65535"},
        {"negative time-out", [](auto& o) { o.connectTimeoutMs = -1; }, kvlemu::HandshakeMode::Accept,
         KVL_EXT_ERR_BADOPTIONS, "connectTimeoutMs is outside 0..3600000"},
        {"negative deadline", [](auto& o) { o.callDeadlineMs = -5; }, kvlemu::HandshakeMode::Accept,
         KVL_EXT_ERR_BADOPTIONS, "callDeadlineMs is outside 0..86400000"},
        {"keep-alive flag", [](auto& o) { o.keepAlive = 2; }, kvlemu::HandshakeMode::Accept, KVL_EXT_ERR_BADOPTIONS,
         "keepAlive is not 0 or 1*"},
        {"tls version", [](auto& o) { o.tlsMinVersion = 0x0301; }, kvlemu::HandshakeMode::Accept,
         KVL_EXT_ERR_BADOPTIONS, "tlsMinVersion is not*"},
        {"applid", [](auto& o) { o.applid = "TOOLONGAPPL"; }, kvlemu::HandshakeMode::Accept, KVL_ERR_APPLIDTOOLONG,
         "applid or qualifier longer than 8 characters"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        emu.setHandshake(c.mode);
        KVL_EXT_ConnectOptions o = optionsFor(emu.port());
        c.change(o);
        gwTok failed = nullptr;
        EXPECT_EQ(KVL_EXT_openConnection(&o, &failed), c.rc);
        EXPECT_EQ(failed, nullptr);
        std::string got = lastErrorText();
        if (c.text.back() == '*')
            EXPECT_EQ(got.substr(0, c.text.size() - 1), c.text.substr(0, c.text.size() - 1)) << got;
        else
            EXPECT_EQ(got, c.text);
    }
    emu.setHandshake(kvlemu::HandshakeMode::Accept);
    KVL_EXT_ConnectOptions o = optionsFor(emu.port());
    EXPECT_EQ(KVL_EXT_openConnection(nullptr, &token), KVL_EXT_ERR_BADOPTIONS);
    EXPECT_EQ(lastErrorText(), "NULL options record");
    EXPECT_EQ(KVL_EXT_openConnection(&o, nullptr), KVL_ERR_NULLGWTOKPTR);
    // Success empties the text.
    ASSERT_EQ(open(o), KVL_OK);
    EXPECT_EQ(lastErrorText(), "");
}

TEST_F(Open, ErrorTextsArePerThread) {
    KVL_EXT_ConnectOptions o = optionsFor(emu.port());
    o.port = 0;
    gwTok failed = nullptr;
    ASSERT_EQ(KVL_EXT_openConnection(&o, &failed), KVL_ERR_BADPORT);
    std::string other = "unset";
    std::thread([&] { other = lastErrorText(); }).join();
    EXPECT_EQ(other, "");
    EXPECT_EQ(lastErrorText(), "port 0 is outside 1..65535");
}

TEST(ErrorText, CopyIsBoundedAndArgumentsChecked) {
    KVL_EXT_ConnectOptions o;
    KVL_EXT_initConnectOptions(&o);
    gwTok failed = nullptr;
    ASSERT_EQ(KVL_EXT_openConnection(&o, &failed), KVL_EXT_ERR_BADOPTIONS);  // no host
    char small[5];
    memset(small, 'Z', sizeof small);
    EXPECT_EQ(KVL_EXT_getLastErrorText(small, sizeof small), KVL_OK);
    EXPECT_EQ(std::string(small), "host");
    char one[1] = {'Z'};
    EXPECT_EQ(KVL_EXT_getLastErrorText(one, 1), KVL_OK);
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(KVL_EXT_getLastErrorText(one, 0), KVL_EXT_ERR_BUFFERTOOSMALL);
    EXPECT_EQ(KVL_EXT_getLastErrorText(nullptr, 10), KVL_ERR_NULLPTR);
}

}  // namespace
