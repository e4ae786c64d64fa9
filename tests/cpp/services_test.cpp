// Passwords, the server list, versions and the trace through the C++ interface.
#include "cpp_fixture.h"

#include <cstdio>
#include <fstream>
#include <sstream>

TEST_F(CppTest, PasswordsAreVerifiedAndChanged) {
    emu.addUser({.userid = "ALICE", .password = "OLDPW"});
    kvl::Connection c = connect();
    kvl::SecurityDetails d = c.verify_password("ALICE", "OLDPW");
    EXPECT_TRUE(d.last_verified.has_value());
    struct Case {
        std::string user, password;
        int rc;
    };
    const Case refused[] = {{"ALICE", "WRONG", ESI_ERR_PASSWORD_INVALID}, {"BOB", "X", ESI_ERR_USERID_INVALID}};
    for (const Case& k : refused) EXPECT_EQ(rcOf([&] { c.verify_password(k.user, k.password); }), k.rc) << k.user;
    c.change_password("ALICE", "OLDPW", "NEWPW");
    EXPECT_EQ(emu.user("ALICE")->password, "NEWPW");
    EXPECT_EQ(rcOf([&] { c.verify_password("ALICE", "NEWPW", "NOWHERE"); }), ESI_ERR_UNKNOWN_SERVER);
}

TEST_F(CppTest, SystemListGrowsToTheWholeList) {
    kvl::Connection c = connect();
    auto one = c.systems();
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].name, "EMUSRV");
    EXPECT_EQ(one[0].description, "Gateway emulator server");
    for (int i = 0; i < 40; ++i) emu.addServer({"S" + std::to_string(i), "server " + std::to_string(i), false});
    auto many = c.systems();
    ASSERT_EQ(many.size(), 41u);
    EXPECT_EQ(many[40].name, "S39");
    emu.clearServers();
    EXPECT_TRUE(c.systems().empty());
}

TEST(Library, VersionsAndTrace) {
    EXPECT_FALSE(kvl::api_version().empty());
    EXPECT_FALSE(kvl::dll_version().empty());
    std::string path = testing::TempDir() + "kvl_cpp_trace.txt";
    std::remove(path.c_str());
    kvl::trace::set_file(path);
    kvl::trace::set_level(3);
    EXPECT_EQ(kvl::trace::level(), 3);
    kvl::api_version();
    kvl::trace::set_level(0);
    kvl::trace::set_file("");
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_NE(text.str().find("KVL_getAPIVersion"), std::string::npos);
    int rc = 0;
    try {
        kvl::trace::set_level(6);
    } catch (const kvl::Error& e) {
        rc = e.rc();
    }
    EXPECT_EQ(rc, KVL_ERR_TRACELEVEL);
    EXPECT_EQ(kvl::rc_name(ECI_ERR_TRANSACTION_ABEND), "ECI_ERR_TRANSACTION_ABEND");
}
