// Program calls, the fields the wrapper checks, units of work and many threads.
#include "cpp_fixture.h"

#include <atomic>
#include <thread>
#include <vector>

using Kind = kvlemu::LuwEvent::Kind;

TEST_F(CppTest, CallsReturnTheReplySizedAsAsked) {
    kvl::Connection c = connect();
    struct Case {
        const char* program;
        std::string data;
        kvl::CallOptions options;
        std::string expected;  // the reply bytes
    };
    const Case cases[] = {
        {"ECHO", "hello", {}, "hello"},
        {"ECHO", "hello", {.commarea_length = 8}, std::string("hello\0\0\0", 8)},
        {"ECHO", "hello", {.reply_length = 3}, "hel"},
        {"SHORT", "abcdefgh", {}, std::string("abcd\0\0\0\0", 8)},
        {"ECHO", "", {.commarea_length = 4}, std::string(4, '\0')},
    };
    for (const Case& k : cases) {
        kvl::Reply r = c.call(k.program, k.data, k.options);
        EXPECT_EQ(kvl::to_string(r.data), k.expected) << k.program << " " << k.data;
        EXPECT_EQ(r.abend, "");
    }
}

TEST_F(CppTest, OptionsReachTheServerPadded) {
    emu.addServer({"SRV2", "second", false});
    kvl::Connection c = connect();
    kvl::CallOptions o{.server = "SRV2", .transaction = "TX1", .user = "alice", .password = "secret"};
    c.call("ECHO", "x", o);
    std::string server, tran, user, password;
    emu.registerProgram("SPY", [&](const kvlemu::ProgramCall& call) {
        server = call.server, tran = call.tranId, user = call.userid, password = call.password;
        return kvlemu::ProgramResult::echo(call);
    });
    c.call("SPY", "x", o);
    EXPECT_EQ(server, "SRV2");
    EXPECT_EQ(tran, "TX1");
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(password, "secret");
}

TEST_F(CppTest, FieldsThatDoNotFitAreRefusedBeforeSending) {
    kvl::Connection c = connect();
    ASSERT_TRUE(emu.waitForFlows(1, 10000));  // the handshake
    size_t flows = emu.flowCount();
    struct Case {
        const char* what;
        std::string program;
        kvl::CallOptions options;
        std::string data;
    };
    const Case cases[] = {
        {"program of 9", "PROGRAM99", {}, "x"},
        {"empty program", "", {}, "x"},
        {"server of 9", "ECHO", {.server = "SERVER999"}, "x"},
        {"transaction of 5", "ECHO", {.transaction = "TRAN5"}, "x"},
        {"user of 17", "ECHO", {.user = std::string(17, 'u')}, "x"},
        {"password of 17", "ECHO", {.password = std::string(17, 'p')}, "x"},
        {"commarea too big", "ECHO", {}, std::string(32768, 'c')},
        {"negative reply length", "ECHO", {.reply_length = -1}, "x"},
        {"timeout too big", "ECHO", {.timeout = 40000}, "x"},
    };
    for (const Case& k : cases) {
        try {
            c.call(k.program, k.data, k.options);
            ADD_FAILURE() << k.what << " was accepted";
        } catch (const kvl::Error& e) {
            EXPECT_EQ(e.rc(), KVL_CPP_ERR_BADFIELD) << k.what;
            EXPECT_EQ(e.name(), "KVL_CPP_ERR_BADFIELD");
            EXPECT_EQ(std::string(e.what()).find(std::string(17, 'p')), std::string::npos) << "password shown";
        }
    }
    EXPECT_EQ(emu.flowCount(), flows);
    // Names of exactly the field's width are fine.
    EXPECT_EQ(kvl::to_string(c.call("ECHO", "ok", {.transaction = "TRN4"}).data), "ok");
}

TEST_F(CppTest, ServerFailuresBecomeErrorsWithTheirAbend) {
    kvl::Connection c = connect();
    struct Case {
        const char* program;
        kvl::CallOptions options;
        int rc;
        const char* abend;
    };
    const Case cases[] = {
        {"ABEND", {}, ECI_ERR_TRANSACTION_ABEND, "AB12"},
        {"NOSUCH", {}, ECI_ERR_TRANSACTION_ABEND, "NOPG"},
        {"ECHO", {.server = "NOWHERE"}, ECI_ERR_UNKNOWN_SERVER, ""},
    };
    for (const Case& k : cases) {
        try {
            c.call(k.program, "AB12", k.options);
            ADD_FAILURE() << k.program;
        } catch (const kvl::Error& e) {
            EXPECT_EQ(e.rc(), k.rc) << k.program;
            EXPECT_EQ(e.abend(), k.abend) << k.program;
        }
    }
}

TEST_F(CppTest, UnitsOfWorkCommitBackOutAndBackOutOnException) {
    kvl::Connection c = connect();
    {
        kvl::Unit u = c.begin_unit();
        kvl::Reply first = u.call("LUW", std::string(20, ' '));
        EXPECT_NE(u.token(), 0);
        EXPECT_NE(kvl::to_string(first.data).find("CALL 1"), std::string::npos);
        EXPECT_NE(kvl::to_string(u.call("LUW", std::string(20, ' ')).data).find("CALL 2"), std::string::npos);
        u.commit();
        EXPECT_FALSE(u.open());
    }
    {
        kvl::Unit u = c.begin_unit();
        u.call("LUW", "x");
        u.backout();
    }
    try {
        kvl::Unit u = c.begin_unit();
        u.call("LUW", "x");
        throw std::runtime_error("application failure mid-unit");
    } catch (const std::runtime_error&) {
    }
    {
        kvl::Unit unused = c.begin_unit();  // no call: nothing is sent at its end
    }
    std::vector<Kind> kinds;
    for (const auto& e : emu.luwEvents()) kinds.push_back(e.kind);
    EXPECT_EQ(kinds, (std::vector<Kind>{Kind::Opened, Kind::Committed, Kind::Opened, Kind::BackedOut, Kind::Opened,
                                        Kind::BackedOut}));
}

TEST_F(CppTest, AFailingProgramEndsTheUnit) {
    kvl::Connection c = connect();
    kvl::Unit u = c.begin_unit();
    u.call("LUW", "x");
    EXPECT_EQ(rcOf([&] { u.call("ABEND", "ABCD"); }), ECI_ERR_TRANSACTION_ABEND);
    EXPECT_FALSE(u.open());
    EXPECT_EQ(rcOf([&] { u.call("LUW", "x"); }), ECI_ERR_ROLLEDBACK);
    EXPECT_EQ(rcOf([&] { u.commit(); }), ECI_ERR_ROLLEDBACK);
}

TEST_F(CppTest, ManyThreadsShareOneConnection) {
    kvl::Connection c = connect();
    constexpr int kThreads = 8, kCalls = 40;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                std::string mine = "thread " + std::to_string(t) + " call " + std::to_string(i);
                try {
                    if (i % 10 == 0) {
                        kvl::Unit u = c.begin_unit();
                        u.call("LUW", std::string(30, ' '));
                        u.commit();
                        ++good;
                    } else if (kvl::to_string(c.call("ECHO", mine).data) == mine) {
                        ++good;
                    }
                } catch (const kvl::Error&) {
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(good.load(), kThreads * kCalls);
}
