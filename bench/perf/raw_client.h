// The floor: a hand-written client that sends the library's bytes over a raw socket
// with the library's architecture, one reader thread per connection that wakes the
// caller waiting for that reply. No tracing, no checks, no shared tables.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "perf_wire.h"

namespace kvlperf {

class RawConnection {
public:
    RawConnection() = default;
    ~RawConnection() { close(); }
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    bool open(int port);
    void close();
    // A synchronous ECI call with a COMMAREA; the reply's COMMAREA lands in `area`.
    bool call(uint8_t* area, uint32_t length);
    // A synchronous ECI call with a channel of one container, whose echoed data lands in `data`.
    bool channelCall(uint8_t* data, uint32_t length);
    // An asynchronous call: the request goes out, the reply is queued for collect().
    bool issue(const uint8_t* area, uint32_t length);
    // Waits for any queued reply and copies its COMMAREA into `area`.
    bool collect(uint8_t* area, uint32_t capacity);

private:
    struct Slot {
        std::mutex m;
        std::condition_variable cv;
        bool done = false;
        bool ok = false;
        bool async = false;
        uint8_t* out = nullptr;
        uint32_t capacity = 0;
        Bytes held;  // an async reply's COMMAREA until collected
    };
    Slot* takeSlot(int32_t* id);
    void giveSlot(int32_t id);
    bool sendRequest(int32_t id, const uint8_t* area, uint32_t length, const uint8_t* containerData,
                     uint32_t containerLength);
    bool waitSlot(int32_t id);
    void readerLoop();
    void deliver(int32_t id, const uint8_t* body, size_t len);
    void failAll();

    int fd_ = -1;
    unsigned long reader_ = 0;
    bool readerRunning_ = false;
    std::mutex sendMutex_;
    Bytes sendBuf_;
    std::mutex slotsMutex_;
    std::vector<std::unique_ptr<Slot>> slots_;  // index = message id - 1
    std::vector<int32_t> freeIds_;
    std::mutex handshakeMutex_;
    std::condition_variable handshakeCv_;
    int handshake_ = 0;  // 0 waiting, 1 accepted, -1 failed
    std::mutex queueMutex_;
    std::condition_variable queueCv_;
    std::deque<int32_t> replied_;
    bool ended_ = false;
    uint32_t correlator_ = 0;
};

}  // namespace kvlperf
