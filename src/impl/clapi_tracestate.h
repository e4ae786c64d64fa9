// State of the API trace, shared by the trace writer, the environment reader and
// the exported trace setters. Everything but the level is guarded by the trace lock.
#pragma once

#include <cstdio>

#include "impl/clapi_lock.h"

constexpr size_t CLAPI_TRACE_FILENAME_SIZE = 1024;

struct clapiTraceState {
    FILE* traceFile;      // null until initialised: standard error
    char* traceFileName;  // CLAPI_TRACE_FILENAME_SIZE bytes, never freed
    bool bannerWritten;
    int dataLength = 128;
    int dataOffset = 0;
    clapiLock traceLock;
};

extern clapiTraceState clapiTrace;

inline FILE* clapiTraceOut() { return clapiTrace.traceFile ? clapiTrace.traceFile : stderr; }
inline bool clapiTraceToStderr() { return clapiTraceOut() == stderr; }

// Both banner lines, straight to the destination; the caller holds the trace lock.
void clapiTraceWriteBanner();
// Copies a name that is known to fit into traceFileName.
void clapiTraceSetFileName(const char* name);
