// Socket buffer life cycle: initialisation, reuse, free, and the wait for data.
#include "comms/clapi_socketbuffer.h"

#include <cstdlib>
#include <cstring>

#include "comms/clapi_socketbuffer_int.h"
#include "comms/clapi_stream.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

constexpr char SOCKBUFFER_EYECATCHER[8] = {'K', 'V', 'L', 'S', 'C', 'K', 'B', 'F'};

// Called through a volatile pointer so that the wipe right before free() is kept.
void* (*const volatile wipeFunction)(void*, int, size_t) = memset;

void wipeAndFree(void* p, uint64_t len) {
    if (!p) return;
    wipeFunction(p, 0, static_cast<size_t>(len));
    free(p);
}

void wipeAndFreeBuffer(sockBuffer* sb) {
    if (!sb->bufferStart) return;
    wipeFunction(sb->bufferStart, 0, static_cast<size_t>(sb->bufferSize));
    if (sb->pageBacked) {
        platformFreePages(sb->bufferStart, static_cast<size_t>(sb->bufferSize));
    } else {
        free(sb->bufferStart);
    }
}

// Steps shared by both directions: reuse or allocate, then reset the record.
// A buffer may hold secrets of the previous flow, so it is wiped before it goes.
int initBuffer(sockBuffer* sb, platformSocket socketDesc, uint64_t dataLen, bool forWrite) {
    uint64_t size = dataLen < SOCKBUFFER_MAX_SIZE ? dataLen : SOCKBUFFER_MAX_SIZE;
    if (size == 0) size = 1;  // a zero-byte buffer could never make progress

    if (sb->bufferStart && size <= sb->bufferSize) {
        if (forWrite)
            CLAPI_TRACE(DEBUG, 2503, "clapi_socketbuffer.initWriteBuffer() Reusing existing buffer of %lu bytes\n",
                        clapiLu(sb->bufferSize));
        else
            CLAPI_TRACE(DEBUG, 2513, "clapi_socketbuffer.initReadBuffer() Reusing existing buffer of %lu bytes\n",
                        clapiLu(sb->bufferSize));
        clapiFreeMaskedList(sb->maskedList);
    } else {
        if (sb->bufferStart) {
            clapiFreeMaskedList(sb->maskedList);
            wipeAndFreeBuffer(sb);
            sb->bufferStart = nullptr;
            sb->bufferSize = 0;
            sb->bufferPos = nullptr;
            sb->bufferLen = 0;
        }
        sb->maskedList = nullptr;
        // A read buffer is not zeroed (only bytes received are ever handed out)
        // and has pages of its own: an idle connection's stays out of resident
        // memory but for the page its last flow was read into.
        auto* buffer = static_cast<uint8_t*>(forWrite ? calloc(1, size) : platformAllocPages(size));
        if (!buffer) {
            if (forWrite)
                CLAPI_TRACE(EXC, 2501, "clapi_socketbuffer.initWriteBuffer() Failed to allocate %lu bytes for buffer\n",
                            clapiLu(size));
            else
                CLAPI_TRACE(EXC, 2511, "clapi_socketbuffer.initReadBuffer() Failed to allocate %lu bytes for buffer\n",
                            clapiLu(size));
            return KVL_ERR_MALLOCFAIL;
        }
        if (forWrite)
            CLAPI_TRACE(DEBUG, 2502, "clapi_socketbuffer.initWriteBuffer() Allocated new buffer of %lu bytes\n",
                        clapiLu(size));
        else
            CLAPI_TRACE(DEBUG, 2512, "clapi_socketbuffer.initReadBuffer() Allocated new buffer of %lu bytes\n",
                        clapiLu(size));
        sb->bufferStart = buffer;
        sb->bufferSize = size;
        sb->pageBacked = !forWrite;
    }

    sb->lastError = 0;
    sb->bufferLen = 0;
    sb->maskedList = nullptr;
    sb->socketDesc = socketDesc;
    sb->stream = clapiStreamFor(socketDesc);
    sb->dataRemaining = dataLen;
    memcpy(sb->eyecatcher, SOCKBUFFER_EYECATCHER, sizeof sb->eyecatcher);
    sb->bufferPos = forWrite ? sb->bufferStart : nullptr;
    return 0;
}

}  // namespace

void clapiFreeMaskedList(maskedRegion* region) {
    if (!region) return;
    clapiFreeMaskedList(region->next);
    wipeAndFree(region, sizeof(maskedRegion) + region->regionLen);
}

void clapiTraceSocketError(int id, const char* message, int error) {
    char text[1024];
    platformSocketErrorText(error, text, sizeof text);
    clapiTraceWrite(CLAPI_TYPE_EXC, id, "%s: %s (%d)\n", message, text, error);
}

long long clapiSendAll(const sockBuffer* sb, const uint8_t* data, uint64_t len, int* error) {
    if (sb->stream != nullptr) return sb->stream->sendAll(data, static_cast<size_t>(len), error);
    platformSocket s = sb->socketDesc;
    uint64_t sent = 0;
    while (sent < len) {
        long long rc = platformSend(s, data + sent, static_cast<size_t>(len - sent));
        if (rc < 1) {
            *error = platformSocketError();
            return -1;
        }
        sent += static_cast<uint64_t>(rc);
    }
    return static_cast<long long>(sent);
}

long long clapiRecvSome(const sockBuffer* sb, uint8_t* data, uint64_t len, int* error) {
    if (sb->stream != nullptr) return sb->stream->recv(data, static_cast<size_t>(len), error);
    long long rc = platformRecv(sb->socketDesc, data, static_cast<size_t>(len));
    *error = rc < 0 ? platformSocketError() : 0;
    return rc;
}

int sockBufferWaitReadable(sockBuffer* sb, int timeoutSeconds) {
    if (sb->stream != nullptr) return sb->stream->waitReadable(timeoutSeconds);
    return platformWaitReadable(sb->socketDesc, timeoutSeconds);
}

int initWriteBuffer(sockBuffer* sb, platformSocket socketDesc, uint64_t dataLen) {
    CLAPI_TRACE(ENTRY, 2500, "clapi_socketbuffer.initWriteBuffer(sockBuffer=%p, socketDesc=%lu, dataLen=%lu)\n",
                static_cast<void*>(sb), clapiLu(socketDesc), clapiLu(dataLen));
    int rc = initBuffer(sb, socketDesc, dataLen, true);
    CLAPI_TRACE(EXIT, 2509, "clapi_socketbuffer.initWriteBuffer() rc=%d\n", rc);
    return rc;
}

int initReadBuffer(sockBuffer* sb, platformSocket socketDesc, uint64_t dataLen) {
    CLAPI_TRACE(ENTRY, 2510, "clapi_socketbuffer.initReadBuffer(sockBuffer=%p, socketDesc=%lu, dataLen=%lu)\n",
                static_cast<void*>(sb), clapiLu(socketDesc), clapiLu(dataLen));
    int rc = initBuffer(sb, socketDesc, dataLen, false);
    CLAPI_TRACE(EXIT, 2515, "clapi_socketbuffer.initReadBuffer() rc=%d\n", rc);
    return rc;
}

int freeBuffer(sockBuffer* sb) {
    CLAPI_TRACE(ENTRY, 2516, "clapi_socketbuffer.freeBuffer(sockBuffer=%p)\n", static_cast<void*>(sb));
    int rc = 0;
    if (sb->bufferStart) {
        clapiFreeMaskedList(sb->maskedList);
        wipeAndFreeBuffer(sb);
    } else {
        CLAPI_TRACE(EXC, 2517, "clapi_socketbuffer.freeBuffer() Buffer not initialized: %p\n", static_cast<void*>(sb));
        rc = KVL_ERR_SYSTEM_ERROR;
    }
    memset(sb, 0, sizeof *sb);
    CLAPI_TRACE(EXIT, 2518, "clapi_socketbuffer.freeBuffer() rc=%d\n", rc);
    return rc;
}

int waitForResponse(sockBuffer* sb, int timeout) {
    CLAPI_TRACE(ENTRY, 2522, "clapi_socketbuffer.waitForResponse(sockBuffer=%p)\n", static_cast<void*>(sb));
    int rc = 0;
    // Without a limit the read that follows does the waiting (a TLS stream's
    // read blocks as a socket's does): a poll first would only add a system call
    // to every flow, and a read is what a stop's shutdown is sure to end.
    int ready = timeout == 0 ? 1 : sockBufferWaitReadable(sb, timeout);
    if (ready < 0) {
        sb->lastError = platformSocketError();
        if (sb->lastError == 0) sb->lastError = SOCKBUFFER_ERR_PEER_CLOSED;
        CLAPI_TRACE_SOCKET_ERROR(2523, "clapi_socketbuffer.waitForResponse() select failed", sb->lastError);
        rc = KVL_ERR_LOSTGWCON;
    } else if (ready == 0) {
        CLAPI_TRACE(EXC, 2504, "clapi_socketbuffer.waitForResponse() Timed out waiting for handshake response\n");
        rc = KVL_ERR_CONNECTTIMEOUT;
    }
    CLAPI_TRACE(EXIT, 2524, "clapi_socketbuffer.waitForResponse() rc=%d\n", rc);
    return rc;
}

void sockBufferReleaseIdle(sockBuffer* sb) {
    if (sb->pageBacked && sb->bufferStart && sb->bufferLen == 0)
        platformReleasePages(sb->bufferStart, static_cast<size_t>(sb->bufferSize));
}

int sockBufferErrorRc(const sockBuffer* sb) {
    switch (sb->lastError) {
        case 0:
            return 0;
        case SOCKBUFFER_ERR_FLOW_OVERRUN:
            return KVL_ERR_SYSTEM_ERROR;
        case SOCKBUFFER_ERR_NO_MEMORY:
            return KVL_ERR_MALLOCFAIL;
        default:
            return KVL_ERR_LOSTGWCON;
    }
}
