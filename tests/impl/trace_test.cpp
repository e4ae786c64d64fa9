// Trace lines, levels, destinations and the banner.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <regex>
#include <string>

#include "impl/clapi_trace.h"
#include "impl/clapi_tracestate.h"
#include "kvlclient.h"
#include "trace_capture.h"

using kvltest::TraceCapture;

TEST(TraceLine, PrefixShapeAndExactMessage) {
    TraceCapture trace(3);
    EXPECT_EQ(KVL_getAPITraceLevel(nullptr), KVL_ERR_NULLPTR);
    auto lines = trace.lines();
    // Two banner lines, then ENTRY, *EXC*, EXIT of the call.
    ASSERT_GE(lines.size(), 5u);
    const std::regex prefix(R"(^\d\d/\d\d/\d\d \d\d:\d\d:\d\d:\d\d\d \[0x[0-9A-F]{8},0x[0-9A-F]{8}\] \[\d{4}\] .{6} )");
    auto entry = trace.linesWithId(1035);
    auto exc = trace.linesWithId(1036);
    auto exit = trace.linesWithId(1037);
    ASSERT_EQ(entry.size(), 1u);
    ASSERT_EQ(exc.size(), 1u);
    ASSERT_EQ(exit.size(), 1u);
    for (const auto& l : {entry[0], exc[0], exit[0]}) EXPECT_TRUE(std::regex_search(l, prefix)) << l;
    EXPECT_EQ(entry[0].substr(53, 7), "ENTRY  ");
    EXPECT_EQ(exc[0].substr(53, 7), "*EXC*  ");
    EXPECT_EQ(exit[0].substr(53, 7), "EXIT   ");
    EXPECT_EQ(kvltest::traceMessage(entry[0]), "API.KVL_getAPITraceLevel(traceStatePtr=" + std::string(
                                                   [] { char b[32]; snprintf(b, sizeof b, "%p", (void*)nullptr); return std::string(b); }()) + ")");
    EXPECT_EQ(kvltest::traceMessage(exit[0]), "API.KVL_getAPITraceLevel() rc=-109 (KVL_ERR_NULLPTR)");
}

TEST(TraceLine, LevelsAdmitTheirTypesOnly) {
    TraceCapture trace(2);
    CLAPI_TRACE(EXC, 9001, "exc %d\n", 1);
    CLAPI_TRACE(EVENT, 9002, "event\n");
    CLAPI_TRACE(ENTRY, 9003, "entry\n");
    CLAPI_TRACE(EXIT, 9004, "exit\n");
    CLAPI_TRACE(DEBUG, 9005, "debug\n");
    unsigned char data[4] = {1, 2, 3, 4};
    CLAPI_TRACE_DATA(9006, data, sizeof data, "data\n");
    EXPECT_EQ(trace.linesWithId(9001).size(), 1u);
    EXPECT_EQ(trace.linesWithId(9002).size(), 1u);
    EXPECT_TRUE(trace.linesWithId(9003).empty());
    EXPECT_TRUE(trace.linesWithId(9004).empty());
    EXPECT_TRUE(trace.linesWithId(9005).empty());
    EXPECT_TRUE(trace.linesWithId(9006).empty());
    ASSERT_EQ(KVL_setAPITraceLevel(5), KVL_OK);
    CLAPI_TRACE(DEBUG, 9005, "debug\n");
    CLAPI_TRACE_DATA(9006, data, sizeof data, "data\n");
    EXPECT_EQ(trace.linesWithId(9005).size(), 1u);
    EXPECT_EQ(trace.linesWithId(9006).size(), 1u);
}

TEST(TraceLine, ArgumentsAreNotEvaluatedWhenTheLevelIsOff) {
    TraceCapture trace(0);
    int calls = 0;
    auto sideEffect = [&] { return ++calls; };
    CLAPI_TRACE(EXC, 9010, "%d\n", sideEffect());
    CLAPI_TRACE_DATA(9011, nullptr, (size_t)sideEffect(), "x\n");
    EXPECT_EQ(calls, 0);
    ASSERT_EQ(KVL_setAPITraceLevel(1), KVL_OK);
    CLAPI_TRACE(EXC, 9010, "%d\n", sideEffect());
    EXPECT_EQ(calls, 1);
}

TEST(TraceLevel, RangeIsCheckedAndLevelKept) {
    TraceCapture trace(1);
    int level = -1;
    EXPECT_EQ(KVL_setAPITraceLevel(6), KVL_ERR_TRACELEVEL);
    EXPECT_EQ(KVL_setAPITraceLevel(-1), KVL_ERR_TRACELEVEL);
    ASSERT_EQ(KVL_getAPITraceLevel(&level), KVL_OK);
    EXPECT_EQ(level, 1);
    EXPECT_EQ(trace.linesWithId(1039).size(), 2u);
    EXPECT_EQ(kvltest::traceMessage(trace.linesWithId(1039)[1]),
              "API.KVL_setAPITraceLevel() Supplied trace state value -1 was invalid");
    EXPECT_EQ(KVL_setAPITraceLevel(0), KVL_OK);
    ASSERT_EQ(KVL_getAPITraceLevel(&level), KVL_OK);
    EXPECT_EQ(level, 0);
}

TEST(TraceFile, BannerOncePerDestination) {
    TraceCapture trace(1);
    auto lines = trace.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(\*\*\* \d\d/\d\d/\d\d Korvane Quorvex KVLClient DLL trace V9\.1\.0\.4 API Version 2\.3\.0\.0 Build Level [A-Za-z0-9-]+ \*\*\*)")))
        << lines[0];
    EXPECT_EQ(lines[1], "*** Trace Level = 0, Trace File = " + trace.path() + ", 64-bit ***")
        << "the level call writes the banner before the new level takes effect";
    EXPECT_EQ(trace.text().find("Korvane"), trace.text().rfind("Korvane"));
}

TEST(TraceFile, SwitchingRulesAndCodes) {
    TraceCapture trace(4);
    // NULL while already on a file switches back to standard error; again, nothing changes.
    std::string second = kvltest::tempPath("kvltrace2");
    ASSERT_EQ(KVL_setAPITraceFile(second.c_str()), KVL_OK);
    EXPECT_EQ(std::string(clapiTraceFileName()), second);
    // A name that cannot be opened keeps the current file.
    std::string bad = second + "/missing/dir/file";
    EXPECT_EQ(KVL_setAPITraceFile(bad.c_str()), KVL_ERR_TRACEFILE);
    EXPECT_EQ(std::string(clapiTraceFileName()), second);
    // A name longer than the 1023-character buffer is refused.
    std::string tooLong(1024, 'a');
    EXPECT_EQ(KVL_setAPITraceFile(tooLong.c_str()), KVL_ERR_TRACEFILE);
    EXPECT_EQ(std::string(clapiTraceFileName()), second);
    ASSERT_EQ(KVL_setAPITraceFile(nullptr), KVL_OK);
    EXPECT_STREQ(clapiTraceFileName(), "stderr");
    clapiTraceResetForTest();

    kvltest::TraceCapture reread(4);
    (void)reread;
    std::string text = kvltest::readText(second);
    // The second file got its banner, the two failures and the switch back.
    EXPECT_NE(text.find("*** Trace Level = 4, Trace File = " + second + ", 64-bit ***"), std::string::npos);
    EXPECT_NE(text.find("API.KVL_setAPITraceFile(" + bad + ") file append failed with errno="), std::string::npos);
    EXPECT_NE(text.find(". Trace file destination is unchanged. Filename=" + second), std::string::npos);
    char enametoolong[64];
    snprintf(enametoolong, sizeof enametoolong, "file append failed with errno=%d.", ENAMETOOLONG);
    EXPECT_NE(text.find(enametoolong), std::string::npos);
    EXPECT_NE(text.find("API.KVL_setAPITraceFile() rc=-130 (KVL_ERR_TRACEFILE) New trace destination=" + second),
              std::string::npos);
    std::error_code ignored;
    std::filesystem::remove(second, ignored);
}

TEST(TraceFile, NullOnStandardErrorIsUnchanged) {
    clapiTraceResetForTest();
    ASSERT_EQ(KVL_setAPITraceFile(nullptr), KVL_OK);
    EXPECT_STREQ(clapiTraceFileName(), "stderr");
}

TEST(TraceDump, StateDumpIsWrittenAtLevelZero) {
    TraceCapture trace(0);
    EXPECT_EQ(KVL_dumpState(), KVL_OK);
    EXPECT_TRUE(trace.contains("kvlclient state dump: DLL Version=9.1.0.4 Trace Level=0 clientAPITraceFile=" +
                               trace.path() + "\n"));
}
