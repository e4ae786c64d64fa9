#include "gateway_emulator/recording.h"

#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <sstream>

namespace kvlemu {

namespace {

constexpr size_t kBytesPerLine = 32;
const char* const kFirstLine = "# kvl-gateway-emulator recording 1";

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool decodeFlowHeader(const wire::Bytes& flow, wire::Header& h, size_t& headerSize) {
    wire::MemorySource src(flow);
    std::string error;
    if (!wire::decodeHeader(src, h, error)) return false;
    headerSize = src.position();
    return true;
}

void zero(wire::Bytes& b, size_t from, size_t n) {
    if (from < b.size()) std::memset(b.data() + from, 0, std::min(n, b.size() - from));
}

uint32_t u32At(const wire::Bytes& b, size_t at) {
    if (at + 4 > b.size()) return 0;
    return (uint32_t{b[at]} << 24) | (uint32_t{b[at + 1]} << 16) | (uint32_t{b[at + 2]} << 8) | b[at + 3];
}

std::string summary(const wire::Bytes& flow) {
    wire::Header h;
    size_t hs = 0;
    if (!decodeFlowHeader(flow, h, hs)) return "GARBAGE";
    std::string s = std::string(wire::flowTypeName(h.flowType)) + " id " + std::to_string(h.messageId) + " " +
                    (h.requestType.empty() ? "-" : h.requestType);
    if (h.flowType == wire::kFlowRequest && h.requestType == "ECI") {
        wire::MemorySource src(flow.data() + hs, flow.size() - hs);
        wire::EciRequest r;
        std::string error;
        if (wire::decodeEciRequestBody(src, r, error) && r.isCall()) s += " " + wire::fieldText(r.program);
    }
    return s;
}

// Program, extend mode and data: what a replayed call must match.
std::string keyOf(const wire::EciRequest& r) {
    std::string k = wire::fieldText(r.program) + '\n' + std::to_string(r.extendMode) + '\n';
    k.append(r.commarea.begin(), r.commarea.end());
    if (r.channel)
        for (const auto& c : r.channel->containers) {
            k += '\n' + wire::fieldText(c.name) + '=';
            k.append(c.data.begin(), c.data.end());
        }
    return k;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

struct ReplayBook {
    std::mutex m;
    struct Entry {
        std::deque<wire::Bytes> replies;
    };
    std::map<std::string, Entry> calls;
};

wire::Bytes withoutPasswords(const wire::Bytes& flow) {
    wire::Bytes out = flow;
    wire::Header h;
    size_t hs = 0;
    if (!decodeFlowHeader(flow, h, hs) || h.flowType != wire::kFlowRequest) return out;
    if (h.requestType == "ECI") {
        // type, extend mode, token, reserved (4 x 4 + 1), server name length, name, user id, password length.
        uint32_t type = u32At(flow, hs);
        if (type != wire::kEciCall && type != wire::kEciCallAltTran) return out;
        uint32_t nameLength = u32At(flow, hs + 17);
        if (nameLength > 8) return out;
        size_t at = hs + 21 + nameLength + 16;
        zero(out, at + 4, u32At(flow, at));
    } else if (h.requestType == "ESI") {
        // type, user id (10), password length, password, server (8), new password length, new password.
        size_t at = hs + 14;
        uint32_t n = u32At(flow, at);
        zero(out, at + 4, n);
        if (u32At(flow, hs) == 1 && n < flow.size()) {
            size_t next = at + 4 + n + 8;
            zero(out, next + 4, u32At(flow, next));
        }
    }
    return out;
}

Recorder::~Recorder() {
    if (file_) std::fclose(file_);
}

bool Recorder::open(const std::string& path, std::string& error) {
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    start_ = now();
    std::fprintf(file_,
                 "%s\n"
                 "# in|out SECONDS conn N FLOWTYPE id ID REQUESTTYPE [PROGRAM], then the flow's bytes in hex\n"
                 "# (password bytes zeroed); text after '|' on a hex line is a reading aid only.\n",
                 kFirstLine);
    std::fflush(file_);
    return true;
}

FlowTap Recorder::tapOf(const std::shared_ptr<Recorder>& recorder) {
    return [recorder](int connection, bool inbound, const wire::Bytes& flow) {
        recorder->write(connection, inbound, flow);
    };
}

void Recorder::write(int connection, bool inbound, const wire::Bytes& raw) {
    wire::Bytes flow = inbound ? withoutPasswords(raw) : raw;
    std::string text;
    char line[160];
    std::snprintf(line, sizeof line, "%s %.6f conn %d ", inbound ? "in" : "out", now() - start_, connection);
    text += line + summary(flow) + "\n";
    for (size_t off = 0; off < flow.size(); off += kBytesPerLine) {
        size_t n = std::min(kBytesPerLine, flow.size() - off);
        std::string hex = "  ";
        std::string ascii;
        for (size_t i = 0; i < n; ++i) {
            uint8_t b = flow[off + i];
            std::snprintf(line, sizeof line, "%s%02X", i > 0 && i % 4 == 0 ? " " : "", b);
            hex += line;
            ascii += b >= 0x20 && b < 0x7F && b != '|' ? static_cast<char>(b) : '.';
        }
        hex.resize(2 + kBytesPerLine * 2 + kBytesPerLine / 4 - 1, ' ');
        text += hex + "  |" + ascii + "\n";
    }
    std::lock_guard<std::mutex> lock(m_);
    if (!file_) return;
    std::fputs(text.c_str(), file_);
    std::fflush(file_);  // a killed emulator still leaves every flow so far
}

bool parseReplay(const std::string& text, std::shared_ptr<ReplayBook>& book, size_t& exchanges, std::string& error) {
    struct Flow {
        bool inbound;
        int conn;
        wire::Bytes bytes;
        int line;
    };
    std::vector<Flow> flows;
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    auto fail = [&](const std::string& why) {
        error = "line " + std::to_string(number) + ": " + why;
        return false;
    };
    while (std::getline(lines, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == ' ') {
            if (flows.empty()) return fail("bytes before the first flow line");
            std::string hex = line.substr(0, line.find('|'));
            int high = -1;
            for (char c : hex) {
                if (c == ' ' || c == '\t') continue;
                int v = hexValue(c);
                if (v < 0) return fail(std::string("'") + c + "' is not a hex digit");
                if (high < 0) {
                    high = v;
                } else {
                    flows.back().bytes.push_back(static_cast<uint8_t>(high * 16 + v));
                    high = -1;
                }
            }
            if (high >= 0) return fail("odd number of hex digits");
            continue;
        }
        std::istringstream words(line);
        std::string dir, seconds, connWord;
        int conn = -1;
        words >> dir >> seconds >> connWord >> conn;
        if ((dir != "in" && dir != "out") || connWord != "conn" || conn < 0)
            return fail("expected: in|out SECONDS conn N ...");
        flows.push_back({dir == "in", conn, {}, number});
    }

    auto result = std::make_shared<ReplayBook>();
    exchanges = 0;
    for (size_t i = 0; i < flows.size(); ++i) {
        const Flow& f = flows[i];
        wire::Header h;
        size_t hs = 0;
        if (!f.inbound || !decodeFlowHeader(f.bytes, h, hs) || h.flowType != wire::kFlowRequest ||
            h.requestType != "ECI")
            continue;
        if (hs + h.bodyLength < f.bytes.size() || f.bytes.size() < hs) {
            number = f.line;
            return fail("flow longer than its header says");
        }
        wire::MemorySource src(f.bytes.data() + hs, f.bytes.size() - hs);
        wire::EciRequest req;
        std::string why;
        if (!wire::decodeEciRequestBody(src, req, why) || !req.isCall()) continue;
        // Its answer: the next reply, error or exception on that connection for that id.
        for (size_t j = i + 1; j < flows.size(); ++j) {
            const Flow& g = flows[j];
            wire::Header rh;
            size_t rhs = 0;
            if (g.inbound || g.conn != f.conn || !decodeFlowHeader(g.bytes, rh, rhs) || rh.messageId != h.messageId)
                continue;
            if (rh.flowType != wire::kFlowReply && rh.flowType != wire::kFlowError &&
                rh.flowType != wire::kFlowException)
                continue;
            result->calls[keyOf(req)].replies.push_back(g.bytes);
            ++exchanges;
            break;
        }
    }
    book = std::move(result);
    return true;
}

bool loadReplay(const std::string& path, std::shared_ptr<ReplayBook>& book, size_t& exchanges, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return false;
    }
    std::ostringstream all;
    all << in.rdbuf();
    if (!parseReplay(all.str(), book, exchanges, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

ReplySource replySourceOf(const std::shared_ptr<ReplayBook>& book) {
    return [book](const wire::Header&, const wire::EciRequest& req) -> std::optional<wire::Bytes> {
        std::lock_guard<std::mutex> lock(book->m);
        auto it = book->calls.find(keyOf(req));
        if (it == book->calls.end() || it->second.replies.empty()) return std::nullopt;
        auto& replies = it->second.replies;
        wire::Bytes flow = replies.front();
        if (replies.size() > 1) replies.pop_front();
        return flow;
    };
}

}  // namespace kvlemu
