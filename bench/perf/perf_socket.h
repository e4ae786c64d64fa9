// Loopback sockets and a buffered flow reader for the suite's own Gateway and client.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "perf_wire.h"

namespace kvlperf {

int listenLoopback(int* port);           // a listening socket on 127.0.0.1, port chosen by the system
int connectLoopback(int port);           // a connected socket with TCP_NODELAY, or -1
bool sendAll(int fd, const void* p, size_t n);
// Starts a detached-style thread with a small stack; false when it could not start.
bool startSmallThread(std::function<void()> body, size_t stackBytes, unsigned long* id);
void joinThread(unsigned long id);

// Reads whole flows from a socket with as few reads as it can: one buffer, refilled
// only when the next header or body is not already in it.
class FlowReader {
public:
    explicit FlowReader(int fd) : fd_(fd) {}
    // The next flow's header and body (body valid until the next call); false at the end.
    bool next(Header* header, const uint8_t** body);
    // The same, for a peer whose declared body length may exceed what it sends:
    // `complete(bytes, have)` gives the body's real length once `have` holds all of it.
    bool next(Header* header, const uint8_t** body, size_t* bodyLen,
              const std::function<size_t(const uint8_t*, size_t)>& complete);

private:
    bool want(size_t n);
    bool readMore();
    int fd_;
    Bytes buf_ = Bytes(4096);  // grows to the largest flow seen
    size_t start_ = 0;
    size_t end_ = 0;
};

}  // namespace kvlperf
