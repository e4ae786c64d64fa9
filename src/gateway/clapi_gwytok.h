// Gateway tokens: one record per connection, all of them on the process-wide
// Gateway Token List (GTL), and the operations that create, count, close and
// delete them.
//
// Lock order: GTL lock (clapiGtlLock), then a token's table lock, then its send
// lock; the trace lock is innermost. None is held across an event or network wait.
#pragma once

#include <atomic>
#include <cstdint>

#include "ext/clapi_ext_conn.h"
#include "gateway/clapi_slots.h"
#include "impl/clapi_lock.h"
#include "kvlclient.h"
#include "platform/platform.h"

enum connStatusValue : int32_t {
    CONN_CONNECTING = 0,  // handshake not yet answered
    CONN_CONNECTED = 1,   // the Gateway accepted the handshake
    CONN_FAILED = 2,      // ended before it was established
    CONN_LOST = 3,        // ended after it was established
    CONN_CLOSED = 4,      // ended by a close flow (message id -1)
};

// The record behind the application's opaque gwTok. Fields are in the order of
// the design; the last six are this implementation's own.
struct kvlGatewayToken {
    char eyecatcher[8];     // "KVLGWTOK", no terminator
    kvlGatewayToken* next;  // GTL link (GTL lock)
    int32_t port;
    std::atomic<int32_t> connStatus;  // connStatusValue; moved by the receiver thread
    int32_t connTimeout;              // seconds for the connect and the handshake; 0 = no limit
    int32_t closeRc;                  // what ended or refused the connection (receiver thread)
    std::atomic<int32_t> closing;     // 1 from the start of a close; new ECI calls are refused
    // The connected socket or PLATFORM_INVALID_SOCKET. Closed exactly once, by
    // whoever exchanges it for PLATFORM_INVALID_SOCKET, under the send lock so
    // that a sender never writes to a reused descriptor (clapi_gwycon.h).
    std::atomic<platformSocket> socket;
    slotTable requestTable;  // requestTableP is &requestTable (its first member is the embedded block)
    clapiLock tableLock;     // slot table, async reply queue, async request count
    clapiLock sendLock;      // whole flows on `socket`
    clapiSlot* asyncQueueHead;  // replies of ECI_ASYNC requests not yet collected, oldest first
    clapiSlot* asyncQueueTail;
    int32_t asyncRequestCount;        // ECI_ASYNC requests sent and not yet collected (table lock)
    clapiEvent asyncReplyEvent;       // get-reply waiters; released when a reply is queued or on close
    clapiEvent connEvent;             // the connecting thread waits here for the handshake answer
    clapiEvent recvThreadEndedEvent;  // released while no receiver thread runs
    clapiEvent requestsEnded;         // released when no API call nor async request is outstanding
    int32_t apiCallCount;             // exported calls inside the library with this token (GTL lock)
    char applid[9];
    char applidQualifier[9];
    platformThread receiver;  // joined before the token is freed
    clapiLock socketLock;     // orders shutdown against close of `socket`; taken after the send lock
    std::atomic<int32_t> stopReceiver;  // 1: the receiver thread is to end at its next wait
    int32_t opening;          // 1 until clapiCreateGatewayToken hands the token out (GTL lock)
    int32_t deleting;         // a delete of this token is under way (GTL lock)
    uint64_t closeAllPass;    // the latest close-all walk that visited it (GTL lock)
    clapiExtConn ext;         // deadline, completion signal and statistics of the extension API
};

// 0 while the connection is open; otherwise the code a request on it gets.
// Read under the table lock, where the receiver ends the connection.
inline int clapiConnectionEndedRc(const kvlGatewayToken* token) {
    int32_t status = token->connStatus.load();
    if (status == CONN_CONNECTED) return 0;
    return status == CONN_LOST ? KVL_ERR_LOSTGWCON : KVL_ERR_GATEWAY_CLOSED;
}

// Internal results of findGatewayToken; never returned to the application.
constexpr int FIND_TOKEN_NULL = 1002;
constexpr int FIND_TOKEN_NOT_FOUND = 1003;
constexpr int FIND_TOKEN_FOUND = 1004;

// Creates, chains and connects a token; *gwTokPtr is written only on success.
int clapiCreateGatewayToken(kvlGatewayToken** gwTokPtr, const char* host, int32_t port, int32_t connTimeout,
                            const char* applid, const char* applidQualifier);
// The same, opened by the extension API's plan (clapi_gwycon.h).
struct clapiOpenPlan;
int clapiCreateGatewayTokenWithPlan(kvlGatewayToken** gwTokPtr, const char* host, int32_t port, int32_t connTimeout,
                                    const char* applid, const char* applidQualifier, clapiOpenPlan* plan);
// Every exported function that uses a token calls Register first (0, -9, or -101
// when the token is not on the GTL) and Unregister exactly once after its last use.
int clapiRegisterRequest(kvlGatewayToken* gwTok);
int clapiUnregisterRequest(kvlGatewayToken* gwTok);

// Writes the whole GTL to the trace destination, whatever the trace level.
void clapiDumpGatewayTokens();
// One line describing the token into `buffer` (at least 512 bytes); -103 when buffer is null.
int formatGatewayToken(kvlGatewayToken* gwTok, char* buffer);
constexpr int GWTOK_FORMAT_SIZE = 512;

// Close, then delete: Close marks the token closing (-140 when it already is);
// Delete waits (closeTimeout -1: without limit, 0: not at all, n: n seconds)
// for work in flight, ends the connection, unchains and frees the token.
// lockRequired false: the caller holds the GTL lock (Delete releases it).
int clapiCloseGatewayToken(kvlGatewayToken* gwTok, bool lockRequired);
int clapiDeleteGatewayToken(kvlGatewayToken** gwTokPtr, int32_t closeTimeout, bool lockRequired);
// Closes and deletes every token without waiting; always 0.
int clapiDeleteGatewayTokens();

// Seconds a close waits for the Gateway to answer the close request, or for a
// sender stuck on a Gateway that does not read, before it shuts the socket
// down itself (tests shorten it).
extern uint32_t clapiCloseAnswerSeconds;

// --- Within the module --------------------------------------------------------

// Steps of creation before the token is chained: allocates, initialises the
// slot table, locks and events. 0, -9 or -1 (asyncReplyEvent); nothing is left
// behind on failure.
int allocateGatewayToken(kvlGatewayToken** tokenPtr, int32_t port, int32_t connTimeout, const char* applid,
                         const char* applidQualifier);
// Destroys what allocateGatewayToken created and frees the record.
void freeGatewayToken(kvlGatewayToken* token);
int openClientSocket(kvlGatewayToken* gwTok, const char* host, int32_t port, const char* applid,
                     const char* applidQualifier);
int quiesceConnection(kvlGatewayToken* gwTok, int32_t closeTimeout);

// GTL operations; findGatewayToken and the two accessors need the GTL lock held.
int chainGatewayToken(kvlGatewayToken* newToken);
int findGatewayToken(kvlGatewayToken* targetToken, kvlGatewayToken** parentTokenPtrPtr);
void unchainGatewayToken(kvlGatewayToken* token, kvlGatewayToken* parent);
kvlGatewayToken* gtlHead();
kvlGatewayToken* gtlTail();
