// Emulator lifecycle, configuration, gates and the wait functions tests use.
#include <algorithm>
#include <chrono>

#include "emulator_impl.h"

namespace kvlemu {

namespace {
constexpr int kAcceptPollMs = 100;

std::string wireName(const std::string& name) { return wire::fieldText(name.substr(0, 8)); }
}  // namespace

// ---------------------------------------------------------------------------
// Small value helpers.

ProgramResult ProgramResult::echo(const ProgramCall& call) {
    ProgramResult r;
    r.commarea = call.commarea;
    return r;
}

Fault Fault::exception(std::string text, std::optional<int32_t> id) {
    Fault f = of(Kind::Exception);
    f.text = std::move(text);
    f.messageId = id;
    return f;
}

Fault Fault::errorFlow(int32_t code, std::optional<int32_t> id) {
    Fault f = of(Kind::ErrorFlow);
    f.rc = code;
    f.messageId = id;
    return f;
}

Fault Fault::strayReply(int32_t id) {
    Fault f = of(Kind::StrayReply);
    f.messageId = id;
    return f;
}

Fault Fault::garbage(wire::Bytes bytes) {
    Fault f = of(Kind::Garbage);
    if (bytes.empty()) {
        const std::string text = "This is not a flow header at all......!!";
        bytes.assign(text.begin(), text.end());
    }
    f.bytes = std::move(bytes);
    return f;
}

Fault Fault::pingStorm(int count) {
    Fault f = of(Kind::PingStorm);
    f.count = count;
    return f;
}

Fault Fault::delay(int milliseconds) {
    Fault f = of(Kind::Delay);
    f.delayMs = milliseconds;
    return f;
}

const char* faultKindName(Fault::Kind kind) {
    switch (kind) {
        case Fault::Kind::Ping: return "ping";
        case Fault::Kind::Exception: return "exception";
        case Fault::Kind::ErrorFlow: return "error";
        case Fault::Kind::CloseFlow: return "close";
        case Fault::Kind::StrayReply: return "stray";
        case Fault::Kind::Garbage: return "garbage";
        case Fault::Kind::Drop: return "drop";
        case Fault::Kind::DropMidReply: return "drop-mid-reply";
        case Fault::Kind::NoReply: return "no-reply";
        case Fault::Kind::PingStorm: return "ping-storm";
        case Fault::Kind::Delay: return "delay";
    }
    return "?";
}

wire::EsiDetails User::defaultDetails() {
    // Wire order: first time, third time, second time, count.
    return {2024, 4, 1, 12, 30, 45, 0,   //
            2024, 3, 15, 8, 0, 0, 0,     //
            2024, 6, 30, 23, 59, 59, 0,  //
            2};
}

const char* recordedKindName(RecordedFlow::Kind kind) {
    switch (kind) {
        case RecordedFlow::Kind::Handshake: return "HANDSHAKE";
        case RecordedFlow::Kind::Close: return "CLOSE";
        case RecordedFlow::Kind::EciCall: return "ECI";
        case RecordedFlow::Kind::ListSystems: return "LISTSYSTEMS";
        case RecordedFlow::Kind::Esi: return "ESI";
        case RecordedFlow::Kind::Malformed: return "MALFORMED";
        default: return "OTHER";
    }
}

// ---------------------------------------------------------------------------
// Lifecycle.

Emulator::Emulator() : impl_(std::make_unique<Impl>()) {
    for (const auto& name : builtinProgramNames()) impl_->programs[name] = builtinProgram(name);
    impl_->servers.push_back({"EMUSRV", "Gateway emulator server", false});
}

Emulator::~Emulator() { stop(); }

bool Emulator::start(const std::string& address, uint16_t port) {
    std::lock_guard<std::mutex> lock(impl_->m);
    if (impl_->started) {
        impl_->lastError = "already started";
        return false;
    }
    std::string error;
    uint16_t bound = 0;
    net::Socket s = net::listenOn(address, port, &bound, &error);
    if (s == net::kInvalidSocket) {
        impl_->lastError = error;
        return false;
    }
    impl_->listener = s;
    impl_->boundPort = bound;
    impl_->started = true;
    impl_->stopping = false;
    impl_->pool.restart();
    impl_->timers.restart();
    impl_->acceptThread = std::thread([this] { impl_->acceptLoop(); });
    return true;
}

uint16_t Emulator::port() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->boundPort;
}

std::string Emulator::lastError() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->lastError;
}

bool Emulator::running() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->started && !impl_->stopping;
}

void Emulator::stop() {
    std::vector<std::shared_ptr<Connection>> conns;
    {
        std::lock_guard<std::mutex> lock(impl_->m);
        if (!impl_->started) return;
        impl_->stopping = true;
        conns = impl_->live;
        impl_->cv.notify_all();
    }
    if (impl_->acceptThread.joinable()) impl_->acceptThread.join();
    for (auto& c : conns) impl_->drop(*c, "emulator stopping");
    for (auto& c : conns)
        if (c->reader.joinable()) c->reader.join();
    // Programs on the pool see `stopping` in their waits and return; replies
    // waiting for a timer or a gate are dropped with the connections they hold.
    impl_->pool.stop();
    impl_->timers.stop();
    std::vector<std::function<void()>> held;
    {
        std::lock_guard<std::mutex> lock(impl_->m);
        for (auto& [name, gate] : impl_->gates)
            for (auto& h : gate.held) held.push_back(std::move(h));
    }
    held.clear();
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->live.clear();
    net::closeSocket(impl_->listener);
    impl_->listener = net::kInvalidSocket;
    impl_->started = false;
    for (auto& [name, gate] : impl_->gates) {
        gate.waiters = 0;
        gate.held.clear();
    }
    impl_->cv.notify_all();
}

void Emulator::Impl::acceptLoop() {
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m);
            if (stopping) return;
            reapFinished();
        }
        std::string peer;
        net::Socket s = net::acceptWithin(listener, kAcceptPollMs, &peer);
        if (s == net::kInvalidSocket) continue;
        std::function<std::unique_ptr<Stream>(net::Socket)> open;  // as set when the client came (setTls)
        {
            std::lock_guard<std::mutex> lock(m);
            open = openStream;
        }
        auto conn = std::make_shared<Connection>();
        conn->stream = open(s);
        {
            std::lock_guard<std::mutex> lock(m);
            if (stopping) return;  // the stream closes the socket
            conn->index = static_cast<int>(infos.size());
            ConnectionInfo info;
            info.index = conn->index;
            info.peer = peer;
            info.open = true;
            infos.push_back(info);
            live.push_back(conn);
            conn->reader = std::thread([this, conn] { serve(conn); });
            cv.notify_all();
        }
        log(1, "conn " + std::to_string(conn->index) + " accepted from " + peer);
    }
}

void Emulator::Impl::reapFinished() {
    for (auto it = live.begin(); it != live.end();) {
        auto& c = **it;
        if (c.readerDone) {
            // A finished thread: the join returns at once. Work still queued
            // for the connection holds it until done.
            if (c.reader.joinable()) c.reader.join();
            it = live.erase(it);
        } else {
            ++it;
        }
    }
}

// ---------------------------------------------------------------------------
// Configuration.

void Emulator::setHandshake(HandshakeMode mode, int32_t refuseRc) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->handshakeMode = mode;
    impl_->refuseRc = refuseRc;
}

void Emulator::registerProgram(const std::string& name, Program program, ProgramRuns runs) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->programs[wireName(name)] = std::move(program);
    impl_->programRuns[wireName(name)] = runs;
}

void Emulator::unregisterProgram(const std::string& name) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->programs.erase(wireName(name));
    impl_->programRuns.erase(wireName(name));
}

void Emulator::reconfigure(const Setup& setup) {
    std::map<std::string, Program> programs;
    std::map<std::string, ProgramRuns> runs;
    for (const auto& name : builtinProgramNames()) programs[name] = builtinProgram(name);
    for (const auto& p : setup.programs) {
        programs[wireName(p.name)] = p.program;
        runs[wireName(p.name)] = p.runs;
    }
    std::map<std::string, User> users;
    for (const auto& u : setup.users) users[u.userid] = u;
    std::vector<ServerInfo> servers = setup.servers;
    for (auto& s : servers) s.name = wireName(s.name);
    std::vector<Impl::Trigger> triggers;
    for (auto rule : setup.faults) {
        if (rule.trigger.rfind('*', 0) != 0) rule.trigger = wireName(rule.trigger);
        triggers.push_back({rule, 0});
    }
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->programs.swap(programs);
    impl_->programRuns.swap(runs);
    impl_->users.swap(users);
    impl_->servers.swap(servers);
    impl_->triggers.swap(triggers);
    impl_->handshakeMode = setup.handshake;
    impl_->refuseRc = setup.refuseRc;
    impl_->maxBodyLength = setup.maxBodyLength;
    // The old values are destroyed here, after the swap: a program in flight
    // keeps its own copy of its function.
}

void Emulator::addServer(const ServerInfo& server) {
    std::lock_guard<std::mutex> lock(impl_->m);
    ServerInfo s = server;
    s.name = wireName(s.name);
    impl_->servers.push_back(s);
}

void Emulator::clearServers() {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->servers.clear();
}

void Emulator::addUser(const User& user) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->users[user.userid] = user;
}

void Emulator::removeUser(const std::string& userid) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->users.erase(userid);
}

std::optional<User> Emulator::user(const std::string& userid) const {
    std::lock_guard<std::mutex> lock(impl_->m);
    auto it = impl_->users.find(userid);
    if (it == impl_->users.end()) return std::nullopt;
    return it->second;
}

void Emulator::setMaxBodyLength(uint32_t bytes) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->maxBodyLength = bytes;
}

void Emulator::setRecordLimit(size_t count) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->recordLimit = count;
    while (impl_->flows.size() > count) impl_->flows.pop_front();
}

void Emulator::setLog(LogSink sink, int verbosity) {
    std::lock_guard<std::mutex> lock(impl_->logMutex);
    impl_->logSink = std::move(sink);
    impl_->verbosity = verbosity;
}

void Emulator::setFlowTap(FlowTap tap) {
    std::lock_guard<std::mutex> lock(impl_->logMutex);
    impl_->flowTap = std::move(tap);
    impl_->tapping = static_cast<bool>(impl_->flowTap);
}

void Emulator::setReplySource(ReplySource source) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->replySource = std::move(source);
}

void Emulator::Impl::tap(const Connection& conn, bool inbound, const wire::Bytes& flow) {
    if (!tapping) return;  // a tap set meanwhile sees the next flow
    std::lock_guard<std::mutex> lock(logMutex);
    if (flowTap) flowTap(conn.index, inbound, flow);
}

void Emulator::Impl::log(int level, const std::string& line, const wire::Bytes* dump) {
    std::lock_guard<std::mutex> lock(logMutex);
    if (!logSink || verbosity < level) return;
    logSink(line);
    if (dump && verbosity >= 3) logSink(wire::hexDump(dump->data(), dump->size()));
}

// ---------------------------------------------------------------------------
// Faults.

bool Emulator::inject(const Fault& fault, int connection) {
    if (fault.kind == Fault::Kind::DropMidReply || fault.kind == Fault::Kind::NoReply) return false;
    std::shared_ptr<Connection> target;
    {
        std::lock_guard<std::mutex> lock(impl_->m);
        for (auto& c : impl_->live)
            if ((connection == kLatestConnection || c->index == connection) && !c->dropped &&
                (!target || c->index > target->index))
                target = c;
    }
    return target && impl_->injectNow(*target, fault);
}

void Emulator::injectOnRequest(const std::string& trigger, const Fault& fault, int times) {
    FaultRule rule;
    rule.trigger = trigger;
    rule.fault = fault;
    rule.times = times;
    addFaultRule(rule);
}

void Emulator::addFaultRule(const FaultRule& rule) {
    std::lock_guard<std::mutex> lock(impl_->m);
    Impl::Trigger t{rule, 0};
    if (t.rule.trigger.rfind('*', 0) != 0) t.rule.trigger = wireName(t.rule.trigger);
    impl_->triggers.push_back(t);
}

void Emulator::setRandomSeed(uint32_t seed) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->random.seed(seed);
}

int Emulator::randomBetween(int lo, int hi) {
    if (hi <= lo) return lo;
    std::lock_guard<std::mutex> lock(impl_->m);
    return std::uniform_int_distribution<int>(lo, hi)(impl_->random);
}

void Emulator::clearFaults() {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->triggers.clear();
}

std::optional<Fault> Emulator::Impl::takeTrigger(const std::string& name) {
    // Every matching rule counts the request, so "the nth request" means the
    // same whichever other rules fire; the first rule that fires wins.
    std::optional<Fault> hit;
    for (auto it = triggers.begin(); it != triggers.end();) {
        FaultRule& r = it->rule;
        if (r.trigger != name && r.trigger != kTriggerAny) {
            ++it;
            continue;
        }
        ++it->seen;
        bool fires = !hit && (r.nth <= 0 || it->seen == r.nth);
        if (fires && r.probability < 1) fires = std::uniform_real_distribution<double>(0, 1)(random) < r.probability;
        if (!fires) {
            ++it;
            continue;
        }
        hit = r.fault;
        if (r.times > 0 && --r.times == 0) {
            it = triggers.erase(it);
            continue;
        }
        ++it;
    }
    return hit;
}

// ---------------------------------------------------------------------------
// Gates and waits.

void Emulator::releaseGate(const std::string& gate, int count) {
    std::lock_guard<std::mutex> lock(impl_->m);
    auto& g = impl_->gates[gate];
    g.permits += count;
    impl_->releaseHeld(g);
    impl_->cv.notify_all();
}

void Emulator::openGate(const std::string& gate) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->gates[gate].open = true;
    impl_->releaseHeld(impl_->gates[gate]);
    impl_->cv.notify_all();
}

void Emulator::closeGate(const std::string& gate) {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->gates[gate].open = false;
    impl_->gates[gate].permits = 0;
}

size_t Emulator::gateWaiters(const std::string& gate) const {
    std::lock_guard<std::mutex> lock(impl_->m);
    auto it = impl_->gates.find(gate);
    return it == impl_->gates.end() ? 0 : it->second.waiters;
}

bool Emulator::waitForGateWaiters(size_t count, int timeoutMs, const std::string& gate) {
    return impl_->waitUntil(timeoutMs, [&] { return impl_->gates[gate].waiters >= count; });
}

void Emulator::Impl::passGate(const std::string& name, std::function<void()> action) {
    {
        std::lock_guard<std::mutex> lock(m);
        if (stopping) return;
        Gate& g = gates[name];
        if (!g.open && g.permits <= 0) {
            ++g.waiters;
            g.held.push_back(std::move(action));
            cv.notify_all();
            return;
        }
        if (!g.open) --g.permits;
    }
    action();
}

void Emulator::Impl::releaseHeld(Gate& g) {
    // Held replies go out on the timer thread, never on the caller's.
    while (!g.held.empty() && (g.open || g.permits > 0)) {
        if (!g.open) --g.permits;
        if (g.waiters > 0) --g.waiters;
        timers.after(0, std::move(g.held.front()));
        g.held.pop_front();
    }
}

bool Emulator::Impl::waitGate(const std::string& name) {
    std::unique_lock<std::mutex> lock(m);
    Gate& g = gates[name];
    ++g.waiters;
    cv.notify_all();
    cv.wait(lock, [&] { return stopping || g.open || g.permits > 0; });
    if (g.waiters > 0) --g.waiters;
    if (stopping) return false;
    if (!g.open) --g.permits;
    return true;
}

bool Emulator::Impl::sleepFor(int milliseconds) {
    std::unique_lock<std::mutex> lock(m);
    return !cv.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return stopping; });
}

bool Emulator::Impl::waitUntil(int timeoutMs, const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(m);
    return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
}

std::vector<RecordedFlow> Emulator::recordedFlows() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return {impl_->flows.begin(), impl_->flows.end()};
}

size_t Emulator::flowCount() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->flowTotal;
}

void Emulator::clearRecordedFlows() {
    std::lock_guard<std::mutex> lock(impl_->m);
    impl_->flows.clear();
    impl_->flowTotal = 0;
}

bool Emulator::waitForFlows(size_t count, int timeoutMs) {
    return impl_->waitUntil(timeoutMs, [&] { return impl_->flowTotal >= count; });
}

std::vector<ConnectionInfo> Emulator::connections() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->infos;
}

size_t Emulator::connectionCount() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->infos.size();
}

size_t Emulator::openConnectionCount() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return static_cast<size_t>(
        std::count_if(impl_->infos.begin(), impl_->infos.end(), [](const ConnectionInfo& i) { return i.open; }));
}

bool Emulator::waitForConnections(size_t count, int timeoutMs) {
    return impl_->waitUntil(timeoutMs, [&] { return impl_->infos.size() >= count; });
}

bool Emulator::waitForHandshakes(size_t count, int timeoutMs) {
    return impl_->waitUntil(timeoutMs, [&] {
        return static_cast<size_t>(std::count_if(impl_->infos.begin(), impl_->infos.end(),
                                                 [](const ConnectionInfo& i) { return i.handshaken; })) >= count;
    });
}

bool Emulator::waitForConnectionClosed(int connection, int timeoutMs) {
    return impl_->waitUntil(timeoutMs, [&] {
        auto& infos = impl_->infos;
        if (connection == kLatestConnection) return !infos.empty() && !infos.back().open;
        return connection >= 0 && static_cast<size_t>(connection) < infos.size() && !infos[connection].open;
    });
}

size_t Emulator::programCallCount(const std::string& program) const {
    std::lock_guard<std::mutex> lock(impl_->m);
    auto it = impl_->callCounts.find(wireName(program));
    return it == impl_->callCounts.end() ? 0 : it->second;
}

bool Emulator::waitForProgramCalls(const std::string& program, size_t count, int timeoutMs) {
    std::string name = wireName(program);
    return impl_->waitUntil(timeoutMs, [&] { return impl_->callCounts[name] >= count; });
}

size_t Emulator::repliesSent() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->replies;
}

bool Emulator::waitForRepliesSent(size_t count, int timeoutMs) {
    return impl_->waitUntil(timeoutMs, [&] { return impl_->replies >= count; });
}

std::vector<LuwEvent> Emulator::luwEvents() const {
    std::lock_guard<std::mutex> lock(impl_->m);
    return impl_->luwEvents;
}

}  // namespace kvlemu
