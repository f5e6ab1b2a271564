// iThreadEvent: a signal one thread sets and others wait for, with a timeout; either
// auto-reset (each set releases one waiter) or manual-reset (stays set, releases all).
// ThreadEvent is its only implementation, made by OS()->createThreadEvent.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/PlainMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

class iThreadEvent : public iObject {
public:
    static constexpr unsigned kInfinite = 0xFFFFFFFFu;

    // Auto-reset: if threads wait, exactly one of them is released and the event stays
    // clear; otherwise the event stays set until one wait consumes it, so a set made just
    // before a wait is never lost. Setting an event that is already set changes nothing
    // (two sets with no wait in between release one waiter).
    // Manual-reset: the event stays set until reset and releases every waiter, including
    // those waiting when a set was immediately followed by a reset.
    virtual void set() noexcept = 0;
    virtual void reset() noexcept = 0;
    // True if the event was signalled, false when timeoutMs passed first. Timeouts are
    // measured on the monotonic clock and never end early; 0 only polls and kInfinite
    // waits without limit.
    virtual bool wait(unsigned timeoutMs = kInfinite) noexcept = 0;
    virtual bool isManualReset() const noexcept = 0;

    // Waits until one of the events is signalled and returns its index, or -1 when
    // timeoutMs passed (or there is nothing to wait for). Of the events, only the one
    // reported is consumed (if it is auto-reset); when several are set the lowest index
    // wins. Null entries are ignored. Every event must come from OS()->createThreadEvent.
    static int waitForAny(const Zn::Ptr<iThreadEvent>* events, size_t count,
                          unsigned timeoutMs = kInfinite);
    static int waitForAny(std::initializer_list<Zn::Ptr<iThreadEvent>> events,
                          unsigned timeoutMs = kInfinite) {
        return waitForAny(events.begin(), events.size(), timeoutMs);
    }
    static int waitForAny(const std::vector<Zn::Ptr<iThreadEvent>>& events,
                          unsigned timeoutMs = kInfinite) {
        return waitForAny(events.data(), events.size(), timeoutMs);
    }

private:
    // Sealed: waitForAny relies on every event being a ThreadEvent.
    friend class ThreadEvent;
    iThreadEvent() = default;
};

// The event is one 32-bit word that waiters sleep on with a futex: bit 0 is "set", bits
// 1-14 count the threads inside wait() (at most 16383 at once), so that set() makes a
// system call only when somebody may sleep, bit 15 says that waitForAny callers are linked (below),
// and bits 16-31 count the sets of a manual-reset event, so that a waiter notices a set even if a
// reset followed before it woke. Everything set() needs to know comes back from the one
// atomic step that sets the bit, so set() reads nothing of the event afterwards: the
// thread it releases may destroy the event at once (as with a completion event).
//
// waitForAny cannot sleep on several words, so each caller links a Sleeper into the list
// of every event it waits for; set() bumps and wakes the linked Sleepers.
// linksMutex_ guards links_ and linkCount_ (the list, and the Sleepers reached through it
// while they are linked). It is taken only by set() and waitForAny, with no other lock
// held, and no other lock is taken under it.
class ThreadEvent final : public iThreadEvent {
public:
    ThreadEvent(bool manualReset, bool initialState) noexcept;
    ~ThreadEvent() override;

    void set() noexcept override;
    void reset() noexcept override;
    bool wait(unsigned timeoutMs = kInfinite) noexcept override;
    bool isManualReset() const noexcept override { return manual_; }

private:
    friend class iThreadEvent;

    static constexpr uint32_t kSet = 1u;
    static constexpr uint32_t kWaiter = 2u;
    static constexpr uint32_t kWaiterMask = 0x7FFEu;
    static constexpr uint32_t kLinked = 0x8000u;
    static constexpr uint32_t kSetCount = 0x10000u;

    struct Sleeper {
        std::atomic<uint32_t> wakes{0};
    };
    struct Link {
        Sleeper* sleeper = nullptr;
        Link* prev = nullptr;
        Link* next = nullptr;
        uint32_t setsAtLink = 0; // manual-reset only: the set count when linked
    };

    static uint32_t setsOf(uint32_t word) noexcept { return word >> 16; }
    bool waitAuto(unsigned timeoutMs) noexcept;
    bool waitManual(unsigned timeoutMs) noexcept;
    // waitForAny's test: consumes the signal of an auto-reset event; a manual-reset one
    // counts as signalled if set now or set since the link was made.
    bool take(const Link& link) noexcept;
    void link(Link& l) noexcept;
    void unlink(Link& l) noexcept;
    void wakeLinked() noexcept;

    std::atomic<uint32_t> word_;
    const bool manual_;
    PlainMutex linksMutex_;
    Link* links_ GUARDED_BY(linksMutex_) = nullptr;
    int linkCount_ GUARDED_BY(linksMutex_) = 0;
};
