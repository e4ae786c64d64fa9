// Writes the wire fuzzer's seed corpus: for every call kind, the valid
// replies a Gateway gives (and its error, exception, ping and close flows),
// each file an input as the fuzzer reads it: the call kind, then the bytes.
// Usage: wire_fuzz_seeds DIRECTORY
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_gateway.h"

namespace {
namespace wire = kvlemu::wire;
using fuzzgw::flow;
using wire::Bytes;

constexpr int32_t kFirstSlot = 1;  // the message id of the first request on a connection

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes eciReply(const std::string& commarea, int32_t rc = 0) {
    wire::EciReply r;
    r.rc = rc;
    r.commarea.assign(commarea.begin(), commarea.end());
    r.commareaLength = static_cast<int32_t>(commarea.size());
    return flow(wire::kFlowReply, kFirstSlot, "ECI", wire::encodeEciReplyBody(r));
}

Bytes channelReply() {
    wire::EciReply r;
    wire::Channel ch;
    ch.name = wire::nameField("FUZZCHAN");
    ch.ccsid = 1208;
    auto container = [](const char* name, uint8_t state, int8_t type, const std::string& data) {
        wire::Container c;
        c.name = wire::nameField(name);
        c.state = state;
        c.type = type;
        c.ccsid = type == 2 ? 1208 : 0;
        c.data.assign(data.begin(), data.end());
        c.dataLength = static_cast<uint32_t>(data.size());
        return c;
    };
    ch.containers.push_back(container("FIRST", wire::kContainerModified, 1, "changed data"));
    ch.containers.push_back(container("TEXT", wire::kContainerDeleted, 2, ""));
    ch.containers.push_back(container("ADDED", wire::kContainerAdded, 2, "new text"));
    ch.containers.push_back(container("SAME", wire::kContainerUnchanged, 1, ""));
    r.channel = ch;
    return flow(wire::kFlowReply, kFirstSlot, "ECI", wire::encodeEciReplyBody(r));
}

Bytes esiReply(int32_t rc) {
    wire::EsiReply r;
    r.rc = rc;
    for (size_t i = 0; i < r.details.size(); ++i) r.details[i] = static_cast<int32_t>(2020 + i);
    return flow(wire::kFlowReply, kFirstSlot, "ESI", wire::encodeEsiReplyBody(r));
}

Bytes listReply() {
    wire::EciReply r;
    r.requestType = wire::kEciListSystems;
    r.listParm = 2;
    Bytes entries = join({wire::encodeSystemEntry("SYSA", "first server"), wire::encodeSystemEntry("SYSB", "second")});
    r.commarea = entries;
    r.commareaLength = static_cast<int32_t>(entries.size());
    return flow(wire::kFlowReply, kFirstSlot, "ECI", wire::encodeEciReplyBody(r));
}

Bytes common(const char* requestType) {
    return join({flow(wire::kFlowPing, 0, "BASE", {}),
                 flow(wire::kFlowError, kFirstSlot, requestType, {}, -22),
                 flow(wire::kFlowException, kFirstSlot, requestType, wire::encodeExceptionBody("server gone")),
                 flow(wire::kFlowClose, wire::kCloseMessageId, "BASE", {})});
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 2;
    }
    std::vector<std::pair<std::string, std::pair<uint8_t, Bytes>>> seeds = {
        {"eci-sync-reply", {fuzzgw::kEciSync, eciReply("hello from the server")}},
        {"eci-sync-ping-reply", {fuzzgw::kEciSync, join({flow(wire::kFlowPing, 0, "BASE", {}), eciReply("x")})}},
        {"eci-sync-error", {fuzzgw::kEciSync, flow(wire::kFlowError, kFirstSlot, "ECI", {}, -22)}},
        {"eci-sync-abend", {fuzzgw::kEciSync, eciReply("", -7)}},
        {"eci-sync-other-flows", {fuzzgw::kEciSync, common("ECI")}},
        {"eci-async-reply", {fuzzgw::kEciAsync, eciReply("async reply data")}},
        {"eci-async-close", {fuzzgw::kEciAsync, flow(wire::kFlowClose, wire::kCloseMessageId, "BASE", {})}},
        {"channel-reply", {fuzzgw::kChannel, channelReply()}},
        {"channel-exception", {fuzzgw::kChannel, common("ECI")}},
        {"esi-verified", {fuzzgw::kEsi, esiReply(0)}},
        {"esi-refused", {fuzzgw::kEsi, esiReply(-106)}},
        {"esi-other-flows", {fuzzgw::kEsi, common("ESI")}},
        {"list-reply", {fuzzgw::kList, listReply()}},
        {"list-other-flows", {fuzzgw::kList, common("ECI")}},
        {"eci-late-reply", {fuzzgw::kEciLate, join({eciReply("too late"), eciReply("twice")})}},
        {"eci-late-other-flows", {fuzzgw::kEciLate, common("ECI")}},
        {"channel-late-reply", {fuzzgw::kChannelLate, channelReply()}},
    };
    for (const auto& [name, seed] : seeds) {
        std::string path = std::string(argv[1]) + "/" + name;
        FILE* f = fopen(path.c_str(), "wb");
        if (!f) {
            perror(path.c_str());
            return 1;
        }
        fputc(seed.first, f);
        fwrite(seed.second.data(), 1, seed.second.size(), f);
        fclose(f);
    }
    printf("%zu seeds in %s\n", seeds.size(), argv[1]);
    return 0;
}
