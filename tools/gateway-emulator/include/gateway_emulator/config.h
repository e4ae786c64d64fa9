// The emulator program's configuration file: servers, users, program aliases
// and handshake behaviour, one directive per line (README.md has the syntax).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gateway_emulator/emulator.h"

namespace kvlemu {

struct Config {
    std::optional<std::string> address;
    std::optional<uint16_t> port;
    bool serversGiven = false;  // the file's servers replace the default one
    std::vector<ServerInfo> servers;
    std::vector<User> users;
    std::vector<std::pair<std::string, std::string>> aliases;  // program name -> built-in name
    std::optional<HandshakeMode> handshake;
    int32_t refuseRc = rc::kWorkWasRefused;
    std::optional<uint32_t> maxBodyLength;
};

// Adds the directives of `text` to `out`. On failure `error` names the line.
bool parseConfig(const std::string& text, Config& out, std::string& error);
// "accept", "refuse", "silent", "drop-on-accept", "drop-on-handshake", "accept-then-drop".
bool parseHandshakeMode(const std::string& word, HandshakeMode& mode);
void applyConfig(const Config& config, Emulator& emu);

}  // namespace kvlemu
