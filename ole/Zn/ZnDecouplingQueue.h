// DecouplingQueue<T>: hands items (held as Zn::Ptr<T>) from any thread to a small set of
// worker threads, so that the caller never waits for the work. Whoever does the work
// derives from DecouplingQueue<T>::Decoupler, whose despatch is called on a worker for
// each item in arrival order (several items run at once, one per worker), and sets the
// queue up with Decoupler::init. The queue ends at the host's shutdown step given to init,
// or when the decoupler goes.
#pragma once

#include "host/core/RefCount.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/threads/BasicThread.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/Shutdown.h"
#include "host/threads/ThreadEvent.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <unistd.h>
#include <vector>

// Lock: lock_ guards items_ and count_. It is held only to add or take an item, never
// while an item is despatched or a thread started or joined, and no other lock is taken
// under it, so any lock may be held when push is called.
template <class T> class DecouplingQueue {
public:
    // The receiving end: the work done for each item, and the queue's set-up.
    class Decoupler {
    public:
        // The third value of init that leaves the process's priority alone.
        static constexpr unsigned kKeepProcessPriority = 0xFFFFFFFFu;

        Decoupler() = default;
        // Ends the queue (joining its workers) if that has not happened yet. A derived class
        // whose despatch uses its own members calls endQueue in its own destructor.
        virtual ~Decoupler() {
            endQueue();
            if (shutdownHandle_) Shutdown::removeCallback(shutdownHandle_);
        }
        Decoupler(const Decoupler&) = delete;
        Decoupler& operator=(const Decoupler&) = delete;

        // Does the work for one item, on a worker thread.
        virtual void despatch(Zn::Ptr<T>& item) = 0;
        // An item that will never be despatched: still queued when the queue ended, or
        // offered after. The default lets it go.
        virtual void abandon(Zn::Ptr<T>& item) {}

        // Makes the queue with threads workers (at least one) at threadPriority (0-5);
        // applies processPriority (0-5) to the whole process unless it is
        // kKeepProcessPriority; accepts at most maxQueued waiting items (0: no limit);
        // registers the queue's end with the host's shutdown sequence at shutdownLevel;
        // workers that find nothing to do look again every waitMs milliseconds (all bits
        // set: only when woken). A priority the system refuses is logged and otherwise
        // ignored. Answers false when the queue was made already.
        bool init(unsigned threads, int threadPriority, unsigned processPriority, unsigned maxQueued,
                  unsigned shutdownLevel, unsigned waitMs) {
            if (queue_) return false;
            if (processPriority != kKeepProcessPriority && !BasicThread::applyPriority(getpid(), int(processPriority)))
                LogBoth("Failed to set process priority (%s)\n", std::strerror(errno));
            queue_ = std::make_unique<DecouplingQueue<T>>(this, maxQueued, waitMs);
            queue_->start(threads ? threads : 1, threadPriority);
            shutdownHandle_ = Shutdown::addCallback(this, &Decoupler::shutdown, shutdownLevel);
            return true;
        }

        // The host's shutdown step: ends the queue. A fast exit ends it too: its workers
        // finish the item in hand, and nothing else waits on them.
        virtual void shutdown(Shutdown::eExitType) { endQueue(); }

        // Stops the workers after the items they are despatching, joins them and abandons
        // what is still queued. Must not be called from a worker.
        void endQueue() {
            if (queue_) queue_->end();
        }

        DecouplingQueue<T>* getQueue() const noexcept { return queue_.get(); }

    private:
        std::unique_ptr<DecouplingQueue<T>> queue_;
        Shutdown::Handle shutdownHandle_ = 0;
    };

    DecouplingQueue(Decoupler* decoupler, unsigned maxQueued, unsigned waitMs)
        : wakeEvent_(OS()->createThreadEvent(false, false)), endEvent_(OS()->createThreadEvent(true, false)),
          decoupler_(decoupler), maxQueued_(maxQueued), waitMs_(waitMs) {}
    ~DecouplingQueue() { end(); }
    DecouplingQueue(const DecouplingQueue&) = delete;
    DecouplingQueue& operator=(const DecouplingQueue&) = delete;

    // Appends an item and wakes a worker. False when the queue has ended or is full; the
    // item is then neither despatched nor abandoned: it stays the caller's.
    bool push(Zn::Ptr<T> item) {
        {
            CriticalSection::Lock lock(lock_);
            if (!keepRunning_.load(std::memory_order_acquire)) return false;
            if (maxQueued_ && count_ >= maxQueued_) return false;
            items_.push_back(std::move(item));
            ++count_;
        }
        wakeEvent_->set();
        return true;
    }

    unsigned queuedCount() const {
        CriticalSection::Lock lock(lock_);
        return count_;
    }
    unsigned workerCount() const noexcept { return unsigned(workers_.size()); }
    bool isRunning() const noexcept { return keepRunning_.load(std::memory_order_acquire); }

private:
    friend class Decoupler;

    void start(unsigned threads, int priority) {
        keepRunning_.store(true, std::memory_order_release);
        for (unsigned i = 0; i < threads; ++i) {
            Zn::Ptr<iThread> t = iThread::create([this, priority] { decoupledThread(priority); }, "DecouplingQueue");
            if (t) workers_.push_back(std::move(t));
        }
    }

    void end() {
        {
            CriticalSection::Lock lock(lock_);
            if (!keepRunning_.exchange(false)) return;
        }
        endEvent_->set();
        for (auto& w : workers_) w->endThread();
        workers_.clear();
        std::deque<Zn::Ptr<T>> left;
        {
            CriticalSection::Lock lock(lock_);
            left.swap(items_);
            count_ = 0;
        }
        for (auto& item : left) decoupler_->abandon(item);
    }

    void decoupledThread(int priority) {
        BasicThread* self = BasicThread::current();
        if (self && !self->setPriority(priority)) LogBoth("Failed to set process priority (%s)\n", std::strerror(errno));
        const Zn::Ptr<iThreadEvent> events[2] = {wakeEvent_, endEvent_};
        while (keepRunning_.load(std::memory_order_acquire)) {
            iThreadEvent::waitForAny(events, 2, waitMs_);
            while (keepRunning_.load(std::memory_order_acquire)) {
                Zn::Ptr<T> item;
                bool more;
                {
                    CriticalSection::Lock lock(lock_);
                    if (items_.empty()) break;
                    item = std::move(items_.front());
                    items_.pop_front();
                    more = --count_ != 0;
                }
                // Sets made while all workers were busy collapse into one, so a worker that
                // leaves items behind wakes another to share them.
                if (more) wakeEvent_->set();
                decoupler_->despatch(item);
            }
        }
    }

    mutable CriticalSection lock_;
    std::deque<Zn::Ptr<T>> items_ GUARDED_BY(lock_);
    unsigned count_ GUARDED_BY(lock_) = 0;
    Zn::Ptr<iThreadEvent> wakeEvent_;
    Zn::Ptr<iThreadEvent> endEvent_;
    Decoupler* const decoupler_;
    std::vector<Zn::Ptr<iThread>> workers_;
    std::atomic<bool> keepRunning_{false};
    const unsigned maxQueued_;
    const unsigned waitMs_;
};
