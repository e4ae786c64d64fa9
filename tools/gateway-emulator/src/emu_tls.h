// The emulator's TLS: a server context made from the options, and a stream per
// connection that the reader and the senders use in place of the bare socket.
// OpenSSL (emu_tls_openssl.cpp) where it is found, nothing otherwise (emu_tls_none.cpp).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "emu_socket.h"
#include "gateway_emulator/emulator.h"

namespace kvlemu::tls {

bool available();

class ServerContext;
// nullptr with a reason in *error when the files cannot be used.
std::shared_ptr<ServerContext> makeServerContext(const TlsOptions& options, std::string* error);

class Stream {
public:
    virtual ~Stream() = default;
    // Every byte, encrypted, or false. Callers keep whole flows in order themselves.
    virtual bool sendAll(const uint8_t* data, size_t len) = 0;
    // As net::recvSome: >0 plaintext bytes, 0 end of stream, <0 failure.
    virtual long recvSome(uint8_t* data, size_t len) = 0;
    // Plaintext (or the end) is there without waiting on the socket.
    virtual bool pending() = 0;
};

// Runs the server side of the handshake on s within timeoutMs; `stop` is polled
// while waiting. nullptr with the reason in *error when it fails.
std::unique_ptr<Stream> accept(ServerContext& context, net::Socket s, int timeoutMs, const std::function<bool()>& stop,
                               std::string* error);

}  // namespace kvlemu::tls
