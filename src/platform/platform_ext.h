// Operating-system services used only by the extension API: every address of a
// host, connects bounded in milliseconds, keep-alive tuning, a monotonic clock
// and the pollable completion signal. Like platform.h, the only code that knows
// Windows from Linux.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/platform.h"

// Every result of getaddrinfo(host, port) for stream sockets, any family, in the
// resolver's order; at most `max` are kept. 0 with *count >= 1, or the
// resolver's error code (text from platformResolverErrorText).
int platformResolveAll(const char* host, const char* port, platformAddress* out, int max, int* count);
// The numeric address of a lookup result ("127.0.0.1", "::1").
void platformAddressText(const platformAddress* a, char* buffer, size_t size);

// TCP_NODELAY on, and keep-alive on or off. Idle, interval and count of 0 leave
// the system's values; where the system cannot set one of them it is ignored.
int platformSetSocketOptions(platformSocket s, bool keepAlive, int idleSec, int intervalSec, int count);
// Waits for a non-blocking connect for at most timeoutMs (below 0: no limit).
// 1 connected, 0 timed out, -1 the wait failed, -2 the connect failed with *sockError.
int platformWaitConnectMs(platformSocket s, int timeoutMs, int* sockError);

// Microseconds from an arbitrary fixed point; never goes back.
uint64_t platformMonotonicMicros();

// A level-triggered signal an event loop can wait on: an eventfd (or a pipe) on
// Linux, readable while set; a manual-reset event on Windows, signalled while
// set. Set and reset are idempotent; the caller serialises them.
struct platformSignal {
    intptr_t waitable;  // what the application waits on; -1 when none
    intptr_t writeEnd;  // Linux pipe fallback: the write end; -1 otherwise
    bool isSet;
};
int platformSignalCreate(platformSignal* signal);  // 0, or -1 with platformLastError()
void platformSignalSet(platformSignal* signal);
void platformSignalReset(platformSignal* signal);
void platformSignalClose(platformSignal* signal);
// Waits at most timeoutMs (below 0: no limit) for what platformSignal.waitable
// names to be ready: 1 ready, 0 not, -1 the wait failed.
int platformSignalWait(intptr_t waitable, int timeoutMs);
