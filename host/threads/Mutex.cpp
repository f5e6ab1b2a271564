// The locks OS() hands out: both are a CriticalSection behind an interface.
#include "host/threads/Mutex.h"

#include "host/core/LightweightString.h"
#include "host/os/OS.h"
#include "host/threads/CriticalSection.h"

namespace {

// The interface's lock is cs_ under another name, which the analysis cannot tell, so the
// forwarding functions are not analysed.

class SharedCriticalSection final : public iCriticalSection {
public:
    void enter() noexcept override NO_THREAD_SAFETY_ANALYSIS { cs_.enter(); }
    void leave() noexcept override NO_THREAD_SAFETY_ANALYSIS { cs_.leave(); }
    bool tryEnter() noexcept override NO_THREAD_SAFETY_ANALYSIS { return cs_.tryEnter(); }

private:
    CriticalSection cs_;
};

class NamedMutex final : public iMutex {
public:
    explicit NamedMutex(const char* name) : name_(name ? name : "") {}
    void lock() noexcept override NO_THREAD_SAFETY_ANALYSIS { cs_.enter(); }
    void unlock() noexcept override NO_THREAD_SAFETY_ANALYSIS { cs_.leave(); }
    bool tryLock() noexcept override NO_THREAD_SAFETY_ANALYSIS { return cs_.tryEnter(); }
    const char* name() const noexcept override { return name_.c_str(); }

private:
    CriticalSection cs_;
    String name_;
};

} // namespace

Zn::Ptr<iMutex> OSServices::createMutex(const char* name) const {
    return Zn::Ptr<iMutex>(new NamedMutex(name));
}

Zn::Ptr<iCriticalSection> OSServices::createCriticalSection() const {
    return Zn::Ptr<iCriticalSection>(new SharedCriticalSection);
}
