// The calling thread's error text, call registration and return-code names of the extensions.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "ext/clapi_ext.h"
#include "impl/clapi_impl.h"
#include "tls/clapi_tls.h"

namespace {

// Long enough for a host name, an address and the platform's message.
thread_local char errorText[512];

struct rcName {
    int rc;
    const char* name;
};
constexpr rcName kExtNames[] = {
    {KVL_EXT_ERR_BADOPTIONS, "KVL_EXT_ERR_BADOPTIONS"},
    {KVL_EXT_ERR_BADDEADLINE, "KVL_EXT_ERR_BADDEADLINE"},
    {KVL_EXT_ERR_NOHANDLE, "KVL_EXT_ERR_NOHANDLE"},
    {KVL_EXT_ERR_BUFFERTOOSMALL, "KVL_EXT_ERR_BUFFERTOOSMALL"},
    {KVL_EXT_ERR_NOADDRESS, "KVL_EXT_ERR_NOADDRESS"},
    {KVL_EXT_ERR_TLS_UNAVAILABLE, "KVL_EXT_ERR_TLS_UNAVAILABLE"},
    {KVL_EXT_ERR_TLS_CONFIG, "KVL_EXT_ERR_TLS_CONFIG"},
    {KVL_EXT_ERR_TLS_HANDSHAKE, "KVL_EXT_ERR_TLS_HANDSHAKE"},
    {KVL_EXT_ERR_TLS_VERIFY, "KVL_EXT_ERR_TLS_VERIFY"},
    {KVL_EXT_ERR_TLS_IO, "KVL_EXT_ERR_TLS_IO"},
};

}  // namespace

void clapiExtSetError(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(errorText, sizeof errorText, format, args);
    va_end(args);
}

void clapiExtClearError() { errorText[0] = '\0'; }

const char* clapiExtErrorText() { return errorText; }

int clapiExtBeginCall(kvlGatewayToken* token) {
    if (!token) {
        clapiExtSetError("NULL gateway token");
        return KVL_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(token);
    if (rc == KVL_ERR_BADGWTOK) clapiExtSetError("gateway token %p is not an open connection", static_cast<void*>(token));
    return rc;
}

int clapiExtEndCall(kvlGatewayToken* token, int rc) {
    if (clapiUnregisterRequest(token) != 0 && rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
    return rc;
}

const char* clapiExtRcName(int rc) {
    for (const auto& entry : kExtNames) {
        if (entry.rc == rc) return entry.name;
    }
    return clapiRcName(rc);
}

KVL_API const char* KVL_EXT_getRcName(int rc) {
    CLAPI_TRACE(ENTRY, 9050, "API.KVL_EXT_getRcName(rc=%d)\n", rc);
    const char* name = clapiExtRcName(rc);
    CLAPI_TRACE(EXIT, 9051, "API.KVL_EXT_getRcName() name=%s\n", name);
    return name;
}

KVL_API int KVL_EXT_tlsAvailable(void) {
    CLAPI_TRACE(ENTRY, 9052, "API.KVL_EXT_tlsAvailable()\n");
    int available = clapiTlsAvailable() ? 1 : 0;
    CLAPI_TRACE(EXIT, 9053, "API.KVL_EXT_tlsAvailable() available=%d\n", available);
    return available;
}

KVL_API int KVL_EXT_getLastErrorText(char* buffer, size_t bufferLength) {
    CLAPI_TRACE(ENTRY, 9030, "API.KVL_EXT_getLastErrorText(buffer=%p, bufferLength=%lu)\n", static_cast<void*>(buffer),
                (unsigned long)bufferLength);
    int rc = KVL_OK;
    // This call leaves the text as it is, so that it can be read more than once.
    if (!buffer) {
        CLAPI_TRACE(EXC, 9031, "API.KVL_EXT_getLastErrorText() NULL buffer\n");
        rc = KVL_ERR_NULLPTR;
    } else if (bufferLength == 0) {
        CLAPI_TRACE(EXC, 9031, "API.KVL_EXT_getLastErrorText() Buffer length 0\n");
        rc = KVL_EXT_ERR_BUFFERTOOSMALL;
    } else {
        size_t n = strnlen(errorText, sizeof errorText - 1);
        if (n > bufferLength - 1) n = bufferLength - 1;
        memcpy(buffer, errorText, n);
        buffer[n] = '\0';
    }
    CLAPI_TRACE(EXIT, 9032, "API.KVL_EXT_getLastErrorText() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}
