// What the ECI and channel tests share: the headers they need, bounded waits,
// trace checks, parameter blocks and a connection to an in-process Gateway emulator.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "eci/clapi_channel.h"
#include "eci/clapi_eciparms.h"
#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/emulator.h"
#include "impl/clapi_impl.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvlclient.h"
#include "platform/platform.h"
#include "trace_capture.h"

namespace ecitest {

using kvltest::TraceCapture;

constexpr int kWaitMs = 10000;  // bound for what must happen

using Bytes = std::vector<uint8_t>;

inline bool waitUntil(const std::function<bool()>& condition, int timeoutMs = kWaitMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// True once the trace holds at least `count` lines of trace point `id`.
inline bool waitForTrace(const TraceCapture& trace, int id, size_t count = 1) {
    return waitUntil([&] { return trace.linesWithId(id).size() >= count; });
}

// Exactly `count` lines of trace point `id`, the first of them holding `fragment`
// (or, for tracedAs, one line whose message is exactly `message`).
inline ::testing::AssertionResult traced(const TraceCapture& trace, int id, const std::string& fragment,
                                         size_t count = 1, bool exact = false) {
    auto lines = trace.linesWithId(id);
    if (lines.size() != count) return ::testing::AssertionFailure() << lines.size() << " lines of trace point " << id;
    bool matches = exact ? kvltest::traceMessage(lines[0]) == fragment : lines[0].find(fragment) != std::string::npos;
    if (count && !matches) return ::testing::AssertionFailure() << lines[0];
    return ::testing::AssertionSuccess();
}
inline ::testing::AssertionResult tracedAs(const TraceCapture& trace, int id, const std::string& message) {
    return traced(trace, id, message, 1, true);
}

// A call on a thread of its own. Unlike a std::async future it never blocks the
// test on destruction: a thread that did not finish in time is abandoned.
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
    // Still running a little while after the call: it waits for something.
    bool blocked() { return result_.wait_for(std::chrono::milliseconds(50)) == std::future_status::timeout; }
    // The thread's result, or nothing when it did not finish in time.
    std::optional<int> join() {
        if (result_.wait_for(std::chrono::milliseconds(kWaitMs)) != std::future_status::ready) return std::nullopt;
        thread_.join();
        return result_.get();
    }

private:
    std::thread thread_;
    std::future<int> result_;
};

// A fixed-width field filled from text and padded with blanks.
template <size_t N>
void setField(char (&field)[N], const std::string& text) {
    memset(field, ' ', N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

// A version 6 block for a call of `program` with the given COMMAREA (none when empty).
inline EciParms callParms(short callType, const std::string& program, std::vector<uint8_t>& area) {
    EciParms p{};
    p.eci_call_type = callType;
    p.eci_version = 6;
    setField(p.eci_program, program);
    setField(p.eci_tran_id, "TRN1");
    setField(p.eci_server_name, "EMUSRV");
    p.eci_commarea = area.empty() ? nullptr : area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    return p;
}

inline EciParms retrievalParms(short callType, std::vector<uint8_t>& area, int msgQual = 0) {
    EciParms p{};
    p.eci_call_type = callType;
    p.eci_version = 6;
    p.eci_commarea = area.empty() ? nullptr : area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    p.eci_msg_qual = msgQual;
    return p;
}

inline Bytes pattern(size_t length, uint8_t seed) {
    Bytes b(length);
    for (size_t i = 0; i < length; ++i) b[i] = static_cast<uint8_t>(seed + i * 7 + i / 251);
    return b;
}

inline Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
// The NUL-terminated text at the start of a COMMAREA.
inline std::string cstr(const Bytes& b) {
    auto* c = reinterpret_cast<const char*>(b.data());
    return std::string(c, strnlen(c, b.size()));
}

// A running emulator and one open connection to it.
class EmulatorConnection : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError();
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", emu.port(), &token, 10), KVL_OK);
    }

    void TearDown() override {
        emu.openGate();
        if (token) {
            EXPECT_EQ(apiCalls(), 0) << "a call was left registered";
            EXPECT_EQ(KVL_purgeGatewayConnection(&token, 0), KVL_OK);
        }
        emu.stop();
    }

    int execute(EciParms& p) { return KVL_ECI_Execute(token, &p); }
    // A retrieval into `area`; the block as it comes back is left in `got`.
    int retrieve(short callType, Bytes& area, int msgQual = 0) {
        got = retrievalParms(callType, area, msgQual);
        return execute(got);
    }
    // An ECI call on a thread of its own, for calls that are meant to wait.
    std::unique_ptr<BoundedThread> executeLater(EciParms* p) {
        return std::make_unique<BoundedThread>([this, p] { return KVL_ECI_Execute(token, p); });
    }

    // The ECI requests the emulator received, oldest first.
    std::vector<kvlemu::RecordedFlow> eciFlows() const {
        std::vector<kvlemu::RecordedFlow> out;
        for (auto& f : emu.recordedFlows())
            if (f.kind == kvlemu::RecordedFlow::Kind::EciCall) out.push_back(f);
        return out;
    }

    // Token fields read under the locks that guard them.
    template <typename F>
    static int32_t underLock(clapiLock* lock, F read) {
        clapiRequestLock(lock);
        int32_t value = read();
        clapiReleaseLock(lock);
        return value;
    }
    int32_t asyncCount() { return underLock(&token->tableLock, [&] { return token->asyncRequestCount; }); }
    int32_t apiCalls() { return underLock(&clapiGtlLock, [&] { return token->apiCallCount; }); }
    int32_t slotState(int32_t number) {
        return underLock(&token->tableLock, [&] {
            clapiSlot* s = slotByNumber(&token->requestTable, number);
            return s ? s->state : -1;
        });
    }

    // Breaks the connection from the Gateway's side and waits until the library noticed.
    void loseConnection() {
        ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
        ASSERT_TRUE(waitUntil([this] { return token->connStatus.load() == CONN_LOST; }));
    }

    kvlemu::Emulator emu;
    gwTok token = nullptr;
    EciParms got{};
};

}  // namespace ecitest
