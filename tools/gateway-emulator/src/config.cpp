#include "gateway_emulator/config.h"

#include <sstream>

#include "config_words.h"

namespace kvlemu {

using cfg::Word;

namespace {

std::string rest(std::istringstream& words) {
    std::string r;
    std::getline(words >> std::ws, r);
    while (!r.empty() && (r.back() == ' ' || r.back() == '\t' || r.back() == '\r')) r.pop_back();
    return r;
}

// Reads response actions from words[i..]: reply DATA, length N, rc N, abend CODE,
// delay MS[-MS], container NAME DATA, bit-container NAME DATA, delete NAME,
// command TEXT (the rest of the line).
bool parseResponse(const std::vector<Word>& w, size_t i, const std::string& line, const std::string& baseDir,
                   ProgramResponse& r, std::string& error) {
    auto need = [&](size_t count, const char* form) {
        if (i + count < w.size()) return true;
        error = std::string("expected: ") + form;
        return false;
    };
    long long n = 0;
    while (i < w.size()) {
        const std::string& key = w[i].text;
        if (key == "reply") {
            if (!need(1, "reply DATA")) return false;
            wire::Bytes b;
            if (!cfg::parseData(w[i + 1], baseDir, b, error)) return false;
            r.reply = std::move(b);
            i += 2;
        } else if (key == "length" || key == "rc") {
            if (!need(1, key == "rc" ? "rc CODE" : "length BYTES")) return false;
            long long lo = key == "rc" ? INT32_MIN : 0;
            if (!cfg::parseInt(w[i + 1].text, lo, INT32_MAX, n)) {
                error = "bad number '" + w[i + 1].text + "' after " + key;
                return false;
            }
            (key == "rc" ? r.rc : r.length) = static_cast<int32_t>(n);
            i += 2;
        } else if (key == "abend") {
            if (!need(1, "abend CODE")) return false;
            if (w[i + 1].text.empty() || w[i + 1].text.size() > 4) {
                error = "abend code of 1 to 4 characters expected";
                return false;
            }
            r.abend = w[i + 1].text;
            i += 2;
        } else if (key == "delay") {
            if (!need(1, "delay MS or delay MIN-MAX")) return false;
            const std::string& v = w[i + 1].text;
            size_t dash = v.find('-', 1);
            long long lo = 0, hi = 0;
            bool ok = dash == std::string::npos
                          ? cfg::parseInt(v, 0, 600000, lo) && (hi = lo, true)
                          : cfg::parseInt(v.substr(0, dash), 0, 600000, lo) &&
                                cfg::parseInt(v.substr(dash + 1), 0, 600000, hi) && lo <= hi;
            if (!ok) {
                error = "delay of 0 to 600000 ms expected, or MIN-MAX";
                return false;
            }
            r.delayMs = {static_cast<int>(lo), static_cast<int>(hi)};
            i += 2;
        } else if (key == "container" || key == "bit-container") {
            if (!need(2, "container NAME DATA")) return false;
            ProgramResponse::ContainerOut c;
            c.name = w[i + 1].text;
            c.bit = key == "bit-container";
            if (c.name.empty() || c.name.size() > 16) {
                error = "container name of 1 to 16 characters expected";
                return false;
            }
            if (!cfg::parseData(w[i + 2], baseDir, c.data, error)) return false;
            r.containers.push_back(std::move(c));
            i += 3;
        } else if (key == "delete") {
            if (!need(1, "delete NAME")) return false;
            ProgramResponse::ContainerOut c;
            c.name = w[i + 1].text;
            c.remove = true;
            r.containers.push_back(std::move(c));
            i += 2;
        } else if (key == "command") {
            if (!need(1, "command TEXT")) return false;
            std::string text = line.substr(w[i + 1].begin);
            if (auto hash = text.find(" #"); hash != std::string::npos) text.erase(hash);
            while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) text.pop_back();
            r.command = text;
            return true;
        } else {
            error = "unknown program setting '" + key + "'";
            return false;
        }
    }
    return true;
}

// when prefix DATA then ... | when at OFFSET DATA then ... | when container NAME [DATA] then ...
bool parseRule(const std::vector<Word>& w, const std::string& line, const std::string& baseDir, ProgramRule& rule,
               std::string& error) {
    size_t then = 0;
    for (size_t k = 1; k < w.size(); ++k)
        if (w[k].text == "then" && !w[k].quoted) {
            then = k;
            break;
        }
    if (then == 0 || w.size() < 3) {
        error = "expected: when prefix DATA | at OFFSET DATA | container NAME [DATA] then SETTINGS";
        return false;
    }
    const std::string& test = w[1].text;
    long long n = 0;
    if (test == "prefix" && then == 3) {
        rule.test = ProgramRule::Test::Prefix;
        if (!cfg::parseData(w[2], baseDir, rule.value, error)) return false;
    } else if (test == "at" && then == 4) {
        rule.test = ProgramRule::Test::At;
        if (!cfg::parseInt(w[2].text, 0, 1 << 30, n)) {
            error = "offset expected after 'at', found '" + w[2].text + "'";
            return false;
        }
        rule.offset = static_cast<size_t>(n);
        if (!cfg::parseData(w[3], baseDir, rule.value, error)) return false;
    } else if (test == "container" && (then == 3 || then == 4)) {
        rule.test = ProgramRule::Test::Container;
        rule.container = w[2].text;
        if (then == 4 && !cfg::parseData(w[3], baseDir, rule.value, error)) return false;
    } else {
        error = "expected: when prefix DATA | at OFFSET DATA | container NAME [DATA] then SETTINGS";
        return false;
    }
    if (then + 1 >= w.size()) {
        error = "nothing after 'then'";
        return false;
    }
    return parseResponse(w, then + 1, line, baseDir, rule.response, error);
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

bool parseConfig(const std::string& text, Config& out, std::string& error, const std::string& baseDir) {
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    std::optional<ProgramDef> block;  // inside "program NAME" ... "end"
    auto fail = [&](const std::string& why) {
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<Word> w;
        std::string why;
        if (!cfg::splitWords(line, w, why)) return fail(why);
        if (w.empty()) continue;
        const std::string& verb = w[0].text;
        long long n = 0;

        if (block) {
            if (verb == "end") {
                for (auto& rule : block->rules) {
                    // A rule stands alone, except for the program's delay.
                    if (!rule.response.delayMs) rule.response.delayMs = block->defaults.delayMs;
                }
                out.programs.push_back(std::move(*block));
                block.reset();
            } else if (verb == "when") {
                ProgramRule rule;
                rule.line = number;
                if (!parseRule(w, line, baseDir, rule, why)) return fail(why);
                block->rules.push_back(std::move(rule));
            } else if (verb == "program") {
                return fail("'end' missing before this program (the one on line " + std::to_string(block->line) +
                            " is still open)");
            } else if (!parseResponse(w, 0, line, baseDir, block->defaults, why)) {
                return fail(why);
            }
            continue;
        }

        // Directives whose last field is free text keep the old word splitting.
        std::string bare = line;
        if (auto hash = bare.find('#'); hash != std::string::npos) bare.erase(hash);
        std::istringstream words(bare);
        words >> std::ws;
        std::string skip;
        words >> skip;

        if (verb == "listen") {
            if (w.size() != 3 || !cfg::parseInt(w[2].text, 0, 65535, n)) return fail("expected: listen ADDRESS PORT");
            out.address = w[1].text;
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
            if (w.size() < 3) return fail("expected: user USERID PASSWORD [flags]");
            User u;
            u.userid = w[1].text;
            u.password = w[2].text;
            if (u.userid.empty() || u.password.empty()) return fail("expected: user USERID PASSWORD [flags]");
            for (size_t k = 3; k < w.size(); ++k) {
                const std::string& flag = w[k].text;
                if (flag == "expired") {
                    u.expired = true;
                } else if (flag == "revoked") {
                    u.revoked = true;
                } else if (flag == "reject-new") {
                    u.rejectNewPassword = true;
                } else if (flag.rfind("rc=", 0) == 0 && cfg::parseInt(flag.substr(3), INT32_MIN, INT32_MAX, n)) {
                    u.forcedRc = static_cast<int32_t>(n);
                } else {
                    return fail("unknown user flag '" + flag + "'");
                }
            }
            out.users.push_back(u);
        } else if (verb == "program") {
            if (w.size() < 2 || w[1].text.empty() || w[1].text.size() > 8)
                return fail("program name of 1 to 8 characters expected");
            if (w.size() == 2) {
                block.emplace();
                block->name = w[1].text;
                block->line = number;
            } else if (w.size() == 3) {
                if (!builtinProgram(w[2].text)) return fail("no built-in program '" + w[2].text + "'");
                out.aliases.emplace_back(w[1].text, w[2].text);
            } else {
                return fail("expected: program NAME (a block up to 'end') or program NAME BUILTIN");
            }
        } else if (verb == "fault") {
            FaultRule rule;
            std::string desc = line.substr(w[0].begin + 5);
            if (!parseFaultText(desc, rule, why)) return fail(why);
            out.faults.push_back(rule);
        } else if (verb == "seed") {
            if (w.size() != 2 || !cfg::parseInt(w[1].text, 0, UINT32_MAX, n)) return fail("expected: seed NUMBER");
            out.seed = static_cast<uint32_t>(n);
        } else if (verb == "handshake") {
            HandshakeMode m;
            if (w.size() < 2 || !parseHandshakeMode(w[1].text, m))
                return fail("unknown handshake mode '" + (w.size() < 2 ? std::string() : w[1].text) + "'");
            if (w.size() > 2) {
                if (!cfg::parseInt(w[2].text, INT32_MIN, INT32_MAX, n)) return fail("bad refusal code '" + w[2].text + "'");
                out.refuseRc = static_cast<int32_t>(n);
            }
            out.handshake = m;
        } else if (verb == "max-body") {
            if (w.size() != 2 || !cfg::parseInt(w[1].text, 1, UINT32_MAX, n)) return fail("expected: max-body BYTES");
            out.maxBodyLength = static_cast<uint32_t>(n);
        } else if (verb == "end" || verb == "when") {
            return fail("'" + verb + "' outside a program block");
        } else {
            return fail("unknown directive '" + verb + "'");
        }
    }
    if (block) {
        number = block->line;
        return fail("program " + block->name + " has no 'end'");
    }
    return true;
}

bool parseFaultText(const std::string& text, FaultRule& out, std::string& error) {
    std::vector<Word> w;
    if (!cfg::splitWords(text, w, error)) return false;
    if (w.empty()) {
        error = "expected: fault KIND [ARG] [on NAME] [nth N] [probability P] [times N]";
        return false;
    }
    const std::string& kind = w[0].text;
    size_t i = 1;
    auto isKeyword = [](const std::string& s) { return s == "on" || s == "nth" || s == "probability" || s == "times"; };
    bool hasArg = i < w.size() && (w[i].quoted || !isKeyword(w[i].text));
    long long n = 0;
    Fault f;
    auto number = [&](long long lo, long long hi, const char* what) {
        if (!hasArg || !cfg::parseInt(w[i].text, lo, hi, n)) {
            error = std::string("fault ") + kind + " needs " + what;
            return false;
        }
        ++i;
        return true;
    };
    if (kind == "drop" || kind == "close" || kind == "drop-mid-reply" || kind == "no-reply" || kind == "ping") {
        f = Fault::of(kind == "drop"             ? Fault::Kind::Drop
                      : kind == "close"          ? Fault::Kind::CloseFlow
                      : kind == "drop-mid-reply" ? Fault::Kind::DropMidReply
                      : kind == "no-reply"       ? Fault::Kind::NoReply
                                                 : Fault::Kind::Ping);
    } else if (kind == "exception") {
        f = Fault::exception(hasArg ? w[i++].text : "Gateway emulator fault");
    } else if (kind == "error") {
        if (!number(INT32_MIN, INT32_MAX, "a return code")) return false;
        f = Fault::errorFlow(static_cast<int32_t>(n));
    } else if (kind == "stray") {
        if (!number(INT32_MIN, INT32_MAX, "a message id")) return false;
        f = Fault::strayReply(static_cast<int32_t>(n));
    } else if (kind == "ping-storm") {
        n = 100;
        if (hasArg && !number(1, 100000, "a count of 1 to 100000")) return false;
        f = Fault::pingStorm(static_cast<int>(n));
    } else if (kind == "delay") {
        if (!number(0, 600000, "milliseconds (0 to 600000)")) return false;
        f = Fault::delay(static_cast<int>(n));
    } else if (kind == "garbage") {
        wire::Bytes bytes;
        if (hasArg) {
            if (!cfg::parseData(w[i], "", bytes, error)) return false;
            ++i;
        }
        f = Fault::garbage(bytes);
    } else {
        error = "unknown fault '" + kind +
                "' (drop, close, exception, error, ping, ping-storm, delay, garbage, stray, drop-mid-reply, no-reply)";
        return false;
    }
    out = FaultRule{};
    out.fault = f;
    while (i < w.size()) {
        const std::string& key = w[i].text;
        if (i + 1 >= w.size()) {
            error = "'" + key + "' needs a value";
            return false;
        }
        const std::string& v = w[i + 1].text;
        if (key == "on") {
            if (v.empty() || (v[0] != '*' && v.size() > 8)) {
                error = "program name of 1 to 8 characters, *ANY, *LIST or *ESI expected after 'on'";
                return false;
            }
            out.trigger = v;
        } else if (key == "nth" || key == "times") {
            if (!cfg::parseInt(v, 1, INT32_MAX, n)) {
                error = "'" + key + "' needs a number from 1";
                return false;
            }
            (key == "nth" ? out.nth : out.times) = static_cast<int>(n);
        } else if (key == "probability") {
            std::string p = v;
            double scale = 1;
            if (!p.empty() && p.back() == '%') {
                p.pop_back();
                scale = 100;
            }
            double value = -1;
            try {
                size_t used = 0;
                value = std::stod(p, &used) / scale;
                if (used != p.size()) value = -1;
            } catch (...) {
                value = -1;
            }
            if (!(value >= 0 && value <= 1)) {
                error = "probability from 0 to 1 (or 0% to 100%) expected, found '" + v + "'";
                return false;
            }
            out.probability = value;
        } else {
            error = "unexpected '" + key + "' (on NAME, nth N, probability P, times N)";
            return false;
        }
        i += 2;
    }
    return true;
}

void applyConfig(const Config& config, Emulator& emu) {
    if (config.serversGiven) {
        emu.clearServers();
        for (const auto& s : config.servers) emu.addServer(s);
    }
    for (const auto& u : config.users) emu.addUser(u);
    for (const auto& [name, builtin] : config.aliases)
        emu.registerProgram(name, builtinProgram(builtin), ProgramRuns::OnReader);
    for (const auto& desc : config.programs) {
        ProgramRuns runs;
        Program p = makeProgram(desc, emu, &runs);
        emu.registerProgram(desc.name, std::move(p), runs);
    }
    for (const auto& f : config.faults) emu.addFaultRule(f);
    if (config.seed) emu.setRandomSeed(*config.seed);
    if (config.handshake) emu.setHandshake(*config.handshake, config.refuseRc);
    if (config.maxBodyLength) emu.setMaxBodyLength(*config.maxBodyLength);
}

Setup setupFromConfig(const Config& config, Emulator& emu) {
    Setup s;
    if (config.serversGiven) s.servers = config.servers;
    s.users = config.users;
    for (const auto& [name, builtin] : config.aliases)
        s.programs.push_back({name, builtinProgram(builtin), ProgramRuns::OnReader});
    for (const auto& desc : config.programs) {
        Setup::ProgramEntry e;
        e.name = desc.name;
        e.program = makeProgram(desc, emu, &e.runs);
        s.programs.push_back(std::move(e));
    }
    s.faults = config.faults;
    if (config.seed) emu.setRandomSeed(*config.seed);
    if (config.handshake) {
        s.handshake = *config.handshake;
        s.refuseRc = config.refuseRc;
    }
    if (config.maxBodyLength) s.maxBodyLength = *config.maxBodyLength;
    return s;
}

}  // namespace kvlemu
