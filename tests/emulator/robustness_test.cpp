// Hostile input: random bodies for every decoder, in memory and over a socket.
#include <random>

#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

namespace {

Bytes randomBytes(std::mt19937& rng, size_t maxLen) {
    Bytes b(std::uniform_int_distribution<size_t>(0, maxLen)(rng));
    for (auto& x : b) x = static_cast<uint8_t>(rng());
    return b;
}

// Random bytes that start like a valid ECI call body, so decoding gets deep.
Bytes plausibleEciBody(std::mt19937& rng) {
    wire::EciRequest r;
    r.requestType = (rng() % 2) ? wire::kEciCall : wire::kEciListSystems;
    r.program = wire::nameField("ECHO", 8);
    r.commareaLength = static_cast<int32_t>(rng() % 40);
    r.commarea = Bytes(static_cast<size_t>(r.commareaLength), 1);
    if (rng() % 2) {
        wire::Channel ch;
        ch.name = wire::nameField("C");
        ch.containers.resize(rng() % 3);
        for (auto& c : ch.containers) c.data = Bytes(rng() % 10, 2);
        r.channel = ch;
    }
    Bytes body = wire::encodeEciRequestBody(r);
    size_t flips = 1 + rng() % 4;
    for (size_t i = 0; i < flips && !body.empty(); ++i) body[rng() % body.size()] = static_cast<uint8_t>(rng());
    body.resize(rng() % (body.size() + 1));
    return body;
}

}  // namespace

TEST(WireFuzz, DecodersNeverReadPastTheirInput) {
    std::mt19937 rng(20240501);
    int eciAccepted = 0;
    int eciRefused = 0;
    for (int i = 0; i < 20000; ++i) {
        Bytes data = (i % 2) ? randomBytes(rng, 300) : plausibleEciBody(rng);
        std::string error;
        {
            wire::MemorySource s(data);
            wire::Header h;
            wire::decodeHeader(s, h, error);
        }
        {
            wire::MemorySource s(data);
            wire::EciRequest r;
            if (wire::decodeEciRequestBody(s, r, error)) {
                ++eciAccepted;
                if (r.channel) {
                    EXPECT_LE(r.channel->containers.size() * 28, data.size());
                }
            } else {
                ++eciRefused;
            }
        }
        {
            wire::MemorySource s(data);
            wire::EciReply r;
            wire::decodeEciReplyBody(s, static_cast<int32_t>(i % 5), r, error);
        }
        {
            wire::MemorySource s(data);
            wire::EsiRequest r;
            wire::decodeEsiRequestBody(s, r, error);
        }
        {
            wire::MemorySource s(data);
            wire::Handshake hs;
            wire::decodeHandshakeBody(s, hs, error);
        }
        {
            wire::MemorySource s(data);
            wire::Channel ch;
            wire::decodeChannel(s, ch, i % 3 == 0, error);
        }
    }
    // The mutated bodies reach deep into the decoder: some pass, most do not.
    EXPECT_GT(eciAccepted, 100);
    EXPECT_GT(eciRefused, 100);
}

TEST_F(EmulatorTest, RandomRequestBodiesGetAnAnswerOrACloseAndNothingElse) {
    std::mt19937 rng(777);
    const char* types[] = {"ECI", "ESI", "BASE", "E"};
    for (int i = 0; i < 60; ++i) {
        RawClient c;
        ASSERT_TRUE(c.connect("127.0.0.1", emu.port()));
        Bytes body = (i % 3 == 0) ? randomBytes(rng, 200) : plausibleEciBody(rng);
        wire::Header h;
        h.flowType = (i % 7 == 0) ? wire::kFlowHandshake : wire::kFlowRequest;
        h.messageId = i;
        h.requestType = types[i % 4];
        h.bodyLength = static_cast<uint32_t>(body.size());
        ASSERT_TRUE(c.sendFlow(h, body));
        auto f = c.readFlow(kWaitMs);
        // Either a flow answered it, or the emulator closed this connection.
        EXPECT_TRUE(f.has_value() || c.ended()) << "case " << i;
    }
    auto c = client();
    EXPECT_EQ(roundTrip(*c, 1, call("ECHO", text("alive"))).commarea, text("alive"));
}
