// TLS under the Gateway flows: the handshake on a connected socket and, once a
// connection has a session, every read and write of its socket buffers.
#pragma once

#include <cstddef>

#include "kvl_ext.h"

struct kvlGatewayToken;

// True when this build carries a TLS implementation.
bool clapiTlsAvailable();

// Runs the TLS handshake on the token's connected socket, before the receiver
// thread starts and before the Gateway handshake flow is sent, and attaches the
// session to the token. timeoutMs bounds the handshake (0: no bound).
// 0, or a KVL_EXT_ERR_TLS_ code with the reason in errText (NUL-terminated,
// at most errLen bytes).
int clapiTlsStart(kvlGatewayToken* gwTok, const KVL_EXT_ConnectOptions* options, int timeoutMs, char* errText,
                  size_t errLen);
