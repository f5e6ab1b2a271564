// The shutdown sequence and the process's instance of it.
#include "host/threads/Shutdown.h"

#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>

Shutdown::Handle Shutdown::Sequence::addCallback(Zn::Ptr<iCallback> cb, unsigned level) {
    if (!cb) return 0;
    PlainMutex::Lock lock(mutex_);
    if (finished_) return 0;
    Handle h = nextSeq_++;
    entries_.push_back(Entry{std::move(cb), level, h});
    return h;
}

bool Shutdown::Sequence::removeCallback(Handle h) {
    Zn::Ptr<iCallback> removed; // released after the lock: its destructor may register
    PlainMutex::Lock lock(mutex_);
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [h](const Entry& e) { return e.handle == h; });
    if (it == entries_.end()) return false;
    removed = std::move(it->cb);
    entries_.erase(it);
    return true;
}

void Shutdown::Sequence::run(eExitType type) {
    {
        PlainMutex::Lock lock(mutex_);
        if (ran_) return;
        ran_ = true;
    }
    for (;;) {
        // Picking the next callback afresh each time keeps the order right when callbacks
        // register or remove others; the few dozen entries make the scan cheap.
        Zn::Ptr<iCallback> cb;
        {
            PlainMutex::Lock lock(mutex_);
            if (entries_.empty()) {
                finished_ = true;
                return;
            }
            auto next = std::min_element(
                entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
                    return a.level != b.level ? a.level < b.level : a.handle > b.handle;
                });
            cb = std::move(next->cb);
            entries_.erase(next);
        }
        try {
            cb->shutdown(type);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "shutdown: a callback failed: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "shutdown: a callback failed\n");
        }
    }
}

bool Shutdown::Sequence::hasRun() const {
    PlainMutex::Lock lock(mutex_);
    return ran_;
}

size_t Shutdown::Sequence::pendingCount() const {
    PlainMutex::Lock lock(mutex_);
    return entries_.size();
}

Shutdown::Sequence& Shutdown::process() noexcept {
    // Built in static storage on first use and never destroyed, so registering works in
    // any static initialiser and removing works in any static destructor.
    alignas(Sequence) static unsigned char storage[sizeof(Sequence)];
    static Sequence* sequence = new (storage) Sequence;
    return *sequence;
}
