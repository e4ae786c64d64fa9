// The few wire facts the performance suite needs, written out on their own so that
// the floor it measures owes nothing to the library's or the emulator's encoders.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kvlperf {

constexpr uint32_t kEyecatcher = 0x47617465;  // "Gate"
constexpr uint32_t kVersion = 0x10901000;
constexpr int32_t kFlowRequest = 1;
constexpr int32_t kFlowReply = 3;
constexpr int32_t kFlowHandshake = 5;
constexpr int32_t kFlowClose = 10;
constexpr int32_t kHandshakeId = -2;
constexpr int32_t kCloseId = -1;
constexpr size_t kHeaderFixed = 29;  // six ints, the flags byte, the body length

using Bytes = std::vector<uint8_t>;

// Appends big-endian fields to a byte vector.
class Out {
public:
    explicit Out(Bytes& b) : b_(b) {}
    Out& u8(uint8_t v) {
        b_.push_back(v);
        return *this;
    }
    Out& be16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
    Out& be32(uint32_t v) {
        return u8(static_cast<uint8_t>(v >> 24)).u8(static_cast<uint8_t>(v >> 16)).u8(static_cast<uint8_t>(v >> 8)).u8(
            static_cast<uint8_t>(v));
    }
    Out& raw(const void* p, size_t n) {
        const auto* c = static_cast<const uint8_t*>(p);
        b_.insert(b_.end(), c, c + n);
        return *this;
    }
    Out& zeros(size_t n) {
        b_.insert(b_.end(), n, 0);
        return *this;
    }
    // A fixed-width field: the text, cut or padded with `pad`.
    Out& field(const std::string& s, size_t n, uint8_t pad = 0) {
        for (size_t i = 0; i < n; ++i) u8(i < s.size() ? static_cast<uint8_t>(s[i]) : pad);
        return *this;
    }
    Out& header(int32_t flowType, int32_t messageId, const char* requestType, uint32_t bodyLen) {
        size_t n = strlen(requestType);
        be32(kEyecatcher).be32(kVersion).be32(static_cast<uint32_t>(flowType)).be32(static_cast<uint32_t>(messageId));
        be32(0).be32(static_cast<uint32_t>(n)).raw(requestType, n).u8(0).be32(bodyLen);
        return *this;
    }

private:
    Bytes& b_;
};

// Reads big-endian fields; `ok` turns false on the first read past the end.
class In {
public:
    In(const uint8_t* p, size_t n) : p_(p), n_(n) {}
    bool ok = true;
    size_t left() const { return n_ - at_; }
    const uint8_t* skip(size_t n) {
        if (!ok || n > left()) {
            ok = false;
            return nullptr;
        }
        const uint8_t* r = p_ + at_;
        at_ += n;
        return r;
    }
    uint8_t u8() {
        const uint8_t* r = skip(1);
        return r ? r[0] : 0;
    }
    uint32_t be32() {
        const uint8_t* r = skip(4);
        return r ? (uint32_t{r[0]} << 24 | uint32_t{r[1]} << 16 | uint32_t{r[2]} << 8 | r[3]) : 0;
    }

private:
    const uint8_t* p_;
    size_t n_;
    size_t at_ = 0;
};

struct Header {
    int32_t flowType = 0;
    int32_t messageId = 0;
    int32_t rc = 0;
    uint32_t bodyLen = 0;
};

// The header that starts `p` (at least 24 bytes): its total length, or 0 when
// the request type is longer than any real one.
inline size_t headerLength(const uint8_t* p) {
    In in(p, 24);
    in.skip(20);
    uint32_t n = in.be32();
    return n <= 8 ? kHeaderFixed + n : 0;
}

inline Header parseHeader(const uint8_t* p, size_t len) {
    In in(p, len);
    Header h;
    in.skip(8);
    h.flowType = static_cast<int32_t>(in.be32());
    h.messageId = static_cast<int32_t>(in.be32());
    h.rc = static_cast<int32_t>(in.be32());
    uint32_t n = in.be32();
    in.skip(n);
    in.u8();
    h.bodyLen = in.be32();
    return h;
}

// The handshake body: language and country, then an applid and qualifier of `applid`/"".
inline Bytes handshakeBody(const std::string& applid) {
    Bytes b;
    Out(b).be16(2).raw("en", 2).be16(2).raw("GB", 2).zeros(10).be16(static_cast<uint16_t>(applid.size()))
        .raw(applid.data(), applid.size()).be16(0);
    return b;
}

}  // namespace kvlperf
