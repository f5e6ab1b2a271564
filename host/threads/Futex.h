// Thin wrappers over the Linux futex system call, used by the thread events: sleeping on a
// 32-bit word until another thread changes it, with an optional deadline on the monotonic
// clock. Internal to host/threads.
#pragma once

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace futex {

// Sleeps while *word == expected, until woken, until the absolute CLOCK_MONOTONIC
// deadline (null: no deadline) or spuriously. Returns false only when the deadline passed;
// every other return means "look at the word again".
inline bool waitUntil(std::atomic<uint32_t>& word, uint32_t expected,
                      const timespec* deadline) noexcept {
    // FUTEX_WAIT_BITSET takes an absolute deadline, measured on CLOCK_MONOTONIC unless
    // FUTEX_CLOCK_REALTIME is given, so retries after a spurious wake never stretch the wait.
    long rc = syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word),
                      FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, deadline, nullptr,
                      FUTEX_BITSET_MATCH_ANY);
    return !(rc == -1 && errno == ETIMEDOUT);
}

inline void wake(std::atomic<uint32_t>& word, int count) noexcept {
    syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word), FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count,
            nullptr, nullptr, 0);
}

inline void wakeOne(std::atomic<uint32_t>& word) noexcept {
    wake(word, 1);
}
inline void wakeAll(std::atomic<uint32_t>& word) noexcept {
    wake(word, INT_MAX);
}

// The absolute monotonic time timeoutMs from now.
inline timespec deadlineAfter(unsigned timeoutMs) noexcept {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    t.tv_sec += time_t(timeoutMs / 1000);
    t.tv_nsec += long(timeoutMs % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

} // namespace futex
