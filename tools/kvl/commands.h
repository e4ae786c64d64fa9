// The sub-commands of kvl, each from its parsed settings to an exit code.
#pragma once

#include <string>
#include <vector>

#include "kvlclient.hpp"

namespace kvlcli {

// Where and how to connect, and how to report; from options, the environment
// (KVL_HOST, KVL_PORT, ...) or the profile file, in that order of precedence.
struct Settings {
    std::string host = "127.0.0.1";
    int port = 2006;
    double connectTimeout = 30;  // seconds; fractions allowed
    double deadline = 0;         // seconds a synchronous call may wait; 0: no limit
    std::string applid;
    std::string qualifier;
    std::string trace;  // LEVEL[:FILE]
    bool json = false;
    // TLS
    bool tls = false;
    std::string caFile, certFile, keyFile, serverName;
    bool insecure = false;  // accept any certificate
};

// Where a password comes from: never a visible argument unless insecure is used.
struct PasswordSource {
    std::string envName = "KVL_PASSWORD";
    bool prompt = false;
    std::string insecure;
    bool insecureGiven = false;
};

struct CallArgs {
    std::string program;
    std::string text;
    bool textGiven = false;
    std::string hex;
    std::string file;
    bool fromStdin = false;
    std::string codePage;
    int length = 0;
    int replyLength = 0;
    kvl::CallOptions options;  // server, transaction, user (password filled in later)
    PasswordSource password;
    bool async = false;
    std::string channel;
    std::vector<std::string> containers;
    std::string script;  // file or "-"
    bool begin = false, commit = false, backout = false;
    int repeat = 1;
    int concurrency = 1;
    bool stats = false;  // show the connection's statistics after the calls
};

int runCall(const Settings& s, CallArgs a);
int runSystems(const Settings& s);
int runVerify(const Settings& s, const std::string& user, const std::string& server, const PasswordSource& p);
int runPasswd(const Settings& s, const std::string& user, const std::string& server, const PasswordSource& p);
int runPing(const Settings& s);
int runVersion(const Settings& s);

// Applies --trace LEVEL[:FILE]; throws UsageError when it cannot be read.
void applyTrace(const std::string& desc);

// The connection options of the settings; throws UsageError for TLS files given without --tls.
kvl::ConnectOptions connectOptions(const Settings& s);

}  // namespace kvlcli
