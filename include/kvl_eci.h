/** @file kvl_eci.h
 * External Call Interface: program calls on a server with a COMMAREA or a
 * channel, synchronous or asynchronous, and units of work.
 *
 * Valid versions (EciParms::eci_version) by call type:
 *
 * | call type | KVL_ECI_Execute() | KVL_ECI_Execute_Channel() |
 * |---|---|---|
 * | ECI_SYNC | 3..6 | 4..6 |
 * | ECI_ASYNC and the four retrieval types | 6 | 6 |
 *
 * Any other version gives ECI_ERR_INVALID_VERSION (-21); version 6 is valid for
 * everything. Versions 3 and 4 take the user id and password from the fixed
 * fields eci_userid and eci_password, versions 5 and 6 from eci_userid_ptr and
 * eci_password_ptr.
 *
 * Thread safety: any number of threads may run requests on one connection at
 * once; each synchronous caller waits only for its own reply, so replies may
 * arrive in any order. A parameter block belongs to one call at a time.
 */
#ifndef KVL_ECI_H
#define KVL_ECI_H

#include "kvl_export.h"
#include "kvlclient.h"

/** @name Call types (EciParms::eci_call_type)
 * @{ */
#define ECI_SYNC 1                    /**< call a program and wait for its reply */
#define ECI_ASYNC 2                   /**< call a program; return once sent, with eci_msg_qual set */
#define ECI_GET_REPLY 3               /**< take any asynchronous reply that has arrived; do not wait */
#define ECI_GET_REPLY_WAIT 4          /**< take any asynchronous reply, waiting for one */
#define ECI_GET_SPECIFIC_REPLY 5      /**< take the reply of the request eci_msg_qual names; do not wait */
#define ECI_GET_SPECIFIC_REPLY_WAIT 6 /**< take the reply of the request eci_msg_qual names, waiting for it */
/** @} */

/** @name ECI return codes
 * They share one number space with the KVL_ codes (kvlclient.h) and the
 * channel codes (kvl_channel.h). The codes -3..-8, -17, -22, -27..-30 come
 * from the Gateway or the server in the reply; the others are the library's.
 * @{ */
#define ECI_NO_ERROR 0                  /**< success */
#define ECI_ERR_INVALID_DATA_LENGTH (-1) /**< a negative COMMAREA length, or (retrieval) the caller's COMMAREA is smaller than the reply: eci_commarea_length then says how big it must be and the reply stays queued */
#define ECI_ERR_INVALID_EXTEND_MODE (-2) /**< eci_extend_mode is not 0, 1, 2 or 4 */
#define ECI_ERR_NO_ORIS (-3)            /**< no server is available */
#define ECI_ERR_ORIS_DIED (-4)          /**< the server ended while the program ran */
#define ECI_ERR_REQUEST_TIMEOUT (-5)    /**< a negative eci_timeout, or the request timed out before it ran */
#define ECI_ERR_RESPONSE_TIMEOUT (-6)   /**< the program's reply did not come in time */
#define ECI_ERR_TRANSACTION_ABEND (-7)  /**< the program ended abnormally: eci_abend holds the abend code */
#define ECI_ERR_LUW_TOKEN (-8)          /**< eci_luw_token names no open unit of work */
#define ECI_ERR_SYSTEM_ERROR (-9)       /**< a lock, event or thread operation failed */
#define ECI_ERR_INVALID_CALL_TYPE (-14) /**< eci_call_type is not 1..6 */
#define ECI_ERR_ALREADY_ACTIVE (-15)    /**< the unit of work is already running a request */
#define ECI_ERR_RESOURCE_SHORTAGE (-16) /**< memory for the asynchronous reply could not be allocated, or the server lacked resources */
#define ECI_ERR_NO_SESSIONS (-17)       /**< the Gateway has no session free to the server */
#define ECI_ERR_INVALID_DATA_AREA (-19) /**< eci_commarea NULL with a length, or not NULL with length 0 */
#define ECI_ERR_INVALID_VERSION (-21)   /**< eci_version not valid for the call type (see the table above) */
#define ECI_ERR_UNKNOWN_SERVER (-22)    /**< eci_server_name names no server the Gateway knows */
#define ECI_ERR_SECURITY_ERROR (-27)    /**< the user id or password was not accepted */
#define ECI_ERR_MAX_SYSTEMS (-28)       /**< the Gateway reached its limit of servers */
#define ECI_ERR_MAX_SESSIONS (-29)      /**< the Gateway reached its limit of sessions */
#define ECI_ERR_ROLLEDBACK (-30)        /**< the unit of work was backed out instead of committed */
#define ECI_ERR_NO_REPLY (-32)          /**< retrieval without waiting: no reply has arrived (or the unit of work's slot holds none) */
#define ECI_ERR_INVALID_MSG_QUAL (-33)  /**< eci_msg_qual names no outstanding asynchronous request */
/** @} */

/** The caller-owned ECI parameter block: 128 bytes, laid out for the x64 ABI of
 * both platforms. Zero it, then set what the call needs.
 *
 * Character fields are fixed-width and not terminated: pad a shorter value
 * with blanks (the library sends them as they stand). Lengths are signed 16-bit,
 * so a COMMAREA holds at most 32767 bytes. "In" fields are read by the library,
 * "out" fields are written back when the call returns.
 */
typedef struct EciParms {
    /** In: ECI_SYNC .. ECI_GET_SPECIFIC_REPLY_WAIT. Out (retrieval types): ECI_ASYNC, the call type of the answered request. */
    short eci_call_type;
    /** In (ECI_SYNC, ECI_ASYNC): name of the program to run, 8 characters, blank-padded. */
    char eci_program[8];
    /** In (ECI_SYNC, ECI_ASYNC, versions 3 and 4): user id, 16 characters, blank-padded; blanks for none. */
    char eci_userid[16];
    /** In (ECI_SYNC, ECI_ASYNC, versions 3 and 4): password, 16 characters, blank-padded. Never traced; sent masked. */
    char eci_password[16];
    /** In (ECI_SYNC, ECI_ASYNC): transaction id the program runs under, 4 characters; used when eci_alt_tran_id is four zero bytes. */
    char eci_tran_id[4];
    /** Out: the program's abend code, 4 characters, with ECI_ERR_TRANSACTION_ABEND; blanks or zeros otherwise. */
    char eci_abend[4];
    /** Reserved: neither read nor written. */
    char eci_reserved1[6];
    /** In: the caller's COMMAREA, sent and overwritten by the reply in place; NULL for none and on channel requests. */
    void* eci_commarea;
    /** In: size of eci_commarea in bytes, 0..32767 (0 exactly when eci_commarea is NULL).
     * Out (retrieval types, ECI_ERR_INVALID_DATA_LENGTH): the size the reply needs. */
    short eci_commarea_length;
    /** In (ECI_SYNC, ECI_ASYNC): the request's time limit in seconds, carried to the Gateway; 0: none; negative gives ECI_ERR_REQUEST_TIMEOUT. */
    short eci_timeout;
    /** In (ECI_SYNC, ECI_ASYNC): ECI_NO_EXTEND, ECI_EXTENDED, ECI_COMMIT or ECI_BACKOUT; not checked on retrieval. */
    short eci_extend_mode;
    /** Reserved: neither read nor written. */
    short eci_reserved2;
    /** In (ECI_SYNC, ECI_ASYNC): 0 to start a request outside or at the start of a unit of work, or the token of an open one.
     * Out: the unit of work's token after the reply (0 when none is open). */
    int eci_luw_token;
    /** In: version of this block: see the table in kvl_eci.h; 6 is valid for every call. */
    short eci_version;
    /** In (ECI_SYNC, ECI_ASYNC): server to run the program on, 8 characters, blank-padded; blanks: the Gateway's first server. */
    char eci_server_name[8];
    /** In (ECI_SYNC, ECI_ASYNC): when not four zero bytes, sent instead of eci_tran_id as the transaction id. */
    char eci_alt_tran_id[4];
    /** In (ECI_SYNC, ECI_ASYNC, COMMAREA): bytes of the COMMAREA to send, 0: all of eci_commarea_length; larger values are cut to it. */
    short commarea_outbound_length;
    /** In (ECI_SYNC, ECI_ASYNC, COMMAREA): bytes expected back, 0: all of eci_commarea_length; larger values are cut to it.
     * Out (retrieval types): bytes the reply carried. */
    short commarea_inbound_length;
    /** Reserved: neither read nor written. */
    short eci_reserved3;
    /** In (KVL_ECI_Execute_Channel(), ECI_SYNC and ECI_ASYNC): the channel (a chanTok from kvl_channel.h); must be NULL for KVL_ECI_Execute().
     * Out (retrieval types): the answered request's channel, or NULL. */
    void* eci_channel;
    /** In (versions 5 and 6): terminated user id, or NULL for none. */
    const char* eci_userid_ptr;
    /** In (versions 5 and 6): terminated password, or NULL. Never traced; sent masked. */
    const char* eci_password_ptr;
    /** Out (ECI_ASYNC): the request's message qualifier. In (ECI_GET_SPECIFIC_REPLY, ECI_GET_SPECIFIC_REPLY_WAIT): the request whose reply to take.
     * Out (every retrieval type): the qualifier of the answered request. */
    int eci_msg_qual;
    /** Reserved: fills the block to 128 bytes. */
    int eci_reserved4;
} EciParms;

/** @name Extend modes (EciParms::eci_extend_mode): units of work
 * A unit of work groups calls on one connection whose changes the server
 * commits or backs out together.
 * @{ */
#define ECI_NO_EXTEND 0 /**< a call on its own; with the token of an open unit of work: the last call, which commits it */
#define ECI_EXTENDED 1  /**< a call that keeps the unit of work open (token 0 opens one; the reply's token names it) */
#define ECI_COMMIT 2    /**< commit the unit of work eci_luw_token names; no program runs and no data travels */
#define ECI_BACKOUT 4   /**< back out the unit of work eci_luw_token names; no program runs and no data travels */
/** @} */

KVL_EXTERN_C_BEGIN

/** A program call with a COMMAREA, or the retrieval of an asynchronous reply.
 *
 * - ECI_SYNC sends the request and waits, without a time limit of its own, for
 *   the reply, which is written into eci_commarea (unused bytes past the
 *   reply's length are zero-filled).
 * - ECI_ASYNC returns once the request is sent and sets eci_msg_qual; the
 *   COMMAREA may be reused at once: the library keeps its own copy of the
 *   reply until a retrieval call takes it.
 * - ECI_GET_REPLY .. ECI_GET_SPECIFIC_REPLY_WAIT take such a reply: the reply
 *   is copied into this block's eci_commarea (which must be large enough), and
 *   the block receives the answered request's fields (eci_call_type ECI_ASYNC,
 *   eci_msg_qual, eci_abend, eci_luw_token, commarea_inbound_length).
 *
 * The block is checked in this order, the first failure is the result:
 * version, call type, version for the call type, extend mode, the three
 * lengths (not negative), COMMAREA pointer against length, time-out.
 *
 * @param gatewayToken an open connection.
 * @param parms the request; see EciParms for the fields each call type uses.
 * @return ECI_NO_ERROR, or the reply's ECI code (for example
 *         ECI_ERR_TRANSACTION_ABEND with eci_abend); the ECI codes above for a
 *         bad block; ECI_ERR_NO_REPLY, ECI_ERR_INVALID_MSG_QUAL for retrievals;
 *         KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK, KVL_ERR_NULLECIPOINTER;
 *         KVL_ERR_GWTOK_CLOSED on a closing connection (retrievals still
 *         work while replies are outstanding); KVL_ERR_LOSTGWCON,
 *         KVL_ERR_GATEWAY_CLOSED and the other Gateway codes when the
 *         connection fails; KVL_ERR_MALLOCFAIL, ECI_ERR_SYSTEM_ERROR. */
KVL_API int KVL_ECI_Execute(gwTok gatewayToken, EciParms* parms);
/** The same with a channel in eci_channel instead of a COMMAREA.
 *
 * eci_commarea must be NULL and eci_version at least 4. The channel belongs to
 * the request until the reply has been applied to it (containers the program
 * added, changed or deleted): for ECI_SYNC until the call returns, for
 * ECI_ASYNC until the reply is retrieved. Meanwhile every channel or container
 * call on it waits. Extend modes ECI_COMMIT and ECI_BACKOUT send no containers.
 * If the channel has no CCSID yet, it gets the process's.
 *
 * @param gatewayToken an open connection.
 * @param parms the request; eci_channel holds the channel.
 * @return as KVL_ECI_Execute(), and ECI_ERR_INVALID_CHANNEL for a NULL channel,
 *         ECI_ERR_COMMAREA_AND_CHANNEL when eci_commarea is not NULL. */
KVL_API int KVL_ECI_Execute_Channel(gwTok gatewayToken, EciParms* parms);

KVL_EXTERN_C_END

#endif
