#include "tls_relay.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

namespace tlstest {

namespace {

constexpr int kLifetimeMs = 60000;  // the relay gives up after this, whatever happens

sockaddr_in loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

bool sendAll(int fd, const uint8_t* data, size_t len) {
    while (len > 0) {
        ssize_t n = send(fd, data, len, MSG_NOSIGNAL);
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

TlsRelay::TlsRelay(const std::string& certFile, const std::string& keyFile, int targetPort)
    : targetPort_(targetPort), certFile_(certFile), keyFile_(keyFile) {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a = loopback(0);
    socklen_t len = sizeof a;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return;
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
}

TlsRelay::~TlsRelay() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (listener_ >= 0) close(listener_);
}

const char* TlsRelay::name(End end) {
    switch (end) {
    case End::closeNotify:
        return "close_notify";
    case End::bareEof:
        return "TCP end without close_notify";
    case End::error:
        return "error";
    default:
        return "no end yet";
    }
}

TlsRelay::End TlsRelay::waitForEnd(int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return done_; });
    return end_;
}

void TlsRelay::finish(End end) {
    std::lock_guard<std::mutex> lock(m_);
    if (done_) return;
    end_ = end;
    done_ = true;
    cv_.notify_all();
}

void TlsRelay::run() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLifetimeMs);
    auto expired = [&] { return stopping_ || std::chrono::steady_clock::now() > deadline; };
    pollfd lp{listener_, POLLIN, 0};
    while (!expired() && poll(&lp, 1, 50) == 0) {
    }
    int client = expired() ? -1 : accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    int target = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in t = loopback(targetPort_);
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    SSL* ssl = nullptr;
    bool up = client >= 0 && target >= 0 && ctx != nullptr &&
              connect(target, reinterpret_cast<sockaddr*>(&t), sizeof t) == 0 &&
              SSL_CTX_use_certificate_chain_file(ctx, certFile_.c_str()) == 1 &&
              SSL_CTX_use_PrivateKey_file(ctx, keyFile_.c_str(), SSL_FILETYPE_PEM) == 1 &&
              (ssl = SSL_new(ctx)) != nullptr && SSL_set_fd(ssl, client) == 1;
    if (up) {
        timeval fiveSeconds{5, 0};  // the handshake runs blocking, but not for ever
        setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &fiveSeconds, sizeof fiveSeconds);
        up = SSL_accept(ssl) == 1;
        fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
    }
    End end = up ? End::none : End::error;
    uint8_t buf[16384];
    bool targetOpen = true;
    while (end == End::none && !expired()) {
        pollfd p[2] = {{client, POLLIN, 0}, {targetOpen ? target : -1, POLLIN, 0}};
        if (poll(p, 2, 50) < 0) break;
        if ((p[0].revents & (POLLIN | POLLHUP | POLLERR)) || SSL_pending(ssl) > 0) {
            for (;;) {
                size_t got = 0;
                ERR_clear_error();
                if (SSL_read_ex(ssl, buf, sizeof buf, &got) == 1) {
                    sendAll(target, buf, got);
                    continue;
                }
                int error = SSL_get_error(ssl, 0);
                if (error == SSL_ERROR_WANT_READ) break;
                if (error == SSL_ERROR_ZERO_RETURN) end = End::closeNotify;
                else if (error == SSL_ERROR_SYSCALL ||
                         ERR_GET_REASON(ERR_peek_last_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING)
                    end = End::bareEof;
                else end = End::error;
                break;
            }
        }
        if (end == End::none && (p[1].revents & POLLIN)) {
            ssize_t got = recv(target, buf, sizeof buf, 0);
            if (got <= 0) {
                targetOpen = false;  // the Gateway is done; the client's end is still awaited
            } else {
                size_t done = 0;
                while (done < static_cast<size_t>(got) && !expired()) {
                    size_t written = 0;
                    if (SSL_write_ex(ssl, buf + done, static_cast<size_t>(got) - done, &written) == 1) {
                        done += written;
                        continue;
                    }
                    if (SSL_get_error(ssl, 0) != SSL_ERROR_WANT_WRITE) break;
                    pollfd w{client, POLLOUT, 0};
                    poll(&w, 1, 50);
                }
            }
        }
    }
    finish(end);
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    if (client >= 0) close(client);
    if (target >= 0) close(target);
}

}  // namespace tlstest
