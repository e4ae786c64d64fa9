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

// Every code of every table through the whole chain: the first table that knows it names it.
TEST(Names, EveryCodeOfEveryTableThroughTheChain) {
    struct Case {
        int rc;
        const char* name;
    };
    const Case cases[] = {
        // KVL_ table.
        {0, "KVL_OK"}, {-9, "KVL_ERR_SYSTEM_ERROR"}, {-25, "KVL_ERR_MORE_SYSTEMS"}, {-26, "KVL_ERR_NO_SYSTEMS"},
        {-100, "KVL_ERR_NULLGWTOK"}, {-101, "KVL_ERR_BADGWTOK"}, {-102, "KVL_ERR_LOSTGWCON"},
        {-103, "KVL_ERR_NULLPARM"}, {-104, "KVL_ERR_TRACELEVEL"}, {-107, "KVL_ERR_BADPORT"},
        {-108, "KVL_ERR_NULLGWTOKPTR"}, {-109, "KVL_ERR_NULLPTR"}, {-111, "KVL_ERR_MALLOCFAIL"},
        {-118, "KVL_ERR_CONNECTFAILED"}, {-130, "KVL_ERR_TRACEFILE"}, {-132, "KVL_ERR_BADHOST"},
        {-133, "KVL_ERR_NULLADDRESS"}, {-134, "KVL_ERR_CONNECTTIMEOUT"}, {-137, "KVL_ERR_NULLECIPOINTER"},
        {-138, "KVL_ERR_INVALIDTIMEOUTPARM"}, {-139, "KVL_ERR_APPLIDTOOLONG"}, {-140, "KVL_ERR_GWTOK_CLOSED"},
        {61444, "KVL_ERR_GATEWAY_CLOSED"}, {61445, "KVL_ERR_WORK_WAS_REFUSED"},
        {61446, "KVL_ERR_GATEWAY_EXCEPTION"}, {61450, "KVL_ERR_GATEWAY_BACK_LEVEL"},
        {61451, "KVL_ERR_INVALID_REQUEST_TYPE"},
        // ECI table (-9 went to KVL_ above).
        {-1, "ECI_ERR_INVALID_DATA_LENGTH"}, {-2, "ECI_ERR_INVALID_EXTEND_MODE"}, {-3, "ECI_ERR_NO_ORIS"},
        {-4, "ECI_ERR_ORIS_DIED"}, {-5, "ECI_ERR_REQUEST_TIMEOUT"}, {-6, "ECI_ERR_RESPONSE_TIMEOUT"},
        {-7, "ECI_ERR_TRANSACTION_ABEND"}, {-8, "ECI_ERR_LUW_TOKEN"}, {-14, "ECI_ERR_INVALID_CALL_TYPE"},
        {-15, "ECI_ERR_ALREADY_ACTIVE"}, {-16, "ECI_ERR_RESOURCE_SHORTAGE"}, {-17, "ECI_ERR_NO_SESSIONS"},
        {-19, "ECI_ERR_INVALID_DATA_AREA"}, {-21, "ECI_ERR_INVALID_VERSION"}, {-22, "ECI_ERR_UNKNOWN_SERVER"},
        {-27, "ECI_ERR_SECURITY_ERROR"}, {-28, "ECI_ERR_MAX_SYSTEMS"}, {-29, "ECI_ERR_MAX_SESSIONS"},
        {-30, "ECI_ERR_ROLLEDBACK"}, {-32, "ECI_ERR_NO_REPLY"}, {-33, "ECI_ERR_INVALID_MSG_QUAL"},
        // Channel table (0, -1, -9, -109, -111 were named above).
        {-50, "ECI_ERR_INVALID_CHANNEL"}, {-51, "ECI_ERR_INVALID_NAME"}, {-52, "ECI_ERR_NULLCHANNELPTR"},
        {-53, "ECI_ERR_CHANNELLOCKFAIL"}, {-54, "ECI_ERR_ENDOFCONTAINERS"}, {-55, "ECI_ERR_NULLINFOPTR"},
        {-56, "ECI_ERR_INVALID_TYPE"}, {-58, "ECI_ERR_CONTAINER_NOTFOUND"}, {-59, "ECI_ERR_CONTAINER_EXISTS"},
        {-60, "ECI_ERR_COMMAREA_AND_CHANNEL"}, {-121, "ECI_ERR_LOCKFAIL"},
        // ESI codes.
        {-300, "ESI_ERR_USERID_INVALID"}, {-301, "ESI_ERR_NULL_USERID"}, {-302, "ESI_ERR_PASSWORD_INVALID"},
        {-303, "ESI_ERR_NULL_PASSWORD"}, {-304, "ESI_ERR_PEM_NOT_SUPPORTED"}, {-305, "ESI_ERR_PEM_NOT_ACTIVE"},
        {-306, "ESI_ERR_PASSWORD_EXPIRED"}, {-307, "ESI_ERR_SECURITY_ERROR"}, {-308, "ESI_ERR_RESOURCE_SHORTAGE"},
        {-309, "ESI_ERR_NO_SESSIONS"}, {-310, "ESI_ERR_NO_ORIS"}, {-311, "ESI_ERR_ORIS_DIED"},
        {-312, "ESI_ERR_UNKNOWN_SERVER"}, {-313, "ESI_ERR_SYSTEM_ERROR"}, {-314, "ESI_ERR_NULL_NEW_PASSWORD"},
        {-315, "ESI_ERR_PASSWORD_REJECTED"}, {-316, "UNKNOWN"}, {-317, "UNKNOWN"},
        // The Gateway's security codes no earlier table knows are named by the ESI table.
        {-105, "ESI_ERR_PASSWORD_EXPIRED"}, {-106, "ESI_ERR_PASSWORD_INVALID"},
    };
    for (const auto& c : cases) {
        EXPECT_STREQ(clapiRcName(c.rc), c.name) << "rc " << c.rc;
        char buffer[KVL_RC_STRING_LENGTH];
        EXPECT_STREQ(KVL_getRcString(c.rc, buffer), c.name) << "rc " << c.rc;
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
