// The DER structures of the private key files a client certificate comes
// with, read without a crypto library: the Windows build needs them where its
// CryptoAPI has no decoder (Wine's has none for PKCS#8 nor EC keys).
#pragma once

#include <cstddef>
#include <cstdint>

struct tlsDerSpan {
    const uint8_t* data = nullptr;
    size_t size = 0;
};

enum class tlsKeyKind { other, rsa, ec };

// A PKCS#8 PrivateKeyInfo: the key's algorithm and the DER of the key it
// wraps (an RSAPrivateKey or an ECPrivateKey); algorithm holds the OID's
// content bytes. False when der is not one.
bool tlsParsePkcs8(const uint8_t* der, size_t len, tlsKeyKind* kind, tlsDerSpan* inner, tlsDerSpan* algorithm);

// An ECPrivateKey (SEC 1): the private value, big-endian, and the public
// point when the key carries it (size 0 when not). False when der is not one.
bool tlsParseEcPrivateKey(const uint8_t* der, size_t len, tlsDerSpan* privateValue, tlsDerSpan* publicPoint);
