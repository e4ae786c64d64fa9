#include "gateway_emulator/config.h"

#include <sstream>

namespace kvlemu {

namespace {

bool parseInt(const std::string& s, long long lo, long long hi, long long& out) {
    if (s.empty()) return false;
    size_t used = 0;
    try {
        out = std::stoll(s, &used, 0);
    } catch (...) {
        return false;
    }
    return used == s.size() && out >= lo && out <= hi;
}

std::string rest(std::istringstream& words) {
    std::string r;
    std::getline(words >> std::ws, r);
    while (!r.empty() && (r.back() == ' ' || r.back() == '\t' || r.back() == '\r')) r.pop_back();
    return r;
}

}  // namespace

bool parseHandshakeMode(const std::string& word, HandshakeMode& mode) {
    static const std::pair<const char*, HandshakeMode> kModes[] = {
        {"accept", HandshakeMode::Accept},
        {"refuse", HandshakeMode::Refuse},
        {"silent", HandshakeMode::Silent},
        {"drop-on-accept", HandshakeMode::DropOnAccept},
        {"drop-on-handshake", HandshakeMode::DropOnHandshake},
        {"accept-then-drop", HandshakeMode::AcceptThenDrop},
    };
    for (const auto& [name, m] : kModes)
        if (word == name) {
            mode = m;
            return true;
        }
    return false;
}

bool parseConfig(const std::string& text, Config& out, std::string& error) {
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& why) {
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string verb;
        if (!(words >> verb)) continue;
        long long n = 0;
        if (verb == "listen") {
            std::string address, port;
            words >> address >> port;
            if (address.empty() || !parseInt(port, 0, 65535, n)) return fail("expected: listen ADDRESS PORT");
            out.address = address;
            out.port = static_cast<uint16_t>(n);
        } else if (verb == "server" || verb == "secure-server") {
            ServerInfo s;
            words >> s.name;
            s.description = rest(words);
            s.checkSecurity = verb == "secure-server";
            if (s.name.empty() || s.name.size() > 8) return fail("server name of 1 to 8 characters expected");
            if (s.description.size() > 60) return fail("server description longer than 60 characters");
            out.serversGiven = true;
            out.servers.push_back(s);
        } else if (verb == "user") {
            User u;
            words >> u.userid >> u.password;
            if (u.userid.empty() || u.password.empty()) return fail("expected: user USERID PASSWORD [flags]");
            std::string flag;
            while (words >> flag) {
                if (flag == "expired") {
                    u.expired = true;
                } else if (flag == "revoked") {
                    u.revoked = true;
                } else if (flag == "reject-new") {
                    u.rejectNewPassword = true;
                } else if (flag.rfind("rc=", 0) == 0 && parseInt(flag.substr(3), INT32_MIN, INT32_MAX, n)) {
                    u.forcedRc = static_cast<int32_t>(n);
                } else {
                    return fail("unknown user flag '" + flag + "'");
                }
            }
            out.users.push_back(u);
        } else if (verb == "program") {
            std::string name, builtin;
            words >> name >> builtin;
            if (name.empty() || name.size() > 8) return fail("program name of 1 to 8 characters expected");
            if (!builtinProgram(builtin)) return fail("no built-in program '" + builtin + "'");
            out.aliases.emplace_back(name, builtin);
        } else if (verb == "handshake") {
            std::string mode, code;
            words >> mode >> code;
            HandshakeMode m;
            if (!parseHandshakeMode(mode, m)) return fail("unknown handshake mode '" + mode + "'");
            if (!code.empty()) {
                if (!parseInt(code, INT32_MIN, INT32_MAX, n)) return fail("bad refusal code '" + code + "'");
                out.refuseRc = static_cast<int32_t>(n);
            }
            out.handshake = m;
        } else if (verb == "max-body") {
            std::string bytes;
            words >> bytes;
            if (!parseInt(bytes, 1, UINT32_MAX, n)) return fail("expected: max-body BYTES");
            out.maxBodyLength = static_cast<uint32_t>(n);
        } else {
            return fail("unknown directive '" + verb + "'");
        }
    }
    return true;
}

void applyConfig(const Config& config, Emulator& emu) {
    if (config.serversGiven) {
        emu.clearServers();
        for (const auto& s : config.servers) emu.addServer(s);
    }
    for (const auto& u : config.users) emu.addUser(u);
    for (const auto& [name, builtin] : config.aliases) emu.registerProgram(name, builtinProgram(builtin));
    if (config.handshake) emu.setHandshake(*config.handshake, config.refuseRc);
    if (config.maxBodyLength) emu.setMaxBodyLength(*config.maxBodyLength);
}

}  // namespace kvlemu
