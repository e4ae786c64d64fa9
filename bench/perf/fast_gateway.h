// A minimal fast Gateway: accepts the handshake, echoes every ECI call (COMMAREA
// and channel) from the connection's own reader thread, answers the close. Nothing
// else: it is the far end of the floor, not a second emulator.
#pragma once

namespace kvlperf {

// Listens on 127.0.0.1 and serves until the process ends; writes the port to `readyFd`.
[[noreturn]] void runFastGateway(int readyFd);

}  // namespace kvlperf
