#include "host/os/Reclaimable.h"

#include <algorithm>

ReclaimableRegistry::State& ReclaimableRegistry::state() {
    static State* s = new State; // never destroyed: holders unregister during process exit
    return *s;
}

void ReclaimableRegistry::add(Reclaimable* r) {
    if (!r) return;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (std::find(s.list.begin(), s.list.end(), r) == s.list.end()) s.list.push_back(r);
}

void ReclaimableRegistry::remove(Reclaimable* r) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.list.erase(std::remove(s.list.begin(), s.list.end(), r), s.list.end());
}

void ReclaimableRegistry::purgeAll() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (Reclaimable* r : s.list) r->purge();
}

size_t ReclaimableRegistry::count() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.list.size();
}
