// Flow header, handshake and exception bodies.
#include "gateway_emulator/wire.h"

namespace kvlemu::wire {

void encodeHeader(Writer& w, const Header& h) {
    w.u32(h.eyecatcher);
    w.u32(h.version);
    w.i32(h.flowType);
    w.i32(h.messageId);
    w.i32(h.rc);
    w.u32(static_cast<uint32_t>(h.requestType.size()));
    w.text(h.requestType);
    w.u8(h.flags);
    w.u32(h.bodyLength);
}

bool decodeHeader(Source& src, Header& h, std::string& error) {
    if (!getU32(src, h.eyecatcher)) {
        error = "header: end of data in eyecatcher";
        return false;
    }
    if (h.eyecatcher != kEyecatcher) {
        error = "header: bad eyecatcher";
        return false;
    }
    uint32_t typeLen = 0;
    if (!getU32(src, h.version) || !getI32(src, h.flowType) || !getI32(src, h.messageId) || !getI32(src, h.rc) ||
        !getU32(src, typeLen)) {
        error = "header: end of data";
        return false;
    }
    if (typeLen > kMaxRequestTypeLength) {
        error = "header: request type length " + std::to_string(typeLen) + " too long";
        return false;
    }
    if (!getText(src, typeLen, h.requestType) || !getU8(src, h.flags) || !getU32(src, h.bodyLength)) {
        error = "header: end of data";
        return false;
    }
    return true;
}

Bytes encodeFlow(Header h, const Bytes& body) {
    h.bodyLength = static_cast<uint32_t>(body.size());
    Writer w;
    w.reserve(h.encodedSize() + body.size());
    encodeHeader(w, h);
    w.bytes(body);
    return w.take();
}

Bytes encodeHandshakeBody(const Handshake& hs) {
    Writer w;
    w.u16(static_cast<uint16_t>(hs.language.size()));
    w.text(hs.language);
    w.u16(static_cast<uint16_t>(hs.country.size()));
    w.text(hs.country);
    w.bytes(hs.reserved);
    w.u16(static_cast<uint16_t>(hs.applidUtf8.size()));
    w.text(hs.applidUtf8);
    w.u16(static_cast<uint16_t>(hs.qualifierUtf8.size()));
    w.text(hs.qualifierUtf8);
    return w.take();
}

namespace {
bool shortText(Source& src, std::string& out) {
    uint16_t n = 0;
    return getU16(src, n) && getText(src, n, out);
}
}  // namespace

bool decodeHandshakeBody(Source& src, Handshake& hs, std::string& error) {
    if (!shortText(src, hs.language) || !shortText(src, hs.country) || !getBytes(src, 10, hs.reserved) ||
        !shortText(src, hs.applidUtf8) || !shortText(src, hs.qualifierUtf8)) {
        error = "handshake: body too short for its lengths";
        return false;
    }
    return true;
}

Bytes encodeExceptionBody(const std::string& text) {
    Writer w;
    w.u8(0);
    std::string t = text.substr(0, 0xFFFF);
    w.u16(static_cast<uint16_t>(t.size()));
    w.text(t);
    return w.take();
}

bool decodeExceptionBody(Source& src, std::string& text, std::string& error) {
    uint8_t skip = 0;
    if (!getU8(src, skip) || !shortText(src, text)) {
        error = "exception: body too short for its length";
        return false;
    }
    return true;
}

}  // namespace kvlemu::wire
