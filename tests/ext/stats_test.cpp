// Statistics of a connection after a known mix of calls, and the histogram they use.
#include "ext_test_util.h"

namespace {

using namespace exttest;

class Statistics : public ExtConnection {};

TEST_F(Statistics, AddUpAfterAKnownMixOfCalls) {
    kvlemu::User user;
    user.userid = "ALICE";
    user.password = "SECRET1";
    emu.addUser(user);
    for (int i = 0; i < 5; ++i) {
        Bytes area = text("echo", 100);
        EciParms p = callParms(ECI_SYNC, "ECHO", area);
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
    }
    for (int i = 0; i < 2; ++i) {
        Bytes area = text("ABCD", 10);
        EciParms p = callParms(ECI_SYNC, "ABEND", area);
        ASSERT_EQ(execute(p), ECI_ERR_TRANSACTION_ABEND);
    }
    {
        Bytes area = text("x", 10);
        EciParms p = callParms(ECI_SYNC, "ECHO", area);
        setField(p.eci_server_name, "NOSUCH");
        ASSERT_EQ(execute(p), ECI_ERR_UNKNOWN_SERVER);
    }
    for (int i = 0; i < 3; ++i) {
        Bytes area = text("async", 20);
        EciParms p = callParms(ECI_ASYNC, "ECHO", area);
        ASSERT_EQ(execute(p), ECI_NO_ERROR);
    }
    for (int i = 0; i < 3; ++i) {
        Bytes area(20);
        EciParms r = retrievalParms(ECI_GET_REPLY_WAIT, area);
        ASSERT_EQ(execute(r), ECI_NO_ERROR);
    }
    esiDetails details;
    ASSERT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "SECRET1", nullptr, &details), 0);
    ASSERT_EQ(KVL_ESI_verifyPassword(token, "ALICE", "WRONG", nullptr, &details), ESI_ERR_PASSWORD_INVALID);
    kvlSystemInfo list[2];
    unsigned short count = 2;
    ASSERT_EQ(KVL_listSystems(token, &count, list), KVL_OK);
    ASSERT_EQ(KVL_EXT_setCallDeadline(token, 100), KVL_OK);
    {
        Bytes area = text("late", 10);
        EciParms p = callParms(ECI_SYNC, "GATE", area);
        ASSERT_EQ(execute(p), ECI_ERR_RESPONSE_TIMEOUT);
        EXPECT_EQ(stats().inFlight, 0u) << "an abandoned request is no longer in flight";
        emu.releaseGate();
        ASSERT_TRUE(waitUntil([&] { return slotsInUse() == 0; }));
    }

    KVL_EXT_Statistics s = stats();
    EXPECT_EQ(s.requestsSent[KVL_EXT_KIND_ECI_SYNC], 9u);
    EXPECT_EQ(s.requestsCompleted[KVL_EXT_KIND_ECI_SYNC], 8u) << "the abandoned call got no reply in time";
    EXPECT_EQ(s.requestsSent[KVL_EXT_KIND_ECI_ASYNC], 3u);
    EXPECT_EQ(s.requestsCompleted[KVL_EXT_KIND_ECI_ASYNC], 3u);
    EXPECT_EQ(s.requestsSent[KVL_EXT_KIND_ESI], 2u);
    EXPECT_EQ(s.requestsCompleted[KVL_EXT_KIND_ESI], 2u);
    EXPECT_EQ(s.requestsSent[KVL_EXT_KIND_LIST], 1u);
    EXPECT_EQ(s.requestsCompleted[KVL_EXT_KIND_LIST], 1u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_PROGRAM], 3u);  // two abends, one unknown server
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_SECURITY], 1u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_DEADLINE], 1u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_CONNECTION], 0u);
    EXPECT_EQ(s.failures[KVL_EXT_FAIL_OTHER], 0u);
    EXPECT_EQ(s.inFlight, 0u);
    EXPECT_GE(s.inFlightMax, 1u);
    EXPECT_LE(s.inFlightMax, 3u);

    // Bytes out are exactly the request flows the Gateway read; bytes in cover
    // at least a header per reply (15 of them, the dropped late one included)
    // and the five echoed COMMAREAs.
    uint64_t requestBytes = 0;
    for (const auto& f : emu.recordedFlows())
        if (f.kind != kvlemu::RecordedFlow::Kind::Handshake && f.kind != kvlemu::RecordedFlow::Kind::Close)
            requestBytes += f.raw.size();
    EXPECT_EQ(s.bytesOut, requestBytes);
    EXPECT_GE(s.bytesIn, 15u * 29u + 5u * 100u);

    EXPECT_GT(s.latencyMaxUs, 0u);
    EXPECT_LE(s.latencyP50Us, s.latencyP90Us);
    EXPECT_LE(s.latencyP90Us, s.latencyP99Us);
    EXPECT_LE(s.latencyP99Us, s.latencyMaxUs);
}

TEST_F(Statistics, ShortRecordGetsOnlyItsFieldsAndBadArgumentsAreRefused) {
    KVL_EXT_Statistics s;
    memset(&s, 0xEE, sizeof s);
    s.size = offsetof(KVL_EXT_Statistics, latencyMaxUs) + sizeof s.latencyMaxUs;
    EXPECT_EQ(KVL_EXT_getStatistics(token, &s), KVL_OK);
    s.size = 8;
    EXPECT_EQ(KVL_EXT_getStatistics(token, &s), KVL_EXT_ERR_BADOPTIONS);
    EXPECT_EQ(KVL_EXT_getStatistics(token, nullptr), KVL_ERR_NULLPTR);
    s.size = sizeof s;
    EXPECT_EQ(KVL_EXT_getStatistics(nullptr, &s), KVL_ERR_NULLGWTOK);
}

TEST(LatencyHistogram, BucketsHoldTheirValuesAndQuantilesPickTheRightOne) {
    // Every value lies at or below the top of its bucket and above the one before.
    for (uint64_t v : {0ull, 1ull, 2ull, 3ull, 5ull, 8ull, 9ull, 10ull, 11ull, 100ull, 999ull, 1000ull, 65535ull,
                       1234567ull, 1ull << 39}) {
        int b = clapiExtLatencyBucket(v);
        EXPECT_LE(v, clapiExtLatencyBucketTop(b)) << v;
        if (b > 0) {
            EXPECT_GT(v, clapiExtLatencyBucketTop(b - 1)) << v;
        }
        EXPECT_LE(clapiExtLatencyBucketTop(b), v + v / 4 + 1) << "resolution of a quarter octave at " << v;
    }
    EXPECT_EQ(clapiExtLatencyBucket(UINT64_MAX), CLAPI_EXT_LATENCY_BUCKETS - 1);

    uint64_t counts[CLAPI_EXT_LATENCY_BUCKETS] = {};
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.5), 0u);
    counts[clapiExtLatencyBucket(100)] = 90;   // 90 fast calls
    counts[clapiExtLatencyBucket(5000)] = 9;   // 9 slower
    counts[clapiExtLatencyBucket(80000)] = 1;  // one very slow
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.50), clapiExtLatencyBucketTop(clapiExtLatencyBucket(100)));
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.90), clapiExtLatencyBucketTop(clapiExtLatencyBucket(100)));
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.91), clapiExtLatencyBucketTop(clapiExtLatencyBucket(5000)));
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.99), clapiExtLatencyBucketTop(clapiExtLatencyBucket(5000)));
    EXPECT_EQ(clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 1.0), clapiExtLatencyBucketTop(clapiExtLatencyBucket(80000)));
}

TEST(FailureClasses, FollowTheCodes) {
    struct Case {
        int rc;
        bool replied;
        int expected;
    } cases[] = {
        {ECI_ERR_RESPONSE_TIMEOUT, false, KVL_EXT_FAIL_DEADLINE},
        {ECI_ERR_RESPONSE_TIMEOUT, true, KVL_EXT_FAIL_PROGRAM},  // the server's own time-out
        {KVL_ERR_LOSTGWCON, false, KVL_EXT_FAIL_CONNECTION},
        {KVL_ERR_GATEWAY_EXCEPTION, true, KVL_EXT_FAIL_CONNECTION},
        {KVL_ERR_INVALID_REQUEST_TYPE, true, KVL_EXT_FAIL_CONNECTION},
        {ECI_ERR_SECURITY_ERROR, true, KVL_EXT_FAIL_SECURITY},
        {-106, true, KVL_EXT_FAIL_SECURITY},  // an ESI reply's code before mapping
        {ECI_ERR_TRANSACTION_ABEND, true, KVL_EXT_FAIL_PROGRAM},
        {KVL_ERR_SYSTEM_ERROR, false, KVL_EXT_FAIL_OTHER},
    };
    for (const auto& c : cases) EXPECT_EQ(clapiExtFailureClass(c.rc, c.replied), c.expected) << c.rc;
}

}  // namespace
