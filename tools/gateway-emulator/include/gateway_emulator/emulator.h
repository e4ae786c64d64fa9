// An in-process Gateway for tests, demos and offline development.
//
// Thread safety: every member function may be called from any thread while the
// emulator runs. Programs that cannot block run on the connection's reader;
// programs that may block run on a small pool of reused threads. No thread is
// started per request, and delays are timers, not sleeping threads.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gateway_emulator/wire.h"

namespace kvlemu {

// Selects the connection that a fault targets: an accept-order index from 0,
// or the most recently accepted one.
inline constexpr int kLatestConnection = -1;

// Codes the emulator puts on the wire (the Gateway's own numbers).
namespace rc {
inline constexpr int32_t kOk = 0;
inline constexpr int32_t kNoServer = -3;            // ECI_ERR_NO_ORIS
inline constexpr int32_t kTransactionAbend = -7;    // ECI_ERR_TRANSACTION_ABEND
inline constexpr int32_t kLuwToken = -8;            // ECI_ERR_LUW_TOKEN
inline constexpr int32_t kInvalidExtendMode = -2;   // ECI_ERR_INVALID_EXTEND_MODE
inline constexpr int32_t kUnknownServer = -22;      // ECI_ERR_UNKNOWN_SERVER, ESI -22
inline constexpr int32_t kSecurityError = -27;      // ECI_ERR_SECURITY_ERROR, ESI -27
inline constexpr int32_t kMoreSystems = -25;        // KVL_ERR_MORE_SYSTEMS
inline constexpr int32_t kNoSystems = -26;          // KVL_ERR_NO_SYSTEMS
inline constexpr int32_t kEsiNullUserid = -100;
inline constexpr int32_t kEsiNullPassword = -101;
inline constexpr int32_t kEsiNullNewPassword = -102;
inline constexpr int32_t kEsiPasswordExpired = -105;
inline constexpr int32_t kEsiPasswordInvalid = -106;
inline constexpr int32_t kEsiPasswordRejected = -107;
inline constexpr int32_t kEsiUseridInvalid = -108;
inline constexpr int32_t kWorkWasRefused = 61445;      // KVL_ERR_WORK_WAS_REFUSED
inline constexpr int32_t kInvalidRequestType = 61451;  // KVL_ERR_INVALID_REQUEST_TYPE
}  // namespace rc

// Abend code of a program that no registry entry knows.
inline constexpr const char* kUnknownProgramAbend = "NOPG";

// ---------------------------------------------------------------------------
// Programs.

struct ProgramCall {
    int connection = 0;
    int32_t messageId = 0;
    int32_t requestType = wire::kEciCall;
    std::string program;  // fixed-width fields as text (trailing blanks/NULs removed)
    std::string server;   // the server that runs it (the default one when none was named)
    std::string userid;
    std::string password;
    std::string tranId;
    int32_t extendMode = 0;
    int32_t luwToken = 0;     // of the unit of work this call runs in; 0 outside one
    int luwCallNumber = 0;    // 1 for the call that opened it, then 2, 3, ...
    uint16_t timeout = 0;
    int32_t commareaLength = 0;
    int32_t inboundLength = 0;   // 0 when the client did not say
    int32_t outboundLength = 0;  // 0 when the client sent the whole COMMAREA
    wire::Bytes commarea;        // commareaLength bytes: what travelled, then zeros
    std::optional<wire::Channel> channel;

    // Wait helpers that end early when the emulator stops (then they return false).
    std::function<bool(int milliseconds)> sleepFor;
    std::function<bool(const std::string& gate)> waitGate;
};

struct ProgramResult {
    int32_t rc = 0;
    std::string abend;     // up to 4 characters
    wire::Bytes commarea;  // the reply COMMAREA; sized to the request's length when sent
    // Bytes to send back: -1 for the whole COMMAREA; fewer makes an explicit count.
    int32_t returnLength = -1;
    // Reply channel. Left empty on a channel request: every container UNCHANGED.
    std::optional<wire::Channel> channel;
    // The reply goes out this many milliseconds later; no thread waits meanwhile.
    int delayMs = 0;
    // Non-empty: the reply waits at this gate (see releaseGate) before it goes out.
    std::string gate;

    static ProgramResult echo(const ProgramCall& call);
};

using Program = std::function<ProgramResult(const ProgramCall&)>;

// Names of the built-in programs (see README.md).
std::vector<std::string> builtinProgramNames();
// nullptr-like empty function for an unknown name.
Program builtinProgram(const std::string& name);

// Where a program runs. A program that never blocks runs on the connection's
// reader thread (the fast path); one that may block (waits, gates, external
// commands, test code) runs on the worker pool.
enum class ProgramRuns { OnReader, OnWorker };

// ---------------------------------------------------------------------------
// Servers and users.

struct ServerInfo {
    std::string name;         // up to 8 characters
    std::string description;  // up to 60 characters
    bool checkSecurity = false;  // ECI requests need a valid user id and password
};

struct User {
    std::string userid;
    std::string password;
    bool expired = false;
    bool revoked = false;            // ESI answers -27, secured ECI -27
    bool rejectNewPassword = false;  // every change answers -107
    int32_t forcedRc = 0;            // non-zero: every ESI request answers this
    wire::EsiDetails details = defaultDetails();

    static wire::EsiDetails defaultDetails();
};

// ---------------------------------------------------------------------------
// Handshake behaviour.

enum class HandshakeMode {
    Accept,           // answer FLOW_HANDSHAKE
    Refuse,           // answer FLOW_ERROR, message id -2, the refusal rc
    Silent,           // never answer, keep the connection
    DropOnAccept,     // close the connection as soon as it is accepted
    DropOnHandshake,  // read the handshake, then close without answering
    AcceptThenDrop,   // answer FLOW_HANDSHAKE, then close
};

// ---------------------------------------------------------------------------
// Faults.

struct Fault {
    enum class Kind {
        Ping,          // FLOW_PING, then the reply as usual
        Exception,     // FLOW_EXCEPTION with text, instead of the reply
        ErrorFlow,     // FLOW_ERROR with rc, instead of the reply
        CloseFlow,     // a close flow (message id -1), then the connection is closed
        StrayReply,    // a reply for a message id nothing waits for, then the reply
        Garbage,       // bytes that are no flow header, instead of the reply
        Drop,          // close the connection instead of replying
        DropMidReply,  // send the reply's header and half its body, then close
        NoReply,       // swallow the reply
        PingStorm,     // `count` FLOW_PINGs, then the reply as usual
        Delay,         // the reply as usual, `delayMs` later
    };
    Kind kind = Kind::Ping;
    std::string text;                  // Exception
    int32_t rc = 0;                    // ErrorFlow
    std::optional<int32_t> messageId;  // default: the triggering request's id (0 when injected)
    wire::Bytes bytes;                 // Garbage (default: 40 bytes of text)
    int count = 0;                     // PingStorm
    int delayMs = 0;                   // Delay

    static Fault of(Kind k) {
        Fault f;
        f.kind = k;
        return f;
    }
    static Fault ping() { return of(Kind::Ping); }
    static Fault exception(std::string text, std::optional<int32_t> id = std::nullopt);
    static Fault errorFlow(int32_t rc, std::optional<int32_t> id = std::nullopt);
    static Fault closeFlow() { return of(Kind::CloseFlow); }
    static Fault strayReply(int32_t id);
    static Fault garbage(wire::Bytes bytes = {});
    static Fault drop() { return of(Kind::Drop); }
    static Fault dropMidReply() { return of(Kind::DropMidReply); }
    static Fault noReply() { return of(Kind::NoReply); }
    static Fault pingStorm(int count);
    static Fault delay(int milliseconds);
};
// "ping", "exception", "error", "close", "stray", "garbage", "drop",
// "drop-mid-reply", "no-reply", "ping-storm", "delay".
const char* faultKindName(Fault::Kind kind);

// A fault that applies to requests chosen by program, position and chance.
struct FaultRule {
    std::string trigger = "*ANY";  // program name or a kTrigger name
    Fault fault;
    int nth = 0;              // > 0: only the nth request that matches the trigger (1 = first)
    double probability = 1;   // each matching request is hit with this chance
    int times = -1;           // hits before the rule is spent; < 0: no limit
};

// Trigger names for requests that call no program.
inline constexpr const char* kTriggerAny = "*ANY";            // every request
inline constexpr const char* kTriggerListSystems = "*LIST";
inline constexpr const char* kTriggerEsi = "*ESI";

// ---------------------------------------------------------------------------
// Observation.

struct RecordedFlow {
    enum class Kind { Handshake, Close, EciCall, ListSystems, Esi, Other, Malformed };
    int connection = 0;
    uint64_t sequence = 0;  // 0, 1, 2, ... across all connections
    Kind kind = Kind::Other;
    wire::Bytes raw;  // every byte taken from the socket for this flow
    wire::Header header;
    uint32_t bodyBytesRead = 0;  // can be less than header.bodyLength (channel requests)
    std::optional<wire::Handshake> handshake;
    std::optional<wire::EciRequest> eci;  // EciCall and ListSystems
    std::optional<wire::EsiRequest> esi;
    std::string error;  // Malformed: why the connection was closed
};
const char* recordedKindName(RecordedFlow::Kind kind);

struct ConnectionInfo {
    int index = 0;
    std::string peer;
    bool open = false;
    bool handshaken = false;
    std::string applid;     // Latin-1 as the client had it
    std::string qualifier;
};

struct LuwEvent {
    enum class Kind { Opened, Committed, BackedOut, Abandoned };
    int connection = 0;
    int32_t token = 0;
    Kind kind = Kind::Opened;
};

// TLS on the emulator's connections (PEM files).
struct TlsOptions {
    std::string certFile;      // the Gateway's certificate chain
    std::string keyFile;       // its key
    std::string clientCaFile;  // CAs accepted for client certificates; "" asks for none
    bool requireClientCert = false;
    int minVersion = 0x0303;  // 0x0303 TLS 1.2, 0x0304 TLS 1.3
    int maxVersion = 0;       // 0: the newest
    int handshakeTimeoutMs = 10000;
};

// verbosity 0: nothing; 1: one line per request and per connection event;
// 2: and one line per flow in and out with a hex dump.
using LogSink = std::function<void(const std::string& line)>;

// Sees every flow as it is taken from or put on a connection (raw bytes, passwords
// included); called on the emulator's threads, concurrently for different connections.
using FlowTap = std::function<void(int connection, bool inbound, const wire::Bytes& flow)>;

// Consulted for every ECI call before anything else: a complete reply flow
// (any message id; the request's is put in) to send instead of running a program.
using ReplySource = std::function<std::optional<wire::Bytes>(const wire::Header&, const wire::EciRequest&)>;

// A complete configuration, swapped in at once by Emulator::reconfigure.
struct Setup {
    std::vector<ServerInfo> servers = {{"EMUSRV", "Gateway emulator server", false}};
    std::vector<User> users;
    struct ProgramEntry {
        std::string name;
        Program program;
        ProgramRuns runs = ProgramRuns::OnWorker;
    };
    std::vector<ProgramEntry> programs;  // on top of the built-in ones
    std::vector<FaultRule> faults;
    HandshakeMode handshake = HandshakeMode::Accept;
    int32_t refuseRc = rc::kWorkWasRefused;
    uint32_t maxBodyLength = 16u * 1024 * 1024;
};

// ---------------------------------------------------------------------------

class Emulator {
public:
    Emulator();
    ~Emulator();  // stops
    Emulator(const Emulator&) = delete;
    Emulator& operator=(const Emulator&) = delete;

    // Listens on address:port (0 = any free port). False with lastError() on failure.
    bool start(const std::string& address = "127.0.0.1", uint16_t port = 0);
    uint16_t port() const;
    std::string lastError() const;
    // Closes every connection, releases gates and delays, joins every thread.
    void stop();
    bool running() const;

    // Configuration; takes effect for the next request.
    void setHandshake(HandshakeMode mode, int32_t refuseRc = rc::kWorkWasRefused);
    void registerProgram(const std::string& name, Program program, ProgramRuns runs = ProgramRuns::OnWorker);
    void unregisterProgram(const std::string& name);
    void addServer(const ServerInfo& server);
    void clearServers();
    void addUser(const User& user);
    void removeUser(const std::string& userid);
    std::optional<User> user(const std::string& userid) const;
    // Bound on a declared body length; a larger one closes the connection.
    void setMaxBodyLength(uint32_t bytes);
    // Keeps at most this many recorded flows (oldest dropped); 0 keeps none.
    void setRecordLimit(size_t flows);
    void setLog(LogSink sink, int verbosity);
    // Serves TLS on connections accepted from now on. False with lastError()
    // when the files cannot be used or this build has no TLS.
    bool setTls(const TlsOptions& options);
    void clearTls();
    static bool tlsAvailable();
    void setFlowTap(FlowTap tap);
    void setReplySource(ReplySource source);
    // Replaces programs (built-ins restored), servers, users, fault rules,
    // handshake and body limit in one step; connections and units of work stay.
    void reconfigure(const Setup& setup);

    // Faults. inject() acts at once on a live connection (false if none);
    // kinds that need a reply (DropMidReply, NoReply) cannot be injected.
    bool inject(const Fault& fault, int connection = kLatestConnection);
    // When `trigger` (a program name or a kTrigger name) is next called, apply
    // the fault to that request; `times` < 0 means every time.
    void injectOnRequest(const std::string& trigger, const Fault& fault, int times = 1);
    void addFaultRule(const FaultRule& rule);
    // Seed of the chance used by fault rules with a probability and by random delays.
    void setRandomSeed(uint32_t seed);
    // A number in [lo, hi] from the emulator's generator.
    int randomBetween(int lo, int hi);
    void clearFaults();

    // Gates: the GATE program waits on gate "GATE"; programs can wait on any.
    void releaseGate(const std::string& gate = "GATE", int count = 1);
    void openGate(const std::string& gate = "GATE");  // stays open
    void closeGate(const std::string& gate = "GATE");
    size_t gateWaiters(const std::string& gate = "GATE") const;
    bool waitForGateWaiters(size_t count, int timeoutMs, const std::string& gate = "GATE");

    // Observation. The wait functions return false when the time ran out.
    std::vector<RecordedFlow> recordedFlows() const;
    size_t flowCount() const;  // every flow received since start (or clear)
    void clearRecordedFlows();
    bool waitForFlows(size_t count, int timeoutMs);
    std::vector<ConnectionInfo> connections() const;
    size_t connectionCount() const;  // accepted since start
    size_t openConnectionCount() const;
    bool waitForConnections(size_t count, int timeoutMs);
    bool waitForHandshakes(size_t count, int timeoutMs);
    bool waitForConnectionClosed(int connection, int timeoutMs);
    size_t programCallCount(const std::string& program) const;
    bool waitForProgramCalls(const std::string& program, size_t count, int timeoutMs);
    size_t repliesSent() const;  // reply, error and exception flows answering requests
    bool waitForRepliesSent(size_t count, int timeoutMs);
    std::vector<LuwEvent> luwEvents() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvlemu
