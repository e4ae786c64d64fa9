#include "trace_capture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "impl/clapi_trace.h"
#include "kvlclient.h"

namespace kvltest {

std::string tempPath(const std::string& stem) {
    static std::atomic<int> counter{0};
    auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    auto name = stem + "-" + std::to_string(stamp) + "-" + std::to_string(counter++) + ".txt";
    return (std::filesystem::temp_directory_path() / name).string();
}

TraceCapture::TraceCapture(int level) : path_(tempPath("kvltrace")) {
    EXPECT_EQ(KVL_setAPITraceFile(path_.c_str()), KVL_OK);
    EXPECT_EQ(KVL_setAPITraceLevel(level), KVL_OK);
}

TraceCapture::~TraceCapture() {
    clapiTraceResetForTest();
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string raw = ss.str();
    std::string out;
    out.reserve(raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n') continue;
        out.push_back(raw[i]);
    }
    return out;
}

std::string TraceCapture::text() const { return readText(path_); }

std::vector<std::string> TraceCapture::lines() const {
    std::vector<std::string> out;
    std::stringstream ss(text());
    std::string line;
    while (std::getline(ss, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        out.push_back(line);
    }
    return out;
}

std::vector<std::string> TraceCapture::linesWithId(int id) const {
    char tag[16];
    snprintf(tag, sizeof tag, "] [%4.4d] ", id);
    std::vector<std::string> out;
    for (const auto& line : lines()) {
        if (line.find(tag) != std::string::npos) out.push_back(line);
    }
    return out;
}

bool TraceCapture::contains(const std::string& fragment) const { return text().find(fragment) != std::string::npos; }

std::string traceMessage(const std::string& line) {
    // Prefix: "dd/mm/yy hh:mm:ss:mmm [0xPPPPPPPP,0xTTTTTTTT] [nnnn] TYPE   " is 60 characters.
    return line.size() > 60 ? line.substr(60) : std::string();
}

}  // namespace kvltest
