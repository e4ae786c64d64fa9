// The program itself (Linux): SIGHUP reloads the configuration without dropping
// the connection, a bad file on reload keeps the old one, SIGTERM stops cleanly.
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "client_fixture.h"

#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

extern char** environ;

using namespace emutest;

namespace {

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
}

std::string readFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

std::string replyOf(gwTok token) {
    Bytes area(8, ' ');
    EciParms p = ecitest::callParms(ECI_SYNC, "GETCUST", area);
    if (KVL_ECI_Execute(token, &p) != ECI_NO_ERROR) return "<failed>";
    return std::string(area.begin(), area.begin() + 3);
}

TEST(EmulatorProgram, SighupReloadsKeepingTheConnectionAndSigtermStopsCleanly) {
    const std::string dir = ::testing::TempDir();
    const std::string config = dir + "kvlemu_sighup.conf";
    const std::string portFile = dir + "kvlemu_sighup.port";
    const std::string logFile = dir + "kvlemu_sighup.log";
    std::remove(portFile.c_str());
    writeFile(config, "program GETCUST\n reply \"OLD\"\nend\n");

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string program = KVL_EMULATOR_PROGRAM;
    std::vector<std::string> args = {program, "-c", config, "--port-file", portFile, "-v", "1"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);

    ASSERT_TRUE(ecitest::waitUntil([&] { return readFile(portFile).find('\n') != std::string::npos; }));
    int port = std::stoi(readFile(portFile));
    gwTok token = nullptr;
    ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", port, &token, 10), KVL_OK);
    EXPECT_EQ(replyOf(token), "OLD");

    writeFile(config, "program GETCUST\n reply \"NEW\"\nend\n");
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    EXPECT_TRUE(ecitest::waitUntil([&] { return replyOf(token) == "NEW"; }));

    // A broken file on reload: refused, the running configuration stays.
    writeFile(config, "program GETCUST\n reply \"BROKEN\n");
    ASSERT_EQ(kill(pid, SIGHUP), 0);
    EXPECT_TRUE(ecitest::waitUntil([&] { return readFile(logFile).find("reload refused") != std::string::npos; }));
    EXPECT_EQ(replyOf(token), "NEW");

    EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    int status = 0;
    bool exited = ecitest::waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!exited) kill(pid, SIGKILL), waitpid(pid, &status, 0);
    ASSERT_TRUE(exited);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const std::string log = readFile(logFile);
    EXPECT_NE(log.find("configuration reloaded"), std::string::npos) << log;
    EXPECT_NE(log.find("line 2: quote not closed"), std::string::npos) << log;
    EXPECT_NE(log.find("ECI GETCUST in 8 out 8 rc 0"), std::string::npos) << log;
    EXPECT_NE(log.find("stopped"), std::string::npos) << log;
}

}  // namespace
#endif
