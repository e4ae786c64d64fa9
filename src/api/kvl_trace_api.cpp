// Exported trace settings and the state dump.
#include <cerrno>
#include <cstring>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "impl/clapi_tracestate.h"
#include "kvl_channel.h"
#include "kvlclient.h"

extern "C" {

KVL_API int KVL_setAPITraceLevel(int traceState) {
    CLAPI_TRACE(ENTRY, 1038, "API.KVL_setAPITraceLevel(traceState=%d) Current trace level=%d\n", traceState,
                clapiTraceLevel.load());
    int rc = KVL_OK;
    if (static_cast<unsigned>(traceState) > 5u) {
        CLAPI_TRACE(EXC, 1039, "API.KVL_setAPITraceLevel() Supplied trace state value %d was invalid\n", traceState);
        rc = KVL_ERR_TRACELEVEL;
    } else {
        clapiRequestLock(&clapiTrace.traceLock);
        // This banner does not count as written: a later change of destination writes it again.
        if (!clapiTrace.bannerWritten && clapiTraceLevel.load() == 0 && traceState >= 1) clapiTraceWriteBanner();
        clapiTraceLevel.store(traceState);
        clapiReleaseLock(&clapiTrace.traceLock);
    }
    CLAPI_TRACE(EXIT, 1040, "API.KVL_setAPITraceLevel() rc=%d (%s) New trace level=%d\n", rc, clapiRcName(rc),
                clapiTraceLevel.load());
    return rc;
}

KVL_API int KVL_getAPITraceLevel(int* traceStatePtr) {
    CLAPI_TRACE(ENTRY, 1035, "API.KVL_getAPITraceLevel(traceStatePtr=%p)\n", (void*)traceStatePtr);
    int rc = KVL_OK;
    if (!traceStatePtr) {
        CLAPI_TRACE(EXC, 1036, "API.KVL_getAPITraceLevel() Supplied pointer is NULL, traceStatePtr=%p\n",
                    (void*)traceStatePtr);
        rc = KVL_ERR_NULLPTR;
    } else {
        *traceStatePtr = clapiTraceLevel.load();
    }
    CLAPI_TRACE(EXIT, 1037, "API.KVL_getAPITraceLevel() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_setAPITraceFile(const char* traceFile) {
    CLAPI_TRACE(ENTRY, 1041, "API.KVL_setAPITraceFile(traceFile=%s) Current trace destination=%s\n",
                traceFile ? traceFile : "NULL", clapiTraceFileName());
    enum { SWITCHED, UNCHANGED, FAILED } outcome = UNCHANGED;
    int err = 0;
    clapiRequestLock(&clapiTrace.traceLock);
    if (traceFile) {
        // The name buffer holds 1023 characters; a longer name is refused, not cut.
        FILE* f = nullptr;
        if (strlen(traceFile) >= CLAPI_TRACE_FILENAME_SIZE) {
            err = ENAMETOOLONG;
        } else {
            f = fopen(traceFile, "a");
            if (!f) err = errno;
        }
        if (f) {
            if (!clapiTraceToStderr()) fclose(clapiTrace.traceFile);
            clapiTraceSetFileName(traceFile);
            clapiTrace.traceFile = f;
            clapiTrace.bannerWritten = false;
            outcome = SWITCHED;
        } else {
            outcome = FAILED;
        }
    } else if (!clapiTraceToStderr()) {
        fclose(clapiTrace.traceFile);
        clapiTrace.traceFile = stderr;
        clapiTraceSetFileName("stderr");
        clapiTrace.bannerWritten = false;
        outcome = SWITCHED;
    }
    if (clapiTraceLevel.load() >= 1 && !clapiTrace.bannerWritten) {
        clapiTraceWriteBanner();
        clapiTrace.bannerWritten = true;
    }
    clapiReleaseLock(&clapiTrace.traceLock);

    int rc = KVL_OK;
    if (outcome == SWITCHED) {
        CLAPI_TRACE(DEBUG, 1042, "API.KVL_setAPITraceFile() Trace file switched to new destination. Filename=%s\n",
                    clapiTraceFileName());
    } else if (outcome == UNCHANGED) {
        CLAPI_TRACE(DEBUG, 1043, "API.KVL_setAPITraceFile() Trace file destination is unchanged. Filename=%s\n",
                    clapiTraceFileName());
    } else {
        CLAPI_TRACE(EXC, 1044,
                    "API.KVL_setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is "
                    "unchanged. Filename=%s\n",
                    traceFile, err, clapiTraceFileName());
        rc = KVL_ERR_TRACEFILE;
    }
    CLAPI_TRACE(EXIT, 1045, "API.KVL_setAPITraceFile() rc=%d (%s) New trace destination=%s\n", rc, clapiRcName(rc),
                clapiTraceFileName());
    return rc;
}

KVL_API void KVL_setAPITraceDataLength(int dataLength) {
    CLAPI_TRACE(ENTRY, 1048, "API.KVL_setAPITraceDataLength(dataLength=%lu)\n", clapiLu(dataLength));
    clapiRequestLock(&clapiTrace.traceLock);
    int old = clapiTrace.dataLength;
    clapiTrace.dataLength = dataLength;
    clapiReleaseLock(&clapiTrace.traceLock);
    CLAPI_TRACE(DEBUG, 1049, "API.KVL_setAPITraceDataLength() Trace data truncation length changed from %lu to %lu\n",
                clapiLu(old), clapiLu(dataLength));
    CLAPI_TRACE(EXIT, 1050, "API.KVL_setAPITraceDataLength()\n");
}

KVL_API void KVL_setAPITraceDataOffset(int dataOffset) {
    CLAPI_TRACE(ENTRY, 1051, "API.KVL_setAPITraceDataOffset(dataOffset=%lu)\n", clapiLu(dataOffset));
    clapiRequestLock(&clapiTrace.traceLock);
    int old = clapiTrace.dataOffset;
    clapiTrace.dataOffset = dataOffset;
    clapiReleaseLock(&clapiTrace.traceLock);
    CLAPI_TRACE(DEBUG, 1052, "API.KVL_setAPITraceDataOffset() Trace data offset changed from %lu to %lu\n",
                clapiLu(old), clapiLu(dataOffset));
    CLAPI_TRACE(EXIT, 1053, "API.KVL_setAPITraceDataOffset()\n");
}

KVL_API int KVL_dumpState(void) {
    CLAPI_TRACE(ENTRY, 1046, "API.KVL_dumpState()\n");
    clapiTraceOutputBegin();
    clapiTraceOutputPrintf("kvlclient state dump: DLL Version=%s Trace Level=%d clientAPITraceFile=%s\n",
                           KVL_DLL_VERSION, clapiTraceLevel.load(), clapiTraceFileName());
    clapiTraceOutputEnd();
    clapiDumpGatewayTokens();
    KVL_ECI_dumpChannels();
    int rc = KVL_OK;
    CLAPI_TRACE(EXIT, 1047, "API.KVL_dumpState() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

}  // extern "C"
