// The emulator's own codecs against the worked byte examples of the protocol.
#include <algorithm>

#include "emu_fixture.h"

using namespace kvlemu::wire;
using emutest::cat;
using emutest::decodeAll;
using emutest::decodeEciReply;
using emutest::refused;
using emutest::text;

namespace {

// Every proper prefix of a valid body must be refused, never read past its end.
template <typename T, typename Decode>
void expectEveryPrefixRefused(const Bytes& body, Decode decode) {
    for (size_t n = 0; n < body.size(); ++n)
        EXPECT_TRUE(refused<T>(Bytes(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(n)), decode))
            << "prefix of " << n << " bytes accepted";
}

Header header(int32_t flowType, int32_t messageId, const std::string& requestType) {
    return {.flowType = flowType, .messageId = messageId, .requestType = requestType};
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
    Bytes expected = cat({Bytes{0x47, 0x61, 0x74, 0x65, 0x10, 0x90, 0x10, 0x00, 0, 0, 0, 0x0A, 0xFF, 0xFF, 0xFF, 0xFF,
                                0, 0, 0, 0, 0, 0, 0, 4},
                          text("BASE"), Bytes(5, 0)});
    EXPECT_EQ(encodeFlow(header(kFlowClose, kCloseMessageId, "BASE"), {}), expected);
    Header back = decodeAll<Header>(expected, decodeHeader);
    EXPECT_EQ(back.flowType, kFlowClose);
    EXPECT_EQ(back.messageId, -1);
    EXPECT_EQ(back.requestType, "BASE");
    EXPECT_EQ(back.bodyLength, 0u);
}

TEST(WireHeader, EciHeaderIsThirtyTwoBytesAndBadInputIsRefused) {
    Bytes flow = encodeFlow(header(kFlowRequest, 3, "ECI"), Bytes(10, 0));
    EXPECT_EQ(flow.size(), 32u + 10u);
    Bytes notGate = flow;
    notGate[0] = 'X';
    MemorySource bad(notGate);
    Header out;
    std::string error;
    EXPECT_FALSE(decodeHeader(bad, out, error));
    EXPECT_NE(error.find("eyecatcher"), std::string::npos);
    Bytes longType = flow;
    longType[23] = 9;  // longer than any request type, though the bytes are there
    EXPECT_TRUE(refused<Header>(longType, decodeHeader));
    expectEveryPrefixRefused<Header>(Bytes(flow.begin(), flow.begin() + 32), decodeHeader);
}

TEST(WireHandshake, FiveCharacterApplidAndEmptyQualifier) {
    Handshake hs;
    hs.applidUtf8 = "APPL1";
    Bytes body = encodeHandshakeBody(hs);
    EXPECT_EQ(body, cat({Bytes{0, 2}, text("en"), Bytes{0, 2}, text("GB"), Bytes(10, 0), Bytes{0, 5}, text("APPL1"),
                         Bytes{0, 0}}));
    EXPECT_EQ(encodeFlow(header(kFlowHandshake, kHandshakeMessageId, "BASE"), body).size(), 60u);
    Handshake back = decodeAll<Handshake>(body, decodeHandshakeBody);
    EXPECT_EQ(back.applidUtf8, "APPL1");
    EXPECT_EQ(back.qualifierUtf8, "");
    expectEveryPrefixRefused<Handshake>(body, decodeHandshakeBody);
}

TEST(WireText, Latin1TravelsAsUtf8AndMaskingAbGives9E03) {
    EXPECT_EQ(utf8FromLatin1("\xE9"), "\xC3\xA9");
    EXPECT_EQ(utf8FromLatin1("\xA0"), "\xC2\xA0");
    EXPECT_EQ(utf8FromLatin1("AB"), "AB");
    EXPECT_EQ(latin1FromUtf8("\xE2\x82\xAC"), "???");  // not Latin-1
    EXPECT_EQ(mask("ab"), (Bytes{0x9E, 0x03}));
    EXPECT_TRUE(mask("").empty());
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(latin1FromUtf8(utf8FromLatin1(all)), all);
    EXPECT_EQ(unmask(mask(std::string(1, '\0') + all)), std::string(1, '\0') + all);
}

TEST(WireEsi, VerifyBodyOfTwentyEightBytesAndHostilePasswordLengths) {
    EsiRequest r;
    r.userid = "USER1";
    r.password = "pw";
    Bytes head = cat({Bytes(4, 0), text("USER1"), Bytes(5, 0)});
    Bytes body = encodeEsiRequestBody(r);
    EXPECT_EQ(body, cat({head, Bytes{0, 0, 0, 2}, mask("pw"), Bytes(8, 0)}));
    EsiRequest back = decodeAll<EsiRequest>(body, decodeEsiRequestBody);
    EXPECT_EQ(fieldText(back.userid), "USER1");
    EXPECT_EQ(back.password, "pw");
    EXPECT_EQ(back.passwordMasked, mask("pw"));
    expectEveryPrefixRefused<EsiRequest>(body, decodeEsiRequestBody);
    EXPECT_TRUE(refused<EsiRequest>(cat({head, Bytes{0xFF, 0xFF, 0xFF, 0xFF}}), decodeEsiRequestBody));
    EXPECT_TRUE(refused<EsiRequest>(cat({head, Bytes{0x7F, 0, 0, 0}, Bytes(8, 1)}), decodeEsiRequestBody));
}

TEST(WireEsi, ChangeBodyAddsTheNewPasswordAndRepliesCarryDetailsOnlyOnSuccess) {
    EsiRequest r;
    r.type = 1;
    r.userid = "LONGUSERID12";  // cut to 10 bytes
    r.password = "old1";
    r.newPassword = "new12";
    r.server = nameField("SRV", 8);
    Bytes body = encodeEsiRequestBody(r);
    EXPECT_EQ(body, cat({Bytes{0, 0, 0, 1}, text("LONGUSERID"), Bytes{0, 0, 0, 4}, mask("old1"), text("SRV"),
                         Bytes(5, 0), Bytes{0, 0, 0, 5}, mask("new12")}));
    EsiRequest back = decodeAll<EsiRequest>(body, decodeEsiRequestBody);
    EXPECT_EQ(back.userid, "LONGUSERID");
    EXPECT_EQ(back.newPassword, "new12");
    EXPECT_EQ(fieldText(back.server), "SRV");

    EsiReply ok;
    for (size_t i = 0; i < ok.details.size(); ++i) ok.details[i] = static_cast<int32_t>(i + 1);
    Bytes okBody = encodeEsiReplyBody(ok);
    EXPECT_EQ(okBody.size(), 4u + 22u * 4u);
    EXPECT_EQ(decodeAll<EsiReply>(okBody, decodeEsiReplyBody).details, ok.details);
    EXPECT_EQ(encodeEsiReplyBody({.rc = -106}), (Bytes{0xFF, 0xFF, 0xFF, 0x96}));
}

TEST(WireEci, ListSystemsRequestIsNineteenBytes) {
    EciRequest r;
    r.requestType = kEciListSystems;
    r.listParm = 5;
    r.correlator = 0x01020304;
    Bytes body = encodeEciRequestBody(r);
    EXPECT_EQ(body, (Bytes{0, 0, 0, 9, 0, 0, 0, 5, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4}));
    EXPECT_EQ(declaredEciRequestSize(r), 19u);
    EciRequest back = decodeAll<EciRequest>(body, decodeEciRequestBody);
    EXPECT_EQ(back.listParm, 5);
    EXPECT_EQ(back.correlator, 0x01020304);
}

TEST(WireEci, CallBodyWithOutboundLengthTenOfAHundred) {
    EciRequest r = sampleCall();
    r.outboundLength = 10;
    r.commarea.resize(10);
    Bytes body = encodeEciRequestBody(r);
    // Type, extend mode, LUW, reserved, server, user, password, program, transaction,
    // extra length, COMMAREA length, outbound FF 10, inbound absent, 10 bytes, trailer.
    Bytes expected = cat({Bytes{0, 0, 0, 1}, Bytes(13, 0), Bytes{0, 0, 0, 8}, text("SRV1"), Bytes(4, 0), text("USER1"),
                          Bytes(11, 0), Bytes{0, 0, 0, 6}, mask("secret"), text("ECHO"), Bytes(4, 0), text("TRN1"),
                          Bytes{0, 0, 0, 0, 0, 0, 0, 100, 0xFF, 0, 0, 0, 10, 0x00}, Bytes(10, 0x41),
                          Bytes{0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 7}});
    EXPECT_EQ(body, expected);
    EXPECT_EQ(declaredEciRequestSize(r), body.size());
    EciRequest back = decodeAll<EciRequest>(body, decodeEciRequestBody);
    EXPECT_EQ(back.password, "secret");
    EXPECT_EQ(fieldText(back.program), "ECHO");
    EXPECT_EQ(back.outboundFlag, 0xFF);
    EXPECT_EQ(back.outboundLength, 10);
    EXPECT_EQ(back.commarea, Bytes(10, 0x41));
    EXPECT_EQ(back.correlator, 7);
    expectEveryPrefixRefused<EciRequest>(body, decodeEciRequestBody);
}

TEST(WireEci, ExtendModesTwoAndFourCarryNoCommarea) {
    const size_t plainSize = encodeEciRequestBody(sampleCall()).size();
    for (int mode : {2, 4}) {
        EciRequest r = sampleCall();
        r.extendMode = mode;
        Bytes body = encodeEciRequestBody(r);
        EXPECT_EQ(body.size() + 100, plainSize);
        EXPECT_EQ(declaredEciRequestSize(r), body.size());
        EciRequest back = decodeAll<EciRequest>(body, decodeEciRequestBody);
        EXPECT_EQ(back.commareaLength, 100);
        EXPECT_TRUE(back.commarea.empty());
    }
}

TEST(WireEci, EmptyPasswordAndFullUseridField) {
    EciRequest r = sampleCall();
    r.password = "";
    r.userid = "ABCDEFGHIJKLMNOP";
    Bytes body = encodeEciRequestBody(r);
    EXPECT_EQ(body.size(), declaredEciRequestSize(r));
    EciRequest back = decodeAll<EciRequest>(body, decodeEciRequestBody);
    EXPECT_EQ(back.userid, "ABCDEFGHIJKLMNOP");
    EXPECT_TRUE(back.passwordMasked.empty());
}

TEST(WireEci, LengthsBeyondTheBodyAreRefused) {
    Bytes body = encodeEciRequestBody(sampleCall());
    const size_t commareaLengthAt = 4 + 4 + 4 + 4 + 1 + 4 + 8 + 16 + 4 + 6 + 8 + 4 + 4;
    for (uint8_t top : {0x7F, 0x80}) {  // huge and negative
        Bytes bad = body;
        bad[commareaLengthAt] = top;
        EXPECT_TRUE(refused<EciRequest>(bad, decodeEciRequestBody)) << int(top);
    }
    Bytes badServerLen = body;
    badServerLen[4 + 4 + 4 + 4 + 1 + 3] = 9;
    EXPECT_TRUE(refused<EciRequest>(badServerLen, decodeEciRequestBody));
}

TEST(WireChannel, EmptyChannelIsTwentyFourBytesAndDeclaredSizeCountsFourExtraPerContainer) {
    Channel ch;
    ch.name = nameField("CHAN1");
    ch.ccsid = 819;
    Writer w;
    encodeChannel(w, ch, true);
    EXPECT_EQ(w.data(), cat({text("CHAN1"), Bytes(11, 0), Bytes{0, 0, 0x03, 0x33, 0, 0, 0, 0}}));
    EXPECT_EQ(declaredChannelSize(ch), 24u);

    Container c;
    c.name = nameField("DATA");
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
    Channel back = decodeAll<Channel>(
        w.data(), [](Source& s, Channel& out, std::string& e) { return decodeChannel(s, out, false, e); });
    ASSERT_EQ(back.containers.size(), 4u);
    EXPECT_EQ(back.containers[0].data, text("1234567"));
    EXPECT_TRUE(back.containers[1].data.empty());
    EXPECT_TRUE(back.containers[3].data.empty());
    EXPECT_EQ(back.containers[3].dataLength, 7u);
    EXPECT_NE(back.find("C3"), nullptr);
    EXPECT_EQ(back.find("C9"), nullptr);
}

TEST(WireChannel, ImpossibleContainerCountsAndLengthsAreRefused) {
    auto decodeRequest = [](Source& s, Channel& out, std::string& e) { return decodeChannel(s, out, true, e); };
    Bytes head = cat({text("CHAN"), Bytes(12, 0), Bytes(4, 0)});
    // Far more containers than the bytes could hold; one container announcing 2 GB.
    EXPECT_TRUE(refused<Channel>(cat({head, Bytes{0x10, 0, 0, 0}}), decodeRequest));
    EXPECT_TRUE(refused<Channel>(
        cat({head, Bytes{0, 0, 0, 1}, text("C"), Bytes(15, 0), Bytes{1, 0, 0, 1, 0, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF}}),
        decodeRequest));
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
    // Type, LUW, reserved, rc, abend, length, then FF 00 count, 10 bytes, channel flag.
    EXPECT_EQ(body, cat({Bytes{0, 0, 0, 1, 0, 0, 0x10, 0x01, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xF9}, text("AB12"),
                         Bytes{0, 0, 0, 100, 0xFF, 0x00, 0, 0, 0, 10}, Bytes(10, 0x5A), Bytes{0}}));
    EciReply back = decodeEciReply(body, 0);
    EXPECT_EQ(back.abend, "AB12");
    EXPECT_EQ(back.count, 10);
    EXPECT_EQ(back.luwToken, 0x1001);

    EciReply whole;
    whole.commareaLength = 3;
    whole.commarea = text("xyz");
    Bytes wb = encodeEciReplyBody(whole);
    EXPECT_EQ(wb[24], 0x00);
    EXPECT_EQ(decodeEciReply(wb, 0).commarea, text("xyz"));

    EciReply commit;  // extend mode 2: the reply has the length but no bytes
    commit.commareaLength = 50;
    EXPECT_TRUE(decodeEciReply(encodeEciReplyBody(commit), 2).commarea.empty());
}

TEST(WireEciReply, SystemEntriesAreSeventyBytes) {
    Bytes e = encodeSystemEntry("SRV1", "First server");
    EXPECT_EQ(e, cat({text("SRV1    "), Bytes{0}, text("First server"), Bytes(49, 0)}));
    Bytes longDesc = encodeSystemEntry("LONGNAME9", std::string(80, 'd'));
    EXPECT_EQ(longDesc, cat({text("LONGNAME"), Bytes{0}, text(std::string(60, 'd')), Bytes{0}}));

    EciReply list;
    list.requestType = kEciListSystems;
    list.listParm = 1;
    list.commarea = e;
    EXPECT_EQ(encodeEciReplyBody(list), cat({Bytes{0, 0, 0, 9, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 70}, e}));
}

TEST(WireException, BodyIsPadByteLengthAndText) {
    Bytes body = encodeExceptionBody("oops");
    EXPECT_EQ(body, cat({Bytes{0, 0, 4}, text("oops")}));
    MemorySource src(body);
    std::string t, error;
    ASSERT_TRUE(decodeExceptionBody(src, t, error));
    EXPECT_EQ(t, "oops");
}

TEST(WireEciReply, OneBufferFlowIsHeaderPlusBodyWhateverTheBufferHeldBefore) {
    EciReply full;
    full.luwToken = 0x1002;
    full.commareaLength = 300;
    full.commarea = Bytes(300, 0x61);
    EciReply counted = full;
    counted.explicitCount = true;
    counted.count = 7;
    counted.commarea = Bytes(7, 0x62);
    EciReply channel;
    channel.channel = Channel{nameField("CHAN"), 37, {}};
    Container c;
    c.name = nameField("DATA");
    c.state = kContainerModified;
    c.data = text("container data");
    c.dataLength = static_cast<uint32_t>(c.data.size());
    channel.channel->containers.push_back(c);
    EciReply list;
    list.requestType = kEciListSystems;
    list.listParm = 1;
    list.commarea = encodeSystemEntry("SRV1", "one");

    const Header h = header(kFlowReply, 42, "ECI");
    for (const EciReply* r : {&full, &counted, &channel, &list}) {
        const Bytes expected = encodeFlow(h, encodeEciReplyBody(*r));
        EXPECT_EQ(encodeEciReplyFlow(h, *r), expected);
        // A buffer that held a longer flow before: nothing of it may stay.
        EXPECT_EQ(encodeEciReplyFlow(h, *r, Bytes(5000, 0xEE)), expected);
    }
}

namespace {
// A source that only knows take(): append() falls back on it.
class TakeOnlySource : public Source {
public:
    explicit TakeOnlySource(Bytes data) : data_(std::move(data)) {}
    bool take(uint8_t* dst, size_t n) override {
        if (n > data_.size() - pos_) return false;
        std::copy_n(data_.begin() + static_cast<std::ptrdiff_t>(pos_), n, dst);
        pos_ += n;
        return true;
    }
    // Claims more than it holds, as a flow whose body is cut short does.
    uint64_t remaining() const override { return data_.size() - pos_ + 100; }

private:
    Bytes data_;
    size_t pos_ = 0;
};
}  // namespace

TEST(WireIo, GetBytesReplacesWhatTheBufferHeldAndLeavesItEmptyWhenCutShort) {
    Bytes out(64, 0xEE);  // a buffer handed on from an earlier, longer field
    const Bytes data = text("abcdef");
    MemorySource mem(data);
    ASSERT_TRUE(getBytes(mem, 4, out));
    EXPECT_EQ(out, text("abcd"));
    EXPECT_FALSE(getBytes(mem, 3, out));  // two left
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(mem.remaining(), 2u);  // a refused length takes nothing

    TakeOnlySource takeOnly(text("xyz"));
    Bytes viaTake(10, 0xEE);
    ASSERT_TRUE(getBytes(takeOnly, 2, viaTake));
    EXPECT_EQ(viaTake, text("xy"));
    EXPECT_FALSE(getBytes(takeOnly, 5, viaTake));  // within remaining(), past the data
    EXPECT_TRUE(viaTake.empty());
}
