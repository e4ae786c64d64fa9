// Holding a library thread at a named test point (impl/clapi_testhook.h), so
// that a test can open the gap between two steps deterministically. Only
// builds with KVL_TEST_HOOKS have test points; elsewhere tests that need them skip.
#pragma once

#include <memory>
#include <string>

namespace kvltest {

// Threads reaching `point` stop there until release() (or the gate goes); a
// stopped thread also goes on by itself after a limit, so a test never hangs.
class TestPointGate {
public:
    explicit TestPointGate(std::string point, int holdLimitMs = 15000);
    ~TestPointGate();
    TestPointGate(const TestPointGate&) = delete;
    TestPointGate& operator=(const TestPointGate&) = delete;

    // True once a thread has reached the point (within timeoutMs).
    bool waitArrived(int timeoutMs = 10000);
    // Lets every held thread go on, and every later one pass.
    void release();

    struct State;

private:
    std::shared_ptr<State> state_;
};

// Whether this build has test points.
bool testPointsAvailable();

}  // namespace kvltest
