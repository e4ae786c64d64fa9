#include "config_words.h"

#include <cctype>
#include <fstream>
#include <iterator>

namespace kvlemu::cfg {

namespace {
int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool parseInt(const std::string& s, long long lo, long long hi, long long& out) {
    if (s.empty()) return false;
    size_t used = 0;
    try {
        out = std::stoll(s, &used, 0);
    } catch (...) {
        return false;
    }
    return used == s.size() && out >= lo && out <= hi;
}

bool splitWords(const std::string& line, std::vector<Word>& words, std::string& error) {
    size_t i = 0;
    const size_t n = line.size();
    while (i < n) {
        while (i < n && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
        if (i >= n || line[i] == '#') break;
        Word w;
        w.begin = i;
        if (line[i] == '"') {
            w.quoted = true;
            ++i;
            bool closed = false;
            while (i < n) {
                char c = line[i++];
                if (c == '"') {
                    closed = true;
                    break;
                }
                if (c != '\\') {
                    w.text += c;
                    continue;
                }
                if (i >= n) break;
                char e = line[i++];
                switch (e) {
                    case 'n': w.text += '\n'; break;
                    case 'r': w.text += '\r'; break;
                    case 't': w.text += '\t'; break;
                    case '0': w.text += '\0'; break;
                    case '\\': w.text += '\\'; break;
                    case '"': w.text += '"'; break;
                    case 'x': {
                        int hi = i < n ? hexValue(line[i]) : -1;
                        int lo = i + 1 < n ? hexValue(line[i + 1]) : -1;
                        if (hi < 0 || lo < 0) {
                            error = "\\x needs two hex digits";
                            return false;
                        }
                        w.text += static_cast<char>(hi * 16 + lo);
                        i += 2;
                        break;
                    }
                    default:
                        error = std::string("unknown escape \\") + e;
                        return false;
                }
            }
            if (!closed) {
                error = "quote not closed";
                return false;
            }
        } else {
            while (i < n && !std::isspace(static_cast<unsigned char>(line[i])) && line[i] != '#') w.text += line[i++];
        }
        words.push_back(std::move(w));
    }
    return true;
}

bool parseData(const Word& word, const std::string& baseDir, wire::Bytes& out, std::string& error) {
    out.clear();
    if (word.quoted) {
        out.assign(word.text.begin(), word.text.end());
        return true;
    }
    const std::string& t = word.text;
    if (t.rfind("hex:", 0) == 0) {
        std::string digits = t.substr(4);
        if (digits.size() % 2 != 0) {
            error = "hex data needs an even number of digits";
            return false;
        }
        for (size_t i = 0; i < digits.size(); i += 2) {
            int hi = hexValue(digits[i]);
            int lo = hexValue(digits[i + 1]);
            if (hi < 0 || lo < 0) {
                error = "'" + digits.substr(i, 2) + "' is not hex";
                return false;
            }
            out.push_back(static_cast<uint8_t>(hi * 16 + lo));
        }
        return true;
    }
    if (t.rfind("file:", 0) == 0) {
        std::string path = t.substr(5);
        bool absolute = !path.empty() && (path[0] == '/' || path[0] == '\\' || (path.size() > 1 && path[1] == ':'));
        if (!absolute && !baseDir.empty()) path = baseDir + "/" + path;
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            error = "cannot read " + path;
            return false;
        }
        out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (out.size() > kMaxDataFile) {
            error = path + " is larger than " + std::to_string(kMaxDataFile) + " bytes";
            return false;
        }
        return true;
    }
    error = "data expected (\"text\", hex:HEX or file:PATH), found '" + t + "'";
    return false;
}

}  // namespace kvlemu::cfg
