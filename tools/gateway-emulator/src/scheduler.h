// Where the emulator runs work that must not hold up a connection's reader:
// a small pool of reused threads for programs that may block, and one timer
// thread for replies sent later (delays, gates). No thread is started per request.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kvlemu {

class WorkerPool {
public:
    explicit WorkerPool(size_t maxThreads) : max_(maxThreads) {}
    ~WorkerPool() { stop(); }
    // Runs the task on an idle thread, a new one while fewer than the maximum
    // run, else queues it. After stop() tasks are dropped.
    void submit(std::function<void()> task);
    // Lets running tasks finish, drops queued ones, joins every thread.
    void stop();
    void restart();

private:
    void run();

    std::mutex m_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> queue_;
    std::vector<std::thread> threads_;
    size_t idle_ = 0;
    size_t max_;
    bool stopping_ = false;
};

class Timers {
public:
    using Clock = std::chrono::steady_clock;
    ~Timers() { stop(); }
    // Runs `action` on the timer thread once `ms` milliseconds have passed.
    void after(int ms, std::function<void()> action);
    // Drops every pending action and joins the thread.
    void stop();
    void restart();

private:
    void run();

    std::mutex m_;
    std::condition_variable cv_;
    std::multimap<Clock::time_point, std::function<void()>> due_;
    std::thread thread_;
    bool stopping_ = false;
};

}  // namespace kvlemu
