// What the extension tests share: an emulator, a connection opened with
// options, parameter blocks and bounded waits.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "ext/clapi_ext.h"
#include "tls/clapi_tls.h"
#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/emulator.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvl_ext.h"
#include "kvlclient.h"
#include "platform/platform_ext.h"

namespace exttest {

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

inline std::string lastErrorText() {
    char text[512];
    EXPECT_EQ(KVL_EXT_getLastErrorText(text, sizeof text), KVL_OK);
    return text;
}

template <size_t N>
void setField(char (&field)[N], const std::string& text) {
    memset(field, ' ', N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

inline EciParms callParms(short callType, const std::string& program, Bytes& area) {
    EciParms p{};
    p.eci_call_type = callType;
    p.eci_version = 6;
    setField(p.eci_program, program);
    setField(p.eci_tran_id, "TRN1");
    setField(p.eci_server_name, "EMUSRV");
    p.eci_commarea = area.empty() ? nullptr : area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    return p;
}

inline EciParms retrievalParms(short callType, Bytes& area, int msgQual = 0) {
    EciParms p{};
    p.eci_call_type = callType;
    p.eci_version = 6;
    p.eci_commarea = area.empty() ? nullptr : area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    p.eci_msg_qual = msgQual;
    return p;
}

inline Bytes text(const std::string& s, size_t size = 0) {
    Bytes b(s.begin(), s.end());
    if (b.size() < size) b.resize(size, 0);
    return b;
}

inline KVL_EXT_ConnectOptions optionsFor(uint16_t port, const char* host = "127.0.0.1") {
    KVL_EXT_ConnectOptions o;
    KVL_EXT_initConnectOptions(&o);
    o.host = host;
    o.port = port;
    o.connectTimeoutMs = 5000;
    return o;
}

// A running emulator and one connection opened with options.
class ExtConnection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError();
        KVL_EXT_ConnectOptions o = optionsFor(emu.port());
        ASSERT_EQ(KVL_EXT_openConnection(&o, &token), KVL_OK) << lastErrorText();
    }
    void TearDown() override {
        emu.openGate();
        if (token) {
            EXPECT_EQ(KVL_purgeGatewayConnection(&token, 0), KVL_OK);
        }
        emu.stop();
    }
    int execute(EciParms& p) { return KVL_ECI_Execute(token, &p); }
    KVL_EXT_Statistics stats() {
        KVL_EXT_Statistics s;
        memset(&s, 0, sizeof s);
        s.size = sizeof s;
        EXPECT_EQ(KVL_EXT_getStatistics(token, &s), KVL_OK);
        return s;
    }
    int32_t slotsInUse() {
        clapiRequestLock(&token->tableLock);
        int32_t n = 0;
        for (clapiSlot* s = token->requestTable.first; s; s = s->next) n += s->state != SLOT_FREE ? 1 : 0;
        clapiReleaseLock(&token->tableLock);
        return n;
    }

    kvlemu::Emulator emu;
    gwTok token = nullptr;
};

}  // namespace exttest
