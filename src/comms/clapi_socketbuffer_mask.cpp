// Masked writes: secrets go on the wire transformed and show as '*' in the trace.
#include <cstdlib>
#include <cstring>

#include "comms/clapi_socketbuffer.h"
#include "comms/clapi_socketbuffer_int.h"
#include "impl/clapi_trace.h"

namespace {

constexpr uint8_t MASK_FILL = '*';
constexpr uint64_t SAVE_AREA_STAMP = 8;

// Records [dst, dst + len) as secret. The region header and its save area are one block.
bool pushRegion(sockBuffer* sb, uint8_t* dst, uint64_t len, const char* function) {
    auto* region = static_cast<maskedRegion*>(calloc(1, sizeof(maskedRegion) + len));
    if (!region) {
        CLAPI_TRACE(EXC, 2574, "clapi_socketbuffer.%s() Failed to allocate %lu bytes for masked region\n", function,
                    clapiLu(sizeof(maskedRegion) + len));
        // Without its region the secret would reach the trace, so the flow is not sent.
        clapiSockBufferFail(sb, SOCKBUFFER_ERR_NO_MEMORY);
        return false;
    }
    region->regionStart = dst;
    region->regionLen = len;
    region->savedBytes = reinterpret_cast<uint8_t*>(region + 1);
    region->next = sb->maskedList;
    sb->maskedList = region;
    return true;
}

// out[0] = ~in[0], out[i] = in[i-1] ^ in[i]: every output byte from the input alone.
// Positions from n on are left as the buffer holds them.
void storeMasked(sockBuffer* sb, const uint8_t* in, uint64_t n, uint64_t fieldLen, const char* function) {
    clapiStoreBytes(sb, fieldLen, [sb, in, n, function](uint8_t* dst, uint64_t offset, uint64_t len) {
        if (!pushRegion(sb, dst, len, function)) return false;
        for (uint64_t k = 0; k < len && offset + k < n; ++k) {
            uint64_t i = offset + k;
            dst[k] = i == 0 ? static_cast<uint8_t>(~in[0]) : static_cast<uint8_t>(in[i - 1] ^ in[i]);
        }
        return true;
    });
}

}  // namespace

void writeBytesMasked(sockBuffer* sb, const void* data, uint64_t dataLen) {
    if (dataLen == 0 || !data) {
        CLAPI_TRACE(EXC, 2573, "clapi_socketbuffer.writeBytesMasked() Refusing to mask %lu bytes at %p\n",
                    clapiLu(dataLen), data);
        return;
    }
    if (sb->bufferLen + dataLen > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2570,
                    "clapi_socketbuffer.writeBytesMasked() Insufficient space in buffer %p to write %lu bytes\n",
                    static_cast<void*>(sb->bufferStart), clapiLu(dataLen));
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    storeMasked(sb, static_cast<const uint8_t*>(data), dataLen, dataLen, "writeBytesMasked");
}

void writePaddedBytesMasked(sockBuffer* sb, const void* data, uint64_t dataLen, uint64_t fieldLen) {
    if (sb->bufferLen + fieldLen > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2571,
                    "clapi_socketbuffer.writePaddedBytesMasked() Insufficient space in buffer %p to write %lu bytes\n",
                    static_cast<void*>(sb->bufferStart), clapiLu(fieldLen));
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    uint64_t n = data ? (dataLen < fieldLen ? dataLen : fieldLen) : 0;
    storeMasked(sb, static_cast<const uint8_t*>(data), n, fieldLen, "writePaddedBytesMasked");
}

void clapiHideMaskedRegions(sockBuffer* sb) {
    for (maskedRegion* r = sb->maskedList; r; r = r->next) {
        memcpy(r->savedBytes, r->regionStart, r->regionLen);
        memset(r->regionStart, MASK_FILL, r->regionLen);
    }
}

void clapiRestoreMaskedRegions(sockBuffer* sb) {
    for (maskedRegion* r = sb->maskedList; r; r = r->next) {
        memcpy(r->regionStart, r->savedBytes, r->regionLen);
        // The stamp never passes the end of a short save area.
        memset(r->savedBytes, MASK_FILL, r->regionLen < SAVE_AREA_STAMP ? r->regionLen : SAVE_AREA_STAMP);
    }
}
