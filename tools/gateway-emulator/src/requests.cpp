// What the emulated server does with ECI, list-systems and ESI requests.
#include <algorithm>

#include "emulator_impl.h"

namespace kvlemu {

namespace {

wire::Header replyHeader(const wire::Header& request) {
    wire::Header h;
    h.flowType = wire::kFlowReply;
    h.messageId = request.messageId;
    h.requestType = request.requestType;
    return h;
}

// A reply that carries no program output: nothing of the COMMAREA comes back.
wire::EciReply failedReply(const wire::EciRequest& req, int32_t code, const std::string& abend = "") {
    wire::EciReply r;
    r.requestType = req.requestType;
    r.rc = code;
    r.abend = abend;
    r.commareaLength = req.commareaLength;
    r.explicitCount = true;
    r.count = 0;
    return r;
}

// Buffers a connection keeps between requests are kept only up to this size,
// so that one large flow does not pin its memory for the connection's life.
constexpr size_t kSpareLimit = 256 * 1024;

void keepSpare(wire::Bytes& spare, wire::Bytes&& buffer) {
    if (buffer.capacity() <= kSpareLimit && buffer.capacity() > spare.capacity()) spare = std::move(buffer);
}

// The program's output becomes the reply: its COMMAREA is moved, not copied.
wire::EciReply programReply(const wire::EciRequest& req, const std::optional<wire::Channel>& requestChannel,
                            ProgramResult& result) {
    wire::EciReply r;
    r.requestType = req.requestType;
    r.rc = result.rc;
    r.abend = result.abend;
    r.commareaLength = req.commareaLength;
    if (req.carriesCommarea()) {
        int32_t n = result.returnLength < 0 ? req.commareaLength : std::min(result.returnLength, req.commareaLength);
        if (req.inboundLength > 0) n = std::min(n, req.inboundLength);
        // What the program left short of n is zeros, as in the COMMAREA it was given.
        r.commarea = std::move(result.commarea);
        r.commarea.resize(static_cast<size_t>(n), 0);
        r.explicitCount = n < req.commareaLength;
        r.count = n;
    }
    if (requestChannel) {
        if (result.channel) {
            r.channel = std::move(result.channel);
        } else {
            wire::Channel ch = *requestChannel;
            for (auto& c : ch.containers) c.state = wire::kContainerUnchanged;
            r.channel = std::move(ch);
        }
    }
    return r;
}

}  // namespace

int32_t Emulator::Impl::route(const std::string& serverField, const ServerInfo** out) {
    std::string name = wire::fieldText(serverField);
    if (name.empty()) {
        if (servers.empty()) return rc::kNoServer;
        *out = &servers.front();
        return 0;
    }
    for (const auto& s : servers)
        if (s.name == name) {
            *out = &s;
            return 0;
        }
    return rc::kUnknownServer;
}

void Emulator::Impl::startEciCall(const std::shared_ptr<Connection>& conn, const wire::Header& header,
                                  wire::EciRequest req) {
    const std::string program = wire::fieldText(req.program);
    RequestNote note;
    note.what = "ECI " + program;
    note.inLength = req.commareaLength;

    ReplySource replay;
    {
        std::lock_guard<std::mutex> lock(m);
        replay = replySource;
    }
    if (replay) {
        if (std::optional<wire::Bytes> flow = replay(header, req)) {
            // The recorded reply, answering this request's message id.
            if (flow->size() >= 16)
                for (int i = 0; i < 4; ++i)
                    (*flow)[12 + i] = static_cast<uint8_t>(static_cast<uint32_t>(header.messageId) >> (24 - 8 * i));
            note.what += " (replayed)";
            note.outLength = -1;
            deliver(conn, header, *flow, std::nullopt, note);
            return;
        }
    }

    auto call = std::make_shared<ProgramCall>();
    call->connection = conn->index;
    call->messageId = header.messageId;
    call->requestType = req.requestType;
    call->program = program;
    call->userid = wire::fieldText(req.userid);
    call->password = req.password;
    call->tranId = wire::fieldText(req.tranId);
    call->extendMode = req.extendMode;
    call->timeout = req.timeout;
    call->commareaLength = req.commareaLength;
    call->inboundLength = req.inboundFlag ? req.inboundLength : 0;
    call->outboundLength = req.outboundFlag ? req.outboundLength : 0;
    // The request's COMMAREA and channel become the program's; nothing after
    // this reads them from the request.
    call->commarea = std::move(req.commarea);
    call->commarea.resize(static_cast<size_t>(req.commareaLength), 0);
    call->channel = std::move(req.channel);
    call->sleepFor = [this](int ms) { return sleepFor(ms); };
    call->waitGate = [this](const std::string& gate) { return waitGate(gate); };

    std::optional<Fault> fault;
    Program fn;
    ProgramRuns runs = ProgramRuns::OnReader;
    int32_t failure = 0;
    std::string failureAbend;
    bool opensLuw = false;
    {
        std::lock_guard<std::mutex> lock(m);
        fault = takeTrigger(program);
        const ServerInfo* server = nullptr;
        failure = route(req.serverName, &server);
        if (server) call->server = server->name;
        if (failure == 0 && server->checkSecurity) {
            auto u = users.find(call->userid);
            if (u == users.end() || u->second.revoked || u->second.expired || u->second.password != call->password)
                failure = rc::kSecurityError;
        }
        if (failure == 0) {
            auto& luws = conn->luws;
            auto open = luws.find(req.luwToken);
            bool known = req.luwToken != 0 && open != luws.end();
            switch (req.extendMode) {
                case 0:
                case 1:
                    if (req.luwToken != 0 && !known) {
                        failure = rc::kLuwToken;
                    } else if (known) {
                        call->luwToken = req.luwToken;
                        call->luwCallNumber = open->second + 1;
                    } else if (req.extendMode == 1) {
                        call->luwToken = nextLuwToken++;
                        call->luwCallNumber = 1;
                        opensLuw = true;
                    }
                    break;
                case 2:
                case 4:
                    if (!known) {
                        failure = rc::kLuwToken;
                    } else {
                        luws.erase(open);
                        luwEvents.push_back({conn->index, req.luwToken,
                                             req.extendMode == 2 ? LuwEvent::Kind::Committed
                                                                 : LuwEvent::Kind::BackedOut});
                        note.what = req.extendMode == 2 ? "COMMIT" : "BACKOUT";
                        note.what += " luw " + std::to_string(req.luwToken);
                        cv.notify_all();
                    }
                    break;
                default:
                    failure = rc::kInvalidExtendMode;
                    break;
            }
        }
        if (failure == 0 && req.carriesCommarea()) {
            auto p = programs.find(program);
            if (p == programs.end()) {
                failure = rc::kTransactionAbend;
                failureAbend = kUnknownProgramAbend;
            } else {
                fn = p->second;
                auto r = programRuns.find(program);
                if (r != programRuns.end()) runs = r->second;
                ++callCounts[program];
                cv.notify_all();
            }
        }
    }

    if (failure != 0 || !req.carriesCommarea()) {
        wire::EciReply reply;
        if (failure != 0) {
            reply = failedReply(req, failure, failureAbend);
        } else {
            // Commit or back-out: no program runs and no COMMAREA travels.
            reply.requestType = req.requestType;
            reply.commareaLength = req.commareaLength;
        }
        note.rc = reply.rc;
        note.abend = failureAbend;
        note.outLength = reply.count;
        keepSpare(conn->spareArea, std::move(call->commarea));
        deliver(conn, header, wire::encodeEciReplyFlow(replyHeader(header), reply), fault, note);
        return;
    }

    // On the reader, the connection's spare buffers serve this request; a worker
    // runs beside the reader and must not touch them.
    const bool onReader = runs == ProgramRuns::OnReader;
    auto job = [this, conn, header, req = std::move(req), call, fn = std::move(fn), fault, opensLuw, note,
                onReader]() mutable {
        ProgramResult result;
        try {
            result = fn(*call);
        } catch (...) {
            result = ProgramResult{};
            result.rc = rc::kTransactionAbend;
            result.abend = "EXCP";
        }
        wire::EciReply reply = programReply(req, call->channel, result);
        {
            std::lock_guard<std::mutex> lock(m);
            const bool inLuw = call->luwToken != 0;
            if (inLuw && result.rc != 0) {
                // A failing program ends its unit of work by backing it out.
                if (!opensLuw) {
                    conn->luws.erase(call->luwToken);
                    luwEvents.push_back({conn->index, call->luwToken, LuwEvent::Kind::BackedOut});
                }
            } else if (inLuw && req.extendMode == 1) {
                conn->luws[call->luwToken] = call->luwCallNumber;
                if (opensLuw) luwEvents.push_back({conn->index, call->luwToken, LuwEvent::Kind::Opened});
                reply.luwToken = call->luwToken;
            } else if (inLuw) {
                // Extend mode 0 inside a unit of work: its last call, which commits it.
                conn->luws.erase(call->luwToken);
                luwEvents.push_back({conn->index, call->luwToken, LuwEvent::Kind::Committed});
            }
            cv.notify_all();
        }
        note.rc = reply.rc;
        note.abend = result.abend;
        note.outLength = req.carriesCommarea() ? reply.count : 0;
        wire::Bytes flow =
            wire::encodeEciReplyFlow(replyHeader(header), reply, onReader ? std::move(conn->spareReply) : wire::Bytes{});
        if (onReader) {
            keepSpare(conn->spareArea, std::move(call->commarea));
            keepSpare(conn->spareArea, std::move(reply.commarea));
        }
        if (result.gate.empty() && result.delayMs <= 0) {
            deliver(conn, header, flow, fault, note);  // sent (or copied for a delay fault) before it returns
            if (onReader) keepSpare(conn->spareReply, std::move(flow));
            return;
        }
        auto send = [this, conn, header, flow = std::move(flow), fault, note, delay = result.delayMs]() {
            if (delay > 0)
                timers.after(delay, [this, conn, header, flow, fault, note] { deliver(conn, header, flow, fault, note); });
            else
                deliver(conn, header, flow, fault, note);
        };
        if (!result.gate.empty())
            passGate(result.gate, std::move(send));
        else
            send();
    };
    if (runs == ProgramRuns::OnReader)
        job();
    else
        pool.submit(std::move(job));
}

void Emulator::Impl::answerListSystems(const std::shared_ptr<Connection>& conn, const wire::Header& header,
                                       const wire::EciRequest& req) {
    wire::EciReply reply;
    RequestNote note;
    note.what = "LIST";
    reply.requestType = wire::kEciListSystems;
    std::optional<Fault> fault;
    {
        std::lock_guard<std::mutex> lock(m);
        fault = takeTrigger(kTriggerListSystems);
        const size_t total = servers.size();
        const size_t capacity = req.listParm > 0 ? static_cast<size_t>(req.listParm) : 0;
        const size_t shown = std::min(total, capacity);
        reply.listParm = static_cast<int32_t>(total);
        reply.rc = total == 0 ? rc::kNoSystems : total > capacity ? rc::kMoreSystems : 0;
        for (size_t i = 0; i < shown; ++i) {
            wire::Bytes e = wire::encodeSystemEntry(servers[i].name, servers[i].description);
            reply.commarea.insert(reply.commarea.end(), e.begin(), e.end());
        }
    }
    note.rc = reply.rc;
    note.outLength = static_cast<int32_t>(reply.commarea.size());
    deliver(conn, header, wire::encodeEciReplyFlow(replyHeader(header), reply), fault, note);
}

void Emulator::Impl::answerEsi(const std::shared_ptr<Connection>& conn, const wire::Header& header,
                               const wire::EsiRequest& req) {
    wire::EsiReply reply;
    RequestNote note;
    note.what = std::string(req.type == 1 ? "ESI change " : "ESI verify ") + wire::fieldText(req.userid);
    std::optional<Fault> fault;
    {
        std::lock_guard<std::mutex> lock(m);
        fault = takeTrigger(kTriggerEsi);
        const std::string userid = wire::fieldText(req.userid);
        const ServerInfo* server = nullptr;
        auto u = users.find(userid);
        if (userid.empty()) {
            reply.rc = rc::kEsiNullUserid;
        } else if (req.password.empty()) {
            reply.rc = rc::kEsiNullPassword;
        } else if (req.type == 1 && req.newPassword.empty()) {
            reply.rc = rc::kEsiNullNewPassword;
        } else if (req.type != 0 && req.type != 1) {
            reply.rc = -9;
        } else if (int32_t routed = route(req.server, &server); routed != 0) {
            reply.rc = routed;
        } else if (u == users.end()) {
            reply.rc = rc::kEsiUseridInvalid;
        } else if (u->second.forcedRc != 0) {
            reply.rc = u->second.forcedRc;
        } else if (u->second.revoked) {
            reply.rc = rc::kSecurityError;
        } else if (u->second.password != req.password) {
            reply.rc = rc::kEsiPasswordInvalid;
        } else if (req.type == 0 && u->second.expired) {
            reply.rc = rc::kEsiPasswordExpired;
        } else if (req.type == 1 && (u->second.rejectNewPassword || req.newPassword == req.password ||
                                     req.newPassword.size() > 8)) {
            reply.rc = rc::kEsiPasswordRejected;
        } else {
            if (req.type == 1) {
                u->second.password = req.newPassword;
                u->second.expired = false;
            }
            reply.details = u->second.details;
        }
    }
    note.rc = reply.rc;
    deliver(conn, header, wire::encodeFlow(replyHeader(header), wire::encodeEsiReplyBody(reply)), fault, note);
}

}  // namespace kvlemu
