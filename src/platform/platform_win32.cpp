// Windows implementation of the platform layer.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <process.h>

#include "platform/platform.h"

static_assert(sizeof(CRITICAL_SECTION) <= sizeof(platformMutex::opaque));

namespace {
thread_local int lastError = 0;
CRITICAL_SECTION* sectionOf(platformMutex* m) { return reinterpret_cast<CRITICAL_SECTION*>(m->opaque); }
SOCKET sock(platformSocket s) { return static_cast<SOCKET>(s); }

int failWith(DWORD err) {
    lastError = static_cast<int>(err);
    return -1;
}
}  // namespace

void platformMutexInit(platformMutex* m) { InitializeCriticalSection(sectionOf(m)); }
void platformMutexDestroy(platformMutex* m) { DeleteCriticalSection(sectionOf(m)); }
void platformMutexEnter(platformMutex* m) { EnterCriticalSection(sectionOf(m)); }
bool platformMutexTryEnter(platformMutex* m) { return TryEnterCriticalSection(sectionOf(m)) != 0; }
void platformMutexLeave(platformMutex* m) { LeaveCriticalSection(sectionOf(m)); }

platformEventHandle platformEventCreate() {
    HANDLE h = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (!h) lastError = static_cast<int>(GetLastError());
    return h;
}
int platformEventClose(platformEventHandle h) { return CloseHandle(h) ? 0 : failWith(GetLastError()); }
int platformEventSignal(platformEventHandle h) { return SetEvent(h) ? 0 : failWith(GetLastError()); }
int platformEventReset(platformEventHandle h) { return ResetEvent(h) ? 0 : failWith(GetLastError()); }

int platformEventWait(platformEventHandle h) {
    return WaitForSingleObject(h, INFINITE) == WAIT_FAILED ? failWith(GetLastError()) : 0;
}

int platformEventTimedWait(platformEventHandle h, uint32_t milliseconds, bool* timedOut) {
    *timedOut = false;
    DWORD rc = WaitForSingleObject(h, milliseconds);
    if (rc == WAIT_FAILED) return failWith(GetLastError());
    *timedOut = rc == WAIT_TIMEOUT;
    return 0;
}

int platformLastError() { return lastError; }

namespace {
struct ThreadStart {
    void (*fn)(void*);
    void* arg;
};
unsigned __stdcall threadTrampoline(void* p) {
    ThreadStart start = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    start.fn(start.arg);
    return 0;
}
}  // namespace

void* platformAllocPages(size_t size) {
    if (size == 0) return nullptr;
    return VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void platformFreePages(void* p, size_t) {
    if (p) VirtualFree(p, 0, MEM_RELEASE);
}

void platformReleasePages(void* p, size_t size) {
    if (p) VirtualAlloc(p, size, MEM_RESET, PAGE_READWRITE);
}

int platformThreadStart(platformThread* t, void (*fn)(void*), void* arg, size_t stackSize) {
    auto* start = new (std::nothrow) ThreadStart{fn, arg};
    if (!start) {
        errno = ENOMEM;
        return -1;
    }
    uintptr_t h = _beginthreadex(nullptr, static_cast<unsigned>(stackSize), threadTrampoline, start, 0, nullptr);
    if (h == 0) {
        delete start;
        return -1;
    }
    t->handle = reinterpret_cast<void*>(h);
    return 0;
}

void platformThreadJoin(platformThread* t) {
    if (!t->handle) return;
    WaitForSingleObject(static_cast<HANDLE>(t->handle), INFINITE);
    CloseHandle(static_cast<HANDLE>(t->handle));
    t->handle = nullptr;
}

uint32_t platformProcessId() { return static_cast<uint32_t>(GetCurrentProcessId()); }
uint32_t platformThreadId() { return static_cast<uint32_t>(GetCurrentThreadId()); }
void platformSleepMilliseconds(uint32_t ms) { Sleep(ms); }

void platformGetLocalTime(platformLocalTime* t) {
    SYSTEMTIME st;
    GetLocalTime(&st);
    t->year = st.wYear;
    t->month = st.wMonth;
    t->day = st.wDay;
    t->hour = st.wHour;
    t->minute = st.wMinute;
    t->second = st.wSecond;
    t->millisecond = st.wMilliseconds;
}

int platformAnsiCodePage() { return static_cast<int>(GetACP()); }

// Windows asks the system for its code page; the name table is only used on Linux.
int platformCodePageForCodeset(const char* codeset) {
    (void)codeset;
    return static_cast<int>(GetACP());
}

int platformSocketStartup() {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 0), &data);
}
void platformSocketCleanup() { WSACleanup(); }
int platformSocketError() { return lastError; }

void platformSocketErrorText(int code, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    char text[1024];
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK, nullptr,
                             static_cast<DWORD>(code), 0, text, sizeof text, nullptr);
    snprintf(buffer, size, "%s", n == 0 ? "Unknown" : text);
}

void platformResolverErrorText(int code, char* buffer, size_t size) { platformSocketErrorText(code, buffer, size); }

int platformResolve(const char* host, const char* port, platformAddress* out) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(host, port, &hints, &result) != 0 || !result) {
        lastError = WSAGetLastError();
        if (lastError == 0) lastError = WSAHOST_NOT_FOUND;
        return lastError;
    }
    memset(out, 0, sizeof *out);
    out->family = result->ai_family;
    out->socktype = result->ai_socktype;
    out->protocol = result->ai_protocol;
    size_t len = result->ai_addrlen;
    if (len > sizeof out->addr) len = sizeof out->addr;
    memcpy(out->addr, result->ai_addr, len);
    out->addrLen = static_cast<int>(len);
    freeaddrinfo(result);
    return 0;
}

platformSocket platformSocketCreate(int family, int socktype, int protocol) {
    SOCKET s = socket(family, socktype, protocol);
    if (s == INVALID_SOCKET) {
        lastError = WSAGetLastError();
        return PLATFORM_INVALID_SOCKET;
    }
    return static_cast<platformSocket>(s);
}

int platformSetKeepAliveNoDelay(platformSocket s) {
    int one = 1;
    if (setsockopt(sock(s), SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char*>(&one), sizeof one) != 0 ||
        setsockopt(sock(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one) != 0) {
        lastError = WSAGetLastError();
        return -1;
    }
    return 0;
}

int platformSetNonBlocking(platformSocket s, bool nonBlocking) {
    u_long mode = nonBlocking ? 1 : 0;
    if (ioctlsocket(sock(s), FIONBIO, &mode) != 0) return failWith(WSAGetLastError());
    return 0;
}

int platformConnect(platformSocket s, const platformAddress* a) {
    if (connect(sock(s), reinterpret_cast<const sockaddr*>(a->addr), a->addrLen) == 0) {
        lastError = 0;
        return 0;
    }
    lastError = WSAGetLastError();
    return lastError == WSAEWOULDBLOCK ? 1 : -1;
}

int platformWaitConnect(platformSocket s, int timeoutSeconds, int* sockError) {
    fd_set writeSet, exceptSet;
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock(s), &writeSet);
    FD_SET(sock(s), &exceptSet);
    timeval tv{timeoutSeconds, 0};
    int rc = select(0, nullptr, &writeSet, &exceptSet, &tv);
    if (rc < 0) {
        lastError = *sockError = WSAGetLastError();
        return -1;
    }
    if (rc == 0) return 0;
    if (FD_ISSET(sock(s), &exceptSet)) {
        int err = 0;
        int len = sizeof err;
        getsockopt(sock(s), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &len);
        if (err != 0) {
            lastError = *sockError = err;
            return -2;
        }
    }
    return 1;
}

int platformWaitReadable(platformSocket s, int timeoutSeconds) {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(sock(s), &readSet);
    timeval tv{timeoutSeconds, 0};
    int rc = select(0, &readSet, nullptr, nullptr, timeoutSeconds > 0 ? &tv : nullptr);
    if (rc < 0) lastError = WSAGetLastError();
    return rc;
}

int platformWaitReadableMs(platformSocket s, int timeoutMs) {
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(sock(s), &readSet);
    if (timeoutMs < 0) timeoutMs = 0;
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    int rc = select(0, &readSet, nullptr, nullptr, &tv);
    if (rc < 0) lastError = WSAGetLastError();
    return rc;
}

long long platformSend(platformSocket s, const void* data, size_t len) {
    int chunk = len > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(len);
    int rc = send(sock(s), static_cast<const char*>(data), chunk, 0);
    lastError = rc < 0 ? WSAGetLastError() : 0;
    return rc;
}

long long platformRecv(platformSocket s, void* data, size_t len) {
    int chunk = len > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(len);
    int rc = recv(sock(s), static_cast<char*>(data), chunk, 0);
    lastError = rc < 0 ? WSAGetLastError() : 0;
    return rc;
}

int platformCloseSocket(platformSocket s) {
    if (s == PLATFORM_INVALID_SOCKET) return -1;
    return closesocket(sock(s)) == 0 ? 0 : failWith(WSAGetLastError());
}

int platformShutdownSocket(platformSocket s) {
    if (s == PLATFORM_INVALID_SOCKET) return -1;
    int rc = shutdown(sock(s), SD_BOTH) == 0 ? 0 : failWith(WSAGetLastError());
    // A shutdown does not end a select, recv or send already blocked on the
    // socket in another thread; cancelling the socket's pending I/O does. Calls
    // made after this one fail at once on the shut-down socket.
    CancelIoEx(reinterpret_cast<HANDLE>(sock(s)), nullptr);
    return rc;
}

int platformListen(const char* host, uint16_t port, platformSocket* out, uint16_t* boundPort) {
    char portText[8];
    snprintf(portText, sizeof portText, "%u", static_cast<unsigned>(port));
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* result = nullptr;
    if (getaddrinfo(host, portText, &hints, &result) != 0 || !result) return failWith(WSAGetLastError());
    SOCKET s = socket(result->ai_family, result->ai_socktype, result->ai_protocol);
    if (s == INVALID_SOCKET) {
        freeaddrinfo(result);
        return failWith(WSAGetLastError());
    }
    if (bind(s, result->ai_addr, static_cast<int>(result->ai_addrlen)) != 0 || listen(s, 64) != 0) {
        int err = WSAGetLastError();
        freeaddrinfo(result);
        closesocket(s);
        return failWith(err);
    }
    freeaddrinfo(result);
    sockaddr_storage bound{};
    int len = sizeof bound;
    getsockname(s, reinterpret_cast<sockaddr*>(&bound), &len);
    u_short p = bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                            : reinterpret_cast<sockaddr_in*>(&bound)->sin_port;
    if (boundPort) *boundPort = ntohs(p);
    *out = static_cast<platformSocket>(s);
    return 0;
}

platformSocket platformAccept(platformSocket listener) {
    SOCKET s = accept(sock(listener), nullptr, nullptr);
    if (s == INVALID_SOCKET) {
        lastError = WSAGetLastError();
        return PLATFORM_INVALID_SOCKET;
    }
    return static_cast<platformSocket>(s);
}

const char* platformGetEnv(const char* name) { return getenv(name); }
