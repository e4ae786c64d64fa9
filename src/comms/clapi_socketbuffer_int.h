// Helpers shared by the socket buffer's own files; not for other modules.
#pragma once

#include <cstddef>
#include <cstdint>

#include "comms/clapi_socketbuffer.h"
#include "impl/clapi_trace.h"

// Frees a masked-region list, rest of the list first, wiping each save area.
void clapiFreeMaskedList(maskedRegion* region);

// Writes the *EXC* line "<message>: <the error's text> (<error>)". Out of line,
// with the text's buffer in its own frame, so that the read and write paths'
// frames stay small: an idle receiver keeps only the stack pages it touched.
[[gnu::noinline, gnu::cold]] void clapiTraceSocketError(int id, const char* message, int error);
#define CLAPI_TRACE_SOCKET_ERROR(ID, MESSAGE, ERROR)                      \
    do {                                                                  \
        if (clapiTraceAdmits(CLAPI_LEVEL_EXC)) clapiTraceSocketError((ID), (MESSAGE), (ERROR)); \
    } while (0)

// Sends len bytes on the buffer's socket (through its stream when it has one),
// repeating after a partial send. Returns the bytes sent, or -1 with the error in
// *error when a send fails (bytes sent before the failure are lost).
long long clapiSendAll(const sockBuffer* sb, const uint8_t* data, uint64_t len, int* error);
// One receive on the buffer's socket (through its stream when it has one): >0
// bytes, 0 peer closed, <0 failure with the error in *error.
long long clapiRecvSome(const sockBuffer* sb, uint8_t* data, uint64_t len, int* error);

// Marks the buffer dead unless it already is.
inline void clapiSockBufferFail(sockBuffer* sb, int32_t error) {
    if (sb->lastError == 0) sb->lastError = error;
}

// Stores n bytes at the buffer's position, flushing whenever the buffer is full, so
// that no write can pass the buffer's end whatever its size. produce(dst, offset, len)
// supplies bytes [offset, offset + len) of the n at dst and returns false to stop
// (it has then marked the buffer dead).
template <class Produce>
void clapiStoreBytes(sockBuffer* sb, uint64_t n, Produce produce) {
    uint64_t done = 0;
    while (done < n && sb->lastError == 0) {
        uint64_t space = sb->bufferSize - sb->bufferLen;
        if (space == 0) {
            if (flushBuffer(sb) != 0) return;
            continue;
        }
        uint64_t len = n - done < space ? n - done : space;
        if (!produce(sb->bufferPos, done, len)) return;
        sb->bufferPos += len;
        sb->bufferLen += len;
        done += len;
    }
}

// For the DATA trace of a flush: put '*' over every masked region, keeping the real
// bytes in the save areas; the restore puts them back and wipes the save areas.
void clapiHideMaskedRegions(sockBuffer* sb);
void clapiRestoreMaskedRegions(sockBuffer* sb);
