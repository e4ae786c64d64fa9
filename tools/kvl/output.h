// How kvl reports: exit codes by failure class, the reply as text beside its hex
// dump, container tables, and the JSON forms of each.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

#include "kvlclient.hpp"

namespace kvlcli {

using Json = nlohmann::ordered_json;

// Exit codes: what a script can rely on.
enum Exit {
    kExitOk = 0,          // everything asked for succeeded
    kExitProgram = 1,     // the server or program answered with an error (abend, unknown server, security)
    kExitUsage = 2,       // the command line or its inputs were wrong
    kExitConnection = 3,  // the Gateway could not be reached or the connection failed
    kExitOther = 4,       // any other failure of the library
};

// The exit code for a return code of the library.
int exitClass(int rc);

// Offset, sixteen bytes in hex, and the same bytes as text (decoded from the code
// page when one is given, printable characters only).
std::string hexDump(const std::string& bytes, const std::string& codePage);
// The bytes as one hex string, for JSON.
std::string toHex(const std::string& bytes);
// The bytes as UTF-8 text (from the code page when given; invalid bytes replaced).
std::string asText(const std::string& bytes, const std::string& codePage);

// The reply of a call, for people (to stdout) or as JSON.
void printReply(const std::string& program, const kvl::Reply& reply, const std::string& codePage);
Json replyJson(const std::string& program, const kvl::Reply& reply, const std::string& codePage);
void printContainers(const kvl::Channel& channel, const std::string& codePage);
Json containersJson(const kvl::Channel& channel, const std::string& codePage);

// A failure: "kvl: what: NAME (rc) ..." on stderr, or a JSON object on stdout.
// Returns the exit code.
int reportError(const std::string& what, const kvl::Error& e, bool json, Json extra = Json::object());

}  // namespace kvlcli
