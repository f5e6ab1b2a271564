// Zn::AudioReadQueue: the worker thread, named "AudioReadQueue", that reads the audio
// requests of one open file. It does not merge requests; it orders them so that the file
// is read forwards: earliest start position first and, for one position, lowest channel
// index first (requests with equal keys in arrival order). A request that nobody but the
// queue still holds when its turn comes is dropped unread. Queues are recycled between
// files through Pool<Zn::AudioReadQueue>.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/BasicThread.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/ThreadEvent.h"
#include "playfile/Export.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/QueuePool.h"

#include <atomic>
#include <cstdint>
#include <map>

namespace Zn {

// Lock: lock_ guards pending_ and its count (pendingCount_ is also read without it, as a
// hint for the thread's loop). It is held only to insert or take a request, never while
// reading, and nothing else is taken under it; it may be taken with a request's lock or
// the file's audio reader lock held (an issuer's callback queuing more audio).
class PLAYFILE_API AudioReadQueue : public BasicThread {
public:
    AudioReadQueue();
    ~AudioReadQueue() override;

    // Queues request in order. With deferWake the thread is not woken now: the request
    // waits for the next wake, or for the thread's poll after at most "ReadPollDelay" ms.
    bool queueReadRequest(Zn::Ptr<AudioReadRequest>& request, bool deferWake);
    // Takes the first request and has its file read it, unless nobody else holds it.
    void despatchItemFromQueue();

    unsigned pendingCount() const;

    // See VideoReadQueue::endOnOwnThread.
    void endOnOwnThread(Zn::Ptr<AudioReadQueue> self);

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
    struct Key {
        uint64_t start;
        uint32_t channelIndex;
        friend bool operator<(const Key& a, const Key& b) noexcept {
            return a.start != b.start ? a.start < b.start : a.channelIndex < b.channelIndex;
        }
    };

    std::multimap<Key, Zn::Ptr<AudioReadRequest>> pending_ GUARDED_BY(lock_);
    std::atomic<uint32_t> pendingCount_{0};
    Zn::Ptr<iThreadEvent> wakeEvent_;
    const uint32_t pollDelay_;
    mutable CriticalSection lock_;
    Zn::Ptr<AudioReadQueue> self_; // only ever touched on the queue's own thread
};

} // namespace Zn
