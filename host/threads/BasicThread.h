// BasicThread: a named host thread with a priority, a keep-running flag and a stop event,
// that a class derives from to run its own threadFn (the per-file workers, the queues).
// iThread is the same thing for code that only has a function to run.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/threads/ThreadEvent.h"

#include <atomic>
#include <functional>
#include <sys/types.h>

// Priorities of host threads, 0 (idle) to 5. Linux lets an unprivileged process only
// lower its threads' priority, so kPriorityNormal and above all run at the process's own
// level and the lower ones at successively higher nice values.
enum eThreadPriority : int {
    kPriorityIdle = 0,
    kPriorityLow = 1,
    kPriorityBelowNormal = 2,
    kPriorityNormal = 3,
    kPriorityAboveNormal = 4,
    kPriorityHighest = 5,
};

// Life of a BasicThread: beginThread starts threadFn on a new thread; threadFn polls
// keepRunning() or waits on stopEvent() (together with its own events) and returns when
// asked to stop; endThread asks it to stop and joins it. Once threadFn has returned the
// object may be begun again. endThread waits for threadFn, so its caller must not hold a
// lock that threadFn may take before it looks at keepRunning or the stop event.
//
// A derived class must call endThread() in its own destructor, before its members are
// destroyed, because threadFn uses them. ~BasicThread ends a thread that is still running
// as a safety net and reports the omission on stderr; by then the derived part is gone, so
// that is a bug to fix, not a way to stop.
//
// The thread holds no reference to its object: the owner keeps it alive until endThread.
// If the last reference goes on the thread itself, the destructor detaches the thread
// instead of joining it; nothing of the object is touched after threadFn returns.
//
// state_->mutex guards the started/joining state and the thread handle (see State in the
// .cpp). It is taken by beginThread, endThread, isRunning and by the thread as it starts
// and finishes; nothing else is locked under it, and it is never held while joining or
// while threadFn runs, so any lock may be held when these are called.
class BasicThread : public virtual iObject {
public:
    BasicThread();
    ~BasicThread() override;
    BasicThread(const BasicThread&) = delete;
    BasicThread& operator=(const BasicThread&) = delete;

    // Starts threadFn on a new thread named name (cut to the 15 characters Linux keeps)
    // at priority 0-5. Returns once the thread is up (threadId() is known), or false if it
    // is already running or could not be created.
    bool beginThread(const char* name, int priority = kPriorityNormal);
    // Asks threadFn to return and waits until it has. Does nothing if the thread was
    // never begun or has already been ended. Called on the thread itself it only asks
    // (a thread cannot wait for its own end); a later endThread from elsewhere joins.
    void endThread();
    // Asks threadFn to return without waiting: clears keepRunning and sets stopEvent.
    void stopRunning() noexcept;

    bool keepRunning() const noexcept { return keepRunning_.load(std::memory_order_acquire); }
    // Manual-reset; set by stopRunning/endThread and cleared by beginThread.
    const Zn::Ptr<iThreadEvent>& stopEvent() const noexcept { return stopEvent_; }
    // True from a successful beginThread until threadFn has returned.
    bool isRunning() const noexcept;
    // The kernel's thread id (as top and /proc show), 0 before the first beginThread.
    pid_t threadId() const noexcept { return tid_.load(std::memory_order_acquire); }
    const char* name() const noexcept { return name_.c_str(); }
    bool isCurrentThread() const noexcept;

    // Changes the running thread's priority (0-5). False when the system refused, which
    // is normal when raising it again without privileges.
    bool setPriority(int priority) noexcept;

    // The BasicThread whose threadFn the caller is running in, or null.
    static BasicThread* current() noexcept;
    // Applies a 0-5 priority to a kernel thread id; false when the system refused.
    static bool applyPriority(pid_t tid, int priority) noexcept;

protected:
    virtual void threadFn() = 0;

private:
    struct State;
    struct Start;
    static void* trampoline(void* arg);
    void endThread(bool destroying);

    std::atomic<bool> keepRunning_{false};
    std::atomic<pid_t> tid_{0};
    Zn::Ptr<iThreadEvent> stopEvent_;
    String name_;
    Zn::Ptr<State> state_;
};

// A thread running a function, for code that keeps a set of workers (Zn::Ptr<iThread>)
// rather than deriving from BasicThread. The function runs once; to loop until stopped it
// checks BasicThread::current()->keepRunning() or waits on its stopEvent(), or watches a
// flag of its own. Releasing the last reference ends (stops and joins) the thread.
class iThread : public virtual iObject {
public:
    virtual bool isRunning() const noexcept = 0;
    virtual bool keepRunning() const noexcept = 0;
    virtual void stopRunning() noexcept = 0;
    virtual void endThread() = 0;
    virtual const Zn::Ptr<iThreadEvent>& stopEvent() const noexcept = 0;
    virtual pid_t threadId() const noexcept = 0;
    virtual const char* name() const noexcept = 0;

    // A started thread running body, or null if the thread could not be created.
    static Zn::Ptr<iThread> create(std::function<void()> body, const char* name,
                                   int priority = kPriorityNormal);
};

// iThread's implementation: a BasicThread whose threadFn calls the function.
class FunctionThread final : public BasicThread, public iThread {
public:
    explicit FunctionThread(std::function<void()> body) : body_(std::move(body)) {}
    ~FunctionThread() override { BasicThread::endThread(); }

    bool isRunning() const noexcept override { return BasicThread::isRunning(); }
    bool keepRunning() const noexcept override { return BasicThread::keepRunning(); }
    void stopRunning() noexcept override { BasicThread::stopRunning(); }
    void endThread() override { BasicThread::endThread(); }
    const Zn::Ptr<iThreadEvent>& stopEvent() const noexcept override {
        return BasicThread::stopEvent();
    }
    pid_t threadId() const noexcept override { return BasicThread::threadId(); }
    const char* name() const noexcept override { return BasicThread::name(); }

protected:
    void threadFn() override { body_(); }

private:
    std::function<void()> body_;
};
