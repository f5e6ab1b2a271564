// SystemWatchdog: the host's hang detector. The thread a person waits on (the program's
// main thread) beats now and then; when no beat came for longer than the limit the
// process is taken to hang. Long work that keeps that thread busy on purpose (a copy of
// many files) holds life support for its duration, and a process on life support never
// counts as hanging. g_esc_pressed is the host's Escape: set when the person asks to
// stop (Ctrl-C in the command-line program) and read by work that stops between steps.
#pragma once

#include <atomic>
#include <cstdint>

// Set from a signal handler and read from any thread: a lock-free atomic.
extern std::atomic<bool> g_esc_pressed;

class SystemWatchdog {
public:
    // Life support nests and may be held by several threads at once; each begin is
    // matched by one end.
    static void beginLifeSupport() noexcept;
    static void endLifeSupport() noexcept;
    static bool isOnLifeSupport() noexcept;
    static int lifeSupportCount() noexcept;

    // Records a beat of the watched thread.
    static void heartbeat() noexcept;
    // True when the last beat is older than limitMs and nothing holds life support.
    static bool isHung(unsigned limitMs) noexcept;

    // Holds life support for a scope.
    class LifeSupport {
    public:
        LifeSupport() noexcept { beginLifeSupport(); }
        ~LifeSupport() { endLifeSupport(); }
        LifeSupport(const LifeSupport&) = delete;
        LifeSupport& operator=(const LifeSupport&) = delete;
    };
};
