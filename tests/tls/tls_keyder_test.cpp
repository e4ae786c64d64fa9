// The key-file DER reader the Windows build uses for client keys, against
// keys OpenSSL writes: each field found where OpenSSL put it, and every
// truncated or corrupted file refused without reading past its end.
#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <vector>

#include "tls/clapi_tls_keyder.h"

namespace {

using bytes = std::vector<uint8_t>;

EVP_PKEY* makeKey(const char* type, const char* curve) {
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr);
    EVP_PKEY* key = nullptr;
    bool ok = ctx != nullptr && EVP_PKEY_keygen_init(ctx) == 1;
    if (ok && curve != nullptr) ok = EVP_PKEY_CTX_set_group_name(ctx, curve) == 1;
    if (ok && curve == nullptr && std::string(type) == "RSA") ok = EVP_PKEY_CTX_set_rsa_keygen_bits(ctx, 1024) == 1;
    if (ok) EVP_PKEY_keygen(ctx, &key);
    EVP_PKEY_CTX_free(ctx);
    return key;
}

bytes pkcs8Of(EVP_PKEY* key) {
    PKCS8_PRIV_KEY_INFO* p8 = EVP_PKEY2PKCS8(key);
    unsigned char* der = nullptr;
    int len = p8 != nullptr ? i2d_PKCS8_PRIV_KEY_INFO(p8, &der) : -1;
    bytes out = len > 0 ? bytes(der, der + len) : bytes();
    OPENSSL_free(der);
    PKCS8_PRIV_KEY_INFO_free(p8);
    return out;
}

bytes traditionalOf(EVP_PKEY* key) {  // PKCS#1 for RSA, SEC 1 for EC
    unsigned char* der = nullptr;
    int len = i2d_PrivateKey(key, &der);
    bytes out = len > 0 ? bytes(der, der + len) : bytes();
    OPENSSL_free(der);
    return out;
}

bytes span(const tlsDerSpan& s) { return bytes(s.data, s.data + s.size); }

// Every strict prefix is refused, and no byte changed anywhere makes the reader overrun (ASan watches).
template <typename Parse>
void expectRobust(const bytes& der, Parse parse) {
    for (size_t n = 0; n < der.size(); ++n) {
        bytes prefix(der.begin(), der.begin() + static_cast<long>(n));  // its own allocation: an overread shows
        EXPECT_FALSE(parse(prefix)) << "a prefix of " << n << " of " << der.size() << " bytes was accepted";
    }
    for (size_t i = 0; i < der.size() && i < 64; ++i)
        for (uint8_t v : {uint8_t{0x00}, uint8_t{0x7F}, uint8_t{0x80}, uint8_t{0x84}, uint8_t{0xFF}}) {
            bytes bad = der;
            bad[i] = v;
            parse(bad);
        }
}

struct keyFree {
    void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
using keyPtr = std::unique_ptr<EVP_PKEY, keyFree>;

TEST(TlsKeyDer, Pkcs8RsaWrapsTheRsaPrivateKey) {
    keyPtr key(makeKey("RSA", nullptr));
    ASSERT_TRUE(key);
    bytes der = pkcs8Of(key.get());
    tlsKeyKind kind = tlsKeyKind::other;
    tlsDerSpan inner, algorithm;
    ASSERT_TRUE(tlsParsePkcs8(der.data(), der.size(), &kind, &inner, &algorithm));
    EXPECT_EQ(kind, tlsKeyKind::rsa);
    EXPECT_EQ(span(inner), traditionalOf(key.get()));
    expectRobust(der, [](const bytes& b) {
        tlsKeyKind k;
        tlsDerSpan i, a;
        return tlsParsePkcs8(b.data(), b.size(), &k, &i, &a);
    });
}

TEST(TlsKeyDer, EcKeysGiveTheirPrivateValueAndPoint) {
    for (const char* curve : {"P-256", "P-384", "P-521"}) {
        SCOPED_TRACE(curve);
        keyPtr key(makeKey("EC", curve));
        ASSERT_TRUE(key);
        unsigned char point[200];
        size_t pointLen = 0;
        ASSERT_EQ(EVP_PKEY_get_octet_string_param(key.get(), OSSL_PKEY_PARAM_PUB_KEY, point, sizeof point, &pointLen), 1);
        BIGNUM* priv = nullptr;
        ASSERT_EQ(EVP_PKEY_get_bn_param(key.get(), OSSL_PKEY_PARAM_PRIV_KEY, &priv), 1);
        bytes value(static_cast<size_t>(BN_num_bytes(priv)));
        BN_bn2bin(priv, value.data());
        BN_free(priv);

        bytes der = pkcs8Of(key.get());
        tlsKeyKind kind = tlsKeyKind::other;
        tlsDerSpan inner, algorithm, d, pub;
        ASSERT_TRUE(tlsParsePkcs8(der.data(), der.size(), &kind, &inner, &algorithm));
        EXPECT_EQ(kind, tlsKeyKind::ec);
        ASSERT_TRUE(tlsParseEcPrivateKey(inner.data, inner.size, &d, &pub));
        EXPECT_EQ(span(pub), bytes(point, point + pointLen));
        // SEC 1 writes the value at the curve's full size: compare without leading zeros.
        bytes got = span(d);
        while (got.size() > value.size() && got.front() == 0) got.erase(got.begin());
        EXPECT_EQ(got, value);

        bytes sec1 = traditionalOf(key.get());
        ASSERT_TRUE(tlsParseEcPrivateKey(sec1.data(), sec1.size(), &d, &pub));
        EXPECT_EQ(span(pub), bytes(point, point + pointLen));
        expectRobust(sec1, [](const bytes& b) {
            tlsDerSpan v, p;
            return tlsParseEcPrivateKey(b.data(), b.size(), &v, &p);
        });
    }
}

TEST(TlsKeyDer, EcKeyWithoutItsPointHasAnEmptyOne) {
    keyPtr key(makeKey("EC", "P-256"));
    ASSERT_TRUE(key);
    ASSERT_EQ(EVP_PKEY_set_int_param(key.get(), OSSL_PKEY_PARAM_EC_INCLUDE_PUBLIC, 0), 1);
    bytes sec1 = traditionalOf(key.get());
    tlsDerSpan d, pub;
    ASSERT_TRUE(tlsParseEcPrivateKey(sec1.data(), sec1.size(), &d, &pub));
    EXPECT_EQ(pub.size, 0u);
    EXPECT_EQ(d.size, 32u);
}

TEST(TlsKeyDer, OtherKeysAndOtherStructuresAreTold) {
    keyPtr ed(makeKey("ED25519", nullptr));
    ASSERT_TRUE(ed);
    bytes der = pkcs8Of(ed.get());
    tlsKeyKind kind = tlsKeyKind::rsa;
    tlsDerSpan inner, algorithm, d, pub;
    ASSERT_TRUE(tlsParsePkcs8(der.data(), der.size(), &kind, &inner, &algorithm));
    EXPECT_EQ(kind, tlsKeyKind::other);

    keyPtr rsa(makeKey("RSA", nullptr));
    bytes pkcs1 = traditionalOf(rsa.get());
    EXPECT_FALSE(tlsParseEcPrivateKey(pkcs1.data(), pkcs1.size(), &d, &pub)) << "an RSA key read as an EC one";
    EXPECT_FALSE(tlsParsePkcs8(nullptr, 0, &kind, &inner, &algorithm));
    // Lengths DER never has: indefinite, and more than four length bytes.
    const uint8_t indefinite[] = {0x30, 0x80, 0x02, 0x01, 0x00, 0x00, 0x00};
    const uint8_t huge[] = {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00, 0x02, 0x01, 0x00};
    EXPECT_FALSE(tlsParsePkcs8(indefinite, sizeof indefinite, &kind, &inner, &algorithm));
    EXPECT_FALSE(tlsParsePkcs8(huge, sizeof huge, &kind, &inner, &algorithm));
}

}  // namespace
