// Helpers for the ECI call tests: a connection to an in-process Gateway
// emulator, parameter blocks, and bounded waits.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/emulator.h"
#include "impl/clapi_impl.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvlclient.h"

namespace ecitest {

constexpr int kWaitMs = 10000;  // bound for what must happen

using Bytes = std::vector<uint8_t>;

inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = kWaitMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A fixed-width field filled from text and padded with blanks.
template <size_t N>
void setField(char (&field)[N], const std::string& text) {
    memset(field, ' ', N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

// A version 6 block for a call of `program` with the given COMMAREA.
inline EciParms callParms(short callType, const std::string& program, void* commarea, size_t length) {
    EciParms p;
    memset(&p, 0, sizeof p);
    p.eci_call_type = callType;
    p.eci_version = 6;
    setField(p.eci_program, program);
    setField(p.eci_tran_id, "TRN1");
    setField(p.eci_server_name, "EMUSRV");
    p.eci_commarea = commarea;
    p.eci_commarea_length = static_cast<short>(length);
    return p;
}

inline EciParms retrievalParms(short callType, void* commarea, size_t length, int msgQual = 0) {
    EciParms p;
    memset(&p, 0, sizeof p);
    p.eci_call_type = callType;
    p.eci_version = 6;
    p.eci_commarea = commarea;
    p.eci_commarea_length = static_cast<short>(length);
    p.eci_msg_qual = msgQual;
    return p;
}

inline Bytes pattern(size_t length, uint8_t seed) {
    Bytes b(length);
    for (size_t i = 0; i < length; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + i / 251);
    return b;
}

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// A running emulator and one open connection to it.
class EmulatorConnection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError();
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10), KVL_OK);
        ASSERT_NE(token, nullptr);
    }

    void TearDown() override {
        emu.openGate();
        if (token) {
            EXPECT_EQ(KVL_purgeGatewayConnection(&token, 0), KVL_OK);
        }
        emu.stop();
    }

    // The ECI requests the emulator received, oldest first.
    std::vector<kvlemu::RecordedFlow> eciFlows() const {
        std::vector<kvlemu::RecordedFlow> out;
        for (auto& f : emu.recordedFlows())
            if (f.kind == kvlemu::RecordedFlow::Kind::EciCall) out.push_back(f);
        return out;
    }

    int32_t asyncCount() {
        clapiRequestLock(&token->tableLock);
        int32_t n = token->asyncRequestCount;
        clapiReleaseLock(&token->tableLock);
        return n;
    }

    int32_t slotState(int32_t number) {
        clapiRequestLock(&token->tableLock);
        clapiSlot* s = slotByNumber(&token->requestTable, number);
        int32_t state = s ? s->state : -1;
        clapiReleaseLock(&token->tableLock);
        return state;
    }

    int32_t apiCalls() {
        clapiRequestLock(&clapiGtlLock);
        int32_t n = token->apiCallCount;
        clapiReleaseLock(&clapiGtlLock);
        return n;
    }

    // Breaks the connection from the Gateway's side and waits until the library noticed.
    void loseConnection() {
        ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
        ASSERT_TRUE(waitUntil([this] { return token->connStatus.load() == CONN_LOST; }));
    }

    kvlemu::Emulator emu;
    gwTok token = nullptr;
};

}  // namespace ecitest
