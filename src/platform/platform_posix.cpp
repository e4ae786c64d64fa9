// Linux implementation of the platform layer.
#include "platform/platform.h"

#include <atomic>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <strings.h>

static_assert(sizeof(pthread_mutex_t) <= sizeof(platformMutex::opaque));

namespace {
thread_local int lastError = 0;

pthread_mutex_t* mutexOf(platformMutex* m) { return reinterpret_cast<pthread_mutex_t*>(m->opaque); }

struct PosixEvent {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    bool signalled;
    // Signals still touching the event after their unlock; close waits for 0.
    std::atomic<int> signalling;
};

int fail(int err) {
    lastError = err;
    return -1;
}
}  // namespace

void platformMutexInit(platformMutex* m) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(mutexOf(m), &attr);
    pthread_mutexattr_destroy(&attr);
}
void platformMutexDestroy(platformMutex* m) { pthread_mutex_destroy(mutexOf(m)); }
void platformMutexEnter(platformMutex* m) { pthread_mutex_lock(mutexOf(m)); }
bool platformMutexTryEnter(platformMutex* m) { return pthread_mutex_trylock(mutexOf(m)) == 0; }
void platformMutexLeave(platformMutex* m) { pthread_mutex_unlock(mutexOf(m)); }

platformEventHandle platformEventCreate() {
    auto* e = new (std::nothrow) PosixEvent;
    if (!e) {
        lastError = ENOMEM;
        return nullptr;
    }
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    int rc = pthread_mutex_init(&e->mutex, nullptr);
    if (rc == 0) rc = pthread_cond_init(&e->cond, &attr);
    pthread_condattr_destroy(&attr);
    if (rc != 0) {
        delete e;
        lastError = rc;
        return nullptr;
    }
    e->signalled = false;
    e->signalling.store(0, std::memory_order_relaxed);
    return e;
}

int platformEventClose(platformEventHandle h) {
    auto* e = static_cast<PosixEvent*>(h);
    if (!e) return fail(EINVAL);
    // A waiter may have seen the event signalled and its owner closed it while
    // the signaller still broadcasts: that lasts a few instructions.
    while (e->signalling.load(std::memory_order_acquire) != 0) sched_yield();
    pthread_cond_destroy(&e->cond);
    pthread_mutex_destroy(&e->mutex);
    delete e;
    return 0;
}

int platformEventSignal(platformEventHandle h) {
    auto* e = static_cast<PosixEvent*>(h);
    if (!e) return fail(EINVAL);
    e->signalling.fetch_add(1, std::memory_order_relaxed);
    pthread_mutex_lock(&e->mutex);
    e->signalled = true;
    pthread_mutex_unlock(&e->mutex);
    // Broadcast after the unlock, so that a woken waiter does not block on the
    // mutex at once. The flag was set under it, so no wake-up is lost.
    pthread_cond_broadcast(&e->cond);
    e->signalling.fetch_sub(1, std::memory_order_release);
    return 0;
}

int platformEventReset(platformEventHandle h) {
    auto* e = static_cast<PosixEvent*>(h);
    if (!e) return fail(EINVAL);
    pthread_mutex_lock(&e->mutex);
    e->signalled = false;
    pthread_mutex_unlock(&e->mutex);
    return 0;
}

int platformEventWait(platformEventHandle h) {
    auto* e = static_cast<PosixEvent*>(h);
    if (!e) return fail(EINVAL);
    pthread_mutex_lock(&e->mutex);
    while (!e->signalled) pthread_cond_wait(&e->cond, &e->mutex);
    pthread_mutex_unlock(&e->mutex);
    return 0;
}

int platformEventTimedWait(platformEventHandle h, uint32_t milliseconds, bool* timedOut) {
    auto* e = static_cast<PosixEvent*>(h);
    *timedOut = false;
    if (!e) return fail(EINVAL);
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&e->mutex);
    while (!e->signalled) {
        if (pthread_cond_timedwait(&e->cond, &e->mutex, &deadline) == ETIMEDOUT) {
            *timedOut = !e->signalled;
            break;
        }
    }
    pthread_mutex_unlock(&e->mutex);
    return 0;
}

int platformLastError() { return lastError; }

namespace {
struct ThreadStart {
    void (*fn)(void*);
    void* arg;
};
void* threadTrampoline(void* p) {
    ThreadStart start = *static_cast<ThreadStart*>(p);
    delete static_cast<ThreadStart*>(p);
    start.fn(start.arg);
    return nullptr;
}
// A small stack, but large enough for formatted trace output under the sanitizers.
constexpr size_t kMinimumStack = 512 * 1024;
}  // namespace

int platformThreadStart(platformThread* t, void (*fn)(void*), void* arg, size_t stackSize) {
    auto* start = new (std::nothrow) ThreadStart{fn, arg};
    if (!start) {
        errno = ENOMEM;
        return -1;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stackSize < kMinimumStack ? kMinimumStack : stackSize);
    pthread_t id;
    int rc = pthread_create(&id, &attr, threadTrampoline, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        errno = rc;
        return -1;
    }
    t->handle = reinterpret_cast<void*>(id);
    return 0;
}

void platformThreadJoin(platformThread* t) {
    if (t->handle) pthread_join(reinterpret_cast<pthread_t>(t->handle), nullptr);
    t->handle = nullptr;
}

void* platformAllocPages(size_t size) {
    if (size == 0) return nullptr;
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void platformFreePages(void* p, size_t size) {
    if (p) munmap(p, size);
}

void platformReleasePages(void* p, size_t size) {
    if (p) madvise(p, size, MADV_DONTNEED);
}

uint32_t platformProcessId() { return static_cast<uint32_t>(getpid()); }
uint32_t platformThreadId() { return static_cast<uint32_t>(syscall(SYS_gettid)); }
void platformSleepMilliseconds(uint32_t ms) {
    timespec ts{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void platformGetLocalTime(platformLocalTime* t) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm local;
    time_t secs = now.tv_sec;
    localtime_r(&secs, &local);
    t->year = local.tm_year + 1900;
    t->month = local.tm_mon + 1;
    t->day = local.tm_mday;
    t->hour = local.tm_hour;
    t->minute = local.tm_min;
    t->second = local.tm_sec;
    t->millisecond = static_cast<int>(now.tv_nsec / 1000000L);
}

// Locale code sets and the code page (or CCSID) that stands for them. Names
// are compared without case and without '-' or '_'. Unknown sets, and the
// "C"/"POSIX" locale, give 1252, the Western European ANSI default.
namespace {
struct CodesetEntry {
    const char* name;
    int codePage;
};
constexpr CodesetEntry kCodesets[] = {
    {"utf8", 1208},        {"iso88591", 819},    {"latin1", 819},      {"iso885915", 923},
    {"iso88592", 912},     {"iso88595", 915},    {"iso88597", 813},    {"iso88599", 920},
    {"ansix3.41968", 367}, {"usascii", 367},     {"ascii", 367},       {"cp1250", 1250},
    {"cp1251", 1251},      {"cp1252", 1252},     {"cp1253", 1253},     {"cp1254", 1254},
    {"cp1255", 1255},      {"cp1256", 1256},     {"cp1257", 1257},     {"eucjp", 954},
    {"sjis", 932},         {"shiftjis", 932},    {"gb2312", 936},      {"gbk", 936},
    {"gb18030", 1392},     {"euckr", 949},       {"big5", 950},        {"koi8r", 878},
};

void normalise(const char* in, char* out, size_t size) {
    size_t n = 0;
    for (; *in && n + 1 < size; ++in) {
        char c = *in;
        if (c == '-' || c == '_') continue;
        out[n++] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    out[n] = '\0';
}
}  // namespace

int platformCodePageForCodeset(const char* codeset) {
    if (!codeset || !*codeset) return 1252;
    char key[64];
    normalise(codeset, key, sizeof key);
    for (const auto& e : kCodesets) {
        if (strcmp(key, e.name) == 0) return e.codePage;
    }
    return 1252;
}

int platformAnsiCodePage() {
    // The first of LC_ALL, LC_CTYPE, LANG that is set decides, as for setlocale(LC_CTYPE, "").
    const char* value = nullptr;
    for (const char* var : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        value = getenv(var);
        if (value && *value) break;
        value = nullptr;
    }
    if (!value) return 1252;
    const char* dot = strchr(value, '.');
    if (!dot) return 1252;
    char codeset[64];
    size_t n = 0;
    for (const char* p = dot + 1; *p && *p != '@' && n + 1 < sizeof codeset; ++p) codeset[n++] = *p;
    codeset[n] = '\0';
    return platformCodePageForCodeset(codeset);
}

int platformSocketStartup() { return 0; }
void platformSocketCleanup() {}
int platformSocketError() { return lastError; }

void platformSocketErrorText(int code, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    if (code == 0) {
        snprintf(buffer, size, "%s", "Unknown");
        return;
    }
    char work[256];
    const char* text = strerror_r(code, work, sizeof work);
    snprintf(buffer, size, "%s", text ? text : "Unknown");
}

void platformResolverErrorText(int code, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    const char* text = gai_strerror(code);
    snprintf(buffer, size, "%s", text ? text : "Unknown");
}

int platformResolve(const char* host, const char* port, platformAddress* out) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* result = nullptr;
    int rc = getaddrinfo(host, port, &hints, &result);
    if (rc != 0 || !result) {
        lastError = rc != 0 ? rc : EAI_NONAME;
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
    int fd = socket(family, socktype | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        lastError = errno;
        return PLATFORM_INVALID_SOCKET;
    }
    return static_cast<platformSocket>(fd);
}

int platformSetKeepAliveNoDelay(platformSocket s) {
    int one = 1;
    if (setsockopt(static_cast<int>(s), SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one) != 0 ||
        setsockopt(static_cast<int>(s), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
        lastError = errno;
        return -1;
    }
    return 0;
}

int platformSetNonBlocking(platformSocket s, bool nonBlocking) {
    int fd = static_cast<int>(s);
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) return fail(errno);
    flags = nonBlocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
    if (fcntl(fd, F_SETFL, flags) != 0) return fail(errno);
    return 0;
}

int platformConnect(platformSocket s, const platformAddress* a) {
    int rc;
    do {
        rc = connect(static_cast<int>(s), reinterpret_cast<const sockaddr*>(a->addr),
                     static_cast<socklen_t>(a->addrLen));
    } while (rc != 0 && errno == EINTR);
    if (rc == 0) {
        lastError = 0;
        return 0;
    }
    lastError = errno;
    return errno == EINPROGRESS ? 1 : -1;
}

namespace {
// poll rather than select: select cannot watch descriptors numbered 1024 and above.
// A descriptor that is not open is an error, as select reports it, not a time-out.
int pollOne(int fd, short events, int timeoutMs, short* revents) {
    if (fd < 0) return fail(EBADF);
    for (;;) {
        pollfd p{fd, events, 0};
        int rc = poll(&p, 1, timeoutMs);
        if (rc < 0 && errno == EINTR) continue;
        if (rc < 0) lastError = errno;
        if (rc > 0 && (p.revents & POLLNVAL)) return fail(EBADF);
        if (revents) *revents = p.revents;
        return rc;
    }
}

int secondsToMs(int seconds) { return seconds > 2000000 ? 2000000000 : seconds * 1000; }
}  // namespace

int platformWaitConnect(platformSocket s, int timeoutSeconds, int* sockError) {
    int fd = static_cast<int>(s);
    short revents = 0;
    int rc = pollOne(fd, POLLOUT, secondsToMs(timeoutSeconds), &revents);
    if (rc < 0) {
        *sockError = lastError;
        return -1;
    }
    if (rc == 0) return 0;
    // Linux reports a failed connect as writable (or hung up) with SO_ERROR set.
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err != 0) {
        lastError = *sockError = err;
        return -2;
    }
    return 1;
}

int platformWaitReadable(platformSocket s, int timeoutSeconds) {
    // Readable also covers hang-up and error: the following recv reports which.
    return pollOne(static_cast<int>(s), POLLIN, timeoutSeconds > 0 ? secondsToMs(timeoutSeconds) : -1, nullptr);
}

int platformWaitReadableMs(platformSocket s, int timeoutMs) {
    return pollOne(static_cast<int>(s), POLLIN, timeoutMs < 0 ? 0 : timeoutMs, nullptr);
}

long long platformSend(platformSocket s, const void* data, size_t len) {
    ssize_t rc;
    do {
        rc = send(static_cast<int>(s), data, len, MSG_NOSIGNAL);
    } while (rc < 0 && errno == EINTR);
    lastError = rc < 0 ? errno : 0;
    return rc;
}

long long platformRecv(platformSocket s, void* data, size_t len) {
    ssize_t rc;
    do {
        rc = recv(static_cast<int>(s), data, len, 0);
    } while (rc < 0 && errno == EINTR);
    lastError = rc < 0 ? errno : 0;
    return rc;
}

int platformCloseSocket(platformSocket s) {
    if (s == PLATFORM_INVALID_SOCKET) return -1;
    return close(static_cast<int>(s)) == 0 ? 0 : fail(errno);
}

int platformShutdownSocket(platformSocket s) {
    if (s == PLATFORM_INVALID_SOCKET) return -1;
    return shutdown(static_cast<int>(s), SHUT_RDWR) == 0 ? 0 : fail(errno);
}

int platformListen(const char* host, uint16_t port, platformSocket* out, uint16_t* boundPort) {
    char portText[8];
    snprintf(portText, sizeof portText, "%u", static_cast<unsigned>(port));
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* result = nullptr;
    if (getaddrinfo(host, portText, &hints, &result) != 0 || !result) return fail(EADDRNOTAVAIL);
    int fd = socket(result->ai_family, result->ai_socktype | SOCK_CLOEXEC, result->ai_protocol);
    if (fd < 0) {
        freeaddrinfo(result);
        return fail(errno);
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, result->ai_addr, result->ai_addrlen) != 0 || listen(fd, 64) != 0) {
        int err = errno;
        freeaddrinfo(result);
        close(fd);
        return fail(err);
    }
    freeaddrinfo(result);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
    uint16_t p = bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port
                                             : reinterpret_cast<sockaddr_in*>(&bound)->sin_port;
    if (boundPort) *boundPort = ntohs(p);
    *out = static_cast<platformSocket>(fd);
    return 0;
}

platformSocket platformAccept(platformSocket listener) {
    int fd;
    do {
        fd = accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        lastError = errno;
        return PLATFORM_INVALID_SOCKET;
    }
    return static_cast<platformSocket>(fd);
}

const char* platformGetEnv(const char* name) { return getenv(name); }
