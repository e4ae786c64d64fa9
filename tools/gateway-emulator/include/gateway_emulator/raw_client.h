// A bare-socket Gateway client for tests: sends flows built with wire.h and
// reads whole flows back, every read bounded by a time-out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "gateway_emulator/wire.h"

namespace kvlemu {

class RawClient {
public:
    struct Flow {
        wire::Header header;
        wire::Bytes body;
    };

    RawClient() = default;
    ~RawClient();
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connect(const std::string& address, uint16_t port);
    void close();
    bool connected() const;

    bool sendBytes(const wire::Bytes& bytes);
    bool sendFlow(const wire::Header& header, const wire::Bytes& body);
    // A request flow (type 1) with the given message id and request type.
    bool sendRequest(int32_t messageId, const std::string& requestType, const wire::Bytes& body,
                     std::optional<uint32_t> declaredLength = std::nullopt);

    // The next whole flow, or nothing when the time ran out or the stream
    // ended or broke (see ended()).
    std::optional<Flow> readFlow(int timeoutMs);
    // True once the peer has closed the stream (a read returned end of data).
    bool ended() const { return ended_; }
    // Reads and discards until the peer closes; false if it did not within timeoutMs.
    bool waitClosed(int timeoutMs);
    // Waits until at least n bytes are pending (false on time-out or end of stream).
    bool receiveAtLeast(size_t n, int timeoutMs);
    // Bytes received but not yet part of a whole flow.
    const wire::Bytes& pending() const { return buf_; }

    // Sends the handshake and waits for its answer.
    std::optional<Flow> handshake(const std::string& applidLatin1 = "", const std::string& qualifierLatin1 = "",
                                  int timeoutMs = 5000);

private:
    bool fill(size_t need, int64_t deadlineMs);

    uint64_t sock_ = ~uint64_t{0};
    wire::Bytes buf_;
    bool ended_ = false;
};

}  // namespace kvlemu
