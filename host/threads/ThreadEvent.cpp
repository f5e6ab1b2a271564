// The futex-based thread event, waiting on several events, and OS()->createThreadEvent.
#include "host/threads/ThreadEvent.h"

#include "host/os/OS.h"
#include "host/threads/Futex.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cassert>
#include <memory>

ThreadEvent::ThreadEvent(bool manualReset, bool initialState) noexcept
    : word_(initialState ? kSet : 0u), manual_(manualReset) {}

ThreadEvent::~ThreadEvent() {
    assert(links_ == nullptr && "an event was destroyed during waitForAny");
}

void ThreadEvent::set() noexcept {
    const bool manual = manual_; // read before the event may be gone
    uint32_t v = word_.load(std::memory_order_relaxed);
    do {
        if (v & kSet) return; // already set: every waiter has been or will be woken
    } while (!word_.compare_exchange_weak(v, manual ? (v | kSet) + kSetCount : v | kSet,
                                          std::memory_order_seq_cst, std::memory_order_relaxed));
    if (v & kWaiterMask) {
        if (manual)
            futex::wakeAll(word_);
        else
            futex::wakeOne(word_);
    }
    // link() marks the word before waitForAny looks at the event, so either that look
    // sees the set bit or this sees the mark.
    if (v & kLinked) wakeLinked();
}

void ThreadEvent::reset() noexcept {
    word_.fetch_and(~kSet, std::memory_order_seq_cst);
}

bool ThreadEvent::wait(unsigned timeoutMs) noexcept {
    return manual_ ? waitManual(timeoutMs) : waitAuto(timeoutMs);
}

bool ThreadEvent::waitAuto(unsigned timeoutMs) noexcept {
    // Consuming the set bit and leaving the waiter count are one atomic step, so a set
    // is taken by exactly one thread and a waiter never leaves with a signal unseen.
    uint32_t v = word_.load(std::memory_order_relaxed);
    for (;;) {
        if (v & kSet) {
            if (word_.compare_exchange_weak(v, v & ~kSet, std::memory_order_acquire,
                                            std::memory_order_relaxed))
                return true;
        } else if (timeoutMs == 0) {
            return false;
        } else if (word_.compare_exchange_weak(v, v + kWaiter, std::memory_order_relaxed,
                                               std::memory_order_relaxed)) {
            break;
        }
    }

    timespec deadline{};
    const timespec* until = nullptr;
    if (timeoutMs != kInfinite) {
        deadline = futex::deadlineAfter(timeoutMs);
        until = &deadline;
    }
    bool timedOut = false;
    v += kWaiter;
    for (;;) {
        if (v & kSet) {
            if (word_.compare_exchange_weak(v, (v - kWaiter) & ~kSet, std::memory_order_acquire,
                                            std::memory_order_relaxed))
                return true;
        } else if (timedOut) {
            if (word_.compare_exchange_weak(v, v - kWaiter, std::memory_order_relaxed,
                                            std::memory_order_relaxed))
                return false;
        } else {
            timedOut = !futex::waitUntil(word_, v, until);
            v = word_.load(std::memory_order_relaxed);
        }
    }
}

bool ThreadEvent::waitManual(unsigned timeoutMs) noexcept {
    uint32_t v = word_.load(std::memory_order_acquire);
    for (;;) {
        if (v & kSet) return true;
        if (timeoutMs == 0) return false;
        if (word_.compare_exchange_weak(v, v + kWaiter, std::memory_order_relaxed,
                                        std::memory_order_relaxed))
            break;
    }
    const uint32_t sets = setsOf(v);

    timespec deadline{};
    const timespec* until = nullptr;
    if (timeoutMs != kInfinite) {
        deadline = futex::deadlineAfter(timeoutMs);
        until = &deadline;
    }
    v += kWaiter;
    for (;;) {
        if ((v & kSet) || setsOf(v) != sets) break;
        if (!futex::waitUntil(word_, v, until)) break;
        v = word_.load(std::memory_order_relaxed);
    }
    // Leaving and the final look are one step: a set landing on the deadline still counts.
    v = word_.fetch_sub(kWaiter, std::memory_order_acquire);
    return (v & kSet) || setsOf(v) != sets;
}

bool ThreadEvent::take(const Link& l) noexcept {
    uint32_t v = word_.load(std::memory_order_seq_cst);
    if (manual_) return (v & kSet) || setsOf(v) != l.setsAtLink;
    while (v & kSet) {
        if (word_.compare_exchange_weak(v, v & ~kSet, std::memory_order_acquire,
                                        std::memory_order_relaxed))
            return true;
    }
    return false;
}

void ThreadEvent::link(Link& l) noexcept {
    PlainMutex::Lock lock(linksMutex_);
    l.prev = nullptr;
    l.next = links_;
    if (links_) links_->prev = &l;
    links_ = &l;
    uint32_t v = linkCount_++ == 0 ? word_.fetch_or(kLinked, std::memory_order_seq_cst)
                                   : word_.load(std::memory_order_seq_cst);
    l.setsAtLink = setsOf(v);
}

void ThreadEvent::unlink(Link& l) noexcept {
    PlainMutex::Lock lock(linksMutex_);
    if (l.prev)
        l.prev->next = l.next;
    else
        links_ = l.next;
    if (l.next) l.next->prev = l.prev;
    if (--linkCount_ == 0) word_.fetch_and(~kLinked, std::memory_order_relaxed);
}

void ThreadEvent::wakeLinked() noexcept {
    // The wake counts change under the lock, but the futex calls come after it: a woken
    // waitForAny unlinks straight away and would otherwise block on this lock. Waking an
    // address whose sleeper has meanwhile gone is harmless: futex waiters re-check their
    // word, so at worst a later sleeper on the same stack address wakes once for nothing.
    constexpr size_t kBatch = 8;
    std::atomic<uint32_t>* words[kBatch];
    size_t n = 0;
    {
        PlainMutex::Lock lock(linksMutex_);
        for (Link* l = links_; l; l = l->next) {
            l->sleeper->wakes.fetch_add(1, std::memory_order_seq_cst);
            if (n < kBatch) words[n++] = &l->sleeper->wakes;
            else futex::wakeOne(l->sleeper->wakes);
        }
    }
    for (size_t i = 0; i < n; ++i) futex::wakeOne(*words[i]);
}

int iThreadEvent::waitForAny(const Zn::Ptr<iThreadEvent>* events, size_t count,
                             unsigned timeoutMs) {
    auto eventAt = [&](size_t i) { return static_cast<ThreadEvent*>(events[i].get()); };
    ThreadEvent::Link probe; // for a manual-reset event's first look: only "set now" counts
    probe.setsAtLink = 0;
    for (size_t i = 0; i < count; ++i) {
        ThreadEvent* e = eventAt(i);
        if (!e) continue;
        probe.setsAtLink = ThreadEvent::setsOf(e->word_.load(std::memory_order_relaxed));
        if (e->take(probe)) return int(i);
    }
    const bool anyEvent =
        std::any_of(events, events + count, [](const Zn::Ptr<iThreadEvent>& e) { return bool(e); });
    if (timeoutMs == 0 || !anyEvent) return -1;

    ThreadEvent::Sleeper sleeper;
    constexpr size_t kInline = 8;
    ThreadEvent::Link inlineLinks[kInline];
    std::unique_ptr<ThreadEvent::Link[]> heapLinks;
    ThreadEvent::Link* links = inlineLinks;
    if (count > kInline) {
        heapLinks.reset(new ThreadEvent::Link[count]);
        links = heapLinks.get();
    }
    for (size_t i = 0; i < count; ++i) {
        if (ThreadEvent* e = eventAt(i)) {
            links[i].sleeper = &sleeper;
            e->link(links[i]);
        }
    }

    timespec deadline{};
    const timespec* until = nullptr;
    if (timeoutMs != kInfinite) {
        deadline = futex::deadlineAfter(timeoutMs);
        until = &deadline;
    }
    int found = -1;
    bool timedOut = false;
    for (;;) {
        // Read the wake count before looking, so a set after the look makes the sleep
        // below return at once.
        const uint32_t wakes = sleeper.wakes.load(std::memory_order_seq_cst);
        for (size_t i = 0; i < count && found < 0; ++i) {
            ThreadEvent* e = eventAt(i);
            if (e && e->take(links[i])) found = int(i);
        }
        if (found >= 0 || timedOut) break;
        timedOut = !futex::waitUntil(sleeper.wakes, wakes, until);
    }

    for (size_t i = 0; i < count; ++i) {
        if (ThreadEvent* e = eventAt(i)) e->unlink(links[i]);
    }
    return found;
}

Zn::Ptr<iThreadEvent> OSServices::createThreadEvent(bool manualReset, bool initialState) const {
    return Zn::Ptr<iThreadEvent>(new ThreadEvent(manualReset, initialState));
}
