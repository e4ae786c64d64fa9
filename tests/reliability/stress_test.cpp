// The stress test: dozens of threads calling through a few connections to a
// Gateway that delays, drops, sends close flows, exceptions and errors at
// random, while other threads purge, reopen and close every connection, create
// and delete channels, switch the trace and dump the state.
//
// Invariants: every call returns within a bound; every reply reaches its own
// caller (each COMMAREA carries its caller's tag, echoed back); every code is
// one the operation may give; at the end no connection, descriptor or thread
// is left (leaks are LeakSanitizer's, in the sanitizer builds).
//
// KVL_STRESS_SECONDS sets the run's length (default 6: the CI run).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#ifdef __linux__
#include <dirent.h>
#include <unistd.h>
#endif

#include "gateway_emulator/emulator.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvlclient.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kConnections = 3;
constexpr int kCallers = 24;
constexpr auto kCallBound = std::chrono::seconds(20);

int countEntries(const char* dir) {
#ifdef __linux__
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
#else
    (void)dir;
    return -1;
#endif
}

int runSeconds() {
    const char* s = getenv("KVL_STRESS_SECONDS");
    int n = s ? atoi(s) : 6;
    return n > 0 ? n : 6;
}

// The connections the callers share; a slot is replaced when it is purged or
// closed. Tokens are handed out by value: a stale one must be refused, never followed.
class Pool {
public:
    explicit Pool(uint16_t port) : port_(port) {}
    gwTok get(int i) {
        std::lock_guard<std::mutex> lock(mutex_);
        return tokens_[static_cast<size_t>(i)];
    }
    void reopen(int i) {
        gwTok fresh = nullptr;
        if (KVL_openRemoteGatewayConnection("127.0.0.1", port_, &fresh, 5) != KVL_OK) fresh = nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        tokens_[static_cast<size_t>(i)] = fresh;
        ++generations_[static_cast<size_t>(i)];
    }
    // Counts the connections a slot has had: a token is only an address, and a
    // new connection may get the address of a closed one. An async request
    // collected across a change may so meet another caller's request of the
    // same number on the new connection; that is the application's token
    // reuse, not a misdelivery.
    long generation(int i) {
        std::lock_guard<std::mutex> lock(mutex_);
        return generations_[static_cast<size_t>(i)];
    }
    // A caller saw the connection end: the first to report it replaces it.
    void replace(int i, gwTok seen) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (tokens_[static_cast<size_t>(i)] != seen) return;
            tokens_[static_cast<size_t>(i)] = nullptr;
        }
        KVL_closeGatewayConnection(&seen);
        reopen(i);
    }
    gwTok take(int i) {
        std::lock_guard<std::mutex> lock(mutex_);
        gwTok t = tokens_[static_cast<size_t>(i)];
        tokens_[static_cast<size_t>(i)] = nullptr;
        return t;
    }

private:
    uint16_t port_;
    std::mutex mutex_;
    std::array<gwTok, kConnections> tokens_{};
    std::array<long, kConnections> generations_{};
};

struct Tally {
    std::mutex mutex;
    std::map<std::string, std::map<int, long>> codes;  // operation -> rc -> count
    std::atomic<long> calls{0};
    std::atomic<long> replies{0};
    std::atomic<long> misdelivered{0};
    std::atomic<long> reusedTokens{0};
    std::atomic<long> unexpected{0};
    std::atomic<long> overBound{0};
    std::atomic<long long> maxMicros{0};
    std::vector<std::string> firstUnexpected;
    static thread_local bool lastEndedFlag;
    struct EndedFlag {
        bool exchange(bool v) {
            bool old = lastEndedFlag;
            lastEndedFlag = v;
            return old;
        }
    } lastEnded;

    void wrongReply(const std::string& op, const std::string& sent, const std::string& got) {
        ++misdelivered;
        std::lock_guard<std::mutex> lock(mutex);
        if (firstUnexpected.size() < 10) firstUnexpected.push_back(op + " sent \"" + sent + "\" got \"" + got + "\"");
    }
    void record(const std::string& op, int rc, Clock::time_point start, const std::set<int>& allowed) {
        auto micros = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
        long long seen = maxMicros.load();
        while (micros > seen && !maxMicros.compare_exchange_weak(seen, micros)) {
        }
        if (Clock::now() - start > kCallBound) ++overBound;
        ++calls;
        if (rc == KVL_ERR_LOSTGWCON || rc == KVL_ERR_GATEWAY_CLOSED) lastEnded.exchange(true);
        std::lock_guard<std::mutex> lock(mutex);
        ++codes[op][rc];
        if (!allowed.count(rc)) {
            ++unexpected;
            if (firstUnexpected.size() < 10) firstUnexpected.push_back(op + " rc=" + std::to_string(rc));
        }
    }
};

thread_local bool Tally::lastEndedFlag = false;

// What the end of a connection, a stale token or the injected faults may give any call.
const std::set<int> kConnectionCodes = {KVL_ERR_LOSTGWCON,    KVL_ERR_GATEWAY_CLOSED, KVL_ERR_GWTOK_CLOSED,
                                        KVL_ERR_BADGWTOK,     KVL_ERR_NULLGWTOK,      KVL_ERR_GATEWAY_EXCEPTION,
                                        ECI_ERR_UNKNOWN_SERVER, ECI_ERR_SYSTEM_ERROR};

std::set<int> with(std::set<int> base, std::initializer_list<int> more) {
    base.insert(more);
    return base;
}

void syncCall(gwTok token, uint32_t tag, Tally& tally) {
    char area[40];
    snprintf(area, sizeof area, "tag-%08x-payload", tag);
    const std::string sent(area);
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    memcpy(p.eci_program, "STRESS  ", 8);
    p.eci_commarea = area;
    p.eci_commarea_length = sizeof area;
    auto start = Clock::now();
    int rc = KVL_ECI_Execute(token, &p);
    tally.record("sync", rc, start, with(kConnectionCodes, {ECI_NO_ERROR}));
    if (rc == ECI_NO_ERROR) {
        ++tally.replies;
        if (sent != std::string(area)) tally.wrongReply("sync", sent, area);
    }
}

void asyncCall(gwTok token, uint32_t tag, Tally& tally, Pool& pool, int slot) {
    const long generation = pool.generation(slot);
    char area[40];
    snprintf(area, sizeof area, "tag-%08x-async", tag);
    const std::string sent(area);
    EciParms p{};
    p.eci_call_type = ECI_ASYNC;
    p.eci_version = 6;
    memcpy(p.eci_program, "STRESS  ", 8);
    p.eci_commarea = area;
    p.eci_commarea_length = sizeof area;
    auto start = Clock::now();
    int rc = KVL_ECI_Execute(token, &p);
    tally.record("async", rc, start, with(kConnectionCodes, {ECI_NO_ERROR}));
    if (rc != ECI_NO_ERROR) return;
    char out[40] = {};
    EciParms get{};
    get.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    get.eci_version = 6;
    get.eci_msg_qual = p.eci_msg_qual;
    get.eci_commarea = out;
    get.eci_commarea_length = sizeof out;
    start = Clock::now();
    rc = KVL_ECI_Execute(token, &get);
    // Another thread's purge may free the request before this retrieval sees it.
    tally.record("get-specific", rc, start, with(kConnectionCodes, {ECI_NO_ERROR, ECI_ERR_INVALID_MSG_QUAL}));
    if (rc == ECI_NO_ERROR) {
        ++tally.replies;
        if (sent != std::string(out)) {
            if (pool.generation(slot) == generation)
                tally.wrongReply("get-specific", sent, out);
            else
                ++tally.reusedTokens;
        }
    }
}

void channelCall(gwTok token, uint32_t tag, Tally& tally) {
    chanTok channel = nullptr;
    if (ECI_createChannel("STRESSCH", &channel) != ECI_NO_ERROR) {
        ++tally.unexpected;
        return;
    }
    char data[32];
    snprintf(data, sizeof data, "tag-%08x", tag);
    ECI_createContainer(channel, "DATA", ECI_BIT, 0, data, strlen(data));
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    memcpy(p.eci_program, "STRESS  ", 8);
    p.eci_channel = channel;
    auto start = Clock::now();
    int rc = KVL_ECI_Execute_Channel(token, &p);
    tally.record("channel", rc, start, with(kConnectionCodes, {ECI_NO_ERROR}));
    if (rc == ECI_NO_ERROR) {
        ++tally.replies;
        char back[32] = {};
        size_t read = 0;
        if (ECI_getContainerData(channel, "DATA", back, sizeof back - 1, 0, &read) != ECI_NO_ERROR ||
            std::string(back) != data)
            tally.wrongReply("channel", data, back);
    }
    if (ECI_deleteChannel(&channel) != ECI_NO_ERROR) ++tally.unexpected;
}

void esiCall(gwTok token, Tally& tally) {
    esiDetails details{};
    auto start = Clock::now();
    int rc = KVL_ESI_verifyPassword(token, "STRESSU", "STRESSPW", nullptr, &details);
    // ESI maps the Gateway's codes to its own; a connection's end comes through as it is.
    tally.record("esi", rc, start, with(kConnectionCodes, {0, ESI_ERR_UNKNOWN_SERVER, ESI_ERR_SYSTEM_ERROR}));
}

void listCall(gwTok token, Tally& tally) {
    kvlSystemInfo list[4];
    unsigned short count = 4;
    auto start = Clock::now();
    int rc = KVL_listSystems(token, &count, list);
    tally.record("list", rc, start, with(kConnectionCodes, {KVL_OK, KVL_ERR_MORE_SYSTEMS, KVL_ERR_NO_SYSTEMS}));
}

// An echo that takes a little while, so that requests overlap and faults land mid-flight.
kvlemu::ProgramResult stressProgram(const kvlemu::ProgramCall& call) {
    thread_local std::mt19937 rng(std::random_device{}());
    if (rng() % 4 == 0) call.sleepFor(static_cast<int>(rng() % 5));
    return kvlemu::ProgramResult::echo(call);
}

kvlemu::Fault randomFault(std::mt19937& rng) {
    switch (rng() % 6) {
        case 0: return kvlemu::Fault::exception("stress exception");
        case 1: return kvlemu::Fault::errorFlow(ECI_ERR_UNKNOWN_SERVER);
        case 2: return kvlemu::Fault::closeFlow();
        case 3: return kvlemu::Fault::drop();
        case 4: return kvlemu::Fault::dropMidReply();
        default: return kvlemu::Fault::ping();
    }
}

}  // namespace

TEST(Stress, ConnectionsEndingUnderLoadLoseNoCallerAndLeaveNothingBehind) {
    const int seconds = runSeconds();
    char traceFile[] = "/tmp/kvl-stress-trace-XXXXXX";
#ifdef __linux__
    int fd = mkstemp(traceFile);
    ASSERT_GE(fd, 0);
    close(fd);
#endif
    // The trace file stays open once used, and a sanitizer's runtime may start a
    // thread of its own at the first connection: both counted in from the start.
    KVL_setAPITraceFile(traceFile);
    KVL_dumpState();
    {
        kvlemu::Emulator warmUp;
        ASSERT_TRUE(warmUp.start());
        gwTok t = nullptr;
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", warmUp.port(), &t, 5), KVL_OK);
        EXPECT_EQ(KVL_closeGatewayConnection(&t), KVL_OK);
        warmUp.stop();
    }
    const int threadsAtStart = countEntries("/proc/self/task");
    const int descriptorsAtStart = countEntries("/proc/self/fd");
    Tally tally;
    {
        kvlemu::Emulator emu;
        emu.setRecordLimit(0);
        emu.registerProgram("STRESS", stressProgram);
        kvlemu::User user;
        user.userid = "STRESSU";
        user.password = "STRESSPW";
        emu.addUser(user);
        ASSERT_TRUE(emu.start());
        Pool pool(emu.port());
        for (int i = 0; i < kConnections; ++i) pool.reopen(i);

        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (int t = 0; t < kCallers; ++t) {
            threads.emplace_back([&, t] {
                std::mt19937 rng(static_cast<unsigned>(t) * 7919u + 1);
                uint32_t counter = 0;
                while (!stop) {
                    const int slot = static_cast<int>(rng() % kConnections);
                    gwTok token = pool.get(slot);
                    uint32_t tag = (static_cast<uint32_t>(t) << 20) | (counter++ & 0xFFFFF);
                    if (!token) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                        continue;
                    }
                    switch (rng() % 10) {
                        case 0: case 1: case 2: case 3: syncCall(token, tag, tally); break;
                        case 4: case 5: asyncCall(token, tag, tally, pool, slot); break;
                        case 6: case 7: channelCall(token, tag, tally); break;
                        case 8: esiCall(token, tally); break;
                        default: listCall(token, tally); break;
                    }
                    if (tally.lastEnded.exchange(false)) pool.replace(slot, token);
                }
            });
        }
        // Faults at random on whatever is called next.
        threads.emplace_back([&] {
            std::mt19937 rng(11);
            while (!stop) {
                const char* triggers[] = {"STRESS", kvlemu::kTriggerEsi, kvlemu::kTriggerListSystems};
                emu.injectOnRequest(triggers[rng() % 3], randomFault(rng), 1);
                std::this_thread::sleep_for(std::chrono::milliseconds(20 + rng() % 80));
            }
        });
        // Purge and reopen single connections.
        threads.emplace_back([&] {
            std::mt19937 rng(13);
            while (!stop) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50 + rng() % 150));
                int i = static_cast<int>(rng() % kConnections);
                gwTok t = pool.take(i);
                if (t) {
                    int rc = KVL_purgeGatewayConnection(&t, static_cast<int>(rng() % 2));
                    if (rc != KVL_OK && rc != KVL_ERR_BADGWTOK && rc != KVL_ERR_GWTOK_CLOSED) ++tally.unexpected;
                }
                pool.reopen(i);
            }
        });
        // Close every connection now and then, and reopen.
        threads.emplace_back([&] {
            std::mt19937 rng(17);
            while (!stop) {
                std::this_thread::sleep_for(std::chrono::milliseconds(400 + rng() % 600));
                for (int i = 0; i < kConnections; ++i) pool.take(i);
                if (KVL_closeAllGatewayConnections() != KVL_OK) ++tally.unexpected;
                for (int i = 0; i < kConnections; ++i) pool.reopen(i);
            }
        });
        // Channels that come and go, trace switched on and off, state dumped.
        threads.emplace_back([&] {
            std::mt19937 rng(19);
            while (!stop) {
                chanTok c = nullptr;
                if (ECI_createChannel("CHURN", &c) == ECI_NO_ERROR) {
                    ECI_createContainer(c, "X", ECI_CHAR, 0, "abc", 3);
                    if (ECI_deleteChannel(&c) != ECI_NO_ERROR) ++tally.unexpected;
                }
                switch (rng() % 4) {
                    case 0: KVL_setAPITraceFile(traceFile); KVL_setAPITraceLevel(static_cast<int>(rng() % 5)); break;
                    case 1: KVL_setAPITraceLevel(0); break;
                    case 2: KVL_dumpState(); break;
                    default: KVL_ECI_dumpChannels(); break;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(2 + rng() % 10));
            }
        });

        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        stop = true;
        for (auto& th : threads) th.join();
        KVL_setAPITraceLevel(0);
        for (int i = 0; i < kConnections; ++i) pool.take(i);
        EXPECT_EQ(KVL_closeAllGatewayConnections(), KVL_OK);
        emu.stop();
    }
    remove(traceFile);

    printf("stress: %d s, %ld calls, %ld replies, %ld misdelivered, %ld unexpected codes, %ld over the bound, "
           "longest call %.1f ms, %ld replies taken through a reused token address\n",
           seconds, tally.calls.load(), tally.replies.load(), tally.misdelivered.load(), tally.unexpected.load(),
           tally.overBound.load(), tally.maxMicros.load() / 1000.0, tally.reusedTokens.load());
    for (const auto& [op, codes] : tally.codes) {
        printf("  %-12s", op.c_str());
        for (const auto& [rc, n] : codes) printf(" %d:%ld", rc, n);
        printf("\n");
    }
    for (const auto& u : tally.firstUnexpected) printf("  unexpected: %s\n", u.c_str());
    EXPECT_GT(tally.replies.load(), 0);
    EXPECT_EQ(tally.misdelivered.load(), 0);
    EXPECT_EQ(tally.unexpected.load(), 0);
    EXPECT_EQ(tally.overBound.load(), 0);
    // Receiver threads end with their connections; descriptors are all given back.
    if (threadsAtStart > 0) {
        for (int i = 0; i < 200 && countEntries("/proc/self/task") > threadsAtStart; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(countEntries("/proc/self/task"), threadsAtStart);
        EXPECT_EQ(countEntries("/proc/self/fd"), descriptorsAtStart);
    }
}
