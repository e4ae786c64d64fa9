#include "raw_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "perf_socket.h"

namespace kvlperf {

namespace {
constexpr size_t kReaderStack = 64 * 1024;

// The body of a request of the library's layout, up to the COMMAREA bytes.
void requestPrefix(Out& o, uint32_t commareaLength) {
    o.be32(1).be32(0).be32(0).be32(0).u8(0).be32(8).field("EMUSRV", 8).zeros(16).be32(0);
    o.field("ECHO", 8, ' ').field("TRN1", 4).be32(0).be32(commareaLength).u8(0).u8(0);
}

constexpr uint32_t kTrailer = 2 + 1 + 4 + 4;
constexpr uint32_t kPrefix = 4 + 12 + 1 + 4 + 8 + 16 + 4 + 8 + 4 + 4 + 4 + 1 + 1;
constexpr uint32_t kChannelHead = 16 + 4 + 4;
constexpr uint32_t kEntryHead = 16 + 4 + 4 + 4;
}  // namespace

bool RawConnection::open(int port) {
    fd_ = connectLoopback(port);
    if (fd_ < 0) return false;
    if (!startSmallThread([this] { readerLoop(); }, kReaderStack, &reader_)) {
        ::close(fd_);
        fd_ = -1;
        return false;
    }
    readerRunning_ = true;
    Bytes hs = handshakeBody("RAW");
    Bytes flow;
    Out(flow).header(kFlowHandshake, kHandshakeId, "BASE", static_cast<uint32_t>(hs.size())).raw(hs.data(), hs.size());
    if (!sendAll(fd_, flow.data(), flow.size())) return false;
    std::unique_lock<std::mutex> lock(handshakeMutex_);
    handshakeCv_.wait(lock, [this] { return handshake_ != 0; });
    return handshake_ == 1;
}

void RawConnection::close() {
    if (fd_ < 0) return;
    {
        std::lock_guard<std::mutex> lock(sendMutex_);
        Bytes flow;
        Out(flow).header(kFlowClose, kCloseId, "BASE", 0);
        if (!sendAll(fd_, flow.data(), flow.size())) shutdown(fd_, SHUT_RDWR);
    }
    if (readerRunning_) joinThread(reader_);
    readerRunning_ = false;
    ::close(fd_);
    fd_ = -1;
}

RawConnection::Slot* RawConnection::takeSlot(int32_t* id) {
    std::lock_guard<std::mutex> lock(slotsMutex_);
    if (freeIds_.empty()) {
        slots_.push_back(std::make_unique<Slot>());
        *id = static_cast<int32_t>(slots_.size());
    } else {
        *id = freeIds_.back();
        freeIds_.pop_back();
    }
    Slot* s = slots_[static_cast<size_t>(*id - 1)].get();
    s->done = false;
    s->ok = false;
    s->async = false;
    return s;
}

void RawConnection::giveSlot(int32_t id) {
    std::lock_guard<std::mutex> lock(slotsMutex_);
    freeIds_.push_back(id);
}

bool RawConnection::sendRequest(int32_t id, const uint8_t* area, uint32_t length, const uint8_t* containerData,
                                uint32_t containerLength) {
    const bool channel = containerData != nullptr;
    uint32_t body = kPrefix + length + 1 + kTrailer;
    if (channel) body += kChannelHead + kEntryHead + containerLength;
    std::lock_guard<std::mutex> lock(sendMutex_);
    sendBuf_.clear();
    Out o(sendBuf_);
    o.header(kFlowRequest, id, "ECI", body);
    requestPrefix(o, length);
    o.raw(area, length);
    if (!channel) {
        o.u8(0).be16(0).u8(0).be32(0xFFFFFFFF).be32(++correlator_);
        return sendAll(fd_, sendBuf_.data(), sendBuf_.size());
    }
    o.u8(0xFF).field("BENCHCHAN", 16).be32(1208).be32(1);
    o.field("DATA", 16).u8(1).u8(0).u8(0).u8(1).be32(0).be32(containerLength);
    // Large data goes from the caller's memory, as the library's buffer does.
    if (!sendAll(fd_, sendBuf_.data(), sendBuf_.size()) || !sendAll(fd_, containerData, containerLength)) return false;
    sendBuf_.clear();
    Out(sendBuf_).be16(0).u8(0).be32(0xFFFFFFFF).be32(++correlator_);
    return sendAll(fd_, sendBuf_.data(), sendBuf_.size());
}

bool RawConnection::waitSlot(int32_t id) {
    Slot* s;
    {
        std::lock_guard<std::mutex> lock(slotsMutex_);
        s = slots_[static_cast<size_t>(id - 1)].get();
    }
    bool ok;
    {
        std::unique_lock<std::mutex> lock(s->m);
        s->cv.wait(lock, [s] { return s->done; });
        ok = s->ok;
    }
    giveSlot(id);
    return ok;
}

bool RawConnection::call(uint8_t* area, uint32_t length) {
    int32_t id = 0;
    Slot* s = takeSlot(&id);
    s->out = area;
    s->capacity = length;
    if (!sendRequest(id, area, length, nullptr, 0)) {
        giveSlot(id);
        return false;
    }
    return waitSlot(id);
}

bool RawConnection::channelCall(uint8_t* data, uint32_t length) {
    int32_t id = 0;
    Slot* s = takeSlot(&id);
    s->out = data;
    s->capacity = length;
    if (!sendRequest(id, nullptr, 0, data, length)) {
        giveSlot(id);
        return false;
    }
    return waitSlot(id);
}

bool RawConnection::issue(const uint8_t* area, uint32_t length) {
    int32_t id = 0;
    Slot* s = takeSlot(&id);
    s->async = true;
    if (sendRequest(id, area, length, nullptr, 0)) return true;
    giveSlot(id);
    return false;
}

bool RawConnection::collect(uint8_t* area, uint32_t capacity) {
    int32_t id = 0;
    {
        std::unique_lock<std::mutex> lock(queueMutex_);
        queueCv_.wait(lock, [this] { return !replied_.empty() || ended_; });
        if (replied_.empty()) return false;
        id = replied_.front();
        replied_.pop_front();
    }
    Slot* s;
    {
        std::lock_guard<std::mutex> lock(slotsMutex_);
        s = slots_[static_cast<size_t>(id - 1)].get();
    }
    size_t n = s->held.size() < capacity ? s->held.size() : capacity;
    if (n) memcpy(area, s->held.data(), n);
    giveSlot(id);
    return true;
}

void RawConnection::deliver(int32_t id, const uint8_t* body, size_t len) {
    Slot* s = nullptr;
    {
        std::lock_guard<std::mutex> lock(slotsMutex_);
        if (id >= 1 && static_cast<size_t>(id) <= slots_.size()) s = slots_[static_cast<size_t>(id - 1)].get();
    }
    if (!s) return;
    In in(body, len);
    in.skip(8);
    uint32_t rc = in.be32();
    in.skip(4);
    uint32_t commareaLength = in.be32();
    uint32_t inbound = commareaLength;
    if (in.u8()) {
        in.u8();
        inbound = in.be32();
    }
    const uint8_t* data = in.skip(inbound);
    if (s->async) {
        s->held.assign(data, data + (in.ok ? inbound : 0));
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            replied_.push_back(id);
        }
        queueCv_.notify_one();
        return;
    }
    if (in.ok && inbound && s->out) memcpy(s->out, data, inbound < s->capacity ? inbound : s->capacity);
    if (in.u8()) {  // a channel: the one container's data goes back where it came from
        in.skip(kChannelHead - 4);
        uint32_t count = in.be32();
        for (uint32_t i = 0; i < count && in.ok; ++i) {
            in.skip(kEntryHead - 4);
            uint32_t n = in.be32();
            const uint8_t* d = in.skip(n);
            if (d && n <= s->capacity) memcpy(s->out, d, n);
        }
    }
    {
        std::lock_guard<std::mutex> lock(s->m);
        s->done = true;
        s->ok = in.ok && rc == 0;
    }
    s->cv.notify_one();
}

void RawConnection::failAll() {
    std::vector<Slot*> all;
    {
        std::lock_guard<std::mutex> lock(slotsMutex_);
        for (auto& s : slots_) all.push_back(s.get());
    }
    for (Slot* s : all) {
        std::lock_guard<std::mutex> lock(s->m);
        s->done = true;
        s->cv.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        ended_ = true;
    }
    queueCv_.notify_all();
    std::lock_guard<std::mutex> lock(handshakeMutex_);
    if (handshake_ == 0) handshake_ = -1;
    handshakeCv_.notify_all();
}

void RawConnection::readerLoop() {
    FlowReader reader(fd_);
    Header h;
    const uint8_t* body = nullptr;
    while (reader.next(&h, &body)) {
        if (h.flowType == kFlowReply) {
            deliver(h.messageId, body, h.bodyLen);
        } else if (h.flowType == kFlowHandshake) {
            std::lock_guard<std::mutex> lock(handshakeMutex_);
            handshake_ = 1;
            handshakeCv_.notify_all();
        } else if (h.messageId == kCloseId) {
            break;
        }
    }
    failAll();
}

}  // namespace kvlperf
