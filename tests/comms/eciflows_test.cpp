// ECI and list-systems request bodies on the wire, and replies decoded from the wire.
#include <gtest/gtest.h>

#include <cstring>

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

constexpr size_t HEADER_LEN = 32;  // "ECI"

EciRequest listRequest(int32_t capacity) {
    EciRequest r{};
    r.requestType = ECI_REQUEST_LIST_SYSTEMS;
    r.listParm = capacity;
    r.optionalBlocks = -1;
    r.timeout = 0x0102;
    r.correlator = 0x0A0B0C0D;
    return r;
}

EciRequest callRequest(uint8_t* commarea, int32_t length) {
    EciRequest r{};
    r.requestType = ECI_REQUEST_CALL;
    r.luwToken = 0x11;
    memcpy(r.serverName, "SERVER1 ", 8);
    r.userid = "USER";
    r.password = "ab";
    memcpy(r.program, "PROGRAM1", 8);
    memcpy(r.tranId, "TRN1", 4);
    r.commarea = commarea;
    r.commareaLength = length;
    r.timeout = 30;
    r.optionalBlocks = -1;
    r.correlator = 77;
    return r;
}

// Sends the request as a flow and returns everything after the 32-byte header.
Bytes sendAndCaptureBody(EciRequest* request, uint32_t* declared) {
    Loopback net;
    EXPECT_TRUE(net.ok());
    flowHeader header;
    clapiInitFlowHeader(&header, FLOW_REQUEST, 3, "ECI");
    EXPECT_EQ(clapiFlowECIRequest(net.client, &header, request), 0);
    *declared = header.bodyLen;
    Bytes all = net.receive(HEADER_LEN + header.bodyLen, 2);
    EXPECT_GE(all.size(), HEADER_LEN);
    Bytes expectedHeader = Wire().header(FLOW_REQUEST, 3, "ECI", header.bodyLen).bytes();
    EXPECT_EQ(Bytes(all.begin(), all.begin() + HEADER_LEN), expectedHeader);
    return Bytes(all.begin() + HEADER_LEN, all.end());
}

// The call body up to and including the commarea length.
Wire callBodyStart(const EciRequest& r, const Bytes& maskedPassword) {
    Wire w;
    w.be32(static_cast<uint32_t>(r.requestType)).be32(static_cast<uint32_t>(r.extendMode)).be32(r.luwToken).be32(0).u8(0);
    w.be32(8).raw(Bytes(r.serverName, r.serverName + 8));
    std::string user = r.userid ? r.userid : "";
    w.text(user.substr(0, 16)).fill(user.size() < 16 ? 16 - user.size() : 0, 0);
    w.be32(static_cast<uint32_t>(maskedPassword.size())).raw(maskedPassword);
    w.raw(Bytes(r.program, r.program + 8)).raw(Bytes(r.tranId, r.tranId + 4));
    w.be32(0).be32(static_cast<uint32_t>(r.commareaLength));
    return w;
}

Wire& trailer(Wire& w, const EciRequest& r) {
    return w.be16(r.timeout).u8(0).be32(0xFFFFFFFF).be32(static_cast<uint32_t>(r.correlator));
}

Wire callReplyBody(int32_t commareaLength, int32_t inbound, const Bytes& data, bool channelFlag = false) {
    Wire w;
    w.be32(ECI_REQUEST_CALL).be32(0x5151).be32(0).be32(0).text("ABND").be32(static_cast<uint32_t>(commareaLength));
    if (inbound >= 0)
        w.u8(0xFF).u8(0x99).be32(static_cast<uint32_t>(inbound));
    else
        w.u8(0);
    w.raw(data).u8(channelFlag ? 0xFF : 0x00);
    return w;
}

// A reply flow followed by a second flow whose header must still be read correctly.
void sendReplyThenMarker(Loopback& net, const Wire& body) {
    Wire w;
    w.header(FLOW_REPLY, 3, "ECI", static_cast<uint32_t>(body.size())).raw(body.bytes());
    w.header(FLOW_PING, 4242, "ECI", 0);
    net.send(w);
}

void expectMarkerNext(sockBuffer* sb) {
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(sb, &h), 0);
    EXPECT_EQ(h.flowType, FLOW_PING);
    EXPECT_EQ(h.messageId, 4242);
}

}  // namespace

TEST(EciRequestFlow, ListSystemsBodyIsNineteenBytes) {
    EciRequest r = listRequest(5);
    EXPECT_EQ(calculateECIRequestSize(&r), 19);
    uint32_t declared = 0;
    Bytes body = sendAndCaptureBody(&r, &declared);
    EXPECT_EQ(declared, 19u);
    Wire expected;
    expected.be32(9).be32(5);
    EXPECT_EQ(body, trailer(expected, r).bytes());
}

TEST(EciRequestFlow, CallWithOutboundLengthTenOfAHundred) {
    uint8_t commarea[100];
    for (int i = 0; i < 100; ++i) commarea[i] = static_cast<uint8_t>(i);
    EciRequest r = callRequest(commarea, 100);
    r.outboundLength = 10;
    uint32_t declared = 0;
    Bytes body = sendAndCaptureBody(&r, &declared);
    Wire expected = callBodyStart(r, {0x9E, 0x03});
    expected.u8(0xFF).be32(10).u8(0x00).raw(Bytes(commarea, commarea + 10)).u8(0x00);
    trailer(expected, r);
    EXPECT_EQ(body, expected.bytes());
    EXPECT_EQ(declared, body.size());
    EXPECT_EQ(declared, 15u + 68u + 2u + 4u + 10u);
}

TEST(EciRequestFlow, WholeCommareaWithInboundLengthAndSixteenCharacterUser) {
    uint8_t commarea[20];
    memset(commarea, 'C', sizeof commarea);
    EciRequest r = callRequest(commarea, 20);
    r.requestType = ECI_REQUEST_CALL_ALT_TRANID;
    r.userid = "ABCDEFGHIJKLMNOP";
    r.inboundLength = 7;
    uint32_t declared = 0;
    Bytes body = sendAndCaptureBody(&r, &declared);
    Wire expected = callBodyStart(r, {0x9E, 0x03});
    expected.u8(0x00).u8(0xFF).be32(7).raw(Bytes(commarea, commarea + 20)).u8(0x00);
    trailer(expected, r);
    EXPECT_EQ(body, expected.bytes());
    EXPECT_EQ(declared, body.size());
}

TEST(EciRequestFlow, ExtendModesTwoAndFourCarryNoCommarea) {
    uint8_t commarea[50];
    memset(commarea, 'Z', sizeof commarea);
    for (int32_t mode : {2, 4}) {
        EciRequest r = callRequest(commarea, 50);
        r.extendMode = mode;
        r.outboundLength = 30;
        uint32_t declared = 0;
        Bytes body = sendAndCaptureBody(&r, &declared);
        Wire expected = callBodyStart(r, {0x9E, 0x03});
        expected.u8(0xFF).be32(30).u8(0x00).u8(0x00);
        trailer(expected, r);
        EXPECT_EQ(body, expected.bytes()) << "extend mode " << mode;
        EXPECT_EQ(declared, body.size());
    }
}

TEST(EciRequestFlow, EmptyPasswordSendsLengthZeroAndNoBytes) {
    EciRequest r = callRequest(nullptr, 0);
    r.password = "";
    r.userid = nullptr;
    uint32_t declared = 0;
    Bytes body = sendAndCaptureBody(&r, &declared);
    Wire expected = callBodyStart(r, {});
    expected.u8(0).u8(0).u8(0);
    trailer(expected, r);
    EXPECT_EQ(body, expected.bytes());
    EXPECT_EQ(declared, 15u + 68u);
}

TEST(EciRequestFlow, PasswordIsMaskedOnTheWireAndAsterisksInTheTrace) {
    TraceCapture trace(4);
    uint8_t commarea[4] = {1, 2, 3, 4};
    EciRequest r = callRequest(commarea, 4);
    r.password = "SECRET";
    uint32_t declared = 0;
    Bytes body = sendAndCaptureBody(&r, &declared);
    Bytes masked{static_cast<uint8_t>(~'S'), 'S' ^ 'E', 'E' ^ 'C', 'C' ^ 'R', 'R' ^ 'E', 'E' ^ 'T'};
    Wire expected = callBodyStart(r, masked);
    expected.u8(0).u8(0).raw(Bytes(commarea, commarea + 4)).u8(0);
    trailer(expected, r);
    EXPECT_EQ(body, expected.bytes());
    // In the DATA dump of the flush the password's six bytes are asterisks.
    Wire traced;
    traced.header(FLOW_REQUEST, 3, "ECI", declared).raw(callBodyStart(r, Bytes(6, '*')).bytes());
    traced.u8(0).u8(0).raw(Bytes(commarea, commarea + 4)).u8(0);
    trailer(traced, r);
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 2526), kvltest::hex(traced.bytes()));
    EXPECT_EQ(trace.text().find("SECRET"), std::string::npos);
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 3244), "01020304");  // the COMMAREA dump
}

TEST(EciReply, ShortInboundZeroesTheRestOfTheCommarea) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes ten(10, 0x42);
    sendReplyThenMarker(net, callReplyBody(100, 10, ten));
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);

    uint8_t commarea[100];
    memset(commarea, 0xEE, sizeof commarea);
    EciRequest r{};
    r.commarea = commarea;
    r.commareaCapacity = sizeof commarea;
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), 0);
    EXPECT_EQ(r.requestType, ECI_REQUEST_CALL);
    EXPECT_EQ(r.luwToken, 0x5151);
    EXPECT_EQ(memcmp(r.abend, "ABND", 4), 0);
    EXPECT_EQ(r.commareaLength, 100);
    EXPECT_EQ(r.inboundLength, 10);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(commarea[i], 0x42);
    for (int i = 10; i < 100; ++i) ASSERT_EQ(commarea[i], 0) << i;
    expectMarkerNext(&rb.sb);
}

TEST(EciReply, OversizedCommareaFillsTheBufferAndDropsTheRest) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes data(300);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);
    sendReplyThenMarker(net, callReplyBody(300, -1, data));
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);

    uint8_t memory[120];
    memset(memory, 0xEE, sizeof memory);
    EciRequest r{};
    r.commarea = memory;
    r.commareaCapacity = 100;  // the last 20 bytes are not the caller's
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), 0);
    EXPECT_EQ(memcmp(memory, data.data(), 100), 0);
    for (int i = 100; i < 120; ++i) ASSERT_EQ(memory[i], 0xEE) << i;
    EXPECT_EQ(r.inboundLength, 100);
    expectMarkerNext(&rb.sb);
}

TEST(EciReply, ExtendModeTwoReadsNoCommareaBytes) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    sendReplyThenMarker(net, callReplyBody(100, 0, {}));
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);
    uint8_t commarea[100];
    memset(commarea, 0xEE, sizeof commarea);
    EciRequest r{};
    r.extendMode = 2;
    r.commarea = commarea;
    r.commareaCapacity = sizeof commarea;
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), 0);
    EXPECT_EQ(commarea[0], 0xEE);  // no zero fill either
    expectMarkerNext(&rb.sb);
}

TEST(EciReply, InboundCountBeyondTheFlowOrNegativeFails) {
    TraceCapture trace(1);
    Loopback net;
    ASSERT_TRUE(net.ok());
    for (int32_t inbound : {500, -5}) {
        sendReplyThenMarker(net, callReplyBody(100, inbound, Bytes(10, 1)));
        ReadBuffer rb(net.client);
        flowHeader h{};
        ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);
        uint8_t commarea[100];
        memset(commarea, 0xEE, sizeof commarea);
        EciRequest r{};
        r.commarea = commarea;
        r.commareaCapacity = sizeof commarea;
        EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), KVL_ERR_SYSTEM_ERROR) << inbound;
        EXPECT_EQ(commarea[0], 0xEE);
        expectMarkerNext(&rb.sb);
    }
    EXPECT_EQ(trace.linesWithId(3251).size(), 2u);
}

TEST(EciReply, ChannelInAReplyToACommareaRequestFails) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Wire body = callReplyBody(0, -1, {}, true);
    body.text("CHANNEL").fill(9, 0).be32(0).be32(0);
    sendReplyThenMarker(net, body);
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);
    EciRequest r{};
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), KVL_ERR_SYSTEM_ERROR);
    expectMarkerNext(&rb.sb);
}

TEST(EciReply, ListSystemsBoundedByCapacity) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes entries(3 * 70);
    for (size_t i = 0; i < entries.size(); ++i) entries[i] = static_cast<uint8_t>('a' + i / 70);
    Wire body;
    body.be32(ECI_REQUEST_LIST_SYSTEMS).be32(3).be32(static_cast<uint32_t>(-25)).be32(210).raw(entries);
    sendReplyThenMarker(net, body);
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);
    uint8_t list[2 * 70 + 10];
    memset(list, 0xEE, sizeof list);
    EciRequest r{};
    r.commarea = list;
    r.commareaCapacity = 2 * 70;
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), 0);
    EXPECT_EQ(r.listParm, 3);
    EXPECT_EQ(r.rc, -25);
    EXPECT_EQ(list[0], 'a');
    EXPECT_EQ(list[139], 'b');
    for (size_t i = 140; i < sizeof list; ++i) ASSERT_EQ(list[i], 0xEE) << i;
    expectMarkerNext(&rb.sb);
}

TEST(EciReply, TruncatedReplyFailsWithoutHanging) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Wire body;
    body.be32(ECI_REQUEST_CALL).be32(1);  // the rest of the fixed part is missing
    sendReplyThenMarker(net, body);
    ReadBuffer rb(net.client);
    flowHeader h{};
    ASSERT_EQ(kvltest::readFlow(&rb.sb, &h), 0);
    EciRequest r{};
    EXPECT_EQ(clapiReadECIResponse(&rb.sb, &r), KVL_ERR_SYSTEM_ERROR);
    expectMarkerNext(&rb.sb);
}

