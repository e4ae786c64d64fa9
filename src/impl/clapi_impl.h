// Library start-up, the request correlator and return-code names.
#pragma once

#include <cstdint>

#include "impl/clapi_lock.h"
#include "impl/clapi_version.h"

extern clapiLock clapiGtlLock;          // Gateway Token List
extern clapiLock clapiChannelListLock;  // process-wide channel list
extern clapiLock clapiCorrelatorLock;

extern char clapiApiVersion[8];  // KVL_API_LEVEL once initialised
extern char clapiDllVersion[8];  // KVL_DLL_VERSION once initialised
extern int clapiInitialised;
extern int clapiInitRc;

void clapiInitFunc();
// The steps the loader runs: DllMain on Windows, constructor/destructor on Linux.
void clapiProcessAttach();
void clapiProcessDetach();

uint32_t getNextCorrelator();
void clapiSetCorrelatorForTest(uint32_t value);

// Return-code names. clapiRcName follows the lookup chain KVL_, ECI, channel, ESI.
const char* clapiRcName(int rc);
const char* clapiKvlRcName(int rc);      // nullptr when the KVL_ table does not know rc
const char* clapiEciRcName(int rc);      // ECI table, falling back to the channel table
const char* clapiChannelRcName(int rc);  // channel table, "UNKNOWN" otherwise
const char* clapiEsiRcName(int rc);      // ESI table, "UNKNOWN" otherwise
const char* clapiEciCallTypeName(int callType);
