// ScopedLock: the scope guard shared by the host's locks. It holds the lock from
// construction to destruction; unlock() lets code release it temporarily (to call out, or
// to wait) and relock() takes it back; the destructor leaves only if the guard holds it.
//
// For the thread-safety analysis the guard is a scoped capability: the lock counts as held
// from construction to destruction and between relock() and unlock(). Its bodies call the
// lock through a member pointer, which the analysis cannot follow, so they are not analysed.
#pragma once

#include "host/threads/ThreadSafety.h"

template <class L, void (L::*Enter)() noexcept, void (L::*Leave)() noexcept>
class SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(L& lock) noexcept ACQUIRE(lock) NO_THREAD_SAFETY_ANALYSIS : lock_(lock) {
        (lock_.*Enter)();
    }
    ~ScopedLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (held_) (lock_.*Leave)();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void unlock() noexcept RELEASE() NO_THREAD_SAFETY_ANALYSIS {
        if (held_) {
            held_ = false;
            (lock_.*Leave)();
        }
    }
    void relock() noexcept ACQUIRE() NO_THREAD_SAFETY_ANALYSIS {
        if (!held_) {
            (lock_.*Enter)();
            held_ = true;
        }
    }
    bool isLocked() const noexcept { return held_; }

private:
    L& lock_;
    bool held_ = true;
};
