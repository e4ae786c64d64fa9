// A channel on the wire: the request carries every container; the reply says, entry by
// entry, what the server added, deleted, modified or left alone.
//
// Hostile replies: an entry count the rest of the flow cannot hold (an entry is at least
// 28 bytes), or an entry announcing more data than the flow has left, fails the request
// with ECI_ERR_SYSTEM_ERROR (-9) before anything is allocated for that entry. Entries
// before it stay applied; the channel's list and count always agree.
#include <cstdlib>
#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "eci/clapi_channel.h"
#include "impl/clapi_trace.h"
#include "kvl_channel.h"
#include "kvlclient.h"

namespace {

constexpr uint64_t NAME_LEN = 16;
constexpr uint64_t ENTRY_HEADER_LEN = 28;

enum containerState : uint8_t { STATE_ADDED = 1, STATE_DELETED = 2, STATE_MODIFIED = 3, STATE_UNCHANGED = 4 };

const char* typeName(int32_t type) {
    switch (type) {
        case ECI_BIT:
            return "ECI_BIT";
        case ECI_CHAR:
            return "ECI_CHAR";
        default:
            return "UNKNOWN";
    }
}

void wipeAndFreeData(uint8_t* data, uint64_t len) {
    if (!data) return;
    clapiChannelWipe(data, static_cast<size_t>(len));
    free(data);
}

// Container data up to this size is allocated at once; a larger one grows with
// the bytes that arrive, so that a length a Gateway declares without sending the
// data never reserves more than this beyond twice what it sent.
constexpr uint64_t kUpfrontDataLimit = 1u << 20;

// A block holding `length` bytes read from the flow, or null when memory ran
// out (*noMemory set) or the read failed (sb->lastError set).
uint8_t* readContainerData(sockBuffer* sb, uint64_t length, bool* noMemory) {
    *noMemory = false;
    uint64_t capacity = length < kUpfrontDataLimit ? length : kUpfrontDataLimit;
    auto* block = static_cast<uint8_t*>(calloc(1, static_cast<size_t>(capacity)));
    if (!block) {
        *noMemory = true;
        return nullptr;
    }
    uint64_t got = 0;
    while (got < length && sb->lastError == 0) {
        if (got == capacity) {
            uint64_t grown = capacity * 2 < length ? capacity * 2 : length;
            auto* bigger = static_cast<uint8_t*>(malloc(static_cast<size_t>(grown)));
            if (!bigger) {
                wipeAndFreeData(block, capacity);
                *noMemory = true;
                return nullptr;
            }
            memcpy(bigger, block, static_cast<size_t>(got));
            wipeAndFreeData(block, capacity);
            block = bigger;
            capacity = grown;
        }
        readBytes(sb, block + got, capacity - got);
        got = capacity;
    }
    if (sb->lastError != 0) {
        wipeAndFreeData(block, capacity);
        return nullptr;
    }
    return block;
}

}  // namespace

void writeChannel(sockBuffer* sb, kvlChannel* channel) {
    CLAPI_TRACE(ENTRY, 3215, "clapi_socketcomms.writeChannel(sockBuffer=%p, channel=%p)\n", static_cast<void*>(sb),
                static_cast<void*>(channel));
    CLAPI_TRACE(EVENT, 3245, "clapi_socketcomms.writeChannel() Writing channel \"%.16s\", CCSID=%d, num containers=%d\n",
                channel->name, (int)channel->ccsid, (int)channel->numContainers);
    writeBytes(sb, channel->name, NAME_LEN);
    writeInt(sb, static_cast<uint32_t>(channel->ccsid));
    writeInt(sb, static_cast<uint32_t>(channel->numContainers));
    for (const kvlContainer* c = channel->firstCont; c; c = c->nextCont) {
        CLAPI_TRACE(EVENT, 3246,
                    "clapi_socketcomms.writeChannel() Writing container \"%.16s\", type=%s, CCSID=%d, data length=%lu\n",
                    c->name, typeName(c->type), (int)c->ccsid, clapiLu(c->dataLength));
        writeBytes(sb, c->name, NAME_LEN);
        writeByte(sb, STATE_ADDED);
        writeByte(sb, 0);
        writeByte(sb, 0);
        writeByte(sb, static_cast<uint8_t>(c->type));
        writeInt(sb, static_cast<uint32_t>(c->ccsid));
        writeInt(sb, static_cast<uint32_t>(c->dataLength));
        // An empty container is written and dumped like any other (nothing to copy, same trace).
        if (c->dataLength == 0 || c->dataPtr) {
            writeBytes(sb, c->dataPtr, c->dataLength);
            CLAPI_TRACE_DATA(3247, c->dataPtr, static_cast<size_t>(c->dataLength),
                             "clapi_socketcomms.writeChannel() data=%p len=%lu stopword=%8.8X\n",
                             static_cast<void*>(c->dataPtr), clapiLu(c->dataLength), 0u);
        }
    }
    CLAPI_TRACE(EXIT, 3216, "clapi_socketcomms.writeChannel()\n");
}

int readChannel(sockBuffer* sb, kvlChannel* channel) {
    CLAPI_TRACE(ENTRY, 3217, "clapi_socketcomms.readChannel(sockBuffer=%p, channel=%p)\n", static_cast<void*>(sb),
                static_cast<void*>(channel));
    int rc = 0;
    // Read off the wire first; the record changes under its serlock, where
    // waiters print the name and a dump reads it.
    char name[NAME_LEN];
    memcpy(name, channel->name, NAME_LEN);
    int32_t ccsid = channel->ccsid;
    readBytes(sb, name, NAME_LEN);
    ccsid = static_cast<int32_t>(sb->lastError == 0 ? readInt(sb) : static_cast<uint32_t>(ccsid));
    if (sb->lastError == 0) {
        clapiRequestLock(&channel->serlock);
        memcpy(channel->name, name, NAME_LEN);
        channel->ccsid = ccsid;
        clapiReleaseLock(&channel->serlock);
    }
    auto count = static_cast<int32_t>(readInt(sb));
    CLAPI_TRACE(DEBUG, 3218, "clapi_socketcomms.readChannel() Return flow contains %d containers in channel \"%.16s\"\n",
                (int)count, name);
    if (sb->lastError != 0) {
        rc = sockBufferErrorRc(sb);
    } else if (count < 0 || static_cast<uint64_t>(count) > sockBufferFlowRemaining(sb) / ENTRY_HEADER_LEN) {
        CLAPI_TRACE(EXC, 3254, "clapi_socketcomms.readChannel() Container count %d exceeds what %lu bytes can hold\n",
                    (int)count, clapiLu(sockBufferFlowRemaining(sb)));
        rc = ECI_ERR_SYSTEM_ERROR;
    }

    for (int32_t i = 0; i < count && rc == 0; ++i) {
        if (sockBufferFlowRemaining(sb) < ENTRY_HEADER_LEN) {
            CLAPI_TRACE(EXC, 3255, "clapi_socketcomms.readChannel() Entry %d of %d is cut short, %lu bytes left\n",
                        (int)(i + 1), (int)count, clapiLu(sockBufferFlowRemaining(sb)));
            rc = ECI_ERR_SYSTEM_ERROR;
            break;
        }
        kvlContainer temp;
        memset(&temp, 0, sizeof temp);
        memcpy(temp.eyecatcher, CLAPI_CONTAINER_EYECATCHER, sizeof temp.eyecatcher);
        readBytes(sb, temp.name, NAME_LEN);
        uint8_t state = readByte(sb);
        readByte(sb);
        readByte(sb);
        temp.type = static_cast<int8_t>(readByte(sb));
        temp.ccsid = static_cast<int32_t>(readInt(sb));
        temp.dataLength = readInt(sb);
        if (sb->lastError != 0) {
            rc = sockBufferErrorRc(sb);
            break;
        }
        bool carriesData = state == STATE_ADDED || state == STATE_MODIFIED;
        if (carriesData && temp.dataLength > sockBufferFlowRemaining(sb)) {
            CLAPI_TRACE(EXC, 3256,
                        "clapi_socketcomms.readChannel() Container \"%.16s\" announces %lu bytes, %lu bytes left in flow\n",
                        temp.name, clapiLu(temp.dataLength), clapiLu(sockBufferFlowRemaining(sb)));
            rc = ECI_ERR_SYSTEM_ERROR;
            break;
        }
        switch (state) {
            case STATE_ADDED:
                CLAPI_TRACE(EVENT, 3219,
                            "clapi_socketcomms.readChannel() Container \"%.16s\" ADDED in ORIS, type=%s, CCSID=%d, data "
                            "length=%lu\n",
                            temp.name, typeName(temp.type), (int)temp.ccsid, clapiLu(temp.dataLength));
                rc = addContainer(sb, channel, &temp);
                break;
            case STATE_DELETED:
                CLAPI_TRACE(EVENT, 3220, "clapi_socketcomms.readChannel() Container \"%.16s\" DELETED in ORIS\n", temp.name);
                rc = deleteContainer(channel, temp.name);
                break;
            case STATE_MODIFIED:
                CLAPI_TRACE(EVENT, 3221, "clapi_socketcomms.readChannel() Container \"%.16s\" MODIFIED in ORIS, new length=%lu\n",
                            temp.name, clapiLu(temp.dataLength));
                rc = modifyContainer(sb, channel, &temp);
                break;
            case STATE_UNCHANGED:
                CLAPI_TRACE(EVENT, 3222, "clapi_socketcomms.readChannel() Container \"%.16s\" is UNCHANGED\n", temp.name);
                break;
            default:
                break;
        }
    }
    CLAPI_TRACE(EXIT, 3223, "clapi_socketcomms.readChannel() rc=%d\n", rc);
    return rc;
}

int addContainer(sockBuffer* sb, kvlChannel* channel, kvlContainer* tempCont) {
    CLAPI_TRACE(ENTRY, 3224, "clapi_socketcomms.addContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n",
                static_cast<void*>(sb), static_cast<void*>(channel), static_cast<void*>(tempCont));
    int rc = 0;
    uint8_t* data = nullptr;
    if (tempCont->dataLength != 0) {
        bool noMemory = false;
        data = readContainerData(sb, tempCont->dataLength, &noMemory);
        if (noMemory) {
            CLAPI_TRACE(EXC, 3238, "clapi_socketcomms.addContainer() Failed to allocate %lu bytes for container data\n",
                        clapiLu(tempCont->dataLength));
            rc = ECI_ERR_MEMORY_SHORTAGE;
        } else if (sb->lastError != 0) {
            rc = sockBufferErrorRc(sb);
        }
    }
    kvlContainer* container = nullptr;
    if (rc == 0) {
        container = static_cast<kvlContainer*>(calloc(1, sizeof(kvlContainer)));
        if (!container) {
            CLAPI_TRACE(EXC, 3225, "clapi_socketcomms.addContainer() Failed to allocate %lu bytes for new container\n",
                        clapiLu(sizeof(kvlContainer)));
            rc = ECI_ERR_MEMORY_SHORTAGE;
        }
    }
    if (rc != 0) {
        wipeAndFreeData(data, tempCont->dataLength);
    } else {
        *container = *tempCont;
        container->dataPtr = data;
        clapiRequestLock(&channel->serlock);
        container->nextCont = channel->firstCont;
        channel->firstCont = container;
        channel->numContainers++;
        clapiReleaseLock(&channel->serlock);
        CLAPI_TRACE_DATA(3248, data, static_cast<size_t>(data ? container->dataLength : 0),
                         "clapi_socketcomms.addContainer() data=%p len=%lu stopword=%8.8X\n", static_cast<void*>(data),
                         clapiLu(container->dataLength), 0u);
    }
    CLAPI_TRACE(EXIT, 3226, "clapi_socketcomms.addContainer() rc=%d\n", rc);
    return rc;
}

int deleteContainer(kvlChannel* channel, const char* name) {
    CLAPI_TRACE(ENTRY, 3227, "clapi_socketcomms.deleteContainer(channel=%p, name=\"%.16s\")\n",
                static_cast<void*>(channel), name);
    int rc = 0;
    kvlContainer* prev = nullptr;
    kvlContainer* found = clapiFindContainer(channel, name, &prev);
    if (!found) {
        CLAPI_TRACE(EXC, 3228, "clapi_socketcomms.deleteContainer() Container \"%.16s\" not found in channel \"%.16s\"\n",
                    name, channel->name);
        rc = ECI_ERR_SYSTEM_ERROR;
    } else {
        // Unlinked under serlock, where a dump walks the list; freed after.
        clapiRequestLock(&channel->serlock);
        if (prev)
            prev->nextCont = found->nextCont;
        else
            channel->firstCont = found->nextCont;
        // The browse cursor steps back so that the next "get next" sees the successor.
        if (channel->currentCont == found) {
            channel->currentCont = prev;
            if (prev)
                CLAPI_TRACE(DEBUG, 3230, "clapi_socketcomms.deleteContainer Current container is now \"%.16s\"\n",
                            prev->name);
            else
                CLAPI_TRACE(DEBUG, 3229, "clapi_socketcomms.deleteContainer Current container is now NULL\n");
        }
        channel->numContainers--;
        clapiReleaseLock(&channel->serlock);
        clapiFreeContainer(found);
    }
    CLAPI_TRACE(EXIT, 3231, "clapi_socketcomms.deleteContainer() rc=%d\n", rc);
    return rc;
}

int modifyContainer(sockBuffer* sb, kvlChannel* channel, kvlContainer* tempCont) {
    CLAPI_TRACE(ENTRY, 3232, "clapi_socketcomms.modifyContainer(sockBuffer=%p, channel=%p, tempCont=%p)\n",
                static_cast<void*>(sb), static_cast<void*>(channel), static_cast<void*>(tempCont));
    int rc = 0;
    kvlContainer* found = clapiFindContainer(channel, tempCont->name, nullptr);
    if (!found) {
        CLAPI_TRACE(EXC, 3233, "clapi_socketcomms.modifyContainer() Container \"%.16s\" not found in channel \"%.16s\"\n",
                    tempCont->name, channel->name);
        rc = ECI_ERR_SYSTEM_ERROR;
    } else {
        // The new data is read into a block of its own while the record stays as
        // it is; the record then changes under serlock, and the old block goes after.
        uint8_t* data = found->dataPtr;
        uint8_t* oldData = nullptr;
        uint64_t oldLength = found->dataLength;
        if (tempCont->dataLength != found->dataLength) {
            if (found->dataPtr) {
                CLAPI_TRACE(DEBUG, 3234, "clapi_socketcomms.modifyContainer() Freeing %lu bytes of container data (%p)\n",
                            clapiLu(found->dataLength), static_cast<void*>(found->dataPtr));
                oldData = found->dataPtr;
            }
            data = nullptr;
            if (tempCont->dataLength != 0) {
                bool noMemory = false;
                data = readContainerData(sb, tempCont->dataLength, &noMemory);
                if (noMemory) {
                    CLAPI_TRACE(EXC, 3235,
                                "clapi_socketcomms.modifyContainer() Failed to allocate %lu bytes for container data\n",
                                clapiLu(tempCont->dataLength));
                    rc = ECI_ERR_MEMORY_SHORTAGE;
                } else if (!data) {
                    rc = sockBufferErrorRc(sb);  // the container is left empty
                }
            }
        } else if (tempCont->dataLength != 0) {
            readBytes(sb, data, tempCont->dataLength);
        }
        clapiRequestLock(&channel->serlock);
        if (rc != 0) {
            found->dataPtr = nullptr;
            found->dataLength = 0;
        } else {
            kvlContainer* next = found->nextCont;
            memcpy(found->eyecatcher, tempCont->eyecatcher, sizeof found->eyecatcher);
            memcpy(found->name, tempCont->name, sizeof found->name);
            found->ccsid = tempCont->ccsid;
            found->type = tempCont->type;
            found->dataPtr = data;
            found->dataLength = tempCont->dataLength;
            found->nextCont = next;
        }
        clapiReleaseLock(&channel->serlock);
        wipeAndFreeData(oldData, oldLength);
        if (rc == 0) {
            CLAPI_TRACE_DATA(3249, data, static_cast<size_t>(data ? found->dataLength : 0),
                             "clapi_socketcomms.modifyContainer() data=%p len=%lu stopword=%8.8X\n",
                             static_cast<void*>(data), clapiLu(found->dataLength), 0u);
            if (sb->lastError != 0) rc = sockBufferErrorRc(sb);
        }
    }
    CLAPI_TRACE(EXIT, 3236, "clapi_socketcomms.modifyContainer() rc=%d\n", rc);
    return rc;
}
