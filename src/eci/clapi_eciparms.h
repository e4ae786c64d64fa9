// Validation of the caller's ECI parameter block before a request is built.
#pragma once

#include "kvl_eci.h"

// 0, or the ECI code of the first failing check. Reads the block only; the
// callers have already refused a null block.
int verifyEciParms(EciParms* parms, int minVersion);
