// What the TLS glue asks of a backend (OpenSSL on Linux, Schannel on Windows):
// a record engine that never touches the socket. The glue moves the bytes, so
// every backend shares one way of waiting, timing out, locking and shutting down.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/platform.h"

// A growable byte queue that never throws: append at the back, consume at the front.
// A queue of plaintext is wiped when it is cleared, grown or freed; a queue of
// records (tlsBytes::records) is not, since records are what the wire shows.
struct tlsBytes {
    struct recordsTag {};
    static constexpr recordsTag records{};

    uint8_t* data = nullptr;
    size_t head = 0;  // first unconsumed byte
    size_t tail = 0;  // one past the last byte
    size_t cap = 0;
    size_t written = 0;  // bytes ever written since the last wipe: what a wipe covers
    bool secret = true;

    tlsBytes() = default;
    explicit tlsBytes(recordsTag) : secret(false) {}
    tlsBytes(const tlsBytes&) = delete;
    tlsBytes& operator=(const tlsBytes&) = delete;
    ~tlsBytes();
    size_t size() const { return tail - head; }
    bool empty() const { return tail == head; }
    const uint8_t* begin() const { return data + head; }
    bool append(const uint8_t* bytes, size_t len);  // false: no memory
    // Room for len more bytes at the back (written at end(), then commit(len)).
    uint8_t* reserve(size_t len);
    void commit(size_t len) {
        tail += len;
        if (tail > written) written = tail;
    }
    void consume(size_t len);
    void clear();  // wipes what it held
};

enum class tlsStatus {
    done,       // the step finished (handshake complete, or input decrypted)
    wantInput,  // more bytes from the peer are needed
    closed,     // the peer ended the session (close_notify)
    failed,     // see the failure record
};

struct tlsFailure {
    int code = 0;         // a KVL_EXT_ERR_TLS_ code
    char text[512] = {};  // why, for the application and the trace
};
// Fills a failure record; returns false so that callers can `return tlsFail(...)`.
bool tlsFail(tlsFailure& why, int code, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(gnu_printf, 3, 4)))
#endif
    ;

struct tlsSettings {
    bool verify = true;     // check the chain against caFile or the system store
    bool checkName = true;  // check that the certificate names `name`
    int minVersion = 0x0303;
    const char* name = nullptr;  // the name sent as SNI and checked; an address is only checked
    const char* caFile = nullptr;
    const char* certFile = nullptr;
    const char* keyFile = nullptr;
    const char* cipherList = nullptr;
};

class tlsEngine {
public:
    virtual ~tlsEngine() = default;
    // Consumes what it can of `in`, appends the bytes to send to `out`.
    // done once the session is up (its certificate checked); wantInput: send
    // `out`, then call again with more input.
    virtual tlsStatus handshake(tlsBytes& in, tlsBytes& out, tlsFailure& why) = 0;
    // Appends the records carrying len bytes of plaintext to `out`.
    virtual bool encrypt(const uint8_t* data, size_t len, tlsBytes& out, tlsFailure& why) = 0;
    // Consumes what it can of `in`, appends every plaintext byte it yields to
    // `plain` and anything that must be sent back to `out`. done or wantInput
    // (both: nothing more without input), closed or failed.
    virtual tlsStatus decrypt(tlsBytes& in, tlsBytes& plain, tlsBytes& out, tlsFailure& why) = 0;
    // Appends this side's close_notify alert to `out`, once. The peer's own
    // close_notify is not awaited. False when the session cannot send one
    // (the handshake never finished, or a fatal alert already ended it).
    virtual bool closeNotify(tlsBytes& out, tlsFailure& why) = 0;
    // True after a TLS 1.3 handshake in which the Gateway asked for a client
    // certificate: it judges the certificate only after the handshake, so its
    // refusal arrives as the first record.
    virtual bool awaitsClientAuthVerdict() { return false; }
    // "TLSv1.3 TLS_AES_256_GCM_SHA384, peer CN=..." for the trace.
    virtual void describe(char* text, size_t size) = 0;
};

// Sends bytes only if the socket takes them at once, in one call; false
// otherwise (full send buffer, broken connection). For the close_notify that
// goes out just before a shutdown, which must never wait. Defined by the
// backend, which knows its OS.
bool tlsSendIfRoom(platformSocket s, const tlsBytes& bytes);

// The backend of this build.
std::unique_ptr<tlsEngine> clapiTlsCreateEngine(const tlsSettings& settings, tlsFailure& why);
