// Names of codes, the TLS query and the trace of the extension functions.
#include "ext_test_util.h"
#include "trace_capture.h"

namespace {

using namespace exttest;

TEST(RcNames, CoverTheExtensionsAndTheLibrary) {
    struct Case {
        int rc;
        const char* name;
    } cases[] = {
        {KVL_EXT_ERR_BADOPTIONS, "KVL_EXT_ERR_BADOPTIONS"}, {KVL_EXT_ERR_NOADDRESS, "KVL_EXT_ERR_NOADDRESS"},
        {KVL_EXT_ERR_TLS_IO, "KVL_EXT_ERR_TLS_IO"},         {KVL_ERR_LOSTGWCON, "KVL_ERR_LOSTGWCON"},
        {ECI_ERR_RESPONSE_TIMEOUT, "ECI_ERR_RESPONSE_TIMEOUT"}, {ESI_ERR_PASSWORD_INVALID, "ESI_ERR_PASSWORD_INVALID"},
        {-999, "UNKNOWN"},
    };
    for (const auto& c : cases) EXPECT_STREQ(KVL_EXT_getRcName(c.rc), c.name) << c.rc;
}

TEST(Tls, ThisBuildSaysWhetherItHasIt) {
    // The build without TLS refuses an open that asks for it (see the open tests).
    EXPECT_EQ(KVL_EXT_tlsAvailable(), clapiTlsAvailable() ? 1 : 0);
}

// Every exported extension function traces its entry and exit, with its name.
TEST(Trace, EveryFunctionEntersAndExits) {
    kvlemu::Emulator emu;
    ASSERT_TRUE(emu.start("127.0.0.1", 0));
    kvltest::TraceCapture trace(3);
    KVL_EXT_ConnectOptions o = optionsFor(emu.port());
    gwTok token = nullptr;
    ASSERT_EQ(KVL_EXT_openConnection(&o, &token), KVL_OK);
    int ms = 0;
    KVL_EXT_Handle h;
    KVL_EXT_Statistics s{};
    s.size = sizeof s;
    char text[8];
    KVL_EXT_setCallDeadline(token, 10);
    KVL_EXT_getCallDeadline(token, &ms);
    KVL_EXT_getCompletionHandle(token, &h);
    KVL_EXT_getStatistics(token, &s);
    KVL_EXT_getLastErrorText(text, sizeof text);
    KVL_EXT_getRcName(0);
    KVL_EXT_tlsAvailable();
    EXPECT_EQ(KVL_closeGatewayConnection(&token), KVL_OK);
    struct Point {
        int entry, exit;
        const char* name;
    } points[] = {
        {9006, 9007, "KVL_EXT_initConnectOptions"}, {9000, 9005, "KVL_EXT_openConnection"},
        {9010, 9012, "KVL_EXT_setCallDeadline"},    {9013, 9015, "KVL_EXT_getCallDeadline"},
        {9020, 9022, "KVL_EXT_getCompletionHandle"}, {9040, 9042, "KVL_EXT_getStatistics"},
        {9030, 9032, "KVL_EXT_getLastErrorText"},   {9050, 9051, "KVL_EXT_getRcName"},
        {9052, 9053, "KVL_EXT_tlsAvailable"},
    };
    for (const auto& p : points) {
        auto entries = trace.linesWithId(p.entry);
        auto exits = trace.linesWithId(p.exit);
        ASSERT_EQ(entries.size(), 1u) << p.name;
        ASSERT_EQ(exits.size(), 1u) << p.name;
        EXPECT_NE(entries[0].find(std::string("API.") + p.name + "("), std::string::npos) << entries[0];
        EXPECT_NE(exits[0].find(std::string("API.") + p.name + "()"), std::string::npos) << exits[0];
    }
    emu.stop();
}

}  // namespace
