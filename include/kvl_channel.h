/** @file kvl_channel.h
 * Channels and containers: a channel is a named set of named containers, each
 * holding bytes (ECI_BIT) or characters in a CCSID (ECI_CHAR); it travels with
 * a program call made by KVL_ECI_Execute_Channel() instead of a COMMAREA, and
 * the reply's containers replace, extend or shrink it.
 *
 * Names of channels and containers: 1 to 16 characters from A-Z a-z 0-9 and
 * <tt><>$@#/%&?!:|"=';.-_</tt>, case-sensitive, not blank-padded; anything else
 * gives ECI_ERR_INVALID_NAME.
 *
 * Thread safety: every function may be called from any thread. Each call that
 * names a channel holds it for its own duration and waits while the channel
 * belongs to another call or to an outstanding channel request (until its reply
 * is applied). The browse cursor of ECI_getFirstContainer() and
 * ECI_getNextContainer() is one per channel, shared by all threads. A channel
 * must not be deleted while another thread uses it.
 */
#ifndef KVL_CHANNEL_H
#define KVL_CHANNEL_H

#include <stddef.h>

#include "kvl_export.h"

/** @name Container types
 * @{ */
#define ECI_BIT 1  /**< binary data, sent as it is */
#define ECI_CHAR 2 /**< character data in the container's CCSID */
/** @} */

/** @name Channel and container return codes
 * ECI_NO_ERROR, ECI_ERR_INVALID_DATA_LENGTH and ECI_ERR_SYSTEM_ERROR are
 * shared with kvl_eci.h and defined identically. ECI_ERR_NULLPTR and
 * ECI_ERR_MEMORY_SHORTAGE share their values with KVL_ERR_NULLPTR and
 * KVL_ERR_MALLOCFAIL.
 * @{ */
#ifndef ECI_NO_ERROR
#define ECI_NO_ERROR 0 /**< success */
#endif
#ifndef ECI_ERR_INVALID_DATA_LENGTH
#define ECI_ERR_INVALID_DATA_LENGTH (-1) /**< data NULL with a length that is not 0 */
#endif
#ifndef ECI_ERR_SYSTEM_ERROR
#define ECI_ERR_SYSTEM_ERROR (-9) /**< the channel could not be locked, waited for or released */
#endif
#define ECI_ERR_INVALID_CHANNEL (-50)    /**< the channel is NULL or not a channel */
#define ECI_ERR_INVALID_NAME (-51)       /**< a channel or container name that is NULL, empty, too long or has a character not allowed */
#define ECI_ERR_NULLCHANNELPTR (-52)     /**< the pointer to the caller's chanTok variable is NULL */
#define ECI_ERR_CHANNELLOCKFAIL (-53)    /**< the channel's lock or event could not be created */
#define ECI_ERR_ENDOFCONTAINERS (-54)    /**< browsing: no (further) container */
#define ECI_ERR_NULLINFOPTR (-55)        /**< the EciContainerInfo pointer is NULL */
#define ECI_ERR_INVALID_TYPE (-56)       /**< a container type other than ECI_BIT and ECI_CHAR */
#define ECI_ERR_CONTAINER_NOTFOUND (-58) /**< the channel has no container of that name */
#define ECI_ERR_CONTAINER_EXISTS (-59)   /**< the channel already has a container of that name */
#define ECI_ERR_COMMAREA_AND_CHANNEL (-60) /**< KVL_ECI_Execute_Channel() with both a channel and a COMMAREA */
#define ECI_ERR_NULLPTR (-109)           /**< a required buffer pointer is NULL */
#define ECI_ERR_MEMORY_SHORTAGE (-111)   /**< memory could not be allocated */
#define ECI_ERR_LOCKFAIL (-121)          /**< a lock could not be taken */
/** @} */

/** A channel; opaque. NULL means no channel. */
typedef struct kvlChannel* chanTok;

/** Longest channel or container name; name buffers hold one byte more. */
#define ECI_CHANNEL_NAME_LENGTH 16

/** What the library reports about one container; part of the application interface. */
typedef struct EciContainerInfo {
    char name[ECI_CHANNEL_NAME_LENGTH + 1]; /**< the container's name, always terminated */
    int type;                               /**< ECI_BIT or ECI_CHAR */
    int ccsid;                              /**< CCSID of an ECI_CHAR container's data; 0 for ECI_BIT */
    unsigned long long dataLength;          /**< bytes of data the container holds */
} EciContainerInfo;

KVL_EXTERN_C_BEGIN

/** @name Channels
 * @{ */

/** Creates an empty channel. Names need not be unique.
 * @param name the channel's name (see the rules above).
 * @param tokPtr receives the channel.
 * @return ECI_NO_ERROR; ECI_ERR_NULLCHANNELPTR (checked first), ECI_ERR_INVALID_NAME,
 *         ECI_ERR_MEMORY_SHORTAGE, ECI_ERR_CHANNELLOCKFAIL. */
KVL_API int ECI_createChannel(const char* name, chanTok* tokPtr);
/** Deletes a channel with its containers; their data is overwritten with zeros
 * before it is freed. Waits while the channel belongs to a request.
 * @param tokPtr the caller's channel variable; set to NULL on success.
 * @return ECI_NO_ERROR; ECI_ERR_NULLCHANNELPTR; ECI_ERR_INVALID_CHANNEL when *tokPtr is NULL; ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_deleteChannel(chanTok* tokPtr);
/** Deletes every channel of the process without waiting for them: call it only
 * when no channel request is outstanding and no other thread uses a channel.
 * Callers' chanTok variables are not changed: do not use them afterwards.
 * @return ECI_NO_ERROR always. */
KVL_API int ECI_deleteAllChannels(void);
/** Copies a channel's name.
 * @param channel the channel.
 * @param nameBuffer ECI_CHANNEL_NAME_LENGTH + 1 bytes; receives the name, terminated.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLPTR, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_getChannelName(chanTok channel, char* nameBuffer);
/** Writes every channel and container to the trace destination, whatever the
 * trace level: a snapshot for diagnosis, taken without waiting for channels in use.
 * @return KVL_OK always. */
KVL_API int KVL_ECI_dumpChannels(void);
/** @} */

/** @name Containers
 * Every function checks its arguments, then holds the channel for its work.
 * The library keeps its own copy of each container's data.
 * @{ */

/** Adds a container (it becomes the first one browsed: the newest comes first).
 * @param channel the channel.
 * @param name the container's name, unique within the channel.
 * @param type ECI_BIT or ECI_CHAR.
 * @param ccsid for ECI_CHAR: the data's CCSID, or 0 for the channel's (which is
 *        the process's code page when the channel has none yet; the first
 *        character container decides the channel's CCSID). Ignored for ECI_BIT.
 * @param data the bytes to copy; may be NULL when dataLength is 0.
 * @param dataLength bytes of data.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_TYPE,
 *         ECI_ERR_INVALID_DATA_LENGTH, ECI_ERR_INVALID_NAME (checked in this
 *         order), ECI_ERR_CONTAINER_EXISTS, ECI_ERR_MEMORY_SHORTAGE, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_createContainer(chanTok channel, const char* name, int type, int ccsid, const void* data,
                                size_t dataLength);
/** Deletes a container; its data is overwritten with zeros before it is freed.
 * A browse positioned on it continues with the container that followed it.
 * @param channel the channel.
 * @param name the container's name.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_NAME,
 *         ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_deleteContainer(chanTok channel, const char* name);
/** Copies data out of a container. Reading at or past the end is not an error:
 * it copies nothing and reports 0 bytes.
 * @param channel the channel.
 * @param name the container's name.
 * @param buffer receives at most length bytes.
 * @param length size of buffer.
 * @param offset first byte of the container's data to copy.
 * @param bytesReadPtr receives the number of bytes copied; may be NULL.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLPTR (buffer NULL),
 *         ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_getContainerData(chanTok channel, const char* name, void* buffer, size_t length, size_t offset,
                                 size_t* bytesReadPtr);
/** Describes one container.
 * @param channel the channel.
 * @param name the container's name.
 * @param infoPtr receives its name, type, CCSID and data length.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLINFOPTR,
 *         ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_getContainerInfo(chanTok channel, const char* name, EciContainerInfo* infoPtr);
/** Starts browsing a channel: describes its newest container.
 * @param channel the channel.
 * @param infoPtr receives the container's description.
 * @return ECI_NO_ERROR; ECI_ERR_ENDOFCONTAINERS when the channel is empty;
 *         ECI_ERR_INVALID_CHANNEL, ECI_ERR_NULLINFOPTR, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_getFirstContainer(chanTok channel, EciContainerInfo* infoPtr);
/** Continues browsing: describes the next container. After the last one it
 * returns ECI_ERR_ENDOFCONTAINERS once, and the call after that starts again
 * with the first; without a preceding ECI_getFirstContainer() it also starts
 * with the first.
 * @param channel the channel.
 * @param infoPtr receives the container's description.
 * @return ECI_NO_ERROR; ECI_ERR_ENDOFCONTAINERS; ECI_ERR_INVALID_CHANNEL,
 *         ECI_ERR_NULLINFOPTR, ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_getNextContainer(chanTok channel, EciContainerInfo* infoPtr);
/** Replaces a container's data; its type and CCSID stay.
 * @param channel the channel.
 * @param name the container's name.
 * @param data the new bytes; may be NULL when dataLength is 0.
 * @param dataLength bytes of data; 0 empties the container.
 * @return ECI_NO_ERROR; ECI_ERR_INVALID_CHANNEL, ECI_ERR_INVALID_DATA_LENGTH,
 *         ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_NOTFOUND, ECI_ERR_MEMORY_SHORTAGE
 *         (the container is then left empty), ECI_ERR_SYSTEM_ERROR. */
KVL_API int ECI_setContainerData(chanTok channel, const char* name, const void* data, size_t dataLength);
/** @} */

KVL_EXTERN_C_END

#endif
