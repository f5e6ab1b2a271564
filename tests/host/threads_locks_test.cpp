// Critical sections and mutexes: re-entrancy, exclusion between threads, the guards'
// temporary release, and the plain mutex's condition-variable waits.
#include "host/os/OS.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/Mutex.h"
#include "host/threads/PlainMutex.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <thread>

namespace {

// Whether another thread could take the lock right now.
template <class Lockable> bool freeElsewhere(Lockable& l) {
    bool got = false;
    std::thread([&] {
        if ((got = l.tryEnter())) l.leave();
    }).join();
    return got;
}

// iMutex spelt like the others, to share the checks.
struct MutexAsSection {
    iMutex& m;
    bool tryEnter() { return m.tryLock(); }
    void leave() { m.unlock(); }
};

// PlainMutex spelt like the others too.
struct PlainAsSection {
    PlainMutex& m;
    bool tryEnter() { return m.try_lock(); }
    void leave() { m.unlock(); }
};

} // namespace

TEST(CriticalSection, IsReentrantAndFreeOnlyAfterTheLastLeaveOrAGuardsUnlock) {
    CriticalSection cs;
    cs.enter();
    EXPECT_TRUE(cs.tryEnter());
    {
        CriticalSection::Lock lock(cs);
        EXPECT_FALSE(freeElsewhere(cs));
    }
    cs.leave();
    EXPECT_FALSE(freeElsewhere(cs));
    cs.leave();
    EXPECT_TRUE(freeElsewhere(cs));
    {
        CriticalSection::Lock lock(cs);
        lock.unlock();
        EXPECT_TRUE(freeElsewhere(cs));
        lock.relock();
        EXPECT_FALSE(freeElsewhere(cs));
        lock.unlock();
    } // the guard must not leave a second time
    EXPECT_TRUE(freeElsewhere(cs));
}

TEST(CriticalSection, SerialisesIncrementsFromManyThreads) {
    CriticalSection cs;
    long counter = 0;
    testing_support::inThreads(4, [&](int) {
        for (int i = 0; i < 20000; ++i) {
            CriticalSection::Lock lock(cs);
            CriticalSection::Lock nested(cs);
            counter = counter + 1;
        }
    });
    EXPECT_EQ(counter, 80000);
}

TEST(OSLocks, MutexAndCriticalSectionObjectsAreReentrantAndExclusive) {
    Zn::Ptr<iMutex> m = OS()->createMutex("cache");
    Zn::Ptr<iCriticalSection> cs = OS()->createCriticalSection();
    MutexAsSection section{*m};
    {
        iMutex::Lock lock(*m);
        iMutex::Lock again(*m);
        iCriticalSection::Lock held(*cs);
        iCriticalSection::Lock heldAgain(*cs);
        lock.unlock();
        EXPECT_FALSE(freeElsewhere(section));
        EXPECT_FALSE(freeElsewhere(*cs));
    }
    EXPECT_TRUE(freeElsewhere(section));
    EXPECT_TRUE(freeElsewhere(*cs));
}

TEST(PlainMutex, GuardsExcludeOtherThreadsAndReleaseOnlyWhatTheyHold) {
    PlainMutex m;
    PlainAsSection section{m};
    {
        PlainMutex::Lock lock(m);
        EXPECT_FALSE(freeElsewhere(section));
        lock.unlock();
        EXPECT_TRUE(freeElsewhere(section));
        lock.relock();
        EXPECT_FALSE(freeElsewhere(section));
    }
    EXPECT_TRUE(freeElsewhere(section));
    {
        PlainMutex::UniqueLock lock(m);
        EXPECT_FALSE(freeElsewhere(section));
        lock.unlock();
        EXPECT_TRUE(freeElsewhere(section));
        lock.relock();
        EXPECT_FALSE(freeElsewhere(section));
        lock.unlock();
    } // released once, by unlock
    EXPECT_TRUE(freeElsewhere(section));
}

TEST(PlainMutex, AWaitReleasesTheMutexAndReturnsHoldingIt) {
    PlainMutex m;
    PlainAsSection section{m};
    std::condition_variable changed;
    bool ready = false;
    bool heldAfterWait = false;
    std::thread waiter([&] {
        PlainMutex::UniqueLock lock(m);
        while (!ready)
            changed.wait(lock.native());
        heldAfterWait = !freeElsewhere(section);
    });
    // The setter takes the mutex before the waiter does, or while it sleeps in its wait.
    {
        PlainMutex::Lock lock(m);
        ready = true;
    }
    changed.notify_all();
    waiter.join();
    EXPECT_TRUE(heldAfterWait);
    EXPECT_TRUE(freeElsewhere(section));
}
