// AudioRequest and AudioReadRequest: one run of samples of one channel of one audio stream
// that an issuer wants read from an open file. The audio queue orders these requests by
// start position and channel; the file's audio reader fills the result, sets the status
// and calls the issuers.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/AudioMetadata.h"
#include "host/media/StreamBuffer.h"
#include "playfile/Export.h"
#include "playfile/requests/ProxySet.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/RequestStatus.h"

#include <atomic>
#include <cstdint>
#include <vector>

class FileReadInstance;

// The caller's description of an audio read.
struct AudioRequest {
    uint32_t stream = 0;  // audio stream index within the file
    uint32_t channel = 0; // channel within that stream
    uint64_t tag = 0;     // carried unchanged for the caller
    uint64_t start = 0;   // first wanted multi-channel sample
    uint32_t count = 0;   // samples wanted
};

// Threads: the status is atomic. The result is written by the reader on the audio queue's
// thread before the status changes and the issuers are called, and read by others after.
// The proxy set is guarded by the request lock (see ProxySet).
class PLAYFILE_API AudioReadRequest : public iObject, public AudioRequest {
public:
    AudioReadRequest(Zn::Ptr<FileReadInstance>& file, const AudioRequest& request, unsigned int sampleFactor,
                     Zn::Ptr<ReadRequestIssuer::Proxy> proxy);
    ~AudioReadRequest() override;

    RequestStatus getStatus() const noexcept { return status_.load(std::memory_order_acquire); }
    void setStatus(RequestStatus s) noexcept { status_.store(s, std::memory_order_release); }
    const Zn::Ptr<FileReadInstance>& getFile() const noexcept { return file_; }
    unsigned int getSampleFactor() const noexcept { return sampleFactor_; }

    // The samples read: the result buffer's data (null while it has no storage) and its
    // used bytes (0 without storage).
    uint8_t* getBuffer() const;
    uint32_t getUsed() const;
    const Aud::StreamBuffer& getResult() const noexcept { return result_; }
    void setResult(const Aud::StreamBuffer& b) { result_ = b; }

    // The file's audio streams, one entry each.
    const std::vector<Aud::Metadata>& getAudioMetadata() const;
    // With n channels and b bytes per sample in the request's stream: the byte offset of
    // the first wanted sample in the stream's interleaved data (n * b * start, 64-bit),
    // bytes per multi-channel sample times the sample factor (32-bit), and the channel's
    // flat index stream * n + channel. The last multiplies by the request's own stream's
    // channel count on purpose: the queue and the channel cache key on exactly this value.
    uint64_t getStartByte() const;
    uint32_t getBytesPerMCS() const;
    uint32_t getChannelIndex() const;

    ProxySet& getProxies() noexcept { return proxies_; }
    // Calls every waiting issuer once with result and the request's status (read once).
    void doCallbacks(Zn::Ptr<iObject>& result);

private:
    const Aud::Metadata* streamMetadata() const;

    ProxySet proxies_;
    const Zn::Ptr<FileReadInstance> file_;
    Aud::StreamBuffer result_;
    const unsigned int sampleFactor_;
    std::atomic<RequestStatus> status_{RequestStatus::Queued};
};
