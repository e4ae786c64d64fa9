// A connection's byte stream: the only way the emulator reads from and writes
// to a client. A plain TCP stream is the default; a wrapper (TLS, for one)
// plugs in by supplying its own Stream through Emulator::Impl::openStream.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "emu_socket.h"

namespace kvlemu {

class Stream {
public:
    virtual ~Stream() = default;
    // Runs on the connection's reader before its first flow: what must happen
    // before flows can pass (a TLS handshake). False when the connection must
    // be dropped; *note may get a line for the log either way.
    virtual bool start(std::string* note) {
        (void)note;
        return true;
    }
    // Waits for bytes: >0 bytes read, 0 at the end of the stream, <0 on an
    // error or once shutdown() was called. One reader at a time.
    virtual long read(uint8_t* dst, size_t len) = 0;
    // Every byte or false. Callers serialise writes.
    virtual bool write(const uint8_t* data, size_t len) = 0;
    // Ends both directions and wakes a blocked read(); safe from any thread.
    virtual void shutdown() = 0;
};

// The stream of an accepted socket; owns it and closes it on destruction.
std::unique_ptr<Stream> plainStream(net::Socket socket);

}  // namespace kvlemu
