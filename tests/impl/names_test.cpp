// Return-code names, versions and the request correlator.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "impl/clapi_impl.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvlclient.h"
#include "trace_capture.h"

extern "C" int kvlHeadersC99EciParmsSize(void);
extern "C" int kvlHeadersC99EsiDetailsSize(void);

TEST(Names, LookupChainPrecedenceAndFallThrough) {
    struct Case {
        int rc;
        const char* name;
    };
    const Case cases[] = {
        {0, "KVL_OK"},                                // KVL_ wins over ECI_NO_ERROR
        {-9, "KVL_ERR_SYSTEM_ERROR"},                 // KVL_ wins over ECI_ERR_SYSTEM_ERROR
        {-109, "KVL_ERR_NULLPTR"},                    // and over ECI_ERR_NULLPTR
        {-111, "KVL_ERR_MALLOCFAIL"},                 // and over ECI_ERR_MEMORY_SHORTAGE
        {61444, "KVL_ERR_GATEWAY_CLOSED"},
        {61451, "KVL_ERR_INVALID_REQUEST_TYPE"},
        {-1, "ECI_ERR_INVALID_DATA_LENGTH"},          // ECI table
        {-33, "ECI_ERR_INVALID_MSG_QUAL"},
        {-28, "ECI_ERR_MAX_SYSTEMS"},                 // ECI before ESI
        {-54, "ECI_ERR_ENDOFCONTAINERS"},             // ECI falls back to the channel table
        {-121, "ECI_ERR_LOCKFAIL"},
        {-300, "ESI_ERR_USERID_INVALID"},             // both ECI tables unknown: ESI
        {-315, "ESI_ERR_PASSWORD_REJECTED"},
        {-316, "UNKNOWN"},                            // mapped ESI code without a name
        {-20, "UNKNOWN"},                             // gap in the ECI table
        {12345, "UNKNOWN"},
    };
    for (const auto& c : cases) {
        char buffer[KVL_RC_STRING_LENGTH];
        memset(buffer, 'x', sizeof buffer);
        EXPECT_EQ(KVL_getRcString(c.rc, buffer), buffer);
        EXPECT_STREQ(buffer, c.name) << "rc " << c.rc;
        // The copy fills the whole 40 bytes with zeros after the name.
        for (size_t i = strlen(c.name); i < sizeof buffer; ++i) ASSERT_EQ(buffer[i], '\0') << c.rc;
    }
}

TEST(Names, TableFunctionsAnswerOnTheirOwn) {
    EXPECT_STREQ(clapiEciRcName(-9), "ECI_ERR_SYSTEM_ERROR");
    EXPECT_STREQ(clapiEciRcName(0), "ECI_NO_ERROR");
    EXPECT_STREQ(clapiEciRcName(-20), "UNKNOWN");
    EXPECT_STREQ(clapiChannelRcName(-2), "UNKNOWN");
    EXPECT_STREQ(clapiEsiRcName(-29), "ESI_ERR_MAX_SESSIONS");
    EXPECT_STREQ(clapiEsiRcName(-317), "UNKNOWN");
    EXPECT_EQ(clapiKvlRcName(-1), nullptr);
    EXPECT_STREQ(clapiEciCallTypeName(ECI_GET_SPECIFIC_REPLY_WAIT), "ECI_GET_SPECIFIC_REPLY_WAIT");
    EXPECT_STREQ(clapiEciCallTypeName(7), "UNKNOWN");
    EXPECT_STREQ(clapiEciCallTypeName(0), "UNKNOWN");
}

TEST(Names, NullBufferReturnsNullAndTracesNull) {
    kvltest::TraceCapture trace(3);
    EXPECT_EQ(KVL_getRcString(0, nullptr), nullptr);
    auto exits = trace.linesWithId(1063);
    ASSERT_EQ(exits.size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(exits[0]), "API.KVL_getRcString() rcString=NULL");
}

TEST(Versions, StaticStringsAndNullPointer) {
    char* api1 = nullptr;
    char* api2 = nullptr;
    char* dll = nullptr;
    EXPECT_EQ(KVL_getAPIVersion(nullptr), KVL_ERR_NULLPTR);
    EXPECT_EQ(KVL_getDLLVersion(nullptr), KVL_ERR_NULLPTR);
    ASSERT_EQ(KVL_getAPIVersion(&api1), KVL_OK);
    ASSERT_EQ(KVL_getAPIVersion(&api2), KVL_OK);
    ASSERT_EQ(KVL_getDLLVersion(&dll), KVL_OK);
    EXPECT_STREQ(api1, "2.3.0.0");
    EXPECT_STREQ(dll, "9.1.0.4");
    EXPECT_EQ(api1, api2);
}

TEST(Versions, NullPointerIsTracedAtLevelOne) {
    kvltest::TraceCapture trace(1);
    EXPECT_EQ(KVL_getDLLVersion(nullptr), KVL_ERR_NULLPTR);
    auto exc = trace.linesWithId(1033);
    ASSERT_EQ(exc.size(), 1u);
    EXPECT_NE(exc[0].find("*EXC*  API.KVL_getDLLVersion() Supplied pointer is NULL, dllVersPtr="), std::string::npos);
    EXPECT_TRUE(trace.linesWithId(1034).empty()) << "EXIT lines start at level 3";
}

TEST(Correlator, StartsAtOneAndSkipsZeroOnWrap) {
    clapiSetCorrelatorForTest(0);
    EXPECT_EQ(getNextCorrelator(), 1u);
    EXPECT_EQ(getNextCorrelator(), 2u);
    clapiSetCorrelatorForTest(0xFFFFFFFFu);
    EXPECT_EQ(getNextCorrelator(), 0xFFFFFFFFu);
    EXPECT_EQ(getNextCorrelator(), 1u);
    EXPECT_EQ(getNextCorrelator(), 2u);
}

TEST(Headers, PublicRecordsHaveTheirAbiSizes) {
    EXPECT_EQ(kvlHeadersC99EciParmsSize(), 128);
    EXPECT_EQ(static_cast<size_t>(kvlHeadersC99EsiDetailsSize()), sizeof(esiDetails));
    EXPECT_EQ(sizeof(esiDetails), 3 * 7 * sizeof(int) + sizeof(int));
}
