// verifyEciParms: field-by-field checks of an EciParms block, in a fixed order.
#include "eci/clapi_eciparms.h"

#include <cstddef>

#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"

// The block is part of the application interface: the same 128 bytes on both platforms.
static_assert(offsetof(EciParms, eci_call_type) == 0);
static_assert(offsetof(EciParms, eci_program) == 2);
static_assert(offsetof(EciParms, eci_userid) == 10);
static_assert(offsetof(EciParms, eci_password) == 26);
static_assert(offsetof(EciParms, eci_tran_id) == 42);
static_assert(offsetof(EciParms, eci_abend) == 46);
static_assert(offsetof(EciParms, eci_commarea) == 56);
static_assert(offsetof(EciParms, eci_commarea_length) == 64);
static_assert(offsetof(EciParms, eci_timeout) == 66);
static_assert(offsetof(EciParms, eci_extend_mode) == 68);
static_assert(offsetof(EciParms, eci_luw_token) == 72);
static_assert(offsetof(EciParms, eci_version) == 76);
static_assert(offsetof(EciParms, eci_server_name) == 78);
static_assert(offsetof(EciParms, eci_alt_tran_id) == 86);
static_assert(offsetof(EciParms, commarea_outbound_length) == 90);
static_assert(offsetof(EciParms, commarea_inbound_length) == 92);
static_assert(offsetof(EciParms, eci_channel) == 96);
static_assert(offsetof(EciParms, eci_userid_ptr) == 104);
static_assert(offsetof(EciParms, eci_password_ptr) == 112);
static_assert(offsetof(EciParms, eci_msg_qual) == 120);
static_assert(sizeof(EciParms) == 128);

namespace {

constexpr int kMaxEciVersion = 6;
// Asynchronous and reply-retrieval call types need this version whatever the caller's minimum.
constexpr int kAsyncEciVersion = 6;

bool validExtendMode(unsigned short mode) {
    return mode == ECI_NO_EXTEND || mode == ECI_EXTENDED || mode == ECI_COMMIT || mode == ECI_BACKOUT;
}

int check(const EciParms* p, int minVersion) {
    const void* block = p;
    if (p->eci_version < minVersion || p->eci_version > kMaxEciVersion) {
        CLAPI_TRACE(EXC, 1549, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n", block,
                    (int)p->eci_version);
        return ECI_ERR_INVALID_VERSION;
    }
    if (p->eci_call_type < ECI_SYNC || p->eci_call_type > ECI_GET_SPECIFIC_REPLY_WAIT) {
        CLAPI_TRACE(EXC, 1550, "clapi_eci.verifyEciParms() Invalid Call Type, EciParms=%p, eci_call_type=%d\n", block,
                    (int)p->eci_call_type);
        return ECI_ERR_INVALID_CALL_TYPE;
    }
    CLAPI_TRACE(DEBUG, 1551, "clapi_eci.verifyEciParms() Call type is %s\n", clapiEciCallTypeName(p->eci_call_type));
    if (p->eci_call_type != ECI_SYNC && p->eci_version < kAsyncEciVersion) {
        CLAPI_TRACE(EXC, 1552, "clapi_eci.verifyEciParms() Invalid ECI Version, EciParms=%p, eci_version=%d\n", block,
                    (int)p->eci_version);
        return ECI_ERR_INVALID_VERSION;
    }
    // Reply retrieval does not look at the extend mode.
    if ((p->eci_call_type == ECI_SYNC || p->eci_call_type == ECI_ASYNC) &&
        !validExtendMode(static_cast<unsigned short>(p->eci_extend_mode))) {
        CLAPI_TRACE(EXC, 1553, "clapi_eci.verifyEciParms() Invalid Extend Mode, EciParms=%p, eci_extend_mode=%d\n",
                    block, (int)p->eci_extend_mode);
        return ECI_ERR_INVALID_EXTEND_MODE;
    }
    if (p->eci_commarea_length < 0) {
        CLAPI_TRACE(EXC, 1554, "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, eci_commarea_length=%d\n",
                    block, (int)p->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (p->commarea_inbound_length < 0) {
        CLAPI_TRACE(EXC, 1555,
                    "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_inbound_length=%d\n", block,
                    (int)p->commarea_inbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (p->commarea_outbound_length < 0) {
        CLAPI_TRACE(EXC, 1556,
                    "clapi_eci.verifyEciParms() Invalid Data Length, EciParms=%p, commarea_outbound_length=%d\n", block,
                    (int)p->commarea_outbound_length);
        return ECI_ERR_INVALID_DATA_LENGTH;
    }
    if (!p->eci_commarea && p->eci_commarea_length != 0) {
        CLAPI_TRACE(EXC, 1557,
                    "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea NULL but "
                    "eci_commarea_length=%d \n",
                    block, (int)p->eci_commarea_length);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    if (p->eci_commarea && p->eci_commarea_length == 0) {
        CLAPI_TRACE(EXC, 1558,
                    "clapi_eci.verifyEciParms() Invalid Data Area, EciParms=%p, Commarea not NULL but "
                    "eci_commarea_length=0\n",
                    block);
        return ECI_ERR_INVALID_DATA_AREA;
    }
    // A bad timeout is reported with the request-timeout code; there is no code of its own.
    if (p->eci_timeout < 0) {
        CLAPI_TRACE(EXC, 1559, "clapi_eci.verifyEciParms() Invalid Timeout, EciParms=%p, eci_timeout=%d\n", block,
                    (int)p->eci_timeout);
        return ECI_ERR_REQUEST_TIMEOUT;
    }
    return ECI_NO_ERROR;
}

}  // namespace

int verifyEciParms(EciParms* parms, int minVersion) {
    CLAPI_TRACE(ENTRY, 1548, "clapi_eci.verifyEciParms(EciParms=%p, minVersion=%d)\n", (void*)parms, minVersion);
    int rc = check(parms, minVersion);
    CLAPI_TRACE(EXIT, 1560, "clapi_eci.verifyEciParms() rc=%d (%s)\n", rc, clapiEciRcName(rc));
    return rc;
}
