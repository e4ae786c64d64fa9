#include "gateway_test_util.h"

#include <algorithm>
#include <chrono>

#ifdef __linux__
#include <dirent.h>
#endif

namespace gwtest {

namespace wire = kvlemu::wire;

namespace {
constexpr int kReplyLimitSeconds = 30;

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

struct InFlightCall::State {
    EciParms parms{};
    uint8_t commarea[16] = {};
    std::promise<int> result;
};

InFlightCall::InFlightCall(gwTok token, const std::string& program) : state_(std::make_shared<State>()) {
    EciParms& p = state_->parms;
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    memset(p.eci_program, ' ', sizeof p.eci_program);
    memcpy(p.eci_program, program.data(), std::min(program.size(), sizeof p.eci_program));
    p.eci_commarea = state_->commarea;
    p.eci_commarea_length = sizeof state_->commarea;
    result_ = state_->result.get_future();
    // The thread owns a share of the state: an abandoned call never writes to freed memory.
    thread_ = std::thread([state = state_, token] { state->result.set_value(KVL_ECI_Execute(token, &state->parms)); });
}

InFlightCall::~InFlightCall() {
    if (!finish()) thread_.detach();
}

std::optional<int> InFlightCall::finish() {
    if (thread_.joinable() && result_.wait_for(std::chrono::seconds(kReplyLimitSeconds)) == std::future_status::ready) {
        thread_.join();
        rc_ = result_.get();
    }
    return rc_;
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
        if (send(gatewayFlow(wire::kFlowHandshake, wire::kHandshakeMessageId, "BASE", {}))) ready_ = true;
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

bool ScriptedGateway::readHeaderAndDrain(wire::Header& header, int quietMs) {
    uint8_t fixed[24];
    if (!receiveExactly(peer_, fixed, sizeof fixed, 10000)) return false;
    uint32_t typeLength = (uint32_t{fixed[20]} << 24) | (uint32_t{fixed[21]} << 16) | (uint32_t{fixed[22]} << 8) | fixed[23];
    if (typeLength > wire::kMaxRequestTypeLength) return false;
    wire::Bytes raw(fixed, fixed + sizeof fixed);
    raw.resize(sizeof fixed + typeLength + 5);
    if (!receiveExactly(peer_, raw.data() + sizeof fixed, typeLength + 5, 10000)) return false;
    wire::MemorySource source(raw);
    std::string error;
    if (!wire::decodeHeader(source, header, error)) return false;
    uint8_t scratch[4096];
    platformSetNonBlocking(peer_, true);
    for (int quiet = 0; quiet < quietMs; quiet += 20) {
        if (platformRecv(peer_, scratch, sizeof scratch) > 0) {
            quiet = 0;
            continue;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    platformSetNonBlocking(peer_, false);
    return true;
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

::testing::AssertionResult traced(const kvltest::TraceCapture& trace, int id, const std::string& fragment,
                                  size_t count) {
    auto lines = trace.linesWithId(id);
    if (lines.size() != count) return ::testing::AssertionFailure() << lines.size() << " lines of trace point " << id;
    if (count && lines[0].find(fragment) == std::string::npos) return ::testing::AssertionFailure() << lines[0];
    return ::testing::AssertionSuccess();
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
