// Locks and events. Event names are inverted on purpose and kept so:
// clapiSetEvent makes waiters block (reset), clapiClearEvent releases them (signal).
#pragma once

#include <cstdint>

#include "platform/platform.h"

constexpr uint32_t CLAPI_LOCK_INITIALISED = 0xFFEEDDCCu;
constexpr uint32_t CLAPI_LOCK_DESTROYED = 0xCCDDEEFFu;

// Embedded by value; a zero-filled record is a lock that was never initialised.
struct clapiLock {
    platformMutex section;
    uint32_t initMarker;
};

using clapiEvent = platformEventHandle;

int clapiInitLock(clapiLock* lockPtr);     // 0, or 1 when already initialised
int clapiDestroyLock(clapiLock* lockPtr);  // 0 or -1
int clapiRequestLock(clapiLock* lockPtr);  // 0 or -1
int clapiReleaseLock(clapiLock* lockPtr);  // 0 or -1
// As clapiRequestLock, but gives up after `milliseconds` while another thread
// holds the lock: 0, 1 when the time ran out, -1 when the lock is not initialised.
int clapiRequestLockWithin(clapiLock* lockPtr, uint32_t milliseconds);

int clapiCreateEvent(clapiEvent* eventPtr);
int clapiDeleteEvent(clapiEvent* eventPtr);
int clapiSetEvent(clapiEvent* eventPtr);    // non-signalled: waiters block
int clapiClearEvent(clapiEvent* eventPtr);  // signalled: waiters are released
int clapiWaitEvent(clapiEvent* eventPtr);
// timeout in seconds; *expired = 1 when it ran out.
int clapiTimedWaitEvent(clapiEvent* eventPtr, uint32_t timeout, uint32_t* expired);
