// Synchronous COMMAREA calls end to end against the Gateway emulator.
#include "eci_test_util.h"

using namespace ecitest;

namespace {

class EciSync : public EmulatorConnection {};

TEST_F(EciSync, RepliesComeBackIntoTheCommarea) {
    struct Case {
        const char* program;
        Bytes sent;
        int rc;
        std::string abend;
        size_t replied;  // bytes the program sends back; the rest of the COMMAREA is zero-filled
    };
    const Bytes abending = text("XYZWrest of the data");
    const Case cases[] = {
        {"ECHO", pattern(1, 1), ECI_NO_ERROR, "", 1},
        {"ECHO", pattern(100, 2), ECI_NO_ERROR, "", 100},
        {"ECHO", pattern(4096, 3), ECI_NO_ERROR, "", 4096},
        {"ECHO", pattern(32767, 4), ECI_NO_ERROR, "", 32767},
        {"SHORT", pattern(100, 9), ECI_NO_ERROR, "", 50},
        {"ABEND", abending, ECI_ERR_TRANSACTION_ABEND, "XYZW", 0},
        {"NOSUCH", abending, ECI_ERR_TRANSACTION_ABEND, kvlemu::kUnknownProgramAbend, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " " + std::to_string(c.sent.size()));
        Bytes area = c.sent;
        EciParms p = callParms(ECI_SYNC, c.program, area);
        ASSERT_EQ(execute(p), c.rc);
        if (c.rc == ECI_NO_ERROR) {
            Bytes expected(c.sent.begin(), c.sent.begin() + static_cast<std::ptrdiff_t>(c.replied));
            expected.resize(c.sent.size(), 0);
            EXPECT_EQ(area, expected);
        } else {
            EXPECT_EQ(std::string(p.eci_abend, 4), c.abend);
        }
        EXPECT_EQ(p.commarea_inbound_length, 0);  // this path leaves the caller's inbound length as it was
        auto flows = eciFlows();
        ASSERT_TRUE(!flows.empty() && flows.back().eci.has_value());
        EXPECT_EQ(flows.back().eci->commarea, c.sent);
        EXPECT_EQ(flows.back().eci->commareaLength, static_cast<int32_t>(c.sent.size()));
        EXPECT_EQ(slotState(1), SLOT_FREE);
    }
}

// Lengths clipped to the COMMAREA; an alternative transaction id selects request type 12.
TEST_F(EciSync, LengthsAreClippedAndTheAlternativeTransactionIdSelectsRequestType12) {
    Bytes area = pattern(100, 3);
    Bytes sent = area;
    EciParms p = callParms(ECI_SYNC, "ECHO", area);
    p.commarea_outbound_length = 10;
    p.commarea_inbound_length = 500;
    ASSERT_EQ(execute(p), ECI_NO_ERROR);
    setField(p.eci_alt_tran_id, "ALT9");
    ASSERT_EQ(execute(p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].eci->requestType, 1);
    EXPECT_EQ(flows[0].eci->tranId, "TRN1");
    EXPECT_EQ(flows[1].eci->requestType, 12);
    EXPECT_EQ(flows[1].eci->tranId, "ALT9");
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

// Version 4 takes the credentials from the fields, version 5 from the pointers.
TEST_F(EciSync, PasswordsTravelMaskedAndNeverReachTheTrace) {
    Bytes area = text("COMMAREA");
    EciParms p = callParms(ECI_SYNC, "ECHO", area);
    p.eci_version = 4;
    memset(p.eci_userid, 0, sizeof p.eci_userid);
    memcpy(p.eci_userid, "FIELDUSER", 9);
    memcpy(p.eci_password, "SIXTEENCHARSPWD!", 16);  // fills the field: no terminator in the block
    p.eci_userid_ptr = "PTRUSER";
    p.eci_password_ptr = "PTRPASS";
    std::string trace;
    {
        TraceCapture capture(5);
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        p.eci_version = 5;
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        trace = capture.text();
        EXPECT_TRUE(traced(capture, 1505, "API.KVL_ECI_Execute EciParms=", 2));
        EXPECT_TRUE(traced(capture, 1504, "len=128 stopword=00000000", 2));
    }
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(kvlemu::wire::fieldText(flows[0].eci->userid), "FIELDUSER");
    EXPECT_EQ(flows[0].eci->password, "SIXTEENCHARSPWD!");
    EXPECT_EQ(kvlemu::wire::fieldText(flows[1].eci->userid), "PTRUSER");
    EXPECT_EQ(flows[1].eci->password, "PTRPASS");
    // Not in clear on the wire, nor in the trace as text or in hexadecimal, however the dump groups the bytes.
    std::string packed;
    for (char c : trace)
        if (c != ' ') packed += c;
    for (const std::string secret : {"SIXTEENCHARSPWD!", "PTRPASS"}) {
        char hex[40] = {};
        for (size_t i = 0; i < secret.size(); ++i)
            snprintf(hex + 2 * i, 3, "%02X", static_cast<unsigned char>(secret[i]));
        EXPECT_EQ(packed.find(hex), std::string::npos) << secret;
        EXPECT_EQ(trace.find(secret), std::string::npos) << secret;
        for (const auto& f : flows) EXPECT_EQ(std::string(f.raw.begin(), f.raw.end()).find(secret), std::string::npos);
    }
    // The field straddles two dump lines: six asterisks end one, ten begin the next.
    EXPECT_NE(trace.find(": SER.......******"), std::string::npos);
    EXPECT_NE(trace.find(": **********TRN1"), std::string::npos);
    EXPECT_NE(packed.find("2A2A2A2A2A2A2A2A2A2A5452"), std::string::npos);
    EXPECT_NE(trace.find("COMMAREA"), std::string::npos);
    EXPECT_EQ(std::string(p.eci_password, 16), "SIXTEENCHARSPWD!");  // the caller's block is untouched
}

// A unit of work keeps slot 1 between its calls, however it started; commit (2) and
// backout (4) end it and carry no COMMAREA bytes either way.
TEST_F(EciSync, UnitOfWorkKeepsItsSlotAndEndsWithoutCommareaBytes) {
    struct Case {
        short startType, ending;
        kvlemu::LuwEvent::Kind event;
    };
    const Case cases[] = {{ECI_SYNC, ECI_COMMIT, kvlemu::LuwEvent::Kind::Committed},
                          {ECI_ASYNC, ECI_BACKOUT, kvlemu::LuwEvent::Kind::BackedOut}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ending);
        emu.clearRecordedFlows();
        Bytes area(32, 0);
        EciParms p = callParms(c.startType, "LUW", area);
        p.eci_extend_mode = ECI_EXTENDED;
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        if (c.startType == ECI_ASYNC) {
            ASSERT_EQ(retrieve(ECI_GET_REPLY_WAIT, area), ECI_NO_ERROR);
            p.eci_luw_token = got.eci_luw_token;
            EXPECT_EQ(retrieve(ECI_GET_SPECIFIC_REPLY, area, p.eci_msg_qual), ECI_ERR_NO_REPLY) << "kept, not queued";
            p.eci_call_type = ECI_SYNC;
        }
        const int32_t luw = p.eci_luw_token;
        ASSERT_NE(luw, 0);
        EXPECT_EQ(cstr(area), "LUW " + std::to_string(luw) + " CALL 1");
        EXPECT_EQ(slotState(1), SLOT_LUW_KEPT);
        Bytes other(4, 'o');
        EciParms q = callParms(ECI_SYNC, "ECHO", other);
        ASSERT_EQ(execute(q), ECI_NO_ERROR);  // takes the next free slot
        std::fill(area.begin(), area.end(), 0);
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        EXPECT_EQ(p.eci_luw_token, luw);
        EXPECT_EQ(cstr(area), "LUW " + std::to_string(luw) + " CALL 2");

        Bytes marker(32, 0x5A);
        p.eci_commarea = marker.data();
        p.commarea_inbound_length = 8;
        p.eci_extend_mode = c.ending;
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
        EXPECT_EQ(marker, Bytes(32, 0x5A));
        EXPECT_EQ(slotState(1), SLOT_FREE);
        EXPECT_EQ(p.eci_luw_token, 0);  // as the reply says
        EXPECT_EQ(emu.luwEvents().back().kind, c.event);

        auto flows = eciFlows();
        ASSERT_EQ(flows.size(), 4u);
        for (int i : {0, 2, 3}) EXPECT_EQ(flows[i].header.messageId, 1) << i;
        EXPECT_EQ(flows[1].header.messageId, 2);
        EXPECT_EQ(flows[2].eci->luwToken, luw);
        const auto& end = flows[3];
        EXPECT_EQ(end.eci->extendMode, c.ending);
        EXPECT_EQ(end.eci->luwToken, luw);
        EXPECT_EQ(end.eci->commareaLength, 0);
        EXPECT_EQ(end.eci->inboundFlag, 0);
        EXPECT_TRUE(end.eci->commarea.empty());
        // Version 6 with null credential pointers: empty user id, no password bytes.
        EXPECT_EQ(end.eci->userid, std::string(16, '\0'));
        EXPECT_TRUE(end.eci->passwordMasked.empty());
        EXPECT_EQ(end.header.bodyLength, 15u + 68u);
        EXPECT_EQ(end.raw.size(), 29u + 3u + 15u + 68u);
        EXPECT_EQ(end.bodyBytesRead, end.header.bodyLength);

        // The token is gone with its unit of work; an unknown one never reaches the wire.
        p.eci_extend_mode = ECI_EXTENDED;
        p.eci_luw_token = luw;
        EXPECT_EQ(execute(p), ECI_ERR_LUW_TOKEN);
        p.eci_luw_token = 424242;
        EXPECT_EQ(execute(p), ECI_ERR_LUW_TOKEN);
        EXPECT_EQ(eciFlows().size(), 4u);
    }
}

TEST_F(EciSync, ConcurrentCallersEachGetTheirOwnReply) {
    // More callers than the embedded block has slots; the first to call sleeps longest,
    // so the replies come back in an order unlike the requests'.
    constexpr int kThreads = 20;
    std::vector<std::thread> threads;
    std::vector<int> results(kThreads, -999);
    std::vector<Bytes> areas(kThreads);
    std::vector<std::string> expected(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        expected[i] = std::to_string(300 - i * 12) + "|caller " + std::to_string(i) + "|";
        areas[i] = text(expected[i]);
        areas[i].resize(64 + i, static_cast<uint8_t>(i));
        threads.emplace_back([&, i] {
            EciParms p = callParms(ECI_SYNC, "DELAY", areas[i]);
            results[i] = execute(p);
        });
    }
    for (auto& t : threads) t.join();
    for (int i = 0; i < kThreads; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(results[i], ECI_NO_ERROR);
        EXPECT_EQ(std::string(areas[i].begin(), areas[i].begin() + expected[i].size()), expected[i]);
        EXPECT_EQ(areas[i].back(), static_cast<uint8_t>(i));
    }
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), static_cast<size_t>(kThreads));
    std::vector<int32_t> ids;
    for (auto& f : flows) ids.push_back(f.header.messageId);
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::adjacent_find(ids.begin(), ids.end()), ids.end()) << "two requests shared a message id";
    EXPECT_GT(ids.back(), 16);
}

TEST_F(EciSync, ConnectionLostDuringTheCallFailsIt) {
    Bytes area(10, 'x');
    EciParms p = callParms(ECI_SYNC, "GATE", area);
    auto caller = executeLater(&p);
    ASSERT_TRUE(emu.waitForGateWaiters(1, kWaitMs));
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    EXPECT_EQ(caller->join(), std::optional<int>(KVL_ERR_LOSTGWCON));
    EXPECT_EQ(slotState(1), SLOT_FREE);

    // A new request on the lost connection is refused before anything is sent.
    EXPECT_EQ(execute(p), KVL_ERR_LOSTGWCON);
}

TEST_F(EciSync, RefusedCallsSendNothingAndAreUnregistered) {
    TraceCapture trace(1);
    Bytes area(4, 0);
    EciParms p = callParms(ECI_SYNC, "ECHO", area);
    EXPECT_EQ(KVL_ECI_Execute(nullptr, &p), KVL_ERR_NULLGWTOK);
    EXPECT_EQ(KVL_ECI_Execute(token, nullptr), KVL_ERR_NULLECIPOINTER);
    EXPECT_EQ(KVL_ECI_Execute(reinterpret_cast<gwTok>(&area), &p), KVL_ERR_BADGWTOK);
    p.eci_version = 7;
    EXPECT_EQ(execute(p), ECI_ERR_INVALID_VERSION);
    p.eci_version = 5;
    p.eci_call_type = ECI_ASYNC;
    EXPECT_EQ(execute(p), ECI_ERR_INVALID_VERSION);
    EXPECT_EQ(trace.linesWithId(1501).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1502).size(), 1u);

    // A closing connection refuses new requests; a retrieval finds nothing outstanding.
    p.eci_version = 6;
    token->closing = 1;
    EXPECT_EQ(execute(p), KVL_ERR_GWTOK_CLOSED);
    EciParms get = retrievalParms(ECI_GET_REPLY_WAIT, area);
    EXPECT_EQ(execute(get), KVL_ERR_GWTOK_CLOSED);
    token->closing = 0;
    EXPECT_TRUE(traced(trace, 1503, "API.KVL_ECI_Execute() ECI_ASYNC call attempted while connection is closing"));
    EXPECT_TRUE(eciFlows().empty());
}

}  // namespace
