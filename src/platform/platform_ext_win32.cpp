// Windows implementation of the extension services of the platform layer.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <mstcpip.h>
#include <windows.h>

#include <cstdio>
#include <cstring>

#include "platform/platform_ext.h"

namespace {
SOCKET sock(platformSocket s) { return static_cast<SOCKET>(s); }
}  // namespace

int platformResolveAll(const char* host, const char* port, platformAddress* out, int max, int* count) {
    *count = 0;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    if (getaddrinfo(host, port, &hints, &result) != 0 || !result) {
        int err = WSAGetLastError();
        return err != 0 ? err : WSAHOST_NOT_FOUND;
    }
    for (addrinfo* a = result; a && *count < max; a = a->ai_next) {
        if (a->ai_addrlen > sizeof out->addr) continue;
        platformAddress* o = &out[*count];
        memset(o, 0, sizeof *o);
        o->family = a->ai_family;
        o->socktype = a->ai_socktype;
        o->protocol = a->ai_protocol;
        memcpy(o->addr, a->ai_addr, a->ai_addrlen);
        o->addrLen = static_cast<int>(a->ai_addrlen);
        ++*count;
    }
    freeaddrinfo(result);
    return *count > 0 ? 0 : WSAHOST_NOT_FOUND;
}

void platformAddressText(const platformAddress* a, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    char host[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<const sockaddr*>(a->addr), a->addrLen, host, sizeof host, nullptr, 0,
                    NI_NUMERICHOST) != 0)
        snprintf(host, sizeof host, "?");
    snprintf(buffer, size, "%s", host);
}

int platformSetSocketOptions(platformSocket s, bool keepAlive, int idleSec, int intervalSec, int) {
    BOOL one = TRUE;
    BOOL on = keepAlive ? TRUE : FALSE;
    if (setsockopt(sock(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one) != 0 ||
        setsockopt(sock(s), SOL_SOCKET, SO_KEEPALIVE, reinterpret_cast<const char*>(&on), sizeof on) != 0)
        return -1;
    if (keepAlive && (idleSec > 0 || intervalSec > 0)) {
        // The probe count is fixed by the system here; idle and interval are set together.
        tcp_keepalive values{};
        values.onoff = 1;
        values.keepalivetime = static_cast<ULONG>(idleSec > 0 ? idleSec : 7200) * 1000u;
        values.keepaliveinterval = static_cast<ULONG>(intervalSec > 0 ? intervalSec : 1) * 1000u;
        DWORD returned = 0;
        WSAIoctl(sock(s), SIO_KEEPALIVE_VALS, &values, sizeof values, nullptr, 0, &returned, nullptr, nullptr);
    }
    return 0;
}

int platformWaitConnectMs(platformSocket s, int timeoutMs, int* sockError) {
    fd_set writeSet, exceptSet;
    FD_ZERO(&writeSet);
    FD_ZERO(&exceptSet);
    FD_SET(sock(s), &writeSet);
    FD_SET(sock(s), &exceptSet);
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    int rc = select(0, nullptr, &writeSet, &exceptSet, timeoutMs < 0 ? nullptr : &tv);
    if (rc < 0) {
        *sockError = WSAGetLastError();
        return -1;
    }
    if (rc == 0) return 0;
    int err = 0;
    int len = sizeof err;
    getsockopt(sock(s), SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&err), &len);
    if (err != 0 || FD_ISSET(sock(s), &exceptSet)) {
        *sockError = err != 0 ? err : WSAECONNREFUSED;
        return -2;
    }
    return 1;
}

uint64_t platformMonotonicMicros() {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    return static_cast<uint64_t>(now.QuadPart / frequency.QuadPart) * 1000000u +
           static_cast<uint64_t>(now.QuadPart % frequency.QuadPart) * 1000000u /
               static_cast<uint64_t>(frequency.QuadPart);
}

int platformSignalCreate(platformSignal* signal) {
    signal->isSet = false;
    signal->writeEnd = -1;
    HANDLE h = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    signal->waitable = h ? reinterpret_cast<intptr_t>(h) : -1;
    return h ? 0 : -1;
}

void platformSignalSet(platformSignal* signal) {
    if (signal->waitable == -1 || signal->isSet) return;
    if (SetEvent(reinterpret_cast<HANDLE>(signal->waitable))) signal->isSet = true;
}

void platformSignalReset(platformSignal* signal) {
    if (signal->waitable == -1 || !signal->isSet) return;
    if (ResetEvent(reinterpret_cast<HANDLE>(signal->waitable))) signal->isSet = false;
}

void platformSignalClose(platformSignal* signal) {
    if (signal->waitable != -1) CloseHandle(reinterpret_cast<HANDLE>(signal->waitable));
    signal->waitable = -1;
    signal->isSet = false;
}

int platformSignalWait(intptr_t waitable, int timeoutMs) {
    DWORD rc = WaitForSingleObject(reinterpret_cast<HANDLE>(waitable), timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs));
    if (rc == WAIT_OBJECT_0) return 1;
    return rc == WAIT_TIMEOUT ? 0 : -1;
}
