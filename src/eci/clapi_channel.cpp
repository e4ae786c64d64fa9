// Channel records, the channel list, names, code pages and the channel lock.
#include "eci/clapi_channel.h"

#include <cstdlib>
#include <cstring>

#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "platform/platform.h"

kvlChannel* clapiChannelListHead = nullptr;

namespace {

// The 81 characters a channel or container name may use.
constexpr char kNameCharacters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789<>$@#/%&?!:|\"=';.-_";
static_assert(sizeof kNameCharacters - 1 == 81);

bool isNameCharacter(char c) { return c != '\0' && memchr(kNameCharacters, c, sizeof kNameCharacters - 1) != nullptr; }

// Called through a volatile pointer so that a wipe right before free() is kept.
void* (*const volatile wipeFunction)(void*, int, size_t) = memset;

}  // namespace

void clapiChannelWipe(void* data, size_t length) {
    if (data && length) wipeFunction(data, 0, length);
}

void clapiCopyName(char (&field)[CHANNEL_NAME_LENGTH], const char* name) {
    memset(field, 0, sizeof field);
    if (name) memcpy(field, name, strnlen(name, sizeof field));
}

kvlContainer* clapiFindContainer(kvlChannel* channel, const char* name, kvlContainer** prevPtr) {
    kvlContainer* prev = nullptr;
    kvlContainer* cont = channel->firstCont;
    while (cont && strncmp(cont->name, name, CHANNEL_NAME_LENGTH) != 0) {
        prev = cont;
        cont = cont->nextCont;
    }
    if (prevPtr) *prevPtr = cont ? prev : nullptr;
    return cont;
}

void clapiFreeContainer(kvlContainer* container) {
    if (!container) return;
    if (container->dataPtr) {
        clapiChannelWipe(container->dataPtr, static_cast<size_t>(container->dataLength));
        free(container->dataPtr);
    }
    clapiChannelWipe(container, sizeof *container);
    free(container);
}

int clapiChannelIsListed(const kvlChannel* channel) {
    if (clapiRequestLock(&clapiChannelListLock) != 0) return -1;
    int listed = 0;
    for (const kvlChannel* c = clapiChannelListHead; c; c = c->nextChannel) {
        if (c == channel) {
            listed = 1;
            break;
        }
    }
    clapiReleaseLock(&clapiChannelListLock);
    return listed;
}

int clapiUseListedChannel(kvlChannel* channel) {
    if (clapiRequestLock(&clapiChannelListLock) != 0) return ECI_ERR_LOCKFAIL;
    bool listed = false;
    for (const kvlChannel* c = clapiChannelListHead; c; c = c->nextChannel) {
        if (c == channel) {
            listed = true;
            ++channel->users;
            break;
        }
    }
    clapiReleaseLock(&clapiChannelListLock);
    if (!listed) {
        CLAPI_TRACE(EXC, 1462, "clapi_channel.lockChannel() chanTok (%p) is not a channel\n", (void*)channel);
        return ECI_ERR_INVALID_CHANNEL;
    }
    return 0;
}

int clapiHoldListedChannel(kvlChannel* channel) {
    int rc = clapiUseListedChannel(channel);
    if (rc != 0) return rc;
    rc = lockChannel(channel);
    if (rc != ECI_NO_ERROR && clapiEndChannelUse(channel)) clapiFreeChannelRecord(channel);
    return rc;
}

bool clapiEndChannelUse(kvlChannel* channel) {
    clapiRequestLock(&clapiChannelListLock);
    bool last = --channel->users == 0 && channel->deleted.load() != 0;
    clapiReleaseLock(&clapiChannelListLock);
    return last;
}

int clapiReleaseListedChannel(kvlChannel* channel) {
    int rc = unlockChannel(channel);
    if (clapiEndChannelUse(channel)) clapiFreeChannelRecord(channel);
    return rc;
}

void clapiFreeChannelRecord(kvlChannel* channel) {
    clapiDeleteEvent(&channel->unlockEvent);
    clapiDestroyLock(&channel->serlock);
    kvlContainer* cont = channel->firstCont;
    while (cont) {
        kvlContainer* next = cont->nextCont;
        clapiFreeContainer(cont);
        cont = next;
    }
    clapiChannelWipe(channel, sizeof *channel);
    free(channel);
}

int validateName(const char* name) {
    CLAPI_TRACE(ENTRY, 1400, "clapi_channel.validateName(name=%s)\n", name ? name : "NULL");
    int rc = ECI_NO_ERROR;
    if (!name) {
        CLAPI_TRACE(EXC, 1401, "clapi_channel.validateName() name is NULL\n");
        rc = ECI_ERR_INVALID_NAME;
    } else if (*name == '\0') {
        CLAPI_TRACE(EXC, 1407, "clapi_channel.validateName() name is zero length\n");
        rc = ECI_ERR_INVALID_NAME;
    } else {
        for (size_t count = 0; name[count] != '\0'; ++count) {
            if (count == CHANNEL_NAME_LENGTH) {
                CLAPI_TRACE(EXC, 1402, "clapi_channel.validateName() name length exceeds %d\n",
                            (int)CHANNEL_NAME_LENGTH);
                rc = ECI_ERR_INVALID_NAME;
                break;
            }
            if (!isNameCharacter(name[count])) {
                CLAPI_TRACE(EXC, 1403, "clapi_channel.validateName() name contains invalid character '%c'\n",
                            (int)name[count]);
                rc = ECI_ERR_INVALID_NAME;
                break;
            }
        }
    }
    CLAPI_TRACE(EXIT, 1404, "clapi_channel.validateName() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

int clapiCcsidForCodePage(int codePage) {
    switch (codePage) {
        case 932: return 943;
        case 936: return 1386;
        case 949: return 1363;
        default: break;
    }
    if (codePage >= 1250 && codePage <= 1257) return codePage + 4096;
    return codePage;
}

int getCurrentCcsid(int* ccsidPtr) {
    CLAPI_TRACE(ENTRY, 1435, "clapi_channel.getCurrentCcsid(ccsidPtr=%p)\n", (void*)ccsidPtr);
    int codePage = platformAnsiCodePage();
    CLAPI_TRACE(DEBUG, 1440, "clapi_channel.getCurrentCcsid() GetACP() returned %d\n", codePage);
    int ccsid = clapiCcsidForCodePage(codePage);
    if (ccsidPtr) *ccsidPtr = ccsid;
    CLAPI_TRACE(EXIT, 1441, "clapi_channel.getCurrentCcsid() rc=%d, *ccsidPtr=%d\n", 0, ccsid);
    return 0;
}

// No owner is recorded and there is no time limit: any thread may unlock, and a
// thread that locks a channel it already holds waits for ever.
int lockChannel(kvlChannel* chanTok) {
    CLAPI_TRACE(ENTRY, 1460, "clapi_channel.lockChannel(chanTok=%p)\n", (void*)chanTok);
    int rc = ECI_NO_ERROR;
    if (!chanTok) {
        CLAPI_TRACE(EXC, 1461, "clapi_channel.lockChannel() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (clapiRequestLock(&chanTok->serlock) != 0) {
        CLAPI_TRACE(EXC, 1462, "clapi_channel.lockChannel() chanTok (%p) is not a channel\n", (void*)chanTok);
        rc = ECI_ERR_INVALID_CHANNEL;
    } else {
        bool waited = false;
        for (;;) {
            if (chanTok->deleted.load() != 0) {
                // Deleted while this call waited: the record stays until its last user ends.
                clapiReleaseLock(&chanTok->serlock);
                rc = ECI_ERR_INVALID_CHANNEL;
                break;
            }
            if (chanTok->isLocked == 0) {
                if (clapiSetEvent(&chanTok->unlockEvent) != 0) {
                    CLAPI_TRACE(EXC, 1467, "clapi_channel.lockChannel() Failed to set unlockEvent for channel (%p)\n",
                                (void*)chanTok);
                    rc = ECI_ERR_SYSTEM_ERROR;
                } else {
                    chanTok->isLocked = 1;
                    if (waited) {
                        CLAPI_TRACE(EVENT, 1468,
                                    "clapi_channel.lockChannel() Finished waiting for channel \"%.16s\" (%p)\n",
                                    chanTok->name, (void*)chanTok);
                    }
                }
                if (clapiReleaseLock(&chanTok->serlock) != 0) {
                    CLAPI_TRACE(EXC, 1469, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n",
                                (void*)chanTok);
                    rc = ECI_ERR_SYSTEM_ERROR;
                }
                break;
            }
            if (!waited) {
                CLAPI_TRACE(EVENT, 1463, "clapi_channel.lockChannel() Waiting for channel \"%.16s\" (%p)\n",
                            chanTok->name, (void*)chanTok);
                waited = true;
            }
            // serlock is never held across the wait.
            if (clapiReleaseLock(&chanTok->serlock) != 0) {
                CLAPI_TRACE(EXC, 1464, "clapi_channel.lockChannel() Failed to release lock for channel (%p)\n",
                            (void*)chanTok);
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            if (clapiWaitEvent(&chanTok->unlockEvent) != 0) {
                CLAPI_TRACE(EXC, 1465, "clapi_channel.lockChannel() Failed to wait on unlockEvent for channel (%p)\n",
                            (void*)chanTok);
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
            if (clapiRequestLock(&chanTok->serlock) != 0) {
                CLAPI_TRACE(EXC, 1466, "clapi_channel.lockChannel() Failed to acquire lock for channel (%p)\n",
                            (void*)chanTok);
                rc = ECI_ERR_SYSTEM_ERROR;
                break;
            }
        }
    }
    CLAPI_TRACE(EXIT, 1470, "clapi_channel.lockChannel() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}

// Unlocking a free channel is harmless. Every waiter is released; they race for
// serlock and the first to see the channel free takes it.
int unlockChannel(kvlChannel* chanTok) {
    CLAPI_TRACE(ENTRY, 1471, "clapi_channel.unlockChannel(chanTok=%p)\n", (void*)chanTok);
    int rc = ECI_NO_ERROR;
    if (!chanTok) {
        CLAPI_TRACE(EXC, 1472, "clapi_channel.unlockChannel() chanTok is NULL\n");
        rc = ECI_ERR_INVALID_CHANNEL;
    } else if (clapiRequestLock(&chanTok->serlock) != 0) {
        CLAPI_TRACE(EXC, 1473, "clapi_channel.unlockChannel() chanTok (%p) is not a channel\n", (void*)chanTok);
        rc = ECI_ERR_INVALID_CHANNEL;
    } else {
        if (clapiClearEvent(&chanTok->unlockEvent) != 0) {
            CLAPI_TRACE(EXC, 1474, "clapi_channel.unlockChannel() Failed to clear unlockEvent for channel (%p)\n",
                        (void*)chanTok);
            rc = ECI_ERR_SYSTEM_ERROR;
        } else {
            chanTok->isLocked = 0;
        }
        if (clapiReleaseLock(&chanTok->serlock) != 0) {
            CLAPI_TRACE(EXC, 1475, "clapi_channel.unlockChannel() Failed to release channel lock (%p)\n",
                        (void*)chanTok);
            rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 1476, "clapi_channel.unlockChannel() rc=%d (%s)\n", rc, clapiChannelRcName(rc));
    return rc;
}
