// A TLS front for a plain Gateway (the emulator): it ends the client's TLS with
// OpenSSL and relays the plaintext both ways, so that a test sees how the
// client ended its session (close_notify or a bare TCP end). One connection;
// loopback; every wait bounded.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace tlstest {

class TlsRelay {
public:
    // How the client's side ended.
    enum class End { none, closeNotify, bareEof, error };

    // Serves certFile/keyFile on 127.0.0.1 (a free port) in front of 127.0.0.1:targetPort.
    TlsRelay(const std::string& certFile, const std::string& keyFile, int targetPort);
    ~TlsRelay();
    TlsRelay(const TlsRelay&) = delete;
    TlsRelay& operator=(const TlsRelay&) = delete;

    int port() const { return port_; }
    // How the client ended, once it did or timeoutMs passed (End::none).
    End waitForEnd(int timeoutMs);
    static const char* name(End end);

private:
    void run();
    void finish(End end);

    int listener_ = -1;
    int port_ = 0;
    int targetPort_;
    std::string certFile_, keyFile_;
    std::atomic<bool> stopping_{false};
    std::mutex m_;
    std::condition_variable cv_;
    End end_ = End::none;
    bool done_ = false;
    std::thread thread_;
};

}  // namespace tlstest
