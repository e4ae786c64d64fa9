// Channels as values, and calls with them.
#include "cpp_fixture.h"

#include <chrono>
#include <type_traits>

using namespace std::chrono_literals;

static std::vector<std::string> names(const kvl::Channel& ch) {
    std::vector<std::string> out;
    for (const kvl::ContainerInfo& c : ch.containers()) out.push_back(c.name);
    return out;
}

TEST(Channel, ContainersHoldBytesAndTextWithTheirCcsid) {
    kvl::Channel ch("ORDERS");
    EXPECT_EQ(ch.name(), "ORDERS");
    const unsigned char raw[] = {0, 1, 2, 0xff};
    ch.set_bytes("RAW", raw);
    ch.set_text("NOTE", "caf\xc3\xa9", 1208);
    ch.set_text("PLAIN", "x", 37);
    EXPECT_EQ(ch.bytes("RAW"), kvl::Bytes(raw, raw + 4));
    EXPECT_EQ(ch.text("NOTE"), "caf\xc3\xa9");
    EXPECT_EQ(ch.info("NOTE").ccsid, 1208);
    EXPECT_EQ(ch.info("NOTE").type, kvl::ContainerType::character);
    EXPECT_EQ(ch.info("RAW").type, kvl::ContainerType::bit);
    EXPECT_EQ(ch.info("RAW").size, 4u);
    EXPECT_EQ(names(ch), (std::vector<std::string>{"RAW", "NOTE", "PLAIN"}));

    ch.set_text("NOTE", "replaced", 1208);  // same type: data replaced in place
    ch.set_bytes("PLAIN", raw);             // other type: the container is made again
    EXPECT_EQ(ch.text("NOTE"), "replaced");
    EXPECT_EQ(ch.info("PLAIN").type, kvl::ContainerType::bit);
    ch.set_bytes("EMPTY", {});
    EXPECT_TRUE(ch.bytes("EMPTY").empty());

    ch.erase("RAW");
    EXPECT_FALSE(ch.contains("RAW"));
    int rc = 0;
    try {
        ch.bytes("RAW");
    } catch (const kvl::Error& e) {
        rc = e.rc();
    }
    EXPECT_EQ(rc, ECI_ERR_CONTAINER_NOTFOUND);
}

TEST(Channel, CopiesAreDeepAndMovesTakeOver) {
    static_assert(std::is_copy_constructible_v<kvl::Channel>);
    kvl::Channel a("A");
    a.set_text("ONE", "1");
    a.set_text("TWO", "2");
    kvl::Channel b = a;
    b.set_text("ONE", "changed");
    b.erase("TWO");
    EXPECT_EQ(a.text("ONE"), "1");
    EXPECT_TRUE(a.contains("TWO"));
    EXPECT_EQ(names(b), std::vector<std::string>{"ONE"});
    kvl::Channel c = std::move(a);
    EXPECT_EQ(names(c), (std::vector<std::string>{"ONE", "TWO"}));
    c = b;
    EXPECT_EQ(c.text("ONE"), "changed");
}

TEST(Channel, BadNamesAreRefused) {
    struct Case {
        std::string name;
        int rc;
    };
    const Case cases[] = {{"", KVL_CPP_ERR_BADFIELD}, {std::string(17, 'N'), KVL_CPP_ERR_BADFIELD},
                          {"HAS BLANK", ECI_ERR_INVALID_NAME}};
    for (const Case& k : cases) {
        int channelRc = 0, containerRc = 0;
        try {
            kvl::Channel ch(k.name);
        } catch (const kvl::Error& e) {
            channelRc = e.rc();
        }
        try {
            kvl::Channel ch("OK");
            ch.set_text(k.name, "x");
        } catch (const kvl::Error& e) {
            containerRc = e.rc();
        }
        EXPECT_EQ(channelRc, k.rc) << k.name;
        EXPECT_EQ(containerRc, k.rc) << k.name;
    }
}

TEST_F(CppTest, ChannelCallsApplyTheReply) {
    kvl::Connection c = connect();
    kvl::Channel ch("WORK");
    ch.set_text("EMUCTL", "ADD NEWONE hello;MOD KEEP changed;DEL GONE");
    ch.set_text("KEEP", "old");
    ch.set_text("GONE", "bye");
    c.call("CHANCTL", ch);
    EXPECT_EQ(ch.text("NEWONE"), "hello");
    EXPECT_EQ(ch.text("KEEP"), "changed");
    EXPECT_FALSE(ch.contains("GONE"));

    kvl::Channel async("ASYNC");
    async.set_text("DATA", "round trip");
    auto f = c.call_async("CHANECHO", async);
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    kvl::Channel back = f.get();
    EXPECT_EQ(back.text("DATA"), "round trip");

    kvl::Unit u = c.begin_unit();
    u.call("CHANECHO", back);
    u.commit();
    EXPECT_EQ(emu.luwEvents().back().kind, kvlemu::LuwEvent::Kind::Committed);
}
