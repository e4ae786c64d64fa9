// Trace settings read from the environment once, at the end of start-up.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "impl/clapi_trace.h"
#include "impl/clapi_tracestate.h"
#include "platform/platform.h"

namespace {
void writeBannerIfDue() {
    clapiRequestLock(&clapiTrace.traceLock);
    if (clapiTraceLevel.load() >= 1 && !clapiTrace.bannerWritten) {
        clapiTraceWriteBanner();
        clapiTrace.bannerWritten = true;
    }
    clapiReleaseLock(&clapiTrace.traceLock);
}

int parseNonNegative(const char* value) {
    long v = strtol(value, nullptr, 10);
    if (v < 0) return 0;
    return v > INT_MAX ? INT_MAX : static_cast<int>(v);
}

bool startsWithDigit(const char* value) { return value[0] >= '0' && value[0] <= '9'; }
}  // namespace

void clapiSetAPITraceLevelFromEnv() {
    const char* value = platformGetEnv("KVL_CLIENT_TRACE_LEVEL");
    if (!value) return;
    if (strlen(value) == 1 && value[0] >= '0' && value[0] <= '5') {
        clapiRequestLock(&clapiTrace.traceLock);
        clapiTraceLevel.store(atoi(value));
        clapiReleaseLock(&clapiTrace.traceLock);
        return;
    }
    // Raised for a moment so that the complaint itself reaches the trace.
    clapiTraceLevel.store(1);
    CLAPI_TRACE(EXC, 1075, "clapi_impl.clapiSetAPITraceLevelFromEnv() Supplied trace environment value %s was invalid\n",
                value);
    clapiTraceLevel.store(0);
}

void clapiSetAPITraceFileFromEnv() {
    const char* value = platformGetEnv("KVL_CLIENT_TRACE_FILE");
    if (value && *value == '\0') return;  // empty: nothing at all, not even the banner
    if (value) {
        clapiRequestLock(&clapiTrace.traceLock);
        FILE* f = nullptr;
        int err = 0;
        if (strlen(value) >= CLAPI_TRACE_FILENAME_SIZE) {
            err = ENAMETOOLONG;
        } else {
            f = fopen(value, "a");
            if (!f) err = errno;
        }
        if (f) {
            // At start-up the previous destination is standard error, which stays open.
            clapiTrace.traceFile = f;
            clapiTraceSetFileName(value);
            clapiTrace.bannerWritten = false;
        }
        clapiReleaseLock(&clapiTrace.traceLock);
        if (f) {
            CLAPI_TRACE(DEBUG, 1072,
                        "clapi_impl.clapiSetAPITraceFileFromEnv() Trace file switched to new destination. Filename=%s\n",
                        clapiTraceFileName());
        } else {
            CLAPI_TRACE(EXC, 1074,
                        "clapi_impl.clapiSetAPITraceFileFromEnv(%s) file append failed with errno=%d. Trace file "
                        "destination is unchanged. Filename=%s\n",
                        value, err, clapiTraceFileName());
        }
    }
    writeBannerIfDue();
}

void clapiSetAPITraceParamsFromEnv() {
    CLAPI_TRACE(ENTRY, 1066, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
    const char* length = platformGetEnv("KVL_CLIENT_DATA_LENGTH");
    if (length) {
        CLAPI_TRACE(DEBUG, 1067, "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable %s=%s\n",
                    "KVL_CLIENT_DATA_LENGTH", length);
        if (startsWithDigit(length)) {
            clapiRequestLock(&clapiTrace.traceLock);
            clapiTrace.dataLength = parseNonNegative(length);
            clapiReleaseLock(&clapiTrace.traceLock);
            CLAPI_TRACE(DEBUG, 1068, "clapi_impl.clapiSetAPITraceParamsFromEnv() Data truncation length set to %d\n",
                        clapiTrace.dataLength);
        }
    }
    const char* offset = platformGetEnv("KVL_CLIENT_DATA_OFFSET");
    if (offset) {
        CLAPI_TRACE(DEBUG, 1069, "clapi_impl.clapiSetAPITraceParamsFromEnv() Environment variable %s=%s\n",
                    "KVL_CLIENT_DATA_OFFSET", offset);
        if (startsWithDigit(offset)) {
            clapiRequestLock(&clapiTrace.traceLock);
            clapiTrace.dataOffset = parseNonNegative(offset);
            clapiReleaseLock(&clapiTrace.traceLock);
            CLAPI_TRACE(DEBUG, 1070, "clapi_impl.clapiSetAPITraceParamsFromEnv() Data offset set to %d\n",
                        clapiTrace.dataOffset);
        }
    }
    CLAPI_TRACE(EXIT, 1071, "clapi_impl.clapiSetAPITraceParamsFromEnv()\n");
}
