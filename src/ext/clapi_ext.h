// What the extension functions share: the calling thread's error text and the
// registration of a token for the length of one call.
#pragma once

#include <cstddef>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_trace.h"

// Replaces the calling thread's error text (bounded; printf format).
void clapiExtSetError(const char* format, ...) CLAPI_PRINTF(1, 2);
// Empties it: the call succeeded.
void clapiExtClearError();
// The calling thread's error text (never null).
const char* clapiExtErrorText();

// Checks the token and registers the call (KVL_ERR_NULLGWTOK, KVL_ERR_BADGWTOK,
// -9); every 0 is followed by exactly one clapiExtEndCall.
int clapiExtBeginCall(kvlGatewayToken* token);
// Unregisters; -9 replaces a 0 when that fails.
int clapiExtEndCall(kvlGatewayToken* token, int rc);

// The name of any code of the library or of the extensions ("UNKNOWN" otherwise).
const char* clapiExtRcName(int rc);

// Statistics: the failure class of a request's code (KVL_EXT_FAIL_).
int clapiExtFailureClass(int rc, bool replied);
// The latency quantile q (0 < q <= 1) in microseconds from the histogram counts.
uint64_t clapiExtLatencyQuantile(const uint64_t* counts, int buckets, double q);
// The histogram bucket of a latency in microseconds, and the largest latency it holds.
int clapiExtLatencyBucket(uint64_t micros);
uint64_t clapiExtLatencyBucketTop(int bucket);

// Test seam: when set, replaces the address lookup of KVL_EXT_openConnection.
// Same contract as platformResolveAll.
extern int (*clapiExtResolveHook)(const char* host, const char* port, platformAddress* out, int max, int* count);
