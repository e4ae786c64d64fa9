// Synchronous COMMAREA calls end to end against the Gateway emulator.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "eci_test_util.h"
#include "trace_capture.h"

using namespace ecitest;
using kvltest::TraceCapture;

namespace {

class EciSync : public EmulatorConnection {};

TEST_F(EciSync, EchoesCommareasOfEverySize) {
    uint8_t seed = 1;
    for (size_t size : {size_t{1}, size_t{100}, size_t{4096}, size_t{32767}}) {
        SCOPED_TRACE(size);
        Bytes sent = pattern(size, seed++);
        Bytes area = sent;
        EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
        ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
        EXPECT_EQ(area, sent);
        auto flows = eciFlows();
        ASSERT_FALSE(flows.empty());
        ASSERT_TRUE(flows.back().eci.has_value());
        EXPECT_EQ(flows.back().eci->commarea, sent);
        EXPECT_EQ(flows.back().eci->commareaLength, static_cast<int32_t>(size));
    }
    EXPECT_EQ(apiCalls(), 0);
    EXPECT_EQ(slotState(1), SLOT_FREE);
}

TEST_F(EciSync, ShortReplyZeroFillsTheRestOfTheCommarea) {
    Bytes area = pattern(100, 9);
    Bytes sent = area;
    EciParms p = callParms(ECI_SYNC, "SHORT", area.data(), area.size());
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    EXPECT_TRUE(std::equal(area.begin(), area.begin() + 50, sent.begin()));
    EXPECT_EQ(Bytes(area.begin() + 50, area.end()), Bytes(50, 0));
    // This path leaves the caller's inbound length as it was.
    EXPECT_EQ(p.commarea_inbound_length, 0);
}

TEST_F(EciSync, ProgramErrorReturnsItsCodeAndAbend) {
    Bytes area = text("XYZWrest of the data");
    EciParms p = callParms(ECI_SYNC, "ABEND", area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(std::string(p.eci_abend, 4), "XYZW");

    EciParms unknown = callParms(ECI_SYNC, "NOSUCH", area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &unknown), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(std::string(unknown.eci_abend, 4), kvlemu::kUnknownProgramAbend);
    EXPECT_EQ(slotState(1), SLOT_FREE);
}

TEST_F(EciSync, AlternativeTransactionIdSelectsRequestType12) {
    Bytes area(8, 'a');
    EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    setField(p.eci_alt_tran_id, "ALT9");
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].eci->requestType, 1);
    EXPECT_EQ(flows[0].eci->tranId, "TRN1");
    EXPECT_EQ(flows[1].eci->requestType, 12);
    EXPECT_EQ(flows[1].eci->tranId, "ALT9");
}

TEST_F(EciSync, LengthsAreClippedToTheCommarea) {
    Bytes area = pattern(100, 3);
    Bytes sent = area;
    EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
    p.commarea_outbound_length = 10;
    p.commarea_inbound_length = 500;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 1u);
    const auto& req = *flows[0].eci;
    EXPECT_EQ(req.outboundFlag, 0xFF);
    EXPECT_EQ(req.outboundLength, 10);
    EXPECT_EQ(req.inboundFlag, 0xFF);
    EXPECT_EQ(req.inboundLength, 100);
    EXPECT_EQ(req.commarea, Bytes(sent.begin(), sent.begin() + 10));
    // Only ten bytes went out; the server saw zeros after them and echoed those.
    EXPECT_TRUE(std::equal(area.begin(), area.begin() + 10, sent.begin()));
    EXPECT_EQ(Bytes(area.begin() + 10, area.end()), Bytes(90, 0));
}

TEST_F(EciSync, CredentialsComeFromTheFieldsOrThePointersByVersion) {
    Bytes area(4, 0);
    EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
    p.eci_version = 4;
    memset(p.eci_userid, 0, sizeof p.eci_userid);
    memcpy(p.eci_userid, "FIELDUSER", 9);
    memcpy(p.eci_password, "SIXTEENCHARSPWD!", 16);  // fills the field: no terminator in the block
    p.eci_userid_ptr = "PTRUSER";
    p.eci_password_ptr = "PTRPASS";
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    p.eci_version = 5;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(kvlemu::wire::fieldText(flows[0].eci->userid), "FIELDUSER");
    EXPECT_EQ(flows[0].eci->password, "SIXTEENCHARSPWD!");
    EXPECT_EQ(kvlemu::wire::fieldText(flows[1].eci->userid), "PTRUSER");
    EXPECT_EQ(flows[1].eci->password, "PTRPASS");
    for (const auto& f : flows) {
        std::string raw(f.raw.begin(), f.raw.end());
        EXPECT_EQ(raw.find("SIXTEENCHARSPWD!"), std::string::npos);
        EXPECT_EQ(raw.find("PTRPASS"), std::string::npos);
    }
}

TEST_F(EciSync, PasswordNeverReachesTheTrace) {
    Bytes area = text("COMMAREA");
    EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
    p.eci_version = 4;
    memcpy(p.eci_password, "TOPSECRT", 8);
    std::string trace;
    {
        TraceCapture capture(5);
        ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
        trace = capture.text();
        EXPECT_EQ(capture.linesWithId(1504).size(), 1u);
        EXPECT_EQ(capture.linesWithId(1505).size(), 1u);
        EXPECT_EQ(capture.linesWithId(1561).size(), 1u);
        ASSERT_EQ(capture.linesWithId(1505).size(), 1u);
        EXPECT_NE(capture.linesWithId(1505)[0].find("API.KVL_ECI_Execute EciParms="), std::string::npos);
        EXPECT_NE(capture.linesWithId(1504)[0].find("len=128 stopword=00000000"), std::string::npos);
    }
    EXPECT_EQ(trace.find("TOPSECRT"), std::string::npos);
    // Nor in hexadecimal, however the dump groups the bytes.
    std::string packed;
    for (char c : trace)
        if (c != ' ') packed += c;
    EXPECT_EQ(packed.find("544F505345435254"), std::string::npos);
    // The field straddles two dump lines: six asterisks end one, ten begin the next.
    EXPECT_NE(trace.find(": ..........******"), std::string::npos);
    EXPECT_NE(trace.find(": **********TRN1"), std::string::npos);
    EXPECT_NE(packed.find("2A2A2A2A2A2A2A2A2A2A5452"), std::string::npos);
    EXPECT_NE(trace.find("COMMAREA"), std::string::npos);
    EXPECT_EQ(std::string(p.eci_password, 8), "TOPSECRT");  // the caller's block is untouched
    EXPECT_EQ(p.eci_password[8], 0);
}

TEST_F(EciSync, UnitOfWorkKeepsAndReusesItsSlot) {
    Bytes area(32, 0);
    EciParms p = callParms(ECI_SYNC, "LUW", area.data(), area.size());
    p.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    const int32_t luw = p.eci_luw_token;
    ASSERT_NE(luw, 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "LUW " + std::to_string(luw) + " CALL 1");
    EXPECT_EQ(slotState(1), SLOT_LUW_KEPT);

    // Another call meanwhile takes the next free slot.
    Bytes other(4, 'o');
    EciParms q = callParms(ECI_SYNC, "ECHO", other.data(), other.size());
    ASSERT_EQ(KVL_ECI_Execute(token, &q), ECI_NO_ERROR);

    std::fill(area.begin(), area.end(), 0);
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    EXPECT_EQ(p.eci_luw_token, luw);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(area.data())), "LUW " + std::to_string(luw) + " CALL 2");

    // Commit: no COMMAREA bytes either way.
    Bytes marker(32, 0x5A);
    p.eci_commarea = marker.data();
    p.eci_extend_mode = ECI_COMMIT;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    EXPECT_EQ(marker, Bytes(32, 0x5A));
    EXPECT_EQ(slotState(1), SLOT_FREE);
    EXPECT_EQ(p.eci_luw_token, 0);  // as the commit's reply says

    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 4u);
    EXPECT_EQ(flows[0].header.messageId, 1);
    EXPECT_EQ(flows[1].header.messageId, 2);
    EXPECT_EQ(flows[2].header.messageId, 1);
    EXPECT_EQ(flows[2].eci->luwToken, luw);
    EXPECT_EQ(flows[3].header.messageId, 1);
    EXPECT_EQ(flows[3].eci->extendMode, ECI_COMMIT);
    EXPECT_TRUE(flows[3].eci->commarea.empty());
    EXPECT_EQ(flows[3].bodyBytesRead, flows[3].header.bodyLength);
    auto events = emu.luwEvents();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].kind, kvlemu::LuwEvent::Kind::Committed);

    // The token is gone with its unit of work.
    p.eci_extend_mode = ECI_EXTENDED;
    p.eci_luw_token = luw;
    EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_ERR_LUW_TOKEN);
}

TEST_F(EciSync, BackoutCarriesNoCommareaAndAnUnknownTokenIsRefused) {
    Bytes area(16, 0);
    EciParms p = callParms(ECI_SYNC, "LUW", area.data(), area.size());
    p.eci_extend_mode = ECI_EXTENDED;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    p.eci_extend_mode = ECI_BACKOUT;
    ASSERT_EQ(KVL_ECI_Execute(token, &p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_TRUE(flows[1].eci->commarea.empty());
    EXPECT_EQ(flows[1].eci->commareaLength, 0);
    EXPECT_EQ(emu.luwEvents().back().kind, kvlemu::LuwEvent::Kind::BackedOut);

    // A token with no kept slot never reaches the wire.
    p.eci_luw_token = 424242;
    EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_ERR_LUW_TOKEN);
    EXPECT_EQ(eciFlows().size(), 2u);
}

TEST_F(EciSync, ConcurrentCallersEachGetTheirOwnReply) {
    // More callers than the embedded block has slots; the first to call sleeps longest,
    // so the replies come back in an order unlike the requests'.
    constexpr int kThreads = 20;
    std::vector<std::thread> threads;
    std::vector<int> results(kThreads, -999);
    std::vector<Bytes> areas(kThreads);
    std::atomic<int> ready{0};
    for (int i = 0; i < kThreads; ++i) {
        std::string delay = std::to_string(300 - i * 12);
        areas[i] = text(delay + "|caller " + std::to_string(i) + "|");
        areas[i].resize(64 + i, static_cast<uint8_t>(i));
        threads.emplace_back([&, i] {
            EciParms p = callParms(ECI_SYNC, "DELAY", areas[i].data(), areas[i].size());
            ++ready;
            results[i] = KVL_ECI_Execute(token, &p);
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(results[i], ECI_NO_ERROR);
        std::string expect = std::to_string(300 - i * 12) + "|caller " + std::to_string(i) + "|";
        EXPECT_EQ(std::string(areas[i].begin(), areas[i].begin() + expect.size()), expect);
        EXPECT_EQ(areas[i].size(), static_cast<size_t>(64 + i));
        EXPECT_EQ(areas[i].back(), static_cast<uint8_t>(i));
    }
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), static_cast<size_t>(kThreads));
    std::vector<int32_t> ids;
    for (auto& f : flows) ids.push_back(f.header.messageId);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end()) << "two requests shared a message id";
    EXPECT_GT(ids.back(), 16);
    EXPECT_EQ(apiCalls(), 0);
}

TEST_F(EciSync, ConnectionLostDuringTheCallFailsIt) {
    Bytes area(10, 'x');
    EciParms p = callParms(ECI_SYNC, "GATE", area.data(), area.size());
    int rc = 0;
    std::thread caller([&] { rc = KVL_ECI_Execute(token, &p); });
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    caller.join();
    EXPECT_EQ(rc, KVL_ERR_LOSTGWCON);
    EXPECT_EQ(slotState(1), SLOT_FREE);

    // A new request on the lost connection is refused before anything is sent.
    EXPECT_EQ(KVL_ECI_Execute(token, &p), KVL_ERR_LOSTGWCON);
}

TEST_F(EciSync, RefusedCallsAreUnregisteredAndTraced) {
    TraceCapture trace(1);
    Bytes area(4, 0);
    EciParms p = callParms(ECI_SYNC, "ECHO", area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(nullptr, &p), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_ECI_Execute(token, nullptr), KVL_ERR_NULLECIPOINTER);
    EXPECT_EQ(KVL_ECI_Execute(reinterpret_cast<gwTok>(&area), &p), KVL_ERR_BADGWTOK);
    p.eci_version = 7;
    EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_ERR_INVALID_VERSION);
    p.eci_version = 5;
    p.eci_call_type = ECI_ASYNC;
    EXPECT_EQ(KVL_ECI_Execute(token, &p), ECI_ERR_INVALID_VERSION);
    EXPECT_EQ(trace.linesWithId(1501).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1502).size(), 1u);
    EXPECT_EQ(apiCalls(), 0);
    EXPECT_TRUE(eciFlows().empty());
}

TEST_F(EciSync, ClosingConnectionRefusesNewRequestsButNotRetrievals) {
    TraceCapture trace(1);
    Bytes area(4, 0);
    EciParms p = callParms(ECI_ASYNC, "ECHO", area.data(), area.size());
    token->closing = 1;  // as a close in progress leaves it
    EXPECT_EQ(KVL_ECI_Execute(token, &p), KVL_ERR_GWTOK_CLOSED);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area.data(), area.size());
    EXPECT_EQ(KVL_ECI_Execute(token, &get), KVL_ERR_GWTOK_CLOSED);  // nothing outstanding
    token->closing = 0;
    auto lines = trace.linesWithId(1503);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("API.KVL_ECI_Execute() ECI_ASYNC call attempted while connection is closing"),
              std::string::npos);
    EXPECT_EQ(apiCalls(), 0);
}

}  // namespace
