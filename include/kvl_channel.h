/* kvlclient: channels and containers. */
#ifndef KVL_CHANNEL_H
#define KVL_CHANNEL_H

#include <stddef.h>

#include "kvl_export.h"

/* Container types. */
#define ECI_BIT 1
#define ECI_CHAR 2

/* Channel and container return codes (ECI_NO_ERROR, ECI_ERR_INVALID_DATA_LENGTH and
 * ECI_ERR_SYSTEM_ERROR are shared with kvl_eci.h and defined identically). */
#ifndef ECI_NO_ERROR
#define ECI_NO_ERROR 0
#endif
#ifndef ECI_ERR_INVALID_DATA_LENGTH
#define ECI_ERR_INVALID_DATA_LENGTH (-1)
#endif
#ifndef ECI_ERR_SYSTEM_ERROR
#define ECI_ERR_SYSTEM_ERROR (-9)
#endif
#define ECI_ERR_INVALID_CHANNEL (-50)
#define ECI_ERR_INVALID_NAME (-51)
#define ECI_ERR_NULLCHANNELPTR (-52)
#define ECI_ERR_CHANNELLOCKFAIL (-53)
#define ECI_ERR_ENDOFCONTAINERS (-54)
#define ECI_ERR_NULLINFOPTR (-55)
#define ECI_ERR_INVALID_TYPE (-56)
#define ECI_ERR_CONTAINER_NOTFOUND (-58)
#define ECI_ERR_CONTAINER_EXISTS (-59)
#define ECI_ERR_COMMAREA_AND_CHANNEL (-60)
#define ECI_ERR_NULLPTR (-109)
#define ECI_ERR_MEMORY_SHORTAGE (-111)
#define ECI_ERR_LOCKFAIL (-121)

/* A channel; opaque. */
typedef struct kvlChannel* chanTok;

/* Length of channel and container names; name buffers hold one byte more. */
#define ECI_CHANNEL_NAME_LENGTH 16

/* What the library reports about one container; part of the application interface. */
typedef struct EciContainerInfo {
    char name[ECI_CHANNEL_NAME_LENGTH + 1]; /* always terminated */
    int type;                               /* ECI_BIT or ECI_CHAR */
    int ccsid;                              /* 0 for ECI_BIT */
    unsigned long long dataLength;
} EciContainerInfo;

/* Thread safety: every function may be called from any thread. Each call that names
 * a channel waits while that channel belongs to another call or to an outstanding
 * channel request. The browse cursor of ECI_getFirstContainer/ECI_getNextContainer
 * is one per channel, shared by all threads. A channel must not be deleted while
 * another thread uses it. */

KVL_EXTERN_C_BEGIN

/* Names: 1 to 16 characters from A-Z a-z 0-9 and <>$@#/%&?!:|"=';.-_ (case-sensitive). */
KVL_API int ECI_createChannel(const char* name, chanTok* tokPtr);
/* Frees the channel, its containers and their data; sets *tokPtr to NULL. */
KVL_API int ECI_deleteChannel(chanTok* tokPtr);
/* Frees every channel without waiting for them: only when no request is outstanding. */
KVL_API int ECI_deleteAllChannels(void);
/* nameBuffer must hold ECI_CHANNEL_NAME_LENGTH + 1 bytes; the result is terminated. */
KVL_API int ECI_getChannelName(chanTok channel, char* nameBuffer);
/* Writes every channel and container to the trace destination, whatever the level. */
KVL_API int KVL_ECI_dumpChannels(void);

/* Containers: the library keeps its own copy of the data. A ccsid of 0 for an ECI_CHAR
 * container means the channel's CCSID, or that of the process's code page. */
KVL_API int ECI_createContainer(chanTok channel, const char* name, int type, int ccsid, const void* data,
                                size_t dataLength);
KVL_API int ECI_deleteContainer(chanTok channel, const char* name);
/* Copies at most length bytes from offset on; reading at or past the end gives 0 bytes. */
KVL_API int ECI_getContainerData(chanTok channel, const char* name, void* buffer, size_t length, size_t offset,
                                 size_t* bytesReadPtr);
KVL_API int ECI_getContainerInfo(chanTok channel, const char* name, EciContainerInfo* infoPtr);
/* Browse newest first; after ECI_ERR_ENDOFCONTAINERS the next call starts again. */
KVL_API int ECI_getFirstContainer(chanTok channel, EciContainerInfo* infoPtr);
KVL_API int ECI_getNextContainer(chanTok channel, EciContainerInfo* infoPtr);
/* Replaces the data; the type and CCSID stay. A length of 0 empties the container. */
KVL_API int ECI_setContainerData(chanTok channel, const char* name, const void* data, size_t dataLength);

KVL_EXTERN_C_END

#endif
