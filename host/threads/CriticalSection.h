// CriticalSection: the host's re-entrant lock for code that owns its lock by value, and
// its scope guard. A thread that already holds it may enter again; it is free once every
// enter has been matched by a leave.
#pragma once

#include "host/threads/ScopedLock.h"
#include "host/threads/ThreadSafety.h"

#include <pthread.h>

// A recursive pthread mutex with the calls inlined, so that an uncontended enter/leave
// costs what std::recursive_mutex costs. It is constant-initialised, so a CriticalSection
// with static storage duration (constinit) is usable during static initialisation.
//
// A CriticalSection is a primitive: what it guards, and which other locks may be held when
// it is taken, is documented by the class that owns it and gathered in the table "Lock
// hierarchy" of README.md. The analysis treats it as a plain (non re-entrant) lock: code
// that enters it twice on one path is reported, so re-entry stays the exception.
class CAPABILITY("mutex") CriticalSection {
public:
    constexpr CriticalSection() noexcept = default;
    ~CriticalSection() { pthread_mutex_destroy(&mutex_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void enter() noexcept ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void leave() noexcept RELEASE() { pthread_mutex_unlock(&mutex_); }
    // Enters only if no other thread holds it (the holder itself always succeeds).
    bool tryEnter() noexcept TRY_ACQUIRE(true) { return pthread_mutex_trylock(&mutex_) == 0; }

    // Holds the critical section for a scope (see ScopedLock).
    class Lock;

private:
    pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

class SCOPED_CAPABILITY CriticalSection::Lock : public ScopedLock<CriticalSection, &CriticalSection::enter, &CriticalSection::leave> {
public:
    explicit Lock(CriticalSection& lock) noexcept ACQUIRE(lock) : ScopedLock(lock) {}
    ~Lock() RELEASE() {}
};
