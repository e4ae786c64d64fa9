// Channels on the wire: the request encoding, and replies applied to the caller's channel.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "comms/clapi_socketcomms.h"
#include "eci/clapi_channel.h"
#include "kvlclient.h"
#include "loopback.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer allocator's count of bytes in use (its allocator interface).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#define KVL_HEAP_COUNTER 1
#endif
#include <atomic>
#include <thread>
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::Loopback;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

// A channel record as the channel module lays it out, owned by the test.
struct TestChannel {
    kvlChannel* ch;
    explicit TestChannel(const char* name, int32_t ccsid = 1208) {
        ch = static_cast<kvlChannel*>(calloc(1, sizeof(kvlChannel)));
        memcpy(ch->eyecatcher, CLAPI_CHANNEL_EYECATCHER, 8);
        clapiCopyName(ch->name, name);
        ch->ccsid = ccsid;
        clapiInitLock(&ch->serlock);
    }
    ~TestChannel() {
        clapiDestroyLock(&ch->serlock);
        for (kvlContainer* c = ch->firstCont; c;) {
            kvlContainer* next = c->nextCont;
            clapiFreeContainer(c);
            c = next;
        }
        free(ch);
    }
    // Appends at the tail so that list order is the order of the calls.
    kvlContainer* add(const char* name, int32_t type, const std::string& data, int32_t ccsid = 0) {
        auto* c = static_cast<kvlContainer*>(calloc(1, sizeof(kvlContainer)));
        memcpy(c->eyecatcher, CLAPI_CONTAINER_EYECATCHER, 8);
        clapiCopyName(c->name, name);
        c->type = type;
        c->ccsid = ccsid;
        c->dataLength = data.size();
        if (!data.empty()) {
            c->dataPtr = static_cast<uint8_t*>(malloc(data.size()));
            memcpy(c->dataPtr, data.data(), data.size());
        }
        kvlContainer** tail = &ch->firstCont;
        while (*tail) tail = &(*tail)->nextCont;
        *tail = c;
        ch->numContainers++;
        return c;
    }
    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const kvlContainer* c = ch->firstCont; c; c = c->nextCont) out.emplace_back(c->name, strnlen(c->name, 16));
        return out;
    }
    const kvlContainer* find(const char* name) const { return clapiFindContainer(ch, name, nullptr); }
    std::string data(const char* name) const {
        const kvlContainer* c = find(name);
        return c && c->dataPtr ? std::string(reinterpret_cast<const char*>(c->dataPtr), c->dataLength) : std::string();
    }
};

Bytes name16(const std::string& name) {
    Bytes b(16, 0);
    memcpy(b.data(), name.data(), name.size() < 16 ? name.size() : 16);
    return b;
}

Wire& entry(Wire& w, const std::string& name, uint8_t state, const std::string& data, uint8_t type = ECI_BIT,
            int32_t ccsid = 0, bool withData = true) {
    w.raw(name16(name)).u8(state).u8(0).u8(0).u8(type).be32(static_cast<uint32_t>(ccsid));
    w.be32(static_cast<uint32_t>(data.size()));
    if (withData) w.text(data);
    return w;
}

Wire channelHead(const std::string& name, int32_t ccsid, int32_t count) {
    Wire w;
    w.raw(name16(name)).be32(static_cast<uint32_t>(ccsid)).be32(static_cast<uint32_t>(count));
    return w;
}

// Channel "CH" carrying one entry.
Wire oneEntry(const std::string& name, uint8_t state, const std::string& data = "") {
    Wire w = channelHead("CH", 1208, 1);
    return entry(w, name, state, data);
}

// Applies the reply's channel bytes to `ch`; the flow must be consumed exactly unless
// the reply is refused, and the next flow must still be read from its first byte.
int applyReply(kvlChannel* ch, const Wire& body, bool expectInStep = true) {
    kvltest::ReplyOnWire reply("ECI", body);
    int rc = readChannel(reply.sb(), ch);
    if (expectInStep) {
        EXPECT_EQ(sockBufferFlowRemaining(reply.sb()), 0u) << "the reply was not consumed exactly";
    }
    skipFlowRemainder(reply.sb());
    EXPECT_TRUE(reply.markerIsNext());
    return rc;
}

Bytes encode(kvlChannel* ch) {
    Loopback net;
    EXPECT_TRUE(net.ok());
    kvltest::ScopedBuffer b;
    EXPECT_EQ(initWriteBuffer(&b.sb, net.client, 100000), 0);
    writeChannel(&b.sb, ch);
    size_t written = 100000 - b.sb.dataRemaining + b.sb.bufferLen;
    EXPECT_EQ(flushBuffer(&b.sb), 0);
    return net.receive(written);
}

}  // namespace

TEST(ChannelEncode, EveryContainerGoesAsAddedWithItsData) {
    TestChannel empty("EMPTY", 437);
    EXPECT_EQ(encode(empty.ch), channelHead("EMPTY", 437, 0).bytes());  // 24 bytes

    TraceCapture trace(2);
    TestChannel t("MYCHANNEL", 1208);
    t.add("FIRST", ECI_CHAR, "hello", 1208);
    t.add("SECOND-CONTAINER", ECI_BIT, "");
    t.add("THIRD", ECI_BIT, std::string("\x00\x01\x02", 3));
    Wire expected = channelHead("MYCHANNEL", 1208, 3);
    entry(expected, "FIRST", 1, "hello", ECI_CHAR, 1208);
    entry(expected, "SECOND-CONTAINER", 1, "");
    entry(expected, "THIRD", 1, std::string("\x00\x01\x02", 3));
    EXPECT_EQ(encode(t.ch), expected.bytes());
    auto lines = trace.linesWithId(3246);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[1].find("Writing container \"SECOND-CONTAINER\", type=ECI_BIT, CCSID=0, data length=0"),
              std::string::npos);
}

TEST(ChannelEncode, AnEmptyContainerIsDumpedLikeAnyOther) {
    TestChannel t("DUMPED");
    t.add("EMPTY", ECI_BIT, "");
    t.add("FULL", ECI_BIT, "abc");
    TraceCapture trace(4);
    encode(t.ch);
    auto dumps = trace.linesWithId(3247);
    ASSERT_EQ(dumps.size(), 2u) << trace.text();
    EXPECT_NE(dumps[0].find(" len=0 stopword=00000000"), std::string::npos) << dumps[0];
    EXPECT_NE(dumps[1].find(" len=3 stopword=00000000"), std::string::npos) << dumps[1];
    // Name, then the data: two writeBytes per container.
    size_t writes = 0;
    for (const auto& line : trace.linesWithId(2560)) writes += line.find("dataLen=0)") != std::string::npos;
    EXPECT_EQ(writes, 1u) << "the empty container's data goes through writeBytes";
}

TEST(ChannelEncode, RequestSizeCountsFourBytesMorePerContainer) {
    TestChannel t("SIZED");
    t.add("A", ECI_BIT, std::string(100, 'a'));
    t.add("B", ECI_BIT, "");
    EciRequest r{};
    r.requestType = ECI_REQUEST_CALL;
    r.password = "";
    r.optionalBlocks = -1;
    r.channel = t.ch;
    kvltest::SentRequest sent = kvltest::sendRequest(
        "ECI", 1, [&r](platformSocket s, flowHeader* h) { return clapiFlowECIRequest(s, h, &r); });
    EXPECT_EQ(sent.declared, 15u + 68u + 24u + (32u + 100u) + 32u);
    ASSERT_EQ(sent.body.size(), sent.declared - 2 * 4);
    const Bytes& body = sent.body;
    Bytes channelPart(body.end() - 11 - (24 + 28 + 100 + 28), body.end() - 11);
    Wire expected = channelHead("SIZED", 1208, 2);
    entry(expected, "A", 1, std::string(100, 'a'));
    entry(expected, "B", 1, "");
    EXPECT_EQ(channelPart, expected.bytes());
    EXPECT_EQ(body[body.size() - 11 - channelPart.size() - 1], 0xFF);  // the channel flag
}

TEST(ChannelDecode, RoundTripAddsInReverseOrderOfArrivalAnExistingNameToo) {
    TestChannel source("ROUNDTRIP", 1208);
    source.add("ONE", ECI_CHAR, "first data", 1208);
    source.add("TWO", ECI_BIT, std::string(40000, 'x'));
    source.add("THREE", ECI_BIT, "");
    source.add("OLD", ECI_BIT, "new!");
    Bytes bytes = encode(source.ch);
    TestChannel target("BEFORE", 1);
    target.add("OLD", ECI_BIT, "old");
    EXPECT_EQ(applyReply(target.ch, Wire().raw(bytes)), 0);
    EXPECT_EQ(std::string(target.ch->name, 9), "ROUNDTRIP");  // the reply's name replaces the caller's
    EXPECT_EQ(target.ch->ccsid, 1208);
    EXPECT_EQ(target.names(), (std::vector<std::string>{"OLD", "THREE", "TWO", "ONE", "OLD"}));
    EXPECT_EQ(target.ch->numContainers, 5);
    EXPECT_EQ(target.data("OLD"), "new!");  // the first of the two
    EXPECT_EQ(target.data("ONE"), "first data");
    EXPECT_EQ(target.data("TWO"), std::string(40000, 'x'));
    EXPECT_EQ(target.find("THREE")->dataPtr, nullptr);
    EXPECT_EQ(target.find("ONE")->type, ECI_CHAR);
    EXPECT_EQ(target.find("ONE")->ccsid, 1208);
    EXPECT_EQ(memcmp(target.find("ONE")->eyecatcher, "KVLCONTA", 8), 0);
}

TEST(ChannelDecode, DeletedUnderTheBrowseCursorStepsItBack) {
    TestChannel t("CH");
    t.add("A", ECI_BIT, "a");
    kvlContainer* b = t.add("B", ECI_BIT, "b");
    kvlContainer* c = t.add("C", ECI_BIT, "c");

    t.ch->currentCont = c;
    EXPECT_EQ(applyReply(t.ch, oneEntry("C", 2)), 0);
    EXPECT_EQ(t.ch->currentCont, b);
    EXPECT_EQ(t.names(), (std::vector<std::string>{"A", "B"}));
    EXPECT_EQ(t.ch->numContainers, 2);

    t.ch->currentCont = t.ch->firstCont;
    EXPECT_EQ(applyReply(t.ch, oneEntry("A", 2)), 0);
    EXPECT_EQ(t.ch->currentCont, nullptr);
    EXPECT_EQ(t.names(), (std::vector<std::string>{"B"}));

    t.ch->currentCont = b;
    EXPECT_EQ(applyReply(t.ch, oneEntry("NOSUCH", 2)), ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(t.ch->currentCont, b);
    EXPECT_EQ(t.ch->numContainers, 1);
}

TEST(ChannelDecode, ModifiedReusesASameLengthBufferAndAnUnknownNameFails) {
    TestChannel t("CH");
    kvlContainer* same = t.add("M", ECI_BIT, "abcd");
    kvlContainer* zero = t.add("Z", ECI_BIT, "will go");
    kvlContainer* grow = t.add("G", ECI_BIT, "ab");
    uint8_t* before = same->dataPtr;
    Wire body = channelHead("CH", 1208, 3);
    entry(body, "M", 3, "wxyz", ECI_CHAR, 37);
    entry(body, "Z", 3, "");
    entry(body, "G", 3, "a longer value");
    EXPECT_EQ(applyReply(t.ch, body), 0);
    EXPECT_EQ(same->dataPtr, before);
    EXPECT_EQ(t.data("M"), "wxyz");
    EXPECT_EQ(same->type, ECI_CHAR);
    EXPECT_EQ(same->ccsid, 37);
    EXPECT_EQ(zero->dataPtr, nullptr);
    EXPECT_EQ(zero->dataLength, 0u);
    EXPECT_EQ(t.data("G"), "a longer value");
    EXPECT_EQ(grow->nextCont, nullptr);  // kept its place
    EXPECT_EQ(t.ch->numContainers, 3);

    EXPECT_EQ(applyReply(t.ch, oneEntry("GHOST", 3, "data"), false), ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(t.ch->numContainers, 3);
}

TEST(ChannelDecode, UnchangedConsumesOnlyItsHeader) {
    TestChannel t("CH");
    t.add("U", ECI_BIT, "same");
    Wire body = channelHead("CH", 1208, 2);
    entry(body, "U", 4, "same", ECI_BIT, 0, false);  // announces 4 bytes it does not carry
    entry(body, "NEW", 1, "next");
    EXPECT_EQ(applyReply(t.ch, body), 0);
    EXPECT_EQ(t.names(), (std::vector<std::string>{"NEW", "U"}));
    EXPECT_EQ(t.data("NEW"), "next");
    EXPECT_EQ(t.data("U"), "same");
}

TEST(ChannelDecode, HostileCountsAreRefusedBeforeAnythingChanges) {
    TraceCapture trace(1);
    for (int32_t count : {1000, -1, 0x7FFFFFFF}) {
        TestChannel t("CH");
        t.add("KEEP", ECI_BIT, "k");
        Wire body = channelHead("CH", 1208, count);
        entry(body, "X", 1, "x");
        EXPECT_EQ(applyReply(t.ch, body, false), ECI_ERR_SYSTEM_ERROR) << count;
        EXPECT_EQ(t.names(), (std::vector<std::string>{"KEEP"}));
        EXPECT_EQ(t.ch->numContainers, 1);
    }
    EXPECT_EQ(trace.linesWithId(3254).size(), 3u);
}

TEST(ChannelDecode, EntriesLongerThanTheFlowAreRefusedAfterTheEarlierOnes) {
    TraceCapture trace(1);
    TestChannel t("CH");
    kvlContainer* m = t.add("M", ECI_BIT, "keep");
    Wire body = channelHead("CH", 1208, 2);
    entry(body, "FINE", 1, "ok");
    body.raw(name16("HUGE")).u8(1).u8(0).u8(0).u8(1).be32(0).be32(0xFFFFFFF0).text("short");
    EXPECT_EQ(applyReply(t.ch, body, false), ECI_ERR_SYSTEM_ERROR);
    // The good entry before it stays applied; the bad one left nothing behind.
    EXPECT_EQ(t.names(), (std::vector<std::string>{"FINE", "M"}));
    EXPECT_EQ(t.ch->numContainers, 2);
    EXPECT_EQ(trace.linesWithId(3256).size(), 1u);

    Wire modify = channelHead("CH", 1208, 1);
    modify.raw(name16("M")).u8(3).u8(0).u8(0).u8(1).be32(0).be32(1u << 30);
    EXPECT_EQ(applyReply(t.ch, modify, false), ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(t.data("M"), "keep");
    EXPECT_EQ(m->dataLength, 4u);

    // Two entries fit the count check (56 bytes follow), but the first one's data
    // leaves the second with fewer than 28 bytes.
    Wire cut = channelHead("CH", 1208, 2);
    entry(cut, "FIRST", 1, std::string(20, 'f')).fill(10, 0);
    EXPECT_EQ(applyReply(t.ch, cut, false), ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(t.names(), (std::vector<std::string>{"FIRST", "FINE", "M"}));
}

TEST(ChannelDecode, ThroughTheEciReplyStaysInStep) {
    TestChannel t("CH");
    Wire body;
    body.be32(ECI_REQUEST_CALL).be32(0).be32(0).be32(0).text("    ").be32(0).u8(0).u8(0xFF);
    body.raw(channelHead("CH", 1208, 500).bytes()).fill(100, 0x5A);  // hostile count, followed by junk
    kvltest::ReplyOnWire reply("ECI", body);
    EciRequest r{};
    r.channel = t.ch;
    EXPECT_EQ(clapiReadECIResponse(reply.sb(), &r), ECI_ERR_SYSTEM_ERROR);
    EXPECT_EQ(t.ch->numContainers, 0);
    EXPECT_TRUE(reply.markerIsNext());
}

// A Gateway that declares a huge container and sends a few bytes of it must not
// make the client reserve the declared size: the block grows with what arrives.
TEST(ChannelDecode, DeclaredLengthAloneReservesLittle) {
#ifndef KVL_HEAP_COUNTER
    GTEST_SKIP() << "needs the sanitizer allocator's counters";
#else
    constexpr uint32_t kDeclared = 512u << 20;
    TestChannel t("CH");
    Loopback net;
    ASSERT_TRUE(net.ok());
    kvltest::ReadBuffer buffer(net.client);
    Wire body = channelHead("CH", 1208, 1);
    body.raw(name16("HUGE")).u8(1).u8(0).u8(0).u8(1).be32(0).be32(kDeclared).fill(40000, 'h');
    Wire flow;
    flow.header(FLOW_REPLY, 1, "ECI", static_cast<uint32_t>(body.size() - 40000 + kDeclared)).raw(body.bytes());
    net.send(flow);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&buffer.sb, &h), 0);

    const size_t before = __sanitizer_get_current_allocated_bytes();
    std::atomic<bool> done{false};
    int rc = 0;
    std::thread reader([&] {
        rc = readChannel(&buffer.sb, t.ch);
        done = true;
    });
    size_t peak = 0;
    for (int i = 0; i < 50 && !done; ++i) {
        size_t now = __sanitizer_get_current_allocated_bytes();
        if (now > before && now - before > peak) peak = now - before;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    net.closePeer();
    reader.join();
    EXPECT_NE(rc, 0);
    EXPECT_LT(peak, size_t{8} << 20) << "reserved for 40 KB that arrived";
    EXPECT_EQ(t.ch->numContainers, 0);
#endif
}
