#include "tls_open.h"

#include <cstring>

#include "comms/clapi_socketcomms.h"
#include "gateway/clapi_gwycon.h"
#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_lock.h"
#include "tls/clapi_tls.h"

namespace tlstest {

KVL_EXT_ConnectOptions tlsOptions(const char* host, int port, const std::string& caFile) {
    static thread_local std::string ca;
    ca = caFile;
    KVL_EXT_ConnectOptions o;
    std::memset(&o, 0, sizeof o);
    o.size = sizeof o;
    o.keepAlive = 1;
    o.host = host;
    o.port = port;
    o.connectTimeoutMs = 5000;
    o.tls = 1;
    o.tlsCaFile = ca.empty() ? nullptr : ca.c_str();
    return o;
}

#if defined(KVL_TEST_HAVE_EXT_OPEN)

int openTls(const KVL_EXT_ConnectOptions& options, gwTok* token, std::string* errorText) {
    int rc = KVL_EXT_openConnection(&options, token);
    char text[512] = "";
    KVL_EXT_getLastErrorText(text, sizeof text);
    if (errorText) *errorText = text;
    return rc;
}

#else

namespace {

int connectSocket(kvlGatewayToken* token, const KVL_EXT_ConnectOptions& o) {
    platformAddress address;
    if (platformResolve(o.host, std::to_string(o.port).c_str(), &address) != 0) return KVL_ERR_BADHOST;
    platformSocket s = platformSocketCreate(address.family, address.socktype, address.protocol);
    if (s == PLATFORM_INVALID_SOCKET) return KVL_ERR_BADHOST;
    token->socket = s;
    platformSetKeepAliveNoDelay(s);
    return platformConnect(s, &address) == 0 ? 0 : KVL_ERR_CONNECTFAILED;
}

// The Gateway handshake with the receiver thread running, as the open makes it.
int shakeHands(kvlGatewayToken* token) {
    clapiSetEvent(&token->recvThreadEndedEvent);
    if (platformThreadStart(&token->receiver, receiverThread, token, 2048) != 0) {
        token->receiver.handle = nullptr;
        clapiClearEvent(&token->recvThreadEndedEvent);
        return KVL_ERR_SYSTEM_ERROR;
    }
    clapiRequestLock(&token->sendLock);
    int rc = clapiFlowHandshakeRequest(token->socket.load(), token->applid, token->applidQualifier);
    clapiReleaseLock(&token->sendLock);
    if (rc != 0) {
        clapiStopReceiver(token);
        return KVL_ERR_CONNECTFAILED;
    }
    clapiWaitEvent(&token->connEvent);
    if (token->connStatus.load() != CONN_CONNECTED) return token->closeRc != 0 ? token->closeRc : KVL_ERR_CONNECTFAILED;
    return 0;
}

}  // namespace

int openTls(const KVL_EXT_ConnectOptions& options, gwTok* tokenPtr, std::string* errorText) {
    kvlGatewayToken* token = nullptr;
    int seconds = (options.connectTimeoutMs + 999) / 1000;
    int rc = allocateGatewayToken(&token, options.port, seconds, "", "");
    if (rc != 0) return rc;
    if ((rc = chainGatewayToken(token)) != 0) {
        freeGatewayToken(token);
        return rc;
    }
    char text[512] = "";
    rc = connectSocket(token, options);
    if (rc == 0) {
        rc = clapiTlsStart(token, &options, options.connectTimeoutMs, text, sizeof text);
        if (rc == 0) rc = shakeHands(token);
    }
    if (errorText) *errorText = text;
    if (rc != 0) {
        clapiCloseTokenSocket(token);
        clapiDeleteGatewayToken(&token, 0, true);
        return rc;
    }
    clapiRequestLock(&clapiGtlLock);
    token->opening = 0;
    clapiReleaseLock(&clapiGtlLock);
    *tokenPtr = token;
    return 0;
}

#endif

}  // namespace tlstest
