// Start-up and shutdown of the library, and the request correlator.
#include "impl/clapi_impl.h"

#include <cstdio>
#include <cstring>

#include "impl/clapi_trace.h"
#include "platform/platform.h"

clapiLock clapiGtlLock{};
clapiLock clapiChannelListLock{};
clapiLock clapiCorrelatorLock{};

char clapiApiVersion[8] = {};
char clapiDllVersion[8] = {};
// A longer project version would not fit the 8-byte strings of the interface.
static_assert(sizeof KVL_API_LEVEL <= sizeof clapiApiVersion);
static_assert(sizeof KVL_DLL_VERSION <= sizeof clapiDllVersion);
int clapiInitialised = 0;
int clapiInitRc = 0;

namespace {
uint32_t correlator = 0;
}

void clapiInitFunc() {
    if (clapiInitialised) {
        clapiInitRc = 0;
        return;
    }
    // Level 1 while the locks are made, so that a failure among them is traced.
    clapiTraceLevel.store(1);
    int rc = clapiTraceInit();
    if (rc != 0) {
        fprintf(stderr, "clapi_impl.clapiInitFunc() Init of kvlclient API trace failed rc=%d\n", rc);
    } else if ((rc = clapiInitLock(&clapiGtlLock)) != 0) {
        CLAPI_TRACE(EXC, 1076, "clapi_impl.clapiInitFunc() Init of Gateway Token List lock failed rc=%d\n", rc);
    } else if ((rc = clapiInitLock(&clapiChannelListLock)) != 0) {
        CLAPI_TRACE(EXC, 1078, "clapi_impl.clapiInitFunc() Init of channel list lock failed rc=%d\n", rc);
        clapiDestroyLock(&clapiGtlLock);
    } else if ((rc = clapiInitLock(&clapiCorrelatorLock)) != 0) {
        CLAPI_TRACE(EXC, 1079, "clapi_impl.clapiInitFunc() Init of correlator lock  failed rc=%d\n", rc);
        clapiDestroyLock(&clapiGtlLock);
        clapiDestroyLock(&clapiChannelListLock);
    } else {
        clapiInitialised = 1;
        clapiTraceLevel.store(0);
        memcpy(clapiApiVersion, KVL_API_LEVEL, sizeof KVL_API_LEVEL);
        memcpy(clapiDllVersion, KVL_DLL_VERSION, sizeof KVL_DLL_VERSION);
    }
    clapiSetAPITraceLevelFromEnv();
    clapiSetAPITraceFileFromEnv();
    clapiSetAPITraceParamsFromEnv();
    clapiInitRc = rc;
}

void clapiProcessAttach() {
    int rc = platformSocketStartup();
    if (rc != 0) fprintf(stderr, "kvlclient API: Unable to initialise winsock. rc=%d\n", rc);
    clapiInitFunc();
}

// Connections and channels are left to the application's own calls.
void clapiProcessDetach() {
    CLAPI_TRACE(DEBUG, 1077, "clapi_impl.DllMain() DLL_PROCESS_DETACH calling WSACleanup()\n");
    platformSocketCleanup();
}

uint32_t getNextCorrelator() {
    CLAPI_TRACE(ENTRY, 1064, "clapi_impl.getNextCorrelator()\n");
    clapiRequestLock(&clapiCorrelatorLock);
    uint32_t value = correlator++;
    if (value == 0) value = correlator++;
    clapiReleaseLock(&clapiCorrelatorLock);
    CLAPI_TRACE(EXIT, 1065, "clapi_impl.getNextCorrelator() correlator=%d\n", (int)value);
    return value;
}

void clapiSetCorrelatorForTest(uint32_t value) {
    clapiRequestLock(&clapiCorrelatorLock);
    correlator = value;
    clapiReleaseLock(&clapiCorrelatorLock);
}
