// Channel and container names, and the CCSID of the process's code page.
#include <gtest/gtest.h>

#include <string>

#include "eci/clapi_channel.h"
#include "platform/platform.h"
#include "trace_capture.h"

using kvltest::TraceCapture;

TEST(ChannelNames, AllowedAndRefusedNames) {
    struct Case {
        const char* name;
        int rc;
        int traceId;  // the *EXC* point of a refusal
    };
    const Case cases[] = {
        {"A", ECI_NO_ERROR, 0},
        {"a.b-c_d$#", ECI_NO_ERROR, 0},
        {"ABCDEFGHIJKLMNOP", ECI_NO_ERROR, 0},  // 16 characters
        {"QRSTUVWXYZabcdef", ECI_NO_ERROR, 0},
        {"ghijklmnopqrstuv", ECI_NO_ERROR, 0},
        {"wxyz0123456789<>", ECI_NO_ERROR, 0},
        {"$@#/%&?!:|\"=';.-", ECI_NO_ERROR, 0},
        {"_", ECI_NO_ERROR, 0},
        {nullptr, ECI_ERR_INVALID_NAME, 1401},
        {"", ECI_ERR_INVALID_NAME, 1407},
        {"ABCDEFGHIJKLMNOPQ", ECI_ERR_INVALID_NAME, 1402},  // 17 characters
        {"MY NAME", ECI_ERR_INVALID_NAME, 1403},
        {"X(1)", ECI_ERR_INVALID_NAME, 1403},
        {"A*", ECI_ERR_INVALID_NAME, 1403},
        {"A+B", ECI_ERR_INVALID_NAME, 1403},
        {"A,B", ECI_ERR_INVALID_NAME, 1403},
        {"[A]", ECI_ERR_INVALID_NAME, 1403},
        {"{A}", ECI_ERR_INVALID_NAME, 1403},
        {"A\\B", ECI_ERR_INVALID_NAME, 1403},
        {"A^B", ECI_ERR_INVALID_NAME, 1403},
        {"A`B", ECI_ERR_INVALID_NAME, 1403},
        {"A~B", ECI_ERR_INVALID_NAME, 1403},
        {"caf\xC3\xA9", ECI_ERR_INVALID_NAME, 1403},
        {"ABCDEFGHIJKLMNO ", ECI_ERR_INVALID_NAME, 1403},   // bad 16th character: no length error
        {"ABCDEFGHIJKLMNOP ", ECI_ERR_INVALID_NAME, 1402},  // the 17th fails on length first
    };
    for (const auto& c : cases) {
        TraceCapture trace(1);
        std::string shown = c.name ? c.name : "NULL";
        EXPECT_EQ(validateName(c.name), c.rc) << shown;
        if (c.traceId) {
            EXPECT_EQ(trace.linesWithId(c.traceId).size(), 1u) << shown;
            EXPECT_EQ(trace.linesWithId(c.traceId == 1402 ? 1403 : 1402).size(), 0u) << shown;
        } else {
            EXPECT_FALSE(trace.contains("*EXC*")) << shown;
        }
    }
}

TEST(ChannelNames, RefusalTracesNameTheLimitAndTheCharacter) {
    TraceCapture trace(1);
    validateName("ABCDEFGHIJKLMNOPQ");
    validateName("X(1)");
    auto length = trace.linesWithId(1402);
    auto character = trace.linesWithId(1403);
    ASSERT_EQ(length.size(), 1u);
    ASSERT_EQ(character.size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(length[0]), "clapi_channel.validateName() name length exceeds 16");
    EXPECT_EQ(kvltest::traceMessage(character[0]), "clapi_channel.validateName() name contains invalid character '('");
}

TEST(ChannelCcsid, CodePageMapping) {
    const std::pair<int, int> cases[] = {{1252, 5348}, {1250, 5346}, {1257, 5353}, {932, 943},   {936, 1386},
                                         {949, 1363},  {437, 437},   {1249, 1249}, {1258, 1258}, {1208, 1208}};
    for (const auto& [codePage, ccsid] : cases) EXPECT_EQ(clapiCcsidForCodePage(codePage), ccsid) << codePage;
}

TEST(ChannelCcsid, CurrentCcsidFollowsTheProcessCodePage) {
    TraceCapture trace(4);
    int ccsid = -1;
    EXPECT_EQ(getCurrentCcsid(&ccsid), 0);
    EXPECT_EQ(ccsid, clapiCcsidForCodePage(platformAnsiCodePage()));
    ASSERT_EQ(trace.linesWithId(1440).size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(trace.linesWithId(1441).at(0)),
              "clapi_channel.getCurrentCcsid() rc=0, *ccsidPtr=" + std::to_string(ccsid));
}
