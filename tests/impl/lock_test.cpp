// Locks that know their state, and manual-reset events with inverted names.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "impl/clapi_lock.h"
#include "trace_capture.h"

TEST(Lock, MarkersGuardEveryOperation) {
    kvltest::TraceCapture trace(1);
    clapiLock lock;
    memset(&lock, 0, sizeof lock);
    EXPECT_EQ(clapiRequestLock(&lock), -1);
    EXPECT_EQ(clapiReleaseLock(&lock), -1);
    EXPECT_EQ(clapiDestroyLock(&lock), -1);
    ASSERT_EQ(trace.linesWithId(3104).size(), 1u);
    EXPECT_NE(trace.linesWithId(3104)[0].find("*EXC*  clapi_lock.clapiRequestLock(lockPtr="), std::string::npos);
    EXPECT_NE(trace.linesWithId(3104)[0].find(") Lock not initialized"), std::string::npos);
    EXPECT_EQ(trace.linesWithId(3108).size(), 1u);
    EXPECT_EQ(trace.linesWithId(3112).size(), 1u);

    EXPECT_EQ(clapiInitLock(&lock), 0);
    EXPECT_EQ(clapiInitLock(&lock), 1) << "a second init does nothing";
    EXPECT_EQ(lock.initMarker, 0xFFEEDDCCu);
    EXPECT_EQ(clapiRequestLock(&lock), 0);
    EXPECT_EQ(clapiRequestLock(&lock), 0) << "re-entrant for its owner";
    EXPECT_EQ(clapiReleaseLock(&lock), 0);
    EXPECT_EQ(clapiReleaseLock(&lock), 0);
    EXPECT_EQ(clapiDestroyLock(&lock), 0);
    EXPECT_EQ(lock.initMarker, 0xCCDDEEFFu);
    EXPECT_EQ(clapiRequestLock(&lock), -1);
    EXPECT_EQ(clapiDestroyLock(&lock), -1);
}

TEST(Lock, ExcludesOtherThreads) {
    clapiLock lock{};
    ASSERT_EQ(clapiInitLock(&lock), 0);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                clapiRequestLock(&lock);
                ++counter;
                clapiReleaseLock(&lock);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);
    EXPECT_EQ(clapiDestroyLock(&lock), 0);
}

TEST(Event, NewEventBlocksAndTimedWaitExpires) {
    clapiEvent e = nullptr;
    ASSERT_EQ(clapiCreateEvent(&e), 0);
    uint32_t expired = 7;
    EXPECT_EQ(clapiTimedWaitEvent(&e, 0, &expired), 0) << "timeout 0 polls";
    EXPECT_EQ(expired, 1u);
    expired = 7;
    EXPECT_EQ(clapiTimedWaitEvent(&e, 1, &expired), 0);
    EXPECT_EQ(expired, 1u);
    EXPECT_EQ(clapiDeleteEvent(&e), 0);
}

TEST(Event, ClearReleasesUntilSetAgain) {
    clapiEvent e = nullptr;
    ASSERT_EQ(clapiCreateEvent(&e), 0);
    ASSERT_EQ(clapiClearEvent(&e), 0);
    for (int i = 0; i < 3; ++i) {
        uint32_t expired = 7;
        EXPECT_EQ(clapiTimedWaitEvent(&e, 5, &expired), 0);
        EXPECT_EQ(expired, 0u) << "stays signalled: manual reset";
        EXPECT_EQ(clapiWaitEvent(&e), 0);
    }
    ASSERT_EQ(clapiSetEvent(&e), 0);
    uint32_t expired = 7;
    EXPECT_EQ(clapiTimedWaitEvent(&e, 0, &expired), 0);
    EXPECT_EQ(expired, 1u);
    EXPECT_EQ(clapiDeleteEvent(&e), 0);
}

TEST(Event, OneClearWakesEveryWaiter) {
    clapiEvent e = nullptr;
    ASSERT_EQ(clapiCreateEvent(&e), 0);
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 5; ++i) {
        waiters.emplace_back([&] {
            uint32_t expired = 0;
            // Bounded: a missed wake-up fails the test instead of hanging it.
            if (clapiTimedWaitEvent(&e, 30, &expired) == 0 && expired == 0) ++woken;
        });
    }
    ASSERT_EQ(clapiClearEvent(&e), 0);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(woken.load(), 5);
    EXPECT_EQ(clapiDeleteEvent(&e), 0);
}

TEST(Event, DebugLinesPrintTheHandleFieldAddress) {
    kvltest::TraceCapture trace(4);
    clapiEvent e = nullptr;
    ASSERT_EQ(clapiCreateEvent(&e), 0);
    uint32_t expired = 0;
    clapiTimedWaitEvent(&e, 0, &expired);
    clapiDeleteEvent(&e);
    char expected[128];
    snprintf(expected, sizeof expected, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=%p", (void*)&e);
    ASSERT_EQ(trace.linesWithId(3115).size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(trace.linesWithId(3115)[0]), expected);
    snprintf(expected, sizeof expected,
             "clapi_lock.clapiTimedWaitEvent() Waiting on event, eventPtr=%p, timeout=0, expired=%p", (void*)&e,
             (void*)&expired);
    ASSERT_EQ(trace.linesWithId(3120).size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(trace.linesWithId(3120)[0]), expected);
}
