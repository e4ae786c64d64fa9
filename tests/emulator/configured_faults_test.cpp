// Faults from the configuration, configuration errors, reload under traffic,
// record and replay, and the system's text for a port in use.
#include <atomic>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "client_fixture.h"
#include "gateway_emulator/recording.h"

using namespace emutest;

namespace {

// A connection of its own for a case that may break it.
struct Link {
    explicit Link(uint16_t port) { ok = KVL_openRemoteGatewayConnection("127.0.0.1", port, &token, 10) == KVL_OK; }
    ~Link() {
        if (token) KVL_purgeGatewayConnection(&token, 0);
    }
    gwTok token = nullptr;
    bool ok = false;
};

TEST_F(ConfiguredEmulator, EachFaultKindFromTheConfigurationReachesTheClient) {
    struct Case {
        const char* desc;
        bool callSucceeds;
        bool connectionEnds;
    } cases[] = {
        {"ping-storm 50", true, false},
        {"delay 100", true, false},
        {"exception \"file closed\"", false, false},
        {"error 61446", false, false},
        {"drop", false, true},
        {"close", false, true},
        {"garbage", false, true},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.desc);
        const std::string program = "FLT" + std::to_string(n++);
        configure("program " + program + " ECHO\nfault " + c.desc + " on " + program + " times 1\n");
        Link link(emu.port());
        ASSERT_TRUE(link.ok);
        const size_t connection = emu.connectionCount() - 1;
        auto start = std::chrono::steady_clock::now();
        Answer a = callOn(link.token, program, "hello");
        EXPECT_EQ(a.rc == ECI_NO_ERROR, c.callSucceeds) << a.rc;
        if (c.callSucceeds) {
            EXPECT_EQ(a.area.substr(0, 5), "hello");
        }
        if (std::string(c.desc).rfind("delay", 0) == 0) {
            EXPECT_GE(msSince(start), 100);
        }
        if (c.connectionEnds) {
            EXPECT_TRUE(emu.waitForConnectionClosed(static_cast<int>(connection), ecitest::kWaitMs));
        } else {
            // The fault was spent (times 1): the next call on the same connection works.
            EXPECT_EQ(callOn(link.token, program, "again").rc, ECI_NO_ERROR);
        }
    }
}

TEST_F(ConfiguredEmulator, NthAndProbabilityChooseTheRequestsHit) {
    configure(R"(
program NTH ECHO
program NEVER ECHO
program ALWAYS ECHO
fault exception "third" on NTH nth 3
fault exception "never" on NEVER probability 0
fault exception "always" on ALWAYS probability 100%
)");
    std::string nth;
    for (int i = 0; i < 5; ++i) nth += call("NTH", "x").rc == ECI_NO_ERROR ? '.' : 'X';
    EXPECT_EQ(nth, "..X..");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(call("NEVER", "x").rc, ECI_NO_ERROR);
        EXPECT_NE(call("ALWAYS", "x").rc, ECI_NO_ERROR);
    }
}

TEST(EmulatorConfigErrors, EveryMistakeNamesItsLine) {
    struct Case {
        const char* text;
        int line;
        const char* says;
    } cases[] = {
        {"program A\n reply \"open\nend\n", 2, "quote not closed"},
        {"program A\n reply hex:ABC\nend\n", 2, "even number"},
        {"program A\n reply hex:GG\nend\n", 2, "not hex"},
        {"program A\n reply file:/no/such/file\nend\n", 2, "cannot read"},
        {"program A\n reply plain\nend\n", 2, "data expected"},
        {"program A\n delay 9-3\nend\n", 2, "MIN-MAX"},
        {"program A\n abend TOOLONG\nend\n", 2, "abend code"},
        {"program A\n frob 1\nend\n", 2, "unknown program setting 'frob'"},
        {"program A\n when prefix \"x\" reply \"y\"\nend\n", 2, "when prefix"},
        {"program A\n when at x \"y\" then reply \"z\"\nend\n", 2, "offset"},
        {"program A\n when prefix \"x\" then\nend\n", 2, "nothing after 'then'"},
        {"# comment\n\nprogram A\n reply \"x\"\n", 3, "no 'end'"},
        {"program A\nprogram B\nend\n", 2, "'end' missing"},
        {"end\n", 1, "outside a program"},
        {"server A x\nfault explode\n", 2, "unknown fault 'explode'"},
        {"fault drop on\n", 1, "needs a value"},
        {"fault drop nth 0\n", 1, "'nth' needs a number"},
        {"fault drop probability 2\n", 1, "probability"},
        {"fault delay\n", 1, "milliseconds"},
        {"fault drop sometimes 3\n", 1, "unexpected 'sometimes'"},
        {"seed x\n", 1, "seed"},
    };
    for (const auto& c : cases) {
        kvlemu::Config config;
        std::string error;
        EXPECT_FALSE(kvlemu::parseConfig(c.text, config, error)) << c.text;
        EXPECT_EQ(error.rfind("line " + std::to_string(c.line) + ": ", 0), 0u) << c.text << " -> " << error;
        EXPECT_NE(error.find(c.says), std::string::npos) << c.text << " -> " << error;
    }
}

TEST_F(ConfiguredEmulator, ReloadUnderTrafficKeepsConnectionsAndSwitchesAnswers) {
    auto setupOf = [&](const std::string& text) {
        kvlemu::Config c;
        std::string error;
        EXPECT_TRUE(kvlemu::parseConfig(text, c, error)) << error;
        return kvlemu::setupFromConfig(c, emu);
    };
    emu.reconfigure(setupOf("program GETCUST\n reply \"OLD\"\nend\n"));
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0}, calls{0};
    std::thread traffic([&] {
        while (!stop) {
            Answer a = call("GETCUST", "", 8);
            if (a.rc != ECI_NO_ERROR || (a.area.substr(0, 3) != "OLD" && a.area.substr(0, 3) != "NEW")) ++failures;
            ++calls;
        }
    });
    for (int i = 0; i < 20; ++i) {
        emu.reconfigure(setupOf(std::string("program GETCUST\n reply \"") + (i % 2 ? "OLD" : "NEW") + "\"\nend\n"));
        ASSERT_TRUE(ecitest::waitUntil([&, target = calls.load() + 3] { return calls >= target; }));
    }
    stop = true;
    traffic.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(emu.connectionCount(), 1u);  // never reconnected
    EXPECT_EQ(emu.openConnectionCount(), 1u);
    EXPECT_EQ(call("GETCUST", "", 8).area.substr(0, 3), "OLD");
}

TEST_F(ConfiguredEmulator, RecordingReplayedGivesTheSameReplies) {
    const std::string path = ::testing::TempDir() + "kvlemu_recording.txt";
    auto recorder = std::make_shared<kvlemu::Recorder>();
    std::string error;
    ASSERT_TRUE(recorder->open(path, error)) << error;
    emu.setFlowTap(kvlemu::Recorder::tapOf(recorder));
    configure(R"(
secure-server EMUSRV Checks passwords
user CLERK s3cret
program GETCUST
    when at 4 "0001" then reply "GET 0001Alice"
    when prefix "BAD" then abend CNF9
    reply "NOTFOUND"
end
)");
    const char* requests[] = {"GET 0001", "GET 0002", "BAD", "GET 0001"};
    std::vector<Answer> live;
    for (const char* r : requests) {
        Bytes area(32, ' ');
        std::copy_n(r, strlen(r), area.begin());
        EciParms p = ecitest::callParms(ECI_SYNC, "GETCUST", area);
        ecitest::setField(p.eci_userid, "CLERK");
        ecitest::setField(p.eci_password, "s3cret");
        Answer a;
        a.rc = KVL_ECI_Execute(token, &p);
        a.abend = kvlemu::wire::fieldText(std::string(p.eci_abend, 4));
        a.area.assign(area.begin(), area.end());
        live.push_back(a);
    }
    emu.setFlowTap(nullptr);
    recorder.reset();

    std::ifstream in(path, std::ios::binary);
    std::stringstream file;
    file << in.rdbuf();
    EXPECT_EQ(file.str().find("s3cret"), std::string::npos);
    const auto masked = kvlemu::wire::mask("s3cret");
    EXPECT_EQ(file.str().find(std::string(masked.begin(), masked.end())), std::string::npos);

    std::shared_ptr<kvlemu::ReplayBook> book;
    size_t exchanges = 0;
    ASSERT_TRUE(kvlemu::loadReplay(path, book, exchanges, error)) << error;
    EXPECT_EQ(exchanges, 4u);

    // A second emulator that knows nothing of GETCUST, its server or its users.
    kvlemu::Emulator replayer;
    replayer.setReplySource(kvlemu::replySourceOf(book));
    ASSERT_TRUE(replayer.start("127.0.0.1", 0));
    Link link(replayer.port());
    ASSERT_TRUE(link.ok);
    for (size_t i = 0; i < live.size(); ++i) {
        SCOPED_TRACE(requests[i]);
        Answer a = callOn(link.token, "GETCUST", requests[i], 32);
        EXPECT_EQ(a.rc, live[i].rc);
        EXPECT_EQ(a.abend, live[i].abend);
        EXPECT_EQ(a.area, live[i].area);
    }
    EXPECT_EQ(replayer.programCallCount("GETCUST"), 0u);
    replayer.stop();
    std::remove(path.c_str());
}

TEST(EmulatorRecordingFormat, BadFilesNameTheLine) {
    struct Case {
        const char* text;
        const char* error;
    } cases[] = {
        {"# kvl\n  4761\n", "line 2: bytes before the first flow line"},
        {"in 0.1 conn 0 REQUEST\n  47ZZ\n", "line 2: 'Z' is not a hex digit"},
        {"in 0.1 conn 0 REQUEST\n  476\n", "line 2: odd number"},
        {"sideways 0.1 conn 0\n", "line 1: expected: in|out"},
    };
    for (const auto& c : cases) {
        std::shared_ptr<kvlemu::ReplayBook> book;
        size_t n = 0;
        std::string error;
        EXPECT_FALSE(kvlemu::parseReplay(c.text, book, n, error));
        EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    }
}

TEST(EmulatorPlatformText, PortInUseSaysSoInTheSystemsWords) {
    kvlemu::Emulator first, second;
    ASSERT_TRUE(first.start("127.0.0.1", 0));
    EXPECT_FALSE(second.start("127.0.0.1", first.port()));
#ifdef _WIN32
    // The system's own sentence; never a bare number.
    EXPECT_EQ(second.lastError().find(", error "), std::string::npos) << second.lastError();
    EXPECT_NE(second.lastError().find("(error 10048)"), std::string::npos) << second.lastError();
#else
    EXPECT_NE(second.lastError().find("address already in use"), std::string::npos) << second.lastError();
#endif
}

}  // namespace
