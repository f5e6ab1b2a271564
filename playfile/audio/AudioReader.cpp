#include "playfile/audio/AudioReader.h"

#include "host/media/AudioInterleaver.h"
#include "host/os/Log.h"
#include "playfile/Configuration.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Zn {

namespace {

// Width of one decoded sample of one channel; plain streams are "decoded" as stored.
uint32_t decodedBytes(const Aud::Metadata& m) {
    return m.getBytesPerDecodedSample() ? m.getBytesPerDecodedSample() : m.getBytesPerSample();
}

// Makes sure every buffer of the list can take samples samples, keeping what it holds.
// Only a codec that gives more per block than its stream says makes this copy.
void ensureRoom(Aud::StreamBufferList& buffers, uint32_t samples, uint32_t bytes) {
    for (Aud::StreamBuffer& b : buffers) {
        if (b.getCapacity() >= samples) continue;
        const uint32_t room = std::max(samples, b.getCapacity() * 2);
        Zn::Ptr<iMemHolder> grown(new ByteBufferImpl(room * bytes));
        const uint32_t used = b.getSampleCount() * bytes;
        if (used) std::memcpy(grown->getBuffer(), b.getData(), used);
        grown->setUsed(used);
        b = Aud::StreamBuffer(std::move(grown), b.getChannels(), room, b.getSampleCount(),
                              b.getFlags());
    }
}

} // namespace

AudioReader::AudioReader(const std::vector<Aud::Metadata>& metadata) : metadata_(metadata) {}

AudioReader::~AudioReader() = default;

void AudioReader::readAudio(Zn::Ptr<AudioReadRequest>& request) {
    CriticalSection::Lock guard(getLock());
    AudioReadRequest& r = *request;
    const uint32_t s = r.stream;
    const int playable = PlayfileConfig::numAudioStreamsToPlay();
    eResult code = kFailed;

    if (s >= metadata_.size()) {
        code = kFailed;
    } else if (playable >= 0 && s >= uint32_t(playable)) {
        code = answerWithSilence(r) ? kSuccess : kFailed;
    } else if (contains(r)) {
        r.setResult(getResult(r, decodedBytes(metadata_[s])));
        code = kSuccess;
    } else {
        auto codec = codecs_.find(int32_t(s));
        code = codec != codecs_.end() ? readCompressed(request, s, codec->second)
                                      : readPlain(request, s);
    }

    if (succeeded(code)) {
        r.setStatus(RequestStatus::Complete);
    } else {
        r.setStatus(RequestStatus::Failed);
        Log("** disk read error 0x%x\n", unsigned(code));
    }
    Zn::Ptr<iObject> result(r.getResult().getMemory());
    r.doCallbacks(result);
}

bool AudioReader::answerWithSilence(AudioReadRequest& r) {
    // Shared by every such request and only ever grown, so it is zero-filled once.
    if (r.count > UINT32_MAX / 4) return false;
    if (!silence_.getMemory() || silence_.getCapacity() < r.count) {
        Zn::Ptr<iMemHolder> zeros(new ByteBufferImpl(r.count * 4, true));
        zeros->setUsed(r.count * 4);
        silence_ = Aud::StreamBuffer(std::move(zeros), 1, r.count, r.count, 0);
    }
    r.setResult(silence_);
    return true;
}

AudioReader::eResult AudioReader::readPlain(Zn::Ptr<AudioReadRequest>& request, uint32_t s) {
    Zn::Ptr<ByteBufferImpl> interleaved;
    eResult code = readsAudioByVideoSamples() ? readAudioByVideoSamples(interleaved, request)
                                          : readAudioByAudioSamples(interleaved, request);
    if (!succeeded(code)) return code;
    if (!interleaved) return kFailed;
    // The stream's previous block is written again when nothing but the cache uses it:
    // fresh memory for every span costs more than the split itself.
    const Aud::Metadata& m = metadata_[s];
    const uint32_t perSample = m.getNumChannels() * m.getBytesPerSample();
    Aud::StreamBufferList buffers;
    const bool reused =
        perSample &&
        reclaimBuffers(s, interleaved->getUsed() / perSample * m.getBytesPerSample(), buffers) &&
        AudioInterleaver::deinterleaveInto(m, *interleaved, buffers) == 1;
    if (!reused) {
        buffers.clear();
        if (AudioInterleaver::deinterleaveAudio(m, interleaved, buffers) != 1) return kFailed;
    }
    interleaved.reset(); // the channels have their own copies now
    addBuffers(s, request->start, std::move(buffers));
    request->setResult(getResult(*request, decodedBytes(metadata_[s])));
    return code;
}

AudioReader::eResult AudioReader::readAudioByAudioSamples(Zn::Ptr<ByteBufferImpl>& buffer,
                                         Zn::Ptr<AudioReadRequest>& request) {
    CriticalSection::Lock guard(getLock());
    const AudioReadRequest& r = *request;
    if (r.stream >= metadata_.size()) return kFailed;
    const Aud::Metadata& m = metadata_[r.stream];
    const uint64_t perSample = uint64_t(m.getNumChannels()) * m.getBytesPerSample();
    // Sized by the request's read length (its sample factor), and never below its count.
    const uint64_t bytes = readSlack_ + std::max<uint64_t>(r.getBytesPerMCS(), perSample * r.count);
    if (!perSample || bytes > UINT32_MAX) return kFailed;
    // The read buffer is kept for the next read, and used again once its last reader has
    // let go of it and it is large enough.
    if (!readBuffer_ || readBuffer_.refCount() != 1 || readBuffer_->getSize() < bytes)
        readBuffer_ = Zn::Ptr<ByteBufferImpl>(new ByteBufferImpl(uint32_t(bytes)));
    buffer = readBuffer_;
    buffer->setUsed(0);
    if (r.count == 0) return kSuccess;

    uint32_t done = 0;
    uint64_t position = r.start;
    eResult code;
    for (;;) {
        uint32_t delivered = 0;
        code = readAudioSamples(r.stream, position, r.count - done,
                                buffer->getBuffer() + done * perSample, delivered);
        if (code == kSuccess && delivered == 0) {
            code = kEndedEarly;
            break;
        }
        delivered = std::min(delivered, r.count - done);
        done += delivered;
        position += delivered;
        if (code != kSuccess || done >= r.count) break;
    }
    buffer->setUsed(uint32_t(done * perSample));
    return code;
}

AudioReader::eResult AudioReader::readAudioByVideoSamples(Zn::Ptr<ByteBufferImpl>&, Zn::Ptr<AudioReadRequest>&) {
    return kFailed;
}

AudioReader::eResult AudioReader::readAudioSamples(uint32_t, uint64_t, uint32_t, uint8_t*, uint32_t& delivered) {
    delivered = 0;
    return kFailed;
}

AudioReader::eResult AudioReader::readAudioBlock(uint32_t, uint64_t, std::vector<uint8_t>&) {
    return kFailed;
}

bool AudioReader::initAudioCodec(unsigned int stream, const Zn::Ptr<iMemHolder>& header) {
    CriticalSection::Lock guard(getLock());
    if (stream >= metadata_.size()) return false;
    Zn::Ptr<AudioCodecInstance> codec = AudioDecoderInfo::getDecodersFor(metadata_[stream], header);
    if (!codec) return false;
    codecs_[int32_t(stream)] = std::move(codec);
    lastBlock_[int32_t(stream)] = kNoBlock;
    return true;
}

bool AudioReader::isCompressed(unsigned int stream) {
    CriticalSection::Lock guard(getLock());
    return codecs_.count(int32_t(stream)) != 0;
}

Zn::Ptr<AudioCodecInstance> AudioReader::getCodec(unsigned int stream) {
    CriticalSection::Lock guard(getLock());
    auto it = codecs_.find(int32_t(stream));
    return it == codecs_.end() ? nullptr : it->second;
}

void AudioReader::createOutputBuffers(unsigned int blocks, const Aud::Metadata& stream,
                                      Aud::StreamBufferList& list) {
    const uint32_t samples = blocks * stream.getSamplesPerBlock();
    for (uint32_t c = 0; c < stream.getNumChannels(); ++c)
        list.add(Aud::StreamBuffer(
            Zn::Ptr<iMemHolder>(new ByteBufferImpl(samples * decodedBytes(stream))), 1, samples,
            0));
}

AudioReader::eResult AudioReader::readCompressed(Zn::Ptr<AudioReadRequest>& request, uint32_t s,
                                const Zn::Ptr<AudioCodecInstance>& codec) {
    const Aud::Metadata& m = metadata_[s];
    const uint32_t perBlock = m.getSamplesPerBlock();
    if (!perBlock || !m.getNumChannels()) return kFailed;
    const AudioReadRequest& r = *request;
    // The block whose output holds the request's first sample: the codec's output runs
    // its delay behind the stream's positions.
    const uint32_t delay = codec->getDelaySamples();
    const uint64_t firstBlock = (r.start + delay) / perBlock;
    // Room for the span from the start of that block, and for the one block that the
    // last step may give beyond the span's end.
    Aud::StreamBufferList buffers;
    createOutputBuffers(unsigned((uint64_t(r.count) + delay) / perBlock + 3), m, buffers);
    const eResult code = codec->producesInterleaved()
                         ? readCompressedAudioInterleaved(firstBlock, buffers, request)
                         : readCompressedAudio(firstBlock, buffers, request);
    const int64_t start = std::exchange(storeFrom_, kStoreNothing);
    if (code != kSuccess) return code;
    addBuffers(s, uint64_t(start), std::move(buffers));
    request->setResult(getResult(r, decodedBytes(m)));
    return kSuccess;
}

AudioReader::eResult AudioReader::readCompressedAudio(uint64_t firstBlock, Aud::StreamBufferList& buffers,
                                     Zn::Ptr<AudioReadRequest>& request) {
    CriticalSection::Lock guard(getLock());
    return decodeBlocks(firstBlock, buffers, *request, false);
}

AudioReader::eResult AudioReader::readCompressedAudioInterleaved(uint64_t firstBlock, Aud::StreamBufferList& buffers,
                                                Zn::Ptr<AudioReadRequest>& request) {
    CriticalSection::Lock guard(getLock());
    return decodeBlocks(firstBlock, buffers, *request, true);
}

bool AudioReader::continuesCachedBlock(int s, const AudioRequest& r, uint64_t& cachedEnd) {
    uint64_t start;
    uint32_t count;
    if (!cachedSpan(uint32_t(s), start, count)) return false;
    cachedEnd = start + count;
    auto next = nextPosition_.find(s);
    return next != nextPosition_.end() && next->second >= 0 &&
           uint64_t(next->second) == cachedEnd && r.start >= start && r.start < cachedEnd;
}

void AudioReader::seedFromCache(const AudioRequest& r, uint64_t cachedEnd, uint32_t bytes,
                                Aud::StreamBufferList& buffers) {
    const uint32_t tail = uint32_t(cachedEnd - r.start);
    ensureRoom(buffers, tail, bytes);
    AudioRequest part = r;
    for (uint32_t c = 0; c < buffers.size(); ++c) {
        part.channel = c;
        Aud::StreamBuffer from = getResult(part, bytes);
        Aud::StreamBuffer& to = buffers[c];
        if (from.getData()) std::memcpy(to.getData(), from.getData(), size_t(tail) * bytes);
        to.setSampleCount(tail);
    }
    buffers.setSampleCount(tail);
}

void AudioReader::forgetCodecState(int s) {
    auto codec = codecs_.find(s);
    if (codec != codecs_.end()) codec->second->resetToStart();
    lastBlock_[s] = kNoBlock;
}

namespace {
// Empties the buffers (keeping their memory) for a decode to fill from the start.
void clearBuffers(Aud::StreamBufferList& buffers) {
    for (Aud::StreamBuffer& b : buffers)
        b.setSampleCount(0);
    buffers.setSampleCount(0);
}
} // namespace

AudioReader::eResult AudioReader::decodeBlocks(uint64_t firstBlock, Aud::StreamBufferList& buffers,
                              AudioReadRequest& r, bool interleaved) {
    const int s = int(r.stream);
    auto found = codecs_.find(s);
    if (found == codecs_.end() || r.stream >= metadata_.size()) return kFailed;
    const Aud::Metadata& m = metadata_[r.stream];
    if (!m.getSamplesPerBlock()) return kFailed;
    clearBuffers(buffers);

    eResult code = positionCodec(s, *found->second, r, firstBlock, buffers, interleaved);
    if (code != kSuccess) return code;
    code = decodeUntilFilled(s, firstBlock, r.start + r.count, buffers, interleaved);

    const uint32_t total = buffers.getSampleCount();
    if (total == 0 || !succeeded(code)) forgetCodecState(s);
    if (total == 0) return kFailed;
    const uint32_t bytes = decodedBytes(m);
    for (Aud::StreamBuffer& b : buffers) {
        b.setSampleCount(total);
        b.getMemory()->setUsed(total * bytes);
    }
    return kSuccess;
}

AudioReader::eResult AudioReader::positionCodec(int s, AudioCodecInstance& codec, const AudioRequest& r,
                               uint64_t& firstBlock, Aud::StreamBufferList& buffers,
                               bool interleaved) {
    const uint32_t perBlock = metadata_[uint32_t(s)].getSamplesPerBlock();
    const int64_t delay = codec.getDelaySamples();
    auto lastIt = lastBlock_.find(s);
    const uint64_t last = lastIt == lastBlock_.end() ? kNoBlock : lastIt->second;
    int64_t& next = nextPosition_[s];

    // A request that starts inside the cached block, where the codec stands right after
    // it, continues from the codec's next block: the cached tail is carried over, so reads
    // that do not end on a block boundary still decode on without a reset.
    uint64_t cachedEnd = 0;
    if (last != kNoBlock && continuesCachedBlock(s, r, cachedEnd)) {
        firstBlock = last + 1;
        storeFrom_ = int64_t(r.start);
        seedFromCache(r, cachedEnd, decodedBytes(metadata_[uint32_t(s)]), buffers);
        return kSuccess;
    }
    if (codec.getPrimingBlocks() != 0 && firstBlock != 0 && last + 1 != firstBlock) {
        const eResult code = prerollBefore(s, codec, firstBlock, buffers, interleaved);
        if (code != kSuccess) return code;
        // Whatever the pre-roll gave, firstBlock's output starts here.
        next = int64_t(firstBlock * perBlock) - delay;
    } else if (firstBlock == 0) {
        if (last != kNoBlock) codec.resetToStart();
        next = -delay;
    } else if (last + 1 != firstBlock) {
        // A codec without priming is used as it stands for a jump: its blocks decode on
        // their own. Only the position moves.
        next = int64_t(firstBlock * perBlock) - delay;
    }
    storeFrom_ = std::max<int64_t>(next, 0);
    return kSuccess;
}

AudioReader::eResult AudioReader::prerollBefore(int s, AudioCodecInstance& codec, uint64_t firstBlock,
                               Aud::StreamBufferList& buffers, bool interleaved) {
    // A jump: reset, then decode the priming blocks before firstBlock and throw their
    // output away (nothing is kept while storeFrom_ is kStoreNothing).
    codec.resetToStart();
    const uint32_t perBlock = metadata_[uint32_t(s)].getSamplesPerBlock();
    const uint64_t from = firstBlock - std::min<uint64_t>(codec.getPrimingBlocks(), firstBlock);
    nextPosition_[s] = int64_t(from * perBlock) - codec.getDelaySamples();
    storeFrom_ = kStoreNothing;
    eResult code = kSuccess;
    for (uint64_t b = from; b < firstBlock && code == kSuccess; ++b) {
        uint32_t produced = 0;
        code = decodeStep(s, b, buffers, produced, interleaved);
    }
    clearBuffers(buffers);
    if (code != kSuccess) {
        forgetCodecState(s);
        return code;
    }
    lastBlock_[s] = firstBlock - 1;
    return kSuccess;
}

AudioReader::eResult AudioReader::decodeUntilFilled(int s, uint64_t firstBlock, uint64_t wantedEnd,
                                   Aud::StreamBufferList& buffers, bool interleaved) {
    // A block that gives nothing is offered again. Nine steps in a row that add nothing
    // to the buffers end the read: with nothing kept at all, as a failure.
    uint64_t block = firstBlock;
    eResult code = kSuccess;
    unsigned idleSteps = 0;
    for (;;) {
        const uint32_t before = buffers.getSampleCount();
        uint32_t produced = 0;
        code = decodeStep(s, block, buffers, produced, interleaved);
        lastBlock_[s] = block;
        if (produced) ++block;
        const uint32_t total = buffers.getSampleCount();
        idleSteps = total == before ? idleSteps + 1 : 0;
        if (idleSteps > 8) break;
        if (uint64_t(storeFrom_) + total >= wantedEnd || code != kSuccess) break;
    }
    return code;
}

AudioReader::eResult AudioReader::decodeStep(int s, uint64_t block, Aud::StreamBufferList& buffers,
                            uint32_t& produced, bool interleaved) {
    produced = 0;
    auto found = codecs_.find(s);
    if (found == codecs_.end()) return kFailed;
    AudioCodecInstance& codec = *found->second;
    eResult code = readAudioBlock(uint32_t(s), block, block_);
    if (code != kSuccess) return code;
    uint32_t samples = 0;
    code = codec.decodeAudioStream(block_.data(), uint32_t(block_.size()), samples);
    if (!succeeded(code)) return code;
    produced = samples;
    int64_t& next = nextPosition_[s];
    const int64_t at = next;
    next += samples;
    if (!samples || storeFrom_ == kStoreNothing) return code;

    // Keep what lies at or after the end of what the buffers hold: the encoder's priming
    // (before position 0) and anything before the read's start are skipped.
    const Aud::Metadata& m = metadata_[uint32_t(s)];
    const uint32_t bytes = decodedBytes(m);
    const uint32_t channels = m.getNumChannels();
    const uint32_t held = buffers.getSampleCount();
    const int64_t heldEnd = storeFrom_ + held;
    if (at + samples <= heldEnd) return code;
    if (at > heldEnd) return kFailed; // a gap: the codec's output does not join up
    if (channels > buffers.size()) return kFailed;
    const uint32_t skip = uint32_t(heldEnd - at);
    const uint32_t keep = samples - skip;
    ensureRoom(buffers, held + keep, bytes);
    channelAt_.resize(channels);
    for (uint32_t c = 0; c < channels; ++c)
        channelAt_[c] = buffers[c].getData() + size_t(held) * bytes;
    if (interleaved) {
        AudioInterleaver::deinterleave(codec.getOutput(0) + size_t(skip) * channels * bytes,
                                       channels, bytes, keep, channelAt_.data());
    } else {
        for (uint32_t c = 0; c < channels; ++c)
            std::memcpy(channelAt_[c], codec.getOutput(c) + size_t(skip) * bytes,
                        size_t(keep) * bytes);
    }
    for (uint32_t c = 0; c < channels; ++c)
        buffers[c].setSampleCount(held + keep);
    buffers.setSampleCount(held + keep);
    return code;
}

} // namespace Zn
