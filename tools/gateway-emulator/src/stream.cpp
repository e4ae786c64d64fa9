#include "stream.h"

namespace kvlemu {

namespace {

class PlainStream : public Stream {
public:
    explicit PlainStream(net::Socket s) : sock_(s) {}
    ~PlainStream() override { net::closeSocket(sock_); }

    long read(uint8_t* dst, size_t len) override {
        if (stopped_) return -1;
        long got = net::recvUntilStopped(sock_, dst, len, stopped_);
        return stopped_ ? -1 : got;
    }
    bool write(const uint8_t* data, size_t len) override { return !stopped_ && net::sendAll(sock_, data, len); }
    void shutdown() override {
        if (!stopped_.exchange(true)) net::shutdownBoth(sock_);
    }

private:
    net::Socket sock_;
    std::atomic<bool> stopped_{false};
};

}  // namespace

std::unique_ptr<Stream> plainStream(net::Socket socket) { return std::make_unique<PlainStream>(socket); }

}  // namespace kvlemu
