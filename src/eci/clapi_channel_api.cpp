// Exported channel functions: create, delete, name and dump channels.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "eci/clapi_channel.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_testhook.h"
#include "impl/clapi_trace.h"
#include "kvl_channel.h"
#include "kvlclient.h"

namespace {

enum class DeleteScope { oneChannel, allChannels };

// Frees every container of a channel; the caller owns the channel. The two
// deletes report through trace points of their own.
void freeContainers(kvlChannel* channel, DeleteScope scope) {
    kvlContainer* cont = channel->firstCont;
    while (cont) {
        kvlContainer* next = cont->nextCont;
        if (cont->dataPtr) {
            if (scope == DeleteScope::oneChannel) {
                CLAPI_TRACE(DEBUG, 1420, "API.ECI_deleteChannel() Freeing %lu bytes of container data (%p)\n",
                            clapiLu(cont->dataLength), (void*)cont->dataPtr);
            } else {
                CLAPI_TRACE(DEBUG, 1427, "API.ECI_deleteAllChannels() Freeing %lu bytes of container data (%p)\n",
                            clapiLu(cont->dataLength), (void*)cont->dataPtr);
            }
        }
        // Reported just before the free: a freed pointer is not even printed.
        if (scope == DeleteScope::oneChannel) {
            CLAPI_TRACE(EVENT, 1421, "API.ECI_deleteChannel() Deleted container \"%.16s\" (%p)\n", cont->name,
                        (void*)cont);
        } else {
            CLAPI_TRACE(EVENT, 1317, "API.ECI_deleteAllChannels() Deleted container \"%.16s\" (%p)\n", cont->name,
                        (void*)cont);
        }
        clapiFreeContainer(cont);
        cont = next;
    }
    channel->firstCont = nullptr;
    channel->currentCont = nullptr;
    channel->numContainers = 0;
}

// Unlinks a channel from the list; the caller holds the list lock. False when it is not there.
bool unlinkChannel(kvlChannel* channel) {
    kvlChannel** link = &clapiChannelListHead;
    while (*link && *link != channel) link = &(*link)->nextChannel;
    if (!*link) return false;
    *link = channel->nextChannel;
    channel->nextChannel = nullptr;
    return true;
}

void freeChannelRecord(kvlChannel* channel) {
    clapiChannelWipe(channel, sizeof *channel);
    free(channel);
}

}  // namespace

KVL_EXTERN_C_BEGIN

KVL_API int ECI_createChannel(const char* name, chanTok* tokPtr) {
    CLAPI_TRACE(ENTRY, 1300, "API.ECI_createChannel(name=%s, tokPtr=%p)\n", name ? name : "NULL", (void*)tokPtr);
    int rc = ECI_NO_ERROR;
    kvlChannel* channel = nullptr;
    if (!tokPtr) {
        CLAPI_TRACE(EXC, 1301, "API.ECI_createChannel() tokPtr is NULL\n");
        rc = ECI_ERR_NULLCHANNELPTR;
    } else if ((rc = validateName(name)) != ECI_NO_ERROR) {
        // validateName traced the reason.
    } else if (!(channel = static_cast<kvlChannel*>(calloc(1, sizeof(kvlChannel))))) {
        CLAPI_TRACE(EXC, 1302, "API.ECI_createChannel() Failed to allocate %d bytes for channel\n",
                    (int)sizeof(kvlChannel));
        rc = ECI_ERR_MEMORY_SHORTAGE;
    } else {
        memcpy(channel->eyecatcher, CLAPI_CHANNEL_EYECATCHER, sizeof channel->eyecatcher);
        clapiCopyName(channel->name, name);
        channel->ccsid = CHANNEL_CCSID_UNSET;
        if (clapiInitLock(&channel->serlock) != 0) {
            CLAPI_TRACE(EXC, 1303, "API.ECI_createChannel() Failed to initialize serial lock\n");
            freeChannelRecord(channel);
            rc = ECI_ERR_CHANNELLOCKFAIL;
        } else if (clapiCreateEvent(&channel->unlockEvent) != 0) {
            CLAPI_TRACE(EXC, 1304, "API.ECI_createChannel() Failed to create channel unlocked event\n");
            clapiDestroyLock(&channel->serlock);
            freeChannelRecord(channel);
            rc = ECI_ERR_CHANNELLOCKFAIL;
        } else if (clapiRequestLock(&clapiChannelListLock) != 0) {
            // Only when the library's start-up failed.
            CLAPI_TRACE(EXC, 1306, "API.ECI_createChannel() Failed to acquire channel list lock\n");
            clapiDeleteEvent(&channel->unlockEvent);
            clapiDestroyLock(&channel->serlock);
            freeChannelRecord(channel);
            rc = ECI_ERR_CHANNELLOCKFAIL;
        } else {
            CLAPI_TRACE(EVENT, 1305, "API.ECI_createChannel() New channel \"%.16s\" created (%p)\n", channel->name,
                        (void*)channel);
            channel->nextChannel = clapiChannelListHead;
            clapiChannelListHead = channel;
            clapiReleaseLock(&clapiChannelListLock);
            *tokPtr = channel;
        }
    }
    CLAPI_TRACE(EXIT, 1309, "API.ECI_createChannel() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

// A handle that is not on the channel list (never created, or already deleted
// through another copy of it) is refused before it is touched.
KVL_API int ECI_deleteChannel(chanTok* tokPtr) {
    CLAPI_TRACE(ENTRY, 1310, "API.ECI_deleteChannel(tokPtr=%p)\n", (void*)tokPtr);
    int rc = ECI_NO_ERROR;
    kvlChannel* channel = tokPtr ? *tokPtr : nullptr;
    if (!tokPtr) {
        CLAPI_TRACE(EXC, 1311, "API.ECI_deleteChannel() tokPtr is NULL\n");
        rc = ECI_ERR_NULLCHANNELPTR;
    } else if (!channel) {
        CLAPI_TRACE(EXC, 1312, "API.ECI_deleteChannel() *tokPtr is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if ((rc = clapiHoldListedChannel(channel)) != ECI_NO_ERROR) {
        if (rc == ECI_ERR_LOCKFAIL) {
            CLAPI_TRACE(EXC, 1315, "API.ECI_deleteChannel() Failed to acquire channel list lock\n");
        } else if (rc == ECI_ERR_INVALID_CHANNEL) {
            CLAPI_TRACE(EXC, 1313, "API.ECI_deleteChannel() chanTok (%p) is not in the channel list\n", (void*)channel);
        }
    } else {
        // Channel lock before the list lock. The channel leaves the list here;
        // callers still waiting for it give up, and the record lives until the
        // last of them has let go.
        bool unlinked = false;
        if (clapiRequestLock(&clapiChannelListLock) != 0) {
            CLAPI_TRACE(EXC, 1315, "API.ECI_deleteChannel() Failed to acquire channel list lock\n");
            rc = ECI_ERR_LOCKFAIL;
        } else {
            unlinked = unlinkChannel(channel);
            if (unlinked) channel->deleted = 1;
            clapiReleaseLock(&clapiChannelListLock);
            if (!unlinked) {
                CLAPI_TRACE(EXC, 1313, "API.ECI_deleteChannel() chanTok (%p) is not in the channel list\n",
                            (void*)channel);
                rc = ECI_ERR_INVALID_CHANNEL;
            }
        }
        if (!unlinked) {
            clapiReleaseListedChannel(channel);
        } else {
            freeContainers(channel, DeleteScope::oneChannel);
            if (unlockChannel(channel) != ECI_NO_ERROR) {
                CLAPI_TRACE(EXC, 1308, "API.ECI_deleteChannel() Failed to unlock channel\n");
                rc = ECI_ERR_SYSTEM_ERROR;
            }
            CLAPI_TRACE(DEBUG, 1423, "API.ECI_deleteChannel() Released lock for channel %p, now deleting\n",
                        (void*)channel);
            if (clapiEndChannelUse(channel)) {
                clapiDeleteEvent(&channel->unlockEvent);
                clapiDestroyLock(&channel->serlock);
                CLAPI_TRACE(EVENT, 1422, "API.ECI_deleteChannel() Deleted channel \"%.16s\" (%p)\n", channel->name,
                            (void*)channel);
                freeChannelRecord(channel);
            } else {
                // Freed by the last caller that still holds it.
                CLAPI_TRACE(EVENT, 1422, "API.ECI_deleteChannel() Deleted channel \"%.16s\" (%p)\n", channel->name,
                            (void*)channel);
            }
            *tokPtr = nullptr;
        }
    }
    CLAPI_TRACE(EXIT, 1314, "API.ECI_deleteChannel() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

// Channels are not locked first: one in use by a request is destroyed under it.
KVL_API int ECI_deleteAllChannels(void) {
    CLAPI_TRACE(ENTRY, 1425, "API.ECI_deleteAllChannels()\n");
    int rc = ECI_NO_ERROR;
    if (clapiRequestLock(&clapiChannelListLock) != 0) {
        CLAPI_TRACE(EXC, 1428, "API.ECI_deleteAllChannels() Failed to acquire channel list lock\n");
        rc = ECI_ERR_LOCKFAIL;
    } else {
        while (kvlChannel* channel = clapiChannelListHead) {
            CLAPI_TRACE(DEBUG, 1426,
                        "API.ECI_deleteAllChannels() Destroying event and lock for channel \"%.16s\" (%p)\n",
                        channel->name, (void*)channel);
            clapiChannelListHead = channel->nextChannel;
            if (channel->users > 0) {
                // A request or an API call still holds it: it leaves the list now, and
                // the last of them frees it, so that none of them touches freed memory.
                clapiRequestLock(&channel->serlock);
                channel->deleted = 1;
                clapiReleaseLock(&channel->serlock);
                CLAPI_TRACE(EVENT, 1429, "API.ECI_deleteAllChannels() Deleted channel \"%.16s\" (%p)\n",
                            channel->name, (void*)channel);
                continue;
            }
            clapiDeleteEvent(&channel->unlockEvent);
            clapiDestroyLock(&channel->serlock);
            freeContainers(channel, DeleteScope::allChannels);
            CLAPI_TRACE(EVENT, 1429, "API.ECI_deleteAllChannels() Deleted channel \"%.16s\" (%p)\n", channel->name,
                        (void*)channel);
            freeChannelRecord(channel);
        }
        clapiReleaseLock(&clapiChannelListLock);
    }
    CLAPI_TRACE(EXIT, 1430, "API.ECI_deleteAllChannels() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_API int ECI_getChannelName(chanTok channel, char* nameBuffer) {
    CLAPI_TRACE(ENTRY, 1320, "API.ECI_getChannelName(chanTok=%p, nameBuffer=%p)\n", (void*)channel, (void*)nameBuffer);
    int rc = ECI_NO_ERROR;
    if (!channel) {
        CLAPI_TRACE(EXC, 1321, "API.ECI_getChannelName() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (!nameBuffer) {
        CLAPI_TRACE(EXC, 1322, "API.ECI_getChannelName() nameBuffer is NULL\n");
        rc = ECI_ERR_NULLPTR;
    } else if ((rc = clapiHoldListedChannel(channel)) == ECI_NO_ERROR) {
        memset(nameBuffer, 0, CHANNEL_NAME_LENGTH + 1);
        // The name is rewritten by a channel reply under serlock.
        clapiRequestLock(&channel->serlock);
        memcpy(nameBuffer, channel->name, CHANNEL_NAME_LENGTH);
        clapiReleaseLock(&channel->serlock);
        rc = clapiReleaseListedChannel(channel);
    }
    CLAPI_TRACE(EXIT, 1324, "API.ECI_getChannelName() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_EXTERN_C_END

namespace {

// The lines of one channel and its containers, read under the channel's
// serlock: a channel reply being applied and the container functions change the
// record and its container list only under that lock.
void describeChannel(kvlChannel* channel, int channelNumber, std::string& out) {
    char description[512];
    char line[600];
    clapiRequestLock(&channel->serlock);
    snprintf(description, sizeof description,
             "Channel(%p): eyecatcher(%8.8s) name(%16.16s) serlock(%p) unlockEvent(%p) isLocked(%d) "
             "ccsid(%d) numContainers(%d) nextChannel(%p) firstCont(%p) currentCont(%p)",
             (void*)channel, channel->eyecatcher, channel->name, (void*)&channel->serlock,
             (void*)&channel->unlockEvent, (int)channel->isLocked, (int)channel->ccsid, (int)channel->numContainers,
             (void*)channel->nextChannel, (void*)channel->firstCont, (void*)channel->currentCont);
    snprintf(line, sizeof line, "Channel list entry -%4.4d- : %s\n", channelNumber, description);
    out += line;
    int containerNumber = 0;
    for (kvlContainer* cont = channel->firstCont; cont; cont = cont->nextCont) {
        CLAPI_TEST_POINT("dump.container");
        ++containerNumber;
        snprintf(description, sizeof description,
                 "Container(%p): eyecatcher(%8.8s) name(%16.16s) type(%d) ccsid(%d) dataLength(%lu) "
                 "dataPtr(%p) nextCont(%p)",
                 (void*)cont, cont->eyecatcher, cont->name, (int)cont->type, (int)cont->ccsid,
                 clapiLu(cont->dataLength), (void*)cont->dataPtr, (void*)cont->nextCont);
        snprintf(line, sizeof line, "   Container list entry -%4.4d/%4.4d- : %s\n", channelNumber, containerNumber,
                 description);
        out += line;
    }
    clapiReleaseLock(&channel->serlock);
}

}  // namespace

KVL_EXTERN_C_BEGIN

// A snapshot for diagnosis. Each channel is read under its serlock and the
// text is written after, since the trace lock comes after every serlock.
KVL_API int KVL_ECI_dumpChannels(void) {
    CLAPI_TRACE(ENTRY, 1410, "API.KVL_ECI_dumpChannels()\n");
    int rc = KVL_OK;
    static const char kDashes[] = "--------------------------------------------------------------------------------";
    static_assert(sizeof kDashes - 1 == 80);
    // List lock before the trace lock.
    if (clapiRequestLock(&clapiChannelListLock) != 0) {
        CLAPI_TRACE(EXC, 1411, "API.KVL_ECI_dumpChannels() Failed to acquire channel list lock\n");
        rc = ECI_ERR_LOCKFAIL;
    } else {
        std::string text;
        int channelNumber = 0;
        for (kvlChannel* channel = clapiChannelListHead; channel; channel = channel->nextChannel) {
            describeChannel(channel, ++channelNumber, text);
        }
        clapiTraceOutputBegin();
        clapiTraceOutputPrintf("Channel and container dump\n%s\n", kDashes);
        if (channelNumber == 0) {
            clapiTraceOutputPrintf("The channel list is EMPTY\n");
        } else {
            clapiTraceOutputPrintf("%s", text.c_str());
            clapiTraceOutputPrintf("Total number of channels=%d\n", channelNumber);
        }
        clapiTraceOutputPrintf("%s\n", kDashes);
        clapiTraceOutputEnd();
        clapiReleaseLock(&clapiChannelListLock);
    }
    CLAPI_TRACE(EXIT, 1419, "API.KVL_ECI_dumpChannels() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

KVL_EXTERN_C_END
