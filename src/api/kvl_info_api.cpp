// Exported versions and return-code names.
#include <cstring>

#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"
#include "kvlclient.h"

extern "C" {

KVL_API int KVL_getAPIVersion(char** apiVersPtr) {
    CLAPI_TRACE(ENTRY, 1029, "API.KVL_getAPIVersion(apiVersPtr=%p)\n", (void*)apiVersPtr);
    int rc = KVL_OK;
    if (!apiVersPtr) {
        CLAPI_TRACE(EXC, 1030, "API.KVL_getAPIVersion() Supplied pointer is NULL, apiVersPtr=%p\n", (void*)apiVersPtr);
        rc = KVL_ERR_NULLPTR;
    } else {
        *apiVersPtr = clapiApiVersion;
    }
    CLAPI_TRACE(EXIT, 1031, "API.KVL_getAPIVersion() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API int KVL_getDLLVersion(char** dllVersPtr) {
    CLAPI_TRACE(ENTRY, 1032, "API.KVL_getDLLVersion(dllVersPtr=%p)\n", (void*)dllVersPtr);
    int rc = KVL_OK;
    if (!dllVersPtr) {
        CLAPI_TRACE(EXC, 1033, "API.KVL_getDLLVersion() Supplied pointer is NULL, dllVersPtr=%p\n", (void*)dllVersPtr);
        rc = KVL_ERR_NULLPTR;
    } else {
        *dllVersPtr = clapiDllVersion;
    }
    CLAPI_TRACE(EXIT, 1034, "API.KVL_getDLLVersion() rc=%d (%s)\n", rc, clapiRcName(rc));
    return rc;
}

KVL_API char* KVL_getRcString(int rc, char* rcString) {
    CLAPI_TRACE(ENTRY, 1062, "API.KVL_getRcString(rc=%d, rcString=%p)\n", rc, (void*)rcString);
    // Every name is shorter than 40 characters, so the copy is always terminated.
    if (rcString) strncpy(rcString, clapiRcName(rc), KVL_RC_STRING_LENGTH);
    CLAPI_TRACE(EXIT, 1063, "API.KVL_getRcString() rcString=%s\n", rcString ? rcString : "NULL");
    return rcString;
}

}  // extern "C"
