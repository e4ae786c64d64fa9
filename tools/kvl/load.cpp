#include "load.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "output.h"
#include "platform.h"

namespace kvlcli {

namespace {

using Clock = std::chrono::steady_clock;

double quantile(const std::vector<double>& sorted, double q) {
    if (sorted.empty()) return 0;
    size_t i = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(i, sorted.size() - 1)];
}

}  // namespace

int runLoad(kvl::Connection& conn, const CallArgs& a, const std::string& data, bool json) {
    std::atomic<int> next{0}, done{0};
    std::mutex mutex;
    std::vector<double> latencies;
    std::map<int, int> failures;  // rc -> count
    latencies.reserve(static_cast<size_t>(a.repeat));
    int threads = std::min(a.concurrency, a.repeat);
    auto start = Clock::now();
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&] {
            std::vector<double> mine;
            std::map<int, int> myFailures;
            while (next.fetch_add(1) < a.repeat) {
                auto t0 = Clock::now();
                try {
                    conn.call(a.program, data, a.options);
                    mine.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
                } catch (const kvl::Error& e) {
                    ++myFailures[e.rc()];
                }
                ++done;
            }
            std::lock_guard<std::mutex> lock(mutex);
            latencies.insert(latencies.end(), mine.begin(), mine.end());
            for (auto [rc, n] : myFailures) failures[rc] += n;
        });
    }
    bool progress = stderrIsTerminal() && !json;
    while (progress && done.load() < a.repeat) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        double s = std::chrono::duration<double>(Clock::now() - start).count();
        std::fprintf(stderr, "\r%d/%d calls, %.0f calls/s   ", done.load(), a.repeat, s > 0 ? done.load() / s : 0.0);
    }
    for (auto& w : workers) w.join();
    if (progress) std::fprintf(stderr, "\r%*s\r", 60, "");
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::sort(latencies.begin(), latencies.end());
    int failed = 0;
    for (auto [rc, n] : failures) failed += n;
    double rate = seconds > 0 ? a.repeat / seconds : 0;
    if (json) {
        Json errors = Json::array();
        for (auto [rc, n] : failures) errors.push_back(Json{{"rc", rc}, {"name", kvl::rc_name(rc)}, {"count", n}});
        Json j{{"program", a.program},
               {"calls", a.repeat},
               {"concurrency", threads},
               {"failed", failed},
               {"seconds", seconds},
               {"callsPerSecond", rate},
               {"latencyMs",
                Json{{"p50", quantile(latencies, 0.5)},
                     {"p90", quantile(latencies, 0.9)},
                     {"p99", quantile(latencies, 0.99)},
                     {"max", latencies.empty() ? 0.0 : latencies.back()}}},
               {"errors", errors}};
        std::cout << j.dump() << std::endl;
    } else {
        std::printf("%s: %d calls, %d threads, %d failed, %.3f s, %.1f calls/s\n", a.program.c_str(), a.repeat,
                    threads, failed, seconds, rate);
        std::printf("latency ms: p50 %.3f  p90 %.3f  p99 %.3f  max %.3f\n", quantile(latencies, 0.5),
                    quantile(latencies, 0.9), quantile(latencies, 0.99), latencies.empty() ? 0.0 : latencies.back());
        for (auto [rc, n] : failures) std::printf("  %d x %s (%d)\n", n, kvl::rc_name(rc).c_str(), rc);
    }
    if (failed == 0) return kExitOk;
    return exitClass(failures.begin()->first);
}

}  // namespace kvlcli
