// Writing trace lines: level test, prefix, one lock for all output, flush per line.
#include "impl/clapi_trace.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "impl/clapi_buildlevel.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_tracestate.h"
#include "platform/platform.h"


std::atomic<int> clapiTraceLevel{0};
clapiTraceState clapiTrace{};

namespace {
const char* const kTypeNames[] = {"*EXC*", "EVENT", "ENTRY", "EXIT", "DEBUG", "DATA"};

void writePrefixedLine(clapiTraceType type, int id, const char* format, va_list args) {
    char stamp[32];
    uint32_t pid = 0;
    uint32_t tid = 0;
    clapiTraceTimestamp(stamp);
    clapiTraceIds(&pid, &tid);
    FILE* out = clapiTraceOut();
    fprintf(out, "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s ", stamp, pid, tid, id, kTypeNames[type]);
    vfprintf(out, format, args);
}
}  // namespace

void clapiTraceTimestamp(char* buffer) {
    platformLocalTime t;
    platformGetLocalTime(&t);
    snprintf(buffer, 32, "%02d/%02d/%02d %02d:%02d:%02d:%.3d", t.day, t.month, t.year % 100, t.hour, t.minute,
             t.second, t.millisecond);
}

void clapiTraceDate(char* buffer) {
    platformLocalTime t;
    platformGetLocalTime(&t);
    snprintf(buffer, 16, "%02d/%02d/%02d", t.day, t.month, t.year % 100);
}

void clapiTraceIds(uint32_t* pid, uint32_t* tid) {
    if (pid) *pid = platformProcessId();
    if (tid) *tid = platformThreadId();
}

void clapiTraceWrite(clapiTraceType type, int id, const char* format, ...) {
    int locked = clapiRequestLock(&clapiTrace.traceLock);
    va_list args;
    va_start(args, format);
    writePrefixedLine(type, id, format, args);
    va_end(args);
    fflush(clapiTraceOut());
    if (locked == 0) clapiReleaseLock(&clapiTrace.traceLock);
}

void clapiTraceWriteData(int id, const void* data, size_t length, const char* format, ...) {
    int locked = clapiRequestLock(&clapiTrace.traceLock);
    va_list args;
    va_start(args, format);
    writePrefixedLine(CLAPI_TYPE_DATA, id, format, args);
    va_end(args);
    clapiTraceData(data, length, 0, 16, 1);
    fflush(clapiTraceOut());
    if (locked == 0) clapiReleaseLock(&clapiTrace.traceLock);
}

void clapiTraceWriteUnlocked(clapiTraceType type, int id, const char* format, ...) {
    va_list args;
    va_start(args, format);
    writePrefixedLine(type, id, format, args);
    va_end(args);
    fflush(clapiTraceOut());
}

void clapiTraceOutputBegin() { clapiRequestLock(&clapiTrace.traceLock); }

void clapiTraceOutputPrintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(clapiTraceOut(), format, args);
    va_end(args);
    fflush(clapiTraceOut());
}

void clapiTraceOutputEnd() { clapiReleaseLock(&clapiTrace.traceLock); }

void clapiTraceWriteBanner() {
    char date[16];
    clapiTraceDate(date);
    FILE* out = clapiTraceOut();
    fprintf(out, "*** %s Korvane Quorvex KVLClient DLL trace V%s API Version %s Build Level %s ***\n", date,
            clapiDllVersion, clapiApiVersion, KVL_BUILD_LEVEL);
    fprintf(out, "*** Trace Level = %d, Trace File = %s, 64-bit ***\n", clapiTraceLevel.load(),
            clapiTraceFileName());
    fflush(out);
}

void clapiTraceSetFileName(const char* name) {
    if (!clapiTrace.traceFileName) return;
    snprintf(clapiTrace.traceFileName, CLAPI_TRACE_FILENAME_SIZE, "%s", name);
}

const char* clapiTraceFileName() { return clapiTrace.traceFileName ? clapiTrace.traceFileName : "stderr"; }

int clapiTraceInit() {
    clapiTrace.traceFile = stderr;
    if (clapiInitLock(&clapiTrace.traceLock) != 0) return 0;
    clapiTrace.traceFileName = static_cast<char*>(calloc(1, CLAPI_TRACE_FILENAME_SIZE));
    if (!clapiTrace.traceFileName) return -111;  // KVL_ERR_MALLOCFAIL
    clapiTraceSetFileName("stderr");
    return 0;
}

void clapiTraceResetForTest() {
    clapiRequestLock(&clapiTrace.traceLock);
    if (!clapiTraceToStderr()) fclose(clapiTrace.traceFile);
    clapiTrace.traceFile = stderr;
    clapiTraceSetFileName("stderr");
    clapiTrace.bannerWritten = false;
    clapiTrace.dataLength = 128;
    clapiTrace.dataOffset = 0;
    clapiTraceLevel.store(0);
    clapiReleaseLock(&clapiTrace.traceLock);
}
