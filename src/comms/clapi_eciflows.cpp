// ECI and list-systems request bodies, and the decoding of their replies.
#include <cstring>

#include "comms/clapi_flowsend.h"
#include "comms/clapi_socketcomms.h"
#include "eci/clapi_channel.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

constexpr uint8_t FLAG_ABSENT = 0x00;
constexpr uint8_t FLAG_PRESENT = 0xFF;
constexpr uint32_t NO_OPTIONAL_BLOCKS = 0xFFFFFFFFu;
constexpr uint64_t USERID_FIELD = 16;
constexpr int64_t ECI_FIXED_PART = 68;
constexpr int64_t CHANNEL_FIXED_PART = 24;
constexpr int64_t CONTAINER_COUNTED = 32;  // four more than an entry's header; declared so

bool isCallType(int32_t type) { return type == ECI_REQUEST_CALL || type == ECI_REQUEST_CALL_ALT_TRANID; }
// Extend modes 2 and 4 carry no COMMAREA bytes either way.
bool carriesCommarea(int32_t extendMode) { return extendMode != 2 && extendMode != 4; }
bool hasOptionalBlocks(const EciRequest* r) { return static_cast<uint32_t>(r->optionalBlocks) != NO_OPTIONAL_BLOCKS; }
uint64_t nonNegative(int32_t v) { return v > 0 ? static_cast<uint64_t>(v) : 0; }
uint64_t textLen(const char* s) { return s ? strlen(s) : 0; }

// The COMMAREA bytes a request sends: the outbound length when given, else all of it.
int32_t commareaBytesSent(const EciRequest* r) {
    return r->outboundLength >= 1 ? r->outboundLength : r->commareaLength;
}

void writeCallBody(sockBuffer* sb, const EciRequest* r) {
    writeInt(sb, static_cast<uint32_t>(r->extendMode));
    writeInt(sb, static_cast<uint32_t>(r->luwToken));
    writeInt(sb, static_cast<uint32_t>(r->reserved1));
    writeByte(sb, r->reserved2);
    writeInt(sb, sizeof r->serverName);
    writeBytes(sb, r->serverName, sizeof r->serverName);
    writePaddedBytes(sb, r->userid, textLen(r->userid), USERID_FIELD);
    uint64_t passwordLen = textLen(r->password);
    writeInt(sb, static_cast<uint32_t>(passwordLen));
    if (passwordLen > 0) writeBytesMasked(sb, r->password, passwordLen);
    writeBytes(sb, r->program, sizeof r->program);
    writeBytes(sb, r->tranId, sizeof r->tranId);
    writeInt(sb, static_cast<uint32_t>(nonNegative(r->extraLength)));
    writePaddedBytes(sb, r->extraData, nonNegative(r->extraLength), nonNegative(r->extraLength));
    writeInt(sb, static_cast<uint32_t>(r->commareaLength));
    for (int32_t length : {r->outboundLength, r->inboundLength}) {
        if (length >= 1) {
            writeByte(sb, FLAG_PRESENT);
            writeInt(sb, static_cast<uint32_t>(length));
        } else {
            writeByte(sb, FLAG_ABSENT);
        }
    }
    if (carriesCommarea(r->extendMode)) {
        int32_t sent = commareaBytesSent(r);
        if (r->outboundLength >= 1)
            CLAPI_TRACE_DATA(3243, r->commarea, static_cast<size_t>(nonNegative(sent)),
                             "clapi_socketcomms.clapiFlowECIRequest() Commarea=%p len=%d stopword=%8.8X\n",
                             static_cast<void*>(r->commarea), (int)sent, 0u);
        else
            CLAPI_TRACE_DATA(3244, r->commarea, static_cast<size_t>(nonNegative(sent)),
                             "clapi_socketcomms.clapiFlowECIRequest() Commarea=%p len=%d stopword=%8.8X\n",
                             static_cast<void*>(r->commarea), (int)sent, 0u);
        // A missing COMMAREA goes as zeros, so the body keeps the length the header declared.
        if (r->commarea)
            writeBytes(sb, r->commarea, nonNegative(sent));
        else
            writePaddedBytes(sb, nullptr, 0, nonNegative(sent));
    }
    if (r->channel) {
        writeByte(sb, FLAG_PRESENT);
        writeChannel(sb, r->channel);
    } else {
        writeByte(sb, FLAG_ABSENT);
    }
}

void writeEciBody(sockBuffer* sb, const void* body) {
    const auto* r = static_cast<const EciRequest*>(body);
    writeInt(sb, static_cast<uint32_t>(r->requestType));
    if (isCallType(r->requestType))
        writeCallBody(sb, r);
    else if (r->requestType == ECI_REQUEST_LIST_SYSTEMS)
        writeInt(sb, static_cast<uint32_t>(r->listParm));
    writeShort(sb, r->timeout);
    writeByte(sb, r->reserved3);
    writeInt(sb, static_cast<uint32_t>(r->optionalBlocks));
    if (hasOptionalBlocks(r)) {
        writeInt(sb, static_cast<uint32_t>(nonNegative(r->blockALength)));
        writePaddedBytes(sb, r->blockAData, nonNegative(r->blockALength), nonNegative(r->blockALength));
        writeInt(sb, static_cast<uint32_t>(nonNegative(r->blockBLength)));
        writePaddedBytes(sb, r->blockBData, nonNegative(r->blockBLength), nonNegative(r->blockBLength));
    }
    writeInt(sb, static_cast<uint32_t>(r->correlator));
}

// Stores up to `capacity` of the next `count` bytes at `dest` and drops the rest from
// the stream. Returns the bytes stored.
uint64_t readIntoCapacity(sockBuffer* sb, uint8_t* dest, uint64_t capacity, uint64_t count) {
    uint64_t stored = dest ? (count < capacity ? count : capacity) : 0;
    if (stored < count)
        CLAPI_TRACE(EXC, 3252,
                    "clapi_socketcomms.clapiReadECIResponse() Reply carries %lu bytes, buffer holds %lu; "
                    "discarding %lu\n",
                    clapiLu(count), clapiLu(stored), clapiLu(count - stored));
    readBytes(sb, dest, stored);
    skipBytes(sb, count - stored);
    return stored;
}

// A length from the wire that is negative or beyond the rest of the flow cannot be honoured.
bool lengthFits(sockBuffer* sb, int32_t length, const char* what) {
    if (length >= 0 && static_cast<uint64_t>(length) <= sockBufferFlowRemaining(sb)) return true;
    CLAPI_TRACE(EXC, 3251, "clapi_socketcomms.clapiReadECIResponse() Invalid %s length %d, %lu bytes left in flow\n",
                what, (int)length, clapiLu(sockBufferFlowRemaining(sb)));
    return false;
}

int readCallReply(sockBuffer* sb, EciRequest* r) {
    r->luwToken = static_cast<int32_t>(readInt(sb));
    r->reserved1 = static_cast<int32_t>(readInt(sb));
    r->rc = static_cast<int32_t>(readInt(sb));
    readBytes(sb, r->abend, sizeof r->abend);
    r->commareaLength = static_cast<int32_t>(readInt(sb));
    int32_t inbound = r->commareaLength;
    if (readByte(sb) != 0) {
        readByte(sb);  // meaning unknown; read and dropped
        inbound = static_cast<int32_t>(readInt(sb));
    }
    if (sb->lastError != 0) return sockBufferErrorRc(sb);

    r->inboundLength = 0;
    if (carriesCommarea(r->extendMode)) {
        if (!lengthFits(sb, inbound, "COMMAREA")) return KVL_ERR_SYSTEM_ERROR;
        uint64_t stored = readIntoCapacity(sb, r->commarea, r->commareaCapacity, static_cast<uint64_t>(inbound));
        // What the caller's memory now holds; never more than it can take.
        r->inboundLength = static_cast<int32_t>(stored);
        if (r->commarea && r->commareaLength > inbound) {
            uint64_t end = static_cast<uint64_t>(r->commareaLength);
            if (end > r->commareaCapacity) end = r->commareaCapacity;
            if (end > stored) memset(r->commarea + stored, 0, end - stored);
        }
    } else {
        r->inboundLength = inbound;
    }

    if (readByte(sb) != 0) {
        if (!r->channel) {
            CLAPI_TRACE(EXC, 3253, "clapi_socketcomms.clapiReadECIResponse() Reply carries a channel, request had none\n");
            return KVL_ERR_SYSTEM_ERROR;
        }
        return readChannel(sb, r->channel);
    }
    return 0;
}

int readListReply(sockBuffer* sb, EciRequest* r) {
    r->listParm = static_cast<int32_t>(readInt(sb));
    r->rc = static_cast<int32_t>(readInt(sb));
    r->commareaLength = static_cast<int32_t>(readInt(sb));
    if (sb->lastError != 0) return sockBufferErrorRc(sb);
    if (!lengthFits(sb, r->commareaLength, "system list")) return KVL_ERR_SYSTEM_ERROR;
    readIntoCapacity(sb, r->commarea, r->commareaCapacity, static_cast<uint64_t>(r->commareaLength));
    return 0;
}

}  // namespace

int32_t calculateECIRequestSize(EciRequest* request) {
    CLAPI_TRACE(ENTRY, 3202, "clapi_socketcomms.calculateECIRequestSize(request=%p)\n", static_cast<void*>(request));
    const EciRequest* r = request;
    int64_t size = hasOptionalBlocks(r) ? 23 + static_cast<int64_t>(nonNegative(r->blockALength)) +
                                              static_cast<int64_t>(nonNegative(r->blockBLength))
                                        : 15;
    if (r->requestType == ECI_REQUEST_LIST_SYSTEMS) size += 4;
    if (isCallType(r->requestType)) {
        size += ECI_FIXED_PART + static_cast<int64_t>(nonNegative(r->extraLength)) +
                static_cast<int64_t>(textLen(r->password));
        if (r->inboundLength > 0) size += 4;
        if (r->outboundLength > 0) size += 4;
        if (carriesCommarea(r->extendMode)) size += static_cast<int64_t>(nonNegative(commareaBytesSent(r)));
        if (r->channel) {
            size += CHANNEL_FIXED_PART;
            for (const kvlContainer* c = r->channel->firstCont; c; c = c->nextCont)
                size += CONTAINER_COUNTED + static_cast<int64_t>(c->dataLength);
        }
    }
    auto result = static_cast<int32_t>(size);
    CLAPI_TRACE(EXIT, 3203, "clapi_socketcomms.calculateECIRequestSize() requestSize=%d\n", (int)result);
    return result;
}

int clapiFlowECIRequest(platformSocket socketDesc, flowHeader* header, EciRequest* request) {
    CLAPI_TRACE(ENTRY, 3204, "clapi_socketcomms.clapiFlowECIRequest(socketDesc=%lu, header=%p, request=%p)\n",
                clapiLu(socketDesc), static_cast<void*>(header), static_cast<void*>(request));
    header->bodyLen = static_cast<uint32_t>(calculateECIRequestSize(request));
    int rc = clapiSendFlow(socketDesc, header, writeEciBody, request);
    CLAPI_TRACE(EXIT, 3205, "clapi_socketcomms.clapiFlowECIRequest() rc=%d\n", rc);
    return rc;
}

int clapiReadECIResponse(sockBuffer* sb, EciRequest* request) {
    CLAPI_TRACE(ENTRY, 3206, "clapi_socketcomms.clapiReadECIResponse(sockBuffer=%p, request=%p)\n",
                static_cast<void*>(sb), static_cast<void*>(request));
    request->requestType = static_cast<int32_t>(readInt(sb));
    int rc = sockBufferErrorRc(sb);
    if (rc == 0) {
        if (isCallType(request->requestType))
            rc = readCallReply(sb, request);
        else if (request->requestType == ECI_REQUEST_LIST_SYSTEMS)
            rc = readListReply(sb, request);
    }
    // Whatever the body held beyond what was decoded is dropped, so the next flow is read
    // from its first byte.
    skipFlowRemainder(sb);
    if (rc == 0) rc = sockBufferErrorRc(sb);
    CLAPI_TRACE(EXIT, 3207, "clapi_socketcomms.clapiReadECIResponse() rc=%d\n", rc);
    return rc;
}
