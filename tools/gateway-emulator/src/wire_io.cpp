// Byte-level helpers shared by every flow codec.
#include <cstdio>
#include <cstring>

#include "gateway_emulator/wire.h"

namespace kvlemu::wire {

bool MemorySource::take(uint8_t* dst, size_t n) {
    if (n > size_ - pos_) return false;
    if (n > 0) std::memcpy(dst, data_ + pos_, n);
    pos_ += n;
    return true;
}

bool MemorySource::append(Bytes& out, size_t n) {
    if (n > size_ - pos_) return false;
    out.insert(out.end(), data_ + pos_, data_ + pos_ + n);
    pos_ += n;
    return true;
}

bool Source::append(Bytes& out, size_t n) {
    const size_t at = out.size();
    out.resize(at + n);
    return n == 0 || take(out.data() + at, n);
}

bool getU8(Source& src, uint8_t& v) { return src.take(&v, 1); }

bool getU16(Source& src, uint16_t& v) {
    uint8_t b[2];
    if (!src.take(b, 2)) return false;
    v = static_cast<uint16_t>((b[0] << 8) | b[1]);
    return true;
}

bool getU32(Source& src, uint32_t& v) {
    uint8_t b[4];
    if (!src.take(b, 4)) return false;
    v = (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) | (uint32_t{b[2]} << 8) | uint32_t{b[3]};
    return true;
}

bool getI32(Source& src, int32_t& v) {
    uint32_t u;
    if (!getU32(src, u)) return false;
    v = static_cast<int32_t>(u);
    return true;
}

bool getBytes(Source& src, size_t n, Bytes& out) {
    if (n > src.remaining()) {
        out.clear();
        return false;
    }
    out.clear();  // the capacity stays
    out.reserve(n);  // bounded by what the source may still hand out
    if (src.append(out, n)) return true;
    out.clear();
    return false;
}

bool getText(Source& src, size_t n, std::string& out) {
    if (n > src.remaining()) return false;
    // Straight into the string: no block in between for a field of a few bytes.
    std::string text(n, '\0');
    if (n > 0 && !src.take(reinterpret_cast<uint8_t*>(text.data()), n)) return false;
    out = std::move(text);
    return true;
}

void Writer::u16(uint16_t v) {
    out_.push_back(static_cast<uint8_t>(v >> 8));
    out_.push_back(static_cast<uint8_t>(v));
}

void Writer::u32(uint32_t v) {
    const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16), static_cast<uint8_t>(v >> 8),
                          static_cast<uint8_t>(v)};
    out_.insert(out_.end(), b, b + 4);
}

void Writer::patchU32(size_t offset, uint32_t v) {
    for (int i = 0; i < 4; ++i) out_.at(offset + static_cast<size_t>(i)) = static_cast<uint8_t>(v >> (24 - 8 * i));
}

void Writer::bytes(const void* data, size_t n) {
    auto p = static_cast<const uint8_t*>(data);
    out_.insert(out_.end(), p, p + n);
}

void Writer::padded(const std::string& s, size_t fieldLen, uint8_t fill) {
    size_t n = s.size() < fieldLen ? s.size() : fieldLen;
    bytes(s.data(), n);
    out_.insert(out_.end(), fieldLen - n, fill);
}

Bytes mask(const std::string& clear) {
    Bytes out(clear.size());
    for (size_t i = 0; i < clear.size(); ++i) {
        auto in = static_cast<uint8_t>(clear[i]);
        out[i] = i == 0 ? static_cast<uint8_t>(~in) : static_cast<uint8_t>(static_cast<uint8_t>(clear[i - 1]) ^ in);
    }
    return out;
}

std::string unmask(const Bytes& masked) {
    std::string clear(masked.size(), '\0');
    uint8_t prev = 0;
    for (size_t i = 0; i < masked.size(); ++i) {
        uint8_t c = i == 0 ? static_cast<uint8_t>(~masked[0]) : static_cast<uint8_t>(masked[i] ^ prev);
        clear[i] = static_cast<char>(c);
        prev = c;
    }
    return clear;
}

std::string utf8FromLatin1(const std::string& latin1) {
    std::string out;
    for (unsigned char c : latin1) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(c < 0xC0 ? 0xC2 : 0xC3);
            out += static_cast<char>((c & 0x3F) + 0x80);
        }
    }
    return out;
}

std::string latin1FromUtf8(const std::string& utf8) {
    std::string out;
    for (size_t i = 0; i < utf8.size(); ++i) {
        auto c = static_cast<unsigned char>(utf8[i]);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if ((c == 0xC2 || c == 0xC3) && i + 1 < utf8.size()) {
            auto next = static_cast<unsigned char>(utf8[++i]);
            out += static_cast<char>(((c & 0x03) << 6) | (next & 0x3F));
        } else {
            out += '?';
        }
    }
    return out;
}

std::string fieldText(const std::string& raw) {
    size_t end = raw.find('\0');
    std::string s = raw.substr(0, end);
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

std::string fieldText(const char* raw, size_t width) { return fieldText(std::string(raw, width)); }

std::string nameField(const std::string& text, size_t width, char fill) {
    std::string s = text.substr(0, width);
    s.resize(width, fill);
    return s;
}

const char* flowTypeName(int32_t flowType) {
    switch (flowType) {
        case kFlowRequest: return "REQUEST";
        case kFlowReply: return "REPLY";
        case kFlowError: return "ERROR";
        case kFlowHandshake: return "HANDSHAKE";
        case kFlowException: return "EXCEPTION";
        case kFlowPing: return "PING";
        case kFlowClose: return "CLOSE";
        default: return "UNKNOWN";
    }
}

std::string hexDump(const uint8_t* data, size_t len, size_t maxBytes) {
    std::string out;
    size_t shown = len < maxBytes ? len : maxBytes;
    char line[100];
    for (size_t off = 0; off < shown; off += 16) {
        int n = std::snprintf(line, sizeof line, "  %08zx ", off);
        std::string ascii;
        for (size_t i = 0; i < 16; ++i) {
            if (off + i < shown) {
                uint8_t b = data[off + i];
                n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), "%s%02X", i % 4 == 0 ? " " : "", b);
                ascii += (b >= 0x20 && b < 0x7F) ? static_cast<char>(b) : '.';
            } else {
                n += std::snprintf(line + n, sizeof line - static_cast<size_t>(n), "%s  ", i % 4 == 0 ? " " : "");
            }
        }
        out += line;
        out += "  |" + ascii + "|\n";
    }
    if (shown < len) out += "  ... " + std::to_string(len - shown) + " more bytes\n";
    return out;
}

}  // namespace kvlemu::wire
