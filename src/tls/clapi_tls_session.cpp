// The TLS session of a connection: the handshake on the connected socket, then
// a stream the socket buffers read and write through. Backend-neutral: the
// record work is the engine's (clapi_tls_openssl.cpp, clapi_tls_schannel.cpp),
// the socket, the waiting and the locking are here.
//
// Locks: engineLock guards the engine and the buffered bytes; wireLock keeps
// records in order on the socket. Order: readLock, engineLock, wireLock. No
// lock but wireLock is held while blocked on the socket, so a sender stuck in
// send() never stops the receiver from decrypting.
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <thread>

#include "comms/clapi_stream.h"
#include "gateway/clapi_gwytok.h"
#include "impl/clapi_trace.h"
#include "tls/clapi_tls.h"
#include "tls/clapi_tls_engine.h"

namespace {

constexpr size_t kRecvChunk = 17 * 1024;  // one full TLS record and its overhead
// How long end() tries for its locks: a reader or sender holds them only
// briefly, unless it is stuck in a full socket, which the shutdown frees.
constexpr auto kEndLockPatience = std::chrono::milliseconds(20);

// Sends every byte; false with *error on failure.
bool sendRaw(platformSocket s, const tlsBytes& bytes, int* error) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        long long n = platformSend(s, bytes.begin() + sent, bytes.size() - sent);
        if (n < 1) {
            *error = platformSocketError();
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

class tlsSession final : public clapiStream {
public:
    tlsSession(platformSocket s, std::unique_ptr<tlsEngine> engine) : socket_(s), engine_(std::move(engine)) {}

    ~tlsSession() override {
        CLAPI_TRACE(DEBUG, 9230, "clapi_tls.releaseSession() Session on socket %lu released\n", (unsigned long)socket_);
    }

    // Bytes the handshake read past its end belong to the first records.
    // Records that came with the end of the handshake are decrypted at once, so
    // that waitReadable() sees their plaintext.
    bool keep(tlsBytes& leftover, tlsBytes& plain) {
        std::lock_guard<std::mutex> engine(engineLock_);
        if (!rawIn_.append(leftover.begin(), leftover.size())) return false;
        if (!plain_.append(plain.begin(), plain.size())) return false;
        decryptLocked();
        return true;
    }

    long long sendAll(const uint8_t* data, size_t len, int* error) override {
        std::unique_lock<std::mutex> engine(engineLock_);
        *error = 0;
        if (failed_) return -1;
        if (ending_.load()) {
            CLAPI_TRACE(EXC, 9220, "clapi_tls.send() The TLS session has ended\n");
            return -1;
        }
        // The records go into the wire's own buffer, kept from call to call.
        std::unique_lock<std::mutex> wire(wireLock_);
        wireOut_.clear();
        tlsFailure why;
        if (!engine_->encrypt(data, len, wireOut_, why)) {
            failed_ = true;
            CLAPI_TRACE(EXC, 9220, "clapi_tls.send() %s\n", why.text);
            return -1;
        }
        engine.unlock();
        bool sent = sendRaw(socket_, wireOut_, error);
        size_t recordBytes = wireOut_.size();
        wire.unlock();
        if (!sent) return -1;
        CLAPI_TRACE(DEBUG, 9221, "clapi_tls.send() %lu bytes sent as %lu bytes of records\n", (unsigned long)len,
                    (unsigned long)recordBytes);
        return static_cast<long long>(len);
    }

    long long recv(uint8_t* data, size_t len, int* error) override {
        std::lock_guard<std::mutex> reader(readLock_);
        for (;;) {
            {
                std::lock_guard<std::mutex> engine(engineLock_);
                if (!plain_.empty()) {
                    size_t n = len < plain_.size() ? len : plain_.size();
                    memcpy(data, plain_.begin(), n);
                    plain_.consume(n);
                    *error = 0;
                    return static_cast<long long>(n);
                }
                if (failed_ || ended_) {
                    *error = socketError_;
                    return failed_ ? -1 : 0;
                }
            }
            pullFromSocket();
        }
    }

    int waitReadable(int timeoutSeconds) override {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
        for (;;) {
            if (ready()) return 1;
            int readable;
            if (timeoutSeconds == 0) {
                readable = platformWaitReadable(socket_, 0);
            } else {
                auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
                if (left.count() <= 0) return 0;
                readable = platformWaitReadableMs(socket_, static_cast<int>(left.count()));
            }
            if (readable <= 0) return readable;
            std::lock_guard<std::mutex> reader(readLock_);
            pullFromSocket();  // readable: returns without blocking
        }
    }

    void end() override {
        if (ending_.exchange(true)) return;
        auto giveUp = std::chrono::steady_clock::now() + kEndLockPatience;
        std::unique_lock<std::mutex> engine(engineLock_, std::defer_lock);
        if (!lockBefore(engine, giveUp)) {
            CLAPI_TRACE(DEBUG, 9227, "clapi_tls.end() No close_notify: the session is busy\n");
            return;
        }
        tlsBytes out(tlsBytes::records);
        tlsFailure why;
        if (failed_ || ended_ || !engine_->closeNotify(out, why)) {
            CLAPI_TRACE(DEBUG, 9227, "clapi_tls.end() No close_notify: %s\n",
                        failed_ || ended_ ? "the session is already over" : why.text);
            return;
        }
        // A sender inside a record holds the wire: an alert now would cut it.
        // One that is finishing lets go at once; one stuck in a full socket
        // is freed by the shutdown that follows, without a close_notify.
        std::unique_lock<std::mutex> wire(wireLock_, std::defer_lock);
        lockBefore(wire, giveUp);
        engine.unlock();
        bool sent = wire.owns_lock() && tlsSendIfRoom(socket_, out);
        if (sent) {
            CLAPI_TRACE(EVENT, 9226, "clapi_tls.end() close_notify sent\n");
        } else {
            CLAPI_TRACE(DEBUG, 9227, "clapi_tls.end() No close_notify: %s\n",
                        wire.owns_lock() ? "the socket does not take it at once" : "a record is being sent");
        }
    }

private:
    static bool lockBefore(std::unique_lock<std::mutex>& lock, std::chrono::steady_clock::time_point giveUp) {
        while (!lock.try_lock()) {
            if (std::chrono::steady_clock::now() >= giveUp) return false;
            std::this_thread::yield();
        }
        return true;
    }

    bool ready() {
        std::lock_guard<std::mutex> engine(engineLock_);
        return !plain_.empty() || ended_ || failed_;
    }

    // One receive from the socket (blocking), decrypted. The socket's end or
    // failure is kept as the session's (readLock held).
    void pullFromSocket() {
        // Straight into the queue the engine reads, which only readers touch.
        uint8_t* at = rawIn_.reserve(kRecvChunk);
        if (at == nullptr) {
            std::lock_guard<std::mutex> engine(engineLock_);
            failed_ = true;
            CLAPI_TRACE(EXC, 9222, "clapi_tls.recv() No memory for %lu bytes of records\n", (unsigned long)kRecvChunk);
            return;
        }
        long long got = platformRecv(socket_, at, kRecvChunk);
        int error = got < 0 ? platformSocketError() : 0;
        std::lock_guard<std::mutex> engine(engineLock_);
        if (got < 1) {
            socketError_ = error;
            if (got < 0) failed_ = true;
            else ended_ = true;
            return;
        }
        rawIn_.commit(static_cast<size_t>(got));
        decryptLocked();
    }

    // Turns what has arrived into plaintext; sends what the engine must answer.
    void decryptLocked() {
        tlsBytes out(tlsBytes::records);
        tlsFailure why;
        tlsStatus status = engine_->decrypt(rawIn_, plain_, out, why);
        if (status == tlsStatus::failed) {
            failed_ = true;
            CLAPI_TRACE(EXC, 9223, "clapi_tls.recv() %s\n", why.text);
        } else if (status == tlsStatus::closed) {
            ended_ = true;
            CLAPI_TRACE(EVENT, 9224, "clapi_tls.recv() The Gateway ended the TLS session\n");
        }
        if (!out.empty()) {
            // Rare (a key update): answered in order with the senders' records.
            std::lock_guard<std::mutex> wire(wireLock_);
            int error = 0;
            if (!sendRaw(socket_, out, &error)) {
                CLAPI_TRACE(EXC, 9225, "clapi_tls.recv() Unable to send a TLS answer: error %d\n", error);
            }
        }
    }

    platformSocket socket_;
    std::unique_ptr<tlsEngine> engine_;
    std::mutex readLock_;
    std::mutex engineLock_;
    std::mutex wireLock_;
    tlsBytes rawIn_{tlsBytes::records};    // records received, not yet decrypted (readLock)
    tlsBytes plain_;                        // plaintext not yet taken by a reader (engineLock)
    tlsBytes wireOut_{tlsBytes::records};  // records being sent (wireLock)
    bool failed_ = false;  // (engineLock)
    int socketError_ = 0;  // the socket's error once failed_ came from it (engineLock)
    bool ended_ = false;   // (engineLock)
    std::atomic<bool> ending_{false};  // end() ran: no record may follow the close_notify
};

// Reads the options the caller's record has; the rest keep their defaults.
#define KVL_HAS_FIELD(o, field) \
    ((o)->size >= offsetof(KVL_EXT_ConnectOptions, field) + sizeof(((KVL_EXT_ConnectOptions*)nullptr)->field))
#define KVL_FIELD_OR(o, field, fallback) (KVL_HAS_FIELD(o, field) ? (o)->field : (fallback))

bool settingsFrom(const KVL_EXT_ConnectOptions* o, tlsSettings& s, tlsFailure& why) {
    s.verify = KVL_FIELD_OR(o, tlsNoVerify, 0) == 0;
    s.checkName = KVL_FIELD_OR(o, tlsNoHostnameCheck, 0) == 0;
    int version = KVL_FIELD_OR(o, tlsMinVersion, 0);
    if (version == 0) version = KVL_EXT_TLS_1_2;
    if (version != KVL_EXT_TLS_1_2 && version != KVL_EXT_TLS_1_3)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "unsupported minimum TLS version 0x%04X", (unsigned)version);
    s.minVersion = version;
    s.caFile = KVL_FIELD_OR(o, tlsCaFile, nullptr);
    s.certFile = KVL_FIELD_OR(o, tlsCertFile, nullptr);
    s.keyFile = KVL_FIELD_OR(o, tlsKeyFile, nullptr);
    s.cipherList = KVL_FIELD_OR(o, tlsCipherList, nullptr);
    const char* sni = KVL_FIELD_OR(o, tlsServerName, nullptr);
    s.name = sni != nullptr && sni[0] != '\0' ? sni : o->host;
    return true;
}

using steadyClock = std::chrono::steady_clock;

int remainingMs(steadyClock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steadyClock::now()).count();
    return left < 0 ? 0 : left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
}

constexpr int kVerdictWaitMs = 1000;

// After a TLS 1.3 handshake in which the Gateway asked for our certificate:
// its refusal (an alert) or its first records come right away; a refusal is a
// failure of the open, not a lost connection later.
int awaitVerdict(platformSocket s, tlsEngine& engine, int timeLeftMs, tlsBytes& leftover, tlsBytes& plain,
                 tlsFailure& why) {
    int wait = timeLeftMs < 0 || timeLeftMs > kVerdictWaitMs ? kVerdictWaitMs : timeLeftMs;
    if (platformWaitReadableMs(s, wait) <= 0) return 0;
    uint8_t chunk[4096];
    long long got = platformRecv(s, chunk, sizeof chunk);
    if (got < 1) {
        tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the Gateway closed the connection after the TLS handshake "
                                                "(client certificate refused?)");
        return why.code;
    }
    if (!leftover.append(chunk, static_cast<size_t>(got))) {
        tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the TLS handshake");
        return why.code;
    }
    tlsBytes out(tlsBytes::records);
    tlsStatus status = engine.decrypt(leftover, plain, out, why);
    if (!out.empty()) {
        int error = 0;
        sendRaw(s, out, &error);
    }
    if (status == tlsStatus::failed) {
        tlsFailure inner = why;
        tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the Gateway refused the client certificate: %s", inner.text);
        return why.code;
    }
    if (status == tlsStatus::closed) {
        tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the Gateway ended the TLS session after the handshake");
        return why.code;
    }
    return 0;
}

// The handshake proper: 0 with `leftover` holding bytes read past its end and
// `plain` any plaintext that came with them.
int runHandshake(platformSocket s, tlsEngine& engine, int timeoutMs, tlsBytes& leftover, tlsBytes& plain,
                 tlsFailure& why) {
    auto deadline = steadyClock::now() + std::chrono::milliseconds(timeoutMs);
    uint8_t chunk[kRecvChunk];
    for (;;) {
        tlsBytes out(tlsBytes::records);
        tlsStatus status = engine.handshake(leftover, out, why);
        int error = 0;
        if (!out.empty()) {
            CLAPI_TRACE(DEBUG, 9205, "clapi_tls.clapiTlsStart() Sending %lu handshake bytes\n", (unsigned long)out.size());
            if (!sendRaw(s, out, &error) && status != tlsStatus::failed) {
                char text[256];
                platformSocketErrorText(error, text, sizeof text);
                tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the connection broke during the TLS handshake: %s (%d)", text,
                        error);
                return why.code;
            }
        }
        if (status == tlsStatus::done) {
            if (!engine.awaitsClientAuthVerdict()) return 0;
            return awaitVerdict(s, engine, timeoutMs > 0 ? remainingMs(deadline) : -1, leftover, plain, why);
        }
        if (status == tlsStatus::failed) return why.code;
        if (status == tlsStatus::closed) {
            tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the Gateway ended the TLS session during the handshake");
            return why.code;
        }
        int wait = timeoutMs > 0 ? remainingMs(deadline) : -1;
        int ready = wait < 0 ? platformWaitReadable(s, 0) : platformWaitReadableMs(s, wait);
        if (ready == 0) {
            tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the TLS handshake did not finish within %d ms", timeoutMs);
            return why.code;
        }
        long long got = ready < 0 ? -1 : platformRecv(s, chunk, sizeof chunk);
        if (got < 1) {
            error = got < 0 ? platformSocketError() : 0;
            if (error == 0) {
                tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the Gateway closed the connection during the TLS handshake");
            } else {
                char text[256];
                platformSocketErrorText(error, text, sizeof text);
                tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the connection broke during the TLS handshake: %s (%d)", text,
                        error);
            }
            return why.code;
        }
        CLAPI_TRACE(DEBUG, 9206, "clapi_tls.clapiTlsStart() Received %lu handshake bytes\n", (unsigned long)got);
        if (!leftover.append(chunk, static_cast<size_t>(got))) {
            tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the TLS handshake");
            return why.code;
        }
    }
}

}  // namespace

bool clapiTlsAvailable() { return true; }

int clapiTlsStart(kvlGatewayToken* gwTok, const KVL_EXT_ConnectOptions* options, int timeoutMs, char* errText,
                  size_t errLen) {
    CLAPI_TRACE(ENTRY, 9200, "clapi_tls.clapiTlsStart(gwTok=%p, options=%p, timeoutMs=%d)\n", static_cast<void*>(gwTok),
                static_cast<const void*>(options), timeoutMs);
    tlsFailure why;
    int rc = 0;
    platformSocket s = gwTok != nullptr ? gwTok->socket.load() : PLATFORM_INVALID_SOCKET;
    tlsSettings settings;
    if (options == nullptr || options->host == nullptr || s == PLATFORM_INVALID_SOCKET) {
        rc = KVL_EXT_ERR_TLS_CONFIG;
        tlsFail(why, rc, "no connected socket or no host for TLS");
    } else if (!settingsFrom(options, settings, why)) {
        rc = why.code;
    }
    if (rc == 0) {
        CLAPI_TRACE(DEBUG, 9201,
                    "clapi_tls.clapiTlsStart() name=%s verify=%d checkName=%d minVersion=0x%04X caFile=%s certFile=%s "
                    "cipherList=%s\n",
                    settings.name, (int)settings.verify, (int)settings.checkName, (unsigned)settings.minVersion,
                    settings.caFile ? settings.caFile : "(system)", settings.certFile ? settings.certFile : "(none)",
                    settings.cipherList ? settings.cipherList : "(default)");
        std::unique_ptr<tlsEngine> engine = clapiTlsCreateEngine(settings, why);
        tlsBytes leftover(tlsBytes::records);
        tlsBytes plain;
        if (!engine) {
            rc = why.code;
        } else {
            rc = runHandshake(s, *engine, timeoutMs, leftover, plain, why);
        }
        if (rc == 0) {
            char described[512];
            engine->describe(described, sizeof described);
            CLAPI_TRACE(EVENT, 9207, "clapi_tls.clapiTlsStart() TLS session established: %s\n", described);
            auto* session = new (std::nothrow) tlsSession(s, std::move(engine));
            if (session == nullptr || !session->keep(leftover, plain) || clapiStreamAttach(s, session) != 0) {
                delete session;
                rc = tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "no memory for the TLS session") ? 0 : why.code;
            }
        }
    }
    if (rc != 0) {
        CLAPI_TRACE(EXC, 9202, "clapi_tls.clapiTlsStart() %s (rc=%d)\n", why.text, rc);
    }
    if (errText != nullptr && errLen > 0) snprintf(errText, errLen, "%s", rc != 0 ? why.text : "");
    CLAPI_TRACE(EXIT, 9209, "clapi_tls.clapiTlsStart() rc=%d\n", rc);
    return rc;
}
