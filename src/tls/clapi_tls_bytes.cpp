// The byte queue and failure record the TLS glue and its backends share.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tls/clapi_tls_engine.h"

namespace {
// Called through a volatile pointer so that a wipe right before free() is kept.
void* (*const volatile wipe)(void*, int, size_t) = memset;
}  // namespace

tlsBytes::~tlsBytes() {
    clear();
    free(data);
}

uint8_t* tlsBytes::reserve(size_t len) {
    if (cap - tail >= len) return data + tail;
    if (head > 0) {  // move what is left to the front before growing
        memmove(data, data + head, tail - head);
        tail -= head;
        head = 0;
        if (cap - tail >= len) return data + tail;
    }
    if (len > (SIZE_MAX / 2) - tail) return nullptr;
    size_t want = cap == 0 ? 4096 : cap;
    while (want - tail < len) want *= 2;
    // Plaintext may hold secrets: copy into fresh memory and wipe the old.
    auto* bigger = static_cast<uint8_t*>(malloc(want));
    if (bigger == nullptr) return nullptr;
    if (tail > 0) memcpy(bigger, data, tail);
    if (data != nullptr) {
        if (secret) wipe(data, 0, written);
        free(data);
    }
    data = bigger;
    cap = want;
    written = tail;
    return data + tail;
}

bool tlsBytes::append(const uint8_t* bytes, size_t len) {
    if (len == 0) return true;
    uint8_t* at = reserve(len);
    if (at == nullptr) return false;
    memcpy(at, bytes, len);
    commit(len);
    return true;
}

void tlsBytes::consume(size_t len) {
    head += len < size() ? len : size();
    if (head == tail) head = tail = 0;
}

void tlsBytes::clear() {
    if (data != nullptr && secret) wipe(data, 0, written);
    head = tail = written = 0;
}

bool tlsFail(tlsFailure& why, int code, const char* format, ...) {
    why.code = code;
    va_list args;
    va_start(args, format);
    vsnprintf(why.text, sizeof why.text, format, args);
    va_end(args);
    return false;
}
