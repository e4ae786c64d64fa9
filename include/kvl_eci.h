/* kvlclient: External Call Interface (program calls with a COMMAREA or a channel). */
#ifndef KVL_ECI_H
#define KVL_ECI_H

#include "kvl_export.h"
#include "kvlclient.h"

/* Call types (eci_call_type). */
#define ECI_SYNC 1
#define ECI_ASYNC 2
#define ECI_GET_REPLY 3
#define ECI_GET_REPLY_WAIT 4
#define ECI_GET_SPECIFIC_REPLY 5
#define ECI_GET_SPECIFIC_REPLY_WAIT 6

/* ECI return codes; they share one number space with the KVL_ and channel codes. */
#define ECI_NO_ERROR 0
#define ECI_ERR_INVALID_DATA_LENGTH (-1)
#define ECI_ERR_INVALID_EXTEND_MODE (-2)
#define ECI_ERR_NO_ORIS (-3)
#define ECI_ERR_ORIS_DIED (-4)
#define ECI_ERR_REQUEST_TIMEOUT (-5)
#define ECI_ERR_RESPONSE_TIMEOUT (-6)
#define ECI_ERR_TRANSACTION_ABEND (-7)
#define ECI_ERR_LUW_TOKEN (-8)
#define ECI_ERR_SYSTEM_ERROR (-9)
#define ECI_ERR_INVALID_CALL_TYPE (-14)
#define ECI_ERR_ALREADY_ACTIVE (-15)
#define ECI_ERR_RESOURCE_SHORTAGE (-16)
#define ECI_ERR_NO_SESSIONS (-17)
#define ECI_ERR_INVALID_DATA_AREA (-19)
#define ECI_ERR_INVALID_VERSION (-21)
#define ECI_ERR_UNKNOWN_SERVER (-22)
#define ECI_ERR_SECURITY_ERROR (-27)
#define ECI_ERR_MAX_SYSTEMS (-28)
#define ECI_ERR_MAX_SESSIONS (-29)
#define ECI_ERR_ROLLEDBACK (-30)
#define ECI_ERR_NO_REPLY (-32)
#define ECI_ERR_INVALID_MSG_QUAL (-33)

/* The caller-owned ECI parameter block: 128 bytes, laid out for the x64 ABI of both
 * platforms. Character fields are fixed-width and not terminated. */
typedef struct EciParms {
    short eci_call_type;
    char eci_program[8];
    char eci_userid[16];
    char eci_password[16];
    char eci_tran_id[4];
    char eci_abend[4];
    char eci_reserved1[6];
    void* eci_commarea;
    short eci_commarea_length;
    short eci_timeout;
    short eci_extend_mode;
    short eci_reserved2;
    int eci_luw_token;
    short eci_version;
    char eci_server_name[8];
    char eci_alt_tran_id[4];
    short commarea_outbound_length;
    short commarea_inbound_length;
    short eci_reserved3;
    void* eci_channel;
    const char* eci_userid_ptr;
    const char* eci_password_ptr;
    int eci_msg_qual;
    int eci_reserved4;
} EciParms;

/* Extend modes of a logical unit of work. */
#define ECI_NO_EXTEND 0
#define ECI_EXTENDED 1
#define ECI_COMMIT 2
#define ECI_BACKOUT 4

/* Thread safety: any number of threads may run requests on one connection at once;
 * each synchronous caller waits only for its own reply. A parameter block belongs to
 * one call at a time. */

KVL_EXTERN_C_BEGIN

/* A program call with a COMMAREA (ECI_SYNC, ECI_ASYNC), or the retrieval of an
 * asynchronous reply (ECI_GET_REPLY and the other retrieval call types). An
 * ECI_ASYNC call returns once the request is sent and sets eci_msg_qual; the
 * library keeps its own copy of the reply until it is retrieved. */
KVL_API int KVL_ECI_Execute(gwTok gatewayToken, EciParms* parms);
/* The same with a channel in eci_channel (eci_commarea must be NULL, eci_version
 * at least 4). The channel belongs to the request until the reply has been applied
 * to it: for ECI_ASYNC, until the reply is retrieved. */
KVL_API int KVL_ECI_Execute_Channel(gwTok gatewayToken, EciParms* parms);

KVL_EXTERN_C_END

#endif
