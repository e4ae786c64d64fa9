#include "perf_measure.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Counting allocations: the suite's executable interposes the allocator's entry
// points and forwards to the C library's own, so every allocation of the process
// (library, standard library, reader threads) is seen.
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
}

namespace {
std::atomic<uint64_t> allocationCount{0};
}

extern "C" void* malloc(size_t n) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(n);
}
extern "C" void* calloc(size_t n, size_t m) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(n, m);
}
extern "C" void* realloc(void* p, size_t n) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(p, n);
}

namespace kvlperf {

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int64_t cpuNs() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    auto ns = [](const timeval& t) { return int64_t{t.tv_sec} * 1000000000 + int64_t{t.tv_usec} * 1000; };
    return ns(u.ru_utime) + ns(u.ru_stime);
}

int64_t contextSwitches() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_nvcsw + u.ru_nivcsw;
}

namespace {
// The value of a "Name:   value" line of a /proc status file.
int64_t statusField(const char* path, const char* name) {
    FILE* f = fopen(path, "r");
    if (!f) return 0;
    char line[256];
    int64_t value = 0;
    size_t n = strlen(name);
    while (fgets(line, sizeof line, f)) {
        if (strncmp(line, name, n) == 0) {
            value = strtoll(line + n, nullptr, 10);
            break;
        }
    }
    fclose(f);
    return value;
}
}  // namespace

int64_t rssKb() { return statusField("/proc/self/status", "VmRSS:"); }

int64_t threadWakeups() {
    DIR* d = opendir("/proc/self/task");
    if (!d) return 0;
    int64_t total = 0;
    const long self = static_cast<long>(gettid());
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.' || strtol(e->d_name, nullptr, 10) == self) continue;
        char path[300];
        snprintf(path, sizeof path, "/proc/self/task/%s/status", e->d_name);
        total += statusField(path, "voluntary_ctxt_switches:") + statusField(path, "nonvoluntary_ctxt_switches:");
    }
    closedir(d);
    return total;
}

int64_t processCpuNs(int pid) {
    char dir[64];
    snprintf(dir, sizeof dir, "/proc/%d/task", pid);
    DIR* d = opendir(dir);
    if (!d) return -1;
    int64_t total = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        char path[400];
        snprintf(path, sizeof path, "%s/%s/schedstat", dir, e->d_name);
        FILE* f = fopen(path, "r");
        long long onCpu = 0;
        if (f && fscanf(f, "%lld", &onCpu) == 1) total += onCpu;
        if (f) fclose(f);
    }
    closedir(d);
    return total;
}

uint64_t allocations() { return allocationCount.load(std::memory_order_relaxed); }

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    size_t k = static_cast<size_t>(p / 100.0 * static_cast<double>(v.size() - 1) + 0.5);
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return v[k];
}

double median(std::vector<double> v) { return percentile(std::move(v), 50); }

void raiseFileLimit() {
    rlimit r{};
    if (getrlimit(RLIMIT_NOFILE, &r) == 0 && r.rlim_cur < r.rlim_max) {
        r.rlim_cur = r.rlim_max;
        setrlimit(RLIMIT_NOFILE, &r);
    }
}

}  // namespace kvlperf
