// Internal state of the emulator, shared by its source files.
//
// Locks: Impl::m guards everything in Impl and the fields of Connection marked
// "under m"; Connection::sendMutex guards writes to that connection's stream;
// logMutex only orders log lines. Order: m is never held while sending or
// while a program runs; sendMutex may be taken with nothing else held, and
// logMutex (the flow tap) inside it.
//
// Threads: one accept thread, one reader per connection (it runs programs that
// cannot block), a small worker pool for programs that may, and one timer
// thread for replies sent later. Work queued on the pool or the timers holds
// its connection by shared_ptr; the stream closes when the last holder lets go.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <chrono>
#include <functional>
#include <random>

#include "emu_socket.h"
#include "gateway_emulator/emulator.h"
#include "scheduler.h"
#include "stream.h"

namespace kvlemu {

struct Connection {
    int index = 0;
    std::unique_ptr<Stream> stream;
    std::mutex sendMutex;
    std::atomic<bool> dropped{false};  // shut down; nothing more is sent

    // Only the reader touches these: buffers handed from one request to the
    // next, so that a request served on the reader takes no block of its
    // COMMAREA's size but the program's own output (freeing several such blocks
    // per request made the allocator give pages back to the system, and taking
    // them again cost a page fault each).
    wire::Bytes spareArea;   // decodes the next request's COMMAREA
    wire::Bytes spareReply;  // encodes the next reply

    // Under Impl::m.
    std::map<int32_t, int> luws;  // open unit-of-work token -> calls so far
    std::thread reader;
    bool readerDone = false;
};

// What the log line of a request says once its answer went out.
struct RequestNote {
    std::string what;  // "ECI GETCUST", "LIST", "ESI"
    int32_t inLength = 0;
    int32_t outLength = 0;
    int32_t rc = 0;
    std::string abend;
    std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
};

struct Emulator::Impl {
    mutable std::mutex m;
    std::condition_variable cv;  // notified on every change a test may wait for
    std::mutex logMutex;

    // Configuration (under m).
    HandshakeMode handshakeMode = HandshakeMode::Accept;
    int32_t refuseRc = rc::kWorkWasRefused;
    std::map<std::string, Program> programs;
    std::vector<ServerInfo> servers;
    std::map<std::string, User> users;
    uint32_t maxBodyLength = 16u * 1024 * 1024;
    std::atomic<size_t> recordLimit{static_cast<size_t>(-1)};  // written under m
    std::map<std::string, ProgramRuns> programRuns;  // absent: OnReader (built-ins)
    LogSink logSink;
    std::atomic<int> verbosity{0};
    FlowTap flowTap;          // under logMutex
    std::atomic<bool> tapping{false};  // flowTap is set: a flow's bytes are worth keeping
    ReplySource replySource;  // under m
    struct Trigger {
        FaultRule rule;
        int seen = 0;  // requests that matched the trigger so far
    };
    std::vector<Trigger> triggers;
    std::mt19937 random{20240601u};
    struct Gate {
        int permits = 0;
        bool open = false;
        size_t waiters = 0;  // blocked programs and held replies
        std::deque<std::function<void()>> held;  // replies waiting for a permit
    };
    std::map<std::string, Gate> gates;

    // State (under m).
    bool started = false;
    bool stopping = false;
    net::Socket listener = net::kInvalidSocket;
    uint16_t boundPort = 0;
    std::string lastError;
    std::thread acceptThread;
    std::function<std::unique_ptr<Stream>(net::Socket)> openStream = plainStream;
    WorkerPool pool{64};
    Timers timers;
    std::vector<std::shared_ptr<Connection>> live;  // not yet reaped
    std::vector<ConnectionInfo> infos;              // by index, kept after reaping
    std::deque<RecordedFlow> flows;
    uint64_t nextSequence = 0;
    size_t flowTotal = 0;
    std::map<std::string, size_t> callCounts;
    size_t replies = 0;
    std::vector<LuwEvent> luwEvents;
    int32_t nextLuwToken = 0x1001;

    // emulator.cpp
    void acceptLoop();
    void reapFinished();  // under m
    void log(int level, const std::string& line, const wire::Bytes* dump = nullptr);
    bool waitUntil(int timeoutMs, const std::function<bool()>& done);
    bool sleepFor(int milliseconds);
    bool waitGate(const std::string& gate);
    std::optional<Fault> takeTrigger(const std::string& name);  // under m
    // Sends `action` through the gate now or when a permit comes.
    void passGate(const std::string& gate, std::function<void()> action);
    void releaseHeld(Gate& g);  // under m
    void tap(const Connection& conn, bool inbound, const wire::Bytes& flow);
    // Whether anything looks at a received flow's raw bytes: the record, the
    // tap or a hex dump. When nothing does, the reader does not copy them.
    bool keepsRawFlows() const { return recordLimit > 0 || tapping || verbosity >= 3; }

    // connection.cpp
    void serve(std::shared_ptr<Connection> conn);
    void record(const RecordedFlow& flow);
    void markClosed(Connection& conn);

    // send.cpp
    bool send(Connection& conn, const wire::Bytes& flow, const char* what);
    void drop(Connection& conn, const char* why);
    // Writes the bytes and shuts the connection down in one hold of its send
    // lock, so that no other flow can follow them on the wire.
    bool sendThenDrop(Connection& conn, const wire::Bytes& bytes, const char* what, const char* why);
    // Sends a request's reply, or what the fault puts in its place.
    void deliver(const std::shared_ptr<Connection>& conn, const wire::Header& request, const wire::Bytes& replyFlow,
                 const std::optional<Fault>& fault, const RequestNote& note);
    void logRequest(const Connection& conn, const wire::Header& request, const RequestNote& note,
                    const char* outcome);
    bool injectNow(Connection& conn, const Fault& fault);

    // requests.cpp
    // Called by the connection's reader; the request's COMMAREA buffer goes back
    // to conn->spareArea when the program ran on the reader.
    void startEciCall(const std::shared_ptr<Connection>& conn, const wire::Header& header, wire::EciRequest request);
    void answerListSystems(const std::shared_ptr<Connection>& conn, const wire::Header& header,
                           const wire::EciRequest& request);
    void answerEsi(const std::shared_ptr<Connection>& conn, const wire::Header& header, const wire::EsiRequest& request);
    // Server for a request's server field: the default one when blank. rc 0 or
    // -3/-22. *out points into `servers`: valid while m is held.
    int32_t route(const std::string& serverField, const ServerInfo** out);  // under m
};

// Flows the emulator sends on its own.
namespace flows {
wire::Bytes ping(int32_t messageId);
wire::Bytes close();
wire::Bytes exception(int32_t messageId, const std::string& text);
wire::Bytes error(int32_t messageId, int32_t rc, const std::string& requestType);
wire::Bytes strayReply(int32_t messageId);
wire::Bytes handshakeAccepted();
}  // namespace flows

}  // namespace kvlemu
