// Pool<T>: the idle read queues of one kind (T is Zn::VideoReadQueue or Zn::AudioReadQueue),
// kept so that opening and closing files does not start and end threads. A file read
// instance takes the front idle queue when it opens (or a new queue when none is idle)
// and appends its queue when it is destroyed. One pool of each kind is made when the
// library is loaded; it registers with the host's shutdown sequence at level 401, where it
// releases its idle queues (ending their threads) and stops taking queues back, so that
// queues of files closed later are released at once.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/CriticalSection.h"
#include "host/threads/Shutdown.h"
#include "playfile/Export.h"

#include <atomic>
#include <cstdint>
#include <deque>

namespace Zn {
class AudioReadQueue;
class VideoReadQueue;
} // namespace Zn

// Lock: lock_ guards active_ and the idle list with its count. It is taken by take,
// giveBack and shutdown with no lock of a queue or request held (file read instances are
// made and destroyed outside those), and nothing is taken under it: queues are made and
// released after it is left, because releasing a queue joins its thread, which may be
// destroying a file that gives a queue back to this pool.
template <class T> class PLAYFILE_API Pool {
public:
    static constexpr unsigned kShutdownLevel = 401;

    // The process's pool of this kind.
    static Pool& instance();

    // The front idle queue, or a new one when none is idle.
    static Zn::Ptr<T> take();
    // Appends the queue to the idle list while the pool is active; otherwise (after
    // shutdown, or once the pool itself is gone at exit) releases it.
    static void giveBack(Zn::Ptr<T> queue);

    // The level-401 shutdown step (also run by the destructor): stop taking queues back
    // and release the idle ones. A fast exit only stops taking queues back; the idle
    // queues' threads are left to end with the process rather than waited for.
    void shutdown(Shutdown::eExitType type);

    unsigned idleCount() const;
    bool isActive() const;

    ~Pool();
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

private:
    Pool();
    // Releases a queue that the pool will not keep. The last reference to a queue may go
    // on the queue's own thread (its file was destroyed there); the queue then ends itself.
    static void release(Zn::Ptr<T> queue);

    uint32_t active_ GUARDED_BY(lock_) = 1;
    std::deque<Zn::Ptr<T>> idle_ GUARDED_BY(lock_);
    unsigned count_ GUARDED_BY(lock_) = 0;
    mutable CriticalSection lock_;
    Shutdown::Handle shutdownHandle_ = 0;
    // Cleared when the pool is destroyed at exit, so a file destroyed later does not
    // reach it.
    static std::atomic<bool> alive_;
};

extern template class Pool<Zn::VideoReadQueue>;
extern template class Pool<Zn::AudioReadQueue>;
