// Starting, naming, prioritising and joining host threads.
#include "host/threads/BasicThread.h"

#include "host/os/OS.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <exception>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

// Shared by the object and its running thread, so the thread can report its end even
// when the object was destroyed on the thread itself.
struct BasicThread::State : Zn::InternalRefCount {
    PlainMutex mutex;
    std::condition_variable changed;
    pthread_t handle GUARDED_BY(mutex){};
    bool started GUARDED_BY(mutex) = false; // begun and neither joined nor detached
    bool joining GUARDED_BY(mutex) = false; // an endThread is in pthread_join
    bool up GUARDED_BY(mutex) = false;      // the new thread has published its id
    std::atomic<bool> finished{false}; // threadFn has returned
};

struct BasicThread::Start {
    BasicThread* self;
    Zn::Ptr<State> state;
    String name;
    int priority;
};

namespace {

thread_local BasicThread* t_current = nullptr;

// Linux keeps 15 bytes of a thread's name; cut at a character boundary.
void setCurrentThreadName(const char* name) {
    char buf[16];
    size_t n = std::min(std::strlen(name), sizeof(buf) - 1);
    if (n < std::strlen(name)) {
        while (n > 0 && (static_cast<unsigned char>(name[n]) & 0xC0) == 0x80)
            --n;
    }
    std::memcpy(buf, name, n);
    buf[n] = '\0';
    pthread_setname_np(pthread_self(), buf);
}

int niceOffset(int priority) {
    switch (priority) {
    case kPriorityIdle:
        return 15;
    case kPriorityLow:
        return 10;
    case kPriorityBelowNormal:
        return 5;
    default:
        return priority < kPriorityIdle ? 19 : 0;
    }
}

} // namespace

BasicThread::BasicThread()
    : stopEvent_(OS()->createThreadEvent(true, false)), state_(Zn::makePtr<State>()) {}

BasicThread::~BasicThread() {
    endThread(true);
}

bool BasicThread::applyPriority(pid_t tid, int priority) noexcept {
    // The process's level is its main thread's; getpriority on the process id reads
    // exactly that thread, not the caller.
    errno = 0;
    int base = getpriority(PRIO_PROCESS, id_t(getpid()));
    if (base == -1 && errno != 0) base = 0;
    int nice = std::clamp(base + niceOffset(priority), -20, 19);
    return setpriority(PRIO_PROCESS, id_t(tid), nice) == 0;
}

bool BasicThread::setPriority(int priority) noexcept {
    pid_t tid = threadId();
    return isRunning() && tid != 0 && applyPriority(tid, priority);
}

BasicThread* BasicThread::current() noexcept {
    return t_current;
}

bool BasicThread::isRunning() const noexcept {
    PlainMutex::Lock lock(state_->mutex);
    return state_->started && !state_->finished.load(std::memory_order_relaxed);
}

bool BasicThread::isCurrentThread() const noexcept {
    return t_current == this;
}

void* BasicThread::trampoline(void* arg) {
    Start* start = static_cast<Start*>(arg);
    BasicThread* self = start->self;
    State& state = *start->state;

    setCurrentThreadName(start->name.c_str());
    const pid_t tid = gettid();
    applyPriority(tid, start->priority);
    t_current = self;
    self->tid_.store(tid, std::memory_order_release);
    {
        PlainMutex::Lock lock(state.mutex);
        state.up = true;
    }
    state.changed.notify_all();

    try {
        self->threadFn();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "thread %s: threadFn ended by an exception: %s\n", start->name.c_str(),
                     e.what());
    } catch (...) {
        std::fprintf(stderr, "thread %s: threadFn ended by an exception\n", start->name.c_str());
    }

    // self may be gone from here on.
    t_current = nullptr;
    {
        PlainMutex::Lock lock(state.mutex);
        state.finished.store(true, std::memory_order_relaxed);
    }
    state.changed.notify_all();
    delete start;
    return nullptr;
}

bool BasicThread::beginThread(const char* name, int priority) {
    {
        PlainMutex::Lock lock(state_->mutex);
        if (state_->started && !state_->finished.load(std::memory_order_relaxed)) return false;
    }
    endThread(); // reaps a thread whose threadFn returned by itself
    PlainMutex::UniqueLock lock(state_->mutex);
    if (state_->started || state_->joining) return false;

    name_ = String(name ? name : "");
    keepRunning_.store(true, std::memory_order_release);
    stopEvent_->reset();
    state_->finished.store(false, std::memory_order_relaxed);
    state_->up = false;
    Start* start = new Start{this, state_, name_, priority};
    if (pthread_create(&state_->handle, nullptr, &BasicThread::trampoline, start) != 0) {
        delete start;
        keepRunning_.store(false, std::memory_order_release);
        return false;
    }
    state_->started = true;
    state_->changed.wait(lock.native(), [this]() REQUIRES(state_->mutex) { return state_->up; });
    return true;
}

void BasicThread::stopRunning() noexcept {
    keepRunning_.store(false, std::memory_order_release);
    stopEvent_->set();
}

void BasicThread::endThread() {
    endThread(false);
}

void BasicThread::endThread(bool destroying) {
    PlainMutex::UniqueLock lock(state_->mutex);
    if (!state_->started) return;
    stopRunning();
    if (pthread_equal(state_->handle, pthread_self())) {
        // A thread cannot join itself. Unless the object is going, leave it joinable for
        // the owner's endThread.
        if (destroying) {
            pthread_detach(state_->handle);
            state_->started = false;
        }
        return;
    }
    if (state_->joining) {
        state_->changed.wait(lock.native(),
                             [this]() REQUIRES(state_->mutex) { return !state_->joining; });
        return;
    }
    if (destroying && !state_->finished.load(std::memory_order_relaxed))
        std::fprintf(stderr,
                     "thread %s: still running when its object was destroyed; the derived class "
                     "must call endThread() in its destructor\n",
                     name_.c_str());
    state_->joining = true;
    const pthread_t handle = state_->handle;
    lock.unlock();
    pthread_join(handle, nullptr);
    lock.relock();
    state_->joining = false;
    state_->started = false;
    state_->changed.notify_all();
}

Zn::Ptr<iThread> iThread::create(std::function<void()> body, const char* name, int priority) {
    Zn::Ptr<FunctionThread> thread(new FunctionThread(std::move(body)));
    if (!thread->beginThread(name, priority)) return nullptr;
    return thread;
}
