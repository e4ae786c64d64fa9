// Throw-away certificates for the TLS tests, made with the OpenSSL API in a
// fresh temporary folder that is removed again.
#pragma once

#include <string>

namespace tlstest {

struct CertSet {
    std::string dir;
    std::string caCert;        // the trusted CA
    std::string serverCert;    // localhost and 127.0.0.1, by the CA
    std::string serverKey;
    std::string otherName;     // "gateway.example" only, by the CA
    std::string otherKey;
    std::string expiredCert;   // localhost, by the CA, ended yesterday
    std::string expiredKey;
    std::string rogueCa;       // a CA nobody trusts
    std::string rogueCert;     // localhost, by the rogue CA
    std::string rogueKey;
    std::string clientCert;    // a client, by the CA
    std::string clientKey;
    std::string rogueClientCert;  // a client, by the rogue CA
    std::string rogueClientKey;
};

// Made once per process; empty dir when it failed.
const CertSet& certs();

}  // namespace tlstest
