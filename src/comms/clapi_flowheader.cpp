// The flow header on the wire, and the two flows without a request: handshake and close.
#include <cstring>

#include "comms/clapi_flowsend.h"
#include "comms/clapi_socketcomms.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace {

constexpr uint32_t HEADER_FIXED_LEN = 29;  // six ints, the flags byte, the body length
constexpr uint32_t HEADER_FIRST_READ = 32;  // a three-letter request type
constexpr uint32_t SHORT_REQUEST_TYPE = 3;
constexpr size_t APPLID_UTF8_AREA = 17;  // 8 characters of two bytes each, and a NUL

// Latin-1 to UTF-8 into a zeroed area; stops before a character that would not fit.
void latin1ToUtf8(const char* in, char (&out)[APPLID_UTF8_AREA]) {
    memset(out, 0, sizeof out);
    size_t o = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(in ? in : ""); *p; ++p) {
        if (*p < 0x80) {
            if (o + 1 >= sizeof out) break;
            out[o++] = static_cast<char>(*p);
        } else {
            if (o + 2 >= sizeof out) break;
            out[o++] = static_cast<char>(*p < 0xC0 ? 0xC2 : 0xC3);
            out[o++] = static_cast<char>((*p & 0x3F) + 0x80);
        }
    }
}

struct handshakeBody {
    const char* applid;  // UTF-8
    const char* qualifier;
};

void writeHandshakeBody(sockBuffer* sb, const void* body) {
    static const uint8_t fixedPart[18] = {0x00, 0x02, 'e', 'n', 0x00, 0x02, 'G', 'B', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const auto* hs = static_cast<const handshakeBody*>(body);
    auto applidLen = static_cast<uint16_t>(strlen(hs->applid));
    auto qualifierLen = static_cast<uint16_t>(strlen(hs->qualifier));
    writeBytes(sb, fixedPart, sizeof fixedPart);
    writeShort(sb, applidLen);
    writeBytes(sb, hs->applid, applidLen);
    writeShort(sb, qualifierLen);
    writeBytes(sb, hs->qualifier, qualifierLen);
}

}  // namespace

void clapiInitFlowHeader(flowHeader* header, int32_t type, int32_t messageId, const char* requestType) {
    memset(header, 0, sizeof *header);
    header->eyecatcher = FLOW_EYECATCHER;
    header->version = FLOW_VERSION;
    header->flowType = type;
    header->messageId = messageId;
    size_t n = requestType ? strnlen(requestType, sizeof header->requestType) : 0;
    if (n) memcpy(header->requestType, requestType, n);
    header->requestTypeLen = static_cast<uint32_t>(n);
}

int clapiSendFlow(platformSocket socketDesc, const flowHeader* header, clapiBodyWriter writeBody, const void* body) {
    sockBuffer sb;
    memset(&sb, 0, sizeof sb);
    int rc = initWriteBuffer(&sb, socketDesc, uint64_t{HEADER_FIXED_LEN} + header->requestTypeLen + header->bodyLen);
    if (rc != 0) {
        freeBuffer(&sb);
        return rc;
    }
    writeHeader(&sb, header);
    if (writeBody) writeBody(&sb, body);
    rc = flushBuffer(&sb);
    int freeRc = freeBuffer(&sb);
    return rc != 0 ? rc : freeRc;
}

void writeHeader(sockBuffer* sb, const flowHeader* header) {
    CLAPI_TRACE(ENTRY, 3210, "clapi_socketcomms.writeHeader(sockBuffer=%p, req=%p)\n", static_cast<void*>(sb),
                static_cast<const void*>(header));
    writeInt(sb, header->eyecatcher);
    writeInt(sb, header->version);
    writeInt(sb, static_cast<uint32_t>(header->flowType));
    writeInt(sb, static_cast<uint32_t>(header->messageId));
    writeInt(sb, static_cast<uint32_t>(header->rc));
    writeInt(sb, header->requestTypeLen);
    if (header->requestTypeLen <= sizeof header->requestType) {
        writeBytes(sb, header->requestType, header->requestTypeLen);
    } else {
        // A length beyond the field is padded with zeros rather than read past it.
        writePaddedBytes(sb, header->requestType, sizeof header->requestType, header->requestTypeLen);
    }
    writeByte(sb, header->flags);
    writeInt(sb, header->bodyLen);
    CLAPI_TRACE(EXIT, 3211, "clapi_socketcomms.writeHeader()\n");
}

int clapiReadHeader(sockBuffer* sb, flowHeader* header) {
    CLAPI_TRACE(ENTRY, 3212, "clapi_socketcomms.clapiReadHeader(sockBuffer=%p, req=%p)\n", static_cast<void*>(sb),
                static_cast<void*>(header));
    int rc = initReadBuffer(sb, sb->socketDesc, HEADER_FIRST_READ);
    if (rc == 0) rc = fillBuffer(sb);
    if (rc == 0) {
        header->eyecatcher = readInt(sb);
        if (header->eyecatcher != FLOW_EYECATCHER) {
            CLAPI_TRACE(EXC, 3213, "clapi_socketcomms.clapiReadHeader() Bad eyecatcher! Expected=0x%x, actual=0x%x\n",
                        FLOW_EYECATCHER, header->eyecatcher);
            rc = KVL_ERR_SYSTEM_ERROR;
        }
    }
    if (rc == 0) {
        header->version = readInt(sb);
        header->flowType = static_cast<int32_t>(readInt(sb));
        header->messageId = static_cast<int32_t>(readInt(sb));
        header->rc = static_cast<int32_t>(readInt(sb));
        header->requestTypeLen = readInt(sb);
        memset(header->requestType, 0, sizeof header->requestType);
        header->flags = 0;
        if (header->requestTypeLen > sizeof header->requestType) {
            CLAPI_TRACE(EXC, 3250, "clapi_socketcomms.clapiReadHeader() Request type length %lu exceeds %lu\n",
                        clapiLu(header->requestTypeLen), clapiLu(sizeof header->requestType));
            rc = KVL_ERR_SYSTEM_ERROR;
        }
    }
    if (rc == 0) {
        readBytes(sb, header->requestType, header->requestTypeLen);
        // The first read assumed three letters; a longer name still has its tail to come.
        if (header->requestTypeLen > SHORT_REQUEST_TYPE) sb->dataRemaining += header->requestTypeLen - SHORT_REQUEST_TYPE;
        header->flags = readByte(sb);
        header->bodyLen = readInt(sb);
        rc = sockBufferErrorRc(sb);
    }
    CLAPI_TRACE(EXIT, 3214, "clapi_socketcomms.clapiReadHeader() rc=%d\n", rc);
    return rc;
}

int clapiFlowHandshakeRequest(platformSocket socketDesc, const char* applid, const char* applidQualifier) {
    CLAPI_TRACE(ENTRY, 3200,
                "clapi_socketcomms.clapiFlowHandshakeRequest(socketDesc=%lu, applid=%s, applidQualifier=%s)\n",
                clapiLu(socketDesc), applid ? applid : "NULL", applidQualifier ? applidQualifier : "NULL");
    char applidUtf8[APPLID_UTF8_AREA];
    char qualifierUtf8[APPLID_UTF8_AREA];
    latin1ToUtf8(applid, applidUtf8);
    latin1ToUtf8(applidQualifier, qualifierUtf8);
    handshakeBody body{applidUtf8, qualifierUtf8};

    flowHeader header;
    clapiInitFlowHeader(&header, FLOW_HANDSHAKE, FLOW_MSGID_HANDSHAKE, "BASE");
    header.bodyLen = static_cast<uint32_t>(22 + strlen(applidUtf8) + strlen(qualifierUtf8));
    int rc = clapiSendFlow(socketDesc, &header, writeHandshakeBody, &body);
    CLAPI_TRACE(EXIT, 3201, "clapi_socketcomms.clapiFlowHandshakeRequest() rc=%d\n", rc);
    return rc;
}

int clapiFlowCloseRequest(platformSocket socketDesc) {
    CLAPI_TRACE(ENTRY, 3208, "clapi_socketcomms.clapiFlowCloseRequest(socketDesc=%lu)\n", clapiLu(socketDesc));
    flowHeader header;
    clapiInitFlowHeader(&header, FLOW_CLOSE, FLOW_MSGID_CLOSE, "BASE");
    int rc = clapiSendFlow(socketDesc, &header, nullptr, nullptr);
    CLAPI_TRACE(EXIT, 3209, "clapi_socketcomms.clapiFlowCloseRequest() rc=%d\n", rc);
    return rc;
}

uint64_t clapiFlowLength(const flowHeader* header) {
    return uint64_t{HEADER_FIXED_LEN} + header->requestTypeLen + header->bodyLen;
}
