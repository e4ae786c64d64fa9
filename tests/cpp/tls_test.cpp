// TLS through the C++ interface: calls and futures over TLS, mutual TLS, and a
// refused certificate as an Error with the code and the library's reason.
// Certificates are the TLS tests' own, made at run time.
#include "cpp_fixture.h"

#include <chrono>
#include <future>

#include "tls_certs.h"

using namespace std::chrono_literals;

namespace {

class CppTlsTest : public CppTest {
protected:
    void SetUp() override {
        CppTest::SetUp();
        if (!KVL_EXT_tlsAvailable() || !kvlemu::Emulator::tlsAvailable()) GTEST_SKIP() << "no TLS in this build";
        ASSERT_FALSE(certs.dir.empty()) << "the certificates could not be made";
        kvlemu::TlsOptions server;
        server.certFile = certs.serverCert;
        server.keyFile = certs.serverKey;
        server.clientCaFile = certs.caCert;
        server.requireClientCert = true;
        ASSERT_TRUE(emu.setTls(server)) << emu.lastError();
    }
    kvl::ConnectOptions tlsOptions() const {
        kvl::ConnectOptions o{.host = "127.0.0.1", .port = emu.port(), .connect_timeout = 10s};
        o.tls = {.enabled = true, .ca_file = certs.caCert, .cert_file = certs.clientCert, .key_file = certs.clientKey};
        return o;
    }
    const tlstest::CertSet& certs = tlstest::certs();
};

}  // namespace

TEST_F(CppTlsTest, CallsAndFuturesOverMutualTls) {
    kvl::Connection c(tlsOptions());
    EXPECT_EQ(c.call("ECHO", "over TLS").text(), "over TLS");
    auto f = c.call_async("DELAY", "20");
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(f.get().text(), "20");
    EXPECT_GT(c.statistics().bytes_in, 0u);
}

TEST_F(CppTlsTest, RefusedCertificatesAreErrorsWithTheReason) {
    struct Case {
        const char* what;
        void (*change)(kvl::ConnectOptions&, const tlstest::CertSet&);
        int rc;
    };
    const Case cases[] = {
        {"untrusted CA", [](kvl::ConnectOptions& o, const tlstest::CertSet& c) { o.tls.ca_file = c.rogueCa; },
         KVL_EXT_ERR_TLS_VERIFY},
        {"other name", [](kvl::ConnectOptions& o, const tlstest::CertSet&) { o.tls.server_name = "gateway.example"; },
         KVL_EXT_ERR_TLS_VERIFY},
        {"missing CA file",
         [](kvl::ConnectOptions& o, const tlstest::CertSet& c) { o.tls.ca_file = c.dir + "/none.pem"; },
         KVL_EXT_ERR_TLS_CONFIG},
    };
    for (const Case& c : cases) {
        kvl::ConnectOptions o = tlsOptions();
        c.change(o, certs);
        try {
            kvl::Connection conn(o);
            ADD_FAILURE() << c.what << ": opened";
        } catch (const kvl::Error& e) {
            EXPECT_EQ(e.rc(), c.rc) << c.what << ": " << e.what();
            EXPECT_FALSE(e.detail().empty()) << c.what;
        }
    }
    // Not verifying (tests only) accepts the certificate the untrusted CA does not vouch for.
    kvl::ConnectOptions o = tlsOptions();
    o.tls.ca_file = certs.rogueCa;
    o.tls.verify = false;
    kvl::Connection c(o);
    EXPECT_EQ(c.call("ECHO", "unverified").text(), "unverified");
}
