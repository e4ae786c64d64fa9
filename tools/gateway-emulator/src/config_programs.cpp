// Programs defined in the configuration: a reply chosen by matching the
// request, abends, delays, containers and external commands.
#include <algorithm>
#include <memory>

#include "emu_process.h"
#include "gateway_emulator/config.h"

namespace kvlemu {

namespace {

constexpr const char* kCommandFailedAbend = "CMDF";
constexpr const char* kCommandOutputContainer = "OUTPUT";
constexpr size_t kMaxCommandOutput = 16u * 1024 * 1024;

bool startsWith(const wire::Bytes& data, size_t offset, const wire::Bytes& value) {
    return offset <= data.size() && value.size() <= data.size() - offset &&
           std::equal(value.begin(), value.end(), data.begin() + static_cast<std::ptrdiff_t>(offset));
}

bool matches(const ProgramRule& rule, const ProgramCall& call) {
    switch (rule.test) {
        case ProgramRule::Test::Prefix: return !call.channel && startsWith(call.commarea, 0, rule.value);
        case ProgramRule::Test::At: return !call.channel && startsWith(call.commarea, rule.offset, rule.value);
        case ProgramRule::Test::Container: {
            const wire::Container* c = call.channel ? call.channel->find(rule.container) : nullptr;
            return c && startsWith(c->data, 0, rule.value);
        }
    }
    return false;
}

void overlay(wire::Bytes& area, const wire::Bytes& data) {
    std::copy_n(data.begin(), std::min(data.size(), area.size()), area.begin());
}

void setContainer(wire::Channel& ch, const std::string& name, bool bit, const wire::Bytes& data, bool remove) {
    auto it = std::find_if(ch.containers.begin(), ch.containers.end(),
                           [&](const wire::Container& c) { return wire::fieldText(c.name) == name; });
    if (it == ch.containers.end()) {
        wire::Container c;
        c.name = wire::nameField(name);
        c.state = remove ? wire::kContainerDeleted : wire::kContainerAdded;
        c.type = bit ? 1 : 2;
        c.ccsid = ch.ccsid;
        it = ch.containers.insert(ch.containers.end(), c);
    } else {
        it->state = remove ? wire::kContainerDeleted : wire::kContainerModified;
    }
    it->data = remove ? wire::Bytes{} : data;
    it->dataLength = static_cast<uint32_t>(it->data.size());
}

ProgramResult respond(const ProgramResponse& r, const ProgramCall& call, Emulator& emu) {
    ProgramResult res = ProgramResult::echo(call);
    std::optional<wire::Channel> out;
    if (call.channel) {
        out = *call.channel;
        for (auto& c : out->containers) c.state = wire::kContainerUnchanged;
    }
    if (r.command) {
        wire::Bytes input = call.commarea;
        if (call.channel) input = call.channel->containers.empty() ? wire::Bytes{} : call.channel->containers[0].data;
        wire::Bytes output;
        int exitCode = -1;
        size_t limit = call.channel ? kMaxCommandOutput : call.commarea.size();
        if (!proc::run(*r.command, input, limit, output, &exitCode) || exitCode != 0) {
            res.rc = rc::kTransactionAbend;
            res.abend = kCommandFailedAbend;
            return res;
        }
        if (out)
            setContainer(*out, kCommandOutputContainer, false, output, false);
        else
            overlay(res.commarea, output);
    }
    if (r.reply) overlay(res.commarea, *r.reply);
    if (r.length) res.returnLength = *r.length;
    if (r.abend) {
        res.rc = rc::kTransactionAbend;
        res.abend = *r.abend;
    }
    if (r.rc) res.rc = *r.rc;
    if (r.delayMs) res.delayMs = emu.randomBetween(r.delayMs->first, r.delayMs->second);
    if (out) {
        for (const auto& c : r.containers) setContainer(*out, c.name, c.bit, c.data, c.remove);
        res.channel = std::move(out);
    }
    return res;
}

}  // namespace

Program makeProgram(const ProgramDef& desc, Emulator& emu, ProgramRuns* runs) {
    bool command = desc.defaults.command.has_value() ||
                   std::any_of(desc.rules.begin(), desc.rules.end(),
                               [](const ProgramRule& r) { return r.response.command.has_value(); });
    // Only a command blocks; delays are the emulator's timers.
    if (runs) *runs = command ? ProgramRuns::OnWorker : ProgramRuns::OnReader;
    auto shared = std::make_shared<const ProgramDef>(desc);
    Emulator* e = &emu;
    return [shared, e](const ProgramCall& call) {
        const ProgramResponse* r = &shared->defaults;
        for (const auto& rule : shared->rules)
            if (matches(rule, call)) {
                r = &rule.response;
                break;
            }
        return respond(*r, call, *e);
    };
}

}  // namespace kvlemu
