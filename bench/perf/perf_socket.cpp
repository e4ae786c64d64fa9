#include "perf_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kvlperf {

int listenLoopback(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 4096) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

int connectLoopback(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const void* p, size_t n) {
    const auto* c = static_cast<const uint8_t*>(p);
    while (n > 0) {
        ssize_t s = send(fd, c, n, MSG_NOSIGNAL);
        if (s < 0 && errno == EINTR) continue;
        if (s <= 0) return false;
        c += s;
        n -= static_cast<size_t>(s);
    }
    return true;
}

namespace {
void* runBody(void* arg) {
    auto* body = static_cast<std::function<void()>*>(arg);
    (*body)();
    delete body;
    return nullptr;
}
}  // namespace

bool startSmallThread(std::function<void()> body, size_t stackBytes, unsigned long* id) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stackBytes);
    auto* heap = new std::function<void()>(std::move(body));
    pthread_t t;
    int rc = pthread_create(&t, &attr, runBody, heap);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete heap;
        return false;
    }
    *id = static_cast<unsigned long>(t);
    return true;
}

void joinThread(unsigned long id) { pthread_join(static_cast<pthread_t>(id), nullptr); }

bool FlowReader::want(size_t n) {
    if (end_ - start_ >= n) return true;
    if (start_ > 0) {
        memmove(buf_.data(), buf_.data() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
    }
    if (buf_.size() < n) buf_.resize(n);
    while (end_ < n) {
        ssize_t r = recv(fd_, buf_.data() + end_, buf_.size() - end_, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        end_ += static_cast<size_t>(r);
    }
    return true;
}

bool FlowReader::readMore() {
    if (start_ > 0) {
        memmove(buf_.data(), buf_.data() + start_, end_ - start_);
        end_ -= start_;
        start_ = 0;
    }
    if (end_ == buf_.size()) buf_.resize(buf_.size() * 2);
    for (;;) {
        ssize_t r = recv(fd_, buf_.data() + end_, buf_.size() - end_, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        end_ += static_cast<size_t>(r);
        return true;
    }
}

bool FlowReader::next(Header* header, const uint8_t** body, size_t* bodyLen,
                      const std::function<size_t(const uint8_t*, size_t)>& complete) {
    if (!want(24)) return false;
    size_t headerLen = headerLength(buf_.data() + start_);
    if (headerLen == 0 || !want(headerLen)) return false;
    *header = parseHeader(buf_.data() + start_, headerLen);
    if (header->bodyLen > (64u << 20)) return false;
    for (;;) {
        size_t have = end_ - start_ - headerLen;
        size_t real = have >= header->bodyLen ? header->bodyLen : (have > 0 ? complete(buf_.data() + start_ + headerLen, have) : 0);
        if (real > 0 || header->bodyLen == 0) {
            *bodyLen = real;
            *body = buf_.data() + start_ + headerLen;
            start_ += headerLen + real;
            return true;
        }
        if (!readMore()) return false;
    }
}

bool FlowReader::next(Header* header, const uint8_t** body) {
    if (!want(24)) return false;
    size_t headerLen = headerLength(buf_.data() + start_);
    if (headerLen == 0 || !want(headerLen)) return false;
    *header = parseHeader(buf_.data() + start_, headerLen);
    if (header->bodyLen > (64u << 20) || !want(headerLen + header->bodyLen)) return false;
    *body = buf_.data() + start_ + headerLen;
    start_ += headerLen + header->bodyLen;
    return true;
}

}  // namespace kvlperf
