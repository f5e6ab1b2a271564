// Host threads: endThread waits for threadFn, may be called at any time from anywhere, and
// the thread gets its name and priority.
#include "host/threads/BasicThread.h"

#include "host/os/OS.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

// Runs a test-provided body; the destructor ends the thread as every derived class must.
class TestThread : public BasicThread {
public:
    explicit TestThread(std::function<void(TestThread&)> body) : body_(std::move(body)) {}
    ~TestThread() override { endThread(); }
    std::atomic<int> runs{0};

protected:
    void threadFn() override {
        runs++;
        body_(*this);
    }

private:
    std::function<void(TestThread&)> body_;
};

std::string threadName(pid_t tid) {
    std::ifstream comm("/proc/self/task/" + std::to_string(tid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

} // namespace

TEST(BasicThread, EndThreadReturnsOnlyAfterThreadFnHasReturnedForEveryCaller) {
    std::atomic<bool> finished{false};
    Zn::Ptr<TestThread> t(new TestThread([&](TestThread& self) {
        EXPECT_EQ(BasicThread::current(), &self);
        while (self.keepRunning())
            self.stopEvent()->wait(1000);
        std::this_thread::sleep_for(milliseconds(30));
        finished = true;
    }));
    t->endThread(); // never begun: nothing to do
    ASSERT_TRUE(t->beginThread("endthread"));
    EXPECT_FALSE(t->beginThread("again")); // already running
    std::atomic<int> sawUnfinished{0};
    testing_support::inThreads(3, [&](int) { // concurrent callers all wait for the end
        t->endThread();
        if (!finished) sawUnfinished++;
    });
    EXPECT_EQ(sawUnfinished, 0);
    EXPECT_FALSE(t->isRunning());
    t->endThread(); // twice
    EXPECT_EQ(BasicThread::current(), nullptr);

    // A thread can be begun again after endThread; the stop event is cleared.
    finished = false;
    ASSERT_TRUE(t->beginThread("second"));
    EXPECT_FALSE(t->stopEvent()->wait(0));
    t->endThread();
    EXPECT_TRUE(finished);
    EXPECT_EQ(t->runs, 2);
}

TEST(BasicThread, EndThreadOnTheThreadItselfOnlyAsksToStop) {
    auto done = OS()->createThreadEvent(true, false);
    Zn::Ptr<TestThread> t(new TestThread([&](TestThread& self) {
        self.endThread(); // must neither deadlock nor crash
        EXPECT_FALSE(self.keepRunning());
        done->set();
    }));
    ASSERT_TRUE(t->beginThread("selfend"));
    ASSERT_TRUE(done->wait(5000));
    t->endThread();
    EXPECT_FALSE(t->isRunning());

    // A threadFn that returns by itself (here by throwing) leaves the thread reapable.
    Zn::Ptr<TestThread> thrower(
        new TestThread([](TestThread&) { throw std::runtime_error("expected in test"); }));
    ASSERT_TRUE(thrower->beginThread("thrower"));
    thrower->endThread();
    EXPECT_FALSE(thrower->isRunning());
    EXPECT_TRUE(thrower->beginThread("thrower")); // reaped and begun again
}

TEST(BasicThread, NamesAndPrioritiesReachTheSystem) {
    Zn::Ptr<TestThread> t(new TestThread([](TestThread& self) { self.stopEvent()->wait(); }));
    const int base = getpriority(PRIO_PROCESS, id_t(getpid()));
    auto niceOf = [&] { return getpriority(PRIO_PROCESS, id_t(t->threadId())); };

    ASSERT_TRUE(t->beginThread("a-rather-long-thread-name", kPriorityLow));
    EXPECT_EQ(threadName(t->threadId()), "a-rather-long-t");
    EXPECT_EQ(niceOf(), std::min(base + 10, 19));
    t->endThread();

    ASSERT_TRUE(t->beginThread("normal", kPriorityHighest));
    EXPECT_EQ(threadName(t->threadId()), "normal");
    EXPECT_EQ(niceOf(), base);
    EXPECT_TRUE(t->setPriority(kPriorityIdle));
    EXPECT_EQ(niceOf(), std::min(base + 15, 19));
    t->endThread();
    EXPECT_FALSE(t->setPriority(kPriorityIdle)); // not running
}

TEST(iThread, RunsAFunctionAndEndsWhenReleased) {
    std::atomic<bool> stopped{false};
    Zn::Ptr<iThread> t = iThread::create(
        [&] {
            BasicThread* self = BasicThread::current();
            while (self->keepRunning())
                self->stopEvent()->wait(1000);
            stopped = true;
        },
        "worker", kPriorityBelowNormal);
    ASSERT_TRUE(t && t->isRunning());
    t.reset(); // the last reference: stops and joins
    EXPECT_TRUE(stopped);
}

TEST(iThread, TheLastReferenceMayGoOnTheThreadItself) {
    auto done = OS()->createThreadEvent(true, false);
    auto go = OS()->createThreadEvent(true, false);
    Zn::Ptr<iThread> holder;
    holder = iThread::create(
        [&holder, go, done] {
            iThreadEvent* finished = done.get(); // the captures die with the thread object
            go->wait();
            holder.reset();
            finished->set();
        },
        "selfrelease");
    ASSERT_TRUE(holder);
    go->set();
    EXPECT_TRUE(done->wait(5000));
    EXPECT_FALSE(holder);
}
