// TLS backend on OpenSSL 3: one SSL object whose BIOs read and write the glue's
// own byte queues, so that the glue does all socket I/O, OpenSSL only turns
// records into bytes, and no record is copied through a BIO buffer of its own.
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

// The queues the engine's BIOs use during one call (nullptr between calls:
// reads then want more input, writes fail).
struct queues {
    tlsBytes* in = nullptr;
    tlsBytes* out = nullptr;
    bool noMemory = false;
};

int queueWrite(BIO* bio, const char* data, size_t len, size_t* written) {
    auto* q = static_cast<queues*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (q->out == nullptr || !q->out->append(reinterpret_cast<const uint8_t*>(data), len)) {
        q->noMemory = q->out != nullptr;
        return 0;
    }
    *written = len;
    return 1;
}

int queueRead(BIO* bio, char* data, size_t len, size_t* read) {
    auto* q = static_cast<queues*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    if (q->in == nullptr || q->in->empty()) {
        BIO_set_retry_read(bio);  // "not yet", never "end": the glue owns the socket's end
        return 0;
    }
    size_t n = len < q->in->size() ? len : q->in->size();
    memcpy(data, q->in->begin(), n);
    q->in->consume(n);
    *read = n;
    return 1;
}

long queueCtrl(BIO*, int cmd, long, void*) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

int queueCreate(BIO* bio) {
    BIO_set_init(bio, 1);
    return 1;
}

// Made once; OpenSSL runs the initialiser of a function-local static once.
const BIO_METHOD* queueMethod() {
    static BIO_METHOD* method = [] {
        BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "kvlclient queue");
        if (m != nullptr) {
            BIO_meth_set_write_ex(m, queueWrite);
            BIO_meth_set_read_ex(m, queueRead);
            BIO_meth_set_ctrl(m, queueCtrl);
            BIO_meth_set_create(m, queueCreate);
        }
        return m;
    }();
    return method;
}

// Binds the queues for one call into OpenSSL, and unbinds them after.
class bound {
public:
    bound(queues& q, tlsBytes* in, tlsBytes* out) : q_(q) {
        q_.in = in;
        q_.out = out;
        q_.noMemory = false;
    }
    ~bound() { q_.in = q_.out = nullptr; }
    bound(const bound&) = delete;
    bound& operator=(const bound&) = delete;

private:
    queues& q_;
};

class opensslEngine final : public tlsEngine {
public:
    ~opensslEngine() override {
        SSL_free(ssl_);  // frees both BIOs
        SSL_CTX_free(ctx_);
    }
    opensslEngine() = default;
    opensslEngine(const opensslEngine&) = delete;
    opensslEngine& operator=(const opensslEngine&) = delete;

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
        const BIO_METHOD* method = queueMethod();
        BIO* in = method != nullptr ? BIO_new(method) : nullptr;
        BIO* out = method != nullptr ? BIO_new(method) : nullptr;
        if (ssl_ == nullptr || in == nullptr || out == nullptr) {
            BIO_free(in);
            BIO_free(out);
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot create a TLS session: no memory");
        }
        BIO_set_data(in, &queues_);
        BIO_set_data(out, &queues_);
        SSL_set0_rbio(ssl_, in);
        SSL_set0_wbio(ssl_, out);
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
        bound use(queues_, &in, &out);
        ERR_clear_error();
        int rc = SSL_do_handshake(ssl_);
        if (queues_.noMemory) return fail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the handshake");
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
        bound use(queues_, nullptr, &out);
        size_t done = 0;
        while (done < len) {
            size_t written = 0;
            ERR_clear_error();
            if (SSL_write_ex(ssl_, data + done, len - done, &written) != 1) {
                if (queues_.noMemory) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
                char reason[256];
                return tlsFail(why, KVL_EXT_ERR_TLS_IO, "a TLS record could not be written: %s",
                               opensslReason(reason, sizeof reason, "unknown"));
            }
            done += written;
        }
        return true;
    }

    tlsStatus decrypt(tlsBytes& in, tlsBytes& plain, tlsBytes& out, tlsFailure& why) override {
        bound use(queues_, &in, &out);
        for (;;) {
            uint8_t* at = plain.reserve(16384);
            if (at == nullptr) return fail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
            size_t got = 0;
            ERR_clear_error();
            int rc = SSL_read_ex(ssl_, at, 16384, &got);
            if (queues_.noMemory) return fail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
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
        bound use(queues_, nullptr, &out);
        ERR_clear_error();
        // Once: 0 means ours is written and the peer's is not awaited.
        if (SSL_shutdown(ssl_) < 0) {
            char reason[256];
            return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no close_notify: %s", opensslReason(reason, sizeof reason, "unknown"));
        }
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
    queues queues_;  // what the SSL object's two BIOs read and write
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
