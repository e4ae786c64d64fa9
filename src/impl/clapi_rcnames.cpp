// Names of return codes. One lookup chain: KVL_, then ECI (which falls back to the
// channel table), then, when both ECI tables answer "UNKNOWN", ESI.
#include <cstring>

#include "impl/clapi_impl.h"

namespace {
struct RcName {
    int rc;
    const char* name;
};

constexpr RcName kKvlNames[] = {
    {0, "KVL_OK"},
    {-9, "KVL_ERR_SYSTEM_ERROR"},
    {-25, "KVL_ERR_MORE_SYSTEMS"},
    {-26, "KVL_ERR_NO_SYSTEMS"},
    {-100, "KVL_ERR_NULLGWTOK"},
    {-101, "KVL_ERR_BADGWTOK"},
    {-102, "KVL_ERR_LOSTGWCON"},
    {-103, "KVL_ERR_NULLPARM"},
    {-104, "KVL_ERR_TRACELEVEL"},
    {-107, "KVL_ERR_BADPORT"},
    {-108, "KVL_ERR_NULLGWTOKPTR"},
    {-109, "KVL_ERR_NULLPTR"},
    {-111, "KVL_ERR_MALLOCFAIL"},
    {-118, "KVL_ERR_CONNECTFAILED"},
    {-130, "KVL_ERR_TRACEFILE"},
    {-132, "KVL_ERR_BADHOST"},
    {-133, "KVL_ERR_NULLADDRESS"},
    {-134, "KVL_ERR_CONNECTTIMEOUT"},
    {-137, "KVL_ERR_NULLECIPOINTER"},
    {-138, "KVL_ERR_INVALIDTIMEOUTPARM"},
    {-139, "KVL_ERR_APPLIDTOOLONG"},
    {-140, "KVL_ERR_GWTOK_CLOSED"},
    {61444, "KVL_ERR_GATEWAY_CLOSED"},
    {61445, "KVL_ERR_WORK_WAS_REFUSED"},
    {61446, "KVL_ERR_GATEWAY_EXCEPTION"},
    {61450, "KVL_ERR_GATEWAY_BACK_LEVEL"},
    {61451, "KVL_ERR_INVALID_REQUEST_TYPE"},
};

constexpr RcName kEciNames[] = {
    {-1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {-2, "ECI_ERR_INVALID_EXTEND_MODE"},
    {-3, "ECI_ERR_NO_ORIS"},
    {-4, "ECI_ERR_ORIS_DIED"},
    {-5, "ECI_ERR_REQUEST_TIMEOUT"},
    {-6, "ECI_ERR_RESPONSE_TIMEOUT"},
    {-7, "ECI_ERR_TRANSACTION_ABEND"},
    {-8, "ECI_ERR_LUW_TOKEN"},
    {-9, "ECI_ERR_SYSTEM_ERROR"},
    {-14, "ECI_ERR_INVALID_CALL_TYPE"},
    {-15, "ECI_ERR_ALREADY_ACTIVE"},
    {-16, "ECI_ERR_RESOURCE_SHORTAGE"},
    {-17, "ECI_ERR_NO_SESSIONS"},
    {-19, "ECI_ERR_INVALID_DATA_AREA"},
    {-21, "ECI_ERR_INVALID_VERSION"},
    {-22, "ECI_ERR_UNKNOWN_SERVER"},
    {-27, "ECI_ERR_SECURITY_ERROR"},
    {-28, "ECI_ERR_MAX_SYSTEMS"},
    {-29, "ECI_ERR_MAX_SESSIONS"},
    {-30, "ECI_ERR_ROLLEDBACK"},
    {-32, "ECI_ERR_NO_REPLY"},
    {-33, "ECI_ERR_INVALID_MSG_QUAL"},
};

constexpr RcName kChannelNames[] = {
    {0, "ECI_NO_ERROR"},
    {-1, "ECI_ERR_INVALID_DATA_LENGTH"},
    {-9, "ECI_ERR_SYSTEM_ERROR"},
    {-50, "ECI_ERR_INVALID_CHANNEL"},
    {-51, "ECI_ERR_INVALID_NAME"},
    {-52, "ECI_ERR_NULLCHANNELPTR"},
    {-53, "ECI_ERR_CHANNELLOCKFAIL"},
    {-54, "ECI_ERR_ENDOFCONTAINERS"},
    {-55, "ECI_ERR_NULLINFOPTR"},
    {-56, "ECI_ERR_INVALID_TYPE"},
    {-58, "ECI_ERR_CONTAINER_NOTFOUND"},
    {-59, "ECI_ERR_CONTAINER_EXISTS"},
    {-60, "ECI_ERR_COMMAREA_AND_CHANNEL"},
    {-109, "ECI_ERR_NULLPTR"},
    {-111, "ECI_ERR_MEMORY_SHORTAGE"},
    {-121, "ECI_ERR_LOCKFAIL"},
};

// Each ESI name answers to the ESI code and to the Gateway code mapped to it. -316 and
// -317 have no names of their own; only the Gateway's -28 and -29 name them.
struct EsiName {
    int esiRc;
    int gatewayRc;
    const char* name;
};

constexpr int kNoEsiName = 1;  // no ESI code is positive

constexpr EsiName kEsiNames[] = {
    {-300, -108, "ESI_ERR_USERID_INVALID"},    {-301, -100, "ESI_ERR_NULL_USERID"},
    {-302, -106, "ESI_ERR_PASSWORD_INVALID"},  {-303, -101, "ESI_ERR_NULL_PASSWORD"},
    {-304, -103, "ESI_ERR_PEM_NOT_SUPPORTED"}, {-305, -104, "ESI_ERR_PEM_NOT_ACTIVE"},
    {-306, -105, "ESI_ERR_PASSWORD_EXPIRED"},  {-307, -27, "ESI_ERR_SECURITY_ERROR"},
    {-308, -16, "ESI_ERR_RESOURCE_SHORTAGE"},  {-309, -17, "ESI_ERR_NO_SESSIONS"},
    {-310, -3, "ESI_ERR_NO_ORIS"},             {-311, -4, "ESI_ERR_ORIS_DIED"},
    {-312, -22, "ESI_ERR_UNKNOWN_SERVER"},     {-313, -9, "ESI_ERR_SYSTEM_ERROR"},
    {-314, -102, "ESI_ERR_NULL_NEW_PASSWORD"}, {-315, -107, "ESI_ERR_PASSWORD_REJECTED"},
    {kNoEsiName, -28, "ESI_ERR_MAX_SYSTEMS"},  {kNoEsiName, -29, "ESI_ERR_MAX_SESSIONS"},
};

constexpr const char* kUnknown = "UNKNOWN";

template <size_t N>
const char* find(const RcName (&table)[N], int rc) {
    for (const auto& entry : table) {
        if (entry.rc == rc) return entry.name;
    }
    return nullptr;
}

const char* const kCallTypes[] = {"ECI_SYNC", "ECI_ASYNC", "ECI_GET_REPLY", "ECI_GET_REPLY_WAIT",
                                  "ECI_GET_SPECIFIC_REPLY", "ECI_GET_SPECIFIC_REPLY_WAIT"};
}  // namespace

const char* clapiKvlRcName(int rc) { return find(kKvlNames, rc); }

const char* clapiChannelRcName(int rc) {
    const char* name = find(kChannelNames, rc);
    return name ? name : kUnknown;
}

const char* clapiEciRcName(int rc) {
    const char* name = find(kEciNames, rc);
    return name ? name : clapiChannelRcName(rc);
}

const char* clapiEsiRcName(int rc) {
    for (const auto& entry : kEsiNames) {
        if (entry.esiRc == rc || entry.gatewayRc == rc) return entry.name;
    }
    return kUnknown;
}

const char* clapiRcName(int rc) {
    if (const char* name = clapiKvlRcName(rc)) return name;
    const char* eci = clapiEciRcName(rc);
    if (strcmp(eci, kUnknown) != 0) return eci;
    return clapiEsiRcName(rc);
}

const char* clapiEciCallTypeName(int callType) {
    if (callType >= 1 && callType <= 6) return kCallTypes[callType - 1];
    return kUnknown;
}
