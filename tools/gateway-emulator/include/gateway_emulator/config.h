// The emulator program's configuration file: servers, users, programs defined
// by their answers, faults and handshake behaviour (README.md has the syntax).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway_emulator/emulator.h"

namespace kvlemu {

// What a configured program answers. Unset fields leave the echo of the
// request as it is; a rule without a delay takes the program's.
struct ProgramResponse {
    std::optional<wire::Bytes> reply;    // written over the start of the COMMAREA
    std::optional<int32_t> length;       // bytes sent back (explicit count when fewer)
    std::optional<int32_t> rc;
    std::optional<std::string> abend;    // sets rc -7 unless rc is given
    std::optional<std::pair<int, int>> delayMs;  // fixed (a == b) or a random value in [a, b]
    struct ContainerOut {
        std::string name;
        bool bit = false;
        wire::Bytes data;
        bool remove = false;
    };
    std::vector<ContainerOut> containers;  // channel requests
    std::optional<std::string> command;    // external command: request on stdin, reply on stdout
};

struct ProgramRule {
    enum class Test { Prefix, At, Container };
    Test test = Test::Prefix;
    size_t offset = 0;       // At
    std::string container;   // Container: the container to look at
    wire::Bytes value;       // Prefix/At/Container: bytes to find (Container: a prefix, may be empty)
    ProgramResponse response;
    int line = 0;
};

struct ProgramDef {
    std::string name;
    ProgramResponse defaults;
    std::vector<ProgramRule> rules;  // the first that matches answers
    int line = 0;
};

struct Config {
    std::optional<std::string> address;
    std::optional<uint16_t> port;
    bool serversGiven = false;  // the file's servers replace the default one
    std::vector<ServerInfo> servers;
    std::vector<User> users;
    std::vector<std::pair<std::string, std::string>> aliases;  // program name -> built-in name
    std::vector<ProgramDef> programs;
    std::vector<FaultRule> faults;
    std::optional<uint32_t> seed;
    std::optional<HandshakeMode> handshake;
    int32_t refuseRc = rc::kWorkWasRefused;
    std::optional<uint32_t> maxBodyLength;
};

// Adds the directives of `text` to `out`. On failure `error` starts with
// "line N: " and names what is wrong. `baseDir` resolves relative file: paths.
bool parseConfig(const std::string& text, Config& out, std::string& error, const std::string& baseDir = "");
// A fault as the `fault` directive and --fault spell it: KIND [ARG] [on NAME]
// [nth N] [probability P] [times N].
bool parseFaultText(const std::string& text, FaultRule& out, std::string& error);
// "accept", "refuse", "silent", "drop-on-accept", "drop-on-handshake", "accept-then-drop".
bool parseHandshakeMode(const std::string& word, HandshakeMode& mode);
// Adds the configuration to what the emulator has (servers replace the list).
void applyConfig(const Config& config, Emulator& emu);
// Everything the configuration decides, replacing what the emulator had (reload).
Setup setupFromConfig(const Config& config, Emulator& emu);
// The program a ProgramDef describes; it runs on the worker pool when it
// has a command or its own delays use no timers (ProgramRuns in *runs).
Program makeProgram(const ProgramDef& desc, Emulator& emu, ProgramRuns* runs);

}  // namespace kvlemu
