// kvl-gateway-emulator: the emulator as a stand-alone program.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gateway_emulator/config.h"
#include "gateway_emulator/emulator.h"
#include "gateway_emulator/recording.h"

#ifndef KVL_EMULATOR_VERSION
#define KVL_EMULATOR_VERSION "0"
#endif

namespace {

volatile std::sig_atomic_t gStop = 0;
volatile std::sig_atomic_t gReload = 0;

extern "C" void onStop(int) { gStop = 1; }
extern "C" void onReload(int) { gReload = 1; }

const char* const kUsage = R"(Usage: kvl-gateway-emulator [options]

Serves the Gateway protocol on a TCP port until interrupted (Ctrl+C, SIGTERM).
On Linux, SIGHUP reloads the configuration file without dropping connections.

Options:
  -a, --address ADDR     listen address (default 127.0.0.1)
  -p, --port PORT        listen port; 0 picks a free one (default 0)
  -c, --config FILE      configuration file (see below)
      --check-config FILE  validate FILE, name the wrong line, and exit
  -v, --verbose N        0 quiet, 1 one line per request (default),
                         2 and one line per flow, 3 and hex dumps
      --handshake MODE   accept (default), refuse, silent, drop-on-accept,
                         drop-on-handshake, accept-then-drop
      --refuse-rc RC     code of a refused handshake (default 61445)
      --fault FAULT      a fault, as the 'fault' directive (repeatable), e.g.
                         --fault "drop on GETCUST nth 3"
      --seed N           seed of random delays and fault probabilities
      --record FILE      write every flow in and out to FILE
      --replay FILE      answer calls recorded in FILE with their recorded replies
      --port-file FILE   write the port number to FILE once listening
      --tls-cert FILE    serve TLS with this PEM certificate chain (needs --tls-key)
      --tls-key FILE     the PEM key of --tls-cert
      --tls-client-ca FILE  ask clients for a certificate issued by these CAs
      --tls-require-client-cert  refuse clients without an accepted certificate
      --tls-min-version 1.2|1.3  oldest TLS version accepted (default 1.2)
      --version          the program's version
  -h, --help             this text

Once listening it prints "listening on ADDR:PORT".

Built-in programs: ECHO, SHORT, ABEND, DELAY, GATE, LUW, CHANECHO, CHANCTL.
Default server: EMUSRV. No users unless configured.

Configuration file, one directive per line, '#' starts a comment:
  listen ADDR PORT                     (command-line options win)
  server NAME description text         replaces the default server list
  secure-server NAME description text  ECI requests need a valid user/password
  user USERID PASSWORD [expired] [revoked] [reject-new] [rc=CODE]
  program NAME BUILTIN                 NAME behaves like a built-in program
  program NAME                         a program defined by the lines up to 'end':
    reply DATA | length N | rc N | abend CODE | delay MS[-MS]
    container NAME DATA | bit-container NAME DATA | delete NAME
    command SHELL COMMAND              request on stdin, reply from stdout
    when prefix DATA then SETTINGS...  first matching rule answers
    when at OFFSET DATA then SETTINGS...
    when container NAME [DATA] then SETTINGS...
  end
  fault KIND [ARG] [on PROGRAM] [nth N] [probability P] [times N]
        KIND: drop close exception error ping ping-storm delay garbage
              stray drop-mid-reply no-reply
  seed N
  handshake MODE [RC]
  max-body BYTES                       largest request body accepted
DATA is "text" (escapes \n \t \0 \xHH \" \\), hex:C1C2C3 or file:PATH.
)";

bool readFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
    return true;
}

std::string directoryOf(const std::string& path) {
    size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool toInt(const char* s, long lo, long hi, long& out) {
    char* end = nullptr;
    out = std::strtol(s, &end, 0);
    return end != s && *end == '\0' && out >= lo && out <= hi;
}

// Reads and parses a configuration file; on failure `error` is "PATH: line N: why".
bool loadConfig(const std::string& path, kvlemu::Config& config, std::string& error) {
    std::string text;
    if (!readFile(path, text)) {
        error = "cannot read " + path;
        return false;
    }
    std::string why;
    if (!kvlemu::parseConfig(text, config, why, directoryOf(path))) {
        error = path + ": " + why;
        return false;
    }
    return true;
}

void fail(const std::string& message) { std::fprintf(stderr, "kvl-gateway-emulator: %s\n", message.c_str()); }

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> configPaths;
    kvlemu::TlsOptions tls;
    std::optional<std::string> address;
    std::optional<uint16_t> port;
    std::optional<kvlemu::HandshakeMode> handshake;
    std::optional<int32_t> refuseRc;
    std::optional<uint32_t> seed;
    std::vector<kvlemu::FaultRule> faults;
    std::string portFile, recordPath, replayPath;
    long verbosity = 1;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                fail(std::string(name) + " needs a value");
                std::exit(2);
            }
            return argv[++i];
        };
        long n = 0;
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "--version") {
            std::printf("kvl-gateway-emulator %s\n", KVL_EMULATOR_VERSION);
            return 0;
        } else if (arg == "--check-config") {
            std::string path = value("--check-config"), error;
            kvlemu::Config config;
            if (!loadConfig(path, config, error)) {
                fail(error);
                return 2;
            }
            std::printf("%s: OK (%zu programs, %zu faults, %zu servers, %zu users)\n", path.c_str(),
                        config.programs.size() + config.aliases.size(), config.faults.size(), config.servers.size(),
                        config.users.size());
            return 0;
        } else if (arg == "-a" || arg == "--address") {
            address = value("--address");
        } else if (arg == "-p" || arg == "--port") {
            if (!toInt(value("--port"), 0, 65535, n)) {
                fail("bad port");
                return 2;
            }
            port = static_cast<uint16_t>(n);
        } else if (arg == "-c" || arg == "--config") {
            configPaths.push_back(value("--config"));
        } else if (arg == "-v" || arg == "--verbose") {
            if (!toInt(value("--verbose"), 0, 3, verbosity)) {
                fail("verbosity is 0, 1, 2 or 3");
                return 2;
            }
        } else if (arg == "--handshake") {
            kvlemu::HandshakeMode mode;
            if (!kvlemu::parseHandshakeMode(value("--handshake"), mode)) {
                fail("unknown handshake mode");
                return 2;
            }
            handshake = mode;
        } else if (arg == "--refuse-rc") {
            if (!toInt(value("--refuse-rc"), INT32_MIN, INT32_MAX, n)) {
                fail("bad refusal code");
                return 2;
            }
            refuseRc = static_cast<int32_t>(n);
        } else if (arg == "--fault") {
            kvlemu::FaultRule rule;
            std::string error;
            if (!kvlemu::parseFaultText(value("--fault"), rule, error)) {
                fail("--fault: " + error);
                return 2;
            }
            faults.push_back(rule);
        } else if (arg == "--seed") {
            if (!toInt(value("--seed"), 0, INT32_MAX, n)) {
                fail("bad seed");
                return 2;
            }
            seed = static_cast<uint32_t>(n);
        } else if (arg == "--record") {
            recordPath = value("--record");
        } else if (arg == "--replay") {
            replayPath = value("--replay");
        } else if (arg == "--port-file") {
            portFile = value("--port-file");
        } else if (arg == "--tls-cert") {
            tls.certFile = value("--tls-cert");
        } else if (arg == "--tls-key") {
            tls.keyFile = value("--tls-key");
        } else if (arg == "--tls-client-ca") {
            tls.clientCaFile = value("--tls-client-ca");
        } else if (arg == "--tls-require-client-cert") {
            tls.requireClientCert = true;
        } else if (arg == "--tls-min-version") {
            std::string v = value("--tls-min-version");
            if (v != "1.2" && v != "1.3") {
                fail("--tls-min-version takes 1.2 or 1.3");
                return 2;
            }
            tls.minVersion = v == "1.3" ? 0x0304 : 0x0303;
        } else {
            fail("unknown option " + arg + " (try --help)");
            return 2;
        }
    }

    kvlemu::Emulator emu;
    emu.setRecordLimit(0);  // a long-running program keeps no flow history
    emu.setLog(
        [](const std::string& line) {
            std::fputs(line.c_str(), stdout);
            if (line.empty() || line.back() != '\n') std::fputc('\n', stdout);
            std::fflush(stdout);
        },
        static_cast<int>(verbosity));

    // The whole configuration: files, then the command line on top.
    auto configure = [&](std::string& error) {
        kvlemu::Config config;
        for (const auto& path : configPaths)
            if (!loadConfig(path, config, error)) return false;
        kvlemu::Setup setup = kvlemu::setupFromConfig(config, emu);
        setup.faults.insert(setup.faults.end(), faults.begin(), faults.end());
        if (handshake) setup.handshake = *handshake;
        if (refuseRc) setup.refuseRc = *refuseRc;
        if (seed) emu.setRandomSeed(*seed);
        emu.reconfigure(setup);
        if (!address && config.address) address = config.address;
        if (!port && config.port) port = config.port;
        return true;
    };
    std::string error;
    if (!configure(error)) {
        fail(error);
        return 2;
    }
    if (!recordPath.empty()) {
        auto recorder = std::make_shared<kvlemu::Recorder>();
        if (!recorder->open(recordPath, error)) {
            fail(error);
            return 2;
        }
        emu.setFlowTap(kvlemu::Recorder::tapOf(recorder));
    }
    if (!replayPath.empty()) {
        std::shared_ptr<kvlemu::ReplayBook> book;
        size_t exchanges = 0;
        if (!kvlemu::loadReplay(replayPath, book, exchanges, error)) {
            fail(error);
            return 2;
        }
        emu.setReplySource(kvlemu::replySourceOf(book));
        std::printf("replaying %zu recorded calls from %s\n", exchanges, replayPath.c_str());
    }

    if (!tls.certFile.empty() || !tls.keyFile.empty()) {
        if (tls.certFile.empty() || tls.keyFile.empty()) {
            fail("TLS needs both --tls-cert and --tls-key");
            return 2;
        }
        if (!emu.setTls(tls)) {
            fail(emu.lastError());
            return 1;
        }
    } else if (!tls.clientCaFile.empty() || tls.requireClientCert) {
        fail("client certificates need --tls-cert and --tls-key");
        return 2;
    }

    const std::string listenAddress = address.value_or("127.0.0.1");
    if (!emu.start(listenAddress, port.value_or(0))) {
        fail(emu.lastError());
        return 1;
    }
    std::signal(SIGINT, onStop);
    std::signal(SIGTERM, onStop);
#ifdef SIGHUP
    std::signal(SIGHUP, onReload);
#endif
    std::printf("listening on %s:%u\n", listenAddress.c_str(), static_cast<unsigned>(emu.port()));
    std::fflush(stdout);
    if (!portFile.empty()) {
        std::ofstream out(portFile);
        out << emu.port() << "\n";
    }
    while (!gStop) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (gReload) {
            gReload = 0;
            // A bad file keeps the configuration in force; connections stay either way.
            if (configure(error))
                std::printf("configuration reloaded\n");
            else
                std::printf("reload refused, configuration unchanged: %s\n", error.c_str());
            std::fflush(stdout);
        }
    }
    std::printf("stopping\n");
    std::fflush(stdout);
    emu.stop();
    std::printf("stopped\n");
    return 0;
}
