// RequestWaiter: the issuer for a thread that queues one read and waits for its end. It
// queues the request, looks at the status of the request it then holds, and waits for the
// callback or the failure, whichever the read ends with.
//
// Why the status matters: a video queue that finds an equal request already queued,
// running or finished attaches the new issuer to it and hands the caller that request. A
// request that had already failed calls nobody: the issuer learns of the failure only from
// the status of the request it holds. Every way of queuing below checks that status, so a
// wait never outlasts a failed read. A caller that queues some other way passes the held
// request's status to queued() itself.
//
// One request at a time: reset() readies the waiter for the next. The destructor detaches
// the waiter, so it may go while its request is still queued.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/RequestStatus.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

class AudioReadRequest;
class VideoReadRequest;

// Lock: mutex_ guards finished_, status_ and result_. It is taken inside the callback, so
// with the proxy's lock and perhaps the queue's and the request's locks held; nothing is
// taken under it.
class PLAYFILE_API RequestWaiter : public ReadRequestIssuer {
public:
    RequestWaiter() = default;
    ~RequestWaiter() override;

    // Makes and queues the read of frame of a video material through the play file cache
    // (PlayFileCache::videoReadRequest). Its answer: kVideoQueued, else kNotAvailable,
    // and then there is nothing to wait for.
    int readVideo(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame, eResultType resultType,
                  const DecodeFormat& format);
    // Makes and queues the read of count samples of a sound material's channel from
    // sample (PlayFileCache::audioReadRequest). kAudioCreated when queued, else the
    // cache's answer.
    int readAudio(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample, uint32_t count,
                  eProxyLevel level = kProxyLevelHighRes, bool noOffset = true);
    // Queues a request made by hand on its file's queue; false when the file refused it.
    bool queue(Zn::Ptr<VideoReadRequest>& request);
    bool queue(Zn::Ptr<AudioReadRequest>& request);
    // After queuing by any other means: the status of the request now held. Failed ends
    // the wait at once (nobody will call).
    void queued(RequestStatus held);

    // Waits for the end of the request; false when it did not end within limit.
    bool wait(std::chrono::milliseconds limit);
    bool finished();
    // How the request ended (Queued while it has not), and its result object (a frame
    // buffer for video; null for audio and for a failure learnt from the status).
    RequestStatus status();
    Zn::Ptr<iObject> result();
    // Forgets the last request's end, for the next request.
    void reset();

    void readRequestComplete(Zn::Ptr<iObject>& result, RequestStatus status) override;

private:
    void end(Zn::Ptr<iObject> result, RequestStatus status);

    std::mutex mutex_;
    std::condition_variable done_;
    bool finished_ = false;
    RequestStatus status_ = RequestStatus::Queued;
    Zn::Ptr<iObject> result_;
};
