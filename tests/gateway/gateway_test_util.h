// What the Gateway connection tests share: the headers they need, a request in
// flight, a scripted Gateway on a bare socket, and checks that nothing was left behind.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "gateway/clapi_gwytok.h"
#include "gateway/clapi_slots.h"
#include "gateway_emulator/emulator.h"
#include "gateway_emulator/wire.h"
#include "impl/clapi_impl.h"
#include "kvlclient.h"
#include "platform/platform.h"
#include "support/trace_capture.h"

namespace gwtest {

using kvltest::TraceCapture;

// Bounded polling for conditions that another thread brings about.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);

// A synchronous call of `program` on a thread of its own, as an application makes
// it. The waits are bounded: a call still waiting after the limit is abandoned.
class InFlightCall {
public:
    InFlightCall(gwTok token, const std::string& program);
    ~InFlightCall();
    InFlightCall(const InFlightCall&) = delete;
    InFlightCall& operator=(const InFlightCall&) = delete;

    // What the call returned; nothing when it did not end within the limit.
    std::optional<int> finish();

    int32_t messageId = 0;  // set by tests that read the request off the wire

private:
    struct State;
    std::shared_ptr<State> state_;
    std::future<int> result_;
    std::optional<int> rc_;
    std::thread thread_;
};

// A Gateway played by the test on a bare socket: it accepts one connection,
// answers the handshake, and then sends whatever the test scripts.
class ScriptedGateway {
public:
    ScriptedGateway();
    ~ScriptedGateway();
    ScriptedGateway(const ScriptedGateway&) = delete;
    ScriptedGateway& operator=(const ScriptedGateway&) = delete;

    uint16_t port() const { return port_; }
    // Accepts and answers the handshake on a thread of its own.
    void acceptAndShakeHands();
    // True once the handshake was answered.
    bool waitReady(int timeoutMs = 10000);
    bool send(const kvlemu::wire::Bytes& bytes);
    // The next whole flow sent by the client (header only is returned).
    bool readHeader(kvlemu::wire::Header& header, int timeoutMs = 10000);
    // The next flow's header; its body is read until nothing more comes for
    // quietMs (a channel request declares more than it sends).
    bool readHeaderAndDrain(kvlemu::wire::Header& header, int quietMs = 200);
    void closePeer();

private:
    platformSocket listener_ = PLATFORM_INVALID_SOCKET;
    platformSocket peer_ = PLATFORM_INVALID_SOCKET;
    uint16_t port_ = 0;
    std::atomic<bool> ready_{false};
    std::thread acceptor_;
};

// A flow the Gateway sends: header and body.
kvlemu::wire::Bytes gatewayFlow(int32_t flowType, int32_t messageId, const std::string& requestType,
                                const kvlemu::wire::Bytes& body, int32_t rc = 0);

bool gtlEmpty();
// Exactly `count` lines of trace point `id`, the first of them holding `fragment`.
::testing::AssertionResult traced(const kvltest::TraceCapture& trace, int id, const std::string& fragment,
                                  size_t count = 1);
// Threads of this process (Linux: /proc/self/task); -1 where it cannot be told.
int processThreadCount();

}  // namespace gwtest
