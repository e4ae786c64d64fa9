#include "fast_gateway.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

#include "perf_socket.h"

namespace kvlperf {

namespace {

constexpr uint32_t kEciCall = 1;
constexpr uint32_t kEciCallAltTran = 12;
constexpr uint8_t kModified = 3;

// Reads one ECI call's body and, with `out`, appends its echo: the COMMAREA comes
// back as sent, every container comes back MODIFIED with its own data. Returns the
// bytes the request really holds, 0 when `len` does not hold all of it yet. (A
// channel request declares four bytes per container more than it sends.)
size_t echoBody(const uint8_t* body, size_t len, Bytes* out) {
    In in(body, len);
    Bytes scratch;
    Out o(out ? *out : scratch);
    uint32_t type = in.be32();
    if (type != kEciCall && type != kEciCallAltTran) return 0;
    uint32_t extendMode = in.be32();
    uint32_t luw = in.be32();
    in.skip(4 + 1 + 4 + 8 + 16);  // reserved, reserved byte, server length and name, user id
    in.skip(in.be32());           // password
    in.skip(8 + 4);               // program, transaction
    in.skip(in.be32());           // extra data
    uint32_t commareaLength = in.be32();
    uint32_t outbound = in.u8() ? in.be32() : 0;
    if (in.u8()) in.be32();
    const bool carriesCommarea = extendMode != 2 && extendMode != 4;
    uint32_t sent = carriesCommarea ? (outbound >= 1 ? outbound : commareaLength) : 0;
    const uint8_t* commarea = in.skip(sent);
    if (!in.ok) return 0;
    if (out) {
        o.be32(type).be32(luw).be32(0).be32(0).zeros(4).be32(commareaLength).u8(0);
        if (carriesCommarea) {
            o.raw(commarea, sent < commareaLength ? sent : commareaLength);
            if (sent < commareaLength) o.zeros(commareaLength - sent);
        }
    }
    if (in.u8()) {
        const uint8_t* name = in.skip(16);
        uint32_t ccsid = in.be32();
        uint32_t count = in.be32();
        if (!in.ok || count > 100000) return 0;
        if (out) o.u8(0xFF).raw(name, 16).be32(ccsid).be32(count);
        for (uint32_t i = 0; i < count; ++i) {
            const uint8_t* entry = in.skip(16);
            in.skip(3);
            uint8_t ctype = in.u8();
            uint32_t cccsid = in.be32();
            uint32_t dataLength = in.be32();
            const uint8_t* data = in.skip(dataLength);
            if (!in.ok) return 0;
            if (out) o.raw(entry, 16).u8(kModified).u8(0).u8(0).u8(ctype).be32(cccsid).be32(dataLength).raw(data, dataLength);
        }
    } else if (out) {
        o.u8(0);
    }
    in.skip(2 + 1);
    if (in.be32() != 0xFFFFFFFF) return 0;  // optional blocks: never sent
    in.be32();                              // correlator
    return in.ok ? len - in.left() : 0;
}

void serve(int fd) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    FlowReader reader(fd);
    Header h;
    const uint8_t* body = nullptr;
    Bytes reply;
    Bytes echo;
    size_t bodyLen = 0;
    auto complete = [](const uint8_t* b, size_t have) { return echoBody(b, have, nullptr); };
    while (reader.next(&h, &body, &bodyLen, complete)) {
        reply.clear();
        if (h.flowType == kFlowHandshake) {
            Bytes hs = handshakeBody("");
            Out(reply).header(kFlowHandshake, kHandshakeId, "BASE", static_cast<uint32_t>(hs.size())).raw(hs.data(),
                                                                                                          hs.size());
        } else if (h.flowType == kFlowClose) {
            Out(reply).header(kFlowClose, kCloseId, "BASE", 0);
            sendAll(fd, reply.data(), reply.size());
            break;
        } else if (h.flowType == kFlowRequest) {
            echo.clear();
            if (echoBody(body, bodyLen, &echo) == 0) break;
            Out(reply).header(kFlowReply, h.messageId, "ECI", static_cast<uint32_t>(echo.size())).raw(echo.data(),
                                                                                                      echo.size());
        } else {
            continue;
        }
        if (!sendAll(fd, reply.data(), reply.size())) break;
    }
    shutdown(fd, SHUT_RDWR);
    close(fd);
}

}  // namespace

void runFastGateway(int readyFd) {
    int port = 0;
    int listener = listenLoopback(&port);
    if (write(readyFd, &port, sizeof port) != sizeof port || listener < 0) _exit(1);
    close(readyFd);
    for (;;) {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) continue;
        unsigned long id = 0;
        if (!startSmallThread([fd] { serve(fd); }, 256 * 1024, &id)) {
            close(fd);
            continue;
        }
        pthread_detach(static_cast<pthread_t>(id));
    }
}

}  // namespace kvlperf
