// Socket buffer read side. A read never takes more from the socket than the current
// flow still has, so the next flow always starts at its own first byte.
#include <cstring>

#include "comms/clapi_socketbuffer.h"
#include "comms/clapi_socketbuffer_int.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

// A decoder asked for bytes the flow does not have: nothing is consumed, the buffer dies.
void flowOverrun(sockBuffer* sb, const char* function, uint64_t wanted) {
    CLAPI_TRACE(EXC, 2535, "clapi_socketbuffer.%s() Flow has %lu bytes left, %lu bytes wanted\n", function,
                clapiLu(sockBufferFlowRemaining(sb)), clapiLu(wanted));
    clapiSockBufferFail(sb, SOCKBUFFER_ERR_FLOW_OVERRUN);
}

// After the caller's "insufficient data" trace: refill, then check that n bytes are there.
bool refillFor(sockBuffer* sb, uint64_t n, const char* function) {
    fillBuffer(sb);
    if (sb->lastError != 0) return false;
    if (sb->bufferLen < n) {
        flowOverrun(sb, function, n);
        return false;
    }
    return true;
}

void take(sockBuffer* sb, uint8_t* out, uint64_t n) {
    memcpy(out, sb->bufferPos, n);
    sb->bufferPos += n;
    sb->bufferLen -= n;
}

}  // namespace

int fillBuffer(sockBuffer* sb) {
    CLAPI_TRACE(ENTRY, 2540, "clapi_socketbuffer.fillBuffer(sockBuffer=%p)\n", static_cast<void*>(sb));
    int rc = 0;
    if (sb->lastError != 0) {
        rc = sockBufferErrorRc(sb);
        CLAPI_TRACE(EXIT, 2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", rc);
        return rc;
    }
    uint64_t space = sb->bufferSize - sb->bufferLen;
    uint64_t want = space < sb->dataRemaining ? space : sb->dataRemaining;

    uint8_t* pos = sb->bufferStart;
    if (sb->bufferLen > 0) {
        CLAPI_TRACE(DEBUG, 2541, "clapi_socketbuffer.fillBuffer() %lu bytes already in buffer %p\n",
                    clapiLu(sb->bufferLen), static_cast<void*>(sb->bufferStart));
        memmove(sb->bufferStart, sb->bufferPos, sb->bufferLen);
        pos = sb->bufferStart + sb->bufferLen;
    }

    uint64_t count = 0;
    long long last = 0;
    int recvError = 0;
    bool failed = false;
    while (count < want) {
        CLAPI_TRACE(DEBUG, 2542, "clapi_socketbuffer.fillBuffer() Attempting to read %lu bytes\n",
                    clapiLu(want - count));
        last = clapiRecvSome(sb, pos + count, want - count, &recvError);
        if (last < 1) {
            failed = true;
            break;
        }
        count += static_cast<uint64_t>(last);
    }
    if (failed) {
        // A peer that closed reports no error code; the buffer dies all the same, so that
        // no later read hands out stale bytes.
        int error = recvError;
        sb->lastError = error != 0 ? error : SOCKBUFFER_ERR_PEER_CLOSED;
        CLAPI_TRACE_SOCKET_ERROR(2543, "clapi_socketbuffer.fillBuffer() recv returned an error code", error);
        rc = KVL_ERR_LOSTGWCON;
    }
    if (count > 0) {
        CLAPI_TRACE_DATA(2544, sb->bufferStart, static_cast<size_t>(count),
                         "clapi_socketbuffer.fillBuffer() data=%p len=%lu stopword=%8.8X\n",
                         static_cast<void*>(sb->bufferStart), clapiLu(count), 0u);
        sb->bufferLen += count;
        sb->dataRemaining -= count;
        CLAPI_TRACE(DEBUG, 2545, "clapi_socketbuffer.fillBuffer() Read %d bytes, %lu bytes remaining\n", (int)last,
                    clapiLu(sb->dataRemaining));
    }
    sb->bufferPos = sb->bufferStart;
    CLAPI_TRACE(EXIT, 2549, "clapi_socketbuffer.fillBuffer() rc=%d\n", rc);
    return rc;
}

uint8_t readByte(sockBuffer* sb) {
    if (sb->lastError != 0) return 0;
    if (sb->bufferLen < 1) {
        CLAPI_TRACE(DEBUG, 2580, "clapi_socketbuffer.readByte() Insufficient data in buffer %p\n",
                    static_cast<void*>(sb->bufferStart));
        if (!refillFor(sb, 1, "readByte")) return 0;
    }
    uint8_t value;
    take(sb, &value, 1);
    return value;
}

uint16_t readShort(sockBuffer* sb) {
    if (sb->lastError != 0) return 0;
    if (sb->bufferLen < 2) {
        CLAPI_TRACE(DEBUG, 2581, "clapi_socketbuffer.readShort() Insufficient data in buffer %p\n",
                    static_cast<void*>(sb->bufferStart));
        if (!refillFor(sb, 2, "readShort")) return 0;
    }
    uint8_t b[2];
    take(sb, b, sizeof b);
    return static_cast<uint16_t>((b[0] << 8) | b[1]);
}

uint32_t readInt(sockBuffer* sb) {
    if (sb->lastError != 0) return 0;
    if (sb->bufferLen < 4) {
        CLAPI_TRACE(DEBUG, 2582, "clapi_socketbuffer.readInt() Insufficient data in buffer %p\n",
                    static_cast<void*>(sb->bufferStart));
        if (!refillFor(sb, 4, "readInt")) return 0;
    }
    uint8_t b[4];
    take(sb, b, sizeof b);
    return (static_cast<uint32_t>(b[0]) << 24) | (static_cast<uint32_t>(b[1]) << 16) |
           (static_cast<uint32_t>(b[2]) << 8) | b[3];
}

void readBytes(sockBuffer* sb, void* data, uint64_t dataLen) {
    CLAPI_TRACE(ENTRY, 2530, "clapi_socketbuffer.readBytes(sockBuffer=%p, data=%p, dataLen=%lu)\n",
                static_cast<void*>(sb), data, clapiLu(dataLen));
    auto* out = static_cast<uint8_t*>(data);
    if (sb->lastError != 0 || dataLen == 0) {
        // dead, or nothing to do
    } else if (dataLen > sockBufferFlowRemaining(sb)) {
        flowOverrun(sb, "readBytes", dataLen);
    } else if (sb->bufferLen >= dataLen) {
        take(sb, out, dataLen);
    } else {
        uint64_t have = sb->bufferLen;
        if (have) take(sb, out, have);
        uint64_t need = dataLen - have;
        if (need <= sb->bufferSize) {
            CLAPI_TRACE(DEBUG, 2534, "clapi_socketbuffer.readBytes() Read %lu bytes from buffer %p, %lu more bytes needed\n",
                        clapiLu(have), static_cast<void*>(sb->bufferStart), clapiLu(need));
            if (refillFor(sb, need, "readBytes")) take(sb, out + have, need);
        } else {
            // Larger than the buffer: straight into the caller's memory.
            uint64_t got = have;
            while (got < dataLen) {
                int error = 0;
                long long r = clapiRecvSome(sb, out + got, dataLen - got, &error);
                if (r < 1) {
                    sb->lastError = error != 0 ? error : SOCKBUFFER_ERR_PEER_CLOSED;
                    CLAPI_TRACE_SOCKET_ERROR(2531, "clapi_socketbuffer.readBytes() recv returned an error code", error);
                    break;
                }
                got += static_cast<uint64_t>(r);
            }
            if (got > have) {
                uint64_t fromSocket = got - have;
                CLAPI_TRACE_DATA(2532, out + have, static_cast<size_t>(fromSocket),
                                 "clapi_socketbuffer.readBytes() data=%p len=%lu stopword=%8.8X\n",
                                 static_cast<void*>(out + have), clapiLu(fromSocket), 0u);
                sb->bufferLen = 0;
                sb->dataRemaining -= fromSocket;
                sb->bufferPos = sb->bufferStart;
                CLAPI_TRACE(DEBUG, 2533,
                            "clapi_socketbuffer.readBytes() Read %lu bytes from buffer %p, %lu bytes from socket %lu, "
                            "%lu bytes remaining\n",
                            clapiLu(have), static_cast<void*>(sb->bufferStart), clapiLu(fromSocket),
                            clapiLu(sb->socketDesc), clapiLu(sb->dataRemaining));
            }
        }
    }
    CLAPI_TRACE(EXIT, 2539, "clapi_socketbuffer.readBytes()\n");
}

void skipBytes(sockBuffer* sb, uint64_t dataLen) {
    if (sb->lastError != 0 || dataLen == 0) return;
    CLAPI_TRACE(DEBUG, 2537, "clapi_socketbuffer.skipBytes() Discarding %lu bytes\n", clapiLu(dataLen));
    if (dataLen > sockBufferFlowRemaining(sb)) {
        flowOverrun(sb, "skipBytes", dataLen);
        return;
    }
    while (dataLen > 0) {
        if (sb->bufferLen == 0 && !refillFor(sb, 1, "skipBytes")) return;
        uint64_t n = dataLen < sb->bufferLen ? dataLen : sb->bufferLen;
        sb->bufferPos += n;
        sb->bufferLen -= n;
        dataLen -= n;
    }
}

void skipFlowRemainder(sockBuffer* sb) {
    int32_t kept = sb->lastError;
    if (kept != 0 && kept != SOCKBUFFER_ERR_FLOW_OVERRUN) return;
    sb->lastError = 0;
    skipBytes(sb, sockBufferFlowRemaining(sb));
    if (sb->lastError == 0) sb->lastError = kept;
}
