// Buffered big-endian reads and writes on a connected socket, one flow at a time.
#pragma once

#include <cstdint>

#include "platform/platform.h"

class clapiStream;

constexpr uint64_t SOCKBUFFER_MAX_SIZE = 33000;

// lastError values that are not socket error codes (those are all positive).
constexpr int32_t SOCKBUFFER_ERR_PEER_CLOSED = -1;   // recv returned 0
constexpr int32_t SOCKBUFFER_ERR_FLOW_OVERRUN = -2;  // a read wanted more than the flow holds
constexpr int32_t SOCKBUFFER_ERR_NO_MEMORY = -3;     // a masked region could not be recorded

// One secret region of the bytes now in a write buffer (header and save area are one allocation).
struct maskedRegion {
    uint8_t* regionStart;
    uint64_t regionLen;
    uint8_t* savedBytes;
    maskedRegion* next;
};

struct sockBuffer {
    char eyecatcher[8];  // "KVLSCKBF" once initialised, zero after freeBuffer
    platformSocket socketDesc;
    int32_t lastError;  // non-zero: the buffer is dead until initialised again
    uint8_t* bufferStart;
    uint64_t bufferSize;
    uint8_t* bufferPos;
    uint64_t bufferLen;
    uint64_t dataRemaining;  // bytes of the flow not yet sent / not yet taken from the socket
    maskedRegion* maskedList;
    clapiStream* stream;  // the TLS session on socketDesc, or nullptr for plain TCP
    bool pageBacked;      // bufferStart came from platformAllocPages (read buffers)
};

// A record initialised the first time must be all zero.
int initWriteBuffer(sockBuffer* sb, platformSocket socketDesc, uint64_t dataLen);
int initReadBuffer(sockBuffer* sb, platformSocket socketDesc, uint64_t dataLen);
int freeBuffer(sockBuffer* sb);
int flushBuffer(sockBuffer* sb);
int fillBuffer(sockBuffer* sb);
// Waits until the socket has data (timeout in seconds, 0 = no limit). With no
// limit it returns at once and the next read does the waiting.
int waitForResponse(sockBuffer* sb, int timeout);
// As platformWaitReadable on the buffer's socket; with a stream over it, readable
// means that the stream has bytes (or the end) to hand out.
int sockBufferWaitReadable(sockBuffer* sb, int timeoutSeconds);

void writeByte(sockBuffer* sb, uint8_t value);
void writeShort(sockBuffer* sb, uint16_t value);
void writeInt(sockBuffer* sb, uint32_t value);
void writeBytes(sockBuffer* sb, const void* data, uint64_t dataLen);
void writeBytesMasked(sockBuffer* sb, const void* data, uint64_t dataLen);  // dataLen 0 is refused
void writePaddedBytes(sockBuffer* sb, const void* data, uint64_t dataLen, uint64_t fieldLen);
void writePaddedBytesMasked(sockBuffer* sb, const void* data, uint64_t dataLen, uint64_t fieldLen);

uint8_t readByte(sockBuffer* sb);
uint16_t readShort(sockBuffer* sb);
uint32_t readInt(sockBuffer* sb);
void readBytes(sockBuffer* sb, void* data, uint64_t dataLen);
// Consumes dataLen bytes of the current flow without storing them.
void skipBytes(sockBuffer* sb, uint64_t dataLen);
// Consumes what is left of the current flow, also after a refused read past its end,
// so that the next flow is read from its first byte. Needs dataRemaining to count
// exactly the flow's bytes still on the socket. Does nothing once the socket failed.
void skipFlowRemainder(sockBuffer* sb);

// Gives a page-backed read buffer's memory back to the OS while it holds no
// bytes: for a connection about to sit idle. The next flow is read as usual.
void sockBufferReleaseIdle(sockBuffer* sb);

// The code a dead buffer stands for: 0 healthy, -102 socket failure or peer closed,
// -9 a read past the end of the flow, -111 no memory for a masked region.
int sockBufferErrorRc(const sockBuffer* sb);

// Bytes of the current incoming flow not yet consumed (buffered plus still on the socket).
inline uint64_t sockBufferFlowRemaining(const sockBuffer* sb) { return sb->bufferLen + sb->dataRemaining; }
