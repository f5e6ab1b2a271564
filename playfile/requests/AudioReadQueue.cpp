#include "playfile/requests/AudioReadQueue.h"

#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/threads/TimedTask.h"
#include "playfile/Configuration.h"
#include "playfile/open/FileReadInstance.h"

#include <exception>
#include <string>

namespace Zn {

AudioReadQueue::AudioReadQueue()
    : wakeEvent_(OS()->createThreadEvent(false, false)), pollDelay_(uint32_t(PlayfileConfig::readPollDelay())) {
    beginThread("AudioReadQueue", kPriorityNormal);
}

AudioReadQueue::~AudioReadQueue() {
    endThread();
    pending_.clear();
    wakeEvent_.reset();
}

bool AudioReadQueue::queueReadRequest(Zn::Ptr<AudioReadRequest>& request, bool deferWake) {
    if (!request) return false;
    Key key{request->start, request->getChannelIndex()};
    {
        CriticalSection::Lock lock(lock_);
        // A multimap inserts after the elements with an equal key.
        pending_.emplace(key, request);
        pendingCount_.fetch_add(1, std::memory_order_release);
    }
    // Set once the lock is free, so the woken thread does not at once wait for it.
    if (!deferWake) wakeEvent_->set();
    return true;
}

void AudioReadQueue::despatchItemFromQueue() {
    Zn::Ptr<AudioReadRequest> request;
    {
        CriticalSection::Lock lock(lock_);
        if (!pending_.empty()) {
            auto first = pending_.begin();
            request = std::move(first->second);
            pending_.erase(first);
            pendingCount_.fetch_sub(1, std::memory_order_release);
        }
    }
    Zn::Ptr<TimedTask> task = TimedTaskManager::instance().createTimedTask("Audio");
    task->step("read");
    if (request && request.refCount() != 1) {
        bool threw = true;
        std::string what = "unknown exception"; // copied: the exception is gone after its handler
        try {
            request->getFile()->readAudio(request);
            threw = false;
        } catch (const std::exception& e) {
            what = e.what();
        } catch (...) {
        }
        if (threw) {
            // The reader ends its requests itself; one that escaped it with an exception
            // is failed here so that its issuers are not left waiting.
            LogBoth("Exception reading audio of \"%ls\": %s\n", request->getFile()->getFileName().c_str(), what.c_str());
            request->setStatus(RequestStatus::Failed);
            Zn::Ptr<iObject> none;
            request->doCallbacks(none);
        }
    }
    task->end();
}

unsigned AudioReadQueue::pendingCount() const {
    CriticalSection::Lock lock(lock_);
    return unsigned(pending_.size());
}

void AudioReadQueue::stopRunning() noexcept {
    BasicThread::stopRunning();
    wakeEvent_->set();
}

void AudioReadQueue::endThread() {
    stopRunning();
    BasicThread::endThread();
}

void AudioReadQueue::endOnOwnThread(Zn::Ptr<AudioReadQueue> self) {
    self_ = std::move(self);
    stopRunning();
}

void AudioReadQueue::threadFn() {
    auto hasPending = [this] { return pendingCount_.load(std::memory_order_acquire) != 0; };
    while (keepRunning()) {
        wakeEvent_->wait(pollDelay_);
        while (keepRunning() && hasPending()) despatchItemFromQueue();
    }
    while (hasPending()) despatchItemFromQueue();
    Zn::Ptr<AudioReadQueue> last = std::move(self_);
}

} // namespace Zn
