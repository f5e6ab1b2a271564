// VideoReadRequest: one video frame that one or more issuers want read from an open file.
// It is the decode format the frame is wanted in (its base), the frame number, the frame's
// index entry, the kind of result wanted, the file, and once read the frame buffer. The
// video queue merges equal requests into one object, so several issuers may wait on it;
// they are called once each when it completes, and only then does its status change.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FrameBufferRep.h"
#include "host/media/IndexInfoRep.h"
#include "playfile/Export.h"
#include "playfile/requests/ProxySet.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/RequestStatus.h"

#include <atomic>
#include <cstdint>

class FileReadInstance;

// Threads: the status is atomic, so anyone may read it; a reader that sees Complete or
// Failed knows every issuer waiting at that moment has been called. The proxy set and the
// status change on completion are guarded by the request lock (see ProxySet for its
// order). The result buffer is written by the thread that reads the frame before the
// request completes, and read by others after.
class PLAYFILE_API VideoReadRequest : public DecodeFormat, public virtual iObject {
public:
    VideoReadRequest(Zn::Ptr<FileReadInstance>& file, Zn::Ptr<IndexInfoRep>& indexInfo, unsigned int frame,
                     eResultType resultType, const DecodeFormat& format, Zn::Ptr<ReadRequestIssuer::Proxy> proxy);
    ~VideoReadRequest() override;

    RequestStatus getStatus() const noexcept { return status_.load(std::memory_order_acquire); }
    void setStatus(RequestStatus s) noexcept { status_.store(s, std::memory_order_release); }
    unsigned int getFrame() const noexcept { return frame_; }
    const Zn::Ptr<IndexInfoRep>& getIndexInfo() const noexcept { return indexInfo_; }
    eResultType getResultType() const noexcept { return resultType_; }
    const Zn::Ptr<FileReadInstance>& getFile() const noexcept { return file_; }

    // A new reference to the frame buffer, null until a reader attached one.
    Zn::Ptr<FrameBufferRep> getResultBuffer() const { return resultBuffer_; }
    void setResultBuffer(Zn::Ptr<FrameBufferRep> buffer);

    // The frames one read of this request produces: the index entry's run, else the
    // frame's group when the file stores frames in groups, else the frame itself. Worked
    // out once at construction: the index entry is immutable and the file's grouping is
    // fixed when it is opened.
    void getCoveredFrames(uint32_t& first, uint32_t& last) const {
        first = firstCovered_;
        last = lastCovered_;
    }

    ProxySet& getProxies() noexcept { return proxies_; }

    // Calls every waiting issuer once with result and status, in the calling thread.
    void doCallbacks(Zn::Ptr<iObject>& result, RequestStatus status);
    // Ends the request: decodes the frame buffer when that is wanted and nobody else has
    // claimed it, calls every waiting issuer, then sets the status (Failed when decoding
    // failed). Called by the reader, and by the queue when an issuer joins a request that
    // is already complete.
    void requestHasCompleted(RequestStatus status);

private:
    void coverFrames();
    // Decoding or wrapping of a claimed frame buffer; answers the status to report.
    RequestStatus finishFrameBuffer(FrameBufferRep& buffer, RequestStatus s);

    std::atomic<RequestStatus> status_{RequestStatus::Queued};
    const unsigned int frame_;
    const Zn::Ptr<IndexInfoRep> indexInfo_;
    ProxySet proxies_;
    const eResultType resultType_;
    const Zn::Ptr<FileReadInstance> file_;
    Zn::Ptr<FrameBufferRep> resultBuffer_;
    uint32_t firstCovered_ = 0;
    uint32_t lastCovered_ = 0;
};
