// Critical sections and mutexes: re-entrancy, exclusion between threads, and the guards'
// temporary release.
#include "host/os/OS.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/Mutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

template <class F> bool onOtherThread(F f) {
    bool r = false;
    std::thread([&] { r = f(); }).join();
    return r;
}

} // namespace

TEST(CriticalSection, IsReentrantAndExcludesOtherThreadsUntilTheLastLeave) {
    CriticalSection cs;
    cs.enter();
    EXPECT_TRUE(cs.tryEnter());
    {
        CriticalSection::Lock again(cs);
        EXPECT_FALSE(onOtherThread([&] { return cs.tryEnter(); }));
    }
    cs.leave();
    EXPECT_FALSE(onOtherThread([&] { return cs.tryEnter(); }));
    cs.leave();
    EXPECT_TRUE(onOtherThread([&] {
        bool got = cs.tryEnter();
        if (got) cs.leave();
        return got;
    }));
}

TEST(CriticalSection, GuardReleasesForAWhileAndTakesItBack) {
    CriticalSection cs;
    auto freeElsewhere = [&] {
        return onOtherThread([&] {
            bool got = cs.tryEnter();
            if (got) cs.leave();
            return got;
        });
    };
    {
        CriticalSection::Lock lock(cs);
        lock.unlock();
        EXPECT_FALSE(lock.isLocked());
        EXPECT_TRUE(freeElsewhere());
        lock.relock();
        EXPECT_FALSE(freeElsewhere());
        lock.unlock();
    } // the guard must not leave a second time here
    EXPECT_TRUE(freeElsewhere());
}

TEST(CriticalSection, SerialisesIncrementsFromManyThreads) {
    CriticalSection cs;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CriticalSection::Lock lock(cs);
                CriticalSection::Lock nested(cs);
                counter = counter + 1;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);
}

TEST(OSLocks, MutexAndCriticalSectionObjectsAreReentrantAndExclusive) {
    Zn::Ptr<iMutex> m = OS()->createMutex("cache");
    EXPECT_STREQ(m->name(), "cache");
    EXPECT_STREQ(OS()->createMutex(nullptr)->name(), "");
    {
        iMutex::Lock lock(*m);
        EXPECT_TRUE(m->tryLock());
        m->unlock();
        EXPECT_FALSE(onOtherThread([&] { return m->tryLock(); }));
        lock.unlock();
        EXPECT_TRUE(onOtherThread([&] {
            bool got = m->tryLock();
            if (got) m->unlock();
            return got;
        }));
    }
    Zn::Ptr<iCriticalSection> cs = OS()->createCriticalSection();
    {
        iCriticalSection::Lock lock(*cs);
        iCriticalSection::Lock again(*cs);
        EXPECT_FALSE(onOtherThread([&] { return cs->tryEnter(); }));
    }
    EXPECT_TRUE(onOtherThread([&] {
        bool got = cs->tryEnter();
        if (got) cs->leave();
        return got;
    }));
}
