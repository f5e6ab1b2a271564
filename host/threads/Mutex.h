// iCriticalSection and iMutex: re-entrant locks handed out by OS() and held through
// Zn::Ptr, for objects that share one lock or keep it in an interface. Each comes with a
// scope guard.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/ScopedLock.h"
#include "host/threads/ThreadSafety.h"

// A re-entrant lock held through a reference (OS()->createCriticalSection()). It guards
// whatever the code that creates it says it guards; that code also says which locks may
// be held when it is taken.
class CAPABILITY("mutex") iCriticalSection : public iObject {
public:
    virtual void enter() noexcept ACQUIRE() = 0;
    virtual void leave() noexcept RELEASE() = 0;
    virtual bool tryEnter() noexcept TRY_ACQUIRE(true) = 0;

    class Lock;
};

// A re-entrant mutex with a name that diagnostics print (OS()->createMutex(name)). The
// same documentation duty as iCriticalSection falls on the code that creates it.
class CAPABILITY("mutex") iMutex : public iObject {
public:
    virtual void lock() noexcept ACQUIRE() = 0;
    virtual void unlock() noexcept RELEASE() = 0;
    virtual bool tryLock() noexcept TRY_ACQUIRE(true) = 0;
    virtual const char* name() const noexcept = 0;

    class Lock;
};

class SCOPED_CAPABILITY iCriticalSection::Lock : public ScopedLock<iCriticalSection, &iCriticalSection::enter, &iCriticalSection::leave> {
public:
    explicit Lock(iCriticalSection& lock) noexcept ACQUIRE(lock) : ScopedLock(lock) {}
    ~Lock() RELEASE() {}
};

class SCOPED_CAPABILITY iMutex::Lock : public ScopedLock<iMutex, &iMutex::lock, &iMutex::unlock> {
public:
    explicit Lock(iMutex& lock) noexcept ACQUIRE(lock) : ScopedLock(lock) {}
    ~Lock() RELEASE() {}
};
