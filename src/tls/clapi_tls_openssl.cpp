// TLS backend on OpenSSL 3: one SSL object between two memory BIOs, so that
// the glue does all socket I/O and OpenSSL only turns records into bytes.
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "kvl_ext.h"
#include "tls/clapi_tls_engine.h"

namespace {

// The last queued OpenSSL error as text, or `fallback`.
const char* opensslReason(char* buffer, size_t size, const char* fallback) {
    unsigned long e = ERR_peek_last_error();
    if (e == 0) {
        snprintf(buffer, size, "%s", fallback);
    } else {
        ERR_error_string_n(e, buffer, size);
    }
    ERR_clear_error();
    return buffer;
}

bool isAddress(const char* name) {
    ASN1_OCTET_STRING* ip = a2i_IPADDRESS(name);
    if (ip == nullptr) return false;
    ASN1_OCTET_STRING_free(ip);
    return true;
}

// Why a certificate was refused, in words an operator can act on.
const char* verifyClass(long result) {
    switch (result) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_UNTRUSTED:
        return "unknown CA";
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
        return "name mismatch";
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "certificate expired";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "certificate not yet valid";
    default:
        return "certificate refused";
    }
}

bool drain(BIO* bio, tlsBytes& out) {
    for (;;) {
        size_t pending = BIO_ctrl_pending(bio);
        if (pending == 0) return true;
        uint8_t* at = out.reserve(pending);
        if (at == nullptr) return false;
        int n = BIO_read(bio, at, static_cast<int>(pending));
        if (n <= 0) return true;
        out.commit(static_cast<size_t>(n));
    }
}

bool feed(BIO* bio, tlsBytes& in) {
    while (!in.empty()) {
        size_t chunk = in.size() > 0x40000000u ? 0x40000000u : in.size();
        int n = BIO_write(bio, in.begin(), static_cast<int>(chunk));
        if (n <= 0) return false;
        in.consume(static_cast<size_t>(n));
    }
    return true;
}

class opensslEngine final : public tlsEngine {
public:
    ~opensslEngine() override {
        SSL_free(ssl_);  // frees both BIOs
        SSL_CTX_free(ctx_);
    }

    bool setUp(const tlsSettings& s, tlsFailure& why) {
        char reason[256];
        ctx_ = SSL_CTX_new(TLS_client_method());
        if (ctx_ == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot create a TLS context: %s",
                                            opensslReason(reason, sizeof reason, "no memory"));
        int version = s.minVersion == 0x0304 ? TLS1_3_VERSION : TLS1_2_VERSION;
        SSL_CTX_set_min_proto_version(ctx_, version);
        if (s.verify) {
            int loaded = s.caFile != nullptr ? SSL_CTX_load_verify_locations(ctx_, s.caFile, nullptr)
                                             : SSL_CTX_set_default_verify_paths(ctx_);
            if (loaded != 1)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot load the trusted CAs from %s: %s",
                               s.caFile != nullptr ? s.caFile : "the system store",
                               opensslReason(reason, sizeof reason, "unreadable"));
        }
        if (s.certFile != nullptr || s.keyFile != nullptr) {
            if (s.certFile == nullptr || s.keyFile == nullptr)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "a client certificate needs both a certificate and a key file");
            if (SSL_CTX_use_certificate_chain_file(ctx_, s.certFile) != 1)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot load the client certificate %s: %s", s.certFile,
                               opensslReason(reason, sizeof reason, "unreadable"));
            if (SSL_CTX_use_PrivateKey_file(ctx_, s.keyFile, SSL_FILETYPE_PEM) != 1)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot load the client key %s: %s", s.keyFile,
                               opensslReason(reason, sizeof reason, "unreadable"));
            if (SSL_CTX_check_private_key(ctx_) != 1)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key %s does not match the certificate %s",
                               s.keyFile, s.certFile);
        }
        if (s.cipherList != nullptr && s.cipherList[0] != '\0') {
            // The list names TLS 1.2 suites; TLS 1.3 suites are taken from it too when named.
            int old = SSL_CTX_set_cipher_list(ctx_, s.cipherList);
            int tls13 = strstr(s.cipherList, "TLS_") != nullptr ? SSL_CTX_set_ciphersuites(ctx_, s.cipherList) : 0;
            ERR_clear_error();
            if (old != 1 && tls13 != 1)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the cipher list \"%s\" names no usable cipher", s.cipherList);
        }
        ssl_ = SSL_new(ctx_);
        BIO* in = BIO_new(BIO_s_mem());
        BIO* out = BIO_new(BIO_s_mem());
        if (ssl_ == nullptr || in == nullptr || out == nullptr) {
            BIO_free(in);
            BIO_free(out);
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot create a TLS session: no memory");
        }
        BIO_set_mem_eof_return(in, -1);  // an empty input means "wait", not "end"
        SSL_set_bio(ssl_, in, out);
        in_ = in;
        out_ = out;
        SSL_set_connect_state(ssl_);
        SSL_set_msg_callback(ssl_, onMessage);
        SSL_set_msg_callback_arg(ssl_, this);
        const char* name = s.name != nullptr ? s.name : "";
        bool address = isAddress(name);
        if (!address && name[0] != '\0') SSL_set_tlsext_host_name(ssl_, name);
        if (s.verify) {
            SSL_set_verify(ssl_, SSL_VERIFY_PEER, nullptr);
            if (s.checkName && name[0] != '\0') {
                X509_VERIFY_PARAM* param = SSL_get0_param(ssl_);
                int ok = address ? X509_VERIFY_PARAM_set1_ip_asc(param, name) : SSL_set1_host(ssl_, name);
                if (ok != 1) return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot check the name \"%s\"", name);
            }
        } else {
            SSL_set_verify(ssl_, SSL_VERIFY_NONE, nullptr);
        }
        return true;
    }

    tlsStatus handshake(tlsBytes& in, tlsBytes& out, tlsFailure& why) override {
        if (!feed(in_, in)) return fail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the handshake");
        ERR_clear_error();
        int rc = SSL_do_handshake(ssl_);
        bool drained = drain(out_, out);
        if (!drained) return fail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the handshake");
        if (rc == 1) return tlsStatus::done;
        int error = SSL_get_error(ssl_, rc);
        if (error == SSL_ERROR_WANT_READ) return tlsStatus::wantInput;
        char reason[256];
        long verified = SSL_get_verify_result(ssl_);
        if (verified != X509_V_OK) {
            ERR_clear_error();
            tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "the Gateway's certificate was not accepted: %s (%s)",
                    verifyClass(verified), X509_verify_cert_error_string(verified));
            return tlsStatus::failed;
        }
        opensslReason(reason, sizeof reason, "the handshake failed");
        const char* kind = strstr(reason, "version") != nullptr || strstr(reason, "protocol") != nullptr
                               ? "protocol version or cipher not accepted"
                               : "handshake failed";
        tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "TLS %s: %s", kind, reason);
        return tlsStatus::failed;
    }

    bool encrypt(const uint8_t* data, size_t len, tlsBytes& out, tlsFailure& why) override {
        size_t done = 0;
        while (done < len) {
            size_t written = 0;
            ERR_clear_error();
            if (SSL_write_ex(ssl_, data + done, len - done, &written) != 1) {
                char reason[256];
                return tlsFail(why, KVL_EXT_ERR_TLS_IO, "a TLS record could not be written: %s",
                               opensslReason(reason, sizeof reason, "unknown"));
            }
            done += written;
            if (!drain(out_, out)) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
        }
        return true;
    }

    tlsStatus decrypt(tlsBytes& in, tlsBytes& plain, tlsBytes& out, tlsFailure& why) override {
        if (!feed(in_, in)) return fail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
        for (;;) {
            uint8_t* at = plain.reserve(16384);
            if (at == nullptr) return fail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
            size_t got = 0;
            ERR_clear_error();
            int rc = SSL_read_ex(ssl_, at, 16384, &got);
            if (!drain(out_, out)) return fail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
            if (rc == 1) {
                plain.commit(got);
                continue;
            }
            int error = SSL_get_error(ssl_, rc);
            if (error == SSL_ERROR_WANT_READ) return tlsStatus::done;
            if (error == SSL_ERROR_ZERO_RETURN) return tlsStatus::closed;
            char reason[256];
            tlsFail(why, KVL_EXT_ERR_TLS_IO, "a TLS record could not be read: %s",
                    opensslReason(reason, sizeof reason, "unknown"));
            return tlsStatus::failed;
        }
    }

    bool closeNotify(tlsBytes& out, tlsFailure& why) override {
        if (SSL_is_init_finished(ssl_) != 1) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "the handshake never finished");
        ERR_clear_error();
        // Once: 0 means ours is written and the peer's is not awaited.
        if (SSL_shutdown(ssl_) < 0) {
            char reason[256];
            return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no close_notify: %s", opensslReason(reason, sizeof reason, "unknown"));
        }
        if (!drain(out_, out)) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
        return !out.empty() || tlsFail(why, KVL_EXT_ERR_TLS_IO, "the TLS library wrote no close_notify");
    }

    bool awaitsClientAuthVerdict() override { return askedForCertificate_ && SSL_version(ssl_) == TLS1_3_VERSION; }

    void describe(char* text, size_t size) override {
        char subject[256] = "none";
        X509* peer = SSL_get0_peer_certificate(ssl_);
        if (peer != nullptr) X509_NAME_oneline(X509_get_subject_name(peer), subject, sizeof subject);
        snprintf(text, size, "%s %s, Gateway certificate %s", SSL_get_version(ssl_), SSL_get_cipher_name(ssl_), subject);
    }

private:
    static void onMessage(int writing, int, int contentType, const void* buf, size_t len, SSL*, void* arg) {
        constexpr int kHandshake = 22, kCertificateRequest = 13;
        if (writing == 0 && contentType == kHandshake && len > 0 &&
            static_cast<const uint8_t*>(buf)[0] == kCertificateRequest)
            static_cast<opensslEngine*>(arg)->askedForCertificate_ = true;
    }

    tlsStatus fail(tlsFailure& why, int code, const char* text) {
        tlsFail(why, code, "%s", text);
        return tlsStatus::failed;
    }

    SSL_CTX* ctx_ = nullptr;
    SSL* ssl_ = nullptr;
    BIO* in_ = nullptr;   // records from the Gateway
    BIO* out_ = nullptr;  // records for the Gateway
    bool askedForCertificate_ = false;
};

}  // namespace

bool tlsSendIfRoom(platformSocket s, const tlsBytes& bytes) {
    int fd = static_cast<int>(s);
    pollfd p{fd, POLLOUT, 0};
    if (poll(&p, 1, 0) != 1 || (p.revents & POLLOUT) == 0) return false;
    ssize_t n = send(fd, bytes.begin(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return n == static_cast<ssize_t>(bytes.size());
}

std::unique_ptr<tlsEngine> clapiTlsCreateEngine(const tlsSettings& settings, tlsFailure& why) {
    std::unique_ptr<opensslEngine> engine(new (std::nothrow) opensslEngine);
    if (!engine) {
        tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot create a TLS session: no memory");
        return nullptr;
    }
    if (!engine->setUp(settings, why)) return nullptr;
    return engine;
}
