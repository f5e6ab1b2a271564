// iCriticalSection and iMutex: re-entrant locks handed out by OS() and held through
// Zn::Ptr, for objects that share one lock or keep it in an interface. Each comes with a
// scope guard.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/ScopedLock.h"

// A re-entrant lock held through a reference (OS()->createCriticalSection()). It guards
// whatever the code that creates it says it guards; that code also says which locks may
// be held when it is taken.
class iCriticalSection : public iObject {
public:
    virtual void enter() noexcept = 0;
    virtual void leave() noexcept = 0;
    virtual bool tryEnter() noexcept = 0;

    class Lock;
};

// A re-entrant mutex with a name that diagnostics print (OS()->createMutex(name)). The
// same documentation duty as iCriticalSection falls on the code that creates it.
class iMutex : public iObject {
public:
    virtual void lock() noexcept = 0;
    virtual void unlock() noexcept = 0;
    virtual bool tryLock() noexcept = 0;
    virtual const char* name() const noexcept = 0;

    class Lock;
};

class iCriticalSection::Lock : public ScopedLock<iCriticalSection, &iCriticalSection::enter, &iCriticalSection::leave> {
public:
    using ScopedLock::ScopedLock;
};

class iMutex::Lock : public ScopedLock<iMutex, &iMutex::lock, &iMutex::unlock> {
public:
    using ScopedLock::ScopedLock;
};
