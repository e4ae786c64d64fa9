// Linux implementation of the extension services of the platform layer.
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/platform_ext.h"

int platformResolveAll(const char* host, const char* port, platformAddress* out, int max, int* count) {
    *count = 0;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_ADDRCONFIG;
    addrinfo* result = nullptr;
    int rc = getaddrinfo(host, port, &hints, &result);
    if (rc == EAI_NONAME || rc == EAI_ADDRFAMILY) {
        // AI_ADDRCONFIG hides loopback-only families on hosts without another
        // interface of that family; ask again without it.
        hints.ai_flags = 0;
        rc = getaddrinfo(host, port, &hints, &result);
    }
    if (rc != 0 || !result) return rc != 0 ? rc : EAI_NONAME;
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
    return *count > 0 ? 0 : EAI_NONAME;
}

void platformAddressText(const platformAddress* a, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    char host[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<const sockaddr*>(a->addr), static_cast<socklen_t>(a->addrLen), host, sizeof host,
                    nullptr, 0, NI_NUMERICHOST) != 0)
        snprintf(host, sizeof host, "?");
    snprintf(buffer, size, "%s", host);
}

int platformSetSocketOptions(platformSocket s, bool keepAlive, int idleSec, int intervalSec, int count) {
    int fd = static_cast<int>(s);
    int one = 1;
    int on = keepAlive ? 1 : 0;
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0)
        return -1;
    if (keepAlive) {
        if (idleSec > 0 && setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &idleSec, sizeof idleSec) != 0) return -1;
        if (intervalSec > 0 && setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &intervalSec, sizeof intervalSec) != 0)
            return -1;
        if (count > 0 && setsockopt(fd, IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count) != 0) return -1;
    }
    return 0;
}

int platformWaitConnectMs(platformSocket s, int timeoutMs, int* sockError) {
    int fd = static_cast<int>(s);
    pollfd p{fd, POLLOUT, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs < 0 ? -1 : timeoutMs);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        *sockError = errno;
        return -1;
    }
    if (rc == 0) return 0;
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) err = errno;
    if (err != 0) {
        *sockError = err;
        return -2;
    }
    return 1;
}

uint64_t platformMonotonicMicros() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec / 1000);
}

int platformSignalCreate(platformSignal* signal) {
    signal->isSet = false;
    signal->writeEnd = -1;
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd >= 0) {
        signal->waitable = fd;
        return 0;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        signal->waitable = -1;
        return -1;
    }
    signal->waitable = fds[0];
    signal->writeEnd = fds[1];
    return 0;
}

void platformSignalSet(platformSignal* signal) {
    if (signal->waitable < 0 || signal->isSet) return;
    uint64_t one = 1;
    int fd = static_cast<int>(signal->writeEnd >= 0 ? signal->writeEnd : signal->waitable);
    ssize_t n = signal->writeEnd >= 0 ? write(fd, &one, 1) : write(fd, &one, sizeof one);
    if (n > 0) signal->isSet = true;
}

void platformSignalReset(platformSignal* signal) {
    if (signal->waitable < 0 || !signal->isSet) return;
    uint64_t value = 0;
    // Non-blocking: an eventfd reads its whole count at once, a pipe holds one byte.
    while (read(static_cast<int>(signal->waitable), &value, sizeof value) > 0) {
    }
    signal->isSet = false;
}

void platformSignalClose(platformSignal* signal) {
    if (signal->waitable >= 0) close(static_cast<int>(signal->waitable));
    if (signal->writeEnd >= 0) close(static_cast<int>(signal->writeEnd));
    signal->waitable = -1;
    signal->writeEnd = -1;
    signal->isSet = false;
}

int platformSignalWait(intptr_t waitable, int timeoutMs) {
    pollfd p{static_cast<int>(waitable), POLLIN, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs < 0 ? -1 : timeoutMs);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0 || (rc > 0 && (p.revents & POLLNVAL))) return -1;
    return rc > 0 ? 1 : 0;
}
