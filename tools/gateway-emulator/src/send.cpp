// Everything the emulator writes to a connection, faults included.
#include <cstdio>

#include "emulator_impl.h"

namespace kvlemu {

namespace flows {

namespace {
wire::Header base(int32_t flowType, int32_t messageId, const std::string& requestType = "BASE") {
    wire::Header h;
    h.flowType = flowType;
    h.messageId = messageId;
    h.requestType = requestType;
    return h;
}
}  // namespace

wire::Bytes ping(int32_t messageId) { return wire::encodeFlow(base(wire::kFlowPing, messageId), {}); }

wire::Bytes close() { return wire::encodeFlow(base(wire::kFlowClose, wire::kCloseMessageId), {}); }

wire::Bytes exception(int32_t messageId, const std::string& text) {
    return wire::encodeFlow(base(wire::kFlowException, messageId), wire::encodeExceptionBody(text));
}

wire::Bytes error(int32_t messageId, int32_t code, const std::string& requestType) {
    wire::Header h = base(wire::kFlowError, messageId, requestType.empty() ? "BASE" : requestType);
    h.rc = code;
    return wire::encodeFlow(h, {});
}

wire::Bytes strayReply(int32_t messageId) {
    wire::EciReply r;
    return wire::encodeFlow(base(wire::kFlowReply, messageId, "ECI"), wire::encodeEciReplyBody(r));
}

wire::Bytes handshakeAccepted() {
    // The same layout as the request, with no applid: the client only skips it.
    return wire::encodeFlow(base(wire::kFlowHandshake, wire::kHandshakeMessageId),
                            wire::encodeHandshakeBody(wire::Handshake{}));
}

}  // namespace flows

namespace {
std::string sentLine(const Connection& conn, const wire::Bytes& flow, const char* what) {
    return "conn " + std::to_string(conn.index) + " -> " + what + " (" + std::to_string(flow.size()) + " bytes)";
}
}  // namespace

bool Emulator::Impl::send(Connection& conn, const wire::Bytes& flow, const char* what) {
    bool ok;
    {
        std::lock_guard<std::mutex> lock(conn.sendMutex);
        // Tapped before it goes: once the client has the reply, the record has it too.
        if (!conn.dropped) tap(conn, false, flow);
        ok = !conn.dropped && conn.stream->write(flow.data(), flow.size());
    }
    // Read without logMutex: a stale level only costs one line. Quiet, no line is built.
    if (verbosity >= 2) log(2, sentLine(conn, flow, what) + (ok ? "" : " NOT SENT"), &flow);
    return ok;
}

void Emulator::Impl::drop(Connection& conn, const char* why) {
    {
        std::lock_guard<std::mutex> lock(conn.sendMutex);
        if (conn.dropped.exchange(true)) return;
        conn.stream->shutdown();
    }
    log(1, "conn " + std::to_string(conn.index) + " closed: " + why);
}

bool Emulator::Impl::sendThenDrop(Connection& conn, const wire::Bytes& bytes, const char* what, const char* why) {
    bool ok;
    {
        std::lock_guard<std::mutex> lock(conn.sendMutex);
        if (conn.dropped.exchange(true)) return false;
        tap(conn, false, bytes);
        ok = conn.stream->write(bytes.data(), bytes.size());
        conn.stream->shutdown();
    }
    log(2, sentLine(conn, bytes, what) + (ok ? "" : " NOT SENT"), &bytes);
    log(1, "conn " + std::to_string(conn.index) + " closed: " + why);
    return ok;
}

void Emulator::Impl::logRequest(const Connection& conn, const wire::Header& request, const RequestNote& note,
                                const char* outcome) {
    if (verbosity < 1) return;  // read without logMutex: a stale level only costs one line
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - note.start).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.3f ms", ms);
    std::string line = "conn " + std::to_string(conn.index) + " id " + std::to_string(request.messageId) + " " +
                       note.what + " in " + std::to_string(note.inLength) + " out " +
                       (note.outLength < 0 ? std::string("recorded") : std::to_string(note.outLength)) + " rc " +
                       std::to_string(note.rc);
    std::string abend = wire::fieldText(note.abend);
    if (!abend.empty()) line += " abend " + abend;
    line += std::string(" ") + time;
    if (outcome && *outcome) line += std::string(" ") + outcome;
    log(1, line);
}

void Emulator::Impl::deliver(const std::shared_ptr<Connection>& connPtr, const wire::Header& request,
                             const wire::Bytes& replyFlow, const std::optional<Fault>& fault,
                             const RequestNote& note) {
    Connection& conn = *connPtr;
    auto counted = [&](bool sent) {
        if (!sent) return;
        std::lock_guard<std::mutex> lock(m);
        ++replies;
        cv.notify_all();
    };
    const int32_t id = fault && fault->messageId ? *fault->messageId : request.messageId;
    if (!fault) {
        bool sent = send(conn, replyFlow, "REPLY");
        logRequest(conn, request, note, sent ? "" : "(reply not sent: connection gone)");
        counted(sent);  // last: a test that waits for the reply finds its log line
        return;
    }
    const std::string faultNote = std::string("fault ") + faultKindName(fault->kind);
    if (fault->kind == Fault::Kind::Delay) {
        // The reply as usual, later; the timer thread sends it.
        timers.after(fault->delayMs, [this, connPtr, request, replyFlow, note] {
            deliver(connPtr, request, replyFlow, std::nullopt, note);
        });
        log(2, "conn " + std::to_string(conn.index) + " reply to id " + std::to_string(request.messageId) +
                   " delayed " + std::to_string(fault->delayMs) + " ms (fault)");
        return;
    }
    logRequest(conn, request, note, faultNote.c_str());
    switch (fault->kind) {
        case Fault::Kind::Ping:
            send(conn, flows::ping(id), "PING (fault)");
            counted(send(conn, replyFlow, "REPLY"));
            break;
        case Fault::Kind::Exception:
            counted(send(conn, flows::exception(id, fault->text), "EXCEPTION (fault)"));
            break;
        case Fault::Kind::ErrorFlow:
            counted(send(conn, flows::error(id, fault->rc, request.requestType), "ERROR (fault)"));
            break;
        case Fault::Kind::CloseFlow:
            sendThenDrop(conn, flows::close(), "CLOSE (fault)", "close flow sent");
            break;
        case Fault::Kind::StrayReply:
            send(conn, flows::strayReply(id), "REPLY for nobody (fault)");
            counted(send(conn, replyFlow, "REPLY"));
            break;
        case Fault::Kind::Garbage:
            send(conn, fault->bytes.empty() ? Fault::garbage().bytes : fault->bytes, "GARBAGE (fault)");
            break;
        case Fault::Kind::Drop:
            drop(conn, "dropped instead of replying (fault)");
            break;
        case Fault::Kind::DropMidReply: {
            size_t headerSize = request.requestType.size() + wire::kHeaderFixedSize;
            size_t cut = replyFlow.size() > headerSize ? headerSize + (replyFlow.size() - headerSize) / 2
                                                       : replyFlow.size() / 2;
            // Nothing may follow the cut: the rest of the stream would be read as this reply's data.
            sendThenDrop(conn, wire::Bytes(replyFlow.begin(), replyFlow.begin() + static_cast<std::ptrdiff_t>(cut)),
                         "PART OF REPLY (fault)", "dropped in the middle of a reply (fault)");
            break;
        }
        case Fault::Kind::NoReply:
            log(2, "conn " + std::to_string(conn.index) + " reply to id " + std::to_string(request.messageId) +
                       " swallowed (fault)");
            break;
        case Fault::Kind::PingStorm:
            for (int i = 0; i < fault->count; ++i)
                if (!send(conn, flows::ping(id), "PING (fault: storm)")) break;
            counted(send(conn, replyFlow, "REPLY"));
            break;
        case Fault::Kind::Delay:
            break;
    }
}

bool Emulator::Impl::injectNow(Connection& conn, const Fault& fault) {
    const int32_t id = fault.messageId.value_or(0);
    switch (fault.kind) {
        case Fault::Kind::Ping:
            return send(conn, flows::ping(id), "PING (injected)");
        case Fault::Kind::Exception:
            return send(conn, flows::exception(id, fault.text), "EXCEPTION (injected)");
        case Fault::Kind::ErrorFlow:
            return send(conn, flows::error(id, fault.rc, "ECI"), "ERROR (injected)");
        case Fault::Kind::CloseFlow:
            return sendThenDrop(conn, flows::close(), "CLOSE (injected)", "close flow sent");
        case Fault::Kind::StrayReply:
            return send(conn, flows::strayReply(id), "REPLY for nobody (injected)");
        case Fault::Kind::Garbage:
            return send(conn, fault.bytes.empty() ? Fault::garbage().bytes : fault.bytes, "GARBAGE (injected)");
        case Fault::Kind::Drop:
            drop(conn, "dropped (injected)");
            return true;
        case Fault::Kind::PingStorm: {
            bool ok = true;
            for (int i = 0; i < fault.count && ok; ++i) ok = send(conn, flows::ping(id), "PING (injected storm)");
            return ok;
        }
        default:
            return false;
    }
}

}  // namespace kvlemu
