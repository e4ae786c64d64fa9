// ESI request bodies on the wire and the decoding of ESI replies.
#include <gtest/gtest.h>

#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "kvl_esi.h"
#include "loopback.h"
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::SentRequest;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

SentRequest sendEsi(EsiRequest* r) {
    return kvltest::sendRequest("ESI", 6, [r](platformSocket s, flowHeader* h) { return clapiFlowESIRequest(s, h, r); });
}

void decode(const Wire& body, EsiResponse* response) {
    kvltest::ReplyOnWire reply("ESI", body);
    clapiReadESIResponse(reply.sb(), response);
    EXPECT_TRUE(reply.markerIsNext());
}

}  // namespace

TEST(EsiRequestFlow, VerifyBodyIsTwentyEightBytes) {
    EsiRequest r{};
    r.esiRequestType = ESI_REQUEST_VERIFY;
    r.userid = "USER1";
    r.password = "pw";
    EXPECT_EQ(calculateESIRequestSize(&r), 28);
    SentRequest sent = sendEsi(&r);
    EXPECT_EQ(sent.declared, 28u);
    Wire expected;
    expected.be32(0).text("USER1").fill(5, 0).be32(2).u8(static_cast<uint8_t>(~'p')).u8('p' ^ 'w').fill(8, 0);
    EXPECT_EQ(sent.body, expected.bytes());
}

TEST(EsiRequestFlow, ChangeAddsTheNewPasswordMaskedAndTheTraceHidesBoth) {
    TraceCapture trace(4);
    EsiRequest r{};
    r.esiRequestType = ESI_REQUEST_CHANGE;
    r.userid = "AVERYLONGUSERID";  // cut to ten bytes
    r.password = "old";
    r.newPassword = "newpw";
    memcpy(r.server, "SRV", 3);
    EXPECT_EQ(calculateESIRequestSize(&r), 30 + 3 + 5);
    SentRequest sent = sendEsi(&r);
    EXPECT_EQ(sent.declared, 38u);
    Wire expected;
    expected.be32(1).text("AVERYLONGU").be32(3);
    expected.u8(static_cast<uint8_t>(~'o')).u8('o' ^ 'l').u8('l' ^ 'd');
    expected.text("SRV").fill(5, 0).be32(5);
    expected.u8(static_cast<uint8_t>(~'n')).u8('n' ^ 'e').u8('e' ^ 'w').u8('w' ^ 'p').u8('p' ^ 'w');
    EXPECT_EQ(sent.body, expected.bytes());
    // The DATA dump of the flush shows asterisks exactly where the masked bytes lie.
    Wire traced;
    traced.header(FLOW_REQUEST, 6, "ESI", 38).be32(1).text("AVERYLONGU").be32(3).fill(3, '*');
    traced.text("SRV").fill(5, 0).be32(5).fill(5, '*');
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 2526), kvltest::hex(traced.bytes()));
    EXPECT_EQ(trace.text().find("newpw"), std::string::npos);
}

TEST(EsiReply, TimesArriveCrossed) {
    Wire body;
    body.be32(0);
    for (uint32_t v = 1; v <= 22; ++v) body.be32(v);
    EsiResponse response{};
    response.rc = -1;
    decode(body, &response);
    EXPECT_EQ(response.rc, 0);
    EXPECT_EQ(response.details.lastVerifiedTime.year, 1);
    EXPECT_EQ(response.details.lastVerifiedTime.reserved, 7);
    EXPECT_EQ(response.details.lastAccessTime.year, 8);
    EXPECT_EQ(response.details.lastAccessTime.reserved, 14);
    EXPECT_EQ(response.details.expiryTime.year, 15);
    EXPECT_EQ(response.details.expiryTime.second, 20);
    EXPECT_EQ(response.details.expiryTime.reserved, 21);
    EXPECT_EQ(response.details.invalidAttemptCount, 22);
}

TEST(EsiReply, ErrorCodeOrTruncatedDetailsLeaveTheDetailsAlone) {
    TraceCapture trace(1);
    const struct {
        Wire body;
        int32_t rc;
    } cases[] = {
        {Wire().be32(static_cast<uint32_t>(-107)), -107},
        {Wire().be32(0).be32(2026).be32(1), ESI_ERR_SYSTEM_ERROR},  // details cut short
        {Wire(), ESI_ERR_SYSTEM_ERROR},
    };
    for (const auto& c : cases) {
        EsiResponse response;
        memset(&response, 0x5A, sizeof response);
        decode(c.body, &response);
        EXPECT_EQ(response.rc, c.rc);
        EXPECT_EQ(response.details.lastVerifiedTime.year, 0x5A5A5A5A);
        EXPECT_EQ(response.details.invalidAttemptCount, 0x5A5A5A5A);
    }
    EXPECT_EQ(trace.linesWithId(3257).size(), 2u);
}
