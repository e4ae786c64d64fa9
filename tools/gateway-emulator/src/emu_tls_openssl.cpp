// The emulator's TLS on OpenSSL: one SSL object between memory BIOs per
// connection, so that the reader can wait on the socket without holding the
// lock the senders need.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

#include "emu_tls.h"

namespace kvlemu::tls {

class ServerContext {
public:
    ~ServerContext() { SSL_CTX_free(ctx); }
    SSL_CTX* ctx = nullptr;
};

namespace {

std::string lastReason(const char* fallback) {
    unsigned long e = ERR_peek_last_error();
    std::string text = fallback;
    if (e != 0) {
        char buf[256];
        ERR_error_string_n(e, buf, sizeof buf);
        text = buf;
    }
    ERR_clear_error();
    return text;
}

void drain(BIO* bio, std::vector<uint8_t>& out) {
    uint8_t buf[16384];
    int n;
    while ((n = BIO_read(bio, buf, sizeof buf)) > 0) out.insert(out.end(), buf, buf + n);
}

class OpensslStream final : public Stream {
public:
    OpensslStream(std::shared_ptr<ServerContext> context, net::Socket s, int timeoutMs)
        : context_(std::move(context)), sock_(s), timeoutMs_(timeoutMs) {}
    ~OpensslStream() override {
        SSL_free(ssl_);  // frees the BIOs with it
        net::closeSocket(sock_);
    }

    bool start(std::string* why) override {
        ssl_ = SSL_new(context_->ctx);
        in_ = BIO_new(BIO_s_mem());
        out_ = BIO_new(BIO_s_mem());
        if (ssl_ == nullptr || in_ == nullptr || out_ == nullptr) {
            SSL_free(ssl_);
            BIO_free(in_);
            BIO_free(out_);
            ssl_ = nullptr;
            in_ = out_ = nullptr;
            if (why) *why = "TLS handshake failed: no memory for a TLS session";
            return false;
        }
        BIO_set_mem_eof_return(in_, -1);
        SSL_set_bio(ssl_, in_, out_);
        SSL_set_accept_state(ssl_);
        std::string failure = handshake();
        if (!failure.empty()) {
            if (why) *why = "TLS handshake failed: " + failure;
            return false;
        }
        std::lock_guard<std::mutex> lock(m_);
        decryptLocked();  // records that came with the client's last handshake message
        if (why) *why = std::string("TLS session established: ") + SSL_get_version(ssl_);
        return true;
    }

    bool write(const uint8_t* data, size_t len) override {
        if (stopped_ || ssl_ == nullptr) return false;
        std::vector<uint8_t> out;
        std::unique_lock<std::mutex> lock(m_);
        size_t done = 0;
        while (done < len) {
            size_t written = 0;
            if (SSL_write_ex(ssl_, data + done, len - done, &written) != 1) return false;
            done += written;
            drain(out_, out);
        }
        std::lock_guard<std::mutex> wire(wire_);
        lock.unlock();
        return net::sendAll(sock_, out.data(), out.size());
    }

    long read(uint8_t* data, size_t len) override {
        if (ssl_ == nullptr) return -1;
        for (;;) {
            if (stopped_) return -1;
            {
                std::lock_guard<std::mutex> lock(m_);
                if (!plain_.empty()) {
                    size_t n = std::min(len, plain_.size());
                    std::copy(plain_.begin(), plain_.begin() + static_cast<std::ptrdiff_t>(n), data);
                    plain_.erase(plain_.begin(), plain_.begin() + static_cast<std::ptrdiff_t>(n));
                    return static_cast<long>(n);
                }
                if (failed_) return -1;
                if (ended_) return 0;
            }
            uint8_t buf[16384];
            long got = net::recvUntilStopped(sock_, buf, sizeof buf, stopped_);
            if (got <= 0 || stopped_) return stopped_ ? -1 : got;
            std::lock_guard<std::mutex> lock(m_);
            BIO_write(in_, buf, static_cast<int>(got));
            decryptLocked();
        }
    }

    void shutdown() override {
        if (!stopped_.exchange(true)) net::shutdownBoth(sock_);
    }

private:
    // Server side of the handshake; "" when it is done.
    std::string handshake() {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs_);
        for (;;) {
            ERR_clear_error();
            int rc = SSL_do_handshake(ssl_);
            std::vector<uint8_t> out;
            drain(out_, out);
            if (!out.empty() && !net::sendAll(sock_, out.data(), out.size())) return "peer gone";
            if (rc == 1) return "";
            if (SSL_get_error(ssl_, rc) != SSL_ERROR_WANT_READ) return lastReason("refused");
            // Polled, so that a drop (shutdown) or the deadline ends the wait.
            while (!net::waitReadable(sock_, 100)) {
                if (stopped_) return "stopped";
                if (std::chrono::steady_clock::now() > deadline) return "timed out";
            }
            if (stopped_) return "stopped";
            uint8_t buf[16384];
            long got = net::recvSome(sock_, buf, sizeof buf);
            if (got <= 0) return "peer closed";
            BIO_write(in_, buf, static_cast<int>(got));
        }
    }

    void decryptLocked() {
        for (;;) {
            uint8_t buf[16384];
            size_t got = 0;
            int rc = SSL_read_ex(ssl_, buf, sizeof buf, &got);
            if (rc == 1) {
                plain_.insert(plain_.end(), buf, buf + got);
                continue;
            }
            int error = SSL_get_error(ssl_, rc);
            if (error == SSL_ERROR_ZERO_RETURN) ended_ = true;
            else if (error != SSL_ERROR_WANT_READ) failed_ = true;
            ERR_clear_error();
            break;
        }
        std::vector<uint8_t> out;
        drain(out_, out);
        if (!out.empty()) {
            std::lock_guard<std::mutex> wire(wire_);
            net::sendAll(sock_, out.data(), out.size());
        }
    }

    std::shared_ptr<ServerContext> context_;
    net::Socket sock_;
    int timeoutMs_;
    SSL* ssl_ = nullptr;
    BIO* in_ = nullptr;
    BIO* out_ = nullptr;
    std::atomic<bool> stopped_{false};
    std::mutex m_;     // the SSL object and the buffers
    std::mutex wire_;  // records in order on the socket
    std::vector<uint8_t> plain_;
    bool ended_ = false;
    bool failed_ = false;
};

}  // namespace

bool available() { return true; }

std::shared_ptr<ServerContext> makeServerContext(const TlsOptions& options, std::string* error) {
    auto context = std::make_shared<ServerContext>();
    context->ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX* ctx = context->ctx;
    auto failed = [&](const std::string& what) {
        if (error) *error = what + ": " + lastReason("unusable");
        return nullptr;
    };
    if (ctx == nullptr) return failed("cannot create a TLS context");
    SSL_CTX_set_min_proto_version(ctx, options.minVersion == 0x0304 ? TLS1_3_VERSION : TLS1_2_VERSION);
    if (options.maxVersion != 0)
        SSL_CTX_set_max_proto_version(ctx, options.maxVersion == 0x0303 ? TLS1_2_VERSION : TLS1_3_VERSION);
    if (SSL_CTX_use_certificate_chain_file(ctx, options.certFile.c_str()) != 1)
        return failed("cannot load the certificate " + options.certFile);
    if (SSL_CTX_use_PrivateKey_file(ctx, options.keyFile.c_str(), SSL_FILETYPE_PEM) != 1)
        return failed("cannot load the key " + options.keyFile);
    if (SSL_CTX_check_private_key(ctx) != 1) return failed("the key does not match the certificate");
    if (!options.clientCaFile.empty()) {
        if (SSL_CTX_load_verify_locations(ctx, options.clientCaFile.c_str(), nullptr) != 1)
            return failed("cannot load the client CA " + options.clientCaFile);
        SSL_CTX_set_client_CA_list(ctx, SSL_load_client_CA_file(options.clientCaFile.c_str()));
    }
    if (options.requireClientCert || !options.clientCaFile.empty()) {
        int mode = SSL_VERIFY_PEER | (options.requireClientCert ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0);
        SSL_CTX_set_verify(ctx, mode, nullptr);
    }
    return context;
}

std::unique_ptr<Stream> serverStream(std::shared_ptr<ServerContext> context, net::Socket s, int timeoutMs) {
    return std::make_unique<OpensslStream>(std::move(context), s, timeoutMs);
}

}  // namespace kvlemu::tls
