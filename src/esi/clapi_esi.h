// Password verification and change: one synchronous ESI request in a slot.
#pragma once

#include "comms/clapi_socketcomms.h"
#include "gateway/clapi_gwytok.h"
#include "kvl_esi.h"

// Sends the request and waits for its reply; the details are filled only on success.
int performEsiFlow(kvlGatewayToken* gwTok, EsiRequest* esiRequest, esiDetails* esiDetailsPtr);
// The Gateway's security codes to the ESI range; other codes unchanged.
int mapGwyRc(int rc);
