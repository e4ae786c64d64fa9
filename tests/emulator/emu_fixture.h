// A running emulator, raw clients and codec helpers for the emulator's own tests.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <memory>
#include <string>

#include "gateway_emulator/emulator.h"
#include "gateway_emulator/raw_client.h"

namespace emutest {

using kvlemu::RawClient;
using kvlemu::wire::Bytes;

constexpr int kWaitMs = 10000;  // generous bound for things that must happen
constexpr int kQuietMs = 300;   // window in which something must NOT happen

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Decodes the whole of `b`; the test fails if the decoder refuses it or leaves bytes over.
template <typename T, typename Decode>
T decodeAll(const Bytes& b, Decode decode) {
    kvlemu::wire::MemorySource src(b);
    T out;
    std::string error;
    EXPECT_TRUE(decode(src, out, error)) << error;
    EXPECT_EQ(src.remaining(), 0u);
    return out;
}

template <typename T, typename Decode>
bool refused(const Bytes& b, Decode decode) {
    kvlemu::wire::MemorySource src(b);
    T out;
    std::string error;
    return !decode(src, out, error);
}

inline kvlemu::wire::EciReply decodeEciReply(const Bytes& body, int32_t extendMode) {
    return decodeAll<kvlemu::wire::EciReply>(
        body, [extendMode](kvlemu::wire::Source& s, kvlemu::wire::EciReply& r, std::string& e) {
            return kvlemu::wire::decodeEciReplyBody(s, extendMode, r, e);
        });
}

// The next flow, which must come within kWaitMs and be of the given type.
inline RawClient::Flow nextFlow(RawClient& c, int32_t flowType) {
    auto f = c.readFlow(kWaitMs);
    EXPECT_TRUE(f.has_value());
    if (!f) return {};
    EXPECT_EQ(f->header.flowType, flowType);
    return *f;
}

class EmulatorTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError(); }
    void TearDown() override { emu.stop(); }

    // A connected client that has not sent anything yet.
    std::unique_ptr<RawClient> connected() {
        auto c = std::make_unique<RawClient>();
        EXPECT_TRUE(c->connect("127.0.0.1", emu.port()));
        return c;
    }

    // A connected client that has completed the handshake.
    std::unique_ptr<RawClient> client(const std::string& applid = "APPL1") {
        auto c = connected();
        auto answer = c->handshake(applid, "", kWaitMs);
        EXPECT_TRUE(answer && answer->header.flowType == kvlemu::wire::kFlowHandshake);
        return c;
    }

    static kvlemu::wire::EciRequest call(const std::string& program, const Bytes& commarea) {
        kvlemu::wire::EciRequest r;
        r.program = kvlemu::wire::nameField(program, 8);
        r.commareaLength = static_cast<int32_t>(commarea.size());
        r.commarea = commarea;
        return r;
    }

    static kvlemu::wire::EciRequest listSystems(int32_t capacity) {
        kvlemu::wire::EciRequest r;
        r.requestType = kvlemu::wire::kEciListSystems;
        r.listParm = capacity;
        return r;
    }

    static bool sendEci(RawClient& c, int32_t id, const kvlemu::wire::EciRequest& r) {
        return c.sendRequest(id, "ECI", kvlemu::wire::encodeEciRequestBody(r), kvlemu::wire::declaredEciRequestSize(r));
    }

    // Reads the next flow and decodes it as an ECI reply.
    static kvlemu::wire::EciReply eciReply(RawClient& c, int32_t expectedId, int32_t extendMode = 0) {
        RawClient::Flow f = nextFlow(c, kvlemu::wire::kFlowReply);
        EXPECT_EQ(f.header.messageId, expectedId);
        EXPECT_EQ(f.header.requestType, "ECI");
        return decodeEciReply(f.body, extendMode);
    }

    kvlemu::wire::EciReply roundTrip(RawClient& c, int32_t id, const kvlemu::wire::EciRequest& r) {
        EXPECT_TRUE(sendEci(c, id, r));
        return eciReply(c, id, r.extendMode);
    }

    kvlemu::Emulator emu;
};

}  // namespace emutest
