#include "gateway_test_util.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "impl/clapi_impl.h"

#ifdef __linux__
#include <dirent.h>
#endif

namespace gwtest {

namespace wire = kvlemu::wire;

namespace {
constexpr uint32_t kReplyLimitSeconds = 60;

bool receiveExactly(platformSocket s, uint8_t* data, size_t n, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t got = 0;
    while (got < n) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        if (platformWaitReadable(s, 1) <= 0) continue;
        long long r = platformRecv(s, data + got, n - got);
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}
}  // namespace

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

InFlightCall::InFlightCall(kvlGatewayToken* token, const std::string& program, int commareaLength, short callType)
    : token_(token) {
    registerRc_ = clapiRegisterRequest(token);
    if (registerRc_ != 0) {
        done_ = true;
        return;
    }
    commarea.assign(static_cast<size_t>(commareaLength), 0);
    clapiRequestLock(&token->tableLock);
    sendRc_ = slotFind(&token->requestTable, 0, &slot_);
    if (sendRc_ == 0) {
        messageId_ = slot_->number;
        slot_->request.eci_call_type = callType;
        slot_->request.eci_commarea = commarea.data();
        slot_->request.eci_commarea_length = static_cast<short>(commareaLength);
        slot_->replyCapacity = commarea.size();
        memset(slot_->request.eci_program, ' ', sizeof slot_->request.eci_program);
        memcpy(slot_->request.eci_program, program.data(), std::min(program.size(), sizeof slot_->request.eci_program));
        clapiSetEvent(&slot_->event);
        slot_->state = SLOT_SENT;
    }
    clapiReleaseLock(&token->tableLock);

    if (sendRc_ == 0) {
        flowHeader header;
        clapiInitFlowHeader(&header, FLOW_REQUEST, messageId_, "ECI");
        EciRequest request{};
        request.requestType = ECI_REQUEST_CALL;
        memcpy(request.program, slot_->request.eci_program, sizeof request.program);
        request.commareaLength = commareaLength;
        request.commarea = commarea.data();
        request.optionalBlocks = -1;
        request.correlator = static_cast<int32_t>(getNextCorrelator());
        clapiRequestLock(&token->sendLock);
        sendRc_ = clapiFlowECIRequest(token->socket.load(), &header, &request);
        clapiReleaseLock(&token->sendLock);
    }
    if (sendRc_ != 0) {
        clapiRequestLock(&token->tableLock);
        if (slot_) slotFree(&token->requestTable, slot_);
        clapiReleaseLock(&token->tableLock);
        clapiUnregisterRequest(token);
        done_ = true;
        return;
    }
    waiter_ = std::thread([this] {
        uint32_t expired = 0;
        clapiTimedWaitEvent(&slot_->event, kReplyLimitSeconds, &expired);
        timedOut = expired != 0;
        clapiRequestLock(&token_->tableLock);
        replyRc = slot_->replyRc;
        bodyRc = slot_->bodyRc;
        abend.assign(slot_->request.eci_abend, sizeof slot_->request.eci_abend);
        inboundLength = slot_->request.commarea_inbound_length;
        // An asynchronous reply is taken off the queue, as get-reply would.
        clapiSlot** link = &token_->asyncQueueHead;
        clapiSlot* previous = nullptr;
        while (*link && *link != slot_) {
            previous = *link;
            link = &(*link)->queueNext;
        }
        queued = *link != nullptr;
        if (*link) {
            *link = slot_->queueNext;
            if (token_->asyncQueueTail == slot_) token_->asyncQueueTail = previous;
        }
        slotFree(&token_->requestTable, slot_);
        clapiReleaseLock(&token_->tableLock);
        clapiUnregisterRequest(token_);
        done_ = true;
    });
}

InFlightCall::~InFlightCall() { finish(); }

bool InFlightCall::finish() {
    if (waiter_.joinable()) waiter_.join();
    return !timedOut;
}

ScriptedGateway::ScriptedGateway() { platformListen("127.0.0.1", 0, &listener_, &port_); }

ScriptedGateway::~ScriptedGateway() {
    closePeer();
    if (acceptor_.joinable()) acceptor_.join();
    if (listener_ != PLATFORM_INVALID_SOCKET) platformCloseSocket(listener_);
    if (peer_ != PLATFORM_INVALID_SOCKET) platformCloseSocket(peer_);
}

void ScriptedGateway::acceptAndShakeHands() {
    acceptor_ = std::thread([this] {
        if (platformWaitReadable(listener_, 10) <= 0) return;
        peer_ = platformAccept(listener_);
        wire::Header header;
        if (peer_ == PLATFORM_INVALID_SOCKET || !readHeader(header)) return;
        wire::Header answer;
        answer.flowType = wire::kFlowHandshake;
        answer.messageId = wire::kHandshakeMessageId;
        answer.requestType = "BASE";
        if (send(wire::encodeFlow(answer, {}))) ready_ = true;
    });
}

bool ScriptedGateway::waitReady(int timeoutMs) {
    return waitUntil([this] { return ready_.load(); }, timeoutMs);
}

bool ScriptedGateway::send(const wire::Bytes& bytes) {
    return platformSend(peer_, bytes.data(), bytes.size()) == static_cast<long long>(bytes.size());
}

bool ScriptedGateway::readHeader(wire::Header& header, int timeoutMs) {
    uint8_t fixed[24];
    if (!receiveExactly(peer_, fixed, sizeof fixed, timeoutMs)) return false;
    uint32_t typeLength = (uint32_t{fixed[20]} << 24) | (uint32_t{fixed[21]} << 16) | (uint32_t{fixed[22]} << 8) | fixed[23];
    if (typeLength > wire::kMaxRequestTypeLength) return false;
    wire::Bytes raw(fixed, fixed + sizeof fixed);
    raw.resize(sizeof fixed + typeLength + 5);
    if (!receiveExactly(peer_, raw.data() + sizeof fixed, typeLength + 5, timeoutMs)) return false;
    wire::MemorySource source(raw);
    std::string error;
    if (!wire::decodeHeader(source, header, error)) return false;
    wire::Bytes body(header.bodyLength);
    return receiveExactly(peer_, body.data(), body.size(), timeoutMs);
}

void ScriptedGateway::closePeer() {
    if (peer_ != PLATFORM_INVALID_SOCKET) platformShutdownSocket(peer_);
}

wire::Bytes gatewayFlow(int32_t flowType, int32_t messageId, const std::string& requestType, const wire::Bytes& body,
                        int32_t rc) {
    wire::Header header;
    header.flowType = flowType;
    header.messageId = messageId;
    header.rc = rc;
    header.requestType = requestType;
    return wire::encodeFlow(header, body);
}

bool gtlEmpty() {
    clapiRequestLock(&clapiGtlLock);
    bool empty = gtlHead() == nullptr;
    clapiReleaseLock(&clapiGtlLock);
    return empty;
}

int processThreadCount() {
#ifdef __linux__
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return -1;
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
    return count;
#else
    return -1;
#endif
}

}  // namespace gwtest
