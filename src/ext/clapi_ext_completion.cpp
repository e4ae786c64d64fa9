// The completion handle: follows the async reply queue, ready exactly while it is non-empty.
#include "ext/clapi_ext.h"
#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"

void clapiExtAsyncQueueChanged(kvlGatewayToken* token) {
    clapiExtConn& ext = token->ext;
    if (!ext.completionCreated) return;
    if (token->asyncQueueHead)
        platformSignalSet(&ext.completion);
    else
        platformSignalReset(&ext.completion);
}

void clapiExtReleaseConn(kvlGatewayToken* token) {
    clapiExtConn& ext = token->ext;
    if (ext.completionCreated) platformSignalClose(&ext.completion);
    ext.completionCreated = 0;
}

KVL_API int KVL_EXT_getCompletionHandle(gwTok token, KVL_EXT_Handle* handle) {
    CLAPI_TRACE(ENTRY, 9020, "API.KVL_EXT_getCompletionHandle(gwTok=%p, handle=%p)\n", static_cast<void*>(token),
                static_cast<void*>(handle));
    int rc;
    if (!handle) {
        CLAPI_TRACE(EXC, 9021, "API.KVL_EXT_getCompletionHandle() NULL handle pointer\n");
        clapiExtSetError("NULL handle pointer");
        rc = KVL_ERR_NULLPTR;
    } else if ((rc = clapiExtBeginCall(token)) == 0) {
        if (clapiRequestLock(&token->tableLock) != 0) {
            rc = KVL_ERR_SYSTEM_ERROR;
        } else {
            clapiExtConn& ext = token->ext;
            if (!ext.completionCreated) {
                if (platformSignalCreate(&ext.completion) == 0) {
                    ext.completionCreated = 1;
                    clapiExtAsyncQueueChanged(token);  // replies may be queued already
                } else {
                    CLAPI_TRACE(EXC, 9021, "API.KVL_EXT_getCompletionHandle() Failed to create the handle, error=%d\n",
                                platformLastError());
                    clapiExtSetError("completion handle: the system refused to create one (error %d)",
                                     platformLastError());
                    rc = KVL_EXT_ERR_NOHANDLE;
                }
            }
            if (rc == 0) *handle = ext.completion.waitable;
            clapiReleaseLock(&token->tableLock);
        }
        rc = clapiExtEndCall(token, rc);
        if (rc == 0) clapiExtClearError();
    }
    CLAPI_TRACE(EXIT, 9022, "API.KVL_EXT_getCompletionHandle() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}
