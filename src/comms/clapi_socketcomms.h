// The flows exchanged with the Gateway: header, handshake, close, ECI, list-systems,
// channel and ESI bodies. Encoders run under the token's send lock; decoders on the
// receiver thread only.
#pragma once

#include <cstdint>

#include "comms/clapi_socketbuffer.h"
#include "kvl_esi.h"
#include "platform/platform.h"

struct kvlChannel;
struct kvlContainer;

constexpr uint32_t FLOW_EYECATCHER = 0x47617465u;  // "Gate"
constexpr uint32_t FLOW_VERSION = 0x10901000u;

enum flowType : int32_t {
    FLOW_REQUEST = 1,
    FLOW_REPLY = 3,
    FLOW_ERROR = 4,
    FLOW_HANDSHAKE = 5,
    FLOW_EXCEPTION = 6,
    FLOW_PING = 7,
    FLOW_CLOSE = 10,
};

constexpr int32_t FLOW_MSGID_HANDSHAKE = -2;
constexpr int32_t FLOW_MSGID_CLOSE = -1;

struct flowHeader {
    uint32_t eyecatcher;
    uint32_t version;
    int32_t flowType;
    int32_t messageId;
    int32_t rc;
    uint32_t requestTypeLen;
    char requestType[6];  // unterminated when full
    uint8_t flags;
    uint32_t bodyLen;
};

// Fills eyecatcher, version, rc 0, flags 0 and the request type text.
void clapiInitFlowHeader(flowHeader* header, int32_t type, int32_t messageId, const char* requestType);

void writeHeader(sockBuffer* sb, const flowHeader* header);
// Bytes of the whole flow on the wire: header, request type and body.
uint64_t clapiFlowLength(const flowHeader* header);
// 0, a socket buffer code, or -9 for a bad eyecatcher or a request type longer than the field.
int clapiReadHeader(sockBuffer* sb, flowHeader* header);
int clapiFlowHandshakeRequest(platformSocket socketDesc, const char* applid, const char* applidQualifier);
int clapiFlowCloseRequest(platformSocket socketDesc);

// ECI request types.
constexpr int32_t ECI_REQUEST_CALL = 1;
constexpr int32_t ECI_REQUEST_CALL_ALT_TRANID = 12;
constexpr int32_t ECI_REQUEST_LIST_SYSTEMS = 9;

struct EciRequest {
    int32_t requestType;
    int32_t extendMode;
    int32_t luwToken;
    int32_t reserved1;
    uint8_t reserved2;
    char serverName[8];
    const char* userid;
    const char* password;
    char program[8];
    char tranId[4];
    int32_t extraLength;
    const uint8_t* extraData;
    char abend[4];
    int32_t commareaLength;
    uint8_t* commarea;
    int32_t inboundLength;
    int32_t outboundLength;
    kvlChannel* channel;
    uint16_t timeout;
    uint8_t reserved3;
    int32_t optionalBlocks;
    int32_t blockALength;
    const uint8_t* blockAData;
    int32_t blockBLength;
    const uint8_t* blockBData;
    int32_t correlator;
    int32_t listParm;
    int32_t rc;
    // Size of the memory at `commarea` that a reply may fill; set by the receiver
    // before decoding. Reply bytes beyond it are read from the stream and dropped.
    uint64_t commareaCapacity;
};

int32_t calculateECIRequestSize(EciRequest* request);
int clapiFlowECIRequest(platformSocket socketDesc, flowHeader* header, EciRequest* request);
int clapiReadECIResponse(sockBuffer* sb, EciRequest* request);

// Channel flows (the channel is locked by the request for the whole exchange).
void writeChannel(sockBuffer* sb, kvlChannel* channel);
int readChannel(sockBuffer* sb, kvlChannel* channel);
int addContainer(sockBuffer* sb, kvlChannel* channel, kvlContainer* tempCont);
int deleteContainer(kvlChannel* channel, const char* name);  // name: 16 bytes
int modifyContainer(sockBuffer* sb, kvlChannel* channel, kvlContainer* tempCont);

// ESI.
constexpr int32_t ESI_REQUEST_VERIFY = 0;
constexpr int32_t ESI_REQUEST_CHANGE = 1;

struct EsiRequest {
    int32_t esiRequestType;
    const char* userid;
    const char* password;
    const char* newPassword;
    char server[8];
};

struct EsiResponse {
    int32_t rc;
    esiDetails details;  // filled only when rc is 0; the wire carries its times crossed
};

int32_t calculateESIRequestSize(EsiRequest* request);
int clapiFlowESIRequest(platformSocket socketDesc, flowHeader* header, EsiRequest* request);
void clapiReadESIResponse(sockBuffer* sb, EsiResponse* response);
