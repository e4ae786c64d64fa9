// The one way a flow leaves the library: header and body built in a write buffer
// of the flow's exact length, flushed, and the buffer freed whatever happened.
#pragma once

#include "comms/clapi_socketcomms.h"

using clapiBodyWriter = void (*)(sockBuffer* sb, const void* body);

// header->bodyLen must be set. Returns the init or flush code, else the free code.
int clapiSendFlow(platformSocket socketDesc, const flowHeader* header, clapiBodyWriter writeBody, const void* body);
