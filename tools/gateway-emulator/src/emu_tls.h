// The emulator's TLS: a server context made from the options, and a Stream per
// connection (plugged in through Emulator::Impl::openStream) whose start() runs
// the handshake on the connection's reader. OpenSSL (emu_tls_openssl.cpp) where
// it is found, nothing otherwise (emu_tls_none.cpp).
#pragma once

#include <memory>
#include <string>

#include "emu_socket.h"
#include "gateway_emulator/emulator.h"
#include "stream.h"

namespace kvlemu::tls {

bool available();

class ServerContext;
// nullptr with a reason in *error when the files cannot be used.
std::shared_ptr<ServerContext> makeServerContext(const TlsOptions& options, std::string* error);

// The TLS stream of an accepted socket (owned, closed on destruction). Its
// start() runs the server side of the handshake within timeoutMs.
std::unique_ptr<Stream> serverStream(std::shared_ptr<ServerContext> context, net::Socket s, int timeoutMs);

}  // namespace kvlemu::tls
