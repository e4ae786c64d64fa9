// Socket buffer write side: the plain write primitives and the flush.
#include <cstring>

#include "comms/clapi_socketbuffer.h"
#include "comms/clapi_socketbuffer_int.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

void storeCopy(sockBuffer* sb, const uint8_t* src, uint64_t n) {
    clapiStoreBytes(sb, n, [src](uint8_t* dst, uint64_t offset, uint64_t len) {
        memcpy(dst, src + offset, len);
        return true;
    });
}

}  // namespace

int flushBuffer(sockBuffer* sb) {
    CLAPI_TRACE(ENTRY, 2525, "clapi_socketbuffer.flushBuffer(sockBuffer=%p)\n", static_cast<void*>(sb));
    int rc = 0;
    if (sb->lastError != 0) {
        rc = sockBufferErrorRc(sb);
    } else if (sb->bufferLen != 0) {
        // The level is tested once here, not again by a macro, so the dump can never
        // happen without the secrets being hidden first.
        if (clapiTraceAdmits(CLAPI_LEVEL_DATA)) {
            clapiHideMaskedRegions(sb);
            clapiTraceWriteData(2526, sb->bufferStart, static_cast<size_t>(sb->bufferLen),
                                "clapi_socketbuffer.flushBuffer() data=%p len=%lu stopword=%8.8X\n",
                                static_cast<void*>(sb->bufferStart), clapiLu(sb->bufferLen), 0u);
            clapiRestoreMaskedRegions(sb);
        }
        int error = 0;
        long long sent = clapiSendAll(sb, sb->bufferStart, sb->bufferLen, &error);
        if (sent < 0) {
            clapiSockBufferFail(sb, error != 0 ? error : SOCKBUFFER_ERR_PEER_CLOSED);
            CLAPI_TRACE_SOCKET_ERROR(2528, "clapi_socketbuffer.flushBuffer() Unable to send data to Gateway", error);
            rc = KVL_ERR_LOSTGWCON;
        } else {
            sb->dataRemaining = sb->dataRemaining > sb->bufferLen ? sb->dataRemaining - sb->bufferLen : 0;
            sb->bufferLen = 0;
            sb->bufferPos = sb->bufferStart;
            clapiFreeMaskedList(sb->maskedList);
            sb->maskedList = nullptr;
            CLAPI_TRACE(DEBUG, 2527, "clapi_socketbuffer.flushBuffer() Sent %d bytes, %lu bytes remaining\n", (int)sent,
                        clapiLu(sb->dataRemaining));
        }
    }
    CLAPI_TRACE(EXIT, 2529, "clapi_socketbuffer.flushBuffer() rc=%d\n", rc);
    return rc;
}

void writeByte(sockBuffer* sb, uint8_t value) {
    if (sb->bufferLen + 1 > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2550, "clapi_socketbuffer.writeByte() Insufficient space in buffer %p to write %d\n",
                    static_cast<void*>(sb->bufferStart), (int)value);
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    storeCopy(sb, &value, 1);
}

void writeShort(sockBuffer* sb, uint16_t value) {
    if (sb->bufferLen + 2 > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2551, "clapi_socketbuffer.writeShort() Insufficient space in buffer %p to write %d\n",
                    static_cast<void*>(sb->bufferStart), (int)value);
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    const uint8_t bytes[2] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    storeCopy(sb, bytes, sizeof bytes);
}

void writeInt(sockBuffer* sb, uint32_t value) {
    if (sb->bufferLen + 4 > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2552, "clapi_socketbuffer.writeInt() Insufficient space in buffer %p to write %d\n",
                    static_cast<void*>(sb->bufferStart), (int)value);
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    const uint8_t bytes[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                              static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    storeCopy(sb, bytes, sizeof bytes);
}

void writeBytes(sockBuffer* sb, const void* data, uint64_t dataLen) {
    CLAPI_TRACE(ENTRY, 2560, "clapi_socketbuffer.writeBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n",
                static_cast<void*>(sb), data, clapiLu(dataLen));
    const auto* bytes = static_cast<const uint8_t*>(data);
    bool flushed = true;
    if (sb->bufferLen + dataLen > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2561, "clapi_socketbuffer.writeBytes() Insufficient space in buffer %p to write %lu bytes\n",
                    static_cast<void*>(sb->bufferStart), clapiLu(dataLen));
        flushed = flushBuffer(sb) == 0;
    }
    if (flushed && sb->lastError == 0 && dataLen != 0) {
        if (dataLen > sb->bufferSize) {
            // Never fits: send it from the caller's memory, after the flushed bytes before it.
            CLAPI_TRACE(DEBUG, 2562, "clapi_socketbuffer.writeBytes() Data too large for buffer %p, writing to socket %d\n",
                        static_cast<void*>(sb->bufferStart), (int)sb->socketDesc);
            CLAPI_TRACE_DATA(2563, bytes, static_cast<size_t>(dataLen),
                             "clapi_socketbuffer.writeBytes() data=%p len=%lu stopword=%8.8X\n", data,
                             clapiLu(dataLen), 0u);
            int error = 0;
            long long sent = clapiSendAll(sb, bytes, dataLen, &error);
            if (sent < 0) {
                clapiSockBufferFail(sb, error != 0 ? error : SOCKBUFFER_ERR_PEER_CLOSED);
                CLAPI_TRACE_SOCKET_ERROR(2565, "clapi_socketbuffer.writeBytes() Unable to send data to Gateway", error);
            } else {
                sb->dataRemaining = sb->dataRemaining > dataLen ? sb->dataRemaining - dataLen : 0;
                CLAPI_TRACE(DEBUG, 2564, "clapi_socketbuffer.writeBytes() Sent %u bytes, %lu bytes remaining\n",
                            (unsigned)sent, clapiLu(sb->dataRemaining));
            }
        } else {
            storeCopy(sb, bytes, dataLen);
        }
    }
    CLAPI_TRACE(EXIT, 2569, "clapi_socketbuffer.writeBytes()\n");
}

void writePaddedBytes(sockBuffer* sb, const void* data, uint64_t dataLen, uint64_t fieldLen) {
    if (sb->bufferLen + fieldLen > sb->bufferSize) {
        CLAPI_TRACE(DEBUG, 2572,
                    "clapi_socketbuffer.writePaddedBytes() Insufficient space in buffer %p to write %lu bytes\n",
                    static_cast<void*>(sb->bufferStart), clapiLu(fieldLen));
        flushBuffer(sb);
    }
    if (sb->lastError != 0) return;
    const auto* src = static_cast<const uint8_t*>(data);
    uint64_t n = src ? (dataLen < fieldLen ? dataLen : fieldLen) : 0;
    clapiStoreBytes(sb, fieldLen, [src, n](uint8_t* dst, uint64_t offset, uint64_t len) {
        uint64_t copy = offset < n ? (n - offset < len ? n - offset : len) : 0;
        if (copy) memcpy(dst, src + offset, copy);
        memset(dst + copy, 0, len - copy);
        return true;
    });
}
