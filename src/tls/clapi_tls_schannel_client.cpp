// Compiled in every TLS build (the source list takes the folder); only the
// Windows one has content.
#if defined(_WIN32)
#include "tls/clapi_tls_schannel_client.h"

#include <ncrypt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kvl_ext.h"
#include "tls/clapi_tls_schannel_pem.h"

namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

// A CryptoAPI allocation that may hold key material: wiped before it goes.
struct decoded {
    void* data = nullptr;
    DWORD size = 0;
    decoded() = default;
    decoded(const decoded&) = delete;
    decoded& operator=(const decoded&) = delete;
    ~decoded() {
        if (data != nullptr) {
            SecureZeroMemory(data, size);
            LocalFree(data);
        }
    }
    bool decode(LPCSTR type, const BYTE* der, DWORD len) {
        return CryptDecodeObjectEx(kEncoding, type, der, len, CRYPT_DECODE_ALLOC_FLAG, nullptr, &data, &size) &&
               data != nullptr;
    }
    template <typename T>
    T* as() const {
        return static_cast<T*>(data);
    }
};

bool sameBytes(const BYTE* a, DWORD aLen, const BYTE* b, DWORD bLen) {
    return aLen == bLen && (aLen == 0 || memcmp(a, b, aLen) == 0);
}

struct curve {
    DWORD pointSize;  // 0x04 || X || Y
    DWORD keySize;
    ULONG magic;
    const char* name;
};
constexpr curve kCurves[] = {
    {65, 32, BCRYPT_ECDSA_PRIVATE_P256_MAGIC, "P-256"},
    {97, 48, BCRYPT_ECDSA_PRIVATE_P384_MAGIC, "P-384"},
    {133, 66, BCRYPT_ECDSA_PRIVATE_P521_MAGIC, "P-521"},
};

// The private key of keyFile: rsa gets it as a PRIVATEKEYBLOB (PUBLICKEYSTRUC,
// RSAPUBKEY, the modulus, then the private fields); an EC key is left in
// block, its parts in ecValue and ecPoint.
bool decodeKeyFile(const char* keyFile, pemBlock& block, decoded& rsa, tlsDerSpan& ecValue, tlsDerSpan& ecPoint,
                   tlsFailure& why) {
    pemFile file;
    if (!file.read(keyFile))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot read the client key file %s", keyFile);
    const char* at = file.text();
    bool found = false;
    while (!found && pemNextBlock(at, block)) {
        if (strcmp(block.label, "ENCRYPTED PRIVATE KEY") == 0 ||
            (block.encrypted && strstr(block.label, "PRIVATE KEY") != nullptr))
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                           "the client key in %s is encrypted: the Windows TLS takes an unencrypted PEM key", keyFile);
        found = strcmp(block.label, "PRIVATE KEY") == 0 || strcmp(block.label, "RSA PRIVATE KEY") == 0 ||
                strcmp(block.label, "EC PRIVATE KEY") == 0;
    }
    if (!found)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                       "%s holds no PEM private key (PRIVATE KEY, RSA PRIVATE KEY or EC PRIVATE KEY)", keyFile);
    if (block.size == 0)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the %s in %s is not valid base64", block.label, keyFile);

    tlsDerSpan inner{block.der, block.size};
    tlsKeyKind kind = strcmp(block.label, "RSA PRIVATE KEY") == 0 ? tlsKeyKind::rsa
                      : strcmp(block.label, "EC PRIVATE KEY") == 0 ? tlsKeyKind::ec
                                                                   : tlsKeyKind::other;
    if (strcmp(block.label, "PRIVATE KEY") == 0) {
        tlsDerSpan algorithm;
        if (!tlsParsePkcs8(block.der, block.size, &kind, &inner, &algorithm))
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the PKCS#8 key in %s cannot be decoded", keyFile);
        if (kind == tlsKeyKind::other)
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                           "the key in %s is of a type the Windows TLS of this build cannot use (RSA and EC keys are)",
                           keyFile);
    }
    if (kind == tlsKeyKind::rsa) {
        if (!rsa.decode(PKCS_RSA_PRIVATE_KEY, inner.data, static_cast<DWORD>(inner.size)) ||
            rsa.size < sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY))
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the RSA key in %s cannot be decoded (0x%08lX)", keyFile,
                           (unsigned long)GetLastError());
        return true;
    }
    if (!tlsParseEcPrivateKey(inner.data, inner.size, &ecValue, &ecPoint))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the EC key in %s cannot be decoded", keyFile);
    return true;
}

bool loadCertificates(const char* certFile, HCERTSTORE store, PCCERT_CONTEXT* leaf, tlsFailure& why) {
    pemFile file;
    if (!file.read(certFile))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot read the client certificate file %s", certFile);
    const char* at = file.text();
    pemBlock block;
    while (pemNextBlock(at, block)) {
        if (strcmp(block.label, "CERTIFICATE") != 0) continue;
        PCCERT_CONTEXT added = nullptr;
        if (block.size == 0 ||
            !CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, block.der, block.size, CERT_STORE_ADD_ALWAYS,
                                              *leaf == nullptr ? &added : nullptr))
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "a certificate in %s cannot be decoded (0x%08lX)", certFile,
                           (unsigned long)GetLastError());
        if (*leaf == nullptr) *leaf = added;
    }
    return *leaf != nullptr || tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "%s holds no PEM certificate", certFile);
}

}  // namespace

schannelClientCert::~schannelClientCert() {
    if (cert_ != nullptr) CertFreeCertificateContext(cert_);
    if (store_ != nullptr) CertCloseStore(store_, 0);
    if (key_ != 0) CryptDestroyKey(key_);
    if (prov_ != 0) CryptReleaseContext(prov_, 0);
    if (container_[0] != '\0') {
        HCRYPTPROV gone = 0;
        CryptAcquireContextA(&gone, container_, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES, CRYPT_DELETEKEYSET | CRYPT_SILENT);
    }
    if (ncrypt_ != nullptr) {
        auto freeObject = reinterpret_cast<decltype(&NCryptFreeObject)>(
            reinterpret_cast<void*>(GetProcAddress(ncrypt_, "NCryptFreeObject")));
        if (freeObject != nullptr) {
            if (ncryptKey_ != 0) freeObject(ncryptKey_);
            if (ncryptProv_ != 0) freeObject(ncryptProv_);
        }
        FreeLibrary(ncrypt_);
    }
}

bool schannelClientCert::load(const char* certFile, const char* keyFile, tlsFailure& why) {
    store_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
    if (store_ == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot make a certificate store");
    if (!loadCertificates(certFile, store_, &cert_, why)) return false;
    pemBlock block;
    decoded rsa;
    tlsDerSpan ecValue, ecPoint;
    if (!decodeKeyFile(keyFile, block, rsa, ecValue, ecPoint, why)) return false;
    bool isRsa = rsa.data != nullptr;

    const CERT_PUBLIC_KEY_INFO& spki = cert_->pCertInfo->SubjectPublicKeyInfo;
    const char* certAlg = spki.Algorithm.pszObjId != nullptr ? spki.Algorithm.pszObjId : "";
    bool certRsa = strcmp(certAlg, szOID_RSA_RSA) == 0;
    bool certEc = strcmp(certAlg, szOID_ECC_PUBLIC_KEY) == 0;
    if ((isRsa && !certRsa) || (!isRsa && !certEc))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                       "the client key in %s does not match the certificate in %s (the key is %s, the certificate's "
                       "is not)", keyFile, certFile, isRsa ? "RSA" : "EC");
    return isRsa ? attachRsa(rsa.as<BYTE>(), rsa.size, keyFile, certFile, why)
                 : attachEc(ecValue, ecPoint, keyFile, certFile, why);
}

bool schannelClientCert::attachRsa(BYTE* rsaBlob, DWORD rsaSize, const char* keyFile, const char* certFile,
                                   tlsFailure& why) {
    // Both blobs start with PUBLICKEYSTRUC, RSAPUBKEY and the modulus.
    decoded pub;
    const CERT_PUBLIC_KEY_INFO& spki = cert_->pCertInfo->SubjectPublicKeyInfo;
    if (!pub.decode(RSA_CSP_PUBLICKEYBLOB, spki.PublicKey.pbData, spki.PublicKey.cbData) ||
        pub.size < sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the RSA public key of the certificate in %s cannot be decoded",
                       certFile);
    auto* header = reinterpret_cast<PUBLICKEYSTRUC*>(rsaBlob);
    const auto* keyPub = reinterpret_cast<const RSAPUBKEY*>(header + 1);
    const auto* certPub = reinterpret_cast<const RSAPUBKEY*>(pub.as<PUBLICKEYSTRUC>() + 1);
    DWORD modulus = keyPub->bitlen / 8;
    size_t fixed = sizeof(PUBLICKEYSTRUC) + sizeof(RSAPUBKEY);
    if (keyPub->bitlen != certPub->bitlen || keyPub->pubexp != certPub->pubexp || rsaSize < fixed + modulus ||
        pub.size < fixed + modulus ||
        memcmp(reinterpret_cast<const BYTE*>(keyPub + 1), reinterpret_cast<const BYTE*>(certPub + 1), modulus) != 0)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key in %s does not match the certificate in %s", keyFile,
                       certFile);

    // Schannel takes a legacy key by container name and reads it from there
    // (Wine's reads the container's stored key pair), so the key goes into a
    // named container of this process, deleted when the credentials go.
    static volatile LONG serial = 0;
    DWORD error = 0;
    for (int attempt = 0; attempt < 8 && prov_ == 0; ++attempt) {
        snprintf(container_, sizeof container_, "kvlclient-%lu-%ld-%lu", (unsigned long)GetCurrentProcessId(),
                 (long)InterlockedIncrement(&serial), (unsigned long)GetTickCount());
        if (!CryptAcquireContextA(&prov_, container_, MS_ENH_RSA_AES_PROV_A, PROV_RSA_AES,
                                  CRYPT_NEWKEYSET | CRYPT_SILENT)) {
            prov_ = 0;
            error = GetLastError();
            container_[0] = '\0';
            if (error != static_cast<DWORD>(NTE_EXISTS)) break;
        }
    }
    if (prov_ == 0)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot make a key container for the client key in %s (0x%08lX)",
                       keyFile, (unsigned long)error);
    header->aiKeyAlg = CALG_RSA_KEYX;  // stored as the exchange pair, where Schannel looks for it
    if (!CryptImportKey(prov_, rsaBlob, rsaSize, 0, 0, &key_)) {
        key_ = 0;
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key in %s cannot be imported (0x%08lX)", keyFile,
                       (unsigned long)GetLastError());
    }
    wchar_t container[80];
    MultiByteToWideChar(CP_ACP, 0, container_, -1, container, 80);
    CRYPT_KEY_PROV_INFO info;
    memset(&info, 0, sizeof info);
    info.pwszContainerName = container;
    info.pwszProvName = const_cast<wchar_t*>(MS_ENH_RSA_AES_PROV_W);
    info.dwProvType = PROV_RSA_AES;
    info.dwKeySpec = AT_KEYEXCHANGE;
    if (!CertSetCertificateContextProperty(cert_, CERT_KEY_PROV_INFO_PROP_ID, 0, &info))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key in %s cannot be attached (0x%08lX)", keyFile,
                       (unsigned long)GetLastError());
    return true;
}

bool schannelClientCert::attachEc(const tlsDerSpan& privateValue, const tlsDerSpan& publicPoint, const char* keyFile,
                                  const char* certFile, tlsFailure& why) {
    const CRYPT_BIT_BLOB& point = cert_->pCertInfo->SubjectPublicKeyInfo.PublicKey;
    const curve* c = nullptr;
    for (const curve& k : kCurves)
        if (point.cbData == k.pointSize && point.pbData[0] == 0x04) c = &k;
    if (c == nullptr)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                       "the EC key of the certificate in %s is on a curve the Windows TLS of this build cannot use "
                       "(P-256, P-384 and P-521 are)", certFile);
    // Without the public point in the key file a wrong key shows only in the handshake.
    if ((publicPoint.size != 0 && !sameBytes(publicPoint.data, static_cast<DWORD>(publicPoint.size), point.pbData,
                                             point.cbData)) ||
        privateValue.size > c->keySize)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key in %s does not match the certificate in %s", keyFile,
                       certFile);

    ncrypt_ = LoadLibraryW(L"ncrypt.dll");
    auto open = ncrypt_ ? reinterpret_cast<decltype(&NCryptOpenStorageProvider)>(
                              reinterpret_cast<void*>(GetProcAddress(ncrypt_, "NCryptOpenStorageProvider")))
                        : nullptr;
    auto import = ncrypt_ ? reinterpret_cast<decltype(&NCryptImportKey)>(
                                reinterpret_cast<void*>(GetProcAddress(ncrypt_, "NCryptImportKey")))
                          : nullptr;
    if (open == nullptr || import == nullptr)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                       "the client key in %s is an EC key, which needs the key storage provider (ncrypt.dll), not "
                       "found", keyFile);
    NCRYPT_PROV_HANDLE prov = 0;
    SECURITY_STATUS st = open(&prov, MS_KEY_STORAGE_PROVIDER, 0);
    if (st != ERROR_SUCCESS)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the key storage provider cannot be opened for the EC key in %s (0x%08lX)",
                       keyFile, (unsigned long)st);
    ncryptProv_ = prov;

    // BCRYPT_ECCKEY_BLOB, X, Y, then the private value, each keySize bytes big-endian.
    DWORD blobSize = sizeof(BCRYPT_ECCKEY_BLOB) + 3 * c->keySize;
    auto* blob = static_cast<BYTE*>(calloc(1, blobSize));
    if (blob == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "no memory for the client key");
    auto* head = reinterpret_cast<BCRYPT_ECCKEY_BLOB*>(blob);
    head->dwMagic = c->magic;
    head->cbKey = c->keySize;
    memcpy(blob + sizeof *head, point.pbData + 1, 2 * c->keySize);
    // The private value as the file has it (big-endian, maybe without its leading zeros).
    memcpy(blob + sizeof *head + 3 * c->keySize - privateValue.size, privateValue.data, privateValue.size);
    NCRYPT_KEY_HANDLE handle = 0;
    st = import(prov, 0, BCRYPT_ECCPRIVATE_BLOB, nullptr, &handle, blob, blobSize, NCRYPT_SILENT_FLAG);
    SecureZeroMemory(blob, blobSize);
    free(blob);
    if (st != ERROR_SUCCESS)
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the EC key in %s (%s) cannot be imported (0x%08lX)", keyFile,
                       c->name, (unsigned long)st);
    ncryptKey_ = handle;
    if (!CertSetCertificateContextProperty(cert_, CERT_NCRYPT_KEY_HANDLE_PROP_ID, 0, &handle))
        return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the client key in %s cannot be attached (0x%08lX)", keyFile,
                       (unsigned long)GetLastError());
    return true;
}

#endif
