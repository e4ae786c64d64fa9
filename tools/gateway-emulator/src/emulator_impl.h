// Internal state of the emulator, shared by its source files.
//
// Locks: Impl::m guards everything in Impl and the fields of Connection marked
// "under m"; Connection::sendMutex guards writes to that connection's socket;
// logMutex only orders log lines. Order: m is never held while sending or
// while a program runs; sendMutex may be taken with nothing else held.
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

#include "emu_socket.h"
#include "emu_tls.h"
#include "gateway_emulator/emulator.h"

namespace kvlemu {

struct Worker {
    std::thread thread;
    bool done = false;  // under Impl::m; set as the thread's last step
};

struct Connection {
    int index = 0;
    net::Socket sock = net::kInvalidSocket;
    std::mutex sendMutex;
    std::atomic<bool> dropped{false};  // shut down; nothing more is sent
    std::unique_ptr<tls::Stream> tls;  // set by the reader before the first flow; nullptr: plain TCP

    // Under Impl::m.
    std::map<int32_t, int> luws;  // open unit-of-work token -> calls so far
    std::thread reader;
    std::list<Worker> workers;  // one per request in progress or not yet joined
    int activeWorkers = 0;
    bool readerDone = false;
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
    size_t recordLimit = static_cast<size_t>(-1);
    LogSink logSink;
    std::shared_ptr<tls::ServerContext> tlsContext;  // nullptr: plain TCP
    int tlsHandshakeTimeoutMs = 10000;
    int verbosity = 0;
    struct Trigger {
        std::string name;
        Fault fault;
        int times;
    };
    std::vector<Trigger> triggers;
    struct Gate {
        int permits = 0;
        bool open = false;
        size_t waiters = 0;
    };
    std::map<std::string, Gate> gates;

    // State (under m).
    bool started = false;
    bool stopping = false;
    net::Socket listener = net::kInvalidSocket;
    uint16_t boundPort = 0;
    std::string lastError;
    std::thread acceptThread;
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

    // connection.cpp
    void serve(std::shared_ptr<Connection> conn);
    void record(RecordedFlow&& flow);
    void joinFinishedWorkers(Connection& conn);  // under m
    void markClosed(Connection& conn);

    // send.cpp
    bool send(Connection& conn, const wire::Bytes& flow, const char* what);
    void drop(Connection& conn, const char* why);
    // Sends a request's reply, or what the fault puts in its place.
    void deliver(Connection& conn, const wire::Header& request, const wire::Bytes& replyFlow,
                 const std::optional<Fault>& fault);
    bool injectNow(Connection& conn, const Fault& fault);

    // requests.cpp
    void runEciCall(std::shared_ptr<Connection> conn, wire::Header header, wire::EciRequest request);
    void answerListSystems(Connection& conn, const wire::Header& header, const wire::EciRequest& request);
    void answerEsi(Connection& conn, const wire::Header& header, const wire::EsiRequest& request);
    // Server for a request's server field: the default one when blank. rc 0 or -3/-22.
    int32_t route(const std::string& serverField, ServerInfo& out);  // under m
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
