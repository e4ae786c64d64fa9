#include "tls_open.h"

#include <cstring>

namespace tlstest {

KVL_EXT_ConnectOptions tlsOptions(const char* host, int port, const std::string& caFile) {
    static thread_local std::string ca;
    ca = caFile;
    KVL_EXT_ConnectOptions o;
    KVL_EXT_initConnectOptions(&o);
    o.host = host;
    o.port = port;
    o.connectTimeoutMs = 5000;
    o.tls = 1;
    o.tlsCaFile = ca.empty() ? nullptr : ca.c_str();
    return o;
}

int openTls(const KVL_EXT_ConnectOptions& options, gwTok* token, std::string* errorText) {
    int rc = KVL_EXT_openConnection(&options, token);
    char text[512] = "";
    KVL_EXT_getLastErrorText(text, sizeof text);
    if (errorText) *errorText = text;
    return rc;
}

}  // namespace tlstest
