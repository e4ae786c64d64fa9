// Flow header, handshake and close flows, byte for byte as they cross the socket.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "comms/clapi_socketcomms.h"
#include "kvlclient.h"
#include "loopback.h"
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::Loopback;
using kvltest::ReadBuffer;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

// What the library sent for one flow, as the Gateway received it.
Bytes sentFlow(const std::function<int(platformSocket)>& send) {
    Loopback net;
    EXPECT_TRUE(net.ok());
    EXPECT_EQ(send(net.client), 0);
    return net.receive(100, 2);
}

Bytes handshakeFlow(const Bytes& applidUtf8, const Bytes& qualifierUtf8) {
    Wire body;
    body.be16(2).text("en").be16(2).text("GB").fill(10, 0);
    body.be16(static_cast<uint16_t>(applidUtf8.size())).raw(applidUtf8);
    body.be16(static_cast<uint16_t>(qualifierUtf8.size())).raw(qualifierUtf8);
    Wire w;
    return w.header(FLOW_HANDSHAKE, FLOW_MSGID_HANDSHAKE, "BASE", static_cast<uint32_t>(body.size())).raw(body.bytes()).bytes();
}

// The library reads flows on `r` while the test plays the Gateway on `net`.
class FlowRead : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(net.ok()); }
    Loopback net;
    ReadBuffer r{net.client};
    flowHeader h{};
};

}  // namespace

TEST(FlowSend, CloseRequestIsThirtyThreeBytes) {
    Bytes expected{0x47, 0x61, 0x74, 0x65, 0x10, 0x90, 0x10, 0x00, 0x00, 0x00, 0x00, 0x0A,
                   0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04,
                   'B',  'A',  'S',  'E',  0x00, 0x00, 0x00, 0x00, 0x00};
    EXPECT_EQ(sentFlow(clapiFlowCloseRequest), expected);
}

// The header's request type goes out through writeBytes, so its ENTRY/EXIT pair sits
// between the header's own; the six ints and the flags byte trace nothing of their own.
TEST(FlowSend, RequestTypeIsWrittenThroughWriteBytes) {
    TraceCapture trace(3);
    sentFlow(clapiFlowCloseRequest);
    std::vector<std::string> sequence;
    for (const auto& line : trace.lines()) {
        for (const char* id : {"[3210]", "[2560]", "[2569]", "[3211]"}) {
            if (line.find(id) != std::string::npos) sequence.push_back(kvltest::traceMessage(line));
        }
    }
    std::vector<std::string> expected = {"", "", "clapi_socketbuffer.writeBytes()", "clapi_socketcomms.writeHeader()"};
    ASSERT_EQ(sequence.size(), expected.size()) << trace.text();
    EXPECT_EQ(sequence[0].rfind("clapi_socketcomms.writeHeader(sockBuffer=", 0), 0u) << sequence[0];
    EXPECT_EQ(sequence[1].rfind("clapi_socketbuffer.writeBytes(sockBuffer=", 0), 0u) << sequence[1];
    EXPECT_NE(sequence[1].find(", dataLen=4)"), std::string::npos) << sequence[1];
    EXPECT_EQ(sequence[2], expected[2]);
    EXPECT_EQ(sequence[3], expected[3]);
}

TEST(FlowSend, HandshakeCarriesApplidAndQualifierAsUtf8) {
    Bytes appl1 = handshakeFlow(Wire().text("APPL1").bytes(), {});
    EXPECT_EQ(appl1.size(), 60u);
    EXPECT_EQ(sentFlow([](platformSocket s) { return clapiFlowHandshakeRequest(s, "APPL1", ""); }), appl1);
    EXPECT_EQ(sentFlow([](platformSocket s) { return clapiFlowHandshakeRequest(s, "A\xE9", "Q\xA0Z"); }),
              handshakeFlow({'A', 0xC3, 0xA9}, {'Q', 0xC2, 0xA0, 'Z'}));
}


TEST_F(FlowRead, ThreeLetterHeaderThenBaseHeaderThenBody) {
    TraceCapture trace(4);
    net.send(Wire()
                 .header(FLOW_REPLY, 5, "ECI", 4, 61444).be32(0xA1B2C3D4)
                 .header(FLOW_HANDSHAKE, -2, "BASE", 0)
                 .header(FLOW_PING, 0, "ESI", 2).be16(0x7777));

    ASSERT_EQ(kvltest::readFlow(&r.sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_REPLY);
    EXPECT_EQ(h.messageId, 5);
    EXPECT_EQ(h.rc, 61444);
    EXPECT_EQ(h.requestTypeLen, 3u);
    EXPECT_EQ(std::string(h.requestType), "ECI");
    EXPECT_EQ(h.bodyLen, 4u);
    EXPECT_EQ(readInt(&r.sb), 0xA1B2C3D4u);
    // One receive of 32 bytes for the header, one for the body.
    auto receives = trace.linesWithId(2542);
    ASSERT_EQ(receives.size(), 2u);
    EXPECT_NE(receives[0].find("Attempting to read 32 bytes"), std::string::npos);

    ASSERT_EQ(kvltest::readFlow(&r.sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_HANDSHAKE);
    EXPECT_EQ(h.messageId, -2);
    EXPECT_EQ(std::string(h.requestType, 4), "BASE");
    EXPECT_EQ(h.bodyLen, 0u);
    receives = trace.linesWithId(2542);
    ASSERT_EQ(receives.size(), 4u);  // 32 bytes, then the one byte "BASE" adds
    EXPECT_NE(receives[3].find("Attempting to read 1 bytes"), std::string::npos);

    ASSERT_EQ(kvltest::readFlow(&r.sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_PING);
    EXPECT_EQ(std::string(h.requestType), "ESI");
    EXPECT_EQ(readShort(&r.sb), 0x7777);
    EXPECT_EQ(r.sb.lastError, 0);
}

TEST_F(FlowRead, HeaderArrivingOneByteAtATime) {
    net.sendInBackground(Wire().header(FLOW_CLOSE, -1, "BASE", 0).header(FLOW_REPLY, 9, "ESI", 0).bytes(), 0, true);
    ASSERT_EQ(clapiReadHeader(&r.sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_CLOSE);
    EXPECT_EQ(h.messageId, -1);
    ASSERT_EQ(clapiReadHeader(&r.sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_REPLY);
    EXPECT_EQ(h.messageId, 9);
}

TEST_F(FlowRead, BadEyecatcherIsRefused) {
    TraceCapture trace(1);
    net.send(Wire().text("Gatf").fill(28, 0));
    EXPECT_EQ(clapiReadHeader(&r.sb, &h), KVL_ERR_SYSTEM_ERROR);
    auto lines = trace.linesWithId(3213);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Bad eyecatcher! Expected=0x47617465, actual=0x47617466"), std::string::npos);
}

TEST_F(FlowRead, RequestTypeLongerThanTheFieldIsRefused) {
    TraceCapture trace(1);
    for (uint32_t length : {7u, 0xFFFFFFFFu}) {
        net.send(Wire().be32(FLOW_EYECATCHER).be32(FLOW_VERSION).be32(FLOW_REPLY).be32(1).be32(0).be32(length).fill(8, 'X'));
        ReadBuffer fresh(net.client);
        struct {
            flowHeader h;
            uint8_t guard[16];
        } record;
        memset(&record, 0xA5, sizeof record);
        EXPECT_EQ(clapiReadHeader(&fresh.sb, &record.h), KVL_ERR_SYSTEM_ERROR) << length;
        for (uint8_t g : record.guard) EXPECT_EQ(g, 0xA5);
        EXPECT_EQ(record.h.requestTypeLen, length);
    }
    EXPECT_EQ(trace.linesWithId(3250).size(), 2u);
}

TEST_F(FlowRead, PeerClosingMidHeaderFails) {
    net.send(Wire().be32(FLOW_EYECATCHER).be32(FLOW_VERSION));
    net.closePeer();
    EXPECT_EQ(clapiReadHeader(&r.sb, &h), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(clapiReadHeader(&r.sb, &h), KVL_ERR_LOSTGWCON);
}
