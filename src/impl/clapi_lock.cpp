// Locks that know whether they were initialised, and manual-reset events.
#include "impl/clapi_lock.h"

#include "impl/clapi_trace.h"

int clapiInitLock(clapiLock* lockPtr) {
    if (lockPtr->initMarker == CLAPI_LOCK_INITIALISED) return 1;
    platformMutexInit(&lockPtr->section);
    lockPtr->initMarker = CLAPI_LOCK_INITIALISED;
    return 0;
}

// The "not initialized" lines skip the trace lock: it may be the broken lock itself.
int clapiDestroyLock(clapiLock* lockPtr) {
    if (lockPtr->initMarker != CLAPI_LOCK_INITIALISED) {
        CLAPI_TRACE_UNLOCKED(EXC, 3112, "clapi_lock.clapiDestroyLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    platformMutexDestroy(&lockPtr->section);
    lockPtr->initMarker = CLAPI_LOCK_DESTROYED;
    return 0;
}

int clapiRequestLock(clapiLock* lockPtr) {
    if (lockPtr->initMarker != CLAPI_LOCK_INITIALISED) {
        CLAPI_TRACE_UNLOCKED(EXC, 3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    platformMutexEnter(&lockPtr->section);
    return 0;
}

int clapiRequestLockWithin(clapiLock* lockPtr, uint32_t milliseconds) {
    if (lockPtr->initMarker != CLAPI_LOCK_INITIALISED) {
        CLAPI_TRACE_UNLOCKED(EXC, 3104, "clapi_lock.clapiRequestLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    // Polled: a held lock here is the rare case (a sender stuck on a full socket).
    constexpr uint32_t kStepMs = 10;
    for (uint32_t waited = 0;; waited += kStepMs) {
        if (platformMutexTryEnter(&lockPtr->section)) return 0;
        if (waited >= milliseconds) return 1;
        platformSleepMilliseconds(kStepMs);
    }
}

int clapiReleaseLock(clapiLock* lockPtr) {
    if (lockPtr->initMarker != CLAPI_LOCK_INITIALISED) {
        CLAPI_TRACE_UNLOCKED(EXC, 3108, "clapi_lock.clapiReleaseLock(lockPtr=%p) Lock not initialized\n", (void*)lockPtr);
        return -1;
    }
    platformMutexLeave(&lockPtr->section);
    return 0;
}

int clapiCreateEvent(clapiEvent* eventPtr) {
    CLAPI_TRACE(DEBUG, 3115, "clapi_lock.clapiCreateEvent() Creating event, eventPtr=%p\n", (void*)eventPtr);
    *eventPtr = platformEventCreate();
    if (*eventPtr == nullptr) {
        CLAPI_TRACE(EXC, 3123, "clapi_lock.clapiCreateEvent() CreateEvent failed, rc=%d\n", platformLastError());
        return -1;
    }
    return 0;
}

int clapiDeleteEvent(clapiEvent* eventPtr) {
    CLAPI_TRACE(DEBUG, 3118, "clapi_lock.clapiDeleteEvent() Deleting event, eventPtr=%p\n", (void*)eventPtr);
    if (platformEventClose(*eventPtr) != 0) {
        CLAPI_TRACE(EXC, 3124, "clapi_lock.clapiDeleteEvent() CloseHandle failed, rc=%d\n", platformLastError());
        return -1;
    }
    return 0;
}

int clapiSetEvent(clapiEvent* eventPtr) {
    CLAPI_TRACE(DEBUG, 3121, "clapi_lock.clapiSetEvent() Setting event, eventPtr=%p\n", (void*)eventPtr);
    if (platformEventReset(*eventPtr) != 0) {
        CLAPI_TRACE(EXC, 3131, "clapi_lock.clapiSetEvent() ResetEvent failed, rc=%d\n", platformLastError());
        return -1;
    }
    return 0;
}

int clapiClearEvent(clapiEvent* eventPtr) {
    CLAPI_TRACE(DEBUG, 3122, "clapi_lock.clapiClearEvent() Clearing event, eventPtr=%p\n", (void*)eventPtr);
    if (platformEventSignal(*eventPtr) != 0) {
        CLAPI_TRACE(EXC, 3132, "clapi_lock.clapiClearEvent() SetEvent failed, rc=%d\n", platformLastError());
        return -1;
    }
    return 0;
}

int clapiWaitEvent(clapiEvent* eventPtr) {
    CLAPI_TRACE(DEBUG, 3119, "clapi_lock.clapiWaitEvent() Waiting on event, eventPtr=%p\n", (void*)eventPtr);
    if (platformEventWait(*eventPtr) != 0) {
        CLAPI_TRACE(EXC, 3127, "clapi_lock.clapiWaitEvent() WaitForSingleObject failed, rc=%d\n", platformLastError());
        return -1;
    }
    return 0;
}

int clapiTimedWaitEvent(clapiEvent* eventPtr, uint32_t timeout, uint32_t* expired) {
    CLAPI_TRACE(DEBUG, 3120, "clapi_lock.clapiTimedWaitEvent() Waiting on event, eventPtr=%p, timeout=%d, expired=%p\n",
                (void*)eventPtr, (int)timeout, (void*)expired);
    *expired = 0;
    // Seconds to milliseconds in 32-bit arithmetic: very large values wrap, as callers expect.
    uint32_t milliseconds = timeout * 1000u;
    bool timedOut = false;
    if (platformEventTimedWait(*eventPtr, milliseconds, &timedOut) != 0) {
        CLAPI_TRACE(EXC, 3129, "clapi_lock.clapiTimedWaitEvent() WaitForSingleObject failed, rc=%d\n", platformLastError());
        return -1;
    }
    if (timedOut) *expired = 1;
    return 0;
}
