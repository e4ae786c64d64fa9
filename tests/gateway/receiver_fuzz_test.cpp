// What a hostile or broken Gateway sends must never crash the client, overrun a
// caller's buffer or leave a caller waiting: seeded random replies to a real
// synchronous call in flight, each on a connection of its own.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <random>
#include <vector>

#include "gateway/gateway_test_util.h"
#include "kvl_eci.h"
#include "kvlclient.h"

namespace {
using kvlemu::wire::Bytes;

constexpr size_t kCommarea = 64;
constexpr size_t kGuard = 32;

// A flow that starts like a real one (eyecatcher, often a sensible type and id)
// and then goes wrong in random ways.
Bytes randomFlow(std::mt19937& rng, int32_t messageId) {
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const int32_t types[] = {3, 3, 3, 4, 5, 6, 7, 10, 2, 99};
    const char* requestTypes[] = {"ECI", "ESI", "BASE", "E", "", "ECIXXXXXX"};
    int32_t ids[] = {messageId, messageId, -1, -2, 0, static_cast<int32_t>(rng())};
    Bytes body(static_cast<size_t>(pick(200)));
    for (auto& b : body) b = static_cast<uint8_t>(rng());
    if (!body.empty() && pick(2) == 0) {
        // A plausible ECI reply start: type 1, then random fields and lengths.
        body.resize(std::max<size_t>(body.size(), 30));
        const uint8_t one[4] = {0, 0, 0, 1};
        memcpy(body.data(), one, 4);
    }
    Bytes flow = gwtest::gatewayFlow(types[pick(10)], ids[pick(6)], requestTypes[pick(6)], body, pick(3) ? 0 : -9);
    if (pick(4) == 0 && flow.size() > 30) {
        // Lie about the body length.
        uint32_t lie = static_cast<uint32_t>(rng());
        size_t at = flow.size() - body.size() - 4;
        for (int i = 0; i < 4; ++i) flow[at + static_cast<size_t>(i)] = static_cast<uint8_t>(lie >> (24 - 8 * i));
    }
    return flow;
}
}  // namespace

TEST(ReceiverFuzz, RandomRepliesNeitherCrashNorOverrunNorHang) {
    for (unsigned seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        gwtest::ScriptedGateway gateway;
        gateway.acceptAndShakeHands();
        gwTok token = nullptr;
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &token, 10), KVL_OK);
        ASSERT_TRUE(gateway.waitReady());

        std::vector<uint8_t> area(kCommarea + kGuard, 0xA5);
        EciParms parms;
        memset(&parms, 0, sizeof parms);
        parms.eci_call_type = ECI_SYNC;
        parms.eci_version = 6;
        memcpy(parms.eci_program, "FUZZ    ", 8);
        parms.eci_commarea = area.data();
        parms.eci_commarea_length = static_cast<short>(kCommarea);
        auto call = std::async(std::launch::async, [&] { return KVL_ECI_Execute(token, &parms); });

        kvlemu::wire::Header request;
        ASSERT_TRUE(gateway.readHeader(request));
        for (int i = 0, n = 1 + static_cast<int>(rng() % 3); i < n; ++i) gateway.send(randomFlow(rng, request.messageId));
        // Whatever the replies did, the end of the connection ends the call.
        gateway.closePeer();
        ASSERT_EQ(call.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        call.get();
        for (size_t i = kCommarea; i < area.size(); ++i) ASSERT_EQ(area[i], 0xA5) << "byte " << i;
        EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
    }
    EXPECT_TRUE(gwtest::gtlEmpty());
}
