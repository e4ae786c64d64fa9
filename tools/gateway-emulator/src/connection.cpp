// One connection's reader: takes flows off the socket one at a time, records
// them, and hands requests on. A malformed flow closes the connection.
#include <algorithm>
#include <cstring>

#include "emulator_impl.h"

namespace kvlemu {

namespace {

constexpr size_t kReadChunk = 64 * 1024;

// Buffered reads from a connection's stream.
class StreamReader {
public:
    explicit StreamReader(Stream& s) : stream_(s), buf_(kReadChunk) {}

    // False when the stream ended (or failed) before any byte of a new flow.
    bool more() { return len_ > pos_ || fill(); }

    // Appends n bytes to `out` straight from the buffer.
    bool append(wire::Bytes& out, size_t n) {
        while (n > 0) {
            if (pos_ == len_ && !fill()) return false;
            size_t k = std::min(n, len_ - pos_);
            out.insert(out.end(), buf_.data() + pos_, buf_.data() + pos_ + k);
            pos_ += k;
            n -= k;
        }
        return true;
    }

    bool read(uint8_t* dst, size_t n) {
        while (n > 0) {
            if (pos_ == len_ && !fill()) return false;
            size_t k = std::min(n, len_ - pos_);
            std::memcpy(dst, buf_.data() + pos_, k);
            pos_ += k;
            dst += k;
            n -= k;
        }
        return true;
    }

private:
    bool fill() {
        long got = stream_.read(buf_.data(), buf_.size());
        if (got <= 0) return false;
        pos_ = 0;
        len_ = static_cast<size_t>(got);
        return true;
    }

    Stream& stream_;
    std::vector<uint8_t> buf_;
    size_t pos_ = 0;
    size_t len_ = 0;
};

// Bytes of one flow: at most `budget` of them, each appended to `raw` unless
// that is null (nothing looks at the raw bytes).
class FlowSource : public wire::Source {
public:
    FlowSource(StreamReader& in, wire::Bytes* raw, uint64_t budget) : in_(in), raw_(raw), budget_(budget) {}

    bool take(uint8_t* dst, size_t n) override {
        if (n > budget_ || !in_.read(dst, n)) return false;
        if (raw_) raw_->insert(raw_->end(), dst, dst + n);
        budget_ -= n;
        return true;
    }
    bool append(wire::Bytes& out, size_t n) override {
        const size_t at = out.size();
        if (n > budget_ || !in_.append(out, n)) return false;
        if (raw_) raw_->insert(raw_->end(), out.begin() + static_cast<std::ptrdiff_t>(at), out.end());
        budget_ -= n;
        return true;
    }
    uint64_t remaining() const override { return budget_; }

    bool skip(uint64_t n) {
        uint8_t scratch[4096];
        while (n > 0) {
            size_t k = n < sizeof scratch ? static_cast<size_t>(n) : sizeof scratch;
            if (!take(scratch, k)) return false;
            n -= k;
        }
        return true;
    }

private:
    StreamReader& in_;
    wire::Bytes* raw_;
    uint64_t budget_;
};

bool startsWith(const std::string& text, const char* prefix) {
    return !text.empty() && std::strncmp(prefix, text.c_str(), text.size()) == 0;
}

std::string describe(const RecordedFlow& f) {
    std::string s = "conn " + std::to_string(f.connection) + " <- " + wire::flowTypeName(f.header.flowType) + " " +
                    f.header.requestType + " id=" + std::to_string(f.header.messageId) +
                    " len=" + std::to_string(f.header.bodyLength) + " " + recordedKindName(f.kind);
    if (f.eci && f.eci->isCall())
        s += " program=" + wire::fieldText(f.eci->program) + " server=" + wire::fieldText(f.eci->serverName) +
             " commarea=" + std::to_string(f.eci->commareaLength) + " extend=" + std::to_string(f.eci->extendMode) +
             " luw=" + std::to_string(f.eci->luwToken) + (f.eci->channel ? " channel" : "");
    if (f.esi) s += " userid=" + wire::fieldText(f.esi->userid) + " type=" + std::to_string(f.esi->type);
    if (!f.error.empty()) s += " error: " + f.error;
    return s;
}

}  // namespace

void Emulator::Impl::record(const RecordedFlow& flow) {
    if (verbosity >= 2) log(2, describe(flow), &flow.raw);
    std::lock_guard<std::mutex> lock(m);
    ++flowTotal;
    if (recordLimit > 0) {
        if (flows.size() >= recordLimit) flows.pop_front();
        flows.push_back(flow);  // the copy is only made when the record keeps it
        flows.back().sequence = nextSequence;
    }
    ++nextSequence;
    cv.notify_all();
}

void Emulator::Impl::markClosed(Connection& conn) {
    std::lock_guard<std::mutex> lock(m);
    for (auto& [token, calls] : conn.luws) luwEvents.push_back({conn.index, token, LuwEvent::Kind::Abandoned});
    conn.luws.clear();
    infos[conn.index].open = false;
    conn.readerDone = true;
    cv.notify_all();
}

void Emulator::Impl::serve(std::shared_ptr<Connection> conn) {
    HandshakeMode mode;
    uint32_t maxBody;
    {
        std::lock_guard<std::mutex> lock(m);
        mode = handshakeMode;
        maxBody = maxBodyLength;
    }
    if (mode == HandshakeMode::DropOnAccept) {
        drop(*conn, "dropped on accept");
        markClosed(*conn);
        return;
    }

    std::string note;
    const bool started = conn->stream->start(&note);
    if (!note.empty()) log(1, "conn " + std::to_string(conn->index) + " " + note);
    if (!started) {
        drop(*conn, "the stream could not start");
        markClosed(*conn);
        return;
    }
    StreamReader in(*conn->stream);
    for (;;) {
        if (!in.more()) {
            log(1, "conn " + std::to_string(conn->index) + " ended by the peer");
            break;
        }
        RecordedFlow rec;
        rec.connection = conn->index;
        const bool keepRaw = keepsRawFlows();
        wire::Bytes* raw = keepRaw ? &rec.raw : nullptr;
        FlowSource head(in, raw, wire::kHeaderFixedSize + wire::kMaxRequestTypeLength);
        std::string error;
        bool ok = wire::decodeHeader(head, rec.header, error);
        if (ok && rec.header.bodyLength > maxBody) {
            error = "body length " + std::to_string(rec.header.bodyLength) + " above the limit";
            ok = false;
        }
        // Room for the body at once rather than by doubling; a declared length
        // is not trusted beyond what the read buffer holds.
        if (ok && keepRaw) rec.raw.reserve(rec.raw.size() + std::min<size_t>(rec.header.bodyLength, kReadChunk));
        FlowSource body(in, raw, ok ? rec.header.bodyLength : 0);
        // Bytes the client declares but does not send (four per container of a channel request).
        uint64_t allowance = 0;

        const wire::Header& h = rec.header;
        if (ok) {
            switch (h.flowType) {
                case wire::kFlowHandshake:
                    rec.kind = RecordedFlow::Kind::Handshake;
                    rec.handshake.emplace();
                    ok = wire::decodeHandshakeBody(body, *rec.handshake, error);
                    break;
                case wire::kFlowClose:
                    rec.kind = RecordedFlow::Kind::Close;
                    break;
                case wire::kFlowRequest:
                    if (startsWith(h.requestType, "ECI")) {
                        rec.eci.emplace();
                        rec.eci->commarea = std::move(conn->spareArea);
                        rec.eci->commarea.clear();  // its capacity serves; nothing of the last request stays
                        ok = wire::decodeEciRequestBody(body, *rec.eci, error);
                        rec.kind = rec.eci->isCall()                              ? RecordedFlow::Kind::EciCall
                                   : rec.eci->requestType == wire::kEciListSystems ? RecordedFlow::Kind::ListSystems
                                                                                   : RecordedFlow::Kind::Other;
                        if (ok && rec.eci->channel) allowance = 4 * uint64_t{rec.eci->channel->containers.size()};
                    } else if (startsWith(h.requestType, "ESI")) {
                        rec.kind = RecordedFlow::Kind::Esi;
                        rec.esi.emplace();
                        ok = wire::decodeEsiRequestBody(body, *rec.esi, error);
                    }
                    break;
                default:
                    break;
            }
        }
        if (ok && body.remaining() > 0 && body.remaining() != allowance && !body.skip(body.remaining())) {
            error = "connection ended inside the body";
            ok = false;
        }
        rec.bodyBytesRead = ok ? static_cast<uint32_t>(h.bodyLength - body.remaining()) : 0;
        if (keepRaw) tap(*conn, true, rec.raw);
        if (!ok) {
            rec.kind = RecordedFlow::Kind::Malformed;
            rec.error = error;
            record(rec);
            drop(*conn, "malformed flow");
            break;
        }

        record(rec);
        const RecordedFlow::Kind kind = rec.kind;
        const wire::Header header = rec.header;
        std::optional<wire::EciRequest> eci = std::move(rec.eci);
        std::optional<wire::EsiRequest> esi = std::move(rec.esi);
        std::optional<wire::Handshake> hs = std::move(rec.handshake);

        bool closeNow = false;
        switch (kind) {
            case RecordedFlow::Kind::Handshake: {
                {
                    std::lock_guard<std::mutex> lock(m);
                    mode = handshakeMode;
                    auto& info = infos[conn->index];
                    info.applid = wire::latin1FromUtf8(hs->applidUtf8);
                    info.qualifier = wire::latin1FromUtf8(hs->qualifierUtf8);
                    info.handshaken = true;
                    cv.notify_all();
                }
                switch (mode) {
                    case HandshakeMode::Accept:
                        send(*conn, flows::handshakeAccepted(), "HANDSHAKE");
                        break;
                    case HandshakeMode::AcceptThenDrop:
                        send(*conn, flows::handshakeAccepted(), "HANDSHAKE");
                        closeNow = true;
                        break;
                    case HandshakeMode::Refuse: {
                        int32_t code;
                        {
                            std::lock_guard<std::mutex> lock(m);
                            code = refuseRc;
                        }
                        send(*conn, flows::error(wire::kHandshakeMessageId, code, "BASE"), "ERROR (handshake refused)");
                        break;
                    }
                    case HandshakeMode::DropOnHandshake:
                    case HandshakeMode::DropOnAccept:
                        closeNow = true;
                        break;
                    case HandshakeMode::Silent:
                        break;
                }
                break;
            }
            case RecordedFlow::Kind::Close:
                if (header.messageId == wire::kCloseMessageId) {
                    send(*conn, flows::close(), "CLOSE");
                    closeNow = true;
                }
                break;
            case RecordedFlow::Kind::EciCall:
                startEciCall(conn, header, std::move(*eci));
                break;
            case RecordedFlow::Kind::ListSystems:
                answerListSystems(conn, header, *eci);
                break;
            case RecordedFlow::Kind::Esi:
                answerEsi(conn, header, *esi);
                break;
            default:
                if (header.flowType == wire::kFlowRequest) {
                    RequestNote note;
                    note.what = "request type " + header.requestType;
                    note.rc = rc::kInvalidRequestType;
                    deliver(conn, header,
                            flows::error(header.messageId, rc::kInvalidRequestType, header.requestType),
                            std::nullopt, note);
                }
                break;
        }
        if (closeNow) break;
    }
    drop(*conn, "connection closed");
    markClosed(*conn);
}

}  // namespace kvlemu
