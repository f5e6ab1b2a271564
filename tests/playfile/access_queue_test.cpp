// The generic queues the cache and the pre-opener are built on: turns per key in arrival
// order, the error for a key nobody holds, independence of keys; items spread over
// several workers, and what happens to items when the queue ends.
#include "FrameFileReader.h"

#include "host/core/Exception.h"
#include "ole/Zn/ZnDecouplingQueue.h"
#include "ole/Zn/ZnMultipleAccessQueue.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

TEST(MultipleAccessQueue, WaitersGetTheKeyInArrivalOrderAndTheKeyGoesWithTheLast) {
    Zn::MultipleAccessQueue<WString> queue;
    const WString key(L"/media/a.mov");
    queue.beginAccess(key);
    std::mutex m;
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            queue.beginAccess(key);
            {
                std::lock_guard<std::mutex> l(m);
                order.push_back(i);
            }
            queue.endAccess(key);
        });
        while (queue.waitingFor(key) != size_t(i + 1)) std::this_thread::yield(); // arrived in turn
    }
    queue.endAccess(key);
    for (auto& t : threads) t.join();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_FALSE(queue.isAccessed(key));
}

TEST(MultipleAccessQueue, EndingAKeyNobodyHoldsThrowsAndOtherKeysStayHeldAndIndependent) {
    Zn::MultipleAccessQueue<WString> queue;
    queue.beginAccess(L"held");
    try {
        queue.endAccess(L"other");
        FAIL() << "no exception";
    } catch (const Zn::Exception::RuntimeError& e) {
        EXPECT_STREQ(e.what(), "Uncontrolled object passed to endAccess");
        EXPECT_EQ(e.file(), "ole/Zn/ZnMultipleAccessQueue");
        EXPECT_FALSE(e.callStack().empty());
    }
    EXPECT_TRUE(queue.isAccessed(L"held"));
    auto other = std::async(std::launch::async, [&] {
        queue.beginAccess(L"other");
        queue.endAccess(L"other");
    });
    EXPECT_EQ(other.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    queue.endAccess(L"held");
}

namespace {

struct Item : iObject {};

struct Collector : DecouplingQueue<Item>::Decoupler {
    ~Collector() override { endQueue(); }
    void despatch(Zn::Ptr<Item>&) override {
        gate.pass();
        ++despatched;
    }
    void abandon(Zn::Ptr<Item>&) override { ++abandoned; }
    test_backend::Gate gate;
    std::atomic<int> despatched{0}, abandoned{0};
};

} // namespace

TEST(DecouplingQueue, ItemsRunOnEveryWorkerAtOnceAndThoseLeftWhenItEndsAreAbandoned) {
    Collector c;
    ASSERT_TRUE(c.init(2, kPriorityNormal, Collector::kKeepProcessPriority, 0, 900, iThreadEvent::kInfinite));
    EXPECT_EQ(c.getQueue()->workerCount(), 2u);
    c.gate.close();
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(c.getQueue()->push(Zn::makePtr<Item>()));
    ASSERT_TRUE(c.gate.waitForWaiters(2)); // both workers busy at the same moment
    std::thread ender([&] { c.endQueue(); });
    while (c.getQueue()->isRunning()) std::this_thread::yield();
    c.gate.open();
    ender.join();
    EXPECT_EQ(c.despatched.load(), 2);
    EXPECT_EQ(c.abandoned.load(), 3);
    EXPECT_FALSE(c.getQueue()->push(Zn::makePtr<Item>()));
}
