#include "gateway_emulator/raw_client.h"

#include <chrono>

#include "emu_socket.h"

namespace kvlemu {

namespace {
int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
uint32_t be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
constexpr uint32_t kMaxFlowBody = 64u * 1024 * 1024;
}  // namespace

RawClient::~RawClient() { close(); }

bool RawClient::connect(const std::string& address, uint16_t port) {
    close();
    sock_ = net::connectTo(address, port);
    ended_ = false;
    buf_.clear();
    return sock_ != net::kInvalidSocket;
}

void RawClient::close() {
    if (sock_ != net::kInvalidSocket) net::closeSocket(sock_);
    sock_ = net::kInvalidSocket;
}

bool RawClient::connected() const { return sock_ != net::kInvalidSocket; }

bool RawClient::sendBytes(const wire::Bytes& bytes) {
    return connected() && net::sendAll(sock_, bytes.data(), bytes.size());
}

bool RawClient::sendFlow(const wire::Header& header, const wire::Bytes& body) {
    wire::Writer w;
    wire::encodeHeader(w, header);
    w.bytes(body);
    return sendBytes(w.data());
}

bool RawClient::sendRequest(int32_t messageId, const std::string& requestType, const wire::Bytes& body,
                            std::optional<uint32_t> declaredLength) {
    wire::Header h;
    h.flowType = wire::kFlowRequest;
    h.messageId = messageId;
    h.requestType = requestType;
    h.bodyLength = declaredLength.value_or(static_cast<uint32_t>(body.size()));
    return sendFlow(h, body);
}

bool RawClient::fill(size_t need, int64_t deadlineMs) {
    uint8_t chunk[16384];
    while (buf_.size() < need) {
        if (!connected() || ended_) return false;
        int64_t left = deadlineMs - nowMs();
        if (left <= 0 || !net::waitReadable(sock_, static_cast<int>(left))) return false;
        long got = net::recvSome(sock_, chunk, sizeof chunk);
        if (got <= 0) {
            ended_ = true;
            return false;
        }
        buf_.insert(buf_.end(), chunk, chunk + got);
    }
    return true;
}

std::optional<RawClient::Flow> RawClient::readFlow(int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    if (!fill(wire::kHeaderFixedSize, deadline)) return std::nullopt;
    uint32_t typeLen = be32(buf_.data() + 20);
    if (typeLen > wire::kMaxRequestTypeLength) return std::nullopt;
    const size_t headerSize = wire::kHeaderFixedSize + typeLen;
    if (!fill(headerSize, deadline)) return std::nullopt;
    uint32_t bodyLen = be32(buf_.data() + headerSize - 4);
    if (bodyLen > kMaxFlowBody || !fill(headerSize + bodyLen, deadline)) return std::nullopt;
    Flow f;
    wire::MemorySource src(buf_.data(), headerSize);
    std::string error;
    if (!wire::decodeHeader(src, f.header, error)) return std::nullopt;
    f.body.assign(buf_.begin() + static_cast<std::ptrdiff_t>(headerSize),
                  buf_.begin() + static_cast<std::ptrdiff_t>(headerSize + bodyLen));
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(headerSize + bodyLen));
    return f;
}

bool RawClient::receiveAtLeast(size_t n, int timeoutMs) { return fill(n, nowMs() + timeoutMs); }

bool RawClient::waitClosed(int timeoutMs) {
    const int64_t deadline = nowMs() + timeoutMs;
    while (!ended_) {
        size_t have = buf_.size();
        if (!fill(have + 1, deadline) && !ended_) return false;
    }
    return true;
}

std::optional<RawClient::Flow> RawClient::handshake(const std::string& applid, const std::string& qualifier,
                                                    int timeoutMs) {
    wire::Handshake hs;
    hs.applidUtf8 = wire::utf8FromLatin1(applid);
    hs.qualifierUtf8 = wire::utf8FromLatin1(qualifier);
    wire::Header h;
    h.flowType = wire::kFlowHandshake;
    h.messageId = wire::kHandshakeMessageId;
    h.requestType = "BASE";
    wire::Bytes body = wire::encodeHandshakeBody(hs);
    h.bodyLength = static_cast<uint32_t>(body.size());
    if (!sendFlow(h, body)) return std::nullopt;
    return readFlow(timeoutMs);
}

}  // namespace kvlemu
