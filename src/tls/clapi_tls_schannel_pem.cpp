// Compiled in every TLS build (the source list takes the folder); only the
// Windows one has content.
#if defined(_WIN32)
#include "tls/clapi_tls_schannel_pem.h"

#include <wincrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
constexpr size_t kMaxPemFile = 4u * 1024 * 1024;  // no certificate, CA or key file is that large
}

pemFile::~pemFile() {
    if (text_ != nullptr) SecureZeroMemory(text_, size_);
    free(text_);
}

bool pemFile::read(const char* path) {
    FILE* f = path != nullptr ? fopen(path, "rb") : nullptr;
    if (f == nullptr) return false;
    char chunk[4096];
    size_t n;
    size_t cap = 0;
    bool ok = true;
    while (ok && (n = fread(chunk, 1, sizeof chunk, f)) > 0) {
        if (size_ + n + 1 > cap) {
            size_t want = cap == 0 ? 8192 : 2 * cap;
            while (want < size_ + n + 1) want *= 2;
            char* bigger = size_ + n <= kMaxPemFile ? static_cast<char*>(malloc(want)) : nullptr;
            ok = bigger != nullptr;
            if (!ok) break;
            // Not realloc: the old buffer may hold a key and is wiped before it goes.
            if (text_ != nullptr) {
                memcpy(bigger, text_, size_);
                SecureZeroMemory(text_, size_);
                free(text_);
            }
            text_ = bigger;
            cap = want;
        }
        memcpy(text_ + size_, chunk, n);
        size_ += n;
        text_[size_] = '\0';
    }
    SecureZeroMemory(chunk, sizeof chunk);
    ok = ok && !ferror(f) && text_ != nullptr;
    fclose(f);
    return ok;
}

void pemBlock::clear() {
    if (der != nullptr) SecureZeroMemory(der, size);
    free(der);
    der = nullptr;
    size = 0;
    label[0] = '\0';
    encrypted = false;
}

bool pemNextBlock(const char*& at, pemBlock& block) {
    block.clear();
    static const char kBegin[] = "-----BEGIN ";
    for (const char* begin = strstr(at, kBegin); begin != nullptr; begin = strstr(begin + 1, kBegin)) {
        const char* labelAt = begin + sizeof kBegin - 1;
        const char* labelEnd = strstr(labelAt, "-----");
        if (labelEnd == nullptr) return false;
        size_t labelLen = static_cast<size_t>(labelEnd - labelAt);
        if (labelLen == 0 || labelLen >= sizeof block.label || memchr(labelAt, '\n', labelLen) != nullptr) continue;
        char end[80];
        snprintf(end, sizeof end, "-----END %.*s-----", static_cast<int>(labelLen), labelAt);
        const char* body = labelEnd + 5;
        const char* bodyEnd = strstr(body, end);
        if (bodyEnd == nullptr) return false;
        memcpy(block.label, labelAt, labelLen);
        block.label[labelLen] = '\0';
        at = bodyEnd + strlen(end);
        size_t bodyLen = static_cast<size_t>(bodyEnd - body);
        // RFC 1421 headers ("Proc-Type: 4,ENCRYPTED", "DEK-Info: ...") mark an encrypted legacy key.
        const char* header = strstr(body, "Proc-Type:");
        if (header != nullptr && header < bodyEnd) {
            block.encrypted = true;
            return true;
        }
        DWORD derLen = 0;
        if (!CryptStringToBinaryA(body, static_cast<DWORD>(bodyLen), CRYPT_STRING_BASE64, nullptr, &derLen, nullptr,
                                  nullptr) ||
            derLen == 0)
            return true;
        block.der = static_cast<BYTE*>(malloc(derLen));
        if (block.der == nullptr) return true;
        if (!CryptStringToBinaryA(body, static_cast<DWORD>(bodyLen), CRYPT_STRING_BASE64, block.der, &derLen, nullptr,
                                  nullptr)) {
            free(block.der);
            block.der = nullptr;
            return true;
        }
        block.size = derLen;
        return true;
    }
    return false;
}

#endif
