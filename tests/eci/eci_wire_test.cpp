// The bytes of an ECI request, checked against the layout written out by hand.
#include "eci_test_util.h"

using namespace ecitest;

namespace {

// Big-endian writer for the expected bytes; independent of both encoders.
struct Expected {
    Bytes b;
    void u8(uint8_t v) { b.push_back(v); }
    void u16(uint16_t v) {
        u8(static_cast<uint8_t>(v >> 8));
        u8(static_cast<uint8_t>(v));
    }
    void u32(uint32_t v) {
        u16(static_cast<uint16_t>(v >> 16));
        u16(static_cast<uint16_t>(v));
    }
    void raw(const void* p, size_t n) {
        auto* c = static_cast<const uint8_t*>(p);
        b.insert(b.end(), c, c + n);
    }
    void str(const std::string& s) { raw(s.data(), s.size()); }
};

// The masking the Gateway undoes: first byte inverted, then each byte XORed with its predecessor.
Bytes masked(const std::string& clear) {
    Bytes out(clear.size());
    for (size_t i = 0; i < clear.size(); ++i)
        out[i] = static_cast<uint8_t>(i == 0 ? ~clear[0] : clear[i - 1] ^ clear[i]);
    return out;
}

class EciWire : public EmulatorConnection {};

TEST_F(EciWire, RequestBytesFollowTheLayout) {
    Bytes area = text("0123456789");
    EciParms p = callParms(ECI_SYNC, "ECHO", area);
    p.eci_version = 4;
    memset(p.eci_userid, 0, sizeof p.eci_userid);
    memcpy(p.eci_userid, "USER1", 5);
    memcpy(p.eci_password, "PW12", 4);
    p.eci_timeout = 30;
    clapiSetCorrelatorForTest(0x01020304);
    ASSERT_EQ(execute(p), ECI_NO_ERROR);
    auto flows = eciFlows();
    ASSERT_EQ(flows.size(), 1u);

    Expected body;
    body.u32(1);            // request type
    body.u32(0);            // extend mode
    body.u32(0);            // LUW token
    body.u32(0);            // reserved
    body.u8(0);             // reserved
    body.u32(8);            // server name length
    body.str("EMUSRV  ");   // as it stands in the block
    body.str("USER1");      // user id field of 16
    body.raw(Bytes(11, 0).data(), 11);
    body.u32(4);            // password length, then the masked password
    Bytes pw = masked("PW12");
    body.raw(pw.data(), pw.size());
    body.str("ECHO    ");   // program
    body.str("TRN1");       // transaction id
    body.u32(0);            // extra data length
    body.u32(10);           // COMMAREA length
    body.u8(0);             // no outbound length
    body.u8(0);             // no inbound length
    body.str("0123456789");
    body.u8(0);             // no channel
    body.u16(30);           // timeout
    body.u8(0);             // reserved
    body.u32(0xFFFFFFFFu);  // no optional blocks
    body.u32(0x01020304u);  // correlator

    Expected flow;
    flow.u32(0x47617465u);  // "Gate"
    flow.u32(0x10901000u);
    flow.u32(1);  // request
    flow.u32(1);  // message id: slot 1
    flow.u32(0);
    flow.u32(3);
    flow.str("ECI");
    flow.u8(0);
    flow.u32(static_cast<uint32_t>(body.b.size()));
    flow.raw(body.b.data(), body.b.size());

    EXPECT_EQ(flows[0].raw, flow.b);
}

}  // namespace
