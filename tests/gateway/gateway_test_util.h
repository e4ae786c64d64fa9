// Helpers for the connection tests: a request in flight driven through the
// internal API (standing in for the ECI layer), a scripted Gateway on a bare
// socket, and checks that nothing was left behind.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "gateway/clapi_gwytok.h"
#include "gateway_emulator/wire.h"
#include "platform/platform.h"

namespace gwtest {

// Bounded polling for conditions that another thread brings about.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10000);

// One request on a token, as the ECI layer will send it: registered, in a slot,
// the request flow sent under the send lock, the reply awaited on the slot's
// event by a thread of its own. The wait is bounded, so a test never hangs.
class InFlightCall {
public:
    InFlightCall(kvlGatewayToken* token, const std::string& program, int commareaLength = 16, short callType = 1);
    ~InFlightCall();
    InFlightCall(const InFlightCall&) = delete;
    InFlightCall& operator=(const InFlightCall&) = delete;

    int registerRc() const { return registerRc_; }
    int sendRc() const { return sendRc_; }
    int32_t messageId() const { return messageId_; }
    // Joins the waiting thread; false when no reply came within the limit.
    bool finish();
    bool done() const { return done_.load(); }

    int32_t replyRc = 0;
    int32_t bodyRc = 0;
    std::string abend;          // the slot's eci_abend after the reply
    int32_t inboundLength = 0;  // the slot's commarea_inbound_length after the reply
    bool queued = false;        // the slot was on the async reply queue when the caller woke
    bool timedOut = false;
    std::vector<uint8_t> commarea;

private:
    kvlGatewayToken* token_;
    clapiSlot* slot_ = nullptr;
    int registerRc_ = 0;
    int sendRc_ = 0;
    int32_t messageId_ = 0;
    std::atomic<bool> done_{false};
    std::thread waiter_;
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
// Threads of this process (Linux: /proc/self/task); -1 where it cannot be told.
int processThreadCount();

}  // namespace gwtest
