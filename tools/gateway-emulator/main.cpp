// kvl-gateway-emulator: the emulator as a stand-alone program.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "gateway_emulator/config.h"
#include "gateway_emulator/emulator.h"

namespace {

volatile std::sig_atomic_t gStop = 0;

extern "C" void onSignal(int) { gStop = 1; }

const char* const kUsage = R"(Usage: kvl-gateway-emulator [options]

Serves the Gateway protocol on a TCP port until interrupted (Ctrl+C, SIGTERM).

Options:
  -a, --address ADDR    listen address (default 127.0.0.1)
  -p, --port PORT       listen port; 0 picks a free one (default 0)
  -c, --config FILE     configuration file (see below)
  -v, --verbose N       0 quiet, 1 one line per flow (default), 2 with hex dumps
      --handshake MODE  accept (default), refuse, silent, drop-on-accept,
                        drop-on-handshake, accept-then-drop
      --refuse-rc RC    code of a refused handshake (default 61445)
      --port-file FILE  write the port number to FILE once listening
      --tls-cert FILE   serve TLS with this PEM certificate chain (needs --tls-key)
      --tls-key FILE    the PEM key of --tls-cert
      --tls-client-ca FILE  ask clients for a certificate issued by these CAs
      --tls-require-client-cert  refuse clients without an accepted certificate
      --tls-min-version 1.2|1.3  oldest TLS version accepted (default 1.2)
  -h, --help            this text

Once listening it prints "listening on ADDR:PORT".

Built-in programs: ECHO, SHORT, ABEND, DELAY, GATE, LUW, CHANECHO, CHANCTL.
Default server: EMUSRV. No users unless configured.

Configuration file, one directive per line, '#' starts a comment:
  listen ADDR PORT                     (command-line options win)
  server NAME description text         replaces the default server list
  secure-server NAME description text  ECI requests need a valid user/password
  user USERID PASSWORD [expired] [revoked] [reject-new] [rc=CODE]
  program NAME BUILTIN                 NAME behaves like a built-in program
  handshake MODE [RC]
  max-body BYTES                       largest request body accepted
)";

bool readFile(const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream all;
    all << in.rdbuf();
    text = all.str();
    return true;
}

bool toInt(const char* s, long lo, long hi, long& out) {
    char* end = nullptr;
    out = std::strtol(s, &end, 0);
    return end != s && *end == '\0' && out >= lo && out <= hi;
}

}  // namespace

int main(int argc, char** argv) {
    kvlemu::Config config;
    kvlemu::TlsOptions tls;
    std::optional<std::string> address;
    std::optional<uint16_t> port;
    std::optional<kvlemu::HandshakeMode> handshake;
    std::optional<int32_t> refuseRc;
    std::string portFile;
    long verbosity = 1;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "kvl-gateway-emulator: %s needs a value\n", name);
                std::exit(2);
            }
            return argv[++i];
        };
        long n = 0;
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (arg == "-a" || arg == "--address") {
            address = value("--address");
        } else if (arg == "-p" || arg == "--port") {
            if (!toInt(value("--port"), 0, 65535, n)) {
                std::fprintf(stderr, "kvl-gateway-emulator: bad port\n");
                return 2;
            }
            port = static_cast<uint16_t>(n);
        } else if (arg == "-c" || arg == "--config") {
            std::string path = value("--config"), text, error;
            if (!readFile(path, text)) {
                std::fprintf(stderr, "kvl-gateway-emulator: cannot read %s\n", path.c_str());
                return 2;
            }
            if (!kvlemu::parseConfig(text, config, error)) {
                std::fprintf(stderr, "kvl-gateway-emulator: %s: %s\n", path.c_str(), error.c_str());
                return 2;
            }
        } else if (arg == "-v" || arg == "--verbose") {
            if (!toInt(value("--verbose"), 0, 2, verbosity)) {
                std::fprintf(stderr, "kvl-gateway-emulator: verbosity is 0, 1 or 2\n");
                return 2;
            }
        } else if (arg == "--handshake") {
            kvlemu::HandshakeMode mode;
            if (!kvlemu::parseHandshakeMode(value("--handshake"), mode)) {
                std::fprintf(stderr, "kvl-gateway-emulator: unknown handshake mode\n");
                return 2;
            }
            handshake = mode;
        } else if (arg == "--refuse-rc") {
            if (!toInt(value("--refuse-rc"), INT32_MIN, INT32_MAX, n)) {
                std::fprintf(stderr, "kvl-gateway-emulator: bad refusal code\n");
                return 2;
            }
            refuseRc = static_cast<int32_t>(n);
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
                std::fprintf(stderr, "kvl-gateway-emulator: --tls-min-version takes 1.2 or 1.3\n");
                return 2;
            }
            tls.minVersion = v == "1.3" ? 0x0304 : 0x0303;
        } else {
            std::fprintf(stderr, "kvl-gateway-emulator: unknown option %s (try --help)\n", arg.c_str());
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
    kvlemu::applyConfig(config, emu);
    if (!tls.certFile.empty() || !tls.keyFile.empty()) {
        if (tls.certFile.empty() || tls.keyFile.empty()) {
            std::fprintf(stderr, "kvl-gateway-emulator: TLS needs both --tls-cert and --tls-key\n");
            return 2;
        }
        if (!emu.setTls(tls)) {
            std::fprintf(stderr, "kvl-gateway-emulator: %s\n", emu.lastError().c_str());
            return 1;
        }
    } else if (!tls.clientCaFile.empty() || tls.requireClientCert) {
        std::fprintf(stderr, "kvl-gateway-emulator: client certificates need --tls-cert and --tls-key\n");
        return 2;
    }
    if (handshake || refuseRc)
        emu.setHandshake(handshake.value_or(config.handshake.value_or(kvlemu::HandshakeMode::Accept)),
                         refuseRc.value_or(config.refuseRc));

    const std::string listenAddress = address.value_or(config.address.value_or("127.0.0.1"));
    if (!emu.start(listenAddress, port.value_or(config.port.value_or(0)))) {
        std::fprintf(stderr, "kvl-gateway-emulator: %s\n", emu.lastError().c_str());
        return 1;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::printf("listening on %s:%u\n", listenAddress.c_str(), static_cast<unsigned>(emu.port()));
    std::fflush(stdout);
    if (!portFile.empty()) {
        std::ofstream out(portFile);
        out << emu.port() << "\n";
    }
    while (!gStop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::printf("stopping\n");
    std::fflush(stdout);
    emu.stop();
    return 0;
}
