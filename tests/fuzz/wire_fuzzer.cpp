// libFuzzer target: a hostile Gateway against every kind of call.
//
// An input is a script: its first byte picks the call the application makes
// (ECI sync, ECI async then a waiting get-reply, a channel call, a password
// verification, a list of servers, or an ECI or channel call whose deadline
// passes), the rest is every byte the Gateway sends after it has read the
// request (for a deadline call: after the call has given up, so the reply comes
// late into memory the caller has already freed). The Gateway then shuts its
// end down. Whatever
// the bytes, the call must return within a bound (a hang aborts, which the
// fuzzer records), never overrun the caller's memory (guard bytes are checked)
// and never leak or read freed memory (AddressSanitizer, LeakSanitizer and
// UndefinedBehaviorSanitizer are built in).
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "fuzz_gateway.h"
#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvl_ext.h"
#include "kvlclient.h"

namespace {

constexpr size_t kArea = 64;
constexpr size_t kGuard = 32;
constexpr uint8_t kGuardByte = 0xA5;

void checkGuard(const std::vector<uint8_t>& area, size_t used) {
    for (size_t i = used; i < area.size(); ++i) {
        if (area[i] != kGuardByte) {
            fprintf(stderr, "caller's buffer overrun at byte %zu\n", i);
            abort();
        }
    }
}

int eciCall(gwTok token, bool async) {
    std::vector<uint8_t> area(kArea + kGuard, kGuardByte);
    EciParms p{};
    p.eci_call_type = async ? ECI_ASYNC : ECI_SYNC;
    p.eci_version = 6;
    memcpy(p.eci_program, "FUZZPROG", 8);
    p.eci_commarea = area.data();
    p.eci_commarea_length = static_cast<short>(kArea);
    int rc = KVL_ECI_Execute(token, &p);
    if (async && rc == ECI_NO_ERROR) {
        EciParms get{};
        get.eci_call_type = ECI_GET_REPLY_WAIT;
        get.eci_version = 6;
        get.eci_commarea = area.data();
        get.eci_commarea_length = static_cast<short>(kArea);
        rc = KVL_ECI_Execute(token, &get);
    }
    checkGuard(area, kArea);
    return rc;
}

int channelCall(gwTok token) {
    chanTok channel = nullptr;
    if (ECI_createChannel("FUZZCHAN", &channel) != ECI_NO_ERROR) abort();
    ECI_createContainer(channel, "FIRST", ECI_BIT, 0, "0123456789", 10);
    ECI_createContainer(channel, "TEXT", ECI_CHAR, 1208, "hello", 5);
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    memcpy(p.eci_program, "FUZZPROG", 8);
    p.eci_channel = channel;
    int rc = KVL_ECI_Execute_Channel(token, &p);
    KVL_ECI_dumpChannels();
    EciContainerInfo info{};
    for (int r = ECI_getFirstContainer(channel, &info); r == ECI_NO_ERROR; r = ECI_getNextContainer(channel, &info)) {
        std::vector<uint8_t> data(static_cast<size_t>(info.dataLength < 1024 ? info.dataLength : 1024));
        size_t read = 0;
        if (!data.empty()) ECI_getContainerData(channel, info.name, data.data(), data.size(), 0, &read);
    }
    if (ECI_deleteChannel(&channel) != ECI_NO_ERROR) abort();
    return rc;
}

int esiCall(gwTok token) {
    esiDetails details{};
    int rc = KVL_ESI_verifyPassword(token, "FUZZUSER", "FUZZPASS", nullptr, &details);
    struct tm out {};
    KVL_ESI_convertTime(&details.lastVerifiedTime, &out);
    KVL_ESI_convertTime(&details.expiryTime, &out);
    KVL_ESI_convertTime(&details.lastAccessTime, &out);
    return rc;
}

int listCall(gwTok token) {
    constexpr unsigned short kCapacity = 3;
    std::vector<kvlSystemInfo> list(kCapacity + 2);
    memset(list.data(), kGuardByte, list.size() * sizeof(kvlSystemInfo));
    unsigned short count = kCapacity;
    int rc = KVL_listSystems(token, &count, list.data());
    const auto* bytes = reinterpret_cast<const uint8_t*>(list.data());
    for (size_t i = kCapacity * sizeof(kvlSystemInfo); i < list.size() * sizeof(kvlSystemInfo); ++i) {
        if (bytes[i] != kGuardByte) abort();
    }
    return rc;
}

bool isLate(uint8_t kind) { return kind == fuzzgw::kEciLate || kind == fuzzgw::kChannelLate; }

// A sync call that gets no reply before its deadline must give up; its COMMAREA
// or channel is freed on return, so a late reply written there is caught.
int lateCall(gwTok token, bool channel) {
    if (KVL_EXT_setCallDeadline(token, 5) != KVL_OK) abort();
    int rc = channel ? channelCall(token) : eciCall(token, false);
    if (rc != ECI_ERR_RESPONSE_TIMEOUT) {
        fprintf(stderr, "a call without a reply returned %d, not the deadline's code\n", rc);
        abort();
    }
    return rc;
}

int runCall(uint8_t kind, gwTok token) {
    switch (kind) {
        case fuzzgw::kEciSync: return eciCall(token, false);
        case fuzzgw::kEciAsync: return eciCall(token, true);
        case fuzzgw::kChannel: return channelCall(token);
        case fuzzgw::kEsi: return esiCall(token);
        case fuzzgw::kEciLate: return lateCall(token, false);
        case fuzzgw::kChannelLate: return lateCall(token, true);
        default: return listCall(token);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    clapiInitFunc();
    clapiCloseAnswerSeconds = 1;  // the hostile Gateway need not answer a close
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    fuzzgw::Gateway gateway;
    gwTok token = nullptr;
    if (!gateway.listening() || !gateway.serveHandshake()) abort();
    if (KVL_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &token, 10) != KVL_OK) abort();
    if (!gateway.handshakeDone()) abort();

    const uint8_t kind = data[0] % fuzzgw::kKinds;
    auto call = std::async(std::launch::async, [&] { return runCall(kind, token); });
    // The script goes out once the request has arrived (or at once if none comes),
    // for a deadline call once the call has returned.
    gateway.awaitRequest();
    if (isLate(kind) && call.wait_for(std::chrono::seconds(15)) != std::future_status::ready) {
        fprintf(stderr, "a call with a deadline did not return\n");
        abort();
    }
    gateway.sendScript(data + 1, size - 1);
    gateway.shutdownPeer();
    if (call.wait_for(std::chrono::seconds(15)) != std::future_status::ready) {
        fprintf(stderr, "the call did not return after the Gateway went away\n");
        abort();
    }
    call.get();
    if (KVL_closeGatewayConnection(&token) != KVL_OK) {
        fprintf(stderr, "close failed\n");
        abort();
    }
    return 0;
}
