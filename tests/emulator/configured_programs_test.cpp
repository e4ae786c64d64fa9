// Programs defined in the configuration, called through the client library.
#include <cstdio>
#include <fstream>

#include "client_fixture.h"

using namespace emutest;

namespace {

const char* const kCustomer = R"(
program GETCUST
    when at 4 "0001" then reply "GET 0001Alice"
    when at 4 "0002" then reply hex:47455420303030324279 length 10
    when prefix "BAD" then abend CNF9
    when prefix "RC" then rc -9
    reply "NOTFOUND"
end
program FIXED
    reply "fixed\x21"
end
)";

TEST_F(ConfiguredEmulator, RulesChooseTheReplyInOrderAndTheDefaultAnswersTheRest) {
    configure(kCustomer);
    struct Case {
        const char* program;
        const char* request;
        int rc;
        const char* abend;
        std::string areaStart;
    } cases[] = {
        {"GETCUST", "GET 0001", ECI_NO_ERROR, "", "GET 0001Alice   "},           // rest of the COMMAREA kept
        {"GETCUST", "GET 0002", ECI_NO_ERROR, "", std::string("GET 0002By\0\0", 12)},  // 10 bytes back
        {"GETCUST", "BAD 0009", ECI_ERR_TRANSACTION_ABEND, "CNF9", "BAD 0009"},  // echoed
        {"GETCUST", "RC", ECI_ERR_SYSTEM_ERROR, "", "RC"},
        {"GETCUST", "GET 0003", ECI_NO_ERROR, "", "NOTFOUND  "},
        {"FIXED", "anything", ECI_NO_ERROR, "", "fixed!ng"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.program) + " " + c.request);
        Answer a = call(c.program, c.request);
        EXPECT_EQ(a.rc, c.rc);
        EXPECT_EQ(a.abend, c.abend);
        EXPECT_EQ(a.area.substr(0, c.areaStart.size()), c.areaStart);
    }
    EXPECT_EQ(emu.programCallCount("GETCUST"), 5u);
}

TEST_F(ConfiguredEmulator, ReplyFromAFileIsCutToTheCommarea) {
    const std::string path = ::testing::TempDir() + "kvlemu_blob.bin";
    {
        std::ofstream f(path, std::ios::binary);
        f << std::string(100, 'Z');
    }
    configure("program BLOB\n reply file:" + path + "\nend\n");
    Answer a = call("BLOB", "", 40);
    EXPECT_EQ(a.rc, ECI_NO_ERROR);
    EXPECT_EQ(a.area, std::string(40, 'Z'));
    std::remove(path.c_str());
}

TEST_F(ConfiguredEmulator, DelayedReplyHoldsNoThreadAndOthersPassIt) {
    configure("program SLOW\n delay 400\n reply \"late\"\nend\nprogram RANDOM\n delay 50-80\nend\n");
    Bytes slowArea(16, ' ');
    EciParms slow = ecitest::callParms(ECI_SYNC, "SLOW", slowArea);
    auto start = std::chrono::steady_clock::now();
    auto pending = executeLater(&slow);
    ASSERT_TRUE(emu.waitForProgramCalls("SLOW", 1, ecitest::kWaitMs));
    // Same connection, while SLOW's reply waits for its timer.
    EXPECT_EQ(call("ECHO", "fast").rc, ECI_NO_ERROR);
    EXPECT_TRUE(pending->blocked());
    EXPECT_EQ(pending->join(), ECI_NO_ERROR);
    EXPECT_GE(msSince(start), 400);
    EXPECT_EQ(std::string(slowArea.begin(), slowArea.begin() + 4), "late");

    auto t = std::chrono::steady_clock::now();
    EXPECT_EQ(call("RANDOM", "r").rc, ECI_NO_ERROR);
    EXPECT_GE(msSince(t), 50);
}

TEST_F(ConfiguredEmulator, ChannelProgramAnswersByContainer) {
    configure(R"(
program CUSTCHAN
    when container CUSTNO "0001" then container CUSTREC "Alice" delete WORK
    when container CUSTNO then bit-container CUSTREC hex:00FF
    container STATUS "NO NUMBER"
end
)");
    struct Case {
        const char* custno;  // nullptr: no CUSTNO container
        std::string record;
        const char* status;
        bool workKept;
    } cases[] = {
        {"0001", "Alice", "<missing>", false},
        {"0002", std::string("\0\xFF", 2), "<missing>", true},
        {nullptr, "<missing>", "NO NUMBER", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.custno ? c.custno : "none");
        chanTok ch = nullptr;
        ASSERT_EQ(ECI_createChannel("CUSTOMER", &ch), ECI_NO_ERROR);
        if (c.custno) {
            ASSERT_EQ(ECI_createContainer(ch, "CUSTNO", ECI_CHAR, 0, c.custno, 4), ECI_NO_ERROR);
        }
        ASSERT_EQ(ECI_createContainer(ch, "WORK", ECI_BIT, 0, "w", 1), ECI_NO_ERROR);
        Bytes none;
        EciParms p = ecitest::callParms(ECI_SYNC, "CUSTCHAN", none);
        p.eci_channel = ch;
        ASSERT_EQ(KVL_ECI_Execute_Channel(token, &p), ECI_NO_ERROR);
        auto dataOf = [&](const char* name) -> std::string {
            EciContainerInfo info;
            if (ECI_getContainerInfo(ch, name, &info) != ECI_NO_ERROR) return "<missing>";
            std::string out(static_cast<size_t>(info.dataLength), '\0');
            size_t read = 0;
            ECI_getContainerData(ch, name, out.data(), out.size(), 0, &read);
            out.resize(read);
            return out;
        };
        EXPECT_EQ(dataOf("CUSTREC"), c.record);
        EXPECT_EQ(dataOf("STATUS"), c.status);
        EXPECT_EQ(dataOf("WORK") != "<missing>", c.workKept);
        ECI_deleteChannel(&ch);
    }
}

TEST_F(ConfiguredEmulator, UnitsOfWorkCommitAndBackOutAroundConfiguredPrograms) {
    configure("program ADDCUST\n when prefix \"BAD\" then abend NAME\n reply \"ADDED\"\nend\n");
    // Two calls in one unit of work, then commit.
    Answer first = call("ADDCUST", "C1", 16, ECI_EXTENDED);
    ASSERT_EQ(first.rc, ECI_NO_ERROR);
    ASSERT_NE(first.luwToken, 0);
    EXPECT_EQ(call("ADDCUST", "C2", 16, ECI_EXTENDED, first.luwToken).rc, ECI_NO_ERROR);
    EXPECT_EQ(call("", "", 0, ECI_COMMIT, first.luwToken).rc, ECI_NO_ERROR);
    // A unit of work backed out by the client, and one ended by the program's abend.
    Answer second = call("ADDCUST", "C3", 16, ECI_EXTENDED);
    EXPECT_EQ(call("", "", 0, ECI_BACKOUT, second.luwToken).rc, ECI_NO_ERROR);
    Answer third = call("ADDCUST", "C4", 16, ECI_EXTENDED);
    Answer failed = call("ADDCUST", "BAD", 16, ECI_EXTENDED, third.luwToken);
    EXPECT_EQ(failed.rc, ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(failed.abend, "NAME");
    // The backed-out unit of work is gone: committing it is refused.
    EXPECT_EQ(call("", "", 0, ECI_COMMIT, third.luwToken).rc, ECI_ERR_LUW_TOKEN);

    using K = kvlemu::LuwEvent::Kind;
    std::vector<K> kinds;
    for (const auto& e : emu.luwEvents()) kinds.push_back(e.kind);
    EXPECT_EQ(kinds, (std::vector<K>{K::Opened, K::Committed, K::Opened, K::BackedOut, K::Opened, K::BackedOut}));
}

TEST_F(ConfiguredEmulator, ExternalCommandGetsTheRequestAndWritesTheReply) {
#ifdef _WIN32
    // `more` copies its input: what comes back went through the command.
    const char* setup = "program UPPER\n command more\nend\nprogram FAILS\n command cmd /c exit 3\nend\n";
    const char* expected = "customer";
#else
    const char* setup = "program UPPER\n command tr a-z A-Z\nend\nprogram FAILS\n command exit 3\nend\n";
    const char* expected = "CUSTOMER";
#endif
    configure(setup);
    Answer a = call("UPPER", "customer", 8);
    EXPECT_EQ(a.rc, ECI_NO_ERROR);
    EXPECT_EQ(a.area, expected);
    Answer f = call("FAILS", "x", 8);
    EXPECT_EQ(f.rc, ECI_ERR_TRANSACTION_ABEND);
    EXPECT_EQ(f.abend, "CMDF");
}

}  // namespace
