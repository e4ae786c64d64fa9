// The emulator's own codecs against the worked byte examples of the protocol.
#include <gtest/gtest.h>

#include "gateway_emulator/wire.h"

using namespace kvlemu::wire;

namespace {

Bytes bytesOf(std::initializer_list<int> v) {
    Bytes b;
    for (int x : v) b.push_back(static_cast<uint8_t>(x));
    return b;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

// Every proper prefix of a valid body must be refused, never read past its end.
template <typename T, typename Decode>
void expectEveryPrefixRejected(const Bytes& body, Decode decode) {
    for (size_t n = 0; n < body.size(); ++n) {
        MemorySource src(body.data(), n);
        T out;
        std::string error;
        EXPECT_FALSE(decode(src, out, error)) << "prefix of " << n << " bytes accepted";
    }
}

EciRequest sampleCall() {
    EciRequest r;
    r.serverName = nameField("SRV1", 8);
    r.userid = nameField("USER1");
    r.password = "secret";
    r.program = nameField("ECHO", 8);
    r.tranId = "TRN1";
    r.commareaLength = 100;
    r.commarea = Bytes(100, 0x41);
    r.correlator = 7;
    return r;
}

}  // namespace

TEST(WireHeader, CloseRequestIsTheDocumentedThirtyThreeBytes) {
    Header h;
    h.flowType = kFlowClose;
    h.messageId = kCloseMessageId;
    h.requestType = "BASE";
    Bytes expected = concat({bytesOf({0x47, 0x61, 0x74, 0x65, 0x10, 0x90, 0x10, 0x00, 0, 0, 0, 0x0A, 0xFF, 0xFF, 0xFF,
                                      0xFF, 0, 0, 0, 0, 0, 0, 0, 4}),
                             text("BASE"), bytesOf({0, 0, 0, 0, 0})});
    EXPECT_EQ(encodeFlow(h, {}), expected);

    MemorySource src(expected);
    Header back;
    std::string error;
    ASSERT_TRUE(decodeHeader(src, back, error)) << error;
    EXPECT_EQ(back.flowType, kFlowClose);
    EXPECT_EQ(back.messageId, -1);
    EXPECT_EQ(back.requestType, "BASE");
    EXPECT_EQ(back.bodyLength, 0u);
    EXPECT_EQ(src.remaining(), 0u);
}

TEST(WireHeader, EciHeaderIsThirtyTwoBytesAndBadInputIsRefused) {
    Header h;
    h.flowType = kFlowRequest;
    h.messageId = 3;
    h.requestType = "ECI";
    Bytes flow = encodeFlow(h, Bytes(5, 0));
    EXPECT_EQ(flow.size(), 32u + 5u);

    Bytes notGate = flow;
    notGate[0] = 'X';
    MemorySource bad(notGate);
    Header out;
    std::string error;
    EXPECT_FALSE(decodeHeader(bad, out, error));
    EXPECT_NE(error.find("eyecatcher"), std::string::npos);

    // A request type length that would overrun any sane field.
    Bytes longType = flow;
    longType[23] = 9;
    MemorySource tooLong(longType);
    EXPECT_FALSE(decodeHeader(tooLong, out, error));

    expectEveryPrefixRejected<Header>(Bytes(flow.begin(), flow.begin() + 32),
                                      [](Source& s, Header& o, std::string& e) { return decodeHeader(s, o, e); });
}

TEST(WireHandshake, FiveCharacterApplidAndEmptyQualifier) {
    Handshake hs;
    hs.applidUtf8 = "APPL1";
    Bytes body = encodeHandshakeBody(hs);
    ASSERT_EQ(body.size(), 27u);
    EXPECT_EQ(Bytes(body.begin(), body.begin() + 8), concat({bytesOf({0, 2}), text("en"), bytesOf({0, 2}), text("GB")}));
    EXPECT_EQ(Bytes(body.begin() + 8, body.begin() + 18), Bytes(10, 0));
    EXPECT_EQ(Bytes(body.end() - 9, body.end()), concat({bytesOf({0, 5}), text("APPL1"), bytesOf({0, 0})}));

    Header h;
    h.flowType = kFlowHandshake;
    h.messageId = kHandshakeMessageId;
    h.requestType = "BASE";
    EXPECT_EQ(encodeFlow(h, body).size(), 60u);

    MemorySource src(body);
    Handshake back;
    std::string error;
    ASSERT_TRUE(decodeHandshakeBody(src, back, error)) << error;
    EXPECT_EQ(back.applidUtf8, "APPL1");
    EXPECT_EQ(back.qualifierUtf8, "");
    expectEveryPrefixRejected<Handshake>(
        body, [](Source& s, Handshake& o, std::string& e) { return decodeHandshakeBody(s, o, e); });
}

TEST(WireHandshake, Latin1ApplidBytesTravelAsUtf8) {
    EXPECT_EQ(utf8FromLatin1("\xE9"), "\xC3\xA9");
    EXPECT_EQ(utf8FromLatin1("\xA0"), "\xC2\xA0");
    EXPECT_EQ(utf8FromLatin1("AB"), "AB");
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(latin1FromUtf8(utf8FromLatin1(all)), all);
    EXPECT_EQ(latin1FromUtf8("\xE2\x82\xAC"), "???");  // not Latin-1
}

TEST(WireMask, AbBecomes9E03AndEveryByteRoundTrips) {
    EXPECT_EQ(mask("ab"), bytesOf({0x9E, 0x03}));
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(unmask(mask(all)), all);
    EXPECT_TRUE(mask("").empty());
}

TEST(WireEsi, VerifyBodyOfTwentyEightBytes) {
    EsiRequest r;
    r.userid = "USER1";
    r.password = "pw";
    Bytes body = encodeEsiRequestBody(r);
    Bytes expected = concat({bytesOf({0, 0, 0, 0}), text("USER1"), Bytes(5, 0), bytesOf({0, 0, 0, 2}), mask("pw"),
                             Bytes(8, 0)});
    EXPECT_EQ(body, expected);
    EXPECT_EQ(body.size(), 28u);

    MemorySource src(body);
    EsiRequest back;
    std::string error;
    ASSERT_TRUE(decodeEsiRequestBody(src, back, error)) << error;
    EXPECT_EQ(fieldText(back.userid), "USER1");
    EXPECT_EQ(back.password, "pw");
    EXPECT_EQ(back.passwordMasked, mask("pw"));
    expectEveryPrefixRejected<EsiRequest>(
        body, [](Source& s, EsiRequest& o, std::string& e) { return decodeEsiRequestBody(s, o, e); });
}

TEST(WireEsi, ChangeBodyAddsTheNewPasswordAndRepliesCarryDetailsOnlyOnSuccess) {
    EsiRequest r;
    r.type = 1;
    r.userid = "LONGUSERID12";  // cut to 10 bytes
    r.password = "old1";
    r.newPassword = "new12";
    r.server = nameField("SRV", 8);
    Bytes body = encodeEsiRequestBody(r);
    EXPECT_EQ(body.size(), 30u + 4u + 5u);
    MemorySource src(body);
    EsiRequest back;
    std::string error;
    ASSERT_TRUE(decodeEsiRequestBody(src, back, error)) << error;
    EXPECT_EQ(back.userid, "LONGUSERID");
    EXPECT_EQ(back.newPassword, "new12");
    EXPECT_EQ(fieldText(back.server), "SRV");

    EsiReply ok;
    for (size_t i = 0; i < ok.details.size(); ++i) ok.details[i] = static_cast<int32_t>(i + 1);
    EXPECT_EQ(encodeEsiReplyBody(ok).size(), 4u + 22u * 4u);
    EsiReply fail;
    fail.rc = -106;
    EXPECT_EQ(encodeEsiReplyBody(fail), bytesOf({0xFF, 0xFF, 0xFF, 0x96}));

    Bytes okBody = encodeEsiReplyBody(ok);
    MemorySource replySrc(okBody);
    EsiReply decoded;
    ASSERT_TRUE(decodeEsiReplyBody(replySrc, decoded, error));
    EXPECT_EQ(decoded.details, ok.details);
}

TEST(WireEsi, NegativeOrOversizedPasswordLengthIsRefused) {
    Bytes body = concat({bytesOf({0, 0, 0, 0}), text("USER1"), Bytes(5, 0), bytesOf({0xFF, 0xFF, 0xFF, 0xFF})});
    MemorySource neg(body);
    EsiRequest out;
    std::string error;
    EXPECT_FALSE(decodeEsiRequestBody(neg, out, error));

    Bytes huge = concat({bytesOf({0, 0, 0, 0}), text("USER1"), Bytes(5, 0), bytesOf({0x7F, 0, 0, 0}), Bytes(8, 1)});
    MemorySource big(huge);
    EXPECT_FALSE(decodeEsiRequestBody(big, out, error));
}

TEST(WireEci, ListSystemsRequestIsNineteenBytes) {
    EciRequest r;
    r.requestType = kEciListSystems;
    r.listParm = 5;
    r.correlator = 0x01020304;
    Bytes body = encodeEciRequestBody(r);
    Bytes expected = bytesOf({0, 0, 0, 9, 0, 0, 0, 5, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4});
    EXPECT_EQ(body, expected);
    EXPECT_EQ(declaredEciRequestSize(r), 19u);
    MemorySource src(body);
    EciRequest back;
    std::string error;
    ASSERT_TRUE(decodeEciRequestBody(src, back, error)) << error;
    EXPECT_EQ(back.listParm, 5);
    EXPECT_EQ(back.correlator, 0x01020304);
}

TEST(WireEci, CallBodyFieldsAndSizes) {
    EciRequest r = sampleCall();
    r.outboundLength = 10;
    r.commarea.resize(10);
    Bytes body = encodeEciRequestBody(r);
    EXPECT_EQ(body.size(), declaredEciRequestSize(r));

    // requestType, extendMode, luw, reserved1, reserved2, 8, server, userid(16)
    size_t off = 4 + 4 + 4 + 4 + 1;
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 4), bytesOf({0, 0, 0, 8}));
    off += 4 + 8;
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 16), concat({text("USER1"), Bytes(11, 0)}));
    off += 16;
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 4), bytesOf({0, 0, 0, 6}));
    off += 4;
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 6), mask("secret"));
    off += 6 + 8 + 4 + 4;  // password, program, tranId, extraLength
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 4), bytesOf({0, 0, 0, 100}));
    off += 4;
    // Outbound 10 of 100: 0xFF, 10; inbound absent: 0x00; then 10 COMMAREA bytes.
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 6), bytesOf({0xFF, 0, 0, 0, 10, 0x00}));
    off += 6;
    EXPECT_EQ(Bytes(body.begin() + off, body.begin() + off + 10), Bytes(10, 0x41));

    MemorySource src(body);
    EciRequest back;
    std::string error;
    ASSERT_TRUE(decodeEciRequestBody(src, back, error)) << error;
    EXPECT_EQ(src.remaining(), 0u);
    EXPECT_EQ(back.password, "secret");
    EXPECT_EQ(fieldText(back.program), "ECHO");
    EXPECT_EQ(back.outboundFlag, 0xFF);
    EXPECT_EQ(back.outboundLength, 10);
    EXPECT_EQ(back.commarea.size(), 10u);
    EXPECT_EQ(back.correlator, 7);
    expectEveryPrefixRejected<EciRequest>(
        body, [](Source& s, EciRequest& o, std::string& e) { return decodeEciRequestBody(s, o, e); });
}

TEST(WireEci, ExtendModesTwoAndFourCarryNoCommarea) {
    for (int mode : {2, 4}) {
        EciRequest r = sampleCall();
        r.extendMode = mode;
        Bytes body = encodeEciRequestBody(r);
        EciRequest plain = sampleCall();
        EXPECT_EQ(body.size() + 100, encodeEciRequestBody(plain).size());
        EXPECT_EQ(declaredEciRequestSize(r), body.size());
        MemorySource src(body);
        EciRequest back;
        std::string error;
        ASSERT_TRUE(decodeEciRequestBody(src, back, error)) << error;
        EXPECT_EQ(back.commareaLength, 100);
        EXPECT_TRUE(back.commarea.empty());
    }
}

TEST(WireEci, EmptyPasswordAndFullUseridField) {
    EciRequest r = sampleCall();
    r.password = "";
    r.userid = "ABCDEFGHIJKLMNOP";
    Bytes body = encodeEciRequestBody(r);
    MemorySource src(body);
    EciRequest back;
    std::string error;
    ASSERT_TRUE(decodeEciRequestBody(src, back, error)) << error;
    EXPECT_EQ(back.userid, "ABCDEFGHIJKLMNOP");
    EXPECT_TRUE(back.passwordMasked.empty());
    EXPECT_EQ(body.size(), declaredEciRequestSize(r));
}

TEST(WireEci, LengthsBeyondTheBodyAreRefused) {
    EciRequest r = sampleCall();
    Bytes body = encodeEciRequestBody(r);
    const size_t commareaLengthAt = 4 + 4 + 4 + 4 + 1 + 4 + 8 + 16 + 4 + 6 + 8 + 4 + 4;
    for (uint8_t top : {0x7F, 0x80}) {  // huge and negative
        Bytes bad = body;
        bad[commareaLengthAt] = top;
        MemorySource src(bad);
        EciRequest out;
        std::string error;
        EXPECT_FALSE(decodeEciRequestBody(src, out, error));
    }
    Bytes badServerLen = body;
    badServerLen[4 + 4 + 4 + 4 + 1 + 3] = 9;
    MemorySource src(badServerLen);
    EciRequest out;
    std::string error;
    EXPECT_FALSE(decodeEciRequestBody(src, out, error));
}

TEST(WireChannel, EmptyChannelIsTwentyFourBytesAndDeclaredSizeCountsFourExtraPerContainer) {
    Channel ch;
    ch.name = nameField("CHAN1");
    ch.ccsid = 819;
    Writer w;
    encodeChannel(w, ch, true);
    EXPECT_EQ(w.data().size(), 24u);
    EXPECT_EQ(declaredChannelSize(ch), 24u);

    Container c;
    c.name = nameField("DATA");
    c.type = 2;
    c.ccsid = 819;
    c.data = text("hello");
    ch.containers = {c, c};
    Writer w2;
    encodeChannel(w2, ch, true);
    EXPECT_EQ(w2.data().size(), 24u + 2 * (28u + 5u));
    EXPECT_EQ(declaredChannelSize(ch), w2.data().size() + 8);

    EciRequest r = sampleCall();
    r.commareaLength = 0;
    r.commarea.clear();
    r.channel = ch;
    EXPECT_EQ(declaredEciRequestSize(r), encodeEciRequestBody(r).size() + 8);
}

TEST(WireChannel, ReplyEntriesCarryDataOnlyWhenAddedOrModified) {
    Channel ch;
    ch.name = nameField("CHAN1");
    for (uint8_t state : {kContainerAdded, kContainerDeleted, kContainerModified, kContainerUnchanged}) {
        Container c;
        c.name = nameField("C" + std::to_string(state));
        c.state = state;
        c.data = text("1234567");
        c.dataLength = 7;
        ch.containers.push_back(c);
    }
    Writer w;
    encodeChannel(w, ch, false);
    EXPECT_EQ(w.data().size(), 24u + 4 * 28u + 2 * 7u);

    MemorySource src(w.data());
    Channel back;
    std::string error;
    ASSERT_TRUE(decodeChannel(src, back, false, error)) << error;
    EXPECT_EQ(src.remaining(), 0u);
    ASSERT_EQ(back.containers.size(), 4u);
    EXPECT_EQ(back.containers[0].data, text("1234567"));
    EXPECT_TRUE(back.containers[1].data.empty());
    EXPECT_TRUE(back.containers[3].data.empty());
    EXPECT_EQ(back.containers[3].dataLength, 7u);
    EXPECT_NE(back.find("C3"), nullptr);
    EXPECT_EQ(back.find("C9"), nullptr);
}

TEST(WireChannel, ImpossibleContainerCountsAndLengthsAreRefused) {
    Writer w;
    w.padded("CHAN", 16);
    w.i32(0);
    w.u32(0x10000000);  // far more containers than the bytes could hold
    MemorySource src(w.data());
    Channel out;
    std::string error;
    EXPECT_FALSE(decodeChannel(src, out, true, error));

    Writer w2;
    w2.padded("CHAN", 16);
    w2.i32(0);
    w2.u32(1);
    w2.padded("C", 16);
    w2.bytes(bytesOf({1, 0, 0, 1, 0, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF}));
    MemorySource src2(w2.data());
    EXPECT_FALSE(decodeChannel(src2, out, true, error));
}

TEST(WireEciReply, CountFormsAndExtendModes) {
    EciReply r;
    r.luwToken = 0x1001;
    r.rc = -7;
    r.abend = "AB12";
    r.commareaLength = 100;
    r.explicitCount = true;
    r.count = 10;
    r.commarea = Bytes(10, 0x5A);
    Bytes body = encodeEciReplyBody(r);
    // type, luw, reserved1, rc, abend, length, FF 00 count, 10 bytes, channel flag.
    EXPECT_EQ(body.size(), 4u + 4 + 4 + 4 + 4 + 4 + 6 + 10 + 1);
    EXPECT_EQ(Bytes(body.begin() + 24, body.begin() + 30), bytesOf({0xFF, 0x00, 0, 0, 0, 10}));

    MemorySource src(body);
    EciReply back;
    std::string error;
    ASSERT_TRUE(decodeEciReplyBody(src, 0, back, error)) << error;
    EXPECT_EQ(back.abend, "AB12");
    EXPECT_EQ(back.count, 10);
    EXPECT_EQ(back.luwToken, 0x1001);

    EciReply whole;
    whole.commareaLength = 3;
    whole.commarea = text("xyz");
    Bytes wb = encodeEciReplyBody(whole);
    EXPECT_EQ(wb[24], 0x00);
    MemorySource ws(wb);
    ASSERT_TRUE(decodeEciReplyBody(ws, 0, back, error));
    EXPECT_EQ(back.commarea, text("xyz"));

    // Extend mode 2: the reply has the length but no bytes.
    EciReply commit;
    commit.commareaLength = 50;
    Bytes cb = encodeEciReplyBody(commit);
    MemorySource cs(cb);
    ASSERT_TRUE(decodeEciReplyBody(cs, 2, back, error));
    EXPECT_EQ(cs.remaining(), 0u);
}

TEST(WireEciReply, SystemEntriesAreSeventyBytes) {
    Bytes e = encodeSystemEntry("SRV1", "First server");
    ASSERT_EQ(e.size(), kSystemEntrySize);
    EXPECT_EQ(Bytes(e.begin(), e.begin() + 9), concat({text("SRV1"), Bytes(4, ' '), bytesOf({0})}));
    EXPECT_EQ(Bytes(e.begin() + 9, e.begin() + 21), text("First server"));
    EXPECT_EQ(e[21], 0);
    Bytes longDesc = encodeSystemEntry("LONGNAME9", std::string(80, 'd'));
    ASSERT_EQ(longDesc.size(), kSystemEntrySize);
    EXPECT_EQ(longDesc[7], 'E');
    EXPECT_EQ(longDesc[8], 0);
    EXPECT_EQ(longDesc[69], 0);  // description always terminated

    EciReply list;
    list.requestType = kEciListSystems;
    list.listParm = 1;
    list.commarea = e;
    Bytes body = encodeEciReplyBody(list);
    EXPECT_EQ(body.size(), 16u + 70u);
    EXPECT_EQ(Bytes(body.begin() + 12, body.begin() + 16), bytesOf({0, 0, 0, 70}));
}

TEST(WireException, BodyIsPadByteLengthAndText) {
    Bytes body = encodeExceptionBody("oops");
    EXPECT_EQ(body, concat({bytesOf({0, 0, 4}), text("oops")}));
    MemorySource src(body);
    std::string t, error;
    ASSERT_TRUE(decodeExceptionBody(src, t, error));
    EXPECT_EQ(t, "oops");
}
