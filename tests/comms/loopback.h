// A connected TCP pair over 127.0.0.1 for the wire-protocol tests: the library works on
// `client`, the test plays the Gateway on `peer`. A watchdog shuts both ends down if a
// test runs too long, so a library call blocked in recv or send always returns.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "comms/clapi_socketcomms.h"
#include "platform/platform.h"

namespace kvltest {

using Bytes = std::vector<uint8_t>;

// Builds expected or scripted wire bytes, integers big-endian.
class Wire {
public:
    Wire& u8(uint8_t v) { bytes_.push_back(v); return *this; }
    Wire& be16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
    Wire& be32(uint32_t v) { return be16(static_cast<uint16_t>(v >> 16)).be16(static_cast<uint16_t>(v)); }
    Wire& text(const std::string& s) { bytes_.insert(bytes_.end(), s.begin(), s.end()); return *this; }
    Wire& raw(const Bytes& b) { bytes_.insert(bytes_.end(), b.begin(), b.end()); return *this; }
    Wire& fill(size_t n, uint8_t v) { bytes_.insert(bytes_.end(), n, v); return *this; }
    // A flow header as the Gateway sends it: request type text, flags 0.
    Wire& header(int32_t flowType, int32_t messageId, const std::string& requestType, uint32_t bodyLen, int32_t rc = 0);
    const Bytes& bytes() const { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    Bytes bytes_;
};

class Loopback {
public:
    Loopback();
    ~Loopback();
    Loopback(const Loopback&) = delete;
    Loopback& operator=(const Loopback&) = delete;

    bool ok() const { return client != PLATFORM_INVALID_SOCKET && peer != PLATFORM_INVALID_SOCKET; }
    // Sends from the peer's side.
    void send(const Bytes& bytes) const;
    void send(const Wire& wire) const { send(wire.bytes()); }
    // From a background thread, for flows larger than the socket holds, sent late, or
    // one byte at a time with a pause between.
    void sendInBackground(const Bytes& bytes, int delayMs = 0, bool trickle = false);
    // Exactly n bytes that reached the peer, or fewer if they did not come within the limit.
    Bytes receive(size_t n, int timeoutSeconds = 10) const;
    void closePeer();

    platformSocket client = PLATFORM_INVALID_SOCKET;
    platformSocket peer = PLATFORM_INVALID_SOCKET;

private:
    void joinSender();
    std::thread sender_;
    std::thread watchdog_;
    std::mutex mutex_;
    std::condition_variable done_;
    bool finished_ = false;
};

// A buffer record, freed at the end of the test if it was ever initialised.
struct ScopedBuffer {
    sockBuffer sb{};
    ~ScopedBuffer() {
        if (sb.bufferStart) freeBuffer(&sb);
    }
};

// A read buffer as the receiver thread keeps one.
struct ReadBuffer : ScopedBuffer {
    explicit ReadBuffer(platformSocket s);
};

// The receiver thread's steps for one flow: header, then the body primed in the buffer.
int readFlow(sockBuffer* sb, flowHeader* header);

// One request flow as it reached the Gateway: the body after the header (whose bytes
// are checked on the way) and the body length the header declared.
struct SentRequest {
    Bytes body;
    uint32_t declared = 0;
};
SentRequest sendRequest(const char* requestType, int32_t messageId,
                        const std::function<int(platformSocket, flowHeader*)>& send);

// The Gateway's answer: a reply flow carrying `body`, then a marker flow. The reply's
// header is read on construction; the decoder under test must leave the marker next.
class ReplyOnWire {
public:
    ReplyOnWire(const char* requestType, const Wire& body);
    sockBuffer* sb() { return &buffer_.sb; }
    bool markerIsNext();

private:
    Loopback net_;
    ReadBuffer buffer_;
};

// Upper-case hexadecimal of bytes, as the trace dump shows them.
std::string hex(const Bytes& bytes);
// The hexadecimal column of the dump that follows the first DATA line of trace point
// `id` in a trace file's text, without the blanks between groups.
std::string dumpedHex(const std::string& traceText, int id);

}  // namespace kvltest
