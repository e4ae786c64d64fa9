// Registry of the streams laid over sockets, by socket, under one lock; plain
// connections pay only the empty check. Every flow looks its socket up, so the
// lookup is a hash probe whatever the number of TLS connections.
#include "comms/clapi_stream.h"

#include <atomic>
#include <mutex>
#include <new>
#include <unordered_map>

namespace {

struct registry {
    std::mutex lock;
    std::unordered_map<platformSocket, clapiStream*> bySocket;
    std::atomic<int> count{0};
};

registry& streams() {
    static auto* r = new registry();  // never destroyed: sockets may be closed until unload
    return *r;
}

}  // namespace

int clapiStreamAttach(platformSocket s, clapiStream* stream) {
    registry& r = streams();
    std::lock_guard<std::mutex> guard(r.lock);
    try {
        if (!r.bySocket.emplace(s, stream).second) return -1;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    r.count.fetch_add(1);
    return 0;
}

void clapiStreamEnd(platformSocket s) {
    if (clapiStream* stream = clapiStreamFor(s)) stream->end();
}

void clapiStreamRelease(platformSocket s) {
    registry& r = streams();
    if (r.count.load() == 0) return;
    clapiStream* found = nullptr;
    {
        std::lock_guard<std::mutex> guard(r.lock);
        auto it = r.bySocket.find(s);
        if (it == r.bySocket.end()) return;
        found = it->second;
        r.bySocket.erase(it);
        r.count.fetch_sub(1);
    }
    delete found;
}

clapiStream* clapiStreamFor(platformSocket s) {
    registry& r = streams();
    if (r.count.load() == 0) return nullptr;
    std::lock_guard<std::mutex> guard(r.lock);
    auto it = r.bySocket.find(s);
    return it == r.bySocket.end() ? nullptr : it->second;
}
