// Hexadecimal dump of a buffer, sixteen bytes a line:
// 0x000000000012F3A0: 41420001 02030405 06070809 0A0B0C0D : AB..............
#include <cstdint>
#include <cstdio>

#include "impl/clapi_trace.h"
#include "impl/clapi_tracestate.h"

namespace {
// Printable as in the C locale; bytes above 0x7E are shown as '.'.
bool printable(uint8_t b) { return b >= 0x20 && b <= 0x7E; }

size_t dumpHex(FILE* out, const uint8_t* line, size_t count, int bytesPerLine) {
    for (int pos = 0; pos < bytesPerLine; ++pos) {
        if (pos > 0 && pos % 4 == 0) fputc(' ', out);
        if (pos > 0 && pos % 16 == 0) fputc(' ', out);
        if (static_cast<size_t>(pos) < count)
            fprintf(out, "%2.2X", line[pos]);
        else
            fputs("  ", out);
    }
    return count < static_cast<size_t>(bytesPerLine) ? count : static_cast<size_t>(bytesPerLine);
}

void dumpChars(FILE* out, const uint8_t* line, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        fputc(printable(line[i]) ? line[i] : '.', out);
        if ((i + 1) % 16 == 0) fputc(' ', out);
    }
}
}  // namespace

// The caller holds the trace lock. Only lengths are dumped: a stop-word scan would
// read memory of unknown extent, so a length of 0 dumps nothing. An offset at or
// past the end dumps nothing rather than reading outside the buffer.
size_t clapiTraceData(const void* data, size_t length, uint32_t stopword, int bytesPerLine, int flag) {
    (void)stopword;
    (void)flag;
    FILE* out = clapiTraceOut();
    fprintf(out, "Data truncation size=%lu, offset=%lu\n", clapiLu(clapiTrace.dataLength),
            clapiLu(clapiTrace.dataOffset));
    size_t offset = static_cast<size_t>(static_cast<unsigned int>(clapiTrace.dataOffset));
    if (!data || bytesPerLine <= 0 || length == 0 || offset >= length) {
        fflush(out);
        return 0;
    }
    const uint8_t* p = static_cast<const uint8_t*>(data) + offset;
    size_t remaining = length - offset;
    size_t limit = static_cast<size_t>(static_cast<unsigned int>(clapiTrace.dataLength));
    if (limit != 0 && limit < remaining) remaining = limit;
    size_t dumped = 0;
    while (remaining != 0) {
        size_t count = remaining < static_cast<size_t>(bytesPerLine) ? remaining : static_cast<size_t>(bytesPerLine);
        // The address column shows the low 32 bits, as a 32-bit unsigned long would.
        fprintf(out, "0x%16.16lX: ", clapiLu(reinterpret_cast<uintptr_t>(p)));
        size_t shown = dumpHex(out, p, count, bytesPerLine);
        fputs(" : ", out);
        dumpChars(out, p, shown);
        fputc('\n', out);
        p += shown;
        remaining -= shown;
        dumped += shown;
    }
    fflush(out);
    return dumped;
}
