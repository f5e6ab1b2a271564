// An issuer of read requests that records its callbacks, for tests to wait for and look at.
#pragma once

#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/VideoReadRequest.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace testing_support {

// Records its callbacks. watch() names a request whose status the callback notes, to see
// what a reader of the status would see at that moment.
class RecordingIssuer : public ReadRequestIssuer {
public:
    ~RecordingIssuer() override { detachProxy(); }

    void readRequestComplete(Zn::Ptr<iObject>& result, RequestStatus status) override {
        locked([&] {
            ++calls_, status_ = status, result_ = result, thread_ = std::this_thread::get_id();
            if (watched_) statusAtCall_ = watched_->getStatus();
            cv_.notify_all();
        });
    }

    bool waitForCalls(int n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> l(m_);
        return cv_.wait_for(l, timeout, [&] { return calls_ >= n; });
    }
    int calls() { return locked([&] { return calls_; }); }
    RequestStatus status() { return locked([&] { return status_; }); }
    Zn::Ptr<FrameBufferRep> buffer() { return locked([&] { return Zn::dynamicPtrCast<FrameBufferRep>(result_); }); }
    std::thread::id thread() { return locked([&] { return thread_; }); }
    void watch(VideoReadRequest* r) { locked([&] { watched_ = r; }); }
    RequestStatus statusAtCall() { return locked([&] { return statusAtCall_; }); }

private:
    template <class F> auto locked(F f) -> decltype(f()) {
        std::lock_guard<std::mutex> l(m_);
        return f();
    }
    std::mutex m_;
    std::condition_variable cv_;
    int calls_ = 0;
    RequestStatus status_ = RequestStatus::Queued;
    RequestStatus statusAtCall_ = RequestStatus::Queued;
    Zn::Ptr<iObject> result_;
    std::thread::id thread_;
    VideoReadRequest* watched_ = nullptr;
};

} // namespace testing_support
