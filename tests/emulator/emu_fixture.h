// A running emulator and raw clients for the emulator's own tests.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "gateway_emulator/emulator.h"
#include "gateway_emulator/raw_client.h"

namespace emutest {

using kvlemu::wire::Bytes;

constexpr int kWaitMs = 10000;  // generous bound for things that must happen
constexpr int kQuietMs = 300;   // window in which something must NOT happen

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

class EmulatorTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError(); }
    void TearDown() override { emu.stop(); }

    // A connected client that has completed the handshake.
    std::unique_ptr<kvlemu::RawClient> client(const std::string& applid = "APPL1") {
        auto c = std::make_unique<kvlemu::RawClient>();
        EXPECT_TRUE(c->connect("127.0.0.1", emu.port()));
        auto answer = c->handshake(applid, "", kWaitMs);
        EXPECT_TRUE(answer.has_value());
        if (answer) {
            EXPECT_EQ(answer->header.flowType, kvlemu::wire::kFlowHandshake);
        }
        return c;
    }

    static kvlemu::wire::EciRequest call(const std::string& program, const Bytes& commarea) {
        kvlemu::wire::EciRequest r;
        r.program = kvlemu::wire::nameField(program, 8);
        r.commareaLength = static_cast<int32_t>(commarea.size());
        r.commarea = commarea;
        return r;
    }

    static bool sendEci(kvlemu::RawClient& c, int32_t id, const kvlemu::wire::EciRequest& r) {
        return c.sendRequest(id, "ECI", kvlemu::wire::encodeEciRequestBody(r), kvlemu::wire::declaredEciRequestSize(r));
    }

    // Reads the next flow and decodes it as an ECI reply.
    static kvlemu::wire::EciReply eciReply(kvlemu::RawClient& c, int32_t expectedId, int32_t extendMode = 0) {
        kvlemu::wire::EciReply r;
        auto f = c.readFlow(kWaitMs);
        EXPECT_TRUE(f.has_value());
        if (!f) return r;
        EXPECT_EQ(f->header.flowType, kvlemu::wire::kFlowReply);
        EXPECT_EQ(f->header.messageId, expectedId);
        EXPECT_EQ(f->header.requestType, "ECI");
        kvlemu::wire::MemorySource src(f->body);
        std::string error;
        EXPECT_TRUE(kvlemu::wire::decodeEciReplyBody(src, extendMode, r, error)) << error;
        EXPECT_EQ(src.remaining(), 0u);
        return r;
    }

    kvlemu::wire::EciReply roundTrip(kvlemu::RawClient& c, int32_t id, const kvlemu::wire::EciRequest& r) {
        EXPECT_TRUE(sendEci(c, id, r));
        return eciReply(c, id, r.extendMode);
    }

    kvlemu::Emulator emu;
};

}  // namespace emutest
