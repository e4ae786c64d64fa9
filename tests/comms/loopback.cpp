#include "loopback.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

namespace kvltest {

namespace {
constexpr auto kWatchdogLimit = std::chrono::seconds(30);
constexpr int32_t kMarkerId = 4242;  // the flow that must follow a decoded reply
}

Wire& Wire::header(int32_t flowType, int32_t messageId, const std::string& requestType, uint32_t bodyLen, int32_t rc) {
    be32(FLOW_EYECATCHER).be32(FLOW_VERSION).be32(static_cast<uint32_t>(flowType));
    be32(static_cast<uint32_t>(messageId)).be32(static_cast<uint32_t>(rc));
    be32(static_cast<uint32_t>(requestType.size())).text(requestType).u8(0).be32(bodyLen);
    return *this;
}

Loopback::Loopback() {
    platformSocket listener = PLATFORM_INVALID_SOCKET;
    uint16_t port = 0;
    if (platformListen("127.0.0.1", 0, &listener, &port) != 0) {
        ADD_FAILURE() << "listen on 127.0.0.1 failed";
        return;
    }
    platformAddress address;
    std::string portText = std::to_string(port);
    if (platformResolve("127.0.0.1", portText.c_str(), &address) == 0) {
        client = platformSocketCreate(address.family, address.socktype, address.protocol);
        if (client != PLATFORM_INVALID_SOCKET && platformConnect(client, &address) == 0) {
            peer = platformAccept(listener);
            platformSetKeepAliveNoDelay(client);
            platformSetKeepAliveNoDelay(peer);
        }
    }
    platformCloseSocket(listener);
    if (!ok()) {
        ADD_FAILURE() << "loopback connection failed";
        return;
    }
    watchdog_ = std::thread([this] {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!done_.wait_for(lock, kWatchdogLimit, [this] { return finished_; })) {
            ADD_FAILURE() << "watchdog: test took too long, shutting the sockets down";
            platformShutdownSocket(client);
            platformShutdownSocket(peer);
        }
    });
}

Loopback::~Loopback() {
    joinSender();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_ = true;
    }
    done_.notify_all();
    if (watchdog_.joinable()) watchdog_.join();
    if (client != PLATFORM_INVALID_SOCKET) platformCloseSocket(client);
    if (peer != PLATFORM_INVALID_SOCKET) platformCloseSocket(peer);
}

void Loopback::joinSender() {
    if (sender_.joinable()) sender_.join();
}

void Loopback::send(const Bytes& bytes) const {
    size_t sent = 0;
    while (sent < bytes.size()) {
        long long rc = platformSend(peer, bytes.data() + sent, bytes.size() - sent);
        if (rc < 1) {
            ADD_FAILURE() << "peer send failed";
            return;
        }
        sent += static_cast<size_t>(rc);
    }
}

void Loopback::sendInBackground(const Bytes& bytes, int delayMs, bool trickle) {
    joinSender();
    sender_ = std::thread([this, bytes, delayMs, trickle] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        if (!trickle) return send(bytes);
        for (uint8_t b : bytes) {
            if (platformSend(peer, &b, 1) != 1) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

Bytes Loopback::receive(size_t n, int timeoutSeconds) const {
    Bytes out(n);
    size_t got = 0;
    while (got < n) {
        if (platformWaitReadable(peer, timeoutSeconds) <= 0) break;
        long long rc = platformRecv(peer, out.data() + got, n - got);
        if (rc < 1) break;
        got += static_cast<size_t>(rc);
    }
    out.resize(got);
    return out;
}

void Loopback::closePeer() {
    joinSender();
    platformCloseSocket(peer);
    peer = PLATFORM_INVALID_SOCKET;
}

ReadBuffer::ReadBuffer(platformSocket s) { EXPECT_EQ(initReadBuffer(&sb, s, SOCKBUFFER_MAX_SIZE), 0); }

int readFlow(sockBuffer* sb, flowHeader* header) {
    int rc = clapiReadHeader(sb, header);
    if (rc != 0) return rc;
    sb->dataRemaining = header->bodyLen - sb->bufferLen;
    return fillBuffer(sb);
}

SentRequest sendRequest(const char* requestType, int32_t messageId,
                        const std::function<int(platformSocket, flowHeader*)>& send) {
    Loopback net;
    EXPECT_TRUE(net.ok());
    flowHeader header;
    clapiInitFlowHeader(&header, FLOW_REQUEST, messageId, requestType);
    EXPECT_EQ(send(net.client, &header), 0);
    Bytes expectedHeader = Wire().header(FLOW_REQUEST, messageId, requestType, header.bodyLen).bytes();
    Bytes all = net.receive(expectedHeader.size() + header.bodyLen, 2);
    if (all.size() < expectedHeader.size()) {
        ADD_FAILURE() << "no whole header arrived";
        return {};
    }
    auto bodyStart = all.begin() + static_cast<std::ptrdiff_t>(expectedHeader.size());
    EXPECT_EQ(Bytes(all.begin(), bodyStart), expectedHeader);
    return {Bytes(bodyStart, all.end()), header.bodyLen};
}

ReplyOnWire::ReplyOnWire(const char* requestType, const Wire& body) : buffer_(net_.client) {
    EXPECT_TRUE(net_.ok());
    Wire w;
    w.header(FLOW_REPLY, 1, requestType, static_cast<uint32_t>(body.size())).raw(body.bytes());
    net_.send(w.header(FLOW_PING, kMarkerId, requestType, 0));
    flowHeader h{};
    EXPECT_EQ(readFlow(&buffer_.sb, &h), 0);
}

bool ReplyOnWire::markerIsNext() {
    flowHeader h{};
    return readFlow(&buffer_.sb, &h) == 0 && h.flowType == FLOW_PING && h.messageId == kMarkerId;
}

std::string hex(const Bytes& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (uint8_t b : bytes) {
        out.push_back(digits[b >> 4]);
        out.push_back(digits[b & 0xF]);
    }
    return out;
}

std::string dumpedHex(const std::string& traceText, int id) {
    char tag[16];
    snprintf(tag, sizeof tag, "] [%4.4d] ", id);
    std::stringstream ss(traceText);
    std::string line, out;
    bool inDump = false;
    while (std::getline(ss, line)) {
        if (!inDump) {
            inDump = line.find(tag) != std::string::npos;
            continue;
        }
        if (line.rfind("Data truncation", 0) == 0) continue;
        if (line.rfind("0x", 0) != 0) break;
        auto colon = line.find(": ");
        auto sep = line.find(" : ");
        if (colon == std::string::npos || sep == std::string::npos) break;
        for (char c : line.substr(colon + 2, sep - colon - 2))
            if (c != ' ') out.push_back(c);
    }
    return out;
}

}  // namespace kvltest
