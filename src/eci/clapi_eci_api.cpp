// The exported ECI entry points: KVL_ECI_Execute and KVL_ECI_Execute_Channel.
#include <cstring>

#include "eci/clapi_channel.h"
#include "eci/clapi_eci.h"
#include "eci/clapi_eciparms.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvl_eci.h"
#include "kvlclient.h"

namespace {

constexpr int kChannelMinVersion = 4;
constexpr int kCommareaMinVersion = 3;

bool isRequest(short callType) { return callType == ECI_SYNC || callType == ECI_ASYNC; }
bool usesChannel(short extendMode) { return extendMode != ECI_COMMIT && extendMode != ECI_BACKOUT; }

// What a dump of the block shows: a copy with the password replaced by
// asterisks. The caller's block is never changed, so no other reader of it can
// see the asterisks, and the copy is wiped afterwards.
class maskedParms {
public:
    explicit maskedParms(const EciParms* parms) {
        memcpy(&copy_, parms, sizeof copy_);
        memset(copy_.eci_password, '*', sizeof copy_.eci_password);
    }
    ~maskedParms() { clapiChannelWipe(&copy_, sizeof copy_); }
    maskedParms(const maskedParms&) = delete;
    maskedParms& operator=(const maskedParms&) = delete;
    const void* bytes() const { return &copy_; }

private:
    EciParms copy_;
};

constexpr int kParmsLength = static_cast<int>(sizeof(EciParms));

void dumpCommarea(const EciParms* parms) {
    if (parms->eci_commarea_length >= 1 && parms->eci_commarea)
        CLAPI_TRACE_DATA(1561, parms->eci_commarea, static_cast<size_t>(parms->eci_commarea_length),
                         "API.KVL_ECI_Execute() Commarea=%p len=%d stopword=%8.8X\n", parms->eci_commarea,
                         (int)parms->eci_commarea_length, 0u);
}

// The unregister that every registered call makes once; -9 only replaces success.
int unregister(kvlGatewayToken* gwTok, int rc, bool channelEntry) {
    if (clapiUnregisterRequest(gwTok) != 0) {
        if (channelEntry)
            CLAPI_TRACE(EXC, 1565, "API.KVL_ECI_Execute_Channel() Unregister request failed\n");
        else
            CLAPI_TRACE(EXC, 1563, "API.KVL_ECI_Execute() Unregister request failed\n");
        if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    }
    return rc;
}

// Fills in the CCSID of a channel that has none yet; the channel is held by this call.
int settleChannelCcsid(kvlChannel* channel) {
    if (clapiRequestLock(&channel->serlock) != 0) return ECI_ERR_SYSTEM_ERROR;
    int rc = 0;
    if (channel->ccsid == CHANNEL_CCSID_UNSET) {
        int ccsid = 0;
        rc = getCurrentCcsid(&ccsid);
        if (rc == 0) {
            channel->ccsid = ccsid;
            CLAPI_TRACE(EVENT, 1514, "API.KVL_ECI_Execute_Channel() Channel \"%.16s\" CCSID set to %d\n", channel->name,
                        ccsid);
        }
    }
    if (clapiReleaseLock(&channel->serlock) != 0 && rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
    return rc;
}

// Step 7 of the channel entry: the channel belongs to the request from before
// the send until the reply has been applied to it; an async request leaves it
// locked for getAsyncReply. Extend modes 2 and 4 send no channel and do not lock
// it, but an unset CCSID is still settled.
int executeChannelRequest(kvlGatewayToken* gwTok, EciParms* parms) {
    auto* channel = static_cast<kvlChannel*>(parms->eci_channel);
    const bool holdChannel = usesChannel(parms->eci_extend_mode);
    // A handle that is not on the channel list is never followed. The request
    // counts as a user of the channel until it lets go of it, so that the
    // record outlives it; modes 2 and 4 use it without locking it.
    int listed = clapiChannelIsListed(channel);
    int rc = 0;
    if (listed < 0) {
        rc = ECI_ERR_SYSTEM_ERROR;
    } else if (listed == 0) {
        CLAPI_TRACE(EXC, 1510, "API.KVL_ECI_Execute_Channel() NULL channel, channel=%p\n", parms->eci_channel);
        rc = ECI_ERR_INVALID_CHANNEL;
    } else {
        rc = holdChannel ? clapiHoldListedChannel(channel) : clapiUseListedChannel(channel);
        if (rc == ECI_ERR_LOCKFAIL) rc = ECI_ERR_SYSTEM_ERROR;
    }
    if (rc != 0) return rc;
    rc = settleChannelCcsid(channel);
    if (rc == 0) rc = performEciExecute(gwTok, parms, true);
    if (!holdChannel) {
        if (clapiEndChannelUse(channel)) clapiFreeChannelRecord(channel);
    } else if (!(rc == 0 && parms->eci_call_type == ECI_ASYNC)) {
        if (clapiReleaseListedChannel(channel) != 0) {
            CLAPI_TRACE(EXC, 1564, "API.KVL_ECI_Execute_Channel() Unlock channel failed\n");
            if (rc == 0) rc = ECI_ERR_SYSTEM_ERROR;
        }
    }
    return rc;
}

}  // namespace

extern "C" KVL_API int KVL_ECI_Execute(gwTok gatewayToken, EciParms* parms) {
    kvlGatewayToken* token = gatewayToken;
    CLAPI_TRACE(ENTRY, 1500, "API.KVL_ECI_Execute(gwTok=%p, EciParms=%p)\n", static_cast<void*>(token),
                static_cast<void*>(parms));
    int rc = 0;
    if (!token) {
        CLAPI_TRACE(EXC, 1501, "API.KVL_ECI_Execute() NULL gateway token, gwTok=%p\n", static_cast<void*>(token));
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        if (!parms) {
            CLAPI_TRACE(EXC, 1502, "API.KVL_ECI_Execute() NULL Eci Parameter, EciParms=%p\n", static_cast<void*>(parms));
            rc = KVL_ERR_NULLECIPOINTER;
        } else {
            rc = verifyEciParms(parms, kCommareaMinVersion);
            if (rc == 0 && token->closing.load() != 0 && isRequest(parms->eci_call_type)) {
                CLAPI_TRACE(EXC, 1503, "API.KVL_ECI_Execute() %s call attempted while connection is closing\n",
                            clapiEciCallTypeName(parms->eci_call_type));
                rc = KVL_ERR_GWTOK_CLOSED;
            }
            if (clapiTraceAdmits(CLAPI_LEVEL_DATA)) {
                maskedParms masked(parms);
                CLAPI_TRACE_DATA(1504, masked.bytes(), sizeof(EciParms),
                                 "API.KVL_ECI_Execute() EciParms=%p len=%d stopword=%8.8X\n", static_cast<void*>(parms),
                                 kParmsLength, 0u);
                dumpCommarea(parms);
            }
            if (rc == 0) {
                if (isRequest(parms->eci_call_type))
                    rc = performEciExecute(token, parms, false);
                else
                    rc = getAsyncReply(token, parms);
            }
        }
        rc = unregister(token, rc, false);
        if (parms && clapiTraceAdmits(CLAPI_LEVEL_DATA)) {
            maskedParms masked(parms);
            CLAPI_TRACE_DATA(1505, masked.bytes(), sizeof(EciParms),
                             "API.KVL_ECI_Execute EciParms=%p len=%d stopword=%8.8X\n", static_cast<void*>(parms),
                             kParmsLength, 0u);
        }
    }
    CLAPI_TRACE(EXIT, 1506, "API.KVL_ECI_Execute() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

extern "C" KVL_API int KVL_ECI_Execute_Channel(gwTok gatewayToken, EciParms* parms) {
    kvlGatewayToken* token = gatewayToken;
    CLAPI_TRACE(ENTRY, 1507, "API.KVL_ECI_Execute_Channel(gwTok=%p, EciParms=%p)\n", static_cast<void*>(token),
                static_cast<void*>(parms));
    int rc = 0;
    if (!token) {
        CLAPI_TRACE(EXC, 1508, "API.KVL_ECI_Execute_Channel() NULL gateway token, gwTok=%p\n",
                    static_cast<void*>(token));
        rc = KVL_ERR_NULLGWTOK;
    } else if ((rc = clapiRegisterRequest(token)) == 0) {
        if (!parms) {
            CLAPI_TRACE(EXC, 1509, "API.KVL_ECI_Execute_Channel() NULL Eci Parameter, EciParms=%p\n",
                        static_cast<void*>(parms));
            rc = KVL_ERR_NULLECIPOINTER;
        } else {
            rc = verifyEciParms(parms, kChannelMinVersion);
            const bool request = isRequest(parms->eci_call_type);
            if (rc == 0 && request) {
                if (!parms->eci_channel) {
                    CLAPI_TRACE(EXC, 1510, "API.KVL_ECI_Execute_Channel() NULL channel, channel=%p\n",
                                parms->eci_channel);
                    rc = ECI_ERR_INVALID_CHANNEL;
                } else if (parms->eci_commarea) {
                    CLAPI_TRACE(EXC, 1511,
                                "API.KVL_ECI_Execute_Channel() EciParms contains a channel and a COMMAREA, channel=%p, "
                                "eci_commarea=%p\n",
                                parms->eci_channel, parms->eci_commarea);
                    rc = ECI_ERR_COMMAREA_AND_CHANNEL;
                } else if (token->closing.load() != 0) {
                    CLAPI_TRACE(EXC, 1512, "API.KVL_ECI_Execute_Channel() %s call attempted while connection is closing\n",
                                clapiEciCallTypeName(parms->eci_call_type));
                    rc = KVL_ERR_GWTOK_CLOSED;
                }
            }
            if (clapiTraceAdmits(CLAPI_LEVEL_DATA)) {
                maskedParms masked(parms);
                CLAPI_TRACE_DATA(1513, masked.bytes(), sizeof(EciParms),
                                 "API.KVL_ECI_Execute_Channel() EciParms=%p len=%d stopword=%8.8X\n",
                                 static_cast<void*>(parms), kParmsLength, 0u);
            }
            if (rc == 0) {
                if (request)
                    rc = executeChannelRequest(token, parms);
                else
                    rc = getAsyncReply(token, parms);
            }
        }
        rc = unregister(token, rc, true);
        if (parms && clapiTraceAdmits(CLAPI_LEVEL_DATA)) {
            maskedParms masked(parms);
            CLAPI_TRACE_DATA(1515, masked.bytes(), sizeof(EciParms),
                             "API.KVL_ECI_Execute_Channel() EciParms=%p len=%d stopword=%8.8X\n",
                             static_cast<void*>(parms), kParmsLength, 0u);
        }
    }
    CLAPI_TRACE(EXIT, 1516, "API.KVL_ECI_Execute_Channel() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}
