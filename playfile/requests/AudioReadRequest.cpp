#include "playfile/requests/AudioReadRequest.h"

#include "playfile/open/FileReadInstance.h"

AudioReadRequest::AudioReadRequest(Zn::Ptr<FileReadInstance>& file, const AudioRequest& request,
                                   unsigned int sampleFactor, Zn::Ptr<ReadRequestIssuer::Proxy> proxy)
    : AudioRequest(request), file_(file), sampleFactor_(sampleFactor) {
    proxies_.insert(proxy);
}

AudioReadRequest::~AudioReadRequest() = default;

uint8_t* AudioReadRequest::getBuffer() const { return result_.getData(); }

uint32_t AudioReadRequest::getUsed() const { return result_.getUsedBytes(); }

const std::vector<Aud::Metadata>& AudioReadRequest::getAudioMetadata() const {
    static const std::vector<Aud::Metadata> none;
    return file_ ? file_->getMetadata()->getAudioMetadata() : none;
}

const Aud::Metadata* AudioReadRequest::streamMetadata() const {
    const auto& all = getAudioMetadata();
    return stream < all.size() ? &all[stream] : nullptr;
}

uint64_t AudioReadRequest::getStartByte() const {
    const Aud::Metadata* m = streamMetadata();
    return m ? uint64_t(m->getNumChannels()) * m->getBytesPerSample() * start : 0;
}

uint32_t AudioReadRequest::getBytesPerMCS() const {
    const Aud::Metadata* m = streamMetadata();
    return m ? m->getNumChannels() * m->getBytesPerSample() * sampleFactor_ : 0;
}

uint32_t AudioReadRequest::getChannelIndex() const {
    const Aud::Metadata* m = streamMetadata();
    return stream * (m ? m->getNumChannels() : 0) + channel;
}

void AudioReadRequest::doCallbacks(Zn::Ptr<iObject>& result) {
    RequestStatus status = getStatus();
    proxies_.deliver(result, status, [] {});
}
