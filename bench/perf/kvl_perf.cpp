// The performance suite: every figure of the library next to its floor, measured in
// the same run. The floor is a raw-socket client of the same architecture (one
// reader thread per connection waking the caller) talking to a minimal fast Gateway;
// both run in this program, the Gateway and the emulator in child processes so that
// the client's CPU, allocations and threads are its own. Runs are interleaved and
// summarised by medians; ratios are per round, then their median.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fast_gateway.h"
#include "gateway_emulator/emulator.h"
#include "kvl_channel.h"
#include "kvl_eci.h"
#include "kvl_ext.h"
#include "kvlclient.h"
#include "perf_measure.h"
#include "raw_client.h"

using namespace kvlperf;

namespace {

struct Settings {
    int rounds = 7;
    int syncCalls = 2000;
    int throughputMs = 300;
    int idleSeconds = 2;
    std::vector<int> idleCounts{1, 100, 1000};
    std::vector<int> asyncDepths{16, 1000, 10000};
    int asyncTotal = 20000;
    uint32_t channelBytes = 10u << 20;
};
Settings cfg;

// ---- child processes ----------------------------------------------------------

std::vector<pid_t> children;

int spawn(const std::function<void(int)>& serve, pid_t* child = nullptr) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        serve(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    int port = -1;
    if (pid < 0 || read(fds[0], &port, sizeof port) != sizeof port) port = -1;
    close(fds[0]);
    if (pid > 0) children.push_back(pid);
    if (child) *child = pid;
    return port;
}

void serveEmulator(int readyFd) {
    kvlemu::Emulator emu;
    int port = emu.start("127.0.0.1", 0) ? emu.port() : -1;
    emu.setRecordLimit(0);
    if (write(readyFd, &port, sizeof port) != sizeof port) _exit(1);
    close(readyFd);
    for (;;) pause();
}

// TLS: a throw-away self-signed certificate for 127.0.0.1, made with the
// openssl command before any child is forked; "" when it cannot be made.
std::string tlsDir;

std::string makeTlsCertificate() {
    char dir[] = "/tmp/kvl_perf_tlsXXXXXX";
    if (!mkdtemp(dir)) return "";
    std::string cmd = std::string("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2") +
                      " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " + dir + "/key.pem -out " +
                      dir + "/cert.pem >/dev/null 2>&1";
    return system(cmd.c_str()) == 0 ? dir : "";
}

void serveTlsEmulator(int readyFd) {
    kvlemu::Emulator emu;
    kvlemu::TlsOptions tls;
    tls.certFile = tlsDir + "/cert.pem";
    tls.keyFile = tlsDir + "/key.pem";
    int port = emu.setTls(tls) && emu.start("127.0.0.1", 0) ? emu.port() : -1;
    emu.setRecordLimit(0);
    if (write(readyFd, &port, sizeof port) != sizeof port) _exit(1);
    close(readyFd);
    for (;;) pause();
}

void stopChildren() {
    for (pid_t pid : children) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    children.clear();
}

// ---- the library side ---------------------------------------------------------

void setField(char* field, size_t n, const char* text, char pad) {
    size_t len = strlen(text);
    for (size_t i = 0; i < n; ++i) field[i] = i < len ? text[i] : pad;
}

EciParms echoParms(short callType, uint8_t* area, uint32_t length) {
    EciParms p;
    memset(&p, 0, sizeof p);
    p.eci_call_type = callType;
    p.eci_version = 6;
    setField(p.eci_program, sizeof p.eci_program, "ECHO", ' ');
    setField(p.eci_tran_id, sizeof p.eci_tran_id, "TRN1", '\0');
    setField(p.eci_server_name, sizeof p.eci_server_name, "EMUSRV", '\0');
    p.eci_commarea = area;
    p.eci_commarea_length = static_cast<short>(length);
    return p;
}

gwTok libOpen(int port) {
    gwTok t = nullptr;
    return KVL_openRemoteGatewayConnection("127.0.0.1", port, &t, 10) == KVL_OK ? t : nullptr;
}

bool libCall(gwTok t, uint8_t* area, uint32_t length) {
    EciParms p = echoParms(ECI_SYNC, area, length);
    return KVL_ECI_Execute(t, &p) == ECI_NO_ERROR;
}

// ---- a connection of either kind --------------------------------------------------

// One connection, library or floor, behind the same few operations.
class Client {
public:
    virtual ~Client() = default;
    virtual bool call(uint8_t* area, uint32_t length) = 0;
    virtual bool issue(uint8_t* area, uint32_t length) = 0;
    virtual bool collect(uint8_t* area, uint32_t length) = 0;
    virtual bool channelCall(uint8_t* data, uint32_t length) = 0;
};

class LibClient : public Client {
public:
    explicit LibClient(int port) : tok_(libOpen(port)) {}
    ~LibClient() override {
        if (channel_) ECI_deleteChannel(&channel_);
        if (tok_) KVL_closeGatewayConnection(&tok_);
    }
    bool ok() const { return tok_ != nullptr; }
    bool call(uint8_t* area, uint32_t length) override { return libCall(tok_, area, length); }
    bool issue(uint8_t* area, uint32_t length) override {
        EciParms p = echoParms(ECI_ASYNC, area, length);
        return KVL_ECI_Execute(tok_, &p) == ECI_NO_ERROR;
    }
    bool collect(uint8_t* area, uint32_t length) override {
        EciParms p = echoParms(ECI_GET_REPLY_WAIT, area, length);
        return KVL_ECI_Execute(tok_, &p) == ECI_NO_ERROR;
    }
    bool channelCall(uint8_t* data, uint32_t length) override {
        if (!channel_) {
            if (ECI_createChannel("BENCHCHAN", &channel_) != ECI_NO_ERROR ||
                ECI_createContainer(channel_, "DATA", ECI_BIT, 0, data, length) != ECI_NO_ERROR)
                return false;
        } else if (ECI_setContainerData(channel_, "DATA", data, length) != ECI_NO_ERROR) {
            return false;
        }
        EciParms p = echoParms(ECI_SYNC, nullptr, 0);
        p.eci_channel = channel_;
        if (KVL_ECI_Execute_Channel(tok_, &p) != ECI_NO_ERROR) return false;
        size_t read = 0;
        return ECI_getContainerData(channel_, "DATA", data, length, 0, &read) == ECI_NO_ERROR && read == length;
    }

private:
    gwTok tok_;
    chanTok channel_ = nullptr;
};

class RawClient : public Client {
public:
    explicit RawClient(int port) { ok_ = conn_.open(port); }
    bool ok() const { return ok_; }
    bool call(uint8_t* area, uint32_t length) override { return conn_.call(area, length); }
    bool issue(uint8_t* area, uint32_t length) override { return conn_.issue(area, length); }
    bool collect(uint8_t* area, uint32_t length) override { return conn_.collect(area, length); }
    bool channelCall(uint8_t* data, uint32_t length) override { return conn_.channelCall(data, length); }

private:
    RawConnection conn_;
    bool ok_ = false;
};

std::unique_ptr<Client> connectSide(bool library, int port) {
    if (library) {
        auto c = std::make_unique<LibClient>(port);
        if (c->ok()) return c;
    } else {
        auto c = std::make_unique<RawClient>(port);
        if (c->ok()) return c;
    }
    fprintf(stderr, "kvl_perf: no %s connection to port %d\n", library ? "library" : "raw", port);
    exit(2);
}

// ---- reporting ----------------------------------------------------------------

int targetsMet = 0;
int targetsMissed = 0;

void heading(const char* text) { printf("\n%s\n", text); }

// One line: the library's figure, the floor's, their ratio, and the target if there is one.
void row(const std::string& figure, double lib, double floor, double ratio, double target = NAN,
         const char* unit = "") {
    char t[48] = "";
    char verdict[16] = "";
    if (!std::isnan(target)) {
        snprintf(t, sizeof t, "<= %.2fx", target);
        bool met = ratio <= target;
        snprintf(verdict, sizeof verdict, "%s", met ? "met" : "NOT MET");
        (met ? targetsMet : targetsMissed)++;
    }
    char floorText[32] = "-";
    if (!std::isnan(floor)) snprintf(floorText, sizeof floorText, "%.2f", floor);
    char ratioText[32] = "-";
    if (!std::isnan(ratio) && !std::isinf(ratio)) snprintf(ratioText, sizeof ratioText, "%.2fx", ratio);
    printf("  %-46s %10.2f %10s %9s  %-10s %s%s\n", figure.c_str(), lib, floorText, ratioText, t, verdict, unit);
}

// ---- interleaving ---------------------------------------------------------------

// Runs `measure(library)` for both sides `rounds` times, alternating which goes
// first; returns each side's per-round figures.
struct Series {
    std::vector<double> lib, raw, ratio;
    double libMedian() const { return median(lib); }
    double rawMedian() const { return median(raw); }
    double ratioMedian() const { return median(ratio); }
};

Series interleave(int rounds, const std::function<double(bool library)>& measure) {
    Series s;
    for (int r = 0; r < rounds; ++r) {
        double lib;
        double raw;
        if (r % 2 == 0) {
            lib = measure(true);
            raw = measure(false);
        } else {
            raw = measure(false);
            lib = measure(true);
        }
        s.lib.push_back(lib);
        s.raw.push_back(raw);
        s.ratio.push_back(raw > 0 ? lib / raw : 0);
    }
    return s;
}

// ---- the figures ----------------------------------------------------------------

struct CallStats {
    double p50Us, p99Us, cpuUs, switches, allocs;
};

CallStats timeCalls(Client& c, uint32_t size, int calls) {
    std::vector<uint8_t> area(size, 'x');
    for (int i = 0; i < 50; ++i) c.call(area.data(), size);
    std::vector<double> lat;
    lat.reserve(static_cast<size_t>(calls));
    int64_t cpu0 = cpuNs();
    int64_t sw0 = contextSwitches();
    uint64_t al0 = allocations();
    for (int i = 0; i < calls; ++i) {
        int64_t t0 = nowNs();
        if (!c.call(area.data(), size)) {
            fprintf(stderr, "kvl_perf: a call failed\n");
            exit(2);
        }
        lat.push_back(static_cast<double>(nowNs() - t0) / 1000.0);
    }
    CallStats s;
    s.cpuUs = static_cast<double>(cpuNs() - cpu0) / 1000.0 / calls;
    s.switches = static_cast<double>(contextSwitches() - sw0) / calls;
    s.allocs = static_cast<double>(allocations() - al0) / calls;
    s.p50Us = percentile(lat, 50);
    s.p99Us = percentile(lat, 99);
    return s;
}

void syncLatency(int port) {
    heading("Synchronous calls on one connection (us; per call)");
    auto lib = connectSide(true, port);
    auto raw = connectSide(false, port);
    for (uint32_t size : {100u, 32000u}) {
        std::vector<CallStats> ls, rs;
        Series p50 = interleave(cfg.rounds, [&](bool library) {
            CallStats s = timeCalls(library ? *lib : *raw, size, cfg.syncCalls);
            (library ? ls : rs).push_back(s);
            return s.p50Us;
        });
        auto pick = [](const std::vector<CallStats>& v, double CallStats::*f) {
            std::vector<double> out;
            for (const auto& s : v) out.push_back(s.*f);
            return out;
        };
        auto ratios = [&](double CallStats::*f) {
            std::vector<double> r;
            for (size_t i = 0; i < ls.size(); ++i) r.push_back(rs[i].*f > 0 ? ls[i].*f / rs[i].*f : 0);
            return median(r);
        };
        std::string tag = std::to_string(size) + " B";
        row("sync p50, " + tag, p50.libMedian(), p50.rawMedian(), p50.ratioMedian(), 1.15);
        row("sync p99, " + tag, median(pick(ls, &CallStats::p99Us)), median(pick(rs, &CallStats::p99Us)),
            ratios(&CallStats::p99Us));
        row("CPU per call, " + tag, median(pick(ls, &CallStats::cpuUs)), median(pick(rs, &CallStats::cpuUs)),
            ratios(&CallStats::cpuUs), size == 100 ? 1.5 : NAN);
        row("context switches per call, " + tag, median(pick(ls, &CallStats::switches)),
            median(pick(rs, &CallStats::switches)), ratios(&CallStats::switches));
        row("allocations per call, " + tag, median(pick(ls, &CallStats::allocs)), median(pick(rs, &CallStats::allocs)),
            median(pick(rs, &CallStats::allocs)) > 0 ? median(pick(ls, &CallStats::allocs)) /
                                                           median(pick(rs, &CallStats::allocs))
                                                     : NAN);
    }
}

void throughput(int port) {
    heading("Throughput, 100-byte calls, threads sharing one connection (calls/s; ratio = floor / library)");
    auto lib = connectSide(true, port);
    auto raw = connectSide(false, port);
    for (int threads : {1, 4, 16}) {
        Series s = interleave(3, [&](bool library) {
            Client& c = library ? *lib : *raw;
            std::atomic<long> calls{0};
            std::atomic<bool> stop{false};
            std::vector<std::thread> pool;
            int64_t t0 = nowNs();
            for (int i = 0; i < threads; ++i) {
                pool.emplace_back([&] {
                    std::vector<uint8_t> area(100, 't');
                    while (!stop.load(std::memory_order_relaxed)) {
                        if (!c.call(area.data(), 100)) break;
                        calls.fetch_add(1, std::memory_order_relaxed);
                    }
                });
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(cfg.throughputMs));
            stop = true;
            for (auto& t : pool) t.join();
            return static_cast<double>(calls.load()) * 1e9 / static_cast<double>(nowNs() - t0);
        });
        // Higher is better here: the ratio is how many times the floor's rate the library falls short.
        std::vector<double> inv;
        for (size_t i = 0; i < s.lib.size(); ++i) inv.push_back(s.lib[i] > 0 ? s.raw[i] / s.lib[i] : 0);
        row(std::to_string(threads) + " thread(s)", s.libMedian(), s.rawMedian(), median(inv));
    }
}

void channelRoundTrip(int port) {
    heading("Channel round trip, one 10 MB container (ms)");
    auto lib = connectSide(true, port);
    auto raw = connectSide(false, port);
    std::vector<uint8_t> data(cfg.channelBytes, 'c');
    lib->channelCall(data.data(), cfg.channelBytes);
    raw->channelCall(data.data(), cfg.channelBytes);
    Series s = interleave(5, [&](bool library) {
        int64_t t0 = nowNs();
        if (!(library ? *lib : *raw).channelCall(data.data(), cfg.channelBytes)) {
            fprintf(stderr, "kvl_perf: channel call failed\n");
            exit(2);
        }
        return static_cast<double>(nowNs() - t0) / 1e6;
    });
    row("10 MB channel round trip", s.libMedian(), s.rawMedian(), s.ratioMedian());
}

void asyncDepths(int port) {
    heading("Asynchronous issue + collect, 100 B (us per request)");
    auto lib = connectSide(true, port);
    auto raw = connectSide(false, port);
    std::vector<double> libAt;
    for (int depth : cfg.asyncDepths) {
        Series s = interleave(3, [&](bool library) {
            Client& c = library ? *lib : *raw;
            std::vector<uint8_t> area(100, 'a');
            int batches = cfg.asyncTotal / depth > 0 ? cfg.asyncTotal / depth : 1;
            int64_t t0 = nowNs();
            for (int b = 0; b < batches; ++b) {
                for (int i = 0; i < depth; ++i) {
                    if (!c.issue(area.data(), 100)) {
                        fprintf(stderr, "kvl_perf: async issue failed\n");
                        exit(2);
                    }
                }
                for (int i = 0; i < depth; ++i) {
                    if (!c.collect(area.data(), 100)) {
                        fprintf(stderr, "kvl_perf: async collect failed\n");
                        exit(2);
                    }
                }
            }
            return static_cast<double>(nowNs() - t0) / 1000.0 / (static_cast<double>(batches) * depth);
        });
        libAt.push_back(s.libMedian());
        row(std::to_string(depth) + " in flight", s.libMedian(), s.rawMedian(), s.ratioMedian());
    }
    row("library: cost at " + std::to_string(cfg.asyncDepths.back()) + " / cost at " +
            std::to_string(cfg.asyncDepths.front()),
        libAt.back(), libAt.front(), libAt.back() / libAt.front(), 1.5);
}

// ---- idle connections, each count in a fresh process ---------------------------

struct IdleResult {
    double rssKbPerConn = 0, wakeupsPerSec = 0, cpuMsPerSec = 0, firstUs = 0, lastUs = 0, lastOverFirst = 0;
};

// Opens `count` connections, lets them sit, then times calls on the first and the last.
IdleResult idleChild(bool library, int port, int count) {
    IdleResult r;
    std::vector<std::unique_ptr<Client>> conns;
    int64_t rss0 = rssKb();
    for (int i = 0; i < count; ++i) conns.push_back(connectSide(library, port));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    r.rssKbPerConn = static_cast<double>(rssKb() - rss0) / count;
    int64_t wake0 = threadWakeups();
    int64_t cpu0 = cpuNs();
    std::this_thread::sleep_for(std::chrono::seconds(cfg.idleSeconds));
    r.wakeupsPerSec = static_cast<double>(threadWakeups() - wake0) / cfg.idleSeconds;
    r.cpuMsPerSec = static_cast<double>(cpuNs() - cpu0) / 1e6 / cfg.idleSeconds;
    std::vector<double> first, last, ratio;
    for (int round = 0; round < 8; ++round) {
        Client& a = *conns[round % 2 == 0 ? 0 : conns.size() - 1];
        Client& b = *conns[round % 2 == 0 ? conns.size() - 1 : 0];
        double pa = timeCalls(a, 100, 300).p50Us;
        double pb = timeCalls(b, 100, 300).p50Us;
        (round % 2 == 0 ? first : last).push_back(pa);
        (round % 2 == 0 ? last : first).push_back(pb);
        ratio.push_back(last.back() / first.back());
    }
    r.firstUs = median(first);
    r.lastUs = median(last);
    r.lastOverFirst = median(ratio);
    return r;
}

IdleResult runIdleChild(const char* self, bool library, int port, int count) {
    std::string cmd = std::string(self) + " --idle-child " + (library ? "lib " : "raw ") + std::to_string(port) + " " +
                      std::to_string(count) + " " + std::to_string(cfg.idleSeconds);
    IdleResult r;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return r;
    if (fscanf(p, "%lf %lf %lf %lf %lf %lf", &r.rssKbPerConn, &r.wakeupsPerSec, &r.cpuMsPerSec, &r.firstUs, &r.lastUs,
               &r.lastOverFirst) != 6)
        fprintf(stderr, "kvl_perf: idle child gave no figures\n");
    pclose(p);
    return r;
}

void idleConnections(const char* self, int port) {
    heading("Idle connections (each count measured in a fresh process)");
    for (int count : cfg.idleCounts) {
        IdleResult lib = runIdleChild(self, true, port, count);
        IdleResult raw = runIdleChild(self, false, port, count);
        std::string n = std::to_string(count) + " open: ";
        const bool top = count == cfg.idleCounts.back();
        row(n + "RSS per connection (KB)", lib.rssKbPerConn, raw.rssKbPerConn,
            raw.rssKbPerConn > 0 ? lib.rssKbPerConn / raw.rssKbPerConn : NAN);
        if (top) row(n + "RSS per connection vs 16 KB", lib.rssKbPerConn, 16, lib.rssKbPerConn / 16, 1.0);
        row(n + "wake-ups per second", lib.wakeupsPerSec, raw.wakeupsPerSec, NAN);
        if (top) {
            // Zero is the target: any wake-up at all is a miss (the ratio column shows the count).
            row(n + "wake-ups per second (target 0)", lib.wakeupsPerSec, NAN, lib.wakeupsPerSec, 0.0);
        }
        row(n + "CPU ms per second", lib.cpuMsPerSec, raw.cpuMsPerSec, NAN);
        row(n + "call on the last / the first (us)", lib.lastUs, lib.firstUs, lib.lastOverFirst, top ? 1.10 : NAN);
        row(n + "floor: last / first (us)", raw.lastUs, raw.firstUs, raw.lastOverFirst);
    }
}

// ---- system calls, counted by strace in a fresh process ------------------------

long straceCalls(const char* self, bool library, int port, int calls) {
    char out[] = "/tmp/kvl_perf_straceXXXXXX";
    int fd = mkstemp(out);
    if (fd < 0) return -1;
    close(fd);
    std::string cmd = std::string("strace -f -c -o ") + out + " " + self + " --call-child " + (library ? "lib " : "raw ") +
                      std::to_string(port) + " " + std::to_string(calls) + " >/dev/null 2>&1";
    long total = -1;
    if (system(cmd.c_str()) == 0) {
        FILE* f = fopen(out, "r");
        char line[256];
        while (f && fgets(line, sizeof line, f)) {
            if (!strstr(line, " total")) continue;
            // "100.00 seconds usecs/call calls [errors] total": the fourth column.
            double pct, secs;
            long usecs, n;
            if (sscanf(line, "%lf %lf %ld %ld", &pct, &secs, &usecs, &n) == 4) total = n;
        }
        if (f) fclose(f);
    }
    unlink(out);
    return total;
}

void syscallsPerCall(const char* self, int port) {
    heading("System calls per 100-byte sync call, whole process (strace -f -c, 2000 calls less 0)");
    if (system("command -v strace >/dev/null 2>&1") != 0) {
        printf("  strace is not installed: skipped\n");
        return;
    }
    double per[2];
    for (int side = 0; side < 2; ++side) {
        long none = straceCalls(self, side == 0, port, 0);
        long many = straceCalls(self, side == 0, port, 2000);
        per[side] = none >= 0 && many >= 0 ? static_cast<double>(many - none) / 2000 : NAN;
    }
    row("system calls per call", per[0], per[1], per[0] / per[1]);
}

// The children serving each port, for their CPU time.
pid_t fastPid = -1;
pid_t emuPid = -1;

void emulatorVsFast(int fastPort, int emuPort) {
    heading("Sync echo through the emulator vs the minimal Gateway, library on both (us, p50)");
    gwTok toFast = libOpen(fastPort);
    gwTok toEmu = libOpen(emuPort);
    if (!toFast || !toEmu) {
        fprintf(stderr, "kvl_perf: no connection for the emulator comparison\n");
        exit(2);
    }
    for (uint32_t size : {100u, 32000u}) {
        std::vector<uint8_t> area(size, 'e');
        std::vector<double> cpuEmu, cpuFast;
        // "library" here is the emulator, "floor" the minimal Gateway.
        Series s = interleave(cfg.rounds, [&](bool emulator) {
            gwTok t = emulator ? toEmu : toFast;
            const pid_t server = emulator ? emuPid : fastPid;
            for (int i = 0; i < 20; ++i) libCall(t, area.data(), size);
            std::vector<double> lat;
            const int64_t cpu0 = processCpuNs(server);
            for (int i = 0; i < cfg.syncCalls / 2; ++i) {
                int64_t t0 = nowNs();
                if (!libCall(t, area.data(), size)) {
                    fprintf(stderr, "kvl_perf: echo failed\n");
                    exit(2);
                }
                lat.push_back(static_cast<double>(nowNs() - t0) / 1000.0);
            }
            const int64_t cpu1 = processCpuNs(server);
            if (cpu0 >= 0 && cpu1 >= 0)
                (emulator ? cpuEmu : cpuFast).push_back(static_cast<double>(cpu1 - cpu0) / 1000.0 / (cfg.syncCalls / 2));
            return median(lat);
        });
        const std::string tag = std::to_string(size) + " B";
        row("emulator / minimal Gateway, " + tag, s.libMedian(), s.rawMedian(), s.ratioMedian(), 1.5);
        // The servers' own CPU per echo: what the emulator costs, without the
        // scheduling noise that moves a latency on a shared machine.
        if (!cpuEmu.empty() && !cpuFast.empty())
            row("server CPU per echo, " + tag, median(cpuEmu), median(cpuFast),
                median(cpuFast) > 0 ? median(cpuEmu) / median(cpuFast) : NAN);
    }
    KVL_closeGatewayConnection(&toFast);
    KVL_closeGatewayConnection(&toEmu);
}

// Opens through the extension API, over TLS or plain TCP; the time of the open in *openUs.
gwTok extOpen(int port, bool tls, double* openUs) {
    KVL_EXT_ConnectOptions o;
    KVL_EXT_initConnectOptions(&o);
    o.host = "127.0.0.1";
    o.port = port;
    o.connectTimeoutMs = 10000;
    const std::string ca = tlsDir + "/cert.pem";
    if (tls) {
        o.tls = 1;
        o.tlsCaFile = ca.c_str();
    }
    gwTok t = nullptr;
    int64_t t0 = nowNs();
    int rc = KVL_EXT_openConnection(&o, &t);
    if (openUs) *openUs = static_cast<double>(nowNs() - t0) / 1000.0;
    if (rc != KVL_OK) {
        char why[256] = "";
        KVL_EXT_getLastErrorText(why, sizeof why);
        fprintf(stderr, "kvl_perf: %s open failed, rc=%d: %s\n", tls ? "TLS" : "plain", rc, why);
        return nullptr;
    }
    return t;
}

void tlsVsPlain(int plainPort, int tlsPort) {
    heading("Sync echo over TLS vs plain TCP, library and emulator on both (us; ratio = TLS / plain)");
    if (tlsPort <= 0) {
        printf("  no TLS emulator (openssl command or TLS build missing): skipped\n");
        return;
    }
    Series opens = interleave(cfg.rounds, [&](bool tls) {
        double us = 0;
        gwTok t = extOpen(tls ? tlsPort : plainPort, tls, &us);
        if (!t) exit(2);
        KVL_closeGatewayConnection(&t);
        return us;
    });
    row("open (connect, TLS handshake, Gateway handshake)", opens.libMedian(), opens.rawMedian(), opens.ratioMedian());
    gwTok toTls = extOpen(tlsPort, true, nullptr);
    gwTok toPlain = extOpen(plainPort, false, nullptr);
    if (!toTls || !toPlain) exit(2);
    for (uint32_t size : {100u, 32000u}) {
        std::vector<uint8_t> area(size, 's');
        std::vector<double> cpuTls, cpuPlain;
        // "library" here is TLS, "floor" plain TCP.
        Series s = interleave(cfg.rounds, [&](bool tls) {
            gwTok t = tls ? toTls : toPlain;
            for (int i = 0; i < 20; ++i) libCall(t, area.data(), size);
            std::vector<double> lat;
            int64_t cpu0 = cpuNs();
            for (int i = 0; i < cfg.syncCalls / 2; ++i) {
                int64_t t0 = nowNs();
                if (!libCall(t, area.data(), size)) {
                    fprintf(stderr, "kvl_perf: %s echo failed\n", tls ? "TLS" : "plain");
                    exit(2);
                }
                lat.push_back(static_cast<double>(nowNs() - t0) / 1000.0);
            }
            (tls ? cpuTls : cpuPlain).push_back(static_cast<double>(cpuNs() - cpu0) / 1000.0 / (cfg.syncCalls / 2));
            return median(lat);
        });
        const std::string tag = std::to_string(size) + " B";
        row("sync p50 TLS / plain, " + tag, s.libMedian(), s.rawMedian(), s.ratioMedian());
        row("client CPU per call TLS / plain, " + tag, median(cpuTls), median(cpuPlain),
            median(cpuPlain) > 0 ? median(cpuTls) / median(cpuPlain) : NAN);
    }
    KVL_closeGatewayConnection(&toTls);
    KVL_closeGatewayConnection(&toPlain);
}

int childMain(int argc, char** argv) {
    if (argc < 5) return 2;
    bool library = strcmp(argv[2], "lib") == 0;
    int port = atoi(argv[3]);
    int n = atoi(argv[4]);
    if (strcmp(argv[1], "--idle-child") == 0) {
        if (argc > 5) cfg.idleSeconds = atoi(argv[5]);
        IdleResult r = idleChild(library, port, n);
        printf("%f %f %f %f %f %f\n", r.rssKbPerConn, r.wakeupsPerSec, r.cpuMsPerSec, r.firstUs, r.lastUs,
               r.lastOverFirst);
        return 0;
    }
    auto c = connectSide(library, port);
    std::vector<uint8_t> area(100, 's');
    for (int i = 0; i < n; ++i) c->call(area.data(), 100);
    return 0;
}

// The cases by the names --only takes.
struct Case {
    const char* name;
    std::function<void()> run;
};

// True when `name` is one of the comma-separated names in `list`.
bool listed(const std::string& list, const char* name) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(',', start);
        if (end == std::string::npos) end = list.size();
        if (list.compare(start, end - start, name) == 0) return true;
        start = end + 1;
    }
    return false;
}

void usage() {
    fprintf(stderr,
            "usage: kvl_perf [--quick] [--only CASE[,CASE...]]\n"
            "cases: sync throughput channel async idle syscalls emulator tls\n");
}

}  // namespace

int main(int argc, char** argv) {
    raiseFileLimit();
    if (argc > 1 && strncmp(argv[1], "--", 2) == 0 && strstr(argv[1], "-child")) return childMain(argc, argv);
    bool quick = false;
    std::string only;  // "": every case
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--quick") == 0) {
            quick = true;
        } else if (strcmp(argv[i], "--only") == 0 && i + 1 < argc) {
            only = argv[++i];
        } else {
            usage();
            return 2;
        }
    }
    if (quick) {
        cfg.rounds = 3;
        cfg.syncCalls = 300;
        cfg.throughputMs = 50;
        cfg.idleSeconds = 1;
        cfg.idleCounts = {1, 20};
        cfg.asyncDepths = {16, 1000};
        cfg.asyncTotal = 2000;
        cfg.channelBytes = 1u << 20;
    }
    // The servers are forked before this process starts any thread.
    int fastPort = spawn([](int fd) { runFastGateway(fd); }, &fastPid);
    int emuPort = spawn(serveEmulator, &emuPid);
    int tlsPort = -1;
    if ((only.empty() || listed(only, "tls")) && KVL_EXT_tlsAvailable() && kvlemu::Emulator::tlsAvailable()) {
        tlsDir = makeTlsCertificate();
        if (!tlsDir.empty()) tlsPort = spawn(serveTlsEmulator);
    }
    if (fastPort <= 0 || emuPort <= 0) {
        fprintf(stderr, "kvl_perf: the Gateways did not start\n");
        stopChildren();
        return 2;
    }
    char self[4096];
    ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    self[n > 0 ? n : 0] = '\0';

    const Case cases[] = {
        {"sync", [&] { syncLatency(fastPort); }},
        {"throughput", [&] { throughput(fastPort); }},
        {"channel", [&] { channelRoundTrip(fastPort); }},
        {"async", [&] { asyncDepths(fastPort); }},
        {"idle", [&] { idleConnections(self, fastPort); }},
        {"syscalls", [&] { syscallsPerCall(self, fastPort); }},
        {"emulator", [&] { emulatorVsFast(fastPort, emuPort); }},
        {"tls", [&] { tlsVsPlain(emuPort, tlsPort); }},
    };
    int chosen = 0;
    for (const Case& c : cases) chosen += only.empty() || listed(only, c.name) ? 1 : 0;
    if (chosen == 0) {
        usage();
        stopChildren();
        return 2;
    }
    printf("kvlclient performance suite: library vs raw floor, same run, %d rounds interleaved\n", cfg.rounds);
    printf("  %-46s %10s %10s %9s  %-10s %s\n", "figure", "library", "floor", "ratio", "target", "");
    for (const Case& c : cases)
        if (only.empty() || listed(only, c.name)) c.run();
    stopChildren();
    if (!tlsDir.empty()) system(("rm -rf " + tlsDir).c_str());
    printf("\ntargets: %d met, %d not met\n", targetsMet, targetsMissed);
    return 0;
}
