// tls_relay CERT KEY TARGET_PORT PORT_FILE: a TLS front on 127.0.0.1 for the
// plain Gateway at TARGET_PORT (tls_relay.h). Writes its port to PORT_FILE,
// serves one client and prints how that client ended its TLS session, so that
// a script can check what a client under Wine sends when it closes.
#include <cstdio>
#include <cstdlib>

#include "tls_relay.h"

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: tls_relay CERT KEY TARGET_PORT PORT_FILE\n");
        return 2;
    }
    tlstest::TlsRelay relay(argv[1], argv[2], std::atoi(argv[3]));
    if (relay.port() == 0) return 1;
    FILE* f = std::fopen(argv[4], "w");
    if (f == nullptr) return 1;
    std::fprintf(f, "%d\n", relay.port());
    std::fclose(f);
    tlstest::TlsRelay::End end = relay.waitForEnd(60000);
    std::printf("client ended: %s\n", tlstest::TlsRelay::name(end));
    return end == tlstest::TlsRelay::End::closeNotify ? 0 : 1;
}
