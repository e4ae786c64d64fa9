// Opening and ending connections, and what a failure says.
#include "cpp_fixture.h"

#include <type_traits>

TEST_F(CppTest, ConnectionIsMoveOnlyAndClosesInItsDestructor) {
    static_assert(!std::is_copy_constructible_v<kvl::Connection>);
    static_assert(std::is_nothrow_move_constructible_v<kvl::Connection>);
    {
        kvl::Connection first = connect();
        kvl::Connection second = std::move(first);
        EXPECT_FALSE(first.is_open());
        EXPECT_TRUE(second.is_open());
        EXPECT_EQ(kvl::to_string(second.call("ECHO", "after move").data), "after move");
        EXPECT_EQ(rcOf([&] { first.call("ECHO", "x"); }), KVL_ERR_NULLGWTOK);
    }
    EXPECT_TRUE(emu.waitForConnectionClosed(0, 10000));
}

TEST_F(CppTest, CloseAndPurgeEndTheConnectionOnce) {
    kvl::Connection a = connect();
    a.close();
    EXPECT_FALSE(a.is_open());
    EXPECT_EQ(rcOf([&] { a.close(); }), KVL_ERR_NULLGWTOK);
    kvl::Connection b = connect();
    b.purge(0);
    EXPECT_FALSE(b.is_open());
    EXPECT_TRUE(emu.waitForConnectionClosed(1, 10000));
}

TEST_F(CppTest, ApplidAndQualifierComeBack) {
    kvl::Connection c("127.0.0.1", emu.port(), 10, "APPL1", "QUAL1");
    EXPECT_EQ(c.applid(), "APPL1");
    EXPECT_EQ(c.applid_qualifier(), "QUAL1");
}

TEST_F(CppTest, OpenFailuresCarryCodeNameAndCategory) {
    struct Case {
        std::string host;
        int port;
        std::string applid;
        int rc;
        const char* name;
    };
    const Case cases[] = {
        {"127.0.0.1", 0, "", KVL_ERR_BADPORT, "KVL_ERR_BADPORT"},
        {"127.0.0.1", 70000, "", KVL_ERR_BADPORT, "KVL_ERR_BADPORT"},
        {"127.0.0.1", 1, "NINECHARS", KVL_ERR_APPLIDTOOLONG, "KVL_ERR_APPLIDTOOLONG"},
    };
    for (const Case& c : cases) {
        try {
            kvl::Connection conn(c.host, c.port, 5, c.applid);
            ADD_FAILURE() << "opened " << c.port;
        } catch (const kvl::Error& e) {
            EXPECT_EQ(e.rc(), c.rc);
            EXPECT_EQ(e.name(), c.name);
            EXPECT_EQ(e.code().category().name(), std::string("kvlclient"));
            EXPECT_NE(std::string(e.what()).find(c.name), std::string::npos) << e.what();
        }
    }
}

TEST_F(CppTest, ErrorCodeOverloadsDoNotThrow) {
    std::error_code ec;
    emu.stop();  // nothing listens there now
    auto none = kvl::Connection::open("127.0.0.1", emu.port(), ec, 5);
    EXPECT_FALSE(none.has_value());
    EXPECT_EQ(ec.value(), KVL_ERR_CONNECTFAILED);
    EXPECT_EQ(ec, kvl::make_error_code(KVL_ERR_CONNECTFAILED));
    EXPECT_EQ(ec.message(), "KVL_ERR_CONNECTFAILED");

    ASSERT_TRUE(emu.start("127.0.0.1", 0));
    auto conn = kvl::Connection::open("127.0.0.1", emu.port(), ec, 5);
    ASSERT_TRUE(conn.has_value());
    EXPECT_FALSE(ec);
    kvl::Bytes data = kvl::to_bytes("abc");
    kvl::Reply r = conn->call("ABEND", data, {}, ec);
    EXPECT_EQ(ec.value(), ECI_ERR_TRANSACTION_ABEND);
    r = conn->call("ECHO", data, {}, ec);
    EXPECT_FALSE(ec);
    EXPECT_EQ(kvl::to_string(r.data), "abc");
}
