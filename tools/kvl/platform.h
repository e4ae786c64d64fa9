// What the kvl command needs from the operating system: terminals, a prompt
// without echo, code page conversion and where the profile lives. One file per
// system implements it; nothing else in the tool knows Windows from Linux.
#pragma once

#include <optional>
#include <string>

namespace kvlcli {

// True when standard output (error) is a terminal, not a pipe or a file.
bool stdoutIsTerminal();
bool stderrIsTerminal();

// Reads one line from the terminal itself (not standard input, which may carry
// data) with echo off. Empty when there is no terminal to ask.
std::optional<std::string> readSecret(const std::string& prompt);

// Converts UTF-8 text to the bytes of a code page ("UTF-8", "CP1252", "IBM037", a
// number such as 37 or 1252) and back. Empty when the code page is unknown or
// the text cannot be converted; `error` says why.
std::optional<std::string> encodeText(const std::string& utf8, const std::string& codePage, std::string& error);
std::optional<std::string> decodeText(const std::string& bytes, const std::string& codePage, std::string& error);

// The profile read when neither --profile nor KVL_PROFILE names one.
std::string defaultProfilePath();

// Switches standard input/output to binary mode where the system distinguishes.
void useBinaryStdio();

}  // namespace kvlcli
