// ESI request and reply bodies.
#include "gateway_emulator/wire.h"

namespace kvlemu::wire {

Bytes encodeEsiRequestBody(const EsiRequest& r) {
    Writer w;
    w.i32(r.type);
    w.padded(fieldText(r.userid), 10);
    Bytes pw = mask(r.password);
    w.u32(static_cast<uint32_t>(pw.size()));
    w.bytes(pw);
    w.padded(r.server, 8);
    if (r.type == 1) {
        Bytes npw = mask(r.newPassword);
        w.u32(static_cast<uint32_t>(npw.size()));
        w.bytes(npw);
    }
    return w.take();
}

namespace {
bool maskedField(Source& src, Bytes& masked, std::string& clear) {
    int32_t n = 0;
    if (!getI32(src, n) || n < 0 || !getBytes(src, static_cast<size_t>(n), masked)) return false;
    clear = unmask(masked);
    return true;
}
}  // namespace

bool decodeEsiRequestBody(Source& src, EsiRequest& r, std::string& error) {
    if (!getI32(src, r.type) || !getText(src, 10, r.userid)) {
        error = "esi request: type or user id cut short";
        return false;
    }
    if (!maskedField(src, r.passwordMasked, r.password)) {
        error = "esi request: bad password length";
        return false;
    }
    if (!getText(src, 8, r.server)) {
        error = "esi request: server name cut short";
        return false;
    }
    if (r.type == 1 && !maskedField(src, r.newPasswordMasked, r.newPassword)) {
        error = "esi request: bad new password length";
        return false;
    }
    return true;
}

Bytes encodeEsiReplyBody(const EsiReply& r) {
    Writer w;
    w.i32(r.rc);
    if (r.rc == 0)
        for (int32_t v : r.details) w.i32(v);
    return w.take();
}

bool decodeEsiReplyBody(Source& src, EsiReply& r, std::string& error) {
    if (!getI32(src, r.rc)) {
        error = "esi reply: rc missing";
        return false;
    }
    if (r.rc == 0)
        for (auto& v : r.details)
            if (!getI32(src, v)) {
                error = "esi reply: details cut short";
                return false;
            }
    return true;
}

}  // namespace kvlemu::wire
