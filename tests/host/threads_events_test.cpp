// Thread events: signals are never lost, auto-reset events release one waiter per set,
// manual-reset ones release all, timeouts end on time, and waitForAny consumes only the
// event it reports.
#include "host/os/OS.h"
#include "host/threads/ThreadEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <pthread.h>
#include <sched.h>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

Zn::Ptr<iThreadEvent> autoEvent(bool set = false) {
    return OS()->createThreadEvent(false, set);
}
Zn::Ptr<iThreadEvent> manualEvent(bool set = false) {
    return OS()->createThreadEvent(true, set);
}

// Polls until pred holds or two seconds pass.
template <class P> bool eventually(P pred) {
    for (auto end = Clock::now() + std::chrono::seconds(2); Clock::now() < end;
         std::this_thread::sleep_for(milliseconds(1)))
        if (pred()) return true;
    return pred();
}

// Keeps the test's thread, and the threads that call idleHere(), on one CPU, those threads
// under SCHED_IDLE. A thread the test's thread wakes then runs only once the test's thread
// blocks, so that several changes in a row reach a sleeper together. Both calls are
// allowed unprivileged; where they fail the tests still hold, they only lose precision.
class OneCpu {
public:
    OneCpu() {
        pthread_getaffinity_np(pthread_self(), sizeof(saved_), &saved_);
        while (cpu_ < CPU_SETSIZE - 1 && !CPU_ISSET(cpu_, &saved_))
            ++cpu_;
        pin();
    }
    ~OneCpu() { pthread_setaffinity_np(pthread_self(), sizeof(saved_), &saved_); }
    void idleHere() const {
        pin();
        sched_param none{};
        pthread_setschedparam(pthread_self(), SCHED_IDLE, &none);
    }

private:
    void pin() const {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu_, &one);
        pthread_setaffinity_np(pthread_self(), sizeof(one), &one);
    }
    cpu_set_t saved_{};
    int cpu_ = 0;
};

long long elapsedMs(Clock::time_point since) {
    return std::chrono::duration_cast<milliseconds>(Clock::now() - since).count();
}

} // namespace

TEST(ThreadEvent, AutoResetKeepsASetUntilOneWaitTakesIt) {
    auto e = autoEvent();
    EXPECT_FALSE(e->wait(0));
    e->set();
    e->set(); // coalesces with the first
    EXPECT_TRUE(e->wait(0));
    EXPECT_FALSE(e->wait(0));
    EXPECT_TRUE(autoEvent(true)->wait(0));
    e->set();
    e->reset();
    EXPECT_FALSE(e->wait(0));
}

TEST(ThreadEvent, AutoResetReleasesExactlyOneWaiterPerSet) {
    auto e = autoEvent();
    constexpr int kWaiters = 4;
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i)
        waiters.emplace_back([&] {
            EXPECT_TRUE(e->wait(10000));
            released++;
        });
    std::this_thread::sleep_for(milliseconds(20)); // let them block
    for (int i = 1; i <= kWaiters; ++i) {
        e->set();
        ASSERT_TRUE(eventually([&] { return released == i; }));
        std::this_thread::sleep_for(milliseconds(10)); // a second release would show by now
        EXPECT_EQ(released, i);
    }
    for (auto& t : waiters)
        t.join();
    EXPECT_FALSE(e->wait(0));
}

TEST(ThreadEvent, ManualResetReleasesEveryWaiterEvenWhenResetAtOnce) {
    OneCpu cpu; // the reset comes before any waiter runs again
    for (bool resetAtOnce : {false, true}) {
        auto e = manualEvent();
        std::atomic<int> blocked{0}, released{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i)
            waiters.emplace_back([&] {
                cpu.idleHere();
                blocked++;
                if (e->wait(5000)) released++;
            });
        ASSERT_TRUE(eventually([&] { return blocked == 4; }));
        std::this_thread::sleep_for(milliseconds(20));
        e->set();
        if (resetAtOnce) e->reset();
        for (auto& t : waiters)
            t.join();
        EXPECT_EQ(released, 4);
        EXPECT_EQ(e->wait(0), !resetAtOnce);
        EXPECT_EQ(e->wait(0), !resetAtOnce); // waits do not consume it
    }
}

TEST(ThreadEvent, TimedWaitsEndOnTime) {
    auto a = autoEvent(), m = manualEvent();
    auto expectTimeout = [](long long ms, auto timedOut) {
        auto start = Clock::now();
        EXPECT_TRUE(timedOut());
        EXPECT_GE(elapsedMs(start), ms);
        EXPECT_LT(elapsedMs(start), ms ? ms + 200 : 20);
    };
    expectTimeout(50, [&] { return !a->wait(50); });
    expectTimeout(50, [&] { return !m->wait(50); });
    expectTimeout(50, [&] { return iThreadEvent::waitForAny({a, m}, 50) == -1; });
    expectTimeout(0, [&] { return !a->wait(0) && iThreadEvent::waitForAny({a, m}, 0) == -1; });
}

// A set racing with the end of a timed wait is either taken by that wait or still there.
TEST(ThreadEvent, ASetAtTheDeadlineIsNeverLost) {
    auto e = autoEvent();
    for (int i = 0; i < 300; ++i) {
        std::thread setter([&] {
            std::this_thread::sleep_for(std::chrono::microseconds(900 + 20 * (i % 10)));
            e->set();
        });
        bool taken = e->wait(1);
        setter.join();
        ASSERT_NE(taken, e->wait(0)) << "round " << i;
    }
}

TEST(ThreadEvent, WaitForAnyReportsAndConsumesOnlyTheEventThatFired) {
    auto a = autoEvent(), b = autoEvent(), c = autoEvent(), m = manualEvent();
    b->set();
    c->set();
    EXPECT_EQ(iThreadEvent::waitForAny({a, b, c}, 0), 1);
    EXPECT_FALSE(b->wait(0));
    EXPECT_TRUE(c->wait(0));

    { // Two sets reaching one sleeping waitForAny: it takes one and leaves the other.
        OneCpu cpu;
        std::atomic<bool> blocked{false};
        int fired = -1;
        std::thread sleeper([&] {
            cpu.idleHere();
            blocked = true;
            fired = iThreadEvent::waitForAny({a, b, c}, 5000);
        });
        ASSERT_TRUE(eventually([&] { return bool(blocked); }));
        std::this_thread::sleep_for(milliseconds(20));
        c->set();
        b->set();
        sleeper.join();
        ASSERT_TRUE(fired == 1 || fired == 2);
        EXPECT_FALSE((fired == 1 ? b : c)->wait(0));
        EXPECT_TRUE((fired == 1 ? c : b)->wait(0));
    }

    m->set();
    std::vector<Zn::Ptr<iThreadEvent>> list{a, m};
    EXPECT_EQ(iThreadEvent::waitForAny(list, 0), 1);
    EXPECT_TRUE(m->wait(0));                            // manual-reset: not consumed
    EXPECT_EQ(iThreadEvent::waitForAny({nullptr}), -1); // nothing to wait for: no hang

    // A blocking wait on more events than waitForAny keeps on its stack, one of them absent.
    std::vector<Zn::Ptr<iThreadEvent>> many;
    for (int i = 0; i < 20; ++i)
        many.push_back(i == 3 ? nullptr : autoEvent());
    std::thread late([&] {
        std::this_thread::sleep_for(milliseconds(10));
        many[17]->set();
    });
    EXPECT_EQ(iThreadEvent::waitForAny(many, 5000), 17);
    late.join();
    EXPECT_FALSE(many[17]->wait(0));
}

// Consumers on wait() and on waitForAny compete for one event; every set must be taken
// exactly once (the producer waits for the acknowledgement before setting again).
TEST(ThreadEvent, MixedWaitersTakeEachSetExactlyOnce) {
    auto work = autoEvent(), other = autoEvent(), ack = autoEvent(), stop = manualEvent();
    std::atomic<int> taken{0};
    auto consume = [&](bool any) {
        for (;;) {
            int fired =
                any ? iThreadEvent::waitForAny({stop, other, work}) : (work->wait(20) ? 2 : -1);
            if (fired == 2) {
                taken++;
                ack->set();
            }
            if (fired == 0 || stop->wait(0)) return;
        }
    };
    std::vector<std::thread> consumers;
    consumers.emplace_back(consume, true);
    consumers.emplace_back(consume, true);
    consumers.emplace_back(consume, false);
    const int rounds = 4000;
    for (int i = 0; i < rounds; ++i) {
        work->set();
        ASSERT_TRUE(ack->wait(5000)) << "round " << i;
    }
    stop->set();
    for (auto& t : consumers)
        t.join();
    EXPECT_EQ(taken, rounds);
}

TEST(ThreadEvent, PairsPingPongManyThousandTimesWithoutHanging) {
    constexpr int kPairs = 3;
    const int rounds = 20000;
    std::vector<std::thread> threads;
    std::atomic<int> completed{0};
    for (int p = 0; p < kPairs; ++p) {
        auto ping = autoEvent(), pong = autoEvent();
        threads.emplace_back([=, &completed] {
            for (int i = 0; i < rounds; ++i) {
                ping->set();
                if (!pong->wait(10000)) return;
            }
            completed++;
        });
        threads.emplace_back([=] {
            for (int i = 0; i < rounds; ++i) {
                if (!ping->wait(10000)) return;
                pong->set();
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(completed, kPairs);
}
