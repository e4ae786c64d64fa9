// Channel and container names, and the CCSID of the process's code page.
#include "eci_test_util.h"

using namespace ecitest;

TEST(ChannelNames, AllowedAndRefusedNames) {
    struct Case {
        std::string name;
        int traceId;  // the *EXC* point of a refusal; 0 when the name is valid
    };
    std::vector<Case> cases = {
        {"A", 0}, {"_", 0}, {"a.b-c_d$#", 0}, {"ABCDEFGHIJKLMNOP", 0}, {"QRSTUVWXYZabcdef", 0},
        {"ghijklmnopqrstuv", 0}, {"wxyz0123456789<>", 0}, {"$@#/%&?!:|\"=';.-", 0},
        {"", 1407}, {"ABCDEFGHIJKLMNOPQ", 1402},  // 17 characters
        {"caf\xC3\xA9", 1403}, {"X(1)", 1403},
        {"ABCDEFGHIJKLMNO ", 1403},   // bad 16th character: no length error
        {"ABCDEFGHIJKLMNOP ", 1402},  // the 17th fails on length first
    };
    for (char bad : std::string(" ()*+,[]{}\\^`~")) cases.push_back({std::string("A") + bad + "B", 1403});
    for (const auto& c : cases) {
        TraceCapture trace(1);
        EXPECT_EQ(validateName(c.name.c_str()), c.traceId ? ECI_ERR_INVALID_NAME : ECI_NO_ERROR) << c.name;
        if (c.traceId) {
            EXPECT_EQ(trace.linesWithId(c.traceId).size(), 1u) << c.name;
            EXPECT_EQ(trace.linesWithId(c.traceId == 1402 ? 1403 : 1402).size(), 0u) << c.name;
        } else {
            EXPECT_FALSE(trace.contains("*EXC*")) << c.name;
        }
    }
    TraceCapture trace(1);
    EXPECT_EQ(validateName(nullptr), ECI_ERR_INVALID_NAME);
    EXPECT_EQ(trace.linesWithId(1401).size(), 1u);
}

TEST(ChannelNames, RefusalTracesNameTheLimitAndTheCharacter) {
    TraceCapture trace(1);
    validateName("ABCDEFGHIJKLMNOPQ");
    validateName("X(1)");
    EXPECT_TRUE(tracedAs(trace, 1402, "clapi_channel.validateName() name length exceeds 16"));
    EXPECT_TRUE(tracedAs(trace, 1403, "clapi_channel.validateName() name contains invalid character '('"));
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
    EXPECT_EQ(trace.linesWithId(1440).size(), 1u);
    EXPECT_TRUE(tracedAs(trace, 1441, "clapi_channel.getCurrentCcsid() rc=0, *ccsidPtr=" + std::to_string(ccsid)));
}
