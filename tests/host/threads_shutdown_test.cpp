// The shutdown sequence: level order, once only, and callbacks that change the sequence
// while it runs.
#include "host/threads/Shutdown.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

namespace {

class Call final : public Shutdown::iCallback {
public:
    explicit Call(std::function<void(Shutdown::eExitType)> fn) : fn_(std::move(fn)) {}
    void shutdown(Shutdown::eExitType type) override { fn_(type); }

private:
    std::function<void(Shutdown::eExitType)> fn_;
};

Zn::Ptr<Shutdown::iCallback> call(std::function<void(Shutdown::eExitType)> fn) {
    return Zn::Ptr<Shutdown::iCallback>(new Call(std::move(fn)));
}

// Registered by a static initialiser in the process's sequence.
std::atomic<int> g_staticCalls{0};
Shutdown::eExitType g_staticType = Shutdown::eNormalExit;
const Shutdown::Handle g_staticHandle = Shutdown::addCallback(call([](Shutdown::eExitType type) {
                                                                  g_staticType = type;
                                                                  g_staticCalls++;
                                                              }),
                                                              Shutdown::kLevelLate);

struct Service {
    std::vector<Shutdown::eExitType> seen;
    void onShutdown(Shutdown::eExitType type) { seen.push_back(type); }
};

} // namespace

TEST(Shutdown, CallsByAscendingLevelAndLatestFirstWithinALevel) {
    Shutdown::Sequence seq;
    std::string order;
    auto note = [&](char c) { return call([&order, c](Shutdown::eExitType) { order += c; }); };
    seq.addCallback(note('c'), 500);
    seq.addCallback(note('b'), 100);
    seq.addCallback(note('d'), 900);
    seq.addCallback(note('a'), 100);
    Shutdown::Handle gone = seq.addCallback(note('x'), 200);
    EXPECT_TRUE(seq.removeCallback(gone));
    EXPECT_FALSE(seq.removeCallback(gone));
    seq.run(Shutdown::eNormalExit);
    EXPECT_EQ(order, "abcd");
    seq.run(Shutdown::eNormalExit);
    EXPECT_EQ(order, "abcd"); // once only
    EXPECT_EQ(seq.addCallback(note('z'), 1), 0u);
    EXPECT_EQ(seq.pendingCount(), 0u);
}

TEST(Shutdown, CallbacksMayAddAndRemoveCallbacksWhileItRuns) {
    Shutdown::Sequence seq;
    std::string order;
    Shutdown::Handle doomed =
        seq.addCallback(call([&](Shutdown::eExitType) { order += 'x'; }), 300);
    seq.addCallback(
        call([&](Shutdown::eExitType) { throw std::runtime_error("expected in test"); }), 150);
    seq.addCallback(call([&](Shutdown::eExitType) {
                        order += 'a';
                        seq.removeCallback(doomed);
                        seq.addCallback(call([&](Shutdown::eExitType) { order += 'c'; }), 400);
                        seq.addCallback(call([&](Shutdown::eExitType) { order += 'b'; }), 50);
                    }),
                    100);
    seq.run(Shutdown::eFastExit);
    EXPECT_EQ(order, "abc");
}

TEST(Shutdown, ConcurrentRegistrationAndRunsCallEachCallbackOnce) {
    Shutdown::Sequence seq;
    std::atomic<int> calls{0};
    testing_support::inThreads(8, [&](int t) {
        for (int i = 0; i < 100; ++i)
            seq.addCallback(call([&](Shutdown::eExitType) { calls++; }), unsigned(t));
    });
    testing_support::inThreads(4, [&](int) { seq.run(Shutdown::eNormalExit); });
    EXPECT_EQ(calls, 800);
}

TEST(Shutdown, TheProcessSequenceTakesStaticRegistrationsAndMethods) {
    if (Shutdown::hasRun()) GTEST_SKIP() << "the process sequence runs once per process";
    ASSERT_NE(g_staticHandle, 0u);
    Service service;
    Shutdown::addCallback(&service, &Service::onShutdown, Shutdown::kLevelEarly);
    Shutdown::Handle removed =
        Shutdown::addCallback(&service, &Service::onShutdown, Shutdown::kLevelNormal);
    EXPECT_TRUE(Shutdown::removeCallback(removed));
    Shutdown::run(Shutdown::eFastExit);
    EXPECT_TRUE(Shutdown::hasRun());
    EXPECT_EQ(service.seen, std::vector<Shutdown::eExitType>{Shutdown::eFastExit});
    EXPECT_EQ(g_staticCalls, 1);
    EXPECT_EQ(g_staticType, Shutdown::eFastExit);
}
