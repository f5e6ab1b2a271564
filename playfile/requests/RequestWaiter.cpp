#include "playfile/requests/RequestWaiter.h"

#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

RequestWaiter::~RequestWaiter() { detachProxy(); }

int RequestWaiter::readVideo(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame,
                             eResultType resultType, const DecodeFormat& format) {
    const int rc =
        PlayFileCache::Shared().videoReadRequest(request, material, frame, false, resultType, format, getProxy());
    if (rc == PlayFileCache::kVideoQueued && request) queued(request->getStatus());
    return rc;
}

int RequestWaiter::readAudio(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                             uint32_t count, eProxyLevel level, bool noOffset) {
    int rc = PlayFileCache::Shared().audioReadRequest(request, material, (unsigned long)sample, count, level,
                                                      getProxy(), noOffset);
    if (rc == PlayFileCache::kAudioCreated && !queue(request)) rc = PlayFileCache::kNotAvailable;
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
    std::lock_guard<std::mutex> lock(mutex_);
    if (finished_) return; // the first end counts
    result_ = std::move(result);
    status_ = status;
    finished_ = true;
    done_.notify_all();
}

bool RequestWaiter::wait(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, limit, [&] { return finished_; });
}

bool RequestWaiter::finished() {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
}

RequestStatus RequestWaiter::status() {
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
}

Zn::Ptr<iObject> RequestWaiter::result() {
    std::lock_guard<std::mutex> lock(mutex_);
    return result_;
}

void RequestWaiter::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    finished_ = false;
    status_ = RequestStatus::Queued;
    result_ = nullptr;
}
