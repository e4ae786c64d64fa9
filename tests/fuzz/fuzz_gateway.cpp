#include "fuzz_gateway.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace fuzzgw {

namespace wire = kvlemu::wire;

namespace {
// Reads what arrives until nothing more comes for quietMs; false when nothing came within firstMs.
bool drain(int fd, int firstMs, int quietMs) {
    uint8_t scratch[65536];
    bool any = false;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, any ? quietMs : firstMs);
        if (ready <= 0) return any;
        ssize_t n = recv(fd, scratch, sizeof scratch, 0);
        if (n <= 0) return any;
        any = true;
    }
}
}  // namespace

wire::Bytes flow(int32_t flowType, int32_t messageId, const char* requestType, const wire::Bytes& body, int32_t rc) {
    wire::Header h;
    h.flowType = flowType;
    h.messageId = messageId;
    h.rc = rc;
    h.requestType = requestType;
    return wire::encodeFlow(h, body);
}

Gateway::Gateway() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0) return;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(listener_, 4) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(listener_);
        listener_ = -1;
        return;
    }
    port_ = ntohs(a.sin_port);
}

Gateway::~Gateway() {
    if (acceptor_.joinable()) acceptor_.join();
    if (peer_ >= 0) close(peer_);
    if (listener_ >= 0) close(listener_);
}

bool Gateway::serveHandshake() {
    acceptor_ = std::thread([this] {
        pollfd p{listener_, POLLIN, 0};
        if (poll(&p, 1, 10000) <= 0) return;
        peer_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer_ < 0 || !drain(peer_, 10000, 5)) return;
        wire::Bytes answer = flow(wire::kFlowHandshake, wire::kHandshakeMessageId, "BASE", {});
        shookHands_ = send(peer_, answer.data(), answer.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(answer.size());
    });
    return true;
}

bool Gateway::handshakeDone() {
    if (acceptor_.joinable()) acceptor_.join();
    return shookHands_;
}

void Gateway::awaitRequest() {
    if (peer_ >= 0) drain(peer_, 2000, 5);
}

void Gateway::sendScript(const uint8_t* data, size_t size) {
    size_t sent = 0;
    while (peer_ >= 0 && sent < size) {
        ssize_t n = send(peer_, data + sent, size - sent, MSG_NOSIGNAL);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
}

void Gateway::shutdownPeer() {
    if (peer_ >= 0) shutdown(peer_, SHUT_RDWR);
}

}  // namespace fuzzgw
