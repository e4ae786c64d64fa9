// Words of a configuration line: quoted text with escapes, bare words, and the
// data forms "text", hex:0A0B, file:PATH.
#pragma once

#include <string>
#include <vector>

#include "gateway_emulator/wire.h"

namespace kvlemu::cfg {

struct Word {
    std::string text;    // unquoted and unescaped
    bool quoted = false;
    size_t begin = 0;    // where the word starts in the line
};

// Splits a line; a '#' outside quotes starts a comment. False on an unterminated
// quote or a bad escape.
bool splitWords(const std::string& line, std::vector<Word>& words, std::string& error);

// A data word: "quoted text", hex:HEX or file:PATH (relative to baseDir).
bool parseData(const Word& word, const std::string& baseDir, wire::Bytes& out, std::string& error);

bool parseInt(const std::string& s, long long lo, long long hi, long long& out);

// Files read by the configuration are bounded: a COMMAREA holds at most 32 KB,
// a container a few MB.
constexpr size_t kMaxDataFile = 16u * 1024 * 1024;

}  // namespace kvlemu::cfg
