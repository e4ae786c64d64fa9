#include "emu_socket.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <type_traits>

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>
#endif

namespace kvlemu::net {
namespace {

#ifdef _WIN32
using Native = SOCKET;
constexpr int kSendFlags = 0;
Native native(Socket s) { return static_cast<Native>(s); }
Socket wrap(Native n) { return n == INVALID_SOCKET ? kInvalidSocket : static_cast<Socket>(n); }
int lastError() { return WSAGetLastError(); }
#else
using Native = int;
constexpr int kSendFlags = MSG_NOSIGNAL;
Native native(Socket s) { return static_cast<Native>(s); }
Socket wrap(Native n) { return n < 0 ? kInvalidSocket : static_cast<Socket>(n); }
int lastError() { return errno; }
#endif

bool pollOne(Socket s, short events, int timeoutMs) {
#ifdef _WIN32
    fd_set set;
    FD_ZERO(&set);
    FD_SET(native(s), &set);
    timeval tv{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
    int rc = select(0, events == POLLIN ? &set : nullptr, events == POLLIN ? nullptr : &set, nullptr, &tv);
    return rc > 0;
#else
    pollfd p{native(s), events, 0};
    int rc;
    do {
        rc = poll(&p, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0;
#endif
}

std::string describe(const sockaddr* sa, socklen_t len) {
    char host[NI_MAXHOST] = {0};
    char serv[NI_MAXSERV] = {0};
    if (getnameinfo(sa, len, host, sizeof host, serv, sizeof serv, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "?";
    return std::string(host) + ":" + serv;
}

}  // namespace

bool startup() {
    static std::once_flag once;
    static bool ok = false;
    std::call_once(once, [] {
#ifdef _WIN32
        WSADATA data;
        ok = WSAStartup(MAKEWORD(2, 2), &data) == 0;
#else
        // A peer that vanishes mid-send must fail the send, not end the process.
        signal(SIGPIPE, SIG_IGN);
        ok = true;
#endif
    });
    return ok;
}

Socket listenOn(const std::string& address, uint16_t port, uint16_t* boundPort, std::string* error) {
    if (!startup()) {
        if (error) *error = "socket layer start-up failed";
        return kInvalidSocket;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* res = nullptr;
    std::string portText = std::to_string(port);
    int rc = getaddrinfo(address.empty() ? nullptr : address.c_str(), portText.c_str(), &hints, &res);
    if (rc != 0 || res == nullptr) {
        if (error) *error = "cannot resolve listen address '" + address + "'";
        return kInvalidSocket;
    }
    Native s = socket(res->ai_family, res->ai_socktype, res->ai_protocol);
    if (wrap(s) == kInvalidSocket) {
        if (error) *error = "socket() failed: " + errorText(lastError());
        freeaddrinfo(res);
        return kInvalidSocket;
    }
#ifndef _WIN32
    int one = 1;
    setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
#endif
    if (bind(s, res->ai_addr, static_cast<socklen_t>(res->ai_addrlen)) != 0 || listen(s, 64) != 0) {
        if (error) *error = "cannot listen on " + address + ":" + portText + ": " + errorText(lastError());
        freeaddrinfo(res);
        closeSocket(wrap(s));
        return kInvalidSocket;
    }
    freeaddrinfo(res);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    if (getsockname(s, reinterpret_cast<sockaddr*>(&bound), &len) == 0 && boundPort) {
        if (bound.ss_family == AF_INET)
            *boundPort = ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
        else
            *boundPort = ntohs(reinterpret_cast<sockaddr_in6*>(&bound)->sin6_port);
    }
    return wrap(s);
}

Socket acceptWithin(Socket listener, int timeoutMs, std::string* peer) {
    if (!pollOne(listener, POLLIN, timeoutMs)) return kInvalidSocket;
    sockaddr_storage from{};
    socklen_t len = sizeof from;
    Native s = accept(native(listener), reinterpret_cast<sockaddr*>(&from), &len);
    if (wrap(s) == kInvalidSocket) return kInvalidSocket;
    int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
    if (peer) *peer = describe(reinterpret_cast<sockaddr*>(&from), len);
    return wrap(s);
}

Socket connectTo(const std::string& address, uint16_t port) {
    if (!startup()) return kInvalidSocket;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &res) != 0 || res == nullptr)
        return kInvalidSocket;
    Socket s = wrap(socket(res->ai_family, res->ai_socktype, res->ai_protocol));
    if (s != kInvalidSocket && connect(native(s), res->ai_addr, static_cast<socklen_t>(res->ai_addrlen)) != 0) {
        closeSocket(s);
        s = kInvalidSocket;
    }
    freeaddrinfo(res);
    if (s != kInvalidSocket) {
        int one = 1;
        setsockopt(native(s), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
    }
    return s;
}

bool sendAll(Socket s, const uint8_t* data, size_t len) {
    while (len > 0) {
        int chunk = len > (1u << 30) ? (1 << 30) : static_cast<int>(len);
        auto n = send(native(s), reinterpret_cast<const char*>(data), chunk, kSendFlags);
        if (n <= 0) {
#ifndef _WIN32
            if (n < 0 && errno == EINTR) continue;
#endif
            return false;
        }
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

long recvSome(Socket s, uint8_t* data, size_t len) {
    int chunk = len > (1u << 30) ? (1 << 30) : static_cast<int>(len);
    for (;;) {
        auto n = recv(native(s), reinterpret_cast<char*>(data), chunk, 0);
#ifndef _WIN32
        if (n < 0 && errno == EINTR) continue;
#endif
        return static_cast<long>(n);
    }
}

bool waitReadable(Socket s, int timeoutMs) { return pollOne(s, POLLIN, timeoutMs); }

long recvUntilStopped(Socket s, uint8_t* data, size_t len, const std::atomic<bool>& stop) {
#ifdef _WIN32
    // Shutting a socket down does not wake a blocked receive here.
    constexpr int kStopPollMs = 100;
    while (!waitReadable(s, kStopPollMs))
        if (stop) return -1;
#endif
    if (stop) return -1;
    return recvSome(s, data, len);
}

std::string errorText(int code) {
    std::string text;
#ifdef _WIN32
    char buf[512] = {0};
    DWORD n = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                             static_cast<DWORD>(code), 0, buf, sizeof buf, nullptr);
    text.assign(buf, n);
    if (text.find_first_not_of(" \r\n.") == std::string::npos) {
        // Systems without a message table for socket errors: the common ones by name.
        switch (code) {
            case WSAEADDRINUSE: text = "address already in use"; break;
            case WSAEADDRNOTAVAIL: text = "cannot assign requested address"; break;
            case WSAEACCES: text = "permission denied"; break;
            default: text.clear(); break;
        }
    }
#else
    char buf[256] = {0};
    // The GNU strerror_r returns the text; the XSI one fills buf.
    auto r = strerror_r(code, buf, sizeof buf);
    if constexpr (std::is_same_v<decltype(r), char*>)
        text = r;
    else
        text = buf;
#endif
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' || text.back() == '.'))
        text.pop_back();
    if (text.empty()) return "error " + std::to_string(code);
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text + " (error " + std::to_string(code) + ")";
}

void shutdownBoth(Socket s) {
    if (s == kInvalidSocket) return;
#ifdef _WIN32
    shutdown(native(s), SD_BOTH);
#else
    shutdown(native(s), SHUT_RDWR);
#endif
}

void closeSocket(Socket s) {
    if (s == kInvalidSocket) return;
#ifdef _WIN32
    closesocket(native(s));
#else
    close(native(s));
#endif
}

}  // namespace kvlemu::net
