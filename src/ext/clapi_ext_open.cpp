// KVL_EXT_openConnection: an open with options. Every address the host
// resolves to is tried in turn within one connect time-out, with the socket
// options asked for, and TLS when it is asked for; the rest of the open (the
// receiver thread and the handshake) is the library's own.
#include <cstdio>
#include <cstring>

#include "ext/clapi_ext.h"
#include "gateway/clapi_gwycon.h"
#include "impl/clapi_impl.h"
#include "platform/platform_ext.h"
#include "tls/clapi_tls.h"

int (*clapiExtResolveHook)(const char* host, const char* port, platformAddress* out, int max, int* count) = nullptr;

namespace {

constexpr int kMaxAddresses = 16;
constexpr int kMaxPort = 65535;
constexpr int kMaxConnectTimeoutMs = 3600 * 1000;
constexpr int kMaxDeadlineMs = 24 * 3600 * 1000;
constexpr size_t kMaxApplid = 8;
constexpr size_t kEnvCopy = 16;
// The record as first published ends with keepAliveCount; TLS fields follow.
constexpr size_t kMinOptionsSize = offsetof(KVL_EXT_ConnectOptions, tls);

struct openContext {
    KVL_EXT_ConnectOptions options;  // the caller's, completed with defaults for fields it does not know
    bool connected;                  // the TCP (and TLS) connection stood
    int tlsRc;                       // a KVL_EXT_ERR_TLS_ code when TLS failed
};

const char* orNull(const char* text) { return text ? text : "NULL"; }

bool longerThan(const char* text, size_t limit) {
    for (size_t i = 0; i <= limit; ++i) {
        if (text[i] == '\0') return false;
    }
    return true;
}

bool fromEnvironment(const char* name, char (&copy)[kEnvCopy + 1]) {
    memset(copy, 0, sizeof copy);
    const char* value = platformGetEnv(name);
    if (!value) return false;
    strncpy(copy, value, kEnvCopy);
    return true;
}

// "host:port", with an IPv6 literal in brackets.
void endpointText(const char* host, int port, char* buffer, size_t size) {
    snprintf(buffer, size, strchr(host, ':') ? "[%s]:%d" : "%s:%d", host, port);
}

int remainingMs(uint64_t deadlineUs) {
    if (deadlineUs == 0) return -1;
    uint64_t now = platformMonotonicMicros();
    return now >= deadlineUs ? 0 : static_cast<int>((deadlineUs - now + 999) / 1000);
}

// One address within timeoutMs (-1: no limit): 1 connected (the socket in *out),
// 0 timed out, -1 failed with the platform's reason in `reason`.
int tryAddress(const openContext* ctx, const platformAddress* address, int timeoutMs, platformSocket* out, char* reason,
               size_t reasonSize) {
    const KVL_EXT_ConnectOptions& o = ctx->options;
    platformSocket s = platformSocketCreate(address->family, address->socktype, address->protocol);
    int error = 0;
    int result = -1;
    if (s == PLATFORM_INVALID_SOCKET) {
        error = platformSocketError();
    } else if (platformSetSocketOptions(s, o.keepAlive != 0, o.keepAliveIdleSec, o.keepAliveIntervalSec,
                                        o.keepAliveCount) != 0 ||
               platformSetNonBlocking(s, true) != 0) {
        error = platformSocketError();
    } else {
        int started = platformConnect(s, address);
        error = platformSocketError();
        if (started == 0) {
            result = 1;
        } else if (started == 1) {
            int sockError = 0;
            int waited = platformWaitConnectMs(s, timeoutMs, &sockError);
            result = waited == 1 ? 1 : waited == 0 ? 0 : -1;
            error = sockError;
        }
    }
    if (result == 1 && platformSetNonBlocking(s, false) != 0) {
        error = platformSocketError();
        result = -1;
    }
    if (result == 1) {
        *out = s;
        return 1;
    }
    if (result == 0) {
        snprintf(reason, reasonSize, "no connection within %d ms", timeoutMs);
    } else {
        platformSocketErrorText(error, reason, reasonSize);
    }
    if (s != PLATFORM_INVALID_SOCKET) platformCloseSocket(s);
    return result;
}

// The plan's connect: every address in turn. Each gets an equal share of the
// time left, so that an address that swallows packets cannot use up the time
// of the ones behind it; the last one gets all that is left.
int connectEveryAddress(kvlGatewayToken* token, clapiOpenPlan* plan) {
    auto* ctx = static_cast<openContext*>(plan->context);
    const KVL_EXT_ConnectOptions& o = ctx->options;
    char endpoint[300];
    endpointText(o.host, o.port, endpoint, sizeof endpoint);
    char portText[16];
    snprintf(portText, sizeof portText, "%d", o.port);

    platformAddress addresses[kMaxAddresses];
    int count = 0;
    auto resolve = clapiExtResolveHook ? clapiExtResolveHook : platformResolveAll;
    int error = resolve(o.host, portText, addresses, kMaxAddresses, &count);
    if (error != 0 || count < 1) {
        char text[256];
        platformResolverErrorText(error, text, sizeof text);
        CLAPI_TRACE(EXC, 9060, "clapi_ext.connect() Unable to resolve host %s: %s (%d)\n", o.host, text, error);
        clapiExtSetError("resolve %s: %s", o.host, text);
        return KVL_EXT_ERR_NOADDRESS;
    }

    char reasons[400] = "";
    bool timedOut = false;
    for (int i = 0; i < count; ++i) {
        int left = remainingMs(plan->deadlineUs);
        if (left == 0) {
            timedOut = true;
            break;
        }
        int share = left < 0 ? -1 : left / (count - i);
        if (left > 0 && share < 1) share = 1;
        char addressText[80];
        platformAddressText(&addresses[i], addressText, sizeof addressText);
        CLAPI_TRACE(DEBUG, 9003, "clapi_ext.connect() Connecting to %s, address %d of %d (%s), %d ms\n", endpoint, i + 1,
                    count, addressText, share);
        char reason[160];
        platformSocket s = PLATFORM_INVALID_SOCKET;
        int result = tryAddress(ctx, &addresses[i], share, &s, reason, sizeof reason);
        if (result == 1) {
            token->socket = s;
            break;
        }
        CLAPI_TRACE(EXC, 9004, "clapi_ext.connect() Unable to connect to %s (%s): %s\n", endpoint, addressText, reason);
        timedOut = result == 0;
        size_t used = strlen(reasons);
        if (count == 1)
            snprintf(reasons + used, sizeof reasons - used, "%s", reason);
        else
            snprintf(reasons + used, sizeof reasons - used, "%s%s: %s", used ? "; " : "", addressText, reason);
    }
    if (token->socket.load() == PLATFORM_INVALID_SOCKET) {
        if (reasons[0] == '\0') snprintf(reasons, sizeof reasons, "no connection within %d ms", o.connectTimeoutMs);
        clapiExtSetError("connect to %s: %s", endpoint, reasons);
        return timedOut ? KVL_ERR_CONNECTTIMEOUT : KVL_ERR_CONNECTFAILED;
    }

    if (o.tls == 1) {
        int left = remainingMs(plan->deadlineUs);
        CLAPI_TRACE(DEBUG, 9008, "clapi_ext.connect() Starting TLS with %s\n", endpoint);
        char text[256] = "";
        int rc = left == 0 ? KVL_ERR_CONNECTTIMEOUT : clapiTlsStart(token, &o, left < 0 ? 0 : left, text, sizeof text);
        if (rc != 0) {
            CLAPI_TRACE(EXC, 9009, "clapi_ext.connect() TLS with %s failed, rc=%d (%s): %s\n", endpoint, rc,
                        clapiExtRcName(rc), text);
            if (rc == KVL_ERR_CONNECTTIMEOUT) snprintf(text, sizeof text, "no TLS session within %d ms", o.connectTimeoutMs);
            clapiExtSetError("TLS with %s: %s", endpoint, text);
            ctx->tlsRc = rc;
            clapiCloseTokenSocket(token);
            return rc;
        }
    }
    ctx->connected = true;
    return 0;
}

void initOptions(KVL_EXT_ConnectOptions* options) {
    memset(options, 0, sizeof *options);
    options->size = static_cast<uint32_t>(sizeof *options);
    options->keepAlive = 1;
    options->tlsMinVersion = KVL_EXT_TLS_1_2;
}

bool isFlag(int value) { return value == 0 || value == 1; }

// The caller's record, its fields beyond `size` at their defaults: 0 when usable,
// otherwise the code, with the reason as the thread's error text.
int readOptions(const KVL_EXT_ConnectOptions* options, openContext* ctx) {
    if (!options) {
        clapiExtSetError("NULL options record");
        return KVL_EXT_ERR_BADOPTIONS;
    }
    if (options->size < kMinOptionsSize) {
        clapiExtSetError("options record size %u is smaller than %u", (unsigned)options->size, (unsigned)kMinOptionsSize);
        return KVL_EXT_ERR_BADOPTIONS;
    }
    KVL_EXT_ConnectOptions& o = ctx->options;
    initOptions(&o);
    size_t known = options->size < sizeof o ? options->size : sizeof o;
    memcpy(&o, options, known);
    o.size = static_cast<uint32_t>(sizeof o);
    const char* bad = nullptr;
    if (!o.host || !*o.host)
        bad = "host is required";
    else if (o.connectTimeoutMs < 0 || o.connectTimeoutMs > kMaxConnectTimeoutMs)
        bad = "connectTimeoutMs is outside 0..3600000";
    else if (o.callDeadlineMs < 0 || o.callDeadlineMs > kMaxDeadlineMs)
        bad = "callDeadlineMs is outside 0..86400000";
    else if (!isFlag(o.keepAlive) || o.keepAliveIdleSec < 0 || o.keepAliveIntervalSec < 0 || o.keepAliveCount < 0)
        bad = "keepAlive is not 0 or 1, or a keep-alive figure is below 0";
    else if (!isFlag(o.tls) || !isFlag(o.tlsNoVerify) || !isFlag(o.tlsNoHostnameCheck))
        bad = "tls, tlsNoVerify and tlsNoHostnameCheck take 0 or 1";
    else if (o.tlsMinVersion != 0 && o.tlsMinVersion != KVL_EXT_TLS_1_2 && o.tlsMinVersion != KVL_EXT_TLS_1_3)
        bad = "tlsMinVersion is not KVL_EXT_TLS_1_2 or KVL_EXT_TLS_1_3";
    if (bad) {
        clapiExtSetError("%s", bad);
        return KVL_EXT_ERR_BADOPTIONS;
    }
    if (o.port < 1 || o.port > kMaxPort) {
        clapiExtSetError("port %d is outside 1..65535", o.port);
        return KVL_ERR_BADPORT;
    }
    return 0;
}

}  // namespace

KVL_API void KVL_EXT_initConnectOptions(KVL_EXT_ConnectOptions* options) {
    CLAPI_TRACE(ENTRY, 9006, "API.KVL_EXT_initConnectOptions(options=%p)\n", static_cast<void*>(options));
    if (options) initOptions(options);
    CLAPI_TRACE(EXIT, 9007, "API.KVL_EXT_initConnectOptions()\n");
}

KVL_API int KVL_EXT_openConnection(const KVL_EXT_ConnectOptions* options, gwTok* gwTokPtr) {
    CLAPI_TRACE(ENTRY, 9000, "API.KVL_EXT_openConnection(options=%p, gwTokPtr=%p)\n", static_cast<const void*>(options),
                static_cast<void*>(gwTokPtr));
    clapiExtClearError();
    openContext ctx;
    memset(static_cast<void*>(&ctx), 0, sizeof ctx);
    int rc = readOptions(options, &ctx);
    const KVL_EXT_ConnectOptions& o = ctx.options;
    if (rc != 0) {
        // Traced below with the reason.
    } else if (!gwTokPtr) {
        CLAPI_TRACE(EXC, 9002, "API.KVL_EXT_openConnection() NULL gateway token pointer\n");
        clapiExtSetError("NULL gateway token pointer");
        rc = KVL_ERR_NULLGWTOKPTR;
    } else {
        CLAPI_TRACE(DEBUG, 9061,
                    "API.KVL_EXT_openConnection() host=%s, port=%d, applid=%s, applidQualifier=%s, connectTimeoutMs=%d, "
                    "callDeadlineMs=%d, keepAlive=%d (%d/%d/%d), tls=%d\n",
                    o.host, o.port, orNull(o.applid), orNull(o.applidQualifier), o.connectTimeoutMs, o.callDeadlineMs,
                    o.keepAlive, o.keepAliveIdleSec, o.keepAliveIntervalSec, o.keepAliveCount, o.tls);
        const char* applid = o.applid ? o.applid : "";
        const char* qualifier = o.applidQualifier ? o.applidQualifier : "";
        char applidEnv[kEnvCopy + 1];
        char qualifierEnv[kEnvCopy + 1];
        if (fromEnvironment("KVL_APPLID", applidEnv)) applid = applidEnv;
        if (fromEnvironment("KVL_APPLIDQUALIFIER", qualifierEnv)) qualifier = qualifierEnv;
        if (longerThan(applid, kMaxApplid) || longerThan(qualifier, kMaxApplid)) {
            clapiExtSetError("applid or qualifier longer than 8 characters");
            rc = KVL_ERR_APPLIDTOOLONG;
        } else {
            clapiOpenPlan plan{};
            plan.connect = connectEveryAddress;
            plan.context = &ctx;
            if (o.connectTimeoutMs > 0)
                plan.deadlineUs = platformMonotonicMicros() + static_cast<uint64_t>(o.connectTimeoutMs) * 1000u;
            // The receiver's own bound on the handshake, in whole seconds; the plan's is exact.
            int32_t seconds = (o.connectTimeoutMs + 999) / 1000;
            kvlGatewayToken* token = nullptr;
            rc = clapiCreateGatewayTokenWithPlan(&token, o.host, o.port, seconds, applid, qualifier, &plan);
            if (rc == 0) {
                token->ext.callDeadlineMs.store(o.callDeadlineMs, std::memory_order_relaxed);
                *gwTokPtr = token;
            } else if (ctx.connected) {
                char endpoint[300];
                endpointText(o.host, o.port, endpoint, sizeof endpoint);
                if (plan.handshakeTimedOut)
                    clapiExtSetError("no handshake answer from the Gateway at %s within %d ms", endpoint,
                                     o.connectTimeoutMs);
                else
                    clapiExtSetError("handshake refused by the Gateway, rc=%d (%s)", rc, clapiExtRcName(rc));
            } else if (clapiExtErrorText()[0] == '\0') {
                clapiExtSetError("open failed, rc=%d (%s)", rc, clapiExtRcName(rc));
            }
        }
    }
    if (rc != 0) CLAPI_TRACE(EXC, 9001, "API.KVL_EXT_openConnection() %s\n", clapiExtErrorText());
    CLAPI_TRACE(EXIT, 9005, "API.KVL_EXT_openConnection() rc=%d (%s)\n", rc, clapiExtRcName(rc));
    return rc;
}
