// Registry of the streams laid over sockets: a short list under one lock; plain
// connections pay only the empty check.
#include "comms/clapi_stream.h"

#include <atomic>
#include <mutex>
#include <new>

namespace {

struct entry {
    platformSocket socket;
    clapiStream* stream;
    entry* next;
};

struct registry {
    std::mutex lock;
    entry* head = nullptr;
    std::atomic<int> count{0};
};

registry& streams() {
    static registry r;
    return r;
}

}  // namespace

int clapiStreamAttach(platformSocket s, clapiStream* stream) {
    registry& r = streams();
    std::lock_guard<std::mutex> guard(r.lock);
    for (entry* e = r.head; e; e = e->next)
        if (e->socket == s) return -1;
    auto* e = new (std::nothrow) entry{s, stream, r.head};
    if (e == nullptr) return -1;
    r.head = e;
    r.count.fetch_add(1);
    return 0;
}

void clapiStreamEnd(platformSocket s) {
    if (clapiStream* stream = clapiStreamFor(s)) stream->end();
}

void clapiStreamRelease(platformSocket s) {
    registry& r = streams();
    if (r.count.load() == 0) return;
    entry* found = nullptr;
    {
        std::lock_guard<std::mutex> guard(r.lock);
        for (entry** link = &r.head; *link; link = &(*link)->next) {
            if ((*link)->socket != s) continue;
            found = *link;
            *link = found->next;
            r.count.fetch_sub(1);
            break;
        }
    }
    if (found == nullptr) return;
    delete found->stream;
    delete found;
}

clapiStream* clapiStreamFor(platformSocket s) {
    registry& r = streams();
    if (r.count.load() == 0) return nullptr;
    std::lock_guard<std::mutex> guard(r.lock);
    for (entry* e = r.head; e; e = e->next)
        if (e->socket == s) return e->stream;
    return nullptr;
}
