// Certificates made at run time: EC P-256 keys, SHA-256 signatures.
#include "tls_certs.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

namespace tlstest {

namespace {

struct Pair {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
    ~Pair() {
        X509_free(cert);
        EVP_PKEY_free(key);
    }
};

void addExt(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
    if (ext) {
        X509_add_ext(cert, ext, -1);
        X509_EXTENSION_free(ext);
    }
}

// A certificate for `cn`, issued by `issuer` (self-signed when null), valid
// from `fromDays` to `toDays` relative to now.
bool make(Pair& out, const char* cn, const Pair* issuer, bool ca, const char* san, long fromDays, long toDays,
          long serial) {
    out.key = EVP_EC_gen("P-256");
    out.cert = X509_new();
    if (!out.key || !out.cert) return false;
    X509_set_version(out.cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(out.cert), serial);
    X509_gmtime_adj(X509_getm_notBefore(out.cert), fromDays * 86400);
    X509_gmtime_adj(X509_getm_notAfter(out.cert), toDays * 86400);
    X509_set_pubkey(out.cert, out.key);
    X509_NAME* name = X509_get_subject_name(out.cert);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("kvlclient tests"), -1,
                               -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    X509* issuerCert = issuer ? issuer->cert : out.cert;
    X509_set_issuer_name(out.cert, X509_get_subject_name(issuerCert));
    if (ca) {
        addExt(out.cert, issuerCert, NID_basic_constraints, "critical,CA:TRUE");
        addExt(out.cert, issuerCert, NID_key_usage, "critical,keyCertSign,cRLSign");
        addExt(out.cert, issuerCert, NID_subject_key_identifier, "hash");
    } else {
        addExt(out.cert, issuerCert, NID_basic_constraints, "critical,CA:FALSE");
        addExt(out.cert, issuerCert, NID_key_usage, "critical,digitalSignature,keyAgreement");
        addExt(out.cert, issuerCert, NID_ext_key_usage, "serverAuth,clientAuth");
        addExt(out.cert, issuerCert, NID_authority_key_identifier, "keyid:always");
        if (san) addExt(out.cert, issuerCert, NID_subject_alt_name, san);
    }
    return X509_sign(out.cert, issuer ? issuer->key : out.key, EVP_sha256()) > 0;
}

bool writeCert(const std::string& path, X509* cert) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = PEM_write_X509(f, cert) == 1;
    return std::fclose(f) == 0 && ok;
}

bool writeKey(const std::string& path, EVP_PKEY* key) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    return std::fclose(f) == 0 && ok;
}

struct Maker {
    CertSet set;
    Maker() {
        std::string base = (std::filesystem::temp_directory_path() / "kvltlsXXXXXX").string();
        if (!mkdtemp(base.data())) return;
        std::string dir = base;
        auto file = [&](const char* name) { return dir + "/" + name; };
        Pair ca, server, other, expired, rogueCa, rogue, client, rogueClient;
        const char* localSan = "DNS:localhost,IP:127.0.0.1";
        bool ok = make(ca, "kvl test CA", nullptr, true, nullptr, -1, 30, 1) &&
                  make(server, "localhost", &ca, false, localSan, -1, 30, 2) &&
                  make(other, "gateway.example", &ca, false, "DNS:gateway.example", -1, 30, 3) &&
                  make(expired, "localhost", &ca, false, localSan, -10, -1, 4) &&
                  make(rogueCa, "kvl rogue CA", nullptr, true, nullptr, -1, 30, 5) &&
                  make(rogue, "localhost", &rogueCa, false, localSan, -1, 30, 6) &&
                  make(client, "kvl test client", &ca, false, "DNS:client.example", -1, 30, 7) &&
                  make(rogueClient, "kvl rogue client", &rogueCa, false, "DNS:client.example", -1, 30, 8);
        CertSet s;
        s.dir = dir;
        s.caCert = file("ca.pem");
        s.serverCert = file("server.pem");
        s.serverKey = file("server.key");
        s.otherName = file("other.pem");
        s.otherKey = file("other.key");
        s.expiredCert = file("expired.pem");
        s.expiredKey = file("expired.key");
        s.rogueCa = file("rogue-ca.pem");
        s.rogueCert = file("rogue.pem");
        s.rogueKey = file("rogue.key");
        s.clientCert = file("client.pem");
        s.clientKey = file("client.key");
        s.rogueClientCert = file("rogue-client.pem");
        s.rogueClientKey = file("rogue-client.key");
        ok = ok && writeCert(s.caCert, ca.cert) && writeCert(s.serverCert, server.cert) &&
             writeKey(s.serverKey, server.key) && writeCert(s.otherName, other.cert) && writeKey(s.otherKey, other.key) &&
             writeCert(s.expiredCert, expired.cert) && writeKey(s.expiredKey, expired.key) &&
             writeCert(s.rogueCa, rogueCa.cert) && writeCert(s.rogueCert, rogue.cert) && writeKey(s.rogueKey, rogue.key) &&
             writeCert(s.clientCert, client.cert) && writeKey(s.clientKey, client.key) &&
             writeCert(s.rogueClientCert, rogueClient.cert) && writeKey(s.rogueClientKey, rogueClient.key);
        if (ok) set = s;
        else std::filesystem::remove_all(dir);
    }
    ~Maker() {
        if (!set.dir.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(set.dir, ignored);
        }
    }
};

}  // namespace

const CertSet& certs() {
    static Maker maker;
    return maker.set;
}

}  // namespace tlstest
