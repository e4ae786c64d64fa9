#include "scheduler.h"

namespace kvlemu {

void WorkerPool::submit(std::function<void()> task) {
    std::lock_guard<std::mutex> lock(m_);
    if (stopping_) return;
    queue_.push_back(std::move(task));
    if (idle_ == 0 && threads_.size() < max_) {
        ++idle_;  // counted idle until it takes a task
        threads_.emplace_back([this] { run(); });
    }
    cv_.notify_one();
}

void WorkerPool::run() {
    std::unique_lock<std::mutex> lock(m_);
    for (;;) {
        cv_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        auto task = std::move(queue_.front());
        queue_.pop_front();
        --idle_;
        lock.unlock();
        task();
        task = nullptr;  // release what it captured before looking idle
        lock.lock();
        ++idle_;
    }
}

void WorkerPool::stop() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_);
        stopping_ = true;
        queue_.clear();
        threads.swap(threads_);
        cv_.notify_all();
    }
    for (auto& t : threads) t.join();
    std::lock_guard<std::mutex> lock(m_);
    idle_ = 0;
}

void WorkerPool::restart() {
    std::lock_guard<std::mutex> lock(m_);
    stopping_ = false;
}

void Timers::after(int ms, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(m_);
    if (stopping_) return;
    due_.emplace(Clock::now() + std::chrono::milliseconds(ms < 0 ? 0 : ms), std::move(action));
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    cv_.notify_one();
}

void Timers::run() {
    std::unique_lock<std::mutex> lock(m_);
    while (!stopping_) {
        if (due_.empty()) {
            cv_.wait(lock);
            continue;
        }
        auto first = due_.begin();
        if (first->first > Clock::now()) {
            cv_.wait_until(lock, first->first);
            continue;
        }
        auto action = std::move(first->second);
        due_.erase(first);
        lock.unlock();
        action();
        action = nullptr;
        lock.lock();
    }
}

void Timers::stop() {
    std::thread t;
    std::multimap<Clock::time_point, std::function<void()>> dropped;
    {
        std::lock_guard<std::mutex> lock(m_);
        stopping_ = true;
        dropped.swap(due_);
        t.swap(thread_);
        cv_.notify_all();
    }
    if (t.joinable()) t.join();
    // `dropped` releases what the actions captured here, outside the lock.
}

void Timers::restart() {
    std::lock_guard<std::mutex> lock(m_);
    stopping_ = false;
}

}  // namespace kvlemu
