// The emulator's only contact with the socket API; every Windows/POSIX
// difference (start-up, handle type, close, SIGPIPE, polling) stays in emu_socket.cpp.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kvlemu::net {

using Socket = uint64_t;
constexpr Socket kInvalidSocket = ~static_cast<Socket>(0);

// Idempotent and thread-safe; false when the socket layer cannot be started.
bool startup();

// Listening TCP socket on address:port (port 0 picks a free one, reported in
// *boundPort). kInvalidSocket on failure with a reason in *error that ends
// with the system's own text ("address already in use").
Socket listenOn(const std::string& address, uint16_t port, uint16_t* boundPort, std::string* error);

// Waits at most timeoutMs for a pending connection; kInvalidSocket when none came.
Socket acceptWithin(Socket listener, int timeoutMs, std::string* peer);

// Blocking connect for test clients. kInvalidSocket on failure.
Socket connectTo(const std::string& address, uint16_t port);

// Sends every byte or fails; never raises SIGPIPE.
bool sendAll(Socket s, const uint8_t* data, size_t len);

// One receive: >0 bytes, 0 when the peer closed, <0 on error.
long recvSome(Socket s, uint8_t* data, size_t len);

// True when data (or end of stream) can be read within timeoutMs.
bool waitReadable(Socket s, int timeoutMs);

// One receive that also ends (with -1) soon after `stop` is set and the socket
// shut down. Where shutting a socket down wakes a blocked receive it simply
// waits; elsewhere (Wine, for one) it polls the flag between short waits.
long recvUntilStopped(Socket s, uint8_t* data, size_t len, const std::atomic<bool>& stop);

// Ends both directions so that a thread blocked in recvSome returns; the
// handle stays valid until closeSocket.
void shutdownBoth(Socket s);
void closeSocket(Socket s);

// The system's text for a socket error code, lower-case first letter, no full stop.
std::string errorText(int code);

}  // namespace kvlemu::net
