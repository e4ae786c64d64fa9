// Password verification and change, and the list of servers, end to end
// against the Gateway emulator on loopback.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

#include "gateway_emulator/emulator.h"
#include "gateway/gateway_test_util.h"
#include "kvl_esi.h"
#include "kvlclient.h"
#include "trace_capture.h"

namespace {

class EsiEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError();
        kvlemu::User good;
        good.userid = "ALICE";
        good.password = "SECRET1";
        emu.addUser(good);
        kvlemu::User old;
        old.userid = "BOB";
        old.password = "OLDPW";
        old.expired = true;
        emu.addUser(old);
        kvlemu::User picky;
        picky.userid = "CAROL";
        picky.password = "PW";
        picky.rejectNewPassword = true;
        emu.addUser(picky);
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10), KVL_OK);
    }
    void TearDown() override {
        if (token) {
            EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
        }
        emu.stop();
    }

    kvlemu::Emulator emu;
    gwTok token = nullptr;
};

esiDetails poisoned() {
    esiDetails d;
    memset(&d, 0x5A, sizeof d);
    return d;
}

void expectTime(const EsiTime& t, const int32_t* wire) {
    EXPECT_EQ(t.year, wire[0]);
    EXPECT_EQ(t.month, wire[1]);
    EXPECT_EQ(t.day, wire[2]);
    EXPECT_EQ(t.hour, wire[3]);
    EXPECT_EQ(t.minute, wire[4]);
    EXPECT_EQ(t.second, wire[5]);
    EXPECT_EQ(t.reserved, wire[6]);
}

}  // namespace

TEST_F(EsiEndToEnd, ArgumentChecksInOrder) {
    esiDetails d{};
    EXPECT_EQ(KVL_ESI_verifyPassword(nullptr, nullptr, nullptr, nullptr, &d), KVL_ERR_NULLGWTOK);
    int notAToken = 0;
    EXPECT_EQ(KVL_ESI_verifyPassword(reinterpret_cast<gwTok>(&notAToken), "A", "B", nullptr, &d), KVL_ERR_BADGWTOK);
    EXPECT_EQ(KVL_ESI_verifyPassword(token, nullptr, nullptr, nullptr, &d), ESI_ERR_NULL_USERID);
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "", "x", nullptr, &d), ESI_ERR_NULL_USERID);
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", nullptr, nullptr, &d), ESI_ERR_NULL_PASSWORD);
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "", nullptr, &d), ESI_ERR_NULL_PASSWORD);
    EXPECT_EQ(KVL_ESI_changePassword(nullptr, "A", "B", "C", nullptr, &d), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_ESI_changePassword(token, "", "", "", nullptr, &d), ESI_ERR_NULL_USERID);
    EXPECT_EQ(KVL_ESI_changePassword(token, "ALICE", nullptr, "", nullptr, &d), ESI_ERR_NULL_PASSWORD);
    EXPECT_EQ(KVL_ESI_changePassword(token, "ALICE", "SECRET1", "", nullptr, &d), ESI_ERR_NULL_NEW_PASSWORD);
    EXPECT_EQ(emu.flowCount(), 1u) << "only the handshake went out";
}

TEST_F(EsiEndToEnd, VerifyFillsTheDetailsInTheirCrossedOrder) {
    esiDetails d = poisoned();
    ASSERT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", "EMUSRV", &d), 0);
    auto wire = kvlemu::User::defaultDetails();
    // The wire carries the record's first, third and second times, then the count.
    expectTime(d.lastVerifiedTime, &wire[0]);
    expectTime(d.lastAccessTime, &wire[7]);
    expectTime(d.expiryTime, &wire[14]);
    EXPECT_EQ(d.invalidAttemptCount, wire[21]);
    ASSERT_TRUE(emu.waitForFlows(2, 5000));
    auto flows = emu.recordedFlows();
    ASSERT_TRUE(flows.back().esi.has_value());
    EXPECT_EQ(flows.back().esi->password, "SECRET1");
    EXPECT_NE(std::string(flows.back().esi->passwordMasked.begin(), flows.back().esi->passwordMasked.end()),
              "SECRET1")
        << "the password travels masked";
    EXPECT_EQ(flows.back().esi->server, std::string("EMUSRV\0\0", 8));
}

TEST_F(EsiEndToEnd, GatewayCodesComeBackMappedAndDetailsStayUntouched) {
    struct Case {
        const char* userid;
        const char* password;
        int expected;
        const char* gatewayLine;
        const char* exitLine;
    };
    // The receiver names the Gateway's own code; the exit line names the mapped one.
    const Case cases[] = {
        {"ALICE", "WRONG", ESI_ERR_PASSWORD_INVALID, "rc=-106 (ESI_ERR_PASSWORD_INVALID)",
         "rc=-302 (ESI_ERR_PASSWORD_INVALID)"},
        {"NOBODY", "X", ESI_ERR_USERID_INVALID, "rc=-108 (ESI_ERR_USERID_INVALID)",
         "rc=-300 (ESI_ERR_USERID_INVALID)"},
        {"BOB", "OLDPW", ESI_ERR_PASSWORD_EXPIRED, "rc=-105 (ESI_ERR_PASSWORD_EXPIRED)",
         "rc=-306 (ESI_ERR_PASSWORD_EXPIRED)"},
    };
    for (const auto& c : cases) {
        kvltest::TraceCapture trace(3);
        esiDetails d = poisoned();
        esiDetails before = d;
        EXPECT_EQ(KVL_ESI_verifyPassword(token, c.userid, c.password, nullptr, &d), c.expected) << c.userid;
        EXPECT_EQ(memcmp(&d, &before, sizeof d), 0) << c.userid;
        auto received = trace.linesWithId(3044);
        ASSERT_EQ(received.size(), 1u) << c.userid;
        EXPECT_NE(received[0].find(c.gatewayLine), std::string::npos) << received[0];
        auto exits = trace.linesWithId(1805);
        ASSERT_EQ(exits.size(), 1u) << c.userid;
        EXPECT_NE(exits[0].find(c.exitLine), std::string::npos) << exits[0];
    }
}

TEST_F(EsiEndToEnd, ChangeAcceptedAndRejected) {
    esiDetails d{};
    EXPECT_EQ(KVL_ESI_changePassword(token, "ALICE", "SECRET1", "NEWPASS1", nullptr, &d), 0);
    ASSERT_TRUE(emu.user("ALICE").has_value());
    EXPECT_EQ(emu.user("ALICE")->password, "NEWPASS1");
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "NEWPASS1", nullptr, &d), 0);
    EXPECT_EQ(KVL_ESI_changePassword(token, "CAROL", "PW", "ANYTHING", nullptr, &d), ESI_ERR_PASSWORD_REJECTED);
    EXPECT_EQ(emu.user("CAROL")->password, "PW");
}

TEST_F(EsiEndToEnd, PasswordsNeverReachTheTrace) {
    std::string text;
    {
        kvltest::TraceCapture trace(4);
        esiDetails d{};
        ASSERT_EQ(KVL_ESI_changePassword(token, "ALICE", "SECRET1", "NEWPASS1", nullptr, &d), 0);
        text = trace.text();
    }
    ASSERT_NE(text.find("[1811] EVENT"), std::string::npos);
    EXPECT_EQ(text.find("SECRET1"), std::string::npos);
    EXPECT_EQ(text.find("NEWPASS1"), std::string::npos);
    // Neither the clear bytes nor the masked ones appear in any hexadecimal dump.
    auto hexOf = [](const std::string& s, bool masked) {
        std::string out;
        char b[3];
        for (size_t i = 0; i < s.size(); ++i) {
            unsigned char c = static_cast<unsigned char>(s[i]);
            if (masked) c = i == 0 ? static_cast<unsigned char>(~c) : static_cast<unsigned char>(s[i - 1] ^ s[i]);
            snprintf(b, sizeof b, "%02X", c);
            out += b;
        }
        return out;
    };
    std::string digits;
    for (size_t pos = 0; (pos = text.find("0x", pos)) != std::string::npos;) {
        size_t colon = text.find(": ", pos);
        size_t sep = text.find(" : ", colon);
        if (colon == std::string::npos || sep == std::string::npos) break;
        for (size_t i = colon + 2; i < sep; ++i)
            if (text[i] != ' ') digits += text[i];
        pos = sep;
    }
    ASSERT_FALSE(digits.empty()) << "the flow was dumped at level 4";
    for (const char* pw : {"SECRET1", "NEWPASS1"}) {
        EXPECT_EQ(digits.find(hexOf(pw, false)), std::string::npos) << pw;
        EXPECT_EQ(digits.find(hexOf(pw, true)), std::string::npos) << pw << " masked";
    }
    EXPECT_NE(digits.find("2A2A2A2A2A2A2A"), std::string::npos) << "asterisks stand where the secrets lie";
}

TEST_F(EsiEndToEnd, ConnectionLostDuringTheRequest) {
    emu.injectOnRequest(kvlemu::kTriggerEsi, kvlemu::Fault::drop());
    esiDetails d = poisoned();
    esiDetails before = d;
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", nullptr, &d), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(memcmp(&d, &before, sizeof d), 0);
    // The connection has ended: a further request is refused at once, not left waiting.
    EXPECT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", nullptr, &d), KVL_ERR_LOSTGWCON);
}

// ---------------------------------------------------------------------------

TEST_F(EsiEndToEnd, ListSystemsLargerThanTheArray) {
    emu.clearServers();
    const char* names[] = {"SRV1", "SRV2", "SRV3", "SRV4", "SRV5"};
    for (const char* n : names) emu.addServer({n, std::string("Server ") + n});
    kvlSystemInfo list[4];
    memset(list, 0x77, sizeof list);
    unsigned short count = 2;
    EXPECT_EQ(KVL_listSystems(token, &count, list), KVL_ERR_MORE_SYSTEMS);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(memcmp(list[0].SystemName, "SRV1\0\0\0\0\0", 9), 0) << "blanks trimmed to NULs";
    EXPECT_STREQ(list[1].SystemName, "SRV2");
    EXPECT_EQ(std::string(list[1].SystemDescription), "Server SRV2");
    for (int i = 2; i < 4; ++i)
        for (size_t b = 0; b < sizeof(kvlSystemInfo); ++b)
            ASSERT_EQ(reinterpret_cast<unsigned char*>(&list[i])[b], 0x77) << "entry " << i << " was written";
    auto flows = emu.recordedFlows();
    ASSERT_TRUE(flows.back().eci.has_value());
    EXPECT_EQ(flows.back().eci->listParm, 2) << "the capacity is sent";

    kvlSystemInfo all[5];
    count = 5;
    EXPECT_EQ(KVL_listSystems(token, &count, all), 0) << "room for all";
    EXPECT_EQ(count, 5);
    EXPECT_STREQ(all[4].SystemName, "SRV5");
}

TEST_F(EsiEndToEnd, ListSystemsNoneAndArgumentChecks) {
    emu.clearServers();
    kvlSystemInfo list[1];
    unsigned short count = 1;
    EXPECT_EQ(KVL_listSystems(token, &count, list), KVL_ERR_NO_SYSTEMS);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(KVL_listSystems(nullptr, &count, list), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_listSystems(token, nullptr, list), KVL_ERR_NULLPTR);
    EXPECT_EQ(KVL_listSystems(token, &count, nullptr), KVL_ERR_NULLPTR);
}

TEST_F(EsiEndToEnd, ListSystemsConnectionLost) {
    emu.injectOnRequest(kvlemu::kTriggerListSystems, kvlemu::Fault::dropMidReply());
    kvlSystemInfo list[2];
    unsigned short count = 2;
    EXPECT_EQ(KVL_listSystems(token, &count, list), KVL_ERR_LOSTGWCON);
}

// A Gateway that ignores the capacity: the entries beyond it are read and dropped,
// the caller's array is not overrun and the connection stays in step.
TEST(ListSystemsHostileGateway, MoreEntriesThanTheCapacityAreDropped) {
    gwtest::ScriptedGateway gateway;
    gateway.acceptAndShakeHands();
    gwTok token = nullptr;
    ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", gateway.port(), &token, 10), KVL_OK);
    ASSERT_TRUE(gateway.waitReady());

    auto replyWithEntries = [&](int entries, int32_t listRc) {
        kvlemu::wire::Header request;
        ASSERT_TRUE(gateway.readHeader(request));
        kvlemu::wire::EciReply reply;
        reply.requestType = kvlemu::wire::kEciListSystems;
        reply.listParm = entries;
        reply.rc = listRc;
        for (int i = 0; i < entries; ++i) {
            auto e = kvlemu::wire::encodeSystemEntry("S" + std::to_string(i), "entry " + std::to_string(i));
            reply.commarea.insert(reply.commarea.end(), e.begin(), e.end());
        }
        ASSERT_TRUE(gateway.send(gwtest::gatewayFlow(kvlemu::wire::kFlowReply, request.messageId, "ECI",
                                                     kvlemu::wire::encodeEciReplyBody(reply))));
    };

    kvlSystemInfo list[3];
    memset(list, 0x66, sizeof list);
    unsigned short count = 1;
    auto call = std::async(std::launch::async, [&] { return KVL_listSystems(token, &count, list); });
    replyWithEntries(40, 0);
    ASSERT_EQ(call.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(call.get(), 0);
    EXPECT_EQ(count, 40);
    EXPECT_STREQ(list[0].SystemName, "S0");
    for (size_t b = 0; b < 2 * sizeof(kvlSystemInfo); ++b)
        ASSERT_EQ(reinterpret_cast<unsigned char*>(&list[1])[b], 0x66) << "byte " << b << " past the capacity";

    count = 3;
    auto again = std::async(std::launch::async, [&] { return KVL_listSystems(token, &count, list); });
    replyWithEntries(2, 0);
    ASSERT_EQ(again.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(again.get(), 0) << "the next flow was read in step";
    EXPECT_STREQ(list[1].SystemName, "S1");
    // This scripted Gateway never answers a close flow: end the connection from its side.
    gateway.closePeer();
    EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
}
