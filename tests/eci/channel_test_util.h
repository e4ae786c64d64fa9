// Helpers for the channel tests: a thread that is waited for with a limit, and a
// bounded wait for a trace line written by another thread.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>

#include "trace_capture.h"

namespace kvltest {

constexpr auto kWaitLimit = std::chrono::seconds(10);

class BoundedThread {
public:
    explicit BoundedThread(std::function<int()> fn) {
        auto promise = std::make_shared<std::promise<int>>();
        result_ = promise->get_future();
        thread_ = std::thread([promise, fn] { promise->set_value(fn()); });
    }
    ~BoundedThread() {
        if (thread_.joinable()) thread_.detach();
    }
    bool finished() const { return result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    // The thread's result, or nothing when it did not finish in time (it is then abandoned).
    std::optional<int> join() {
        if (result_.wait_for(kWaitLimit) != std::future_status::ready) return std::nullopt;
        thread_.join();
        return result_.get();
    }

private:
    std::thread thread_;
    std::future<int> result_;
};

// True once the trace holds at least `count` lines of trace point `id`.
inline bool waitForTrace(const TraceCapture& trace, int id, size_t count = 1) {
    auto deadline = std::chrono::steady_clock::now() + kWaitLimit;
    while (trace.linesWithId(id).size() < count) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace kvltest
