// Linux side of the kvl command's platform layer.
#include "platform.h"

#include <fcntl.h>
#include <iconv.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kvlcli {

bool stdoutIsTerminal() { return isatty(STDOUT_FILENO) == 1; }
bool stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

std::optional<std::string> readSecret(const std::string& prompt) {
    int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    (void)!write(fd, prompt.data(), prompt.size());
    termios saved{};
    bool restore = tcgetattr(fd, &saved) == 0;
    if (restore) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        tcsetattr(fd, TCSAFLUSH, &quiet);
    }
    std::string line;
    char c;
    while (line.size() < 1024 && read(fd, &c, 1) == 1 && c != '\n' && c != '\r') line.push_back(c);
    if (restore) tcsetattr(fd, TCSAFLUSH, &saved);
    close(fd);
    return line;
}

namespace {

// iconv knows "CP1252" and "IBM037"; a bare number is taken as CPnnn.
std::string iconvName(const std::string& codePage) {
    if (!codePage.empty() && std::isdigit(static_cast<unsigned char>(codePage[0]))) return "CP" + codePage;
    return codePage;
}

std::optional<std::string> convert(const std::string& in, const std::string& to, const std::string& from,
                                   std::string& error) {
    iconv_t cd = iconv_open(to.c_str(), from.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        error = "unknown code page";
        return std::nullopt;
    }
    std::string out(in.size() * 4 + 16, '\0');
    char* src = const_cast<char*>(in.data());
    size_t srcLeft = in.size();
    char* dst = out.data();
    size_t dstLeft = out.size();
    size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1)) {
        error = std::strerror(errno);
        return std::nullopt;
    }
    out.resize(out.size() - dstLeft);
    return out;
}

}  // namespace

std::optional<std::string> encodeText(const std::string& utf8, const std::string& codePage, std::string& error) {
    return convert(utf8, iconvName(codePage), "UTF-8", error);
}

std::optional<std::string> decodeText(const std::string& bytes, const std::string& codePage, std::string& error) {
    return convert(bytes, "UTF-8", iconvName(codePage), error);
}

std::string defaultProfilePath() {
    const char* home = std::getenv("HOME");
    return home ? std::string(home) + "/.kvl.ini" : std::string(".kvl.ini");
}

void useBinaryStdio() {}

}  // namespace kvlcli
