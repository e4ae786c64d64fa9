// Sends the API trace to a fresh temporary file for the life of the object, and
// reads it back. Restores standard error, level 0 and default dump settings after.
#pragma once

#include <string>
#include <vector>

namespace kvltest {

class TraceCapture {
public:
    explicit TraceCapture(int level);
    ~TraceCapture();
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::string& path() const { return path_; }
    std::string text() const;
    std::vector<std::string> lines() const;
    // The lines whose trace-point number is `id`, as "[1234]" in the prefix.
    std::vector<std::string> linesWithId(int id) const;
    bool contains(const std::string& fragment) const;

private:
    std::string path_;
};

// The message part of a prefixed trace line (everything after the type column).
std::string traceMessage(const std::string& line);
// A text file's contents with Windows line ends folded to "\n" (trace files are text files).
std::string readText(const std::string& path);
// A unique path in the temporary directory.
std::string tempPath(const std::string& stem);

}  // namespace kvltest
