// What the extension API keeps for each connection, embedded at the end of the
// Gateway token: the call deadline, the completion signal and the statistics.
// A token that is zero-filled and value-initialised is a valid empty record.
#pragma once

#include <atomic>
#include <cstdint>

#include "kvl_ext.h"
#include "platform/platform_ext.h"

struct clapiOpenPlan;

// Latency histogram: four buckets per power of two of microseconds, from 1 us
// up to about 2^40 us (12 days), so a quantile is exact to within 19 %.
constexpr int CLAPI_EXT_LATENCY_OCTAVES = 40;
constexpr int CLAPI_EXT_LATENCY_SUBBUCKETS = 4;
constexpr int CLAPI_EXT_LATENCY_BUCKETS = CLAPI_EXT_LATENCY_OCTAVES * CLAPI_EXT_LATENCY_SUBBUCKETS;

// Written with relaxed atomics from the sending threads and the receiver
// thread, read at any time: a reader sees each figure whole, not all of them
// at one instant.
struct clapiExtStats {
    std::atomic<uint64_t> sent[KVL_EXT_KIND_COUNT];
    std::atomic<uint64_t> completed[KVL_EXT_KIND_COUNT];
    std::atomic<uint64_t> failures[KVL_EXT_FAIL_COUNT];
    std::atomic<uint64_t> bytesOut;
    std::atomic<uint64_t> bytesIn;
    std::atomic<uint32_t> inFlight;
    std::atomic<uint32_t> inFlightMax;
    std::atomic<uint64_t> latencyMaxUs;
    std::atomic<uint64_t> latency[CLAPI_EXT_LATENCY_BUCKETS];
};

struct clapiExtConn {
    std::atomic<int32_t> callDeadlineMs;  // 0: none
    // Readable while the async reply queue is non-empty (table lock); created on
    // the first KVL_EXT_getCompletionHandle, closed with the token.
    platformSignal completion;
    int32_t completionCreated;  // table lock
    clapiOpenPlan* openPlan;    // set only while KVL_EXT_openConnection connects the token
    clapiExtStats stats;
};
