// Statistics of a connection: counted where requests start, are written and
// end, read at any time with relaxed atomics.
#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "ext/clapi_ext.h"
#include "ext/clapi_ext_hooks.h"
#include "impl/clapi_impl.h"

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

bool isConnectionCode(int rc) {
    return rc == KVL_ERR_LOSTGWCON || rc == KVL_ERR_GWTOK_CLOSED ||
           (rc >= KVL_ERR_GATEWAY_CLOSED && rc <= KVL_ERR_INVALID_REQUEST_TYPE);
}

bool isSecurityCode(int rc) {
    // ECI's one security code, the Gateway's security codes of an ESI reply
    // (-100 to -108, as they come before the ESI mapping) and the ESI range.
    return rc == ECI_ERR_SECURITY_ERROR || (rc >= -108 && rc <= -100) || (rc >= -307 && rc <= -300) || rc == -315;
}

void raiseTo(std::atomic<uint64_t>& target, uint64_t value) {
    uint64_t seen = target.load(kRelaxed);
    while (seen < value && !target.compare_exchange_weak(seen, value, kRelaxed)) {
    }
}

}  // namespace

int clapiExtFailureClass(int rc, bool replied) {
    if (!replied && rc == ECI_ERR_RESPONSE_TIMEOUT) return KVL_EXT_FAIL_DEADLINE;
    if (isConnectionCode(rc)) return KVL_EXT_FAIL_CONNECTION;
    if (isSecurityCode(rc)) return KVL_EXT_FAIL_SECURITY;
    // Codes the server or the Gateway put in a reply: abends, unknown servers, units of work.
    if (replied && rc < 0 && rc > -100) return KVL_EXT_FAIL_PROGRAM;
    return KVL_EXT_FAIL_OTHER;
}

int clapiExtLatencyBucket(uint64_t micros) {
    if (micros < 1) return 0;
    int octave = 63 - __builtin_clzll(micros);  // micros in [2^octave, 2^(octave+1))
    if (octave >= CLAPI_EXT_LATENCY_OCTAVES) return CLAPI_EXT_LATENCY_BUCKETS - 1;
    // The quarter of the octave: (micros - 2^octave) * 4 / 2^octave.
    int quarter = static_cast<int>(((micros << 2) >> octave) & 3u);
    return octave * CLAPI_EXT_LATENCY_SUBBUCKETS + quarter;
}

uint64_t clapiExtLatencyBucketTop(int bucket) {
    int octave = bucket / CLAPI_EXT_LATENCY_SUBBUCKETS;
    uint64_t quarter = static_cast<uint64_t>(bucket % CLAPI_EXT_LATENCY_SUBBUCKETS);
    // The bucket holds [2^o * (4 + q) / 4, 2^o * (5 + q) / 4).
    return ((uint64_t{1} << octave) * (5 + quarter) + 3) / 4 - 1;
}

uint64_t clapiExtLatencyQuantile(const uint64_t* counts, int buckets, double q) {
    uint64_t total = 0;
    for (int i = 0; i < buckets; ++i) total += counts[i];
    if (total == 0) return 0;
    // The smallest bucket at or below which lies the ceil(q * total)-th latency.
    auto rank = static_cast<uint64_t>(q * static_cast<double>(total));
    if (static_cast<double>(rank) < q * static_cast<double>(total)) ++rank;
    if (rank < 1) rank = 1;
    uint64_t seen = 0;
    for (int i = 0; i < buckets; ++i) {
        seen += counts[i];
        if (seen >= rank) return clapiExtLatencyBucketTop(i);
    }
    return clapiExtLatencyBucketTop(buckets - 1);
}

void clapiExtRequestStarted(kvlGatewayToken* token, clapiSlot* slot, int kind) {
    clapiExtStats& s = token->ext.stats;
    slot->extKind = kind;
    slot->extStartedUs = platformMonotonicMicros() | 1u;  // never 0 while it counts
    uint32_t now = s.inFlight.fetch_add(1, kRelaxed) + 1;
    uint32_t seen = s.inFlightMax.load(kRelaxed);
    while (seen < now && !s.inFlightMax.compare_exchange_weak(seen, now, kRelaxed)) {
    }
}

void clapiExtRequestWritten(kvlGatewayToken* token, int kind, const flowHeader* header) {
    clapiExtStats& s = token->ext.stats;
    if (kind >= 0 && kind < KVL_EXT_KIND_COUNT) s.sent[kind].fetch_add(1, kRelaxed);
    s.bytesOut.fetch_add(clapiFlowLength(header), kRelaxed);
}

void clapiExtRequestEnded(kvlGatewayToken* token, clapiSlot* slot, int rc, bool replied) {
    if (slot->extStartedUs == 0) return;
    clapiExtStats& s = token->ext.stats;
    uint64_t elapsed = platformMonotonicMicros() - (slot->extStartedUs & ~uint64_t{1});
    slot->extStartedUs = 0;
    s.inFlight.fetch_sub(1, kRelaxed);
    int kind = slot->extKind;
    if (replied) {
        if (kind >= 0 && kind < KVL_EXT_KIND_COUNT) s.completed[kind].fetch_add(1, kRelaxed);
        s.latency[clapiExtLatencyBucket(elapsed)].fetch_add(1, kRelaxed);
        raiseTo(s.latencyMaxUs, elapsed);
    }
    if (rc != 0) s.failures[clapiExtFailureClass(rc, replied)].fetch_add(1, kRelaxed);
}

void clapiExtFlowReceived(kvlGatewayToken* token, const flowHeader* header) {
    token->ext.stats.bytesIn.fetch_add(clapiFlowLength(header), kRelaxed);
}

KVL_API int KVL_EXT_getStatistics(gwTok token, KVL_EXT_Statistics* stats) {
    CLAPI_TRACE(ENTRY, 9040, "API.KVL_EXT_getStatistics(gwTok=%p, stats=%p)\n", static_cast<void*>(token),
                static_cast<void*>(stats));
    int rc = KVL_OK;
    if (!stats) {
        CLAPI_TRACE(EXC, 9041, "API.KVL_EXT_getStatistics() NULL statistics record\n");
        clapiExtSetError("NULL statistics record");
        rc = KVL_ERR_NULLPTR;
    } else if (stats->size < offsetof(KVL_EXT_Statistics, latencyMaxUs) + sizeof stats->latencyMaxUs) {
        CLAPI_TRACE(EXC, 9041, "API.KVL_EXT_getStatistics() Record size %u too small\n", (unsigned)stats->size);
        clapiExtSetError("statistics record size %u is smaller than %u", (unsigned)stats->size,
                         (unsigned)sizeof(KVL_EXT_Statistics));
        rc = KVL_EXT_ERR_BADOPTIONS;
    } else if ((rc = clapiExtBeginCall(token)) == 0) {
        const clapiExtStats& s = token->ext.stats;
        KVL_EXT_Statistics out;
        memset(&out, 0, sizeof out);
        out.size = stats->size < sizeof out ? stats->size : static_cast<uint32_t>(sizeof out);
        for (int k = 0; k < KVL_EXT_KIND_COUNT; ++k) {
            out.requestsSent[k] = s.sent[k].load(kRelaxed);
            out.requestsCompleted[k] = s.completed[k].load(kRelaxed);
        }
        for (int f = 0; f < KVL_EXT_FAIL_COUNT; ++f) out.failures[f] = s.failures[f].load(kRelaxed);
        out.bytesOut = s.bytesOut.load(kRelaxed);
        out.bytesIn = s.bytesIn.load(kRelaxed);
        out.inFlight = s.inFlight.load(kRelaxed);
        out.inFlightMax = s.inFlightMax.load(kRelaxed);
        uint64_t counts[CLAPI_EXT_LATENCY_BUCKETS];
        for (int i = 0; i < CLAPI_EXT_LATENCY_BUCKETS; ++i) counts[i] = s.latency[i].load(kRelaxed);
        out.latencyMaxUs = s.latencyMaxUs.load(kRelaxed);
        out.latencyP50Us = clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.50);
        out.latencyP90Us = clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.90);
        out.latencyP99Us = clapiExtLatencyQuantile(counts, CLAPI_EXT_LATENCY_BUCKETS, 0.99);
        // A bucket's top may lie above the largest latency seen in it.
        if (out.latencyP50Us > out.latencyMaxUs) out.latencyP50Us = out.latencyMaxUs;
        if (out.latencyP90Us > out.latencyMaxUs) out.latencyP90Us = out.latencyMaxUs;
        if (out.latencyP99Us > out.latencyMaxUs) out.latencyP99Us = out.latencyMaxUs;
        // Only the fields the caller's record has room for.
        memcpy(stats, &out, out.size);
        rc = clapiExtEndCall(token, rc);
        if (rc == 0) clapiExtClearError();
    }
    CLAPI_TRACE(EXIT, 9042, "API.KVL_EXT_getStatistics() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}
