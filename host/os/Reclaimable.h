// Reclaimable: a holder of memory or other resources that the host can ask to give some
// back (a cache of open files, a pool of decoded frames). Holders register with
// ReclaimableRegistry; a program drives them all when memory runs short (limitUsage),
// when it must let go of everything it can (purge), or to see what they hold
// (reportUsage).
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

class Reclaimable {
public:
    virtual ~Reclaimable() = default;
    // Gives back everything not in use.
    virtual void purge() = 0;
    // Shrinks to the holder's own minimum.
    virtual void limitUsage() = 0;
    // Writes what it holds to the log.
    virtual void reportUsage() = 0;
};

// Lock: mutex_ guards the list and is held while the holders are called, so that a holder
// that unregisters (normally from its destructor) waits until no call of it is running.
// Holders therefore must not register or unregister from inside these calls; any lock of
// their own may be taken under it, and it is taken with none of theirs held.
class ReclaimableRegistry {
public:
    static void add(Reclaimable* r);
    static void remove(Reclaimable* r);
    static void purgeAll();
    static size_t count();

private:
    struct State {
        std::mutex mutex;
        std::vector<Reclaimable*> list;
    };
    static State& state();
};
