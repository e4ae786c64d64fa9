// PEM files for the Schannel backend: CryptoAPI decodes base64 and DER but
// does not read files nor tell the blocks of a PEM file apart.
#pragma once
#if defined(_WIN32)

#include <windows.h>

#include <cstddef>

// A file's text, NUL-terminated; wiped when freed, since it may hold a private key.
class pemFile {
public:
    pemFile() = default;
    pemFile(const pemFile&) = delete;
    pemFile& operator=(const pemFile&) = delete;
    ~pemFile();
    // False when the file cannot be read or is larger than any certificate or key file.
    bool read(const char* path);
    const char* text() const { return text_; }

private:
    char* text_ = nullptr;
    size_t size_ = 0;
};

// One "-----BEGIN label-----" ... "-----END label-----" block, its body decoded.
// The DER is wiped when freed.
class pemBlock {
public:
    pemBlock() = default;
    pemBlock(const pemBlock&) = delete;
    pemBlock& operator=(const pemBlock&) = delete;
    ~pemBlock() { clear(); }
    void clear();

    char label[48] = "";
    BYTE* der = nullptr;
    DWORD size = 0;
    bool encrypted = false;  // a legacy "Proc-Type: 4,ENCRYPTED" header: not decoded
};

// Reads the next block at or after *at into block and moves *at past it;
// false when there is none. A block whose body is not base64 is kept with
// size 0, so that the caller can say which one it could not read.
bool pemNextBlock(const char*& at, pemBlock& block);

#endif
