#include "emu_process.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

#ifdef _WIN32
#include <process.h>
#define KVLEMU_POPEN _popen
#define KVLEMU_PCLOSE _pclose
#else
#include <sys/wait.h>
#include <unistd.h>
#define KVLEMU_POPEN popen
#define KVLEMU_PCLOSE pclose
#endif

namespace kvlemu::proc {

namespace {
int processId() {
#ifdef _WIN32
    return _getpid();
#else
    return static_cast<int>(getpid());
#endif
}
}  // namespace

bool run(const std::string& command, const wire::Bytes& input, size_t maxOutput, wire::Bytes& output, int* exitCode) {
    // The request goes through a file: a pipe in each direction could fill up
    // while the other is not read.
    static std::atomic<unsigned> counter{0};
    std::error_code ec;
    auto path = std::filesystem::temp_directory_path(ec) /
                ("kvlemu-" + std::to_string(processId()) + "-" + std::to_string(counter++) + ".in");
    if (ec) return false;
    {
        std::ofstream f(path, std::ios::binary);
        if (!f) return false;
        f.write(reinterpret_cast<const char*>(input.data()), static_cast<std::streamsize>(input.size()));
        if (!f) return false;
    }
    std::string line = "(" + command + ") < \"" + path.string() + "\"";
#ifdef _WIN32
    line = command + " < \"" + path.string() + "\"";
    FILE* p = KVLEMU_POPEN(line.c_str(), "rb");
#else
    FILE* p = KVLEMU_POPEN(line.c_str(), "r");
#endif
    if (!p) {
        std::filesystem::remove(path, ec);
        return false;
    }
    output.clear();
    char buf[4096];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, p)) > 0) {
        size_t keep = output.size() < maxOutput ? std::min(got, maxOutput - output.size()) : 0;
        output.insert(output.end(), buf, buf + keep);  // the rest is read and dropped
    }
    int status = KVLEMU_PCLOSE(p);
    std::filesystem::remove(path, ec);
#ifdef _WIN32
    *exitCode = status;
#else
    *exitCode = status < 0 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
#endif
    return status >= 0;
}

}  // namespace kvlemu::proc
