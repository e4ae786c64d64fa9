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
    for (int i = 0; i < 20000; ++i) {
        Bytes data = (i % 2) ? randomBytes(rng, 300) : plausibleEciBody(rng);
        const int32_t mode = i % 5;
        const bool request = i % 3 == 0;
        wire::MemorySource s(data);
        wire::EciRequest eci;
        std::string error;
        if (wire::decodeEciRequestBody(s, eci, error)) {
            ++eciAccepted;
            if (eci.channel) {
                EXPECT_LE(eci.channel->containers.size() * 28, data.size());
            }
        }
        // Whatever the outcome, no decoder may read past its input (the sanitizers watch).
        refused<wire::Header>(data, wire::decodeHeader);
        refused<wire::EciReply>(data, [mode](wire::Source& src, wire::EciReply& r, std::string& e) {
            return wire::decodeEciReplyBody(src, mode, r, e);
        });
        refused<wire::EsiRequest>(data, wire::decodeEsiRequestBody);
        refused<wire::Handshake>(data, wire::decodeHandshakeBody);
        refused<wire::Channel>(data, [request](wire::Source& src, wire::Channel& ch, std::string& e) {
            return wire::decodeChannel(src, ch, request, e);
        });
    }
    // The mutated bodies reach deep into the decoder: some pass, most do not.
    EXPECT_GT(eciAccepted, 100);
    EXPECT_LT(eciAccepted, 20000 - 100);
}

TEST_F(EmulatorTest, RandomRequestBodiesGetAnAnswerOrACloseAndNothingElse) {
    std::mt19937 rng(777);
    const char* types[] = {"ECI", "ESI", "BASE", "E"};
    for (int i = 0; i < 60; ++i) {
        auto c = connected();
        Bytes body = (i % 3 == 0) ? randomBytes(rng, 200) : plausibleEciBody(rng);
        wire::Header h;
        h.flowType = (i % 7 == 0) ? wire::kFlowHandshake : wire::kFlowRequest;
        h.messageId = i;
        h.requestType = types[i % 4];
        h.bodyLength = static_cast<uint32_t>(body.size());
        ASSERT_TRUE(c->sendFlow(h, body));
        auto f = c->readFlow(kWaitMs);
        // Either a flow answered it, or the emulator closed this connection.
        EXPECT_TRUE(f.has_value() || c->ended()) << "case " << i;
    }
    EXPECT_EQ(roundTrip(*client(), 1, call("ECHO", text("alive"))).commarea, text("alive"));
}
