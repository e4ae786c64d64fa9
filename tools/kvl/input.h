// Turning what the user typed into bytes: hex, files, standard input, text in a
// code page, container specifications and lines of a call script.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "kvlclient.hpp"

namespace kvlcli {

// A mistake on the command line or in its inputs: exit code 2, with this text.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// "41 42 43", "414243" or "0x41,0x42" to bytes.
std::string parseHex(const std::string& hex);
// A whole file, at most `limit` bytes.
std::string readFile(const std::string& path, size_t limit);
// All of standard input, at most `limit` bytes.
std::string readStdin(size_t limit);
// UTF-8 text in the code page (unchanged when codePage is empty).
std::string encode(const std::string& text, const std::string& codePage);

// NAME[,BIT|,CHAR[,CCSID]] followed by =text, @file or :hex.
struct ContainerArg {
    std::string name;
    kvl::ContainerType type = kvl::ContainerType::bit;
    int ccsid = 0;
    std::string data;
};
ContainerArg parseContainer(const std::string& desc, const std::string& codePage);

// One line of a call script: PROGRAM, then optionally the COMMAREA as text, as
// hex:HEX or as @FILE. Blank lines and lines starting with # are skipped.
struct ScriptCall {
    int line = 0;
    std::string program;
    std::string data;
};
std::vector<ScriptCall> parseScript(const std::string& text, const std::string& codePage);

}  // namespace kvlcli
