// PlainMutex: a non re-entrant mutex (std::mutex) that the thread-safety analysis
// understands, with its two scope guards: Lock for a scope, UniqueLock for a scope that
// waits on a std::condition_variable.
#pragma once

#include "host/threads/ScopedLock.h"
#include "host/threads/ThreadSafety.h"

#include <mutex>

// What it guards, and which other locks may be held when it is taken, is documented by
// the class that owns it and gathered in the table "Lock hierarchy" of README.md.
class CAPABILITY("mutex") PlainMutex {
public:
    constexpr PlainMutex() noexcept = default;
    PlainMutex(const PlainMutex&) = delete;
    PlainMutex& operator=(const PlainMutex&) = delete;

    // std::mutex only throws here on a broken program (deadlock detected, invalid state).
    void lock() noexcept ACQUIRE() { mutex_.lock(); }
    void unlock() noexcept RELEASE() { mutex_.unlock(); }
    bool try_lock() noexcept TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    // Holds the mutex for a scope (see ScopedLock).
    class Lock;
    // Holds the mutex for a scope that waits on a condition variable (see below).
    class UniqueLock;

private:
    std::mutex mutex_;
};

class SCOPED_CAPABILITY PlainMutex::Lock : public ScopedLock<PlainMutex, &PlainMutex::lock, &PlainMutex::unlock> {
public:
    explicit Lock(PlainMutex& lock) noexcept ACQUIRE(lock) : ScopedLock(lock) {}
    ~Lock() RELEASE() {}
};

// Holds the mutex like Lock and lends the std::unique_lock a std::condition_variable
// waits with. A wait releases the mutex and takes it back before it returns, so to the
// analysis the mutex stays held across it: write waits as
//     while (!condition) changed_.wait(lock.native());
// (a predicate lambda is analysed on its own, without the lock).
class SCOPED_CAPABILITY PlainMutex::UniqueLock {
public:
    // The bodies hand the mutex to std::unique_lock, whose calls the analysis cannot see.
    explicit UniqueLock(PlainMutex& m) noexcept ACQUIRE(m) NO_THREAD_SAFETY_ANALYSIS : lock_(m.mutex_) {}
    ~UniqueLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void unlock() noexcept RELEASE() NO_THREAD_SAFETY_ANALYSIS { lock_.unlock(); }
    void relock() noexcept ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { lock_.lock(); }

    std::unique_lock<std::mutex>& native() noexcept { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};
