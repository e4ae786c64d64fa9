// Exported container functions. Each checks its arguments, then holds the
// channel (lockChannel) for its whole work and unlocks it on every path; a
// failed unlock replaces the result with ECI_ERR_SYSTEM_ERROR.
#include <cstdlib>
#include <cstring>

#include "eci/clapi_channel.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvl_channel.h"

namespace {

const char* printable(const char* name) { return name ? name : "NULL"; }

void fillInfo(const kvlContainer* cont, EciContainerInfo* info) {
    memset(info, 0, sizeof *info);
    memcpy(info->name, cont->name, CHANNEL_NAME_LENGTH);
    info->type = cont->type;
    if (cont->type == ECI_CHAR) info->ccsid = cont->ccsid;
    info->dataLength = cont->dataLength;
}

// A BIT container keeps CCSID 0 and never touches the channel's.
void assignCcsid(kvlChannel* channel, kvlContainer* cont, int ccsid) {
    if (cont->type != ECI_CHAR) return;
    if (ccsid != 0) {
        if (channel->ccsid == CHANNEL_CCSID_UNSET) {
            channel->ccsid = ccsid;
            CLAPI_TRACE(EVENT, 1450, "API.ECI_createContainer() Channel CCSID set to %d from Container\n", ccsid);
        }
        cont->ccsid = ccsid;  // even when the channel already has another
    } else if (channel->ccsid != CHANNEL_CCSID_UNSET) {
        cont->ccsid = channel->ccsid;
    } else {
        int current = 0;
        getCurrentCcsid(&current);
        channel->ccsid = current;
        cont->ccsid = current;
        CLAPI_TRACE(EVENT, 1355, "API.ECI_createContainer() Channel CCSID set to %d from locale\n", current);
    }
    CLAPI_TRACE(EVENT, 1354, "API.ECI_createContainer() Container CCSID set to %d\n", (int)cont->ccsid);
}

int createLocked(kvlChannel* channel, const char* name, int type, int ccsid, const void* data, size_t dataLength) {
    if (clapiFindContainer(channel, name, nullptr)) {
        CLAPI_TRACE(EXC, 1349, "API.ECI_createContainer() Container \"%.16s\" already exists in channel \"%.16s\"\n",
                    name, channel->name);
        return ECI_ERR_CONTAINER_EXISTS;
    }
    auto* cont = static_cast<kvlContainer*>(calloc(1, sizeof(kvlContainer)));
    if (!cont) {
        CLAPI_TRACE(EXC, 1350, "API.ECI_createContainer() Failed to allocate %d bytes for container\n",
                    (int)sizeof(kvlContainer));
        return ECI_ERR_MEMORY_SHORTAGE;
    }
    memcpy(cont->eyecatcher, CLAPI_CONTAINER_EYECATCHER, sizeof cont->eyecatcher);
    clapiCopyName(cont->name, name);
    cont->type = type;
    assignCcsid(channel, cont, ccsid);
    if (dataLength != 0) {
        cont->dataPtr = static_cast<uint8_t*>(malloc(dataLength));
        if (!cont->dataPtr) {
            CLAPI_TRACE(EXC, 1351, "API.ECI_createContainer() Failed to allocate %lu bytes for container data\n",
                        clapiLu(dataLength));
            clapiFreeContainer(cont);
            return ECI_ERR_MEMORY_SHORTAGE;
        }
        memcpy(cont->dataPtr, data, dataLength);
        cont->dataLength = dataLength;
        CLAPI_TRACE_DATA(1397, cont->dataPtr, dataLength, "API.ECI_createContainer() data=%p len=%lu stopword=%8.8X\n",
                         (void*)cont->dataPtr, clapiLu(dataLength), 0u);
    }
    cont->nextCont = channel->firstCont;
    channel->firstCont = cont;
    channel->numContainers++;
    CLAPI_TRACE(EVENT, 1353, "API.ECI_createContainer() Created container \"%.16s\" (%p) in channel \"%.16s\" (%p)\n",
                cont->name, (void*)cont, channel->name, (void*)channel);
    return ECI_NO_ERROR;
}

int deleteLocked(kvlChannel* channel, const char* name) {
    kvlContainer* prev = nullptr;
    kvlContainer* cont = clapiFindContainer(channel, name, &prev);
    if (!cont) {
        CLAPI_TRACE(EXC, 1363, "API.ECI_deleteContainer() Container \"%.16s\" does not exist in channel \"%.16s\"\n",
                    name, channel->name);
        return ECI_ERR_CONTAINER_NOTFOUND;
    }
    if (prev) {
        prev->nextCont = cont->nextCont;
    } else {
        channel->firstCont = cont->nextCont;
    }
    // The cursor steps back, so that the next browse call yields the successor.
    if (channel->currentCont == cont) {
        channel->currentCont = prev;
        if (prev) {
            CLAPI_TRACE(DEBUG, 1366, "API.ECI_deleteContainer() Current container is now \"%.16s\"\n", prev->name);
        } else {
            CLAPI_TRACE(DEBUG, 1366, "API.ECI_deleteContainer() Current container is now NULL\n");
        }
    }
    if (cont->dataPtr) {
        CLAPI_TRACE(DEBUG, 1364, "API.ECI_deleteContainer() Freeing %lu bytes of container data (%p)\n",
                    clapiLu(cont->dataLength), (void*)cont->dataPtr);
    }
    channel->numContainers--;
    // Reported just before the free: a freed pointer is not even printed.
    CLAPI_TRACE(EVENT, 1365, "API.ECI_deleteContainer() Deleted container \"%.16s\" (%p)\n", cont->name, (void*)cont);
    clapiFreeContainer(cont);
    return ECI_NO_ERROR;
}

int getDataLocked(kvlChannel* channel, const char* name, void* buffer, size_t length, size_t offset,
                  size_t* bytesReadPtr) {
    const kvlContainer* cont = clapiFindContainer(channel, name, nullptr);
    if (!cont) {
        CLAPI_TRACE(EXC, 1384, "API.ECI_getContainerData() Container \"%.16s\" does not exist in channel \"%.16s\"\n",
                    name, channel->name);
        return ECI_ERR_CONTAINER_NOTFOUND;
    }
    size_t count = 0;
    if (offset < cont->dataLength) {
        const size_t available = static_cast<size_t>(cont->dataLength) - offset;
        count = length < available ? length : available;  // no offset + length overflow
    }
    if (bytesReadPtr) *bytesReadPtr = count;
    if (count != 0) {
        memcpy(buffer, cont->dataPtr + offset, count);
        CLAPI_TRACE(DEBUG, 1385, "API.ECI_getContainerData() Copied %lu bytes into %p\n", clapiLu(count), buffer);
    } else {
        CLAPI_TRACE(DEBUG, 1386, "API.ECI_getContainerData() No data to copy\n");
    }
    return ECI_NO_ERROR;
}

int getInfoLocked(kvlChannel* channel, const char* name, EciContainerInfo* infoPtr) {
    const kvlContainer* cont = clapiFindContainer(channel, name, nullptr);
    if (!cont) {
        CLAPI_TRACE(EXC, 1374, "API.ECI_getContainerInfo() Container \"%.16s\" does not exist in channel \"%.16s\"\n",
                    name, channel->name);
        return ECI_ERR_CONTAINER_NOTFOUND;
    }
    fillInfo(cont, infoPtr);
    return ECI_NO_ERROR;
}

int getFirstLocked(kvlChannel* channel, EciContainerInfo* infoPtr) {
    if (!channel->firstCont) {
        CLAPI_TRACE(DEBUG, 1329, "API.ECI_getFirstContainer() Channel \"%.16s\" has no containers\n", channel->name);
        return ECI_ERR_ENDOFCONTAINERS;
    }
    channel->currentCont = channel->firstCont;
    CLAPI_TRACE(DEBUG, 1330, "API.ECI_getFirstContainer() Current container is \"%.16s\"\n",
                channel->currentCont->name);
    fillInfo(channel->currentCont, infoPtr);
    return ECI_NO_ERROR;
}

// Repeated calls cycle: first, ..., last, ECI_ERR_ENDOFCONTAINERS, first again.
int getNextLocked(kvlChannel* channel, EciContainerInfo* infoPtr) {
    if (channel->currentCont) {
        channel->currentCont = channel->currentCont->nextCont;
        if (!channel->currentCont) {
            CLAPI_TRACE(DEBUG, 1341, "API.ECI_getNextContainer() No more containers in channel \"%.16s\"\n",
                        channel->name);
            return ECI_ERR_ENDOFCONTAINERS;
        }
    } else if (channel->firstCont) {
        CLAPI_TRACE(DEBUG, 1340, "API.ECI_getNextContainer() Current container is NULL, retrieving first container\n");
        channel->currentCont = channel->firstCont;
    } else {
        CLAPI_TRACE(DEBUG, 1339, "API.ECI_getNextContainer() Channel \"%.16s\" has no containers\n", channel->name);
        return ECI_ERR_ENDOFCONTAINERS;
    }
    CLAPI_TRACE(DEBUG, 1342, "API.ECI_getNextContainer() Current container is \"%.16s\"\n", channel->currentCont->name);
    fillInfo(channel->currentCont, infoPtr);
    return ECI_NO_ERROR;
}

// When the length is unchanged the new block is put in place first and the old
// one is then wiped and freed, so nothing is abandoned on the heap.
int setDataLocked(kvlChannel* channel, const char* name, const void* data, size_t dataLength) {
    kvlContainer* cont = clapiFindContainer(channel, name, nullptr);
    if (!cont) {
        CLAPI_TRACE(EXC, 1394, "API.ECI_setContainerData() Container \"%.16s\" does not exist in channel \"%.16s\"\n",
                    name, channel->name);
        return ECI_ERR_CONTAINER_NOTFOUND;
    }
    if (cont->dataLength != dataLength && cont->dataPtr) {
        CLAPI_TRACE(DEBUG, 1395, "API.ECI_setContainerData() Freeing %lu bytes of container data (%p)\n",
                    clapiLu(cont->dataLength), (void*)cont->dataPtr);
        clapiChannelWipe(cont->dataPtr, static_cast<size_t>(cont->dataLength));
        free(cont->dataPtr);
        cont->dataPtr = nullptr;
        cont->dataLength = 0;
    }
    uint8_t* oldBlock = cont->dataPtr;  // still set only when the length is unchanged
    const size_t oldLength = static_cast<size_t>(cont->dataLength);
    int rc = ECI_NO_ERROR;
    if (dataLength != 0) {
        auto* block = static_cast<uint8_t*>(malloc(dataLength));
        if (!block) {
            CLAPI_TRACE(EXC, 1396, "API.ECI_setContainerData() Failed to allocate %lu bytes for container data\n",
                        clapiLu(dataLength));
            rc = ECI_ERR_MEMORY_SHORTAGE;  // the container is left empty
            cont->dataPtr = nullptr;
            cont->dataLength = 0;
        } else {
            memcpy(block, data, dataLength);
            cont->dataPtr = block;
            cont->dataLength = dataLength;
            CLAPI_TRACE_DATA(1398, block, dataLength, "API.ECI_setContainerData() data=%p len=%lu stopword=%8.8X\n",
                             (void*)block, clapiLu(dataLength), 0u);
        }
    }
    if (oldBlock) {
        CLAPI_TRACE(DEBUG, 1395, "API.ECI_setContainerData() Freeing %lu bytes of container data (%p)\n",
                    clapiLu(oldLength), (void*)oldBlock);
        clapiChannelWipe(oldBlock, oldLength);
        free(oldBlock);
    }
    return rc;
}

// Runs `work` on a channel this call holds, under its serlock: a channel reply
// being applied and a dump of the channel list read or change the same record
// and container list only under that lock.
template <typename Work>
int withRecord(kvlChannel* channel, Work work) {
    if (clapiRequestLock(&channel->serlock) != 0) return ECI_ERR_SYSTEM_ERROR;
    int rc = work();
    if (clapiReleaseLock(&channel->serlock) != 0 && rc == ECI_NO_ERROR) rc = ECI_ERR_SYSTEM_ERROR;
    return rc;
}

}  // namespace

KVL_EXTERN_C_BEGIN

KVL_API int ECI_createContainer(chanTok channel, const char* name, int type, int ccsid, const void* data,
                                size_t dataLength) {
    CLAPI_TRACE(ENTRY, 1345,
                "API.ECI_createContainer(chanTok=%p, name=%s, type=%d, ccsid=%d, data=%p, dataLength=%lu)\n",
                (void*)channel, printable(name), type, ccsid, data, clapiLu(dataLength));
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1346, "API.ECI_createContainer() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (type != ECI_BIT && type != ECI_CHAR) {
        CLAPI_TRACE(EXC, 1347, "API.ECI_createContainer() type is invalid (%d)\n", type);
        rc = ECI_ERR_INVALID_TYPE;
    } else if (!data && dataLength != 0) {
        rc = ECI_ERR_INVALID_DATA_LENGTH;
    } else if ((rc = validateName(name)) == ECI_NO_ERROR && (rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return createLocked(channel, name, type, ccsid, data, dataLength); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1328, "API.ECI_createContainer() Failed to unlock channnel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1359, "API.ECI_createContainer() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_deleteContainer(chanTok channel, const char* name) {
    CLAPI_TRACE(ENTRY, 1360, "API.ECI_deleteContainer(chanTok=%p, name=%s)\n", (void*)channel, printable(name));
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1361, "API.ECI_deleteContainer() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if ((rc = validateName(name)) == ECI_NO_ERROR && (rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return deleteLocked(channel, name); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1332, "API.ECI_deleteContainer() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1369, "API.ECI_deleteContainer() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_getContainerData(chanTok channel, const char* name, void* buffer, size_t length, size_t offset,
                                 size_t* bytesReadPtr) {
    CLAPI_TRACE(ENTRY, 1380,
                "API.ECI_getContainerData(chanTok=%p, name=%s, buffer=%p, length=%lu, offset=%lu, bytesReadPtr=%p)\n",
                (void*)channel, printable(name), buffer, clapiLu(length), clapiLu(offset),
                (void*)bytesReadPtr);
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1381, "API.ECI_getContainerData() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!buffer) {
        CLAPI_TRACE(EXC, 1382, "API.ECI_getContainerData() buffer is NULL\n");
        rc = ECI_ERR_NULLPTR;
    } else if ((rc = validateName(name)) == ECI_NO_ERROR && (rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return getDataLocked(channel, name, buffer, length, offset, bytesReadPtr); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1338, "API.ECI_getContainerData() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1389, "API.ECI_getContainerData() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_getContainerInfo(chanTok channel, const char* name, EciContainerInfo* infoPtr) {
    CLAPI_TRACE(ENTRY, 1370, "API.ECI_getContainerInfo(chanTok=%p, name=%s, infoPtr=%p)\n", (void*)channel,
                printable(name), (void*)infoPtr);
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1371, "API.ECI_getContainerInfo() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!infoPtr) {
        CLAPI_TRACE(EXC, 1372, "API.ECI_getContainerInfo() infoPtr is NULL\n");
        rc = ECI_ERR_NULLINFOPTR;
    } else if ((rc = validateName(name)) == ECI_NO_ERROR && (rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return getInfoLocked(channel, name, infoPtr); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1333, "API.ECI_getContainerInfo() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1379, "API.ECI_getContainerInfo() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_getFirstContainer(chanTok channel, EciContainerInfo* infoPtr) {
    CLAPI_TRACE(ENTRY, 1325, "API.ECI_getFirstContainer(chanTok=%p, infoPtr=%p)\n", (void*)channel, (void*)infoPtr);
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1326, "API.ECI_getFirstContainer() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!infoPtr) {
        CLAPI_TRACE(EXC, 1327, "API.ECI_getFirstContainer() infoPtr is NULL\n");
        rc = ECI_ERR_NULLINFOPTR;
    } else if ((rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return getFirstLocked(channel, infoPtr); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1319, "API.ECI_getFirstContainer() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1334, "API.ECI_getFirstContainer() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_getNextContainer(chanTok channel, EciContainerInfo* infoPtr) {
    CLAPI_TRACE(ENTRY, 1335, "API.ECI_getNextContainer(chanTok=%p, infoPtr=%p)\n", (void*)channel, (void*)infoPtr);
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1336, "API.ECI_getNextContainer() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!infoPtr) {
        CLAPI_TRACE(EXC, 1337, "API.ECI_getNextContainer() infoPtr is NULL\n");
        rc = ECI_ERR_NULLINFOPTR;
    } else if ((rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return getNextLocked(channel, infoPtr); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1323, "API.ECI_getNextContainer() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1344, "API.ECI_getNextContainer() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_setContainerData(chanTok channel, const char* name, const void* data, size_t dataLength) {
    CLAPI_TRACE(ENTRY, 1390, "API.ECI_setContainerData(chanTok=%p, name=%s, data=%p, dataLength=%lu)\n", (void*)channel,
                printable(name), data, clapiLu(dataLength));
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1391, "API.ECI_setContainerData() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!data && dataLength != 0) {
        CLAPI_TRACE(EXC, 1392, "API.ECI_setContainerData() data is NULL when dataLength is %lu\n",
                    clapiLu(dataLength));
        rc = ECI_ERR_INVALID_DATA_LENGTH;
    } else if ((rc = validateName(name)) == ECI_NO_ERROR && (rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        rc = withRecord(channel, [&] { return setDataLocked(channel, name, data, dataLength); });
        if (clapiReleaseListedChannel(channel) != ECI_NO_ERROR) {
            CLAPI_TRACE(EXC, 1343, "API.ECI_setContainerData() Failed to unlock channel\n");
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1399, "API.ECI_setContainerData() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_EXTERN_C_END
