// TLS backend on Schannel (Windows' own TLS: secur32 and crypt32, no extra DLL).
// The glue moves the bytes; this file turns them into records and back, and
// checks the Gateway's certificate itself, so that a CA file can be trusted
// without touching the system's stores.
#define SECURITY_WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <schannel.h>
#include <security.h>
#include <wincrypt.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "kvl_ext.h"
#include "tls/clapi_tls_engine.h"
#include "tls/clapi_tls_schannel_client.h"
#include "tls/clapi_tls_schannel_pem.h"

namespace {

// The SSL policy's check flags (declared with the internet API, not needed otherwise).
constexpr DWORD kIgnoreRevocation = 0x00000080;
constexpr DWORD kIgnoreUnknownCa = 0x00000100;
constexpr DWORD kIgnoreNameMismatch = 0x00001000;

constexpr DWORD kContextFlags = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT | ISC_REQ_CONFIDENTIALITY |
                                ISC_REQ_EXTENDED_ERROR | ISC_REQ_ALLOCATE_MEMORY | ISC_REQ_STREAM |
                                ISC_REQ_MANUAL_CRED_VALIDATION;

bool isAddress(const char* name) {
    if (name == nullptr || name[0] == '\0') return false;
    if (strchr(name, ':') != nullptr) return true;  // IPv6
    for (const char* p = name; *p; ++p)
        if ((*p < '0' || *p > '9') && *p != '.') return false;
    return true;
}

// Adds every PEM certificate of `path` to `store`; false when none could be read.
bool loadPemCertificates(const char* path, HCERTSTORE store) {
    pemFile file;
    if (!file.read(path)) return false;
    int added = 0;
    const char* at = file.text();
    pemBlock block;
    while (pemNextBlock(at, block))
        if (strcmp(block.label, "CERTIFICATE") == 0 && block.size > 0 &&
            CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, block.der, block.size, CERT_STORE_ADD_ALWAYS,
                                             nullptr))
            ++added;
    return added > 0;
}

// The address `name` in binary (4 or 16 bytes); 0 when it is not one.
size_t addressBytes(const char* name, uint8_t (&bytes)[16]) {
    if (inet_pton(AF_INET, name, bytes) == 1) return 4;
    if (inet_pton(AF_INET6, name, bytes) == 1) return 16;
    return 0;
}

// Whether the certificate lists the address among its subjectAltName IP
// entries, compared as binary addresses. The SSL chain policy's own check
// only matches names, so an address is checked here.
bool certificateNamesAddress(PCCERT_CONTEXT cert, const char* name) {
    uint8_t wanted[16];
    size_t wantedLen = addressBytes(name, wanted);
    if (wantedLen == 0) return false;
    PCERT_EXTENSION ext = CertFindExtension(szOID_SUBJECT_ALT_NAME2, cert->pCertInfo->cExtension,
                                            cert->pCertInfo->rgExtension);
    if (ext == nullptr) return false;
    CERT_ALT_NAME_INFO* names = nullptr;
    DWORD size = 0;
    if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_ALTERNATE_NAME, ext->Value.pbData, ext->Value.cbData,
                             CRYPT_DECODE_ALLOC_FLAG, nullptr, &names, &size))
        return false;
    bool found = false;
    for (DWORD i = 0; i < names->cAltEntry && !found; ++i) {
        const CERT_ALT_NAME_ENTRY& entry = names->rgAltEntry[i];
        found = entry.dwAltNameChoice == CERT_ALT_NAME_IP_ADDRESS && entry.IPAddress.cbData == wantedLen &&
                memcmp(entry.IPAddress.pbData, wanted, wantedLen) == 0;
    }
    LocalFree(names);
    return found;
}

// The cipher names a Windows TLS can be limited to: bulk ciphers, as
// Schannel chooses by algorithm, not by suite. The TLS 1.3 suite names map to
// their cipher so that one list can serve both builds.
struct cipherName {
    const char* name;
    ALG_ID alg;
};
constexpr cipherName kCipherNames[] = {
    {"AES128", CALG_AES_128},
    {"AES256", CALG_AES_256},
    {"TLS_AES_128_GCM_SHA256", CALG_AES_128},
    {"TLS_AES_256_GCM_SHA384", CALG_AES_256},
};
constexpr size_t kMaxCiphers = 8;

// Reads "AES256:AES128" (or with commas or blanks) into algs; false with the
// unknown name in why.
bool parseCipherList(const char* list, ALG_ID* algs, DWORD* count, tlsFailure& why) {
    *count = 0;
    const char* p = list;
    while (*p != '\0') {
        while (*p == ':' || *p == ',' || *p == ' ') ++p;
        size_t len = strcspn(p, ":, ");
        if (len == 0) break;
        const cipherName* known = nullptr;
        for (const cipherName& c : kCipherNames)
            if (strlen(c.name) == len && _strnicmp(c.name, p, len) == 0) known = &c;
        if (known == nullptr)
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                           "the cipher \"%.*s\" is not one the Windows TLS can be limited to (AES128, AES256, "
                           "TLS_AES_128_GCM_SHA256, TLS_AES_256_GCM_SHA384)",
                           static_cast<int>(len < 64 ? len : 64), p);
        bool listed = false;
        for (DWORD i = 0; i < *count; ++i) listed = listed || algs[i] == known->alg;
        if (!listed && *count < kMaxCiphers) algs[(*count)++] = known->alg;
        p += len;
    }
    return *count > 0 || tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the cipher list \"%s\" names no cipher", list);
}

const char* chainClass(DWORD status) {
    if (status & CERT_TRUST_IS_NOT_TIME_VALID) return "certificate expired or not yet valid";
    if (status & (CERT_TRUST_IS_UNTRUSTED_ROOT | CERT_TRUST_IS_PARTIAL_CHAIN)) return "unknown CA";
    if (status & CERT_TRUST_IS_REVOKED) return "certificate revoked";
    return "certificate refused";
}

const char* policyClass(DWORD error) {
    switch (static_cast<LONG>(error)) {
    case CERT_E_CN_NO_MATCH:
        return "name mismatch";
    case CERT_E_EXPIRED:
        return "certificate expired";
    case CERT_E_UNTRUSTEDROOT:
    case CERT_E_CHAINING:
        return "unknown CA";
    default:
        return "certificate refused";
    }
}

const char* statusText(SECURITY_STATUS s) {
    switch (s) {
    case SEC_E_ALGORITHM_MISMATCH:
        return "protocol version or cipher not accepted (no common algorithm)";
    case SEC_E_UNSUPPORTED_FUNCTION:
        return "protocol version not accepted";
    case SEC_E_ILLEGAL_MESSAGE:
        return "the Gateway sent an alert or a malformed message";
    case SEC_E_MESSAGE_ALTERED:
        return "a record failed its integrity check";
    case SEC_E_DECRYPT_FAILURE:
        return "a record could not be decrypted";
    case SEC_E_CERT_UNKNOWN:
    case SEC_E_UNTRUSTED_ROOT:
        return "certificate refused";
    case SEC_I_INCOMPLETE_CREDENTIALS:
        return "the Gateway asks for a client certificate and none was given (tlsCertFile, tlsKeyFile)";
    case SEC_E_INTERNAL_ERROR:
        // Wine's TLS also reports a fatal alert from the Gateway so.
        return "the Gateway sent a fatal alert, or the TLS library failed";
    default:
        return "handshake failed";
    }
}

class schannelEngine final : public tlsEngine {
public:
    ~schannelEngine() override {
        if (haveContext_) DeleteSecurityContext(&context_);
        if (haveCredentials_) FreeCredentialsHandle(&credentials_);
        if (caStore_ != nullptr) CertCloseStore(caStore_, 0);
    }

    bool setUp(const tlsSettings& s, tlsFailure& why) {
        settings_ = s;
        snprintf(name_, sizeof name_, "%s", s.name != nullptr ? s.name : "");
        PCCERT_CONTEXT clientCert = nullptr;
        if (s.certFile != nullptr || s.keyFile != nullptr) {
            if (s.certFile == nullptr || s.keyFile == nullptr)
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "a client certificate needs both a certificate and a key file");
            if (!client_.load(s.certFile, s.keyFile, why)) return false;
            clientCert = client_.certificate();
        }
        ALG_ID ciphers[kMaxCiphers];
        DWORD cipherCount = 0;
        if (s.cipherList != nullptr && s.cipherList[0] != '\0' && !parseCipherList(s.cipherList, ciphers, &cipherCount, why))
            return false;
        if (s.verify && s.caFile != nullptr) {
            caStore_ = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
            if (caStore_ == nullptr || !loadPemCertificates(s.caFile, caStore_))
                return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot load the trusted CAs from %s", s.caFile);
        }
        SCHANNEL_CRED cred;
        memset(&cred, 0, sizeof cred);
        cred.dwVersion = SCHANNEL_CRED_VERSION;
        cred.grbitEnabledProtocols =
            s.minVersion == 0x0304 ? SP_PROT_TLS1_3_CLIENT : (SP_PROT_TLS1_2_CLIENT | SP_PROT_TLS1_3_CLIENT);
        cred.dwFlags = SCH_CRED_MANUAL_CRED_VALIDATION | SCH_CRED_NO_DEFAULT_CREDS;
        if (clientCert != nullptr) {
            cred.cCreds = 1;
            cred.paCred = &clientCert;
        }
        if (cipherCount > 0) {
            cred.cSupportedAlgs = cipherCount;
            cred.palgSupportedAlgs = ciphers;
            memcpy(ciphers_, ciphers, cipherCount * sizeof ciphers[0]);
            cipherCount_ = cipherCount;
        }
        TimeStamp expiry;
        SECURITY_STATUS st = AcquireCredentialsHandleA(nullptr, const_cast<char*>(UNISP_NAME_A), SECPKG_CRED_OUTBOUND,
                                                      nullptr, &cred, nullptr, nullptr, &credentials_, &expiry);
        if (st != SEC_E_OK && s.minVersion != 0x0304) {
            // A TLS that does not know 1.3 refuses the flag: ask for 1.2 alone.
            cred.grbitEnabledProtocols = SP_PROT_TLS1_2_CLIENT;
            st = AcquireCredentialsHandleA(nullptr, const_cast<char*>(UNISP_NAME_A), SECPKG_CRED_OUTBOUND, nullptr, &cred,
                                           nullptr, nullptr, &credentials_, &expiry);
        }
        if (st != SEC_E_OK && clientCert != nullptr)
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG,
                           "the Windows TLS cannot use the client certificate %s with the key %s (0x%08lX)", s.certFile,
                           s.keyFile, (unsigned long)st);
        if (st != SEC_E_OK)
            return tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "the Windows TLS refused the settings (0x%08lX)", (unsigned long)st);
        haveCredentials_ = true;
        return true;
    }

    tlsStatus handshake(tlsBytes& in, tlsBytes& out, tlsFailure& why) override {
        for (;;) {
            if (haveContext_ && in.empty()) return tlsStatus::wantInput;
            SecBuffer inBuffers[2] = {{static_cast<unsigned long>(in.size()), SECBUFFER_TOKEN, in.data + in.head},
                                      {0, SECBUFFER_EMPTY, nullptr}};
            SecBufferDesc inDesc = {SECBUFFER_VERSION, 2, inBuffers};
            SecBuffer outBuffers[1] = {{0, SECBUFFER_TOKEN, nullptr}};
            SecBufferDesc outDesc = {SECBUFFER_VERSION, 1, outBuffers};
            unsigned long attributes = 0;
            SECURITY_STATUS st = InitializeSecurityContextA(
                &credentials_, haveContext_ ? &context_ : nullptr, name_[0] != '\0' && !isAddress(name_) ? name_ : nullptr,
                kContextFlags, 0, 0, haveContext_ ? &inDesc : nullptr, 0, haveContext_ ? nullptr : &context_, &outDesc,
                &attributes, nullptr);
            haveContext_ = true;
            if (outBuffers[0].pvBuffer != nullptr) {
                bool ok = out.append(static_cast<uint8_t*>(outBuffers[0].pvBuffer), outBuffers[0].cbBuffer);
                FreeContextBuffer(outBuffers[0].pvBuffer);
                if (!ok) return failWith(why, KVL_EXT_ERR_TLS_HANDSHAKE, "no memory for the handshake");
            }
            if (st == SEC_E_INCOMPLETE_MESSAGE) return tlsStatus::wantInput;
            if (st == SEC_E_OK || st == SEC_I_CONTINUE_NEEDED) {
                size_t extra = inBuffers[1].BufferType == SECBUFFER_EXTRA ? inBuffers[1].cbBuffer : 0;
                in.consume(in.size() - extra);
                if (st == SEC_E_OK) {
                    if (QueryContextAttributesA(&context_, SECPKG_ATTR_STREAM_SIZES, &sizes_) != SEC_E_OK)
                        return failWith(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the session has no record sizes");
                    return checkCipher(why) && checkCertificate(why) ? tlsStatus::done : tlsStatus::failed;
                }
                if (!out.empty() && in.empty()) return tlsStatus::wantInput;
                continue;
            }
            tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "TLS handshake failed: %s (0x%08lX)%s", statusText(st),
                    (unsigned long)st,
                    client_.certificate() == nullptr && st == SEC_E_INTERNAL_ERROR
                        ? "; a Gateway that requires a client certificate ends the handshake so when none is given"
                        : "");
            return tlsStatus::failed;
        }
    }

    bool encrypt(const uint8_t* data, size_t len, tlsBytes& out, tlsFailure& why) override {
        size_t done = 0;
        while (done < len) {
            size_t chunk = len - done < sizes_.cbMaximumMessage ? len - done : sizes_.cbMaximumMessage;
            size_t total = sizes_.cbHeader + chunk + sizes_.cbTrailer;
            uint8_t* at = out.reserve(total);
            if (at == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
            memcpy(at + sizes_.cbHeader, data + done, chunk);
            SecBuffer buffers[4] = {{sizes_.cbHeader, SECBUFFER_STREAM_HEADER, at},
                                    {static_cast<unsigned long>(chunk), SECBUFFER_DATA, at + sizes_.cbHeader},
                                    {sizes_.cbTrailer, SECBUFFER_STREAM_TRAILER, at + sizes_.cbHeader + chunk},
                                    {0, SECBUFFER_EMPTY, nullptr}};
            SecBufferDesc desc = {SECBUFFER_VERSION, 4, buffers};
            SECURITY_STATUS st = EncryptMessage(&context_, 0, &desc, 0);
            if (st != SEC_E_OK)
                return tlsFail(why, KVL_EXT_ERR_TLS_IO, "a TLS record could not be written (0x%08lX)", (unsigned long)st);
            out.commit(buffers[0].cbBuffer + buffers[1].cbBuffer + buffers[2].cbBuffer);
            done += chunk;
        }
        return true;
    }

    tlsStatus decrypt(tlsBytes& in, tlsBytes& plain, tlsBytes& out, tlsFailure& why) override {
        while (!in.empty()) {
            SecBuffer buffers[4] = {{static_cast<unsigned long>(in.size()), SECBUFFER_DATA, in.data + in.head},
                                    {0, SECBUFFER_EMPTY, nullptr},
                                    {0, SECBUFFER_EMPTY, nullptr},
                                    {0, SECBUFFER_EMPTY, nullptr}};
            SecBufferDesc desc = {SECBUFFER_VERSION, 4, buffers};
            SECURITY_STATUS st = DecryptMessage(&context_, &desc, 0, nullptr);
            if (st == SEC_E_INCOMPLETE_MESSAGE) return tlsStatus::done;
            if (st != SEC_E_OK && st != SEC_I_RENEGOTIATE && st != SEC_I_CONTEXT_EXPIRED) {
                tlsFail(why, KVL_EXT_ERR_TLS_IO, "a TLS record could not be read: %s (0x%08lX)", statusText(st),
                        (unsigned long)st);
                return tlsStatus::failed;
            }
            size_t extra = 0;
            uint8_t* extraAt = nullptr;
            for (auto& b : buffers) {
                if (b.BufferType == SECBUFFER_DATA && b.cbBuffer > 0) {
                    bool kept = plain.append(static_cast<uint8_t*>(b.pvBuffer), b.cbBuffer);
                    // Decrypted in place: the queue of records must not keep the plaintext.
                    SecureZeroMemory(b.pvBuffer, b.cbBuffer);
                    if (!kept) return failWith(why, KVL_EXT_ERR_TLS_IO, "no memory for a TLS record");
                }
                if (b.BufferType == SECBUFFER_EXTRA) {
                    extra = b.cbBuffer;
                    extraAt = static_cast<uint8_t*>(b.pvBuffer);
                }
            }
            (void)extraAt;
            in.consume(in.size() - extra);
            if (st == SEC_I_CONTEXT_EXPIRED) return tlsStatus::closed;
            if (st == SEC_I_RENEGOTIATE) {
                // Post-handshake messages (TLS 1.3 tickets, key updates) go back to the context.
                tlsStatus again = handshake(in, out, why);
                if (again == tlsStatus::failed) return again;
            }
        }
        return tlsStatus::done;
    }

    bool closeNotify(tlsBytes& out, tlsFailure& why) override {
        if (sizes_.cbMaximumMessage == 0) return tlsFail(why, KVL_EXT_ERR_TLS_IO, "the handshake never finished");
        DWORD type = SCHANNEL_SHUTDOWN;
        SecBuffer control = {sizeof type, SECBUFFER_TOKEN, &type};
        SecBufferDesc controlDesc = {SECBUFFER_VERSION, 1, &control};
        SECURITY_STATUS st = ApplyControlToken(&context_, &controlDesc);
        if (st != SEC_E_OK)
            return tlsFail(why, KVL_EXT_ERR_TLS_IO, "the Windows TLS cannot end the session (0x%08lX)", (unsigned long)st);
        // The context, told to shut down, writes the alert as its next token.
        SecBuffer token = {0, SECBUFFER_TOKEN, nullptr};
        SecBufferDesc tokenDesc = {SECBUFFER_VERSION, 1, &token};
        unsigned long attributes = 0;
        st = InitializeSecurityContextA(&credentials_, &context_, nullptr, kContextFlags, 0, 0, nullptr, 0, nullptr,
                                        &tokenDesc, &attributes, nullptr);
        bool ok = token.pvBuffer != nullptr && token.cbBuffer > 0 &&
                  out.append(static_cast<uint8_t*>(token.pvBuffer), token.cbBuffer);
        if (token.pvBuffer != nullptr) FreeContextBuffer(token.pvBuffer);
        if (!ok)
            return tlsFail(why, KVL_EXT_ERR_TLS_IO, "the Windows TLS wrote no close_notify (0x%08lX)", (unsigned long)st);
        return true;
    }

    void describe(char* text, size_t size) override {
        SecPkgContext_ConnectionInfo info;
        memset(&info, 0, sizeof info);
        QueryContextAttributesA(&context_, SECPKG_ATTR_CONNECTION_INFO, &info);
        const char* version = (info.dwProtocol & SP_PROT_TLS1_3_CLIENT) ? "TLSv1.3"
                              : (info.dwProtocol & SP_PROT_TLS1_2_CLIENT) ? "TLSv1.2"
                                                                          : "TLS";
        snprintf(text, size, "%s cipher 0x%04lX, %lu bits", version, (unsigned long)info.aiCipher,
                 (unsigned long)info.dwCipherStrength);
    }

private:
    tlsStatus failWith(tlsFailure& why, int code, const char* text) {
        tlsFail(why, code, "%s", text);
        return tlsStatus::failed;
    }

    // Not every Windows TLS keeps to the algorithms it was given (Wine's does
    // not): a session on another cipher is refused rather than used.
    bool checkCipher(tlsFailure& why) {
        if (cipherCount_ == 0) return true;
        SecPkgContext_ConnectionInfo info;
        memset(&info, 0, sizeof info);
        if (QueryContextAttributesA(&context_, SECPKG_ATTR_CONNECTION_INFO, &info) != SEC_E_OK)
            return tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE, "the session does not say which cipher it uses");
        for (DWORD i = 0; i < cipherCount_; ++i)
            if (ciphers_[i] == info.aiCipher) return true;
        return tlsFail(why, KVL_EXT_ERR_TLS_HANDSHAKE,
                       "TLS protocol version or cipher not accepted: the session uses cipher 0x%04lX, which the "
                       "cipher list does not allow",
                       (unsigned long)info.aiCipher);
    }

    bool checkCertificate(tlsFailure& why) {
        if (!settings_.verify) return true;
        PCCERT_CONTEXT peer = nullptr;
        if (QueryContextAttributesA(&context_, SECPKG_ATTR_REMOTE_CERT_CONTEXT, &peer) != SEC_E_OK || peer == nullptr)
            return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "the Gateway sent no certificate");
        bool ok = checkChain(peer, why);
        CertFreeCertificateContext(peer);
        return ok;
    }

    bool checkChain(PCCERT_CONTEXT peer, tlsFailure& why) {
        // The peer's own intermediates plus the CA file, as extra stores for the chain.
        HCERTSTORE extra = CertOpenStore(CERT_STORE_PROV_COLLECTION, 0, 0, 0, nullptr);
        if (extra == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "cannot build the certificate chain");
        if (peer->hCertStore != nullptr) CertAddStoreToCollection(extra, peer->hCertStore, 0, 0);
        if (caStore_ != nullptr) CertAddStoreToCollection(extra, caStore_, 0, 0);
        CERT_CHAIN_PARA para;
        memset(&para, 0, sizeof para);
        para.cbSize = sizeof para;
        PCCERT_CHAIN_CONTEXT chain = nullptr;
        BOOL built = CertGetCertificateChain(nullptr, peer, nullptr, extra, &para, 0, nullptr, &chain);
        CertCloseStore(extra, 0);
        if (!built || chain == nullptr) return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "cannot build the certificate chain");

        DWORD status = chain->TrustStatus.dwErrorStatus;
        bool rootFromCaFile = false;
        if (caStore_ != nullptr && chain->cChain > 0 && chain->rgpChain[0]->cElement > 0) {
            PCERT_SIMPLE_CHAIN simple = chain->rgpChain[0];
            PCCERT_CONTEXT root = simple->rgpElement[simple->cElement - 1]->pCertContext;
            PCCERT_CONTEXT match = CertFindCertificateInStore(caStore_, X509_ASN_ENCODING, 0, CERT_FIND_EXISTING, root, nullptr);
            if (match != nullptr) {
                rootFromCaFile = true;
                CertFreeCertificateContext(match);
            }
        }
        // A root from the CA file is trusted although the system does not know it.
        if (rootFromCaFile) status &= ~static_cast<DWORD>(CERT_TRUST_IS_UNTRUSTED_ROOT);
        status &= ~static_cast<DWORD>(CERT_TRUST_REVOCATION_STATUS_UNKNOWN | CERT_TRUST_IS_OFFLINE_REVOCATION);
        if (caStore_ != nullptr && !rootFromCaFile) status |= CERT_TRUST_IS_UNTRUSTED_ROOT;
        if (status != CERT_TRUST_NO_ERROR) {
            CertFreeCertificateChain(chain);
            return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "the Gateway's certificate was not accepted: %s (chain status 0x%08lX)",
                           chainClass(status), (unsigned long)status);
        }
        bool checkName = settings_.checkName && name_[0] != '\0';
        if (checkName && isAddress(name_)) {
            if (!certificateNamesAddress(peer, name_)) {
                CertFreeCertificateChain(chain);
                return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY,
                               "the Gateway's certificate was not accepted: name mismatch (%s is not among its "
                               "subjectAltName addresses)", name_);
            }
            checkName = false;  // done: the policy below checks the rest of the chain
        }
        wchar_t wideName[256] = L"";
        MultiByteToWideChar(CP_UTF8, 0, name_, -1, wideName, 256);
        SSL_EXTRA_CERT_CHAIN_POLICY_PARA ssl;
        memset(&ssl, 0, sizeof ssl);
        ssl.cbSize = sizeof ssl;
        ssl.dwAuthType = AUTHTYPE_SERVER;
        ssl.fdwChecks = (rootFromCaFile ? kIgnoreUnknownCa : 0) |
                        (checkName ? 0 : kIgnoreNameMismatch) |
                        kIgnoreRevocation;
        ssl.pwszServerName = wideName;
        CERT_CHAIN_POLICY_PARA policy;
        memset(&policy, 0, sizeof policy);
        policy.cbSize = sizeof policy;
        policy.pvExtraPolicyPara = &ssl;
        CERT_CHAIN_POLICY_STATUS result;
        memset(&result, 0, sizeof result);
        result.cbSize = sizeof result;
        BOOL checked = CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain, &policy, &result);
        CertFreeCertificateChain(chain);
        if (!checked) return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "cannot check the certificate chain");
        if (result.dwError != 0)
            return tlsFail(why, KVL_EXT_ERR_TLS_VERIFY, "the Gateway's certificate was not accepted: %s (0x%08lX)",
                           policyClass(result.dwError), (unsigned long)result.dwError);
        return true;
    }

    tlsSettings settings_;
    char name_[256] = "";
    CredHandle credentials_{};
    CtxtHandle context_{};
    bool haveCredentials_ = false;
    bool haveContext_ = false;
    SecPkgContext_StreamSizes sizes_{};
    HCERTSTORE caStore_ = nullptr;
    // Outlives the credentials (members go after the destructor's body), which may use its key.
    schannelClientCert client_;
    ALG_ID ciphers_[kMaxCiphers] = {};
    DWORD cipherCount_ = 0;
};

}  // namespace

bool tlsSendIfRoom(platformSocket s, const tlsBytes& bytes) {
    SOCKET sock = static_cast<SOCKET>(s);
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(sock, &writable);
    timeval now = {0, 0};
    if (select(0, nullptr, &writable, nullptr, &now) != 1) return false;
    // Writable: a few bytes go into the send buffer without waiting.
    int n = send(sock, reinterpret_cast<const char*>(bytes.begin()), static_cast<int>(bytes.size()), 0);
    return n == static_cast<int>(bytes.size());
}

std::unique_ptr<tlsEngine> clapiTlsCreateEngine(const tlsSettings& settings, tlsFailure& why) {
    std::unique_ptr<schannelEngine> engine(new (std::nothrow) schannelEngine);
    if (!engine) {
        tlsFail(why, KVL_EXT_ERR_TLS_CONFIG, "cannot create a TLS session: no memory");
        return nullptr;
    }
    if (!engine->setUp(settings, why)) return nullptr;
    return engine;
}
