#include "playfile/requests/QueuePool.h"

#include "playfile/requests/AudioReadQueue.h"
#include "playfile/requests/VideoReadQueue.h"

#include <vector>

template <class T> std::atomic<bool> Pool<T>::alive_{false};

template <class T> Pool<T>& Pool<T>::instance() {
    static Pool pool;
    return pool;
}

template <class T> Pool<T>::Pool() {
    shutdownHandle_ = Shutdown::addCallback(this, &Pool::shutdown, kShutdownLevel);
    alive_.store(true, std::memory_order_release);
}

template <class T> Pool<T>::~Pool() {
    alive_.store(false, std::memory_order_release);
    Shutdown::removeCallback(shutdownHandle_);
    if (idleCount() != 0) shutdown(Shutdown::eNormalExit);
}

template <class T> Zn::Ptr<T> Pool<T>::take() {
    if (alive_.load(std::memory_order_acquire)) {
        Pool& pool = instance();
        CriticalSection::Lock lock(pool.lock_);
        if (!pool.idle_.empty()) {
            Zn::Ptr<T> queue = std::move(pool.idle_.front());
            pool.idle_.pop_front();
            --pool.count_;
            return queue;
        }
    }
    return Zn::makePtr<T>();
}

template <class T> void Pool<T>::giveBack(Zn::Ptr<T> queue) {
    if (!queue) return;
    if (alive_.load(std::memory_order_acquire)) {
        Pool& pool = instance();
        CriticalSection::Lock lock(pool.lock_);
        if (pool.active_) {
            pool.idle_.push_back(std::move(queue));
            ++pool.count_;
            return;
        }
    }
    release(std::move(queue));
}

template <class T> void Pool<T>::release(Zn::Ptr<T> queue) {
    T* q = queue.get();
    if (q && q->isCurrentThread()) q->endOnOwnThread(std::move(queue));
}

template <class T> void Pool<T>::shutdown(Shutdown::eExitType type) {
    std::deque<Zn::Ptr<T>> released;
    {
        CriticalSection::Lock lock(lock_);
        active_ = 0;
        released.swap(idle_);
        count_ = 0;
    }
    if (type == Shutdown::eFastExit) {
        for (auto& q : released) q.release(); // deliberately kept: nothing waits on their threads
        return;
    }
    for (auto& q : released) release(std::move(q));
}

template <class T> unsigned Pool<T>::idleCount() const {
    CriticalSection::Lock lock(lock_);
    return count_;
}

template <class T> bool Pool<T>::isActive() const {
    CriticalSection::Lock lock(lock_);
    return active_ != 0;
}

template class Pool<Zn::VideoReadQueue>;
template class Pool<Zn::AudioReadQueue>;

namespace {
// The pools exist from the library's load on, so they are registered with the shutdown
// sequence before any file is opened.
[[maybe_unused]] const bool g_poolsMade =
    (Pool<Zn::VideoReadQueue>::instance(), Pool<Zn::AudioReadQueue>::instance(), true);
} // namespace
