#include "input.h"

#include <cctype>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "platform.h"

namespace kvlcli {

std::string parseHex(const std::string& hex) {
    std::string out;
    int high = -1;
    for (size_t i = 0; i < hex.size(); ++i) {
        char c = hex[i];
        if (c == '0' && i + 1 < hex.size() && (hex[i + 1] == 'x' || hex[i + 1] == 'X') && high < 0) {
            ++i;
            continue;
        }
        if (std::isspace(static_cast<unsigned char>(c)) || c == ',' || c == ':') {
            if (high >= 0) throw UsageError("hex \"" + hex + "\": odd number of digits before a separator");
            continue;
        }
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw UsageError("hex \"" + hex + "\": '" + std::string(1, c) + "' is not a hex digit");
        int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10);
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<char>(high * 16 + v));
            high = -1;
        }
    }
    if (high >= 0) throw UsageError("hex \"" + hex + "\": odd number of digits");
    return out;
}

std::string readFile(const std::string& path, size_t limit) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw UsageError("cannot read file \"" + path + "\"");
    std::string data;
    char buffer[4096];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        data.append(buffer, static_cast<size_t>(in.gcount()));
        if (data.size() > limit)
            throw UsageError("file \"" + path + "\" holds more than " + std::to_string(limit) + " bytes");
    }
    return data;
}

std::string readStdin(size_t limit) {
    useBinaryStdio();
    std::string data;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
        data.append(buffer, n);
        if (data.size() > limit)
            throw UsageError("standard input holds more than " + std::to_string(limit) + " bytes");
    }
    return data;
}

std::string encode(const std::string& text, const std::string& codePage) {
    if (codePage.empty()) return text;
    std::string error;
    auto bytes = encodeText(text, codePage, error);
    if (!bytes) throw UsageError("code page \"" + codePage + "\": " + error);
    return *bytes;
}

ContainerArg parseContainer(const std::string& desc, const std::string& codePage) {
    size_t sep = desc.find_first_of("=@:");
    if (sep == std::string::npos || sep == 0)
        throw UsageError("container \"" + desc + "\": expected NAME=text, NAME@file or NAME:hex");
    ContainerArg c;
    std::string head = desc.substr(0, sep), value = desc.substr(sep + 1);
    char form = desc[sep];
    std::vector<std::string> parts;
    std::stringstream split(head);
    for (std::string part; std::getline(split, part, ',');) parts.push_back(part);
    c.name = parts.empty() ? "" : parts[0];
    if (c.name.empty() || c.name.size() > 16 || parts.size() > 3)
        throw UsageError("container \"" + desc + "\": the name must have 1 to 16 characters");
    c.type = form == '=' ? kvl::ContainerType::character : kvl::ContainerType::bit;
    if (parts.size() >= 2) {
        if (parts[1] == "BIT")
            c.type = kvl::ContainerType::bit;
        else if (parts[1] == "CHAR")
            c.type = kvl::ContainerType::character;
        else
            throw UsageError("container \"" + desc + "\": type must be BIT or CHAR");
    }
    if (parts.size() == 3) {
        if (c.type != kvl::ContainerType::character)
            throw UsageError("container \"" + desc + "\": only CHAR containers have a CCSID");
        try {
            size_t used = 0;
            c.ccsid = std::stoi(parts[2], &used);
            if (used != parts[2].size() || c.ccsid < 0) throw std::invalid_argument("ccsid");
        } catch (const std::exception&) {
            throw UsageError("container \"" + desc + "\": CCSID \"" + parts[2] + "\" is not a number");
        }
    }
    constexpr size_t kContainerLimit = 64u << 20;
    if (form == '=')
        c.data = encode(value, codePage);
    else if (form == '@')
        c.data = readFile(value, kContainerLimit);
    else
        c.data = parseHex(value);
    return c;
}

std::vector<ScriptCall> parseScript(const std::string& text, const std::string& codePage) {
    std::vector<ScriptCall> calls;
    std::istringstream in(text);
    int number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#') continue;
        size_t end = line.find_first_of(" \t", start);
        ScriptCall call;
        call.line = number;
        call.program = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (end != std::string::npos) {
            std::string rest = line.substr(end + 1);
            if (rest.rfind("hex:", 0) == 0)
                call.data = parseHex(rest.substr(4));
            else if (rest.rfind("@", 0) == 0)
                call.data = readFile(rest.substr(1), 32767);
            else
                call.data = encode(rest, codePage);
        }
        calls.push_back(std::move(call));
    }
    return calls;
}

}  // namespace kvlcli
