// Writes the throw-away certificates of the TLS tests (tests/tls/tls_certs.cpp)
// into a folder, for the tests of the kvl command and of the Python package.
// Usage: kvl_test_certs FOLDER
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "tls_certs.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    const tlstest::CertSet& made = tlstest::certs();
    if (made.dir.empty()) {
        std::fprintf(stderr, "kvl_test_certs: the certificates could not be made\n");
        return 1;
    }
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::create_directories(argv[1], ec);
    for (const fs::directory_entry& entry : fs::directory_iterator(made.dir, ec)) {
        fs::copy_file(entry.path(), fs::path(argv[1]) / entry.path().filename(), fs::copy_options::overwrite_existing,
                      ec);
        if (ec) break;
    }
    if (ec) {
        std::fprintf(stderr, "kvl_test_certs: %s\n", ec.message().c_str());
        return 1;
    }
    return 0;
}
