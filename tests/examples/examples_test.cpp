// Every example program, run against an emulator configured like the demo's.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "gateway_emulator/config.h"
#include "gateway_emulator/emulator.h"
#include "process_env.h"

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ExampleCase {
    const char* program;
    const char* extraArguments;  // after HOST PORT; nullptr: the program takes none
    std::vector<std::string> expected;
};

class ExamplesTest : public ::testing::TestWithParam<ExampleCase> {
protected:
    void SetUp() override {
        kvlemu::Config config;
        std::string error;
        ASSERT_TRUE(kvlemu::parseConfig(readFile("demo-gateway.conf"), config, error)) << error;
        kvlemu::applyConfig(config, emu);
        ASSERT_TRUE(emu.start("127.0.0.1", 0));
    }
    kvlemu::Emulator emu;
};

TEST_P(ExamplesTest, RunsAndPrintsWhatTheGuideShows) {
    const ExampleCase& c = GetParam();
    std::string output = std::string(c.program) + ".out";
    std::string arguments;
    if (c.extraArguments) arguments = "127.0.0.1 " + std::to_string(emu.port()) + " " + c.extraArguments;
    int status = kvltest::runSibling(c.program, arguments + " > " + output + " 2>&1");
    std::string printed = readFile(output);
    EXPECT_EQ(status, 0) << printed;
    for (const std::string& line : c.expected) EXPECT_NE(printed.find(line), std::string::npos) << line << "\n" << printed;
}

const ExampleCase kCases[] = {
    {"kvl_versions_example", nullptr, {"kvlclient DLL version 9.1.0.4, API version 2.3.0.0", "rc   -102 = KVL_ERR_LOSTGWCON"}},
    {"kvl_connection_example", "", {"connected with applid \"DEMOAPP\", qualifier \"DEMOQUAL\"", "close: rc=0 (KVL_OK), token now NULL"}},
    {"kvl_eci_example", "",
     {"reply: \"Hello from the ECI example\"", "ECI_GET_REPLY_WAIT: rc=0 (KVL_OK)", "LUW token 4097",
      "commit of the unit of work (extend mode 2): rc=0"}},
    {"kvl_channel_example", "", {"synchronous channel call to CHANCTL: rc=0", "RESULT", "the server added this"}},
    {"kvl_security_example", "DEMOUSER SECRET1",
     {"verify DEMOUSER with the right password: rc=0 (KVL_OK)",
      "verify DEMOUSER with a wrong password: rc=-302 (ESI_ERR_PASSWORD_INVALID)",
      "list of servers (room for 2): rc=-25 (KVL_ERR_MORE_SYSTEMS), the Gateway knows 3", "EMUSRV2"}},
    {"kvl_tracing_example", "example-trace.txt",
     {"API.KVL_ECI_Execute(gwTok=", "API.KVL_ECI_Execute() rc=0 (KVL_OK)", "API.KVL_closeGatewayConnection"}},
    {"kvl_errors_example", "",
     {"open with port 0: rc=-107 (KVL_ERR_BADPORT)", "ECI_SYNC with eci_version 2: rc=-21 (ECI_ERR_INVALID_VERSION)",
      "ABEND: rc=-7 (ECI_ERR_TRANSACTION_ABEND), abend code oops",
      "unknown server: rc=-22 (ECI_ERR_UNKNOWN_SERVER)", "after close: rc=-100 (KVL_ERR_NULLGWTOK)"}},
    {"kvl_threads_example", "", {"4 threads, 5 calls each on one connection: 0 failed"}},
};

INSTANTIATE_TEST_SUITE_P(All, ExamplesTest, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<ExampleCase>& info) {
                             std::string name = info.param.program;
                             return name.substr(4, name.size() - 4 - 8);  // kvl_NAME_example
                         });

}  // namespace
