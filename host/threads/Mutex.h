// iCriticalSection and iMutex: re-entrant locks handed out by OS() and held through
// Zn::Ptr, for objects that share one lock or keep it in an interface. Each comes with a
// scope guard.
#pragma once

#include "host/core/RefCount.h"

// A re-entrant lock held through a reference (OS()->createCriticalSection()). It guards
// whatever the code that creates it says it guards; that code also says which locks may
// be held when it is taken.
class iCriticalSection : public iObject {
public:
    virtual void enter() noexcept = 0;
    virtual void leave() noexcept = 0;
    virtual bool tryEnter() noexcept = 0;

    class Lock {
    public:
        explicit Lock(iCriticalSection& cs) noexcept : cs_(cs) { cs_.enter(); }
        ~Lock() {
            if (held_) cs_.leave();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        void unlock() noexcept {
            if (held_) {
                held_ = false;
                cs_.leave();
            }
        }
        void relock() noexcept {
            if (!held_) {
                cs_.enter();
                held_ = true;
            }
        }

    private:
        iCriticalSection& cs_;
        bool held_ = true;
    };
};

// A re-entrant mutex with a name that diagnostics print (OS()->createMutex(name)). The
// same documentation duty as iCriticalSection falls on the code that creates it.
class iMutex : public iObject {
public:
    virtual void lock() noexcept = 0;
    virtual void unlock() noexcept = 0;
    virtual bool tryLock() noexcept = 0;
    virtual const char* name() const noexcept = 0;

    class Lock {
    public:
        explicit Lock(iMutex& m) noexcept : m_(m) { m_.lock(); }
        ~Lock() {
            if (held_) m_.unlock();
        }
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        void unlock() noexcept {
            if (held_) {
                held_ = false;
                m_.unlock();
            }
        }
        void relock() noexcept {
            if (!held_) {
                m_.lock();
                held_ = true;
            }
        }

    private:
        iMutex& m_;
        bool held_ = true;
    };
};
