// Diagnostic formatting of Gateway tokens and the GTL dump (module clapi_gwytok).
#include <cstdio>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"

namespace {
constexpr const char* kDashes = "--------------------------------------------------------------------------------";
}

int formatGatewayToken(kvlGatewayToken* gwTok, char* buffer) {
    if (!buffer) return KVL_ERR_NULLPARM;
    if (!gwTok) {
        snprintf(buffer, GWTOK_FORMAT_SIZE, "%s", "GatwayToken(NULL)");
        return 0;
    }
    snprintf(buffer, GWTOK_FORMAT_SIZE,
             "GatwayToken(%p) eyecatcher(%8.8s) port(%d) connStatus(%d) socket(%d) applid(%s) applidQual(%s) "
             "nextGwyTokPtr(%p)",
             static_cast<void*>(gwTok), gwTok->eyecatcher, (int)gwTok->port, (int)gwTok->connStatus.load(),
             (int)gwTok->socket.load(), gwTok->applid, gwTok->applidQualifier, static_cast<void*>(gwTok->next));
    return 0;
}

void clapiDumpGatewayTokens() {
    CLAPI_TRACE(ENTRY, 2038, "clapi_gwytok.clapiDumpGatewayTokens()\n");
    clapiRequestLock(&clapiGtlLock);
    clapiTraceOutputBegin();
    clapiTraceOutputPrintf("Gateway Token List dump\n");
    clapiTraceOutputPrintf("%s\n", kDashes);
    int count = 0;
    for (kvlGatewayToken* t = gtlHead(); t; t = t->next) {
        char text[GWTOK_FORMAT_SIZE];
        formatGatewayToken(t, text);
        clapiTraceOutputPrintf("Gateway Token List entry -%4.4d- : %s\n", ++count, text);
    }
    if (count > 0) {
        clapiTraceOutputPrintf("Total number of Gateway Token List entries=%d\n", count);
    } else {
        clapiTraceOutputPrintf("The Gateway Token List is EMPTY\n");
    }
    clapiTraceOutputPrintf("%s\n", kDashes);
    clapiTraceOutputEnd();
    clapiReleaseLock(&clapiGtlLock);
    CLAPI_TRACE(EXIT, 2039, "clapi_gwytok.clapiDumpGatewayTokens() List length=%d\n", count);
}
