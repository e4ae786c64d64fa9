// TLS connections against the emulator on loopback: calls, every refusal of a
// certificate, mutual TLS, a Gateway lost mid-handshake, a purge during a call
// and many threads on one connection.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "gateway_emulator/emulator.h"
#include "kvl_eci.h"
#include "kvl_ext.h"
#include "kvlclient.h"
#include "platform/platform.h"
#include "support/trace_capture.h"
#include "tls_certs.h"
#include "tls_open.h"
#include "tls_relay.h"

using tlstest::certs;
using tlstest::openTls;
using tlstest::tlsOptions;
using tlstest::TlsRelay;

namespace {

template <size_t N>
void setField(char (&field)[N], const std::string& text) {
    memset(field, ' ', N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

std::vector<uint8_t> pattern(size_t length, uint8_t seed) {
    std::vector<uint8_t> b(length);
    for (size_t i = 0; i < length; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + i / 251);
    return b;
}

// A synchronous call of `program` with `area` as COMMAREA; the reply replaces it.
int call(gwTok token, const std::string& program, std::vector<uint8_t>& area) {
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    setField(p.eci_program, program);
    setField(p.eci_tran_id, "TRN1");
    setField(p.eci_server_name, "EMUSRV");
    p.eci_commarea = area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    return KVL_ECI_Execute(token, &p);
}

kvlemu::TlsOptions serverTls(const std::string& cert, const std::string& key) {
    kvlemu::TlsOptions t;
    t.certFile = cert;
    t.keyFile = key;
    return t;
}

// Purges the connection while a call on it is held at the emulator's gate; the
// call must end, with an error.
void purgeDuringAHeldCall(kvlemu::Emulator& emulator, gwTok* token) {
    gwTok t = *token;
    auto inFlight = std::async(std::launch::async, [t] {
        std::vector<uint8_t> area = pattern(100, 9);
        return call(t, "GATE", area);
    });
    struct OpenGate {  // also on a failed assertion, before the call is waited for
        kvlemu::Emulator& emulator;
        ~OpenGate() { emulator.openGate(); }
    } openGate{emulator};
    ASSERT_TRUE(emulator.waitForGateWaiters(1, 5000));
    EXPECT_EQ(0, KVL_purgeGatewayConnection(token, 0));
    ASSERT_EQ(std::future_status::ready, inFlight.wait_for(std::chrono::seconds(10)));
    EXPECT_NE(ECI_NO_ERROR, inFlight.get());
}

class TlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(certs().dir.empty()) << "test certificates could not be made";
        ASSERT_TRUE(emulator_.start()) << emulator_.lastError();
    }
    void TearDown() override {
        EXPECT_EQ(0, KVL_closeAllGatewayConnections());
        emulator_.stop();
    }
    void serve(const kvlemu::TlsOptions& options) { ASSERT_TRUE(emulator_.setTls(options)) << emulator_.lastError(); }
    KVL_EXT_ConnectOptions options(const char* host = "127.0.0.1") {
        return tlsOptions(host, emulator_.port(), certs().caCert);
    }
    kvlemu::Emulator emulator_;
};

TEST_F(TlsTest, CallsTravelEncryptedAndTheTraceShowsThePlaintextFlows) {
    serve(serverTls(certs().serverCert, certs().serverKey));
    kvltest::TraceCapture trace(4);
    gwTok token = nullptr;
    std::string why;
    ASSERT_EQ(0, openTls(options(), &token, &why)) << why;
    EXPECT_EQ("", why);
    // One small call and one larger than the socket buffer, read straight into the COMMAREA.
    for (size_t length : {100u, 32000u}) {
        std::vector<uint8_t> area = pattern(length, static_cast<uint8_t>(length));
        const std::vector<uint8_t> sent = area;
        ASSERT_EQ(ECI_NO_ERROR, call(token, "ECHO", area)) << length;
        EXPECT_EQ(sent, area) << length;
    }
    EXPECT_EQ(2u, emulator_.programCallCount("ECHO"));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
    EXPECT_EQ(1u, trace.linesWithId(9207).size());
    EXPECT_TRUE(trace.contains("TLS session established: TLSv1.3"));
    // The handshake flow as written (eyecatcher "Gate") and as read back: plaintext.
    EXPECT_FALSE(trace.linesWithId(2526).empty());
    EXPECT_TRUE(trace.contains("47617465")) << "the DATA dumps show the flows in clear";
}

struct RefusalCase {
    const char* name;
    int serverCert;  // index into the table below
    bool requireClientCert;
    int clientCert;  // 0 none, 1 by the CA, 2 by the rogue CA
    int clientMinVersion;
    int serverMaxVersion;
    const char* serverName;
    int noHostnameCheck;
    int noVerify;
    int expectedRc;
    const char* expectedText;
};

class TlsRefusalTest : public TlsTest, public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(TlsRefusalTest, OpenEndsWithTheCodeAndReason) {
    const RefusalCase& c = GetParam();
    const tlstest::CertSet& s = certs();
    const std::pair<std::string, std::string> serverCerts[] = {
        {s.serverCert, s.serverKey}, {s.rogueCert, s.rogueKey}, {s.otherName, s.otherKey}, {s.expiredCert, s.expiredKey}};
    kvlemu::TlsOptions server = serverTls(serverCerts[c.serverCert].first, serverCerts[c.serverCert].second);
    if (c.requireClientCert) {
        server.clientCaFile = s.caCert;
        server.requireClientCert = true;
    }
    server.maxVersion = c.serverMaxVersion;
    serve(server);

    KVL_EXT_ConnectOptions o = options();
    if (c.clientCert == 1) {
        o.tlsCertFile = s.clientCert.c_str();
        o.tlsKeyFile = s.clientKey.c_str();
    } else if (c.clientCert == 2) {
        o.tlsCertFile = s.rogueClientCert.c_str();
        o.tlsKeyFile = s.rogueClientKey.c_str();
    }
    o.tlsMinVersion = c.clientMinVersion;
    o.tlsServerName = c.serverName;
    o.tlsNoHostnameCheck = c.noHostnameCheck;
    o.tlsNoVerify = c.noVerify;

    gwTok token = nullptr;
    std::string why;
    int rc = openTls(o, &token, &why);
    EXPECT_EQ(c.expectedRc, rc) << why;
    EXPECT_NE(std::string::npos, why.find(c.expectedText)) << why;
    if (rc != 0) {
        const std::string endpoint = "TLS with 127.0.0.1:" + std::to_string(emulator_.port()) + ": ";
        EXPECT_EQ(endpoint, why.substr(0, endpoint.size())) << why;
    }
    if (rc == 0) {
        std::vector<uint8_t> area = pattern(64, 3);
        EXPECT_EQ(ECI_NO_ERROR, call(token, "ECHO", area));
        EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
    } else {
        EXPECT_EQ(nullptr, token);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TlsRefusalTest,
    ::testing::Values(
        RefusalCase{"UnknownCa", 1, false, 0, 0, 0, nullptr, 0, 0, KVL_EXT_ERR_TLS_VERIFY, "unknown CA"},
        RefusalCase{"WrongHostName", 2, false, 0, 0, 0, nullptr, 0, 0, KVL_EXT_ERR_TLS_VERIFY, "name mismatch"},
        RefusalCase{"Expired", 3, false, 0, 0, 0, nullptr, 0, 0, KVL_EXT_ERR_TLS_VERIFY, "expired"},
        RefusalCase{"ClientCertificateAbsent", 0, true, 0, 0, 0, nullptr, 0, 0, KVL_EXT_ERR_TLS_HANDSHAKE,
                    "client certificate"},
        RefusalCase{"ClientCertificateAbsentTls12", 0, true, 0, 0, 0x0303, nullptr, 0, 0, KVL_EXT_ERR_TLS_HANDSHAKE,
                    "handshake failed"},
        RefusalCase{"ClientCertificateByUnknownCa", 0, true, 2, 0, 0, nullptr, 0, 0, KVL_EXT_ERR_TLS_HANDSHAKE,
                    "client certificate"},
        RefusalCase{"ProtocolVersion", 0, false, 0, KVL_EXT_TLS_1_3, 0x0303, nullptr, 0, 0, KVL_EXT_ERR_TLS_HANDSHAKE,
                    "protocol version"},
        RefusalCase{"MutualTls", 0, true, 1, 0, 0, nullptr, 0, 0, 0, ""},
        RefusalCase{"ServerNameOtherThanHost", 2, false, 0, 0, 0, "gateway.example", 0, 0, 0, ""},
        RefusalCase{"NameCheckOff", 2, false, 0, 0, 0, nullptr, 1, 0, 0, ""},
        RefusalCase{"VerifyOff", 1, false, 0, 0, 0, nullptr, 0, 1, 0, ""},
        RefusalCase{"Tls12", 0, false, 0, 0, 0x0303, nullptr, 0, 0, 0, ""}),
    [](const ::testing::TestParamInfo<RefusalCase>& info) { return std::string(info.param.name); });

TEST_F(TlsTest, UnusableSettingsAreRefusedBeforeAnyByteIsSent) {
    serve(serverTls(certs().serverCert, certs().serverKey));
    const std::string missing = certs().dir + "/missing.pem";
    const std::string endpoint = "TLS with 127.0.0.1:" + std::to_string(emulator_.port()) + ": ";
    struct Case {
        const char* what;
        KVL_EXT_ConnectOptions o;
        int rc;
        std::string text;  // the whole text the open leaves for KVL_EXT_getLastErrorText
    } cases[] = {
        {"CA file", options(), KVL_EXT_ERR_TLS_CONFIG, endpoint + "cannot load the trusted CAs from " + missing + ": "},
        {"key without certificate", options(), KVL_EXT_ERR_TLS_CONFIG,
         endpoint + "a client certificate needs both a certificate and a key file"},
        {"version", options(), KVL_EXT_ERR_BADOPTIONS, "tlsMinVersion is not KVL_EXT_TLS_1_2 or KVL_EXT_TLS_1_3"},
        {"cipher list", options(), KVL_EXT_ERR_TLS_CONFIG,
         endpoint + "the cipher list \"NO-SUCH-CIPHER\" names no usable cipher"},
        {"key of another certificate", options(), KVL_EXT_ERR_TLS_CONFIG,
         endpoint + "cannot load the client key " + certs().serverKey + ": "},
    };
    cases[0].o.tlsCaFile = missing.c_str();
    cases[1].o.tlsKeyFile = certs().clientKey.c_str();
    cases[2].o.tlsMinVersion = 0x0301;
    cases[3].o.tlsCipherList = "NO-SUCH-CIPHER";
    cases[4].o.tlsCertFile = certs().clientCert.c_str();
    cases[4].o.tlsKeyFile = certs().serverKey.c_str();
    for (auto& c : cases) {
        gwTok token = nullptr;
        std::string why;
        EXPECT_EQ(c.rc, openTls(c.o, &token, &why)) << c.what << ": " << why;
        // A text ending in a blank is followed by the TLS library's own reason.
        EXPECT_EQ(c.text, c.text.back() == ' ' ? why.substr(0, c.text.size()) : why) << c.what;
        EXPECT_EQ(nullptr, token) << c.what;
    }
}

// A listener that takes one connection and either closes it after the first
// bytes or never answers.
class BrokenGateway {
public:
    explicit BrokenGateway(bool answerNothing) {
        platformListen("127.0.0.1", 0, &listener_, &port_);
        thread_ = std::thread([this, answerNothing] {
            if (platformWaitReadableMs(listener_, 5000) <= 0) return;
            peer_ = platformAccept(listener_);
            uint8_t buf[512];
            if (platformWaitReadableMs(peer_, 5000) > 0) platformRecv(peer_, buf, sizeof buf);
            if (answerNothing) {
                platformWaitReadableMs(peer_, 5000);  // until the client gives up
            } else {
                // A ServerHello cut short, then gone.
                const uint8_t partial[] = {0x16, 0x03, 0x03, 0x00, 0x40, 0x02, 0x00};
                platformSend(peer_, partial, sizeof partial);
            }
            platformCloseSocket(peer_);
        });
    }
    ~BrokenGateway() {
        thread_.join();
        platformCloseSocket(listener_);
    }
    uint16_t port() const { return port_; }

private:
    platformSocket listener_ = PLATFORM_INVALID_SOCKET;
    platformSocket peer_ = PLATFORM_INVALID_SOCKET;
    uint16_t port_ = 0;
    std::thread thread_;
};

TEST(TlsBrokenGatewayTest, AGatewayThatDropsOrFallsSilentMidHandshakeFailsTheOpenInTime) {
    ASSERT_FALSE(certs().dir.empty());
    for (bool silent : {false, true}) {
        BrokenGateway gateway(silent);
        KVL_EXT_ConnectOptions o = tlsOptions("127.0.0.1", gateway.port(), certs().caCert);
        o.connectTimeoutMs = 700;
        gwTok token = nullptr;
        std::string why;
        EXPECT_EQ(KVL_EXT_ERR_TLS_HANDSHAKE, openTls(o, &token, &why)) << why;
        EXPECT_NE(std::string::npos, why.find(silent ? "did not finish within 700 ms" : "closed the connection")) << why;
        EXPECT_EQ(nullptr, token);
    }
}

TEST_F(TlsTest, APurgeEndsACallInFlight) {
    serve(serverTls(certs().serverCert, certs().serverKey));
    gwTok token = nullptr;
    std::string why;
    ASSERT_EQ(0, openTls(options(), &token, &why)) << why;
    purgeDuringAHeldCall(emulator_, &token);
}

TEST_F(TlsTest, ManyThreadsShareOneConnection) {
    serve(serverTls(certs().serverCert, certs().serverKey));
    gwTok token = nullptr;
    std::string why;
    ASSERT_EQ(0, openTls(options(), &token, &why)) << why;
    // A plain connection alongside keeps working as before.
    gwTok plainToken = nullptr;
    kvlemu::Emulator plain;
    ASSERT_TRUE(plain.start());
    ASSERT_EQ(0, KVL_openRemoteGatewayConnection("127.0.0.1", plain.port(), &plainToken, 5));

    constexpr int kThreads = 8, kCalls = 25;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                gwTok use = (i % 5 == 0) ? plainToken : token;
                std::vector<uint8_t> area = pattern(200 + static_cast<size_t>(t * 997 + i * 31) % 9000,
                                                    static_cast<uint8_t>(t * 16 + i));
                const std::vector<uint8_t> sent = area;
                if (call(use, "ECHO", area) == ECI_NO_ERROR && area == sent) ++good;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(kThreads * kCalls, good.load());
    EXPECT_EQ(0, KVL_closeGatewayConnection(&plainToken));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
    plain.stop();
}


// The library's TLS ends through a relay in front of a plain emulator, so that
// the relay's OpenSSL says how the session ended.
class TlsEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(certs().dir.empty()) << "test certificates could not be made";
        ASSERT_TRUE(emulator_.start()) << emulator_.lastError();
        relay_ = std::make_unique<TlsRelay>(certs().serverCert, certs().serverKey, emulator_.port());
        ASSERT_NE(0, relay_->port());
    }
    void TearDown() override {
        EXPECT_EQ(0, KVL_closeAllGatewayConnections());
        relay_.reset();
        emulator_.stop();
    }
    gwTok open() {
        gwTok token = nullptr;
        std::string why;
        EXPECT_EQ(0, openTls(tlsOptions("127.0.0.1", relay_->port(), certs().caCert), &token, &why)) << why;
        return token;
    }
    kvlemu::Emulator emulator_;
    std::unique_ptr<TlsRelay> relay_;
};

TEST_F(TlsEndTest, ACloseSendsCloseNotifyBeforeTheSocketEnds) {
    kvltest::TraceCapture trace(4);
    gwTok token = open();
    ASSERT_NE(nullptr, token);
    std::vector<uint8_t> area = pattern(100, 1);
    ASSERT_EQ(ECI_NO_ERROR, call(token, "ECHO", area));
    EXPECT_EQ(0, KVL_closeGatewayConnection(&token));
    TlsRelay::End end = relay_->waitForEnd(5000);
    EXPECT_EQ(TlsRelay::End::closeNotify, end) << TlsRelay::name(end);
    EXPECT_EQ(1u, trace.linesWithId(9226).size()) << trace.text();
}

TEST_F(TlsEndTest, APurgeDuringACallSendsCloseNotify) {
    gwTok token = open();
    ASSERT_NE(nullptr, token);
    purgeDuringAHeldCall(emulator_, &token);
    TlsRelay::End end = relay_->waitForEnd(5000);
    EXPECT_EQ(TlsRelay::End::closeNotify, end) << TlsRelay::name(end);
}

}  // namespace
