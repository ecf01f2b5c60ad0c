#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include <algorithm>
#include <cstring>
#include <map>

namespace Kelvo {

namespace {

// Records are only ever pushed, never removed, so a reader may walk the list
// while another thread pushes: it sees the list as of its load of the head.
std::atomic<MemTrack*> trackList{nullptr};

}  // namespace

MemTrack::MemTrack(const char* mangledName) noexcept : mangledName_(mangledName) {
    MemTrack* head = trackList.load(std::memory_order_relaxed);
    do {
        next_ = head;
    } while (!trackList.compare_exchange_weak(head, this, std::memory_order_release,
                                              std::memory_order_relaxed));
}

std::vector<MemUsage> MemTrack::usage() {
    // Each shared object that instantiates a type keeps a record of its own,
    // and a block may be freed in another one than allocated it: only the sum
    // per type is meaningful (unsigned wrap-around makes it exact).
    std::map<String, MemUsage> byName;
    for (MemTrack* t = trackList.load(std::memory_order_acquire); t; t = t->next_) {
        String name = typeName(t->mangledName_);
        MemUsage& u = byName[name];
        u.typeName = name;
        u.liveObjects += t->liveObjects();
        u.liveBytes += t->liveBytes();
        u.allocations += t->allocations();
    }
    std::vector<MemUsage> all;
    all.reserve(byName.size());
    for (auto& [name, u] : byName) {
        all.push_back(std::move(u));
    }
    return all;
}

MemUsage MemTrack::usage(const String& name) {
    for (MemUsage& u : usage()) {
        if (u.typeName == name) {
            return u;
        }
    }
    return MemUsage{name};
}

}  // namespace Kelvo
