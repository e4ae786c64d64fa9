// The Gateway's security codes mapped into the ESI range, and their names.
#include <gtest/gtest.h>

#include "esi/clapi_esi.h"
#include "impl/clapi_impl.h"
#include "kvl_esi.h"

TEST(EsiMapping, EveryGatewayCodeAndTheNamesOfBothNumbers) {
    struct Case {
        int gateway;
        int esi;
        const char* esiName;      // the name of the mapped code
        const char* gatewayName;  // the name of the Gateway's own code
    };
    const Case cases[] = {
        {-108, -300, "ESI_ERR_USERID_INVALID", "ESI_ERR_USERID_INVALID"},
        {-100, -301, "ESI_ERR_NULL_USERID", "ESI_ERR_NULL_USERID"},
        {-106, -302, "ESI_ERR_PASSWORD_INVALID", "ESI_ERR_PASSWORD_INVALID"},
        {-101, -303, "ESI_ERR_NULL_PASSWORD", "ESI_ERR_NULL_PASSWORD"},
        {-103, -304, "ESI_ERR_PEM_NOT_SUPPORTED", "ESI_ERR_PEM_NOT_SUPPORTED"},
        {-104, -305, "ESI_ERR_PEM_NOT_ACTIVE", "ESI_ERR_PEM_NOT_ACTIVE"},
        {-105, -306, "ESI_ERR_PASSWORD_EXPIRED", "ESI_ERR_PASSWORD_EXPIRED"},
        {-27, -307, "ESI_ERR_SECURITY_ERROR", "ESI_ERR_SECURITY_ERROR"},
        {-16, -308, "ESI_ERR_RESOURCE_SHORTAGE", "ESI_ERR_RESOURCE_SHORTAGE"},
        {-17, -309, "ESI_ERR_NO_SESSIONS", "ESI_ERR_NO_SESSIONS"},
        {-3, -310, "ESI_ERR_NO_ORIS", "ESI_ERR_NO_ORIS"},
        {-4, -311, "ESI_ERR_ORIS_DIED", "ESI_ERR_ORIS_DIED"},
        {-22, -312, "ESI_ERR_UNKNOWN_SERVER", "ESI_ERR_UNKNOWN_SERVER"},
        {-9, -313, "ESI_ERR_SYSTEM_ERROR", "ESI_ERR_SYSTEM_ERROR"},
        {-102, -314, "ESI_ERR_NULL_NEW_PASSWORD", "ESI_ERR_NULL_NEW_PASSWORD"},
        {-107, -315, "ESI_ERR_PASSWORD_REJECTED", "ESI_ERR_PASSWORD_REJECTED"},
        // The asymmetry: the mapped codes have no names, the Gateway's numbers do.
        {-28, -316, "UNKNOWN", "ESI_ERR_MAX_SYSTEMS"},
        {-29, -317, "UNKNOWN", "ESI_ERR_MAX_SESSIONS"},
        // Unknown codes pass through unchanged.
        {-42, -42, "UNKNOWN", "UNKNOWN"},
        {0, 0, "UNKNOWN", "UNKNOWN"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(mapGwyRc(c.gateway), c.esi) << c.gateway;
        EXPECT_STREQ(clapiEsiRcName(c.esi), c.esiName) << c.esi;
        EXPECT_STREQ(clapiEsiRcName(c.gateway), c.gatewayName) << c.gateway;
    }
}
