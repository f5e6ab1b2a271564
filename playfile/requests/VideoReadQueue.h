// Zn::VideoReadQueue: the worker thread, named "VideoReadQueue", that reads the video
// requests of one open file. Requests wait in arrival order; a request equal to one that
// is queued, being read or finished (same result type, a frame the other's read covers,
// no wider) joins that request instead of being read again; a request that nobody but
// the queue still holds when its turn comes is dropped unread; finished requests stay
// while somebody holds them, so later equal requests are served from them at once.
// Queues are recycled between files through Pool<Zn::VideoReadQueue>.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/BasicThread.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/ThreadEvent.h"
#include "playfile/Export.h"
#include "playfile/requests/QueuePool.h"
#include "playfile/requests/VideoReadRequest.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <vector>

namespace Zn {

// Lock: lock_ guards pending_, inProgress_ and their counts (pendingCount_ is also read
// without it, as a hint for the thread's loop). It is re-entrant and is held across
// matching, joining (which takes the joined request's own lock under it) and dropping of
// finished requests; it is never held while a frame is read. Lock order: this lock before
// a request's own lock, never while holding the lock of a request of this queue (an
// issuer's callback runs under one, so it must not queue on its own file's queue). Issuers
// are also called under this lock when a new issuer joins a finished request, so a
// callback must not wait for another thread that queues on this queue.
//
// Reference counts of requests are read without a lock: a count of 1 seen under lock_ is
// final, since only the queue could add a reference and it holds the lock.
class PLAYFILE_API VideoReadQueue : public BasicThread {
public:
    VideoReadQueue();
    ~VideoReadQueue() override;

    // Queues request, or joins it to an equal request, in which case request is made to
    // point to that one. Answers true (the flag is not used by video queues).
    bool queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool flag);
    // Takes the front request and has its file read it, unless nobody else holds it.
    void despatchItemFromQueue();
    // Drops finished requests that only the queue holds.
    void limitUsage();
    // Drops every taken request (the pending ones stay).
    void purge();

    unsigned pendingCount() const;
    unsigned inProgressCount() const;

    // The pool's way out when it releases the last reference on this queue's own thread:
    // the thread stops, drains and drops the reference as its very last act.
    void endOnOwnThread(Zn::Ptr<VideoReadQueue> self);

    // Ending the thread also sets the wake event: the thread sleeps on that event alone
    // (with the "ReadPollDelay" time-out), because a single event is a plain futex wait,
    // where waiting on the stop event as well would link the thread into both events on
    // every sleep and make each hand-off cost several more context switches. A stop made
    // through BasicThread's own calls is seen at the next poll.
    void stopRunning() noexcept;
    void endThread();

protected:
    void threadFn() override;

private:
    using RequestList = std::vector<Zn::Ptr<VideoReadRequest>>;
    // A listed request with the fields matching compares, copied beside it: matching walks
    // the lists on every queuing, and reading these from the requests themselves would
    // touch memory that the queue's thread and the issuers keep writing.
    struct Entry {
        explicit Entry(const Zn::Ptr<VideoReadRequest>& r)
            : request(r), width(r->getWidth()), resultType(r->getResultType()) {
            r->getCoveredFrames(first, last);
        }
        bool serves(const VideoReadRequest& wanted) const {
            // Only the width is compared: a wider decode serves a narrower request.
            unsigned frame = wanted.getFrame();
            return first <= frame && frame <= last && resultType == wanted.getResultType() &&
                   wanted.getWidth() <= width;
        }
        Zn::Ptr<VideoReadRequest> request;
        uint32_t first = 0;
        uint32_t last = 0;
        uint32_t width;
        eResultType resultType;
    };
    // Under lock_: the first queued, then the first taken, request that serves request;
    // null if none.
    Zn::Ptr<VideoReadRequest> findMatchLocked(const VideoReadRequest& request) const REQUIRES(lock_);
    // Under lock_: joins request's issuers to existing and points request at it; an issuer
    // joining a finished request is called at once.
    void reuseLocked(Zn::Ptr<VideoReadRequest>& existing, Zn::Ptr<VideoReadRequest>& request)
        REQUIRES(lock_);
    // limitUsage's work, under lock_: moves the droppable requests to dropped, which the
    // caller destroys after leaving the lock.
    void collectFinished(RequestList& dropped) REQUIRES(lock_);
    // Drops finished requests of files that nothing outside this queue refers to any more.
    // Such a file holds this queue and the queue holds its requests, which hold the file:
    // nobody can queue on it again, so no later queuing would ever drop them.
    void dropOrphanedRequests();

    Zn::Ptr<iThreadEvent> wakeEvent_;
    const uint32_t pollDelay_;
    std::deque<Entry> pending_ GUARDED_BY(lock_);
    std::atomic<uint32_t> pendingCount_{0};
    std::vector<Entry> inProgress_ GUARDED_BY(lock_);
    uint32_t inProgressCount_ GUARDED_BY(lock_) = 0;
    mutable CriticalSection lock_;
    Zn::Ptr<VideoReadQueue> self_; // only ever touched on the queue's own thread
};

} // namespace Zn
