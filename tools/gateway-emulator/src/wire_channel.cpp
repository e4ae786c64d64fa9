// Channel layout inside ECI request and reply bodies.
#include "gateway_emulator/wire.h"

namespace kvlemu::wire {

namespace {
constexpr size_t kChannelFixed = 24;
constexpr size_t kContainerFixed = 28;
}  // namespace

const Container* Channel::find(const std::string& containerName) const {
    std::string key = fieldText(containerName);
    for (const auto& c : containers)
        if (fieldText(c.name) == key) return &c;
    return nullptr;
}

void encodeChannel(Writer& w, const Channel& ch, bool request) {
    w.padded(ch.name, 16);
    w.i32(ch.ccsid);
    w.u32(static_cast<uint32_t>(ch.containers.size()));
    for (const auto& c : ch.containers) {
        w.padded(c.name, 16);
        w.u8(request ? uint8_t{kContainerAdded} : c.state);
        w.u8(0);
        w.u8(0);
        w.u8(static_cast<uint8_t>(c.type));
        w.i32(c.ccsid);
        bool withData = c.carriesData(request);
        w.u32(withData ? static_cast<uint32_t>(c.data.size()) : c.dataLength);
        if (withData) w.bytes(c.data);
    }
}

bool decodeChannel(Source& src, Channel& ch, bool request, std::string& error) {
    uint32_t count = 0;
    if (!getText(src, 16, ch.name) || !getI32(src, ch.ccsid) || !getU32(src, count)) {
        error = "channel: header cut short";
        return false;
    }
    if (count > src.remaining() / kContainerFixed) {
        error = "channel: " + std::to_string(count) + " containers cannot fit in the body";
        return false;
    }
    ch.containers.clear();
    ch.containers.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        Container c;
        uint8_t type = 0;
        if (!getText(src, 16, c.name) || !getU8(src, c.state) || !getU8(src, c.reserved1) ||
            !getU8(src, c.reserved2) || !getU8(src, type) || !getI32(src, c.ccsid) || !getU32(src, c.dataLength)) {
            error = "channel: container " + std::to_string(i) + " header cut short";
            return false;
        }
        c.type = static_cast<int8_t>(type);
        if (c.carriesData(request) && !getBytes(src, c.dataLength, c.data)) {
            error = "channel: container " + std::to_string(i) + " data length " + std::to_string(c.dataLength) +
                    " exceeds the body";
            return false;
        }
        ch.containers.push_back(std::move(c));
    }
    return true;
}

uint32_t declaredChannelSize(const Channel& ch) {
    uint64_t n = kChannelFixed;
    for (const auto& c : ch.containers) n += 32 + c.data.size();
    return static_cast<uint32_t>(n);
}

}  // namespace kvlemu::wire
