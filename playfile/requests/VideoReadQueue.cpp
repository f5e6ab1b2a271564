#include "playfile/requests/VideoReadQueue.h"

#include "host/os/OS.h"
#include "playfile/Configuration.h"
#include "playfile/open/FileReadInstance.h"

namespace Zn {

namespace {
bool isFinished(RequestStatus s) { return s != RequestStatus::Queued && s != RequestStatus::InProgress; }
} // namespace

VideoReadQueue::VideoReadQueue()
    : wakeEvent_(OS()->createThreadEvent(false, false)), pollDelay_(uint32_t(PlayfileConfig::readPollDelay())) {
    beginThread("VideoReadQueue", kPriorityNormal);
}

VideoReadQueue::~VideoReadQueue() {
    endThread();
    // What is left is released without calling anybody.
    inProgress_.clear();
    pending_.clear();
    wakeEvent_.reset();
}

bool VideoReadQueue::queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool) {
    if (!request) return false;
    RequestList dropped; // destroyed after the lock is left
    bool appended = false;
    CriticalSection::Lock lock(lock_);
    Zn::Ptr<VideoReadRequest> match = findMatchLocked(*request);
    if (match) {
        reuseLocked(match, request);
    } else {
        pending_.emplace_back(request);
        pendingCount_.fetch_add(1, std::memory_order_release);
        appended = true;
    }
    collectFinished(dropped);
    match.reset();
    lock.unlock();
    // Set once the lock is free, so the woken thread does not at once wait for it. The
    // thread looks at the list under the lock, so nothing set here can be missed.
    if (appended) wakeEvent_->set();
    return true;
}

// The lists are walked in place rather than copied: the lock is held throughout and
// matching neither calls out nor changes them, so the order and the answer are those of a
// copy, without its allocation on every request.
Zn::Ptr<VideoReadRequest> VideoReadQueue::findMatchLocked(const VideoReadRequest& request) const {
    for (const Entry& c : pending_)
        if (c.serves(request)) return c.request;
    for (const Entry& c : inProgress_)
        if (c.serves(request)) return c.request;
    return nullptr;
}

void VideoReadQueue::reuseLocked(Zn::Ptr<VideoReadRequest>& existing, Zn::Ptr<VideoReadRequest>& request) {
    const bool same = existing.get() == request.get();
    RequestStatus status;
    {
        // The joining issuers are added and the status read under the request's lock, the
        // same lock under which completion calls issuers and then sets the status: an
        // issuer added here is either called by that completion or sees its final status.
        std::vector<ProxySet::ProxyPtr> joining;
        if (!same) joining = request->getProxies().copy();
        CriticalSection::Lock requestLock(existing->getProxies().lock());
        for (const auto& p : joining) existing->getProxies().insertLocked(p);
        status = existing->getStatus();
    }
    switch (status) {
    case RequestStatus::Queued:
    case RequestStatus::InProgress:
        if (!same) request = existing;
        break;
    case RequestStatus::Complete:
        if (!same) request = existing;
        existing->requestHasCompleted(RequestStatus::Complete);
        break;
    case RequestStatus::Failed:
        // The issuer finds the failed status on the request it now holds; nobody is called.
        request = existing;
        break;
    }
}

void VideoReadQueue::despatchItemFromQueue() {
    Zn::Ptr<VideoReadRequest> request;
    bool wanted = false;
    {
        CriticalSection::Lock lock(lock_);
        if (pending_.empty()) return;
        // The list's reference moves to this function: the count is as it would be after
        // taking a reference and dropping the list's.
        Entry taken = std::move(pending_.front());
        pending_.pop_front();
        pendingCount_.fetch_sub(1, std::memory_order_release);
        if (taken.request.refCount() != 1) {
            wanted = true;
            request = taken.request;
            request->setStatus(RequestStatus::InProgress);
            inProgress_.push_back(std::move(taken));
            ++inProgressCount_;
        } else {
            request = std::move(taken.request); // released after the lock is left
        }
    }
    if (wanted) request->getFile()->readVideo(request);
}

void VideoReadQueue::collectFinished(RequestList& dropped) {
    auto keep = inProgress_.begin();
    for (auto it = inProgress_.begin(); it != inProgress_.end(); ++it) {
        // The count first: requests still held (the usual case) need no look at the status.
        if (it->request.refCount() == 1 && isFinished(it->request->getStatus())) {
            dropped.push_back(std::move(it->request));
            --inProgressCount_;
        } else if (keep++ != it) {
            *(keep - 1) = std::move(*it);
        }
    }
    inProgress_.erase(keep, inProgress_.end());
}

void VideoReadQueue::dropOrphanedRequests() {
    RequestList dropped;
    CriticalSection::Lock lock(lock_);
    // References to each file held by requests that only this queue holds. A file whose
    // whole count is made of those is unreachable from outside, and stays so: a new
    // reference can only be copied from an existing one.
    std::vector<std::pair<FileReadInstance*, int>> held;
    auto tally = [&](const Entry& e) {
        const Zn::Ptr<VideoReadRequest>& r = e.request;
        if (r.refCount() != 1) return;
        FileReadInstance* f = r->getFile().get();
        for (auto& h : held)
            if (h.first == f) return void(++h.second);
        held.emplace_back(f, 1);
    };
    for (const auto& r : pending_) tally(r);
    for (const auto& r : inProgress_) tally(r);
    for (const auto& [file, count] : held) {
        if (!file || file->getRefCount() != count) continue;
        auto keep = inProgress_.begin();
        for (auto it = inProgress_.begin(); it != inProgress_.end(); ++it) {
            const Zn::Ptr<VideoReadRequest>& r = it->request;
            if (r->getFile().get() == file && r.refCount() == 1 && isFinished(r->getStatus())) {
                dropped.push_back(std::move(it->request));
                --inProgressCount_;
            } else if (keep++ != it) {
                *(keep - 1) = std::move(*it);
            }
        }
        inProgress_.erase(keep, inProgress_.end());
    }
    lock.unlock();
}

void VideoReadQueue::limitUsage() {
    RequestList dropped;
    CriticalSection::Lock lock(lock_);
    collectFinished(dropped);
    lock.unlock();
}

void VideoReadQueue::purge() {
    std::vector<Entry> dropped;
    CriticalSection::Lock lock(lock_);
    dropped.swap(inProgress_);
    inProgressCount_ = 0;
    lock.unlock();
}

unsigned VideoReadQueue::pendingCount() const {
    CriticalSection::Lock lock(lock_);
    return unsigned(pending_.size());
}

unsigned VideoReadQueue::inProgressCount() const {
    CriticalSection::Lock lock(lock_);
    return inProgressCount_;
}

void VideoReadQueue::stopRunning() noexcept {
    BasicThread::stopRunning();
    wakeEvent_->set();
}

void VideoReadQueue::endThread() {
    stopRunning();
    BasicThread::endThread();
}

void VideoReadQueue::endOnOwnThread(Zn::Ptr<VideoReadQueue> self) {
    self_ = std::move(self);
    stopRunning();
}

void VideoReadQueue::threadFn() {
    auto hasPending = [this] { return pendingCount_.load(std::memory_order_acquire) != 0; };
    while (keepRunning()) {
        if (!wakeEvent_->wait(pollDelay_)) dropOrphanedRequests();
        while (keepRunning() && hasPending()) despatchItemFromQueue();
    }
    // Requests still wanted are read before the thread ends.
    while (hasPending()) despatchItemFromQueue();
    // Last of all: when the pool handed this thread the queue's last reference, the queue
    // is destroyed here, and nothing of it is touched afterwards.
    Zn::Ptr<VideoReadQueue> last = std::move(self_);
}

} // namespace Zn
