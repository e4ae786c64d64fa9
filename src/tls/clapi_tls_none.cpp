// A build without TLS: plain TCP only.
#include <cstdio>

#include "tls/clapi_tls.h"

bool clapiTlsAvailable() { return false; }

int clapiTlsStart(kvlGatewayToken*, const KVL_EXT_ConnectOptions*, int, char* errText, size_t errLen) {
    if (errText != nullptr && errLen > 0) std::snprintf(errText, errLen, "TLS is not available in this build");
    return KVL_EXT_ERR_TLS_UNAVAILABLE;
}
