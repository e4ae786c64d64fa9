// The client certificate and key of a Schannel session (mutual TLS), read
// from PEM files and given to CryptoAPI in a form Schannel can sign with.
#pragma once
#if defined(_WIN32)

#include <windows.h>
#include <wincrypt.h>

#include "tls/clapi_tls_engine.h"
#include "tls/clapi_tls_keyder.h"

class schannelClientCert {
public:
    schannelClientCert() = default;
    schannelClientCert(const schannelClientCert&) = delete;
    schannelClientCert& operator=(const schannelClientCert&) = delete;
    // Frees the key (and deletes its container): only once Schannel's
    // credentials that use it are freed.
    ~schannelClientCert();

    // Loads the first certificate of certFile (any further ones go with it as
    // its chain) and the private key of keyFile, checks that they belong
    // together and attaches the key. False with KVL_EXT_ERR_TLS_CONFIG and the
    // file and reason in why.
    bool load(const char* certFile, const char* keyFile, tlsFailure& why);
    PCCERT_CONTEXT certificate() const { return cert_; }

private:
    // rsaBlob: a PRIVATEKEYBLOB, changed in place (its algorithm).
    bool attachRsa(BYTE* rsaBlob, DWORD size, const char* keyFile, const char* certFile, tlsFailure& why);
    // privateValue big-endian; publicPoint empty when the key file has none.
    bool attachEc(const tlsDerSpan& privateValue, const tlsDerSpan& publicPoint, const char* keyFile, const char* certFile,
                  tlsFailure& why);

    HCERTSTORE store_ = nullptr;
    PCCERT_CONTEXT cert_ = nullptr;
    // An RSA key: in a container of the legacy provider, made for this
    // certificate and deleted with it.
    HCRYPTPROV prov_ = 0;
    HCRYPTKEY key_ = 0;
    char container_[80] = "";
    // An EC key: a key storage provider key, never persisted.
    HMODULE ncrypt_ = nullptr;
    ULONG_PTR ncryptProv_ = 0;
    ULONG_PTR ncryptKey_ = 0;
};

#endif
