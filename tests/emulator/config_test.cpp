// The program's configuration file.
#include "emu_fixture.h"
#include "gateway_emulator/config.h"

using namespace emutest;
using namespace kvlemu;

TEST(EmulatorConfig, DirectivesAreParsed) {
    const std::string text = R"(# test setup
listen 0.0.0.0 2006
server ALPHA   First server
secure-server BETA Needs a password   # trailing comment
user ALICE pw1
user BOB pw2 expired revoked reject-new rc=-28
program PAYROLL ECHO
handshake refuse 61450
max-body 4096
)";
    Config c;
    std::string error;
    ASSERT_TRUE(parseConfig(text, c, error)) << error;
    EXPECT_EQ(c.address, "0.0.0.0");
    EXPECT_EQ(c.port, 2006);
    ASSERT_EQ(c.servers.size(), 2u);
    EXPECT_EQ(c.servers[0].name, "ALPHA");
    EXPECT_EQ(c.servers[0].description, "First server");
    EXPECT_FALSE(c.servers[0].checkSecurity);
    EXPECT_EQ(c.servers[1].description, "Needs a password");
    EXPECT_TRUE(c.servers[1].checkSecurity);
    ASSERT_EQ(c.users.size(), 2u);
    EXPECT_FALSE(c.users[0].expired);
    EXPECT_TRUE(c.users[1].expired);
    EXPECT_TRUE(c.users[1].revoked);
    EXPECT_TRUE(c.users[1].rejectNewPassword);
    EXPECT_EQ(c.users[1].forcedRc, -28);
    ASSERT_EQ(c.aliases.size(), 1u);
    EXPECT_EQ(c.aliases[0].second, "ECHO");
    EXPECT_EQ(c.handshake, HandshakeMode::Refuse);
    EXPECT_EQ(c.refuseRc, 61450);
    EXPECT_EQ(c.maxBodyLength, 4096u);
}

TEST(EmulatorConfig, ErrorsNameTheLine) {
    const char* bad[] = {
        "listen 127.0.0.1 70000", "server TOOLONGNAME x", "user ALICE",        "user A p weird",
        "program X NOSUCH",       "handshake sometimes",  "max-body -1",       "frobnicate",
        "user A p rc=abc",        "server",               "listen 127.0.0.1",
    };
    for (const char* line : bad) {
        Config c;
        std::string error;
        EXPECT_FALSE(parseConfig(std::string("# ok\n") + line + "\n", c, error)) << line;
        EXPECT_EQ(error.rfind("line 2:", 0), 0u) << error;
    }
}

TEST_F(EmulatorTest, AppliedConfigurationServesAliasesServersAndUsers) {
    Config c;
    std::string error;
    ASSERT_TRUE(parseConfig("server ONLY The only one\nuser ZED zpw\nprogram PAYROLL SHORT\n", c, error)) << error;
    applyConfig(c, emu);
    auto client1 = client();
    auto reply = roundTrip(*client1, 1, call("PAYROLL", Bytes(10, 1)));
    EXPECT_EQ(reply.count, 5);
    EXPECT_EQ(emu.programCallCount("PAYROLL"), 1u);

    EXPECT_EQ(roundTrip(*client1, 2, listSystems(10)).listParm, 1);
    EXPECT_TRUE(emu.user("ZED").has_value());
}
