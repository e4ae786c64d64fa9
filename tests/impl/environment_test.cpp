// Trace settings taken from the environment when the library is loaded.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "process_env.h"
#include "trace_capture.h"

namespace {
const char* const kVars[] = {"KVL_CLIENT_TRACE_LEVEL", "KVL_CLIENT_TRACE_FILE", "KVL_CLIENT_DATA_LENGTH",
                             "KVL_CLIENT_DATA_OFFSET"};

std::string readFile(const std::string& path) { return kvltest::readText(path); }

class EnvironmentAtLoad : public ::testing::Test {
protected:
    void SetUp() override {
        for (auto v : kVars) kvltest::unsetEnv(v);
        tracePath = kvltest::tempPath("envtrace");
        stderrPath = kvltest::tempPath("envstderr");
    }
    void TearDown() override {
        for (auto v : kVars) kvltest::unsetEnv(v);
        std::error_code ignored;
        std::filesystem::remove(tracePath, ignored);
        std::filesystem::remove(stderrPath, ignored);
    }
    void runChild() { ASSERT_EQ(kvltest::runSibling("kvl_env_child", "2> \"" + stderrPath + "\""), 0); }

    std::string tracePath;
    std::string stderrPath;
};
}  // namespace

TEST_F(EnvironmentAtLoad, LevelAndFileGiveBannerThenLines) {
    kvltest::setEnv("KVL_CLIENT_TRACE_LEVEL", "3");
    kvltest::setEnv("KVL_CLIENT_TRACE_FILE", tracePath);
    runChild();
    std::string trace = readFile(tracePath);
    EXPECT_NE(trace.find("Korvane Quorvex KVLClient DLL trace V9.1.0.4 API Version 2.3.0.0 Build Level KVL9104-"),
              std::string::npos);
    EXPECT_NE(trace.find("*** Trace Level = 3, Trace File = " + tracePath + ", 64-bit ***\n"), std::string::npos);
    EXPECT_NE(trace.find("[1066] ENTRY  clapi_impl.clapiSetAPITraceParamsFromEnv()\n"), std::string::npos);
    EXPECT_NE(trace.find("[1030] *EXC*  API.KVL_getAPIVersion() Supplied pointer is NULL"), std::string::npos);
    EXPECT_NE(trace.find("kvlclient state dump: DLL Version=9.1.0.4 Trace Level=3 clientAPITraceFile=" + tracePath),
              std::string::npos);
    EXPECT_EQ(trace.find("[1077]"), std::string::npos) << "detach is traced at level 4 only";
    // The banner comes first, and only once.
    EXPECT_EQ(trace.rfind("*** ", 0), 0u);
    EXPECT_EQ(trace.find("Korvane Quorvex"), trace.rfind("Korvane Quorvex"));
}

TEST_F(EnvironmentAtLoad, InvalidLevelIsReportedAndLeavesTracingOff) {
    for (const char* bad : {"12", "7", "x", ""}) {
        kvltest::setEnv("KVL_CLIENT_TRACE_LEVEL", bad);
        kvltest::setEnv("KVL_CLIENT_TRACE_FILE", tracePath);
        runChild();
        std::string err = readFile(stderrPath);
        std::string trace = readFile(tracePath);
        if (*bad) {
            EXPECT_NE(err.find(std::string("[1075] *EXC*  clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace "
                                           "environment value ") + bad + " was invalid"),
                      std::string::npos)
                << bad;
        }
        EXPECT_NE(trace.find("Trace Level=0 clientAPITraceFile="), std::string::npos) << bad;
        EXPECT_EQ(trace.find("[1029]"), std::string::npos) << bad;
        std::error_code ignored;
        std::filesystem::remove(tracePath, ignored);
    }
}

TEST_F(EnvironmentAtLoad, DumpLimitsNeedALeadingDigit) {
    kvltest::setEnv("KVL_CLIENT_TRACE_LEVEL", "4");
    kvltest::setEnv("KVL_CLIENT_TRACE_FILE", tracePath);
    kvltest::setEnv("KVL_CLIENT_DATA_LENGTH", "16");
    kvltest::setEnv("KVL_CLIENT_DATA_OFFSET", "x5");
    runChild();
    std::string trace = readFile(tracePath);
    EXPECT_NE(trace.find("Environment variable KVL_CLIENT_DATA_LENGTH=16\n"), std::string::npos);
    EXPECT_NE(trace.find("[1068] DEBUG  clapi_impl.clapiSetAPITraceParamsFromEnv() Data truncation length set to 16\n"),
              std::string::npos);
    EXPECT_NE(trace.find("Environment variable KVL_CLIENT_DATA_OFFSET=x5\n"), std::string::npos);
    EXPECT_EQ(trace.find("[1070]"), std::string::npos);
}

TEST_F(EnvironmentAtLoad, UnopenableFileKeepsStandardError) {
    kvltest::setEnv("KVL_CLIENT_TRACE_LEVEL", "1");
    kvltest::setEnv("KVL_CLIENT_TRACE_FILE", tracePath + "/no/such/dir/trace.txt");
    runChild();
    std::string err = readFile(stderrPath);
    EXPECT_NE(err.find("[1074] *EXC*  clapi_impl.clapiSetAPITraceFileFromEnv("), std::string::npos);
    EXPECT_NE(err.find("Trace file destination is unchanged. Filename=stderr"), std::string::npos);
    EXPECT_NE(err.find("*** Trace Level = 1, Trace File = stderr, 64-bit ***"), std::string::npos);
}
