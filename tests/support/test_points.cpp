#include "test_points.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "impl/clapi_testhook.h"

namespace kvltest {

struct TestPointGate::State {
    std::string point;
    int holdLimitMs;
    std::mutex mutex;
    std::condition_variable changed;
    bool arrived = false;
    bool released = false;
};

namespace {
std::mutex registryMutex;
std::vector<std::shared_ptr<TestPointGate::State>> registry;

[[maybe_unused]] void onTestPoint(const char* point) {
    std::shared_ptr<TestPointGate::State> gate;
    {
        std::lock_guard<std::mutex> lock(registryMutex);
        for (auto& g : registry)
            if (g->point == point) gate = g;
    }
    if (!gate) return;
    std::unique_lock<std::mutex> lock(gate->mutex);
    gate->arrived = true;
    gate->changed.notify_all();
    gate->changed.wait_for(lock, std::chrono::milliseconds(gate->holdLimitMs), [&] { return gate->released; });
}
}  // namespace

bool testPointsAvailable() {
#ifdef KVL_TEST_HOOKS
    return true;
#else
    return false;
#endif
}

TestPointGate::TestPointGate(std::string point, int holdLimitMs) : state_(std::make_shared<State>()) {
    state_->point = std::move(point);
    state_->holdLimitMs = holdLimitMs;
    std::lock_guard<std::mutex> lock(registryMutex);
    registry.push_back(state_);
#ifdef KVL_TEST_HOOKS
    clapiTestHook = onTestPoint;
#endif
}

TestPointGate::~TestPointGate() {
    release();
    std::lock_guard<std::mutex> lock(registryMutex);
    registry.erase(std::remove(registry.begin(), registry.end(), state_), registry.end());
}

bool TestPointGate::waitArrived(int timeoutMs) {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return state_->arrived; });
}

void TestPointGate::release() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->released = true;
    state_->changed.notify_all();
}

}  // namespace kvltest
