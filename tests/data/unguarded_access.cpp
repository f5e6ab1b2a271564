// Must NOT compile under the thread-safety check: it touches a guarded member without its
// lock. scripts/thread-safety-check compiles it first to show the analysis is active.
#include "host/threads/CriticalSection.h"
#include "host/threads/PlainMutex.h"

class Counter {
public:
    void increment() {
        CriticalSection::Lock lock(lock_);
        ++count_;
    }
    int unguardedRead() const { return count_; }

private:
    mutable CriticalSection lock_;
    int count_ GUARDED_BY(lock_) = 0;
};
