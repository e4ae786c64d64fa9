// The Gateway side of the wire fuzzer and of its seed generator: a listener on
// loopback that answers one handshake, waits for the client's request and
// sends a script of bytes (Linux only, as the fuzzer is).
#pragma once

#include <cstddef>
#include <cstdint>
#include <thread>

#include "gateway_emulator/wire.h"

namespace fuzzgw {

// The call an input's first byte picks. The two Late kinds make a sync call
// with a short deadline and get the script only after the call has given up.
enum CallKind : uint8_t {
    kEciSync = 0,
    kEciAsync = 1,
    kChannel = 2,
    kEsi = 3,
    kList = 4,
    kEciLate = 5,
    kChannelLate = 6,
    kKinds = 7
};

class Gateway {
public:
    Gateway();
    ~Gateway();
    Gateway(const Gateway&) = delete;
    Gateway& operator=(const Gateway&) = delete;

    bool listening() const { return listener_ >= 0; }
    uint16_t port() const { return port_; }
    // Accepts and answers the handshake on a thread of its own.
    bool serveHandshake();
    bool handshakeDone();
    // Waits (bounded) for the request to arrive and reads what came.
    void awaitRequest();
    void sendScript(const uint8_t* data, size_t size);
    void shutdownPeer();

private:
    int listener_ = -1;
    int peer_ = -1;
    uint16_t port_ = 0;
    bool shookHands_ = false;
    std::thread acceptor_;
};

// The Gateway's flow header and body, as the wire helpers encode them.
kvlemu::wire::Bytes flow(int32_t flowType, int32_t messageId, const char* requestType,
                         const kvlemu::wire::Bytes& body, int32_t rc = 0);

}  // namespace fuzzgw
