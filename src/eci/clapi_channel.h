// Channels and containers: records, the process-wide channel list, names,
// code pages and the long-lived per-channel lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "impl/clapi_lock.h"
#include "kvl_channel.h"

struct kvlContainer {
    char eyecatcher[8];  // "KVLCONTA"
    char name[16];       // zero-padded, unterminated when 16 long
    int32_t ccsid;       // ECI_CHAR only; 0 for ECI_BIT
    int32_t type;        // ECI_BIT or ECI_CHAR
    uint8_t* dataPtr;    // the container's own copy; null when the length is 0
    uint64_t dataLength;
    kvlContainer* nextCont;
};

struct kvlChannel {
    char eyecatcher[8];  // "KVLCHANN"
    char name[16];
    int32_t ccsid;  // -1 until known
    int32_t numContainers;
    clapiLock serlock;  // guards this record and its container list
    clapiEvent unlockEvent;
    int32_t isLocked;  // 1 while the channel belongs to a request or an API call
    kvlContainer* firstCont;  // newest first
    kvlContainer* currentCont;  // browse cursor shared by all callers
    kvlChannel* nextChannel;
    // Callers between clapiHoldListedChannel and clapiReleaseListedChannel (list
    // lock). A deleted channel leaves the list at once; its record is freed by
    // whoever ends the last use, so no caller ever touches a freed record.
    int32_t users;
    std::atomic<int32_t> deleted;  // 1 once off the list; waiters for the channel give up
};

constexpr int32_t CHANNEL_CCSID_UNSET = -1;
constexpr size_t CHANNEL_NAME_LENGTH = 16;
constexpr char CLAPI_CHANNEL_EYECATCHER[8] = {'K', 'V', 'L', 'C', 'H', 'A', 'N', 'N'};
constexpr char CLAPI_CONTAINER_EYECATCHER[8] = {'K', 'V', 'L', 'C', 'O', 'N', 'T', 'A'};

// Head of the process-wide channel list, newest first. Its links are guarded by
// clapiChannelListLock; each channel's own fields by its serlock.
extern kvlChannel* clapiChannelListHead;

int getCurrentCcsid(int* ccsidPtr);
int clapiCcsidForCodePage(int codePage);
int lockChannel(kvlChannel* chanTok);
int unlockChannel(kvlChannel* chanTok);
int validateName(const char* name);

// Wipes a container's data and record with zeros and frees both.
void clapiFreeContainer(kvlContainer* container);

// Zero-fill that the compiler may not drop as a dead store before free().
void clapiChannelWipe(void* data, size_t length);
// Bounded copy of a name into a 16-byte field: zero-padded, unterminated when 16 long.
void clapiCopyName(char (&field)[CHANNEL_NAME_LENGTH], const char* name);
// First container whose name equals `name` over 16 characters; *prevPtr (when
// given) receives its predecessor. The caller holds the channel.
kvlContainer* clapiFindContainer(kvlChannel* channel, const char* name, kvlContainer** prevPtr);
// Takes a channel for a caller that follows the handle: 0 with the channel
// locked (lockChannel) and counted in use, so that its record outlives the use;
// ECI_ERR_INVALID_CHANNEL when the handle is not on the list (it is then never
// followed) or the channel was deleted while this call waited for it;
// ECI_ERR_LOCKFAIL when the list lock fails.
int clapiHoldListedChannel(kvlChannel* channel);
// Counts a use of a listed channel without locking it: 0, ECI_ERR_INVALID_CHANNEL
// (not on the list, never followed) or ECI_ERR_LOCKFAIL. Ended by clapiEndChannelUse.
int clapiUseListedChannel(kvlChannel* channel);
// unlockChannel and the end of the use; the last user of a deleted channel frees it.
int clapiReleaseListedChannel(kvlChannel* channel);
// Ends a use without unlocking (the caller deleted the channel and unlocked
// it); true when this was the last use, the record is then the caller's to free.
bool clapiEndChannelUse(kvlChannel* channel);
// Destroys a channel's lock and event and frees its containers and record.
void clapiFreeChannelRecord(kvlChannel* channel);
// Whether `channel` is on the channel list; compares addresses only, so a stale
// handle is never dereferenced. Takes the channel list lock: -1 if that fails.
int clapiChannelIsListed(const kvlChannel* channel);
