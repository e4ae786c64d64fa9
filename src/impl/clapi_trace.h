// The API trace: one process-wide text trace, one lock, one macro.
//
// Every trace point is written with CLAPI_TRACE(TYPE, id, format, ...), TYPE one of
// EXC, EVENT, ENTRY, EXIT, DEBUG. When the level does not admit the type the
// cost is one integer comparison: the arguments are not evaluated. Formats are
// checked by the compiler: pass clapiLu(x) for %lu and (int) casts for %d.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#if defined(__clang__)
#define CLAPI_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#else
#define CLAPI_PRINTF(fmtIndex, firstArg) __attribute__((format(gnu_printf, fmtIndex, firstArg)))
#endif

enum clapiTraceType { CLAPI_TYPE_EXC, CLAPI_TYPE_EVENT, CLAPI_TYPE_ENTRY, CLAPI_TYPE_EXIT, CLAPI_TYPE_DEBUG, CLAPI_TYPE_DATA };

#define CLAPI_LEVEL_EXC 1
#define CLAPI_LEVEL_EVENT 2
#define CLAPI_LEVEL_ENTRY 3
#define CLAPI_LEVEL_EXIT 3
#define CLAPI_LEVEL_DEBUG 4
#define CLAPI_LEVEL_DATA 4

// A %lu value as the trace prints it: a 32-bit unsigned long, as on Windows, so both
// builds write the same text (-1 prints 4294967295; a wider value keeps its low 32 bits).
template <typename T>
constexpr unsigned long clapiLu(T value) {
    return static_cast<uint32_t>(value);
}

// Read without the trace lock by every trace point; written under it.
extern std::atomic<int> clapiTraceLevel;

inline bool clapiTraceAdmits(int level) { return clapiTraceLevel.load(std::memory_order_relaxed) >= level; }

void clapiTraceWrite(clapiTraceType type, int id, const char* format, ...) CLAPI_PRINTF(3, 4);
// A DATA line followed by the hexadecimal dump of `length` bytes at `data`, under one hold of the lock.
void clapiTraceWriteData(int id, const void* data, size_t length, const char* format, ...) CLAPI_PRINTF(4, 5);
// For the lock module's own failures: the trace lock itself may be the broken lock.
void clapiTraceWriteUnlocked(clapiTraceType type, int id, const char* format, ...) CLAPI_PRINTF(3, 4);

#define CLAPI_TRACE(TYPE, ID, ...)                                           \
    do {                                                                     \
        if (clapiTraceAdmits(CLAPI_LEVEL_##TYPE))                            \
            clapiTraceWrite(CLAPI_TYPE_##TYPE, (ID), __VA_ARGS__);           \
    } while (0)

#define CLAPI_TRACE_DATA(ID, DATA, LENGTH, ...)                                   \
    do {                                                                          \
        if (clapiTraceAdmits(CLAPI_LEVEL_DATA))                                   \
            clapiTraceWriteData((ID), (DATA), (LENGTH), __VA_ARGS__);             \
    } while (0)

#define CLAPI_TRACE_UNLOCKED(TYPE, ID, ...)                                  \
    do {                                                                     \
        if (clapiTraceAdmits(CLAPI_LEVEL_##TYPE))                            \
            clapiTraceWriteUnlocked(CLAPI_TYPE_##TYPE, (ID), __VA_ARGS__);   \
    } while (0)

// Diagnostic dumps (state, token list, channels) are written whatever the level,
// straight to the destination without the prefix: take the output, print, give it back.
void clapiTraceOutputBegin();
void clapiTraceOutputPrintf(const char* format, ...) CLAPI_PRINTF(1, 2);
void clapiTraceOutputEnd();

// The hexadecimal dump; the caller holds the trace lock. Returns the bytes dumped.
size_t clapiTraceData(const void* data, size_t length, uint32_t stopword, int bytesPerLine, int flag);

int clapiTraceInit();
void clapiTraceTimestamp(char* buffer);  // at least 32 bytes
void clapiTraceDate(char* buffer);       // at least 16 bytes
void clapiTraceIds(uint32_t* pid, uint32_t* tid);
void clapiSetAPITraceLevelFromEnv();
void clapiSetAPITraceFileFromEnv();
void clapiSetAPITraceParamsFromEnv();
const char* clapiTraceFileName();
// Only for tests: close a trace file and return to standard error, level 0, no banner.
void clapiTraceResetForTest();
