// ESI request body (verify or change a password) and the decoding of its reply.
#include <cstring>

#include "comms/clapi_flowsend.h"
#include "comms/clapi_socketcomms.h"
#include "impl/clapi_trace.h"
#include "kvl_esi.h"

namespace {

constexpr uint64_t USERID_FIELD = 10;
constexpr int32_t ESI_FIXED_PART = 26;  // type, user-id field, password length, server
constexpr uint64_t DETAIL_VALUES = 22;

uint64_t textLen(const char* s) { return s ? strlen(s) : 0; }

void writeSecret(sockBuffer* sb, const char* secret) {
    uint64_t len = textLen(secret);
    writeInt(sb, static_cast<uint32_t>(len));
    if (len > 0) writeBytesMasked(sb, secret, len);
}

void writeEsiBody(sockBuffer* sb, const void* body) {
    const auto* r = static_cast<const EsiRequest*>(body);
    writeInt(sb, static_cast<uint32_t>(r->esiRequestType));
    writePaddedBytes(sb, r->userid, textLen(r->userid), USERID_FIELD);
    writeSecret(sb, r->password);
    writeBytes(sb, r->server, sizeof r->server);
    if (r->esiRequestType == ESI_REQUEST_CHANGE) writeSecret(sb, r->newPassword);
}

void readTime(sockBuffer* sb, EsiTime* t) {
    for (int* field : {&t->year, &t->month, &t->day, &t->hour, &t->minute, &t->second, &t->reserved})
        *field = static_cast<int>(readInt(sb));
}

}  // namespace

int32_t calculateESIRequestSize(EsiRequest* request) {
    CLAPI_TRACE(ENTRY, 3237, "clapi_socketcomms.calculateESIRequestSize(request=%p)\n", static_cast<void*>(request));
    auto size = static_cast<int32_t>(ESI_FIXED_PART + textLen(request->password));
    if (request->esiRequestType == ESI_REQUEST_CHANGE) size += static_cast<int32_t>(4 + textLen(request->newPassword));
    CLAPI_TRACE(EXIT, 3238, "clapi_socketcomms.calculateESIRequestSize() size=%d\n", (int)size);
    return size;
}

// The write buffer is freed once the flow is sent, like every other flow's.
int clapiFlowESIRequest(platformSocket socketDesc, flowHeader* header, EsiRequest* request) {
    CLAPI_TRACE(ENTRY, 3239, "clapi_socketcomms.clapiFlowESIRequest(socketDesc=%lu, header=%p, request=%p)\n",
                clapiLu(socketDesc), static_cast<void*>(header), static_cast<void*>(request));
    header->bodyLen = static_cast<uint32_t>(calculateESIRequestSize(request));
    int rc = clapiSendFlow(socketDesc, header, writeEsiBody, request);
    CLAPI_TRACE(EXIT, 3240, "clapi_socketcomms.clapiFlowESIRequest() rc=%d\n", rc);
    return rc;
}

void clapiReadESIResponse(sockBuffer* sb, EsiResponse* response) {
    CLAPI_TRACE(ENTRY, 3241, "clapi_socketcomms.clapiReadESIResponse(sockBuffer=%p, request=%p)\n",
                static_cast<void*>(sb), static_cast<void*>(response));
    if (sockBufferFlowRemaining(sb) < 4) {
        CLAPI_TRACE(EXC, 3257, "clapi_socketcomms.clapiReadESIResponse() Reply holds %lu bytes, %lu needed\n",
                    clapiLu(sockBufferFlowRemaining(sb)), 4ul);
        response->rc = ESI_ERR_SYSTEM_ERROR;
    } else {
        response->rc = static_cast<int32_t>(readInt(sb));
        if (sb->lastError != 0) {
            response->rc = ESI_ERR_SYSTEM_ERROR;
        } else if (response->rc == 0) {
            if (sockBufferFlowRemaining(sb) < DETAIL_VALUES * 4) {
                // A short reply leaves the details untouched rather than half filled.
                CLAPI_TRACE(EXC, 3257, "clapi_socketcomms.clapiReadESIResponse() Reply holds %lu bytes, %lu needed\n",
                            clapiLu(sockBufferFlowRemaining(sb)), clapiLu(DETAIL_VALUES * 4));
                response->rc = ESI_ERR_SYSTEM_ERROR;
            } else {
                // The wire carries the times as first, third, second.
                readTime(sb, &response->details.lastVerifiedTime);
                readTime(sb, &response->details.lastAccessTime);
                readTime(sb, &response->details.expiryTime);
                response->details.invalidAttemptCount = static_cast<int>(readInt(sb));
            }
        }
    }
    skipFlowRemainder(sb);
    CLAPI_TRACE(EXIT, 3242, "clapi_socketcomms.clapiReadESIResponse()\n");
}
