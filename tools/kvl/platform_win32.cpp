// Windows side of the kvl command's platform layer.
#include "platform.h"

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kvlcli {

bool stdoutIsTerminal() { return _isatty(_fileno(stdout)) != 0; }
bool stderrIsTerminal() { return _isatty(_fileno(stderr)) != 0; }

std::optional<std::string> readSecret(const std::string& prompt) {
    HANDLE in = CreateFileA("CONIN$", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_EXISTING, 0, nullptr);
    if (in == INVALID_HANDLE_VALUE) return std::nullopt;
    HANDLE out = CreateFileA("CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD written = 0;
    if (out != INVALID_HANDLE_VALUE) WriteConsoleA(out, prompt.data(), static_cast<DWORD>(prompt.size()), &written, nullptr);
    DWORD mode = 0;
    bool restore = GetConsoleMode(in, &mode) != 0;
    if (restore) SetConsoleMode(in, mode & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
    std::string line;
    char c;
    DWORD got = 0;
    while (line.size() < 1024 && ReadFile(in, &c, 1, &got, nullptr) && got == 1 && c != '\n') {
        if (c != '\r') line.push_back(c);
    }
    if (restore) SetConsoleMode(in, mode);
    if (out != INVALID_HANDLE_VALUE) {
        WriteConsoleA(out, "\r\n", 2, &written, nullptr);
        CloseHandle(out);
    }
    CloseHandle(in);
    return line;
}

namespace {

// "UTF-8", "CP1252", "IBM037" or a bare number name a Windows code page.
UINT codePageNumber(const std::string& name) {
    std::string upper;
    for (char c : name) upper.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    if (upper == "UTF-8" || upper == "UTF8") return CP_UTF8;
    size_t digits = upper.find_first_of("0123456789");
    if (digits == std::string::npos) return 0;
    std::string prefix = upper.substr(0, digits);
    if (!prefix.empty() && prefix != "CP" && prefix != "IBM" && prefix != "IBM-" && prefix != "WINDOWS-") return 0;
    return static_cast<UINT>(std::strtoul(upper.c_str() + digits, nullptr, 10));
}

std::optional<std::wstring> toWide(const std::string& in, UINT cp, std::string& error) {
    if (in.empty()) return std::wstring();
    int n = MultiByteToWideChar(cp, MB_ERR_INVALID_CHARS, in.data(), static_cast<int>(in.size()), nullptr, 0);
    if (n <= 0) {
        error = "cannot convert from code page " + std::to_string(cp);
        return std::nullopt;
    }
    std::wstring wide(static_cast<size_t>(n), L'\0');
    MultiByteToWideChar(cp, 0, in.data(), static_cast<int>(in.size()), wide.data(), n);
    return wide;
}

std::optional<std::string> fromWide(const std::wstring& in, UINT cp, std::string& error) {
    if (in.empty()) return std::string();
    int n = WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), nullptr, 0, nullptr, nullptr);
    if (n <= 0) {
        error = "cannot convert to code page " + std::to_string(cp);
        return std::nullopt;
    }
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(cp, 0, in.data(), static_cast<int>(in.size()), out.data(), n, nullptr, nullptr);
    return out;
}

}  // namespace

std::optional<std::string> encodeText(const std::string& utf8, const std::string& codePage, std::string& error) {
    UINT cp = codePageNumber(codePage);
    if (cp == 0 || !IsValidCodePage(cp)) {
        error = "unknown code page";
        return std::nullopt;
    }
    auto wide = toWide(utf8, CP_UTF8, error);
    if (!wide) return std::nullopt;
    return fromWide(*wide, cp, error);
}

std::optional<std::string> decodeText(const std::string& bytes, const std::string& codePage, std::string& error) {
    UINT cp = codePageNumber(codePage);
    if (cp == 0 || !IsValidCodePage(cp)) {
        error = "unknown code page";
        return std::nullopt;
    }
    auto wide = toWide(bytes, cp, error);
    if (!wide) return std::nullopt;
    return fromWide(*wide, CP_UTF8, error);
}

std::string defaultProfilePath() {
    const char* appdata = std::getenv("APPDATA");
    return appdata ? std::string(appdata) + "\\kvl.ini" : std::string("kvl.ini");
}

void useBinaryStdio() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
}

}  // namespace kvlcli
