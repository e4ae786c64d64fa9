// tls_probe HOST PORT CAFILE [SERVERNAME|- [CIPHERS|- [CERT KEY]]]: opens a TLS connection,
// makes one ECHO call and reports. The Windows build runs it under Wine against the
// Linux emulator (tests/tls/wine_tls.sh).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "impl/clapi_impl.h"
#include "kvl_eci.h"
#include "tls_open.h"

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: tls_probe HOST PORT CAFILE [SERVERNAME|- [CIPHERS|- [CERT KEY]]]\n");
        return 2;
    }
    clapiProcessAttach();  // the load-time steps the DLL entry would run
    KVL_EXT_ConnectOptions o = tlstest::tlsOptions(argv[1], std::atoi(argv[2]), argv[3]);
    if (argc > 4 && std::strcmp(argv[4], "-") != 0) o.tlsServerName = argv[4];
    if (argc > 5 && std::strcmp(argv[5], "-") != 0) o.tlsCipherList = argv[5];
    if (argc > 7) {
        o.tlsCertFile = argv[6];
        o.tlsKeyFile = argv[7];
    }
    gwTok token = nullptr;
    std::string why;
    int rc = tlstest::openTls(o, &token, &why);
    std::printf("open rc=%d %s\n", rc, why.c_str());
    if (rc != 0) return 1;
    std::vector<unsigned char> area(3000);
    for (size_t i = 0; i < area.size(); ++i) area[i] = static_cast<unsigned char>(i * 7);
    std::vector<unsigned char> sent = area;
    EciParms p{};
    p.eci_call_type = ECI_SYNC;
    p.eci_version = 6;
    std::memcpy(p.eci_program, "ECHO    ", 8);
    std::memcpy(p.eci_tran_id, "TRN1", 4);
    std::memcpy(p.eci_server_name, "EMUSRV  ", 8);
    p.eci_commarea = area.data();
    p.eci_commarea_length = static_cast<short>(area.size());
    rc = KVL_ECI_Execute(token, &p);
    std::printf("call rc=%d echo %s\n", rc, area == sent ? "matches" : "differs");
    KVL_closeGatewayConnection(&token);
    return rc == 0 && area == sent ? 0 : 1;
}
