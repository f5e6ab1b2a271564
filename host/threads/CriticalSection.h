// CriticalSection: the host's re-entrant lock for code that owns its lock by value, and
// its scope guard. A thread that already holds it may enter again; it is free once every
// enter has been matched by a leave.
#pragma once

#include <pthread.h>

// A recursive pthread mutex with the calls inlined, so that an uncontended enter/leave
// costs what std::recursive_mutex costs. It is constant-initialised, so a CriticalSection
// with static storage duration (constinit) is usable during static initialisation.
//
// A CriticalSection is a primitive: what it guards, and which other locks may be held when
// it is taken, is documented by the class that owns it.
class CriticalSection {
public:
    constexpr CriticalSection() noexcept = default;
    ~CriticalSection() { pthread_mutex_destroy(&mutex_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void enter() noexcept { pthread_mutex_lock(&mutex_); }
    void leave() noexcept { pthread_mutex_unlock(&mutex_); }
    // Enters only if no other thread holds it (the holder itself always succeeds).
    bool tryEnter() noexcept { return pthread_mutex_trylock(&mutex_) == 0; }

    // Holds the critical section for a scope. unlock() lets code release it temporarily
    // (to call out, or to wait) and relock() takes it back; the destructor leaves only if
    // the guard holds it at that moment.
    class Lock {
    public:
        explicit Lock(CriticalSection& cs) noexcept : cs_(cs) { cs_.enter(); }
        ~Lock() {
            if (held_) cs_.leave();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

        void unlock() noexcept {
            if (held_) {
                held_ = false;
                cs_.leave();
            }
        }
        void relock() noexcept {
            if (!held_) {
                cs_.enter();
                held_ = true;
            }
        }
        bool isLocked() const noexcept { return held_; }

    private:
        CriticalSection& cs_;
        bool held_ = true;
    };

private:
    pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};
