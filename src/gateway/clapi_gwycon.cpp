// Connecting to the Gateway and ending the connection (module clapi_gwycon).
#include "gateway/clapi_gwycon.h"

#include <cerrno>
#include <cstdio>

#include "comms/clapi_socketcomms.h"
#include "comms/clapi_stream.h"
#include "platform/platform_ext.h"
#include "impl/clapi_impl.h"
#include "impl/clapi_trace.h"

namespace {

constexpr size_t kErrorTextSize = 1024;
// A request, raised by the platform to what the OS and the sanitizers need.
constexpr size_t kReceiverStackSize = 2048;

// Runs the connect proper (steps up to the receiver thread's start) on a
// created socket; the caller closes the socket when this fails.
int connectSocket(kvlGatewayToken* token, platformSocket s, const platformAddress* address, const char* ipAddr,
                  int32_t port) {
    if (platformSetKeepAliveNoDelay(s) != 0) {
        CLAPI_TRACE(EXC, 3003, "clapi_gwycon.clapiConnectToGateway() Set socket to KeepAlive or NoDelay failed: %lu\n",
                    clapiLu(s));
        return KVL_ERR_CONNECTFAILED;
    }
    CLAPI_TRACE(DEBUG, 3004, "clapi_gwycon.clapiConnectToGateway() Created socket: %lu\n", clapiLu(s));
    if (token->connTimeout != 0) platformSetNonBlocking(s, true);

    int rc = 0;
    int connectResult = platformConnect(s, address);
    int error = platformSocketError();
    if (connectResult == 1) {
        CLAPI_TRACE(DEBUG, 3005, "clapi_gwycon.clapiConnectToGateway() Waiting for connect to complete\n");
        int sockError = 0;
        platformSocket waited = s;
        rc = waitForConnection(&waited, &sockError, token->connTimeout);
        if (rc != 0 && sockError != 0) error = sockError;
    } else if (connectResult != 0) {
        rc = KVL_ERR_CONNECTFAILED;
    }
    if (rc != 0) {
        char text[kErrorTextSize];
        platformSocketErrorText(error, text, sizeof text);
        CLAPI_TRACE(EXC, 3008, "clapi_gwycon.clapiConnectToGateway() Unable to connect to Gateway: %s (%d)\n", text, error);
        return rc;
    }
    CLAPI_TRACE(DEBUG, 3006, "clapi_gwycon.clapiConnectToGateway() Connected to Gateway %s:%u\n", ipAddr, (unsigned)port);
    if (token->connTimeout != 0) platformSetNonBlocking(s, false);
    return 0;
}

// Steps after the receiver thread runs: from here only that thread closes the socket.
int handshake(kvlGatewayToken* token, const char* applid, const char* applidQualifier) {
    // Under the send lock, so that the socket cannot be closed under the send.
    int rc = KVL_ERR_SYSTEM_ERROR;
    if (clapiRequestLock(&token->sendLock) == 0) {
        rc = clapiFlowHandshakeRequest(token->socket.load(), applid, applidQualifier);
        clapiReleaseLock(&token->sendLock);
    }
    if (rc != 0) {
        CLAPI_TRACE(EXC, 3007, "clapi_gwycon.clapiConnectToGateway() Handshake flow failed rc=%d (%s)\n", rc, clapiRcName(rc));
        clapiStopReceiver(token);
        return KVL_ERR_CONNECTFAILED;
    }
    CLAPI_TRACE(DEBUG, 3010, "clapi_gwycon.clapiConnectToGateway() Waiting for handshake response\n");
    clapiOpenPlan* plan = token->ext.openPlan;
    if (plan && plan->deadlineUs != 0) {
        uint64_t now = platformMonotonicMicros();
        uint64_t leftMs = now < plan->deadlineUs ? (plan->deadlineUs - now + 999) / 1000 : 0;
        bool timedOut = false;
        if (platformEventTimedWait(token->connEvent, static_cast<uint32_t>(leftMs), &timedOut) != 0) {
            clapiStopReceiver(token);
            return KVL_ERR_SYSTEM_ERROR;
        }
        if (timedOut) {
            plan->handshakeTimedOut = 1;
            clapiStopReceiver(token);
            return KVL_ERR_CONNECTTIMEOUT;
        }
    } else if (clapiWaitEvent(&token->connEvent) != 0) {
        clapiStopReceiver(token);
        return KVL_ERR_SYSTEM_ERROR;
    }
    if (token->connStatus.load() != CONN_CONNECTED) {
        CLAPI_TRACE(EXC, 3012, "clapi_gwycon.clapiConnectToGateway() Handshake flow returned an error: %d\n",
                    (int)token->closeRc);
        return token->closeRc != 0 ? token->closeRc : KVL_ERR_CONNECTFAILED;
    }
    return 0;
}

// The address lookup and connect of the specified open: the first address only.
int connectFirstAddress(kvlGatewayToken* token, const char* ipAddr, int32_t port) {
    platformAddress address;
    int rc = getHostInfo(ipAddr, port, &address);
    if (rc != 0) return rc;
    CLAPI_TRACE(DEBUG, 3001, "clapi_gwycon.clapiConnectToGateway() Creating socket for family %d, type %d, protocol %d\n",
                address.family, address.socktype, address.protocol);
    platformSocket s = platformSocketCreate(address.family, address.socktype, address.protocol);
    if (s == PLATFORM_INVALID_SOCKET) {
        int error = platformSocketError();
        char text[kErrorTextSize];
        platformSocketErrorText(error, text, sizeof text);
        CLAPI_TRACE(EXC, 3002, "clapi_gwycon.clapiConnectToGateway() Unable to create a socket: %s (%d)\n", text, error);
        return KVL_ERR_BADHOST;
    }
    token->socket = s;
    rc = connectSocket(token, s, &address, ipAddr, port);
    if (rc != 0) clapiCloseTokenSocket(token);
    return rc;
}

}  // namespace

int clapiConnectToGateway(int32_t port, const char* ipAddr, kvlGatewayToken* gwTokPtr, const char* applid,
                          const char* applidQualifier) {
    CLAPI_TRACE(ENTRY, 3000,
                "clapi_gwycon.clapiConnectToGateway(port=%d, ipAddr=%p, gwTokPtr=%p, connTimeout=%d, applid=%s, "
                "applidQualifier=%s)\n",
                (int)port, static_cast<const void*>(ipAddr), static_cast<void*>(gwTokPtr), (int)gwTokPtr->connTimeout,
                applid, applidQualifier);
    kvlGatewayToken* token = gwTokPtr;
    clapiOpenPlan* plan = token->ext.openPlan;
    int rc = plan ? plan->connect(token, plan) : connectFirstAddress(token, ipAddr, port);
    if (rc == 0) {
        CLAPI_TRACE(DEBUG, 3009, "clapi_gwycon.clapiConnectToGateway() Creating receiver thread\n");
        // Armed before the start, so that no close can pass before the thread has begun.
        clapiSetEvent(&token->recvThreadEndedEvent);
        if (platformThreadStart(&token->receiver, receiverThread, token, kReceiverStackSize) != 0) {
            CLAPI_TRACE(EXC, 3014, "clapi_gwycon.clapiConnectToGateway() Failed to create receiver thread, rc=%d\n",
                        errno);
            token->receiver.handle = nullptr;
            clapiClearEvent(&token->recvThreadEndedEvent);
            rc = KVL_ERR_SYSTEM_ERROR;
        }
        if (rc != 0) {
            clapiCloseTokenSocket(token);
        } else {
            rc = handshake(token, applid, applidQualifier);
        }
    }
    CLAPI_TRACE(EXIT, 3007, "clapi_gwycon.clapiConnectToGateway() rc=%d\n", rc);
    return rc;
}

int getHostInfo(const char* address, int32_t port, platformAddress* hostInfo) {
    CLAPI_TRACE(ENTRY, 3021, "clapi_gwycon.getHostInfo(address=%s, port=%d, hostInfo=%p)\n", address, (int)port,
                static_cast<void*>(hostInfo));
    char portText[16];
    snprintf(portText, sizeof portText, "%d", (int)port);
    int rc = 0;
    int error = platformResolve(address, portText, hostInfo);
    if (error != 0) {
        char text[kErrorTextSize];
        platformResolverErrorText(error, text, sizeof text);
        CLAPI_TRACE(EXC, 3022, "clapi_gwycon.getHostInfo() Unable to resolve host (%s:%s): %s (%d)\n", address, portText,
                    text, error);
        rc = KVL_ERR_BADHOST;
    }
    CLAPI_TRACE(EXIT, 3024, "clapi_gwycon.getHostInfo() rc=%d\n", rc);
    return rc;
}

int waitForConnection(platformSocket* socketDescriptorPtr, int* sockError, int32_t connTimeout) {
    CLAPI_TRACE(ENTRY, 3025, "clapi_gwycon.waitForConnection(socketDescriptorPtr=%p, sockError=%p, connTimeout=%d)\n",
                static_cast<void*>(socketDescriptorPtr), static_cast<void*>(sockError), (int)connTimeout);
    platformSocket s = *socketDescriptorPtr;
    CLAPI_TRACE(DEBUG, 3026, "clapi_gwycon.waitForConnection() Calling select() on socketdescriptor %lu\n", clapiLu(s));
    int rc = 0;
    int result = platformWaitConnect(s, connTimeout, sockError);
    char text[kErrorTextSize];
    if (result == -2) {
        platformSocketErrorText(*sockError, text, sizeof text);
        CLAPI_TRACE(EXC, 3027, "clapi_gwycon.waitForConnection() socket %lu connect() failed error: %s (%d)\n",
                    clapiLu(s), text, *sockError);
        rc = KVL_ERR_CONNECTFAILED;
    } else if (result == 0) {
        CLAPI_TRACE(EXC, 3028, "clapi_gwycon.waitForConnection() socket %lu connect timed out\n", clapiLu(s));
        rc = KVL_ERR_CONNECTTIMEOUT;
    } else if (result < 0) {
        platformSocketErrorText(*sockError, text, sizeof text);
        CLAPI_TRACE(EXC, 3029, "clapi_gwycon.waitForConnection() select call failed: %s (%d)\n", text, *sockError);
        rc = KVL_ERR_CONNECTFAILED;
    }
    CLAPI_TRACE(EXIT, 3030, "clapi_gwycon.waitForConnection() rc=%d\n", rc);
    return rc;
}

int closeSocket(platformSocket socket) {
    CLAPI_TRACE(ENTRY, 3016, "clapi_gwycon.closeSocket(socket=%lu)\n", clapiLu(socket));
    platformCloseSocket(socket);
    CLAPI_TRACE(EXIT, 3019, "clapi_gwycon.closeSocket() rc=%d\n", 0);
    return 0;
}

void clapiShutdownTokenSocket(kvlGatewayToken* token) {
    clapiRequestLock(&token->socketLock);
    platformSocket s = token->socket.load();
    if (s != PLATFORM_INVALID_SOCKET) {
        clapiStreamEnd(s);  // a TLS session says goodbye first; nothing for plain TCP
        platformShutdownSocket(s);
    }
    clapiReleaseLock(&token->socketLock);
}

void clapiStopReceiver(kvlGatewayToken* token) {
    token->stopReceiver = 1;
    clapiShutdownTokenSocket(token);
}

void clapiCloseTokenSocket(kvlGatewayToken* token) {
    if (token->socket.load() == PLATFORM_INVALID_SOCKET) return;
    // A sender blocked in send() holds the send lock; the shutdown frees it.
    clapiShutdownTokenSocket(token);
    clapiRequestLock(&token->sendLock);
    clapiRequestLock(&token->socketLock);
    platformSocket s = token->socket.exchange(PLATFORM_INVALID_SOCKET);
    clapiReleaseLock(&token->socketLock);
    if (s != PLATFORM_INVALID_SOCKET) {
        clapiStreamRelease(s);  // nobody reads or writes it now: the send lock is held, the receiver is done
        closeSocket(s);
    }
    clapiReleaseLock(&token->sendLock);
}

int clapiCloseConnection(kvlGatewayToken* conn) {
    CLAPI_TRACE(ENTRY, 3015, "clapi_gwycon.clapiCloseConnection(conn=%p)\n", static_cast<void*>(conn));
    int rc;
    // A sender that keeps the send lock this long is stuck on a Gateway that
    // does not read: the close request cannot go, and ending the connection is
    // what frees that sender (its send fails on the shut-down socket).
    int locked = clapiRequestLockWithin(&conn->sendLock, clapiCloseAnswerSeconds * 1000u);
    if (locked != 0) {
        CLAPI_TRACE(EXC, 3017, "clapi_gwycon.clapiCloseConnection() Failed to acquire send lock\n");
        if (locked == 1) {
            clapiStopReceiver(conn);
            rc = KVL_ERR_LOSTGWCON;
        } else {
            rc = KVL_ERR_SYSTEM_ERROR;
        }
    } else {
        rc = clapiFlowCloseRequest(conn->socket.load());
        if (clapiReleaseLock(&conn->sendLock) != 0) {
            CLAPI_TRACE(EXC, 3018, "clapi_gwycon.clapiCloseConnection() Failed to release send lock\n");
            if (rc == 0) rc = KVL_ERR_SYSTEM_ERROR;
        }
    }
    CLAPI_TRACE(EXIT, 3020, "clapi_gwycon.clapiCloseConnection() rc=%d\n", rc);
    return rc;
}
