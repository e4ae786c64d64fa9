// ECI and list-systems request bodies on the wire, and replies decoded from the wire.
#include <gtest/gtest.h>

#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "kvlclient.h"
#include "loopback.h"
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::ReplyOnWire;
using kvltest::SentRequest;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

SentRequest sendEci(EciRequest* r) {
    return kvltest::sendRequest("ECI", 3, [r](platformSocket s, flowHeader* h) { return clapiFlowECIRequest(s, h, r); });
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

// The whole call body: the fixed part, the password as given, `commareaPart` (flags,
// counts and COMMAREA bytes), the channel flag and the trailer.
Bytes callBody(const EciRequest& r, const Bytes& password, const Wire& commareaPart) {
    Wire w;
    w.be32(static_cast<uint32_t>(r.requestType)).be32(static_cast<uint32_t>(r.extendMode)).be32(r.luwToken).be32(0).u8(0);
    w.be32(8).raw(Bytes(r.serverName, r.serverName + 8));
    std::string user = r.userid ? r.userid : "";
    w.text(user.substr(0, 16)).fill(user.size() < 16 ? 16 - user.size() : 0, 0);
    w.be32(static_cast<uint32_t>(password.size())).raw(password);
    w.raw(Bytes(r.program, r.program + 8)).raw(Bytes(r.tranId, r.tranId + 4));
    w.be32(0).be32(static_cast<uint32_t>(r.commareaLength)).raw(commareaPart.bytes()).u8(0);
    w.be16(r.timeout).u8(0).be32(0xFFFFFFFF).be32(static_cast<uint32_t>(r.correlator));
    return w.bytes();
}

Wire callReplyBody(int32_t commareaLength, int32_t inbound, const Bytes& data, bool channelFlag = false) {
    Wire w;
    w.be32(ECI_REQUEST_CALL).be32(0x5151).be32(0).be32(0).text("ABND").be32(static_cast<uint32_t>(commareaLength));
    if (inbound >= 0)
        w.u8(0xFF).u8(0x99).be32(static_cast<uint32_t>(inbound));
    else
        w.u8(0);
    return w.raw(data).u8(channelFlag ? 0xFF : 0x00);
}

}  // namespace

TEST(EciRequestFlow, ListSystemsBodyIsNineteenBytes) {
    EciRequest r{};
    r.requestType = ECI_REQUEST_LIST_SYSTEMS;
    r.listParm = 5;
    r.optionalBlocks = -1;
    r.timeout = 0x0102;
    r.correlator = 0x0A0B0C0D;
    EXPECT_EQ(calculateECIRequestSize(&r), 19);
    SentRequest sent = sendEci(&r);
    EXPECT_EQ(sent.declared, 19u);
    EXPECT_EQ(sent.body, Wire().be32(9).be32(5).be16(0x0102).u8(0).be32(0xFFFFFFFF).be32(0x0A0B0C0D).bytes());
}

TEST(EciRequestFlow, CallBodiesForEachCommareaShape) {
    uint8_t commarea[100];
    for (int i = 0; i < 100; ++i) commarea[i] = static_cast<uint8_t>(i);
    auto first = [&](size_t n) { return Bytes(commarea, commarea + n); };
    struct Case {
        const char* what;
        int32_t type, extendMode, length, outbound, inbound;
        const char* userid;
        const char* password;
        Wire commareaPart;
    };
    const Case cases[] = {
        {"outbound 10 of 100", ECI_REQUEST_CALL, 0, 100, 10, 0, "USER", "ab",
         Wire().u8(0xFF).be32(10).u8(0x00).raw(first(10))},
        {"whole, inbound 7, 16-character user", ECI_REQUEST_CALL_ALT_TRANID, 0, 20, 0, 7, "ABCDEFGHIJKLMNOP", "ab",
         Wire().u8(0x00).u8(0xFF).be32(7).raw(first(20))},
        {"extend mode 2", ECI_REQUEST_CALL, 2, 50, 30, 0, "USER", "ab", Wire().u8(0xFF).be32(30).u8(0x00)},
        {"extend mode 4", ECI_REQUEST_CALL, 4, 50, 30, 0, "USER", "ab", Wire().u8(0xFF).be32(30).u8(0x00)},
        {"empty password, no user, no COMMAREA", ECI_REQUEST_CALL, 0, 0, 0, 0, nullptr, "", Wire().u8(0).u8(0)},
    };
    for (const Case& c : cases) {
        EciRequest r = callRequest(c.length ? commarea : nullptr, c.length);
        r.requestType = c.type;
        r.extendMode = c.extendMode;
        r.outboundLength = c.outbound;
        r.inboundLength = c.inbound;
        r.userid = c.userid;
        r.password = c.password;
        SentRequest sent = sendEci(&r);
        Bytes maskedPassword = *c.password ? Bytes{0x9E, 0x03} : Bytes{};
        EXPECT_EQ(sent.body, callBody(r, maskedPassword, c.commareaPart)) << c.what;
        EXPECT_EQ(sent.declared, sent.body.size()) << c.what;
    }
}

TEST(EciRequestFlow, PasswordIsMaskedOnTheWireAndAsterisksInTheTrace) {
    TraceCapture trace(4);
    uint8_t commarea[4] = {1, 2, 3, 4};
    EciRequest r = callRequest(commarea, 4);
    r.password = "SECRET";
    SentRequest sent = sendEci(&r);
    Bytes masked{static_cast<uint8_t>(~'S'), 'S' ^ 'E', 'E' ^ 'C', 'C' ^ 'R', 'R' ^ 'E', 'E' ^ 'T'};
    Wire commareaPart = Wire().u8(0).u8(0).raw(Bytes(commarea, commarea + 4));
    EXPECT_EQ(sent.body, callBody(r, masked, commareaPart));
    // In the DATA dump of the flush the password's six bytes are asterisks.
    Wire traced;
    traced.header(FLOW_REQUEST, 3, "ECI", sent.declared).raw(callBody(r, Bytes(6, '*'), commareaPart));
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 2526), kvltest::hex(traced.bytes()));
    EXPECT_EQ(trace.text().find("SECRET"), std::string::npos);
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 3244), "01020304");  // the COMMAREA dump
}

TEST(EciReply, CommareaBytesLandWithinTheCapacityAndTheRestOfTheFlowIsDropped) {
    Bytes data(300);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);
    struct Case {
        const char* what;
        Wire body;
        int32_t extendMode, commareaLength, inboundLength;
        Bytes memory;  // 0xEE beyond the capacity of 100
    };
    const Case cases[] = {
        {"short inbound zero fills", callReplyBody(100, 10, Bytes(10, 0x42)), 0, 100, 10,
         Wire().fill(10, 0x42).fill(90, 0).bytes()},
        {"oversized fills the buffer", callReplyBody(300, -1, data), 0, 300, 100,
         Wire().raw(Bytes(data.begin(), data.begin() + 100)).fill(20, 0xEE).bytes()},
        {"extend mode 2 reads no bytes, no zero fill", callReplyBody(100, 0, {}), 2, 100, 0, Bytes(100, 0xEE)},
    };
    for (const Case& c : cases) {
        ReplyOnWire reply("ECI", c.body);
        Bytes memory(c.memory.size(), 0xEE);
        EciRequest r{};
        r.extendMode = c.extendMode;
        r.commarea = memory.data();
        r.commareaCapacity = 100;
        EXPECT_EQ(clapiReadECIResponse(reply.sb(), &r), 0) << c.what;
        EXPECT_EQ(r.requestType, ECI_REQUEST_CALL);
        EXPECT_EQ(r.luwToken, 0x5151);
        EXPECT_EQ(memcmp(r.abend, "ABND", 4), 0);
        EXPECT_EQ(r.commareaLength, c.commareaLength) << c.what;
        EXPECT_EQ(r.inboundLength, c.inboundLength) << c.what;
        EXPECT_EQ(memory, c.memory) << c.what;
        EXPECT_TRUE(reply.markerIsNext()) << c.what;
    }
}

TEST(EciReply, MalformedRepliesFailAndTheNextFlowIsReadCorrectly) {
    TraceCapture trace(1);
    const Wire cases[] = {
        callReplyBody(100, 500, Bytes(10, 1)),  // inbound count beyond the flow
        callReplyBody(100, -5, Bytes(10, 1)),   // negative inbound count
        callReplyBody(0, -1, {}, true).text("CHANNEL").fill(9, 0).be32(0).be32(0),  // a channel, not a COMMAREA
        Wire().be32(ECI_REQUEST_CALL).be32(1),  // the rest of the fixed part is missing
    };
    for (const Wire& body : cases) {
        ReplyOnWire reply("ECI", body);
        uint8_t commarea[100];
        memset(commarea, 0xEE, sizeof commarea);
        EciRequest r{};
        r.commarea = commarea;
        r.commareaCapacity = sizeof commarea;
        EXPECT_EQ(clapiReadECIResponse(reply.sb(), &r), KVL_ERR_SYSTEM_ERROR) << kvltest::hex(body.bytes());
        EXPECT_EQ(commarea[0], 0xEE);
        EXPECT_TRUE(reply.markerIsNext());
    }
    EXPECT_EQ(trace.linesWithId(3251).size(), 2u);  // one for each bad inbound count
}

TEST(EciReply, ListSystemsBoundedByCapacity) {
    Bytes entries(3 * 70);
    for (size_t i = 0; i < entries.size(); ++i) entries[i] = static_cast<uint8_t>('a' + i / 70);
    ReplyOnWire reply("ECI", Wire().be32(ECI_REQUEST_LIST_SYSTEMS).be32(3).be32(static_cast<uint32_t>(-25)).be32(210).raw(entries));
    uint8_t list[2 * 70 + 10];
    memset(list, 0xEE, sizeof list);
    EciRequest r{};
    r.commarea = list;
    r.commareaCapacity = 2 * 70;
    EXPECT_EQ(clapiReadECIResponse(reply.sb(), &r), 0);
    EXPECT_EQ(r.listParm, 3);
    EXPECT_EQ(r.rc, -25);
    EXPECT_EQ(Bytes(list, list + 140), Bytes(entries.begin(), entries.begin() + 140));
    EXPECT_EQ(Bytes(list + 140, list + sizeof list), Bytes(10, 0xEE));
    EXPECT_TRUE(reply.markerIsNext());
}
