// The Gateway's side of the wire protocol, written independently of the client
// library: every flow can be encoded and decoded in both directions, so the
// emulator answers clients and its own test client can talk to the emulator.
//
// Integers are big-endian. Decoders read from a Source that refuses to hand out
// more bytes than it has left, so every length taken from the wire is bounded
// by the flow's declared body length before anything is allocated.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvlemu::wire {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kEyecatcher = 0x47617465;  // "Gate"
constexpr uint32_t kVersion = 0x10901000;
constexpr int32_t kHandshakeMessageId = -2;
constexpr int32_t kCloseMessageId = -1;
constexpr size_t kHeaderFixedSize = 29;
// Longest request type text accepted on receipt ("BASE" is the longest in use).
constexpr size_t kMaxRequestTypeLength = 8;

enum FlowType : int32_t {
    kFlowRequest = 1,
    kFlowReply = 3,
    kFlowError = 4,
    kFlowHandshake = 5,
    kFlowException = 6,
    kFlowPing = 7,
    kFlowClose = 10,
};
const char* flowTypeName(int32_t flowType);  // "REQUEST", ..., "UNKNOWN"

enum EciRequestType : int32_t {
    kEciCall = 1,
    kEciListSystems = 9,
    kEciCallAltTran = 12,
};

enum ContainerState : uint8_t {
    kContainerAdded = 1,
    kContainerDeleted = 2,
    kContainerModified = 3,
    kContainerUnchanged = 4,
};

// ---------------------------------------------------------------------------
// Byte sources and sinks.

class Source {
public:
    virtual ~Source() = default;
    // Copies exactly n bytes or fails (end of data, budget exhausted, socket error).
    virtual bool take(uint8_t* dst, size_t n) = 0;
    // Appends exactly n bytes to `out` or fails (then out may hold some of them).
    // A source that holds the bytes in memory copies them once, with no clearing first.
    virtual bool append(Bytes& out, size_t n);
    // Bytes that may still be taken; the bound applied to lengths read from the wire.
    virtual uint64_t remaining() const = 0;
};

class MemorySource : public Source {
public:
    explicit MemorySource(const Bytes& data) : data_(data.data()), size_(data.size()) {}
    MemorySource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool take(uint8_t* dst, size_t n) override;
    bool append(Bytes& out, size_t n) override;
    uint64_t remaining() const override { return size_ - pos_; }
    size_t position() const { return pos_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

bool getU8(Source& src, uint8_t& v);
bool getU16(Source& src, uint16_t& v);
bool getU32(Source& src, uint32_t& v);
bool getI32(Source& src, int32_t& v);
// Takes n bytes after checking n against src.remaining(). The capacity `out`
// already has is used; it is empty when the bytes cannot be taken.
bool getBytes(Source& src, size_t n, Bytes& out);
bool getText(Source& src, size_t n, std::string& out);

class Writer {
public:
    Writer() = default;
    // Writes into `reuse` from its start: its capacity serves again, so a caller
    // that hands the same buffer back for every flow allocates only once.
    explicit Writer(Bytes&& reuse) : out_(std::move(reuse)) { out_.clear(); }
    void reserve(size_t n) { out_.reserve(n); }
    size_t size() const { return out_.size(); }
    // Overwrites four bytes already written, at `offset`.
    void patchU32(size_t offset, uint32_t v);
    void u8(uint8_t v) { out_.push_back(v); }
    void u16(uint16_t v);
    void u32(uint32_t v);
    void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
    void bytes(const void* data, size_t n);
    void bytes(const Bytes& b) { bytes(b.data(), b.size()); }
    void text(const std::string& s) { bytes(s.data(), s.size()); }
    // Exactly fieldLen bytes: the start of s, then `fill` bytes.
    void padded(const std::string& s, size_t fieldLen, uint8_t fill = 0);
    const Bytes& data() const { return out_; }
    Bytes take() { return std::move(out_); }

private:
    Bytes out_;
};

// ---------------------------------------------------------------------------
// Password masking: out[0] = ~in[0], out[i] = in[i-1] ^ in[i].
Bytes mask(const std::string& clear);
std::string unmask(const Bytes& masked);

// Latin-1 text <-> UTF-8 as the handshake carries applids.
std::string utf8FromLatin1(const std::string& latin1);
// Characters above 0xFF cannot occur in a valid handshake; they become '?'.
std::string latin1FromUtf8(const std::string& utf8);

// A fixed-width name field as text: trailing blanks and NULs removed.
std::string fieldText(const std::string& raw);
std::string fieldText(const char* raw, size_t width);

// ---------------------------------------------------------------------------
// Flow header.

struct Header {
    uint32_t eyecatcher = kEyecatcher;
    uint32_t version = kVersion;
    int32_t flowType = 0;
    int32_t messageId = 0;
    int32_t rc = 0;
    std::string requestType;  // "BASE", "ECI", "ESI" (length on the wire = size())
    uint8_t flags = 0;
    uint32_t bodyLength = 0;

    size_t encodedSize() const { return kHeaderFixedSize + requestType.size(); }
};

void encodeHeader(Writer& w, const Header& h);
// Fails on a wrong eyecatcher or a request type longer than kMaxRequestTypeLength.
bool decodeHeader(Source& src, Header& h, std::string& error);

// Header plus body as one flow; the header's body length is set from the body.
Bytes encodeFlow(Header h, const Bytes& body);
// The header, then whatever `body` writes, in one buffer: the header's body
// length is patched in afterwards, so the body is written once, not copied.
template <typename BodyWriter>
void encodeFlowInto(Writer& w, const Header& h, BodyWriter&& body) {
    encodeHeader(w, h);
    const size_t start = w.size();
    body(w);
    w.patchU32(start - 4, static_cast<uint32_t>(w.size() - start));
}

// ---------------------------------------------------------------------------
// Handshake (flow type 5, message id -2, "BASE").

struct Handshake {
    std::string language = "en";
    std::string country = "GB";
    Bytes reserved = Bytes(10, 0);
    std::string applidUtf8;
    std::string qualifierUtf8;
};
Bytes encodeHandshakeBody(const Handshake& hs);
bool decodeHandshakeBody(Source& src, Handshake& hs, std::string& error);

// ---------------------------------------------------------------------------
// Channels.

struct Container {
    std::string name;  // 16 bytes as on the wire
    uint8_t state = kContainerAdded;
    uint8_t reserved1 = 0;
    uint8_t reserved2 = 0;
    int8_t type = 1;  // 1 BIT, 2 CHAR
    int32_t ccsid = 0;
    uint32_t dataLength = 0;  // as on the wire; equals data.size() where data travels
    Bytes data;

    bool carriesData(bool request) const {
        return request || state == kContainerAdded || state == kContainerModified;
    }
};

struct Channel {
    std::string name;  // 16 bytes as on the wire
    int32_t ccsid = 0;
    std::vector<Container> containers;

    const Container* find(const std::string& containerName) const;
};

// 16-byte name field from text (zero-padded, cut at 16).
std::string nameField(const std::string& text, size_t width = 16, char fill = '\0');

// request = true: every entry carries its data (client to Gateway);
// false: only ADDED and MODIFIED entries do (Gateway to client).
void encodeChannel(Writer& w, const Channel& ch, bool request);
bool decodeChannel(Source& src, Channel& ch, bool request, std::string& error);
// What a client declares for a channel in the body length: 24 + (32 + data) per
// container, four bytes more per container than it sends.
uint32_t declaredChannelSize(const Channel& ch);

// ---------------------------------------------------------------------------
// ECI and list-systems requests (flow type 1, "ECI").

struct EciRequest {
    int32_t requestType = kEciCall;
    // Call types 1 and 12.
    int32_t extendMode = 0;
    int32_t luwToken = 0;
    int32_t reserved1 = 0;
    uint8_t reserved2 = 0;
    int32_t serverNameLength = 8;
    std::string serverName = std::string(8, '\0');  // as on the wire
    std::string userid = std::string(16, '\0');     // 16-byte field as on the wire
    Bytes passwordMasked;                           // as on the wire
    std::string password;                           // unmasked
    std::string program = std::string(8, '\0');
    std::string tranId = std::string(4, '\0');
    Bytes extraData;
    int32_t commareaLength = 0;
    uint8_t outboundFlag = 0;
    int32_t outboundLength = 0;
    uint8_t inboundFlag = 0;
    int32_t inboundLength = 0;
    Bytes commarea;  // the COMMAREA bytes that travelled
    uint8_t channelFlag = 0;
    std::optional<Channel> channel;
    // Call type 9.
    int32_t listParm = 0;
    // Trailer, every call type.
    uint16_t timeout = 0;
    uint8_t reserved3 = 0;
    int32_t optionalBlocks = -1;
    Bytes blockA;
    Bytes blockB;
    int32_t correlator = 0;

    bool isCall() const { return requestType == kEciCall || requestType == kEciCallAltTran; }
    bool carriesCommarea() const { return extendMode != 2 && extendMode != 4; }
};

// Encodes as a client does: flags and lengths from outboundLength/inboundLength
// (flag 0xFF when >= 1), the password masked, COMMAREA bytes unless extend mode 2/4.
Bytes encodeEciRequestBody(const EciRequest& r);
// The body length a client declares (channel counted as declaredChannelSize).
uint32_t declaredEciRequestSize(const EciRequest& r);
bool decodeEciRequestBody(Source& src, EciRequest& r, std::string& error);

// ---------------------------------------------------------------------------
// ECI and list-systems replies (flow type 3, "ECI").

struct EciReply {
    int32_t requestType = kEciCall;
    // Call types 1 and 12.
    int32_t luwToken = 0;
    int32_t reserved1 = 0;
    int32_t rc = 0;
    std::string abend = std::string(4, '\0');
    int32_t commareaLength = 0;
    // When set: flag 0xFF, one pad byte, then the count; else flag 0x00 and the
    // count is commareaLength.
    bool explicitCount = false;
    int32_t count = 0;
    Bytes commarea;  // the bytes sent (none for extend modes 2 and 4)
    std::optional<Channel> channel;
    // Call type 9: listParm, rc and the entry bytes (data length = commarea.size()).
    int32_t listParm = 0;
};

Bytes encodeEciReplyBody(const EciReply& r);
void encodeEciReplyBody(Writer& w, const EciReply& r);
// A whole reply flow in `buffer` (its capacity reused): header and body in one
// pass, the COMMAREA copied once.
Bytes encodeEciReplyFlow(const Header& h, const EciReply& r, Bytes buffer = {});
// extendMode says whether COMMAREA bytes follow, exactly as the client decides.
bool decodeEciReplyBody(Source& src, int32_t extendMode, EciReply& r, std::string& error);

// A list-systems entry: 9-byte name (8 characters blank-padded, then NUL) and
// 61-byte description (NUL-padded, at most 60 characters).
constexpr size_t kSystemEntrySize = 70;
Bytes encodeSystemEntry(const std::string& name, const std::string& description);

// ---------------------------------------------------------------------------
// ESI (flow type 1 / 3, "ESI").

struct EsiRequest {
    int32_t type = 0;  // 0 verify, 1 change
    std::string userid = std::string(10, '\0');  // 10-byte field as on the wire
    Bytes passwordMasked;
    std::string password;
    std::string server = std::string(8, '\0');
    Bytes newPasswordMasked;
    std::string newPassword;
};
Bytes encodeEsiRequestBody(const EsiRequest& r);
bool decodeEsiRequestBody(Source& src, EsiRequest& r, std::string& error);

// 22 values in wire order: first time (7), third time (7), second time (7), count.
using EsiDetails = std::array<int32_t, 22>;
struct EsiReply {
    int32_t rc = 0;
    EsiDetails details{};  // travels only when rc is 0
};
Bytes encodeEsiReplyBody(const EsiReply& r);
bool decodeEsiReplyBody(Source& src, EsiReply& r, std::string& error);

// ---------------------------------------------------------------------------
// Exception (flow type 6): one byte (0), 16-bit length, text.
Bytes encodeExceptionBody(const std::string& text);
bool decodeExceptionBody(Source& src, std::string& text, std::string& error);

std::string hexDump(const uint8_t* data, size_t len, size_t maxBytes = 4096);

}  // namespace kvlemu::wire
