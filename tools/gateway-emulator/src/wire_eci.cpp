// ECI and list-systems request and reply bodies.
#include "gateway_emulator/wire.h"

namespace kvlemu::wire {

namespace {

constexpr uint8_t kPresent = 0xFF;

void encodeTrailer(Writer& w, const EciRequest& r) {
    w.u16(r.timeout);
    w.u8(r.reserved3);
    w.i32(r.optionalBlocks);
    if (static_cast<uint32_t>(r.optionalBlocks) != 0xFFFFFFFFu) {
        w.u32(static_cast<uint32_t>(r.blockA.size()));
        w.bytes(r.blockA);
        w.u32(static_cast<uint32_t>(r.blockB.size()));
        w.bytes(r.blockB);
    }
    w.i32(r.correlator);
}

bool decodeBlock(Source& src, Bytes& out) {
    uint32_t n = 0;
    return getU32(src, n) && getBytes(src, n, out);
}

bool decodeTrailer(Source& src, EciRequest& r, std::string& error) {
    if (!getU16(src, r.timeout) || !getU8(src, r.reserved3) || !getI32(src, r.optionalBlocks)) {
        error = "eci request: trailer cut short";
        return false;
    }
    if (static_cast<uint32_t>(r.optionalBlocks) != 0xFFFFFFFFu &&
        (!decodeBlock(src, r.blockA) || !decodeBlock(src, r.blockB))) {
        error = "eci request: optional blocks exceed the body";
        return false;
    }
    if (!getI32(src, r.correlator)) {
        error = "eci request: correlator missing";
        return false;
    }
    return true;
}

// A non-negative length that the rest of the body can hold.
bool boundedLength(Source& src, int32_t& v) {
    return getI32(src, v) && v >= 0 && static_cast<uint64_t>(v) <= src.remaining();
}

}  // namespace

Bytes encodeEciRequestBody(const EciRequest& r) {
    Writer w;
    w.i32(r.requestType);
    if (r.isCall()) {
        w.i32(r.extendMode);
        w.i32(r.luwToken);
        w.i32(r.reserved1);
        w.u8(r.reserved2);
        w.i32(8);
        w.padded(r.serverName, 8);
        w.padded(fieldText(r.userid), 16);
        Bytes masked = mask(r.password);
        w.u32(static_cast<uint32_t>(masked.size()));
        w.bytes(masked);
        w.padded(r.program, 8);
        w.padded(r.tranId, 4);
        w.u32(static_cast<uint32_t>(r.extraData.size()));
        w.bytes(r.extraData);
        w.i32(r.commareaLength);
        if (r.outboundLength >= 1) {
            w.u8(kPresent);
            w.i32(r.outboundLength);
        } else {
            w.u8(0);
        }
        if (r.inboundLength >= 1) {
            w.u8(kPresent);
            w.i32(r.inboundLength);
        } else {
            w.u8(0);
        }
        if (r.carriesCommarea()) w.bytes(r.commarea);
        if (r.channel) {
            w.u8(kPresent);
            encodeChannel(w, *r.channel, true);
        } else {
            w.u8(0);
        }
    } else if (r.requestType == kEciListSystems) {
        w.i32(r.listParm);
    }
    encodeTrailer(w, r);
    return w.take();
}

uint32_t declaredEciRequestSize(const EciRequest& r) {
    uint64_t n = static_cast<uint32_t>(r.optionalBlocks) == 0xFFFFFFFFu ? 15 : 23 + r.blockA.size() + r.blockB.size();
    if (r.requestType == kEciListSystems) n += 4;
    if (r.isCall()) {
        n += 68 + r.extraData.size() + r.password.size();
        if (r.inboundLength > 0) n += 4;
        if (r.outboundLength > 0) n += 4;
        if (r.carriesCommarea()) n += r.commarea.size();
        if (r.channel) n += declaredChannelSize(*r.channel);
    }
    return static_cast<uint32_t>(n);
}

bool decodeEciRequestBody(Source& src, EciRequest& r, std::string& error) {
    if (!getI32(src, r.requestType)) {
        error = "eci request: empty body";
        return false;
    }
    if (r.isCall()) {
        int32_t pwLen = 0;
        int32_t extraLen = 0;
        if (!getI32(src, r.extendMode) || !getI32(src, r.luwToken) || !getI32(src, r.reserved1) ||
            !getU8(src, r.reserved2) || !getI32(src, r.serverNameLength)) {
            error = "eci request: fixed fields cut short";
            return false;
        }
        if (r.serverNameLength < 0 || r.serverNameLength > 8) {
            error = "eci request: server name length " + std::to_string(r.serverNameLength) + " out of range";
            return false;
        }
        if (!getText(src, static_cast<size_t>(r.serverNameLength), r.serverName) || !getText(src, 16, r.userid)) {
            error = "eci request: server name or user id cut short";
            return false;
        }
        r.serverName.resize(8, '\0');
        if (!boundedLength(src, pwLen) || !getBytes(src, static_cast<size_t>(pwLen), r.passwordMasked)) {
            error = "eci request: bad password length";
            return false;
        }
        r.password = unmask(r.passwordMasked);
        if (!getText(src, 8, r.program) || !getText(src, 4, r.tranId) || !boundedLength(src, extraLen) ||
            !getBytes(src, static_cast<size_t>(extraLen), r.extraData)) {
            error = "eci request: program, transaction or extra data cut short";
            return false;
        }
        if (!getI32(src, r.commareaLength) || r.commareaLength < 0) {
            error = "eci request: bad COMMAREA length";
            return false;
        }
        if (!getU8(src, r.outboundFlag) || (r.outboundFlag != 0 && !getI32(src, r.outboundLength)) ||
            !getU8(src, r.inboundFlag) || (r.inboundFlag != 0 && !getI32(src, r.inboundLength))) {
            error = "eci request: length flags cut short";
            return false;
        }
        if (r.outboundLength < 0 || r.inboundLength < 0) {
            error = "eci request: negative inbound or outbound length";
            return false;
        }
        if (r.carriesCommarea()) {
            int32_t sent = r.outboundFlag != 0 && r.outboundLength >= 1 ? r.outboundLength : r.commareaLength;
            if (!getBytes(src, static_cast<size_t>(sent), r.commarea)) {
                error = "eci request: COMMAREA of " + std::to_string(sent) + " bytes exceeds the body";
                return false;
            }
        }
        if (!getU8(src, r.channelFlag)) {
            error = "eci request: channel flag missing";
            return false;
        }
        if (r.channelFlag != 0) {
            Channel ch;
            if (!decodeChannel(src, ch, true, error)) return false;
            r.channel = std::move(ch);
        }
    } else if (r.requestType == kEciListSystems) {
        if (!getI32(src, r.listParm)) {
            error = "eci request: list-systems argument missing";
            return false;
        }
    }
    return decodeTrailer(src, r, error);
}

Bytes encodeEciReplyBody(const EciReply& r) {
    Writer w;
    encodeEciReplyBody(w, r);
    return w.take();
}

Bytes encodeEciReplyFlow(const Header& h, const EciReply& r, Bytes buffer) {
    Writer w(std::move(buffer));
    // Fixed fields, count and channel flag: 30 bytes; a channel grows the buffer.
    w.reserve(h.encodedSize() + 32 + r.commarea.size());
    encodeFlowInto(w, h, [&](Writer& body) { encodeEciReplyBody(body, r); });
    return w.take();
}

void encodeEciReplyBody(Writer& w, const EciReply& r) {
    w.i32(r.requestType);
    if (r.requestType == kEciCall || r.requestType == kEciCallAltTran) {
        w.i32(r.luwToken);
        w.i32(r.reserved1);
        w.i32(r.rc);
        w.padded(r.abend, 4);
        w.i32(r.commareaLength);
        if (r.explicitCount) {
            w.u8(kPresent);
            w.u8(0);
            w.i32(r.count);
        } else {
            w.u8(0);
        }
        w.bytes(r.commarea);
        if (r.channel) {
            w.u8(kPresent);
            encodeChannel(w, *r.channel, false);
        } else {
            w.u8(0);
        }
    } else if (r.requestType == kEciListSystems) {
        w.i32(r.listParm);
        w.i32(r.rc);
        w.u32(static_cast<uint32_t>(r.commarea.size()));
        w.bytes(r.commarea);
    }
}

bool decodeEciReplyBody(Source& src, int32_t extendMode, EciReply& r, std::string& error) {
    if (!getI32(src, r.requestType)) {
        error = "eci reply: empty body";
        return false;
    }
    if (r.requestType == kEciCall || r.requestType == kEciCallAltTran) {
        uint8_t flag = 0;
        uint8_t pad = 0;
        if (!getI32(src, r.luwToken) || !getI32(src, r.reserved1) || !getI32(src, r.rc) ||
            !getText(src, 4, r.abend) || !getI32(src, r.commareaLength) || !getU8(src, flag)) {
            error = "eci reply: fixed fields cut short";
            return false;
        }
        r.explicitCount = flag != 0;
        if (r.explicitCount) {
            if (!getU8(src, pad) || !getI32(src, r.count)) {
                error = "eci reply: count cut short";
                return false;
            }
        } else {
            r.count = r.commareaLength;
        }
        if (extendMode != 2 && extendMode != 4) {
            if (r.count < 0 || !getBytes(src, static_cast<size_t>(r.count), r.commarea)) {
                error = "eci reply: COMMAREA count " + std::to_string(r.count) + " exceeds the body";
                return false;
            }
        }
        uint8_t channelFlag = 0;
        if (!getU8(src, channelFlag)) {
            error = "eci reply: channel flag missing";
            return false;
        }
        if (channelFlag != 0) {
            Channel ch;
            if (!decodeChannel(src, ch, false, error)) return false;
            r.channel = std::move(ch);
        }
    } else if (r.requestType == kEciListSystems) {
        int32_t len = 0;
        if (!getI32(src, r.listParm) || !getI32(src, r.rc) || !getI32(src, len) || len < 0 ||
            !getBytes(src, static_cast<size_t>(len), r.commarea)) {
            error = "eci reply: list-systems body cut short";
            return false;
        }
    }
    return true;
}

Bytes encodeSystemEntry(const std::string& name, const std::string& description) {
    Writer w;
    w.padded(name, 8, ' ');
    w.u8(0);
    w.padded(description.substr(0, 60), 61, 0);
    return w.take();
}

}  // namespace kvlemu::wire
