// A build of the emulator without TLS.
#include "emu_tls.h"

namespace kvlemu::tls {

class ServerContext {};

bool available() { return false; }

std::shared_ptr<ServerContext> makeServerContext(const TlsOptions&, std::string* error) {
    if (error) *error = "this emulator was built without TLS";
    return nullptr;
}

std::unique_ptr<Stream> serverStream(std::shared_ptr<ServerContext>, net::Socket s, int) {
    // Never reached: without a context no TLS stream is asked for.
    return plainStream(s);
}

}  // namespace kvlemu::tls
