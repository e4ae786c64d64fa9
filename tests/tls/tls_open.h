// Opening a TLS connection for the tests: through KVL_EXT_openConnection once
// the library has it, until then through the TLS seam as the open uses it
// (connect, TLS session, receiver thread, Gateway handshake).
#pragma once

#include <string>

#include "kvl_ext.h"
#include "kvlclient.h"

namespace tlstest {

// Options for host:port over TLS, trusting caFile (empty: the system store).
KVL_EXT_ConnectOptions tlsOptions(const char* host, int port, const std::string& caFile);

// The open's code; *errorText says why it failed.
int openTls(const KVL_EXT_ConnectOptions& options, gwTok* token, std::string* errorText);

}  // namespace tlstest
