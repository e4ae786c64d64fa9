// Connecting a Gateway token: address lookup, socket set-up, the receiver
// thread and the handshake; the close flow and the token's socket.
#pragma once

#include <cstdint>

#include "gateway/clapi_gwytok.h"
#include "platform/platform.h"

// 0 when the Gateway accepted the handshake; otherwise -132, -118, -134, -9 or
// the closeRc the receiver thread recorded. On failure the token's socket is
// closed (or, once the receiver thread runs, shut down for it to close).
// The extension API's open: its own connect (every address of the host within a
// time-out in milliseconds, socket options, TLS) replaces the address lookup
// and connect, and the wait for the handshake answer ends at deadlineUs.
struct clapiOpenPlan {
    // 0 with token->socket connected; otherwise a return code, the socket closed.
    int (*connect)(kvlGatewayToken* token, clapiOpenPlan* plan);
    uint64_t deadlineUs;    // monotonic microseconds the open must end by; 0: none
    int handshakeTimedOut;  // (out) 1: no handshake answer by deadlineUs
    void* context;          // the extension's own
};

int clapiConnectToGateway(int32_t port, const char* ipAddr, kvlGatewayToken* gwTokPtr, const char* applid,
                          const char* applidQualifier);
// Sends the close request under the send lock: 0, a socket buffer code or -9.
// When a sender holds the send lock for clapiCloseAnswerSeconds the connection
// is ended instead (-102).
int clapiCloseConnection(kvlGatewayToken* conn);

int getHostInfo(const char* address, int32_t port, platformAddress* hostInfo);
int waitForConnection(platformSocket* socketDescriptorPtr, int* sockError, int32_t connTimeout);
int closeSocket(platformSocket socket);

// The connection's only reader; argument: the token. Started by clapiConnectToGateway.
void receiverThread(void* conn);

// Closes the token's socket if nobody has yet (under the send lock).
void clapiCloseTokenSocket(kvlGatewayToken* token);
// Stops both directions of the token's socket (without releasing it).
void clapiShutdownTokenSocket(kvlGatewayToken* token);
// Makes the receiver thread end at once (or within a second where a shutdown
// does not wake a blocked select); the receiver thread then closes the socket.
void clapiStopReceiver(kvlGatewayToken* token);
