// A connection's reader hands its COMMAREA and reply buffers from one request
// to the next, and copies a flow's raw bytes only while something looks at
// them: nothing of one request may show in another, on the wire or in the record.
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "emu_fixture.h"

using namespace emutest;
using namespace kvlemu;

namespace {

Bytes pattern(size_t n, uint8_t seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(seed + i * 7);
    return b;
}

}  // namespace

TEST_F(EmulatorTest, ARequestAfterALargerOneCarriesNothingOfIt) {
    auto c = client();
    const Bytes big = pattern(32000, 0xA5);
    EXPECT_EQ(roundTrip(*c, 1, call("ECHO", big)).commarea, big);

    // 10 of 100 bytes travel: the other 90 are zeros, not the last request's bytes.
    auto part = call("ECHO", Bytes(10, 0x31));
    part.commareaLength = 100;
    part.outboundLength = 10;
    EXPECT_EQ(roundTrip(*c, 2, part).commarea, cat({Bytes(10, 0x31), Bytes(90, 0)}));

    auto none = roundTrip(*c, 3, call("ECHO", {}));
    EXPECT_EQ(none.commareaLength, 0);
    EXPECT_TRUE(none.commarea.empty());

    auto half = roundTrip(*c, 4, call("SHORT", Bytes(1000, 0x33)));
    EXPECT_EQ(half.commarea, Bytes(500, 0x33));

    // A unit of work ended by a commit: no COMMAREA travels either way.
    auto open = call("ECHO", pattern(20000, 0x11));
    open.extendMode = 1;
    auto opened = roundTrip(*c, 5, open);
    ASSERT_NE(opened.luwToken, 0);
    auto commit = call("", {});
    commit.extendMode = 2;
    commit.luwToken = opened.luwToken;
    commit.commareaLength = 20000;
    auto committed = roundTrip(*c, 6, commit);
    EXPECT_EQ(committed.rc, 0);
    EXPECT_TRUE(committed.commarea.empty());

    EXPECT_EQ(roundTrip(*c, 7, listSystems(1)).rc, 0);
    const Bytes last = pattern(31999, 0x5A);
    EXPECT_EQ(roundTrip(*c, 8, call("ECHO", last)).commarea, last);

    // The record keeps its own copy of each request, whatever the buffers served next.
    ASSERT_TRUE(emu.waitForFlows(9, kWaitMs));
    auto flows = emu.recordedFlows();
    ASSERT_EQ(flows.size(), 9u);
    ASSERT_TRUE(flows[1].eci && flows[2].eci && flows[6].eci && flows[7].eci && flows[8].eci);
    EXPECT_EQ(flows[1].eci->commarea, big);
    EXPECT_EQ(flows[2].eci->commarea, Bytes(10, 0x31));
    EXPECT_TRUE(flows[6].eci->commarea.empty());  // the commit
    EXPECT_TRUE(flows[7].eci->commarea.empty());  // list systems
    EXPECT_EQ(flows[8].eci->commarea, last);
    EXPECT_EQ(flows[8].raw.size(), 32u + wire::declaredEciRequestSize(call("ECHO", last)));
}

TEST_F(EmulatorTest, ReaderAndWorkerProgramsPipelinedKeepTheirOwnBytes) {
    // Workers finish at staggered times while the reader keeps serving the
    // requests behind them: each must answer from its own buffers (a worker
    // touching the reader's is a data race the ThreadSanitizer build reports).
    emu.registerProgram(
        "SLOWECHO",
        [](const ProgramCall& call) {
            std::this_thread::sleep_for(std::chrono::microseconds(100 * (call.messageId % 7)));
            return ProgramResult::echo(call);
        },
        ProgramRuns::OnWorker);
    auto c = client();
    constexpr int kRequests = 300;
    std::vector<Bytes> sent;
    std::vector<bool> answered(kRequests, false);
    int received = 0;
    auto readOne = [&] {
        RawClient::Flow f = nextFlow(*c, wire::kFlowReply);
        const int32_t id = f.header.messageId;
        ASSERT_TRUE(id >= 1 && id <= static_cast<int32_t>(sent.size())) << id;
        EXPECT_FALSE(answered[id - 1]) << "two replies for " << id;
        answered[id - 1] = true;
        EXPECT_EQ(decodeEciReply(f.body, 0).commarea, sent[id - 1]) << "request " << id;
        ++received;
    };
    for (int i = 0; i < kRequests; ++i) {
        sent.push_back(pattern(100 + static_cast<size_t>(i % 13) * 2400, static_cast<uint8_t>(i)));
        ASSERT_TRUE(sendEci(*c, i + 1, call(i % 2 == 0 ? "SLOWECHO" : "ECHO", sent.back())));
        // Keep a few in flight, so that replies do not fill the socket buffers.
        while (i + 1 - received > 16) {
            readOne();
            if (HasFatalFailure()) return;
        }
    }
    while (received < kRequests) {
        readOne();
        if (HasFatalFailure()) return;
    }
}

TEST_F(EmulatorTest, RawBytesAreKeptWhileATapOrTheRecordAsksEvenFromMidConnection) {
    emu.setRecordLimit(0);
    auto c = client();
    const Bytes data = pattern(3000, 0x20);
    roundTrip(*c, 1, call("ECHO", data));
    EXPECT_TRUE(emu.recordedFlows().empty());
    EXPECT_EQ(emu.flowCount(), 2u);

    struct Seen {
        bool inbound;
        Bytes flow;
    };
    std::mutex m;
    std::vector<Seen> seen;
    emu.setFlowTap([&](int, bool inbound, const Bytes& flow) {
        std::lock_guard<std::mutex> lock(m);
        seen.push_back({inbound, flow});
    });
    const auto req = call("ECHO", data);
    roundTrip(*c, 2, req);
    emu.setFlowTap(nullptr);
    {
        std::lock_guard<std::mutex> lock(m);
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_TRUE(seen[0].inbound);
        // The whole request: its header, then the body as the client encoded it.
        const Bytes body = wire::encodeEciRequestBody(req);
        ASSERT_EQ(seen[0].flow.size(), 32u + body.size());
        EXPECT_EQ(Bytes(seen[0].flow.begin() + 32, seen[0].flow.end()), body);
        EXPECT_FALSE(seen[1].inbound);
        wire::MemorySource src(seen[1].flow);
        wire::Header h;
        std::string error;
        ASSERT_TRUE(wire::decodeHeader(src, h, error)) << error;
        EXPECT_EQ(h.messageId, 2);
        EXPECT_EQ(h.bodyLength, src.remaining());
    }

    emu.setRecordLimit(5);
    roundTrip(*c, 3, call("ECHO", data));
    ASSERT_TRUE(emu.waitForFlows(4, kWaitMs));
    auto flows = emu.recordedFlows();
    ASSERT_EQ(flows.size(), 1u);
    EXPECT_EQ(flows[0].header.messageId, 3);
    EXPECT_EQ(flows[0].raw.size(), 32u + flows[0].header.bodyLength);
}
