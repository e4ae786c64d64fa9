// verifyEciParms: the order of its checks, their codes and their trace points.
#include "eci_test_util.h"

using namespace ecitest;

TEST(VerifyEciParms, ChecksInOrder) {
    // One row per block: the fields that matter, the caller's minimum version, the
    // expected code and the *EXC* trace point of the refusal (0 when the block passes).
    struct Case {
        const char* what;
        short callType, version, extendMode;
        bool withCommarea;
        short length, inbound, outbound, timeout;
        int minVersion, rc, traceId;
    };
    // clang-format off
    const Case cases[] = {
        {"valid sync, version 3",          1, 3, 0, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"version 7",                      1, 7, 0, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_VERSION, 1549},
        {"version below the minimum",      1, 3, 0, false,  0,  0,  0,  0, 4, ECI_ERR_INVALID_VERSION, 1549},
        {"version before call type",       0, 2, 0, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_VERSION, 1549},
        {"call type 0 before lengths",     0, 3, 0, false, -1,  0,  0,  0, 3, ECI_ERR_INVALID_CALL_TYPE, 1550},
        {"call type 7",                    7, 6, 0, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_CALL_TYPE, 1550},
        {"async at version 3",             2, 3, 0, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_VERSION, 1552},
        {"get reply at version 5",         3, 5, 0, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_VERSION, 1552},
        {"async at version 6",             2, 6, 0, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"sync, extend mode 1",            1, 3, 1, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"sync, extend mode 2",            1, 3, 2, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"sync, extend mode 4",            1, 3, 4, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"sync, extend mode 3",            1, 3, 3, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_EXTEND_MODE, 1553},
        {"sync, extend mode 5",            1, 3, 5, false,  0,  0,  0,  0, 3, ECI_ERR_INVALID_EXTEND_MODE, 1553},
        {"async, extend mode 65535",       2, 6, -1, false, 0,  0,  0,  0, 3, ECI_ERR_INVALID_EXTEND_MODE, 1553},
        {"get reply ignores extend mode",  3, 6, 3, false,  0,  0,  0,  0, 3, ECI_NO_ERROR, 0},
        {"commarea length first",          1, 3, 0, false, -1, -1,  0,  0, 3, ECI_ERR_INVALID_DATA_LENGTH, 1554},
        {"then inbound",                   1, 3, 0, false,  0, -1, -1,  0, 3, ECI_ERR_INVALID_DATA_LENGTH, 1555},
        {"then outbound",                  1, 3, 0, false,  0,  0, -5,  0, 3, ECI_ERR_INVALID_DATA_LENGTH, 1556},
        {"null commarea with length 10",   1, 3, 0, false, 10,  0,  0, -1, 3, ECI_ERR_INVALID_DATA_AREA, 1557},
        {"commarea with length 0",         1, 3, 0, true,   0,  0,  0,  0, 3, ECI_ERR_INVALID_DATA_AREA, 1558},
        {"lengths beyond the commarea",    1, 3, 0, true,  16, 400, 400, 0, 3, ECI_NO_ERROR, 0},
        {"timeout -1",                     1, 3, 0, false,  0,  0,  0, -1, 3, ECI_ERR_REQUEST_TIMEOUT, 1559},
    };
    // clang-format on
    const int exceptionIds[] = {1549, 1550, 1552, 1553, 1554, 1555, 1556, 1557, 1558, 1559};
    char commarea[16] = {};
    for (const auto& c : cases) {
        EciParms p{};
        p.eci_call_type = c.callType;
        p.eci_version = c.version;
        p.eci_extend_mode = c.extendMode;
        p.eci_commarea = c.withCommarea ? commarea : nullptr;
        p.eci_commarea_length = c.length;
        p.commarea_inbound_length = c.inbound;
        p.commarea_outbound_length = c.outbound;
        p.eci_timeout = c.timeout;
        p.eci_luw_token = -1;
        EciParms before = p;
        TraceCapture trace(1);
        EXPECT_EQ(verifyEciParms(&p, c.minVersion), c.rc) << c.what;
        EXPECT_EQ(memcmp(&before, &p, sizeof p), 0) << c.what << ": the block was modified";
        for (int id : exceptionIds) {
            EXPECT_EQ(trace.linesWithId(id).size(), id == c.traceId ? 1u : 0u) << c.what << ", trace point " << id;
        }
    }
}

TEST(VerifyEciParms, TraceTexts) {
    TraceCapture trace(4);
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 3;
    p.eci_commarea_length = 10;
    EXPECT_EQ(verifyEciParms(&p, 3), ECI_ERR_INVALID_DATA_AREA);
    p.eci_commarea_length = 0;
    p.eci_extend_mode = -1;
    EXPECT_EQ(verifyEciParms(&p, 3), ECI_ERR_INVALID_EXTEND_MODE);
    char address[32];
    snprintf(address, sizeof address, "%p", static_cast<void*>(&p));
    auto message = [&](int id, size_t n = 0) { return kvltest::traceMessage(trace.linesWithId(id).at(n)); };
    EXPECT_EQ(message(1548), "clapi_eci.verifyEciParms(EciParms=" + std::string(address) + ", minVersion=3)");
    EXPECT_EQ(message(1551), "clapi_eci.verifyEciParms() Call type is ECI_SYNC");
    // The trailing blank of 1557 is part of the message.
    EXPECT_EQ(message(1557), "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=" + std::string(address) +
                                 ", Commarea NULL but eci_commarea_length=10 ");
    EXPECT_EQ(message(1553), "clapi_eci.verifyEciParms() Invalid Extend Mode, EciParms=" + std::string(address) +
                                 ", eci_extend_mode=-1");
    EXPECT_EQ(message(1560, 0), "clapi_eci.verifyEciParms() rc=-19 (ECI_ERR_INVALID_DATA_AREA)");
    EXPECT_EQ(message(1560, 1), "clapi_eci.verifyEciParms() rc=-2 (ECI_ERR_INVALID_EXTEND_MODE)");
}
