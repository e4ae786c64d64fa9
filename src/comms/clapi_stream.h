// A byte stream laid over a connected socket (a TLS session), found by the
// socket it runs on. The socket buffers read and write through it when one is
// attached, and straight through the socket otherwise, so a plain connection
// does exactly what it always did.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/platform.h"

class clapiStream {
public:
    virtual ~clapiStream() = default;
    // Every byte or failure: len, or -1 with *error (a socket error code, or 0
    // when the failure is the stream's own and already traced).
    virtual long long sendAll(const uint8_t* data, size_t len, int* error) = 0;
    // One receive of at most len bytes: >0 bytes, 0 the peer ended the stream,
    // -1 failure with *error as for sendAll. Blocks as a socket recv would.
    virtual long long recv(uint8_t* data, size_t len, int* error) = 0;
    // As platformWaitReadable (seconds, 0: no limit), but readable means that a
    // recv returns at once: records that carry no data (session tickets, key
    // updates) are taken off the socket while waiting and do not count.
    virtual int waitReadable(int timeoutSeconds) = 0;
    // Tells the peer that this side ends the stream (a TLS close_notify) just
    // before the socket is shut down. Best effort: never blocks, never waits
    // for the peer's answer, and gives up when a send is under way.
    virtual void end() {}
};

// Attaches stream to socket s (the registry owns it from here). 0, or -1 when
// the socket already has one.
int clapiStreamAttach(platformSocket s, clapiStream* stream);
// Ends the stream of s, if any (see clapiStream::end). The caller keeps the
// stream alive meanwhile (it holds the lock under which the socket is closed).
void clapiStreamEnd(platformSocket s);
// Detaches and destroys the stream of s, if any. The caller makes sure nobody
// is using it (the socket is about to be closed under the send lock, with the
// receiver thread ended or not yet started).
void clapiStreamRelease(platformSocket s);
// The stream of s, or nullptr. Costs one atomic load while no stream exists.
clapiStream* clapiStreamFor(platformSocket s);
