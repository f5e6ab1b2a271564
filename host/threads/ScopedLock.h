// ScopedLock: the scope guard shared by the host's locks. It holds the lock from
// construction to destruction; unlock() lets code release it temporarily (to call out, or
// to wait) and relock() takes it back; the destructor leaves only if the guard holds it.
#pragma once

template <class L, void (L::*Enter)() noexcept, void (L::*Leave)() noexcept> class ScopedLock {
public:
    explicit ScopedLock(L& lock) noexcept : lock_(lock) { (lock_.*Enter)(); }
    ~ScopedLock() {
        if (held_) (lock_.*Leave)();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void unlock() noexcept {
        if (held_) {
            held_ = false;
            (lock_.*Leave)();
        }
    }
    void relock() noexcept {
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
