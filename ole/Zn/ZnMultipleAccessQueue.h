// Zn::MultipleAccessQueue<Key>: lets many threads work on different objects at once while
// threads that want the same object (the same key) take turns, in the order they asked.
// beginAccess returns once the caller holds the key; endAccess hands it straight to the
// longest-waiting thread, so nobody can slip in between. The play file cache keys it by
// file name, so that one file is opened by one thread while the others wait and then find
// it open.
#pragma once

#include "host/core/Exception.h"
#include "host/core/RefCount.h"
#include "host/os/OS.h"
#include "host/threads/Mutex.h"
#include "host/threads/ThreadEvent.h"

#include <deque>
#include <map>

namespace Zn {

// Lock: mutex_ guards accessed_ and every waiter queue in it. It is held only for the map
// and queue operations: waiting for the key and signalling the next holder happen after it
// is left. It may be taken with any lock held, and no other lock is taken under it. Callers
// should hold no lock of their own across beginAccess, which may wait for a long time.
//
// A thread must not ask for a key it already holds: it would wait for itself.
template <class Key> class MultipleAccessQueue {
public:
    // A key that some thread holds, with the threads waiting for it in arrival order.
    class AccessedObjectInfo : public iObject {
    public:
        explicit AccessedObjectInfo(const Key& k) : key(k) {}
        const Key key;
        std::deque<Zn::Ptr<iThreadEvent>> waiters;
    };

    MultipleAccessQueue() : mutex_(OS()->createMutex("MultipleAccessQueue")) {}
    MultipleAccessQueue(const MultipleAccessQueue&) = delete;
    MultipleAccessQueue& operator=(const MultipleAccessQueue&) = delete;

    // Returns when the calling thread holds key.
    void beginAccess(const Key& key) {
        Zn::Ptr<iThreadEvent> turn;
        {
            iMutex::Lock lock(*mutex_);
            auto it = accessed_.find(key);
            if (it == accessed_.end()) {
                accessed_.emplace(key, Zn::makePtr<AccessedObjectInfo>(key));
                return;
            }
            turn = OS()->createThreadEvent(false, false);
            it->second->waiters.push_back(turn);
        }
        // The entry stays in the map while we wait: the holder hands the key over to us.
        turn->wait(iThreadEvent::kInfinite);
    }

    // Gives key up. Throws Zn::Exception::RuntimeError, changing nothing, when no thread
    // holds key.
    void endAccess(const Key& key) {
        Zn::Ptr<iThreadEvent> next;
        {
            iMutex::Lock lock(*mutex_);
            auto it = accessed_.find(key);
            if (it == accessed_.end()) {
                lock.unlock();
                // The place is the one the host's diagnostics have always reported for this error.
                throw Zn::Exception::RuntimeError("Uncontrolled object passed to endAccess", "ole/Zn/ZnMultipleAccessQueue",
                                                  136);
            }
            auto& waiters = it->second->waiters;
            if (waiters.empty()) {
                accessed_.erase(it);
                return;
            }
            next = std::move(waiters.front());
            waiters.pop_front();
        }
        next->set();
    }

    // Whether some thread holds key; for diagnostics and tests.
    bool isAccessed(const Key& key) const {
        iMutex::Lock lock(*mutex_);
        return accessed_.count(key) != 0;
    }
    // Threads waiting for key.
    size_t waitingFor(const Key& key) const {
        iMutex::Lock lock(*mutex_);
        auto it = accessed_.find(key);
        return it == accessed_.end() ? 0 : it->second->waiters.size();
    }

private:
    Zn::Ptr<iMutex> mutex_;
    std::map<Key, Zn::Ptr<AccessedObjectInfo>> accessed_ GUARDED_BY(mutex_);
};

} // namespace Zn
