// The operating-system layer: the only code that knows Windows from Linux.
// Everything here is a thin, behaviour-preserving wrapper; no module outside
// src/platform includes windows.h, winsock2.h or a POSIX socket header.
#pragma once

#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------------------
// Re-entrant mutex with critical-section semantics (the owner may enter again).
// Storage is opaque so that it can be embedded by value in zero-filled records.
struct platformMutex {
    alignas(16) unsigned char opaque[64];
};
void platformMutexInit(platformMutex* m);
void platformMutexDestroy(platformMutex* m);
void platformMutexEnter(platformMutex* m);
// Enters only when no other thread owns the mutex; true when it entered.
bool platformMutexTryEnter(platformMutex* m);
void platformMutexLeave(platformMutex* m);

// ---------------------------------------------------------------------------
// Manual-reset event: once signalled it stays signalled (releasing every waiter)
// until it is reset. Created non-signalled. Results: 0 success, -1 failure with
// the reason in platformLastError().
using platformEventHandle = void*;
platformEventHandle platformEventCreate();  // nullptr on failure
int platformEventClose(platformEventHandle h);
int platformEventSignal(platformEventHandle h);
int platformEventReset(platformEventHandle h);
int platformEventWait(platformEventHandle h);
// Waits at most `milliseconds`; *timedOut = true when the time ran out.
int platformEventTimedWait(platformEventHandle h, uint32_t milliseconds, bool* timedOut);
int platformLastError();

// ---------------------------------------------------------------------------
// Threads. Joinable, so that an owner can be sure a thread has left its code
// before freeing what the thread used.
struct platformThread {
    void* handle;
};
// Returns 0, or -1 with errno set. `stackSize` is a request; the platform
// raises it to what the OS (and the sanitizers) need.
int platformThreadStart(platformThread* t, void (*fn)(void*), void* arg, size_t stackSize);
void platformThreadJoin(platformThread* t);
uint32_t platformProcessId();
uint32_t platformThreadId();
void platformSleepMilliseconds(uint32_t ms);

// ---------------------------------------------------------------------------
// Memory for a long-lived buffer of which little may ever be written: pages of
// its own straight from the OS (zero, and resident only once written; no
// allocator bookkeeping beside them). nullptr when memory is short. Meant for
// few, large allocations: each is a system call. Freed only with
// platformFreePages and the same size.
void* platformAllocPages(size_t size);
void platformFreePages(void* p, size_t size);
// Gives the pages of such a buffer back to the OS while keeping the range: its
// contents are lost, and a page becomes resident again when next written.
void platformReleasePages(void* p, size_t size);

// ---------------------------------------------------------------------------
// Time for trace lines: local broken-down time plus milliseconds.
struct platformLocalTime {
    int year, month, day, hour, minute, second, millisecond;  // year 4 digits, month 1-12
};
void platformGetLocalTime(platformLocalTime* t);

// ---------------------------------------------------------------------------
// The process's ANSI code page (Windows GetACP). On Linux, the code set of the
// user's locale (LC_ALL, LC_CTYPE, LANG, in that order), mapped through the
// table in platform_posix.cpp; the process's own locale is never changed.
int platformAnsiCodePage();
// The mapping used on Linux, exposed for tests: codeset name to code page.
int platformCodePageForCodeset(const char* codeset);

// ---------------------------------------------------------------------------
// Sockets.
using platformSocket = uint64_t;
constexpr platformSocket PLATFORM_INVALID_SOCKET = ~static_cast<platformSocket>(0);

int platformSocketStartup();  // WSAStartup(2.0) on Windows; 0 on success
void platformSocketCleanup();
int platformSocketError();  // WSAGetLastError() / errno of the last socket call
// Text for a socket error code, without line breaks; "Unknown" when there is none.
void platformSocketErrorText(int code, char* buffer, size_t size);
// Text for a resolver error code as returned by platformResolve.
void platformResolverErrorText(int code, char* buffer, size_t size);

// The first result of an address lookup, copied out so that nothing needs freeing.
struct platformAddress {
    int family;
    int socktype;
    int protocol;
    int addrLen;
    alignas(8) unsigned char addr[128];
};
// getaddrinfo(host, port text) with any family, stream sockets. 0, or the
// resolver's error code (also stored so that platformSocketError reports it).
int platformResolve(const char* host, const char* port, platformAddress* out);

platformSocket platformSocketCreate(int family, int socktype, int protocol);
int platformSetKeepAliveNoDelay(platformSocket s);  // 0 or -1
int platformSetNonBlocking(platformSocket s, bool nonBlocking);
// 0 connected; 1 in progress (would block); -1 failed (see platformSocketError).
int platformConnect(platformSocket s, const platformAddress* a);
// Waits for a non-blocking connect: 1 done, 0 timed out, -1 select failed,
// -2 connect failed with *sockError set.
int platformWaitConnect(platformSocket s, int timeoutSeconds, int* sockError);
// Waits until readable. timeoutSeconds 0 = no limit. >0 readable, 0 timeout, <0 error.
int platformWaitReadable(platformSocket s, int timeoutSeconds);
// The same in milliseconds (0: do not wait, only test).
int platformWaitReadableMs(platformSocket s, int timeoutMs);
// One send/recv call; never raises SIGPIPE. Result as the OS call.
long long platformSend(platformSocket s, const void* data, size_t len);
long long platformRecv(platformSocket s, void* data, size_t len);
int platformCloseSocket(platformSocket s);
// Stops both directions without releasing the descriptor. Ends a recv, send or
// wait blocked on the socket in another thread, and makes a later recv or send
// fail at once. A wait begun after it may still block on Windows: a reader that
// must be stoppable without a time limit waits in platformRecv.
int platformShutdownSocket(platformSocket s);

// Listening helpers for servers and tests: bind host:port (port 0 = any free
// port), report the bound port. 0 or -1.
int platformListen(const char* host, uint16_t port, platformSocket* out, uint16_t* boundPort);
platformSocket platformAccept(platformSocket listener);

// ---------------------------------------------------------------------------
// Process environment, read at load and at connection open.
const char* platformGetEnv(const char* name);
