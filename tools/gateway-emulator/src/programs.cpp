// Built-in server programs: one for every reply shape a client must handle.
#include <algorithm>
#include <cctype>
#include <sstream>

#include "emulator_impl.h"

namespace kvlemu {

namespace {

constexpr int kDefaultDelayMs = 200;
constexpr int kMaxDelayMs = 60000;
const char* const kControlContainer = "EMUCTL";

ProgramResult shortReply(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    r.returnLength = call.commareaLength / 2;
    return r;
}

ProgramResult abend(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    r.rc = rc::kTransactionAbend;
    r.abend = "EMAB";
    if (call.commarea.size() >= 4 &&
        std::all_of(call.commarea.begin(), call.commarea.begin() + 4, [](uint8_t b) { return b > 0x20 && b < 0x7F; }))
        r.abend.assign(call.commarea.begin(), call.commarea.begin() + 4);
    return r;
}

ProgramResult delay(const ProgramCall& call) {
    int ms = 0;
    size_t i = 0;
    for (; i < call.commarea.size() && i < 6 && std::isdigit(call.commarea[i]); ++i) ms = ms * 10 + (call.commarea[i] - '0');
    if (i == 0) ms = kDefaultDelayMs;
    ProgramResult r = ProgramResult::echo(call);
    r.delayMs = std::min(ms, kMaxDelayMs);  // a timer, not a sleeping thread
    return r;
}

ProgramResult gate(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    r.gate = "GATE";  // held at the gate; no thread waits
    return r;
}

ProgramResult luw(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    std::string text = "LUW " + std::to_string(call.luwToken) + " CALL " + std::to_string(call.luwCallNumber);
    std::copy_n(text.begin(), std::min(text.size(), r.commarea.size()), r.commarea.begin());
    return r;
}

ProgramResult chanEcho(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    if (call.channel) {
        r.channel = *call.channel;
        for (auto& c : r.channel->containers) c.state = wire::kContainerModified;
    }
    return r;
}

wire::Container entry(const std::string& name, uint8_t state, int8_t type, int32_t ccsid, const std::string& data) {
    wire::Container c;
    c.name = wire::nameField(name);
    c.state = state;
    c.type = type;
    c.ccsid = ccsid;
    c.data.assign(data.begin(), data.end());
    c.dataLength = static_cast<uint32_t>(c.data.size());
    return c;
}

// Applies the commands of the control container to the request's channel:
// ADD name text | ADDBIT name text | MOD name text | DEL name, separated by
// newlines or ';'. Containers no command names come back UNCHANGED.
ProgramResult chanCtl(const ProgramCall& call) {
    ProgramResult r = ProgramResult::echo(call);
    if (!call.channel) return r;
    wire::Channel out = *call.channel;
    for (auto& c : out.containers) c.state = wire::kContainerUnchanged;
    const wire::Container* ctl = call.channel->find(kControlContainer);
    if (!ctl) {
        r.channel = std::move(out);
        return r;
    }
    std::string script(ctl->data.begin(), ctl->data.end());
    std::replace(script.begin(), script.end(), ';', '\n');
    std::istringstream lines(script);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string verb, name, text;
        words >> verb >> name;
        std::getline(words >> std::ws, text);
        if (name.empty()) continue;
        auto existing = std::find_if(out.containers.begin(), out.containers.end(),
                                     [&](const wire::Container& c) { return wire::fieldText(c.name) == name; });
        if (verb == "ADD" || verb == "ADDBIT") {
            out.containers.push_back(entry(name, wire::kContainerAdded, verb == "ADD" ? 2 : 1, out.ccsid, text));
        } else if (verb == "MOD") {
            if (existing != out.containers.end()) {
                existing->state = wire::kContainerModified;
                existing->data.assign(text.begin(), text.end());
                existing->dataLength = static_cast<uint32_t>(text.size());
            } else {
                out.containers.push_back(entry(name, wire::kContainerModified, 2, out.ccsid, text));
            }
        } else if (verb == "DEL") {
            if (existing != out.containers.end()) {
                existing->state = wire::kContainerDeleted;
            } else {
                out.containers.push_back(entry(name, wire::kContainerDeleted, 2, out.ccsid, ""));
            }
        }
    }
    r.channel = std::move(out);
    return r;
}

struct Builtin {
    const char* name;
    ProgramResult (*fn)(const ProgramCall&);
};

const Builtin kBuiltins[] = {
    {"ECHO", ProgramResult::echo}, {"SHORT", shortReply}, {"ABEND", abend},      {"DELAY", delay},
    {"GATE", gate},                {"LUW", luw},          {"CHANECHO", chanEcho}, {"CHANCTL", chanCtl},
};

}  // namespace

std::vector<std::string> builtinProgramNames() {
    std::vector<std::string> names;
    for (const auto& b : kBuiltins) names.emplace_back(b.name);
    return names;
}

Program builtinProgram(const std::string& name) {
    for (const auto& b : kBuiltins)
        if (name == b.name) return b.fn;
    return {};
}

}  // namespace kvlemu
