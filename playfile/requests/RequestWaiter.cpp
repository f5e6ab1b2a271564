#include "playfile/requests/RequestWaiter.h"

#include "host/threads/PlainMutex.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/ClipMedia.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

RequestWaiter::~RequestWaiter() { detachProxy(); }

eClipRead RequestWaiter::readVideo(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame,
                                   eResultType resultType, const DecodeFormat& format) {
    const eClipRead rc = ClipMedia().videoReadRequest(request, material, frame, resultType, format, getProxy());
    if (rc == eClipRead::kVideoQueued && request) queued(request->getStatus());
    return rc;
}

eClipRead RequestWaiter::readAudio(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                                   uint32_t count, eProxyLevel level, bool noOffset) {
    eClipRead rc = ClipMedia().audioReadRequest(request, material, sample, count, level, getProxy(), noOffset);
    if (rc == eClipRead::kAudioCreated && !queue(request)) rc = eClipRead::kNotAvailable;
    return rc;
}

namespace {

// Queues a request made by hand on its file's queue; false when the file refused it.
template <class Request> bool queueOnItsFile(Zn::Ptr<Request>& request) {
    if (!request || !request->getFile()) return false;
    Zn::Ptr<FileReadInstance> file = request->getFile();
    return file->queueReadRequest(request, false);
}

} // namespace

bool RequestWaiter::queue(Zn::Ptr<VideoReadRequest>& request) {
    if (!queueOnItsFile(request)) return false;
    queued(request->getStatus());
    return true;
}

bool RequestWaiter::queue(Zn::Ptr<AudioReadRequest>& request) {
    if (!queueOnItsFile(request)) return false;
    queued(request->getStatus());
    return true;
}

void RequestWaiter::queued(RequestStatus held) {
    if (held == RequestStatus::Failed) end(nullptr, RequestStatus::Failed);
}

void RequestWaiter::readRequestComplete(Zn::Ptr<iObject>& result, RequestStatus status) { end(result, status); }

void RequestWaiter::end(Zn::Ptr<iObject> result, RequestStatus status) {
    PlainMutex::Lock lock(mutex_);
    if (finished_) return; // the first end counts
    result_ = std::move(result);
    status_ = status;
    finished_ = true;
    done_.notify_all();
}

bool RequestWaiter::wait(std::chrono::milliseconds limit) {
    PlainMutex::UniqueLock lock(mutex_);
    return done_.wait_for(lock.native(), limit, [&]() REQUIRES(mutex_) { return finished_; });
}

bool RequestWaiter::finished() {
    PlainMutex::Lock lock(mutex_);
    return finished_;
}

RequestStatus RequestWaiter::status() {
    PlainMutex::Lock lock(mutex_);
    return status_;
}

Zn::Ptr<iObject> RequestWaiter::result() {
    PlainMutex::Lock lock(mutex_);
    return result_;
}

void RequestWaiter::reset() {
    PlainMutex::Lock lock(mutex_);
    finished_ = false;
    status_ = RequestStatus::Queued;
    result_ = nullptr;
}
