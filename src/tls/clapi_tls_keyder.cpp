#include "tls/clapi_tls_keyder.h"

#include <cstring>

namespace {

// One DER element after another within [at, end); every length is checked
// against what is left, so a truncated or lying file is refused, never overread.
struct derReader {
    const uint8_t* at;
    const uint8_t* end;

    bool more() const { return at < end; }
    bool peek(uint8_t tag) const { return at < end && *at == tag; }
    bool read(uint8_t tag, tlsDerSpan* value) {
        if (end - at < 2 || at[0] != tag) return false;
        const uint8_t* p = at + 1;
        size_t len = *p++;
        if (len & 0x80) {
            size_t bytes = len & 0x7F;
            // No indefinite lengths in DER, and no key file needs more than 4 length bytes.
            if (bytes == 0 || bytes > 4 || static_cast<size_t>(end - p) < bytes) return false;
            len = 0;
            for (size_t i = 0; i < bytes; ++i) len = (len << 8) | *p++;
        }
        if (len > static_cast<size_t>(end - p)) return false;
        value->data = p;
        value->size = len;
        at = p + len;
        return true;
    }
    derReader inside(const tlsDerSpan& s) const { return {s.data, s.data + s.size}; }
};

constexpr uint8_t kSequence = 0x30, kInteger = 0x02, kOctets = 0x04, kOid = 0x06, kBits = 0x03;
constexpr uint8_t kRsaOid[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};  // 1.2.840.113549.1.1.1
constexpr uint8_t kEcOid[] = {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01};              // 1.2.840.10045.2.1

bool is(const tlsDerSpan& s, const uint8_t* oid, size_t len) {
    return s.size == len && memcmp(s.data, oid, len) == 0;
}

}  // namespace

bool tlsParsePkcs8(const uint8_t* der, size_t len, tlsKeyKind* kind, tlsDerSpan* inner, tlsDerSpan* algorithm) {
    if (der == nullptr) return false;
    derReader file{der, der + len};
    tlsDerSpan info, version, algId, oid;
    if (!file.read(kSequence, &info)) return false;
    derReader fields = file.inside(info);
    if (!fields.read(kInteger, &version) || !fields.read(kSequence, &algId) || !fields.read(kOctets, inner))
        return false;
    derReader alg = fields.inside(algId);
    if (!alg.read(kOid, &oid)) return false;
    *algorithm = oid;
    *kind = is(oid, kRsaOid, sizeof kRsaOid) ? tlsKeyKind::rsa
            : is(oid, kEcOid, sizeof kEcOid) ? tlsKeyKind::ec
                                             : tlsKeyKind::other;
    return true;
}

bool tlsParseEcPrivateKey(const uint8_t* der, size_t len, tlsDerSpan* privateValue, tlsDerSpan* publicPoint) {
    *publicPoint = tlsDerSpan{};
    if (der == nullptr) return false;
    derReader file{der, der + len};
    tlsDerSpan key, version, skipped;
    if (!file.read(kSequence, &key)) return false;
    derReader fields = file.inside(key);
    if (!fields.read(kInteger, &version) || version.size != 1 || version.data[0] != 1) return false;
    if (!fields.read(kOctets, privateValue) || privateValue->size == 0) return false;
    if (fields.peek(0xA0) && !fields.read(0xA0, &skipped)) return false;  // the curve, also in the certificate
    if (fields.peek(0xA1)) {
        tlsDerSpan wrapped, bits;
        if (!fields.read(0xA1, &wrapped)) return false;
        derReader inner = fields.inside(wrapped);
        // A BIT STRING: a count of unused bits (0 for a point), then the point.
        if (!inner.read(kBits, &bits) || bits.size < 2 || bits.data[0] != 0) return false;
        *publicPoint = tlsDerSpan{bits.data + 1, bits.size - 1};
    }
    return true;
}
