// Zn::AudioReader: turns one AudioReadRequest (one channel of one audio stream, a start
// position and a sample count) into a finished result. It reads all channels of the
// stream at once (plain samples) or decodes the compressed blocks that cover the span
// (through the stream's Zn::AudioCodecInstance), keeps the per-channel result in its
// channel cache, answers the request from there, sets its status and calls its issuers.
//
// A back-end derives from FileReadInstance and from this class, supplies the raw reads
// (readAudioSamples for plain streams, readAudioBlock for compressed ones), makes the
// codecs of its compressed streams with initAudioCodec, and has its readAudio call
// Zn::AudioReader::readAudio. It runs on the file's audio queue thread.
//
// Results (eAudioResult): kSuccess; kEndedEarly, the data ended before the request was
// filled (also success: what was read is delivered); anything else failure.
#pragma once

#include "host/media/AudioDecoderInfo.h"
#include "host/media/AudioMetadata.h"
#include "host/media/MemHolder.h"
#include "host/media/StreamBuffer.h"
#include "playfile/Export.h"
#include "playfile/audio/AudioChannelCache.h"
#include "playfile/requests/AudioReadRequest.h"

#include <cstdint>
#include <map>
#include <vector>

namespace Zn {

// Lock: the channel cache's lock (see AudioChannelCache) is this reader's lock. readAudio
// holds it from start to end, the issuers' callbacks included, and it guards every field
// below as well as the cache. An issuer must therefore not wait, inside its callback, for
// another request of the same file. The raw reads and the codecs are called under it.
// It may be taken with no other lock of the library held (the audio queue's lock is never
// held while reading); taken under it: each request's lock, the codec registry's lock.
class PLAYFILE_API AudioReader : public AudioChannelCache {
public:
    // The results of every read and decode step (see eAudioResult), usable unqualified
    // here and in back-ends.
    using eResult = eAudioResult;
    using enum eAudioResult;
    // lastBlock of a stream whose codec has decoded nothing since it was made or reset.
    static constexpr uint64_t kNoBlock = ~uint64_t(0);
    static constexpr uint32_t kDefaultReadSlack = 512;

    // metadata is the file's list of audio streams; it must outlive the reader.
    explicit AudioReader(const std::vector<Aud::Metadata>& metadata);
    ~AudioReader() override;

    // The whole request: silence for streams that are not played, the cached block when
    // it holds the span, else a read or decode of the span. Always ends with the
    // request Complete or Failed and its issuers called.
    void readAudio(Zn::Ptr<AudioReadRequest>& request);

    // Makes the stream's codec from the registry, given the codec's set-up bytes; from
    // then on the stream is read as compressed blocks. False when the stream does not
    // exist or no registered factory makes a codec for it.
    bool initAudioCodec(unsigned int stream, const Zn::Ptr<iMemHolder>& header);
    bool isCompressed(unsigned int stream);
    // The stream's codec, or null for a plain stream.
    Zn::Ptr<AudioCodecInstance> getCodec(unsigned int stream);

    // Plain read of the request's samples, all channels interleaved, into a new buffer
    // of readSlack bytes more than the read needs. Answers a result code.
    eResult readAudioByAudioSamples(Zn::Ptr<ByteBufferImpl>& buffer,
                                Zn::Ptr<AudioReadRequest>& request);
    // For files whose audio must be read by video frames: a back-end that answers true
    // from readsAudioByVideoSamples overrides this too; it is then used instead of
    // readAudioByAudioSamples. The base does nothing and answers kFailed.
    virtual bool readsAudioByVideoSamples() const { return false; }
    virtual eResult readAudioByVideoSamples(Zn::Ptr<ByteBufferImpl>& buffer,
                                        Zn::Ptr<AudioReadRequest>& request);

    // Appends to list one empty buffer per channel of the stream, each with room for
    // blocks x samples per block decoded samples.
    static void createOutputBuffers(unsigned int blocks, const Aud::Metadata& stream,
                                    Aud::StreamBufferList& list);

    // Decode the blocks from firstBlock on into buffers until they hold the request's
    // span, with the codec's output in separate channels or interleaved. The buffers'
    // first sample is at position getOutputStart() afterwards. Answer 1, or the failing
    // step's code (0 when the codec gave nothing for nine steps).
    eResult readCompressedAudio(uint64_t firstBlock, Aud::StreamBufferList& buffers,
                            Zn::Ptr<AudioReadRequest>& request);
    eResult readCompressedAudioInterleaved(uint64_t firstBlock, Aud::StreamBufferList& buffers,
                                       Zn::Ptr<AudioReadRequest>& request);
    int64_t getOutputStart() noexcept REQUIRES(getLock()) { return storeFrom_; }

    uint32_t getReadSlack() noexcept {
        CriticalSection::Lock guard(getLock());
        return readSlack_;
    }
    void setReadSlack(uint32_t bytes) noexcept {
        CriticalSection::Lock guard(getLock());
        readSlack_ = bytes;
    }

protected:
    // The file's raw sample read: up to samples multi-channel samples of the stream from
    // position on, interleaved, into the buffer; delivered says how many came. Answers 1
    // on success (delivering none means the data has ended). The base answers kFailed.
    virtual eResult readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples,
                                 uint8_t* into, uint32_t& delivered);
    // The file's compressed block read: the bytes of block number block of the stream,
    // into data (resized to fit; kept between calls, so its storage is reused). Answers 1,
    // 11 when the stream has no such block, anything else on failure. The base answers
    // kFailed.
    virtual eResult readAudioBlock(uint32_t stream, uint64_t block, std::vector<uint8_t>& data);

private:
    eResult readPlain(Zn::Ptr<AudioReadRequest>& request, uint32_t s) REQUIRES(getLock());
    eResult readCompressed(Zn::Ptr<AudioReadRequest>& request, uint32_t s,
                       const Zn::Ptr<AudioCodecInstance>& codec) REQUIRES(getLock());
    bool answerWithSilence(AudioReadRequest& request) REQUIRES(getLock());
    // The compressed read's steps: position the codec for firstBlock (which a read that
    // continues the cached block moves on), decode until the buffers hold the request's
    // span, and leave the buffers' sample counts and used sizes set.
    eResult decodeBlocks(uint64_t firstBlock, Aud::StreamBufferList& buffers, AudioReadRequest& request,
                     bool interleaved) REQUIRES(getLock());
    eResult positionCodec(int s, AudioCodecInstance& codec, const AudioRequest& request,
                      uint64_t& firstBlock, Aud::StreamBufferList& buffers, bool interleaved) REQUIRES(getLock());
    // Resets the codec and decodes, unkept, the priming blocks before firstBlock.
    eResult prerollBefore(int s, AudioCodecInstance& codec, uint64_t firstBlock,
                      Aud::StreamBufferList& buffers, bool interleaved) REQUIRES(getLock());
    eResult decodeUntilFilled(int s, uint64_t firstBlock, uint64_t wantedEnd,
                          Aud::StreamBufferList& buffers, bool interleaved) REQUIRES(getLock());
    // One decoding step: reads block of stream s, decodes it and appends what falls at or
    // after getOutputStart() to the buffers. produced is what the codec gave (0: the block
    // was not taken and must be offered again). Answers the read's or codec's code.
    eResult decodeStep(int s, uint64_t block, Aud::StreamBufferList& buffers, uint32_t& produced,
                   bool interleaved) REQUIRES(getLock());
    bool continuesCachedBlock(int s, const AudioRequest& request, uint64_t& cachedEnd) REQUIRES(getLock());
    void seedFromCache(const AudioRequest& request, uint64_t cachedEnd, uint32_t bytes,
                       Aud::StreamBufferList& buffers) REQUIRES(getLock());
    void forgetCodecState(int s) REQUIRES(getLock());

    const std::vector<Aud::Metadata>& metadata_;
    std::map<int32_t, uint64_t> lastBlock_ GUARDED_BY(getLock());
    std::map<int32_t, Zn::Ptr<AudioCodecInstance>> codecs_ GUARDED_BY(getLock());
    // Per compressed stream: the position of the next sample the codec will give (negative
    // while it gives the encoder's priming). Meaningful while lastBlock is not kNoBlock,
    // and set whenever decoding is (re)started at a block.
    std::map<int32_t, int64_t> nextPosition_ GUARDED_BY(getLock());
    uint32_t readSlack_ GUARDED_BY(getLock()) = kDefaultReadSlack;
    Zn::Ptr<ByteBufferImpl> readBuffer_ GUARDED_BY(getLock()); // the last plain read's buffer, kept for the next
    Aud::StreamBuffer silence_ GUARDED_BY(getLock());

    // State of the decode under way: the position of the buffers' first sample, decoded
    // samples before which are not kept (none are kept while it is kStoreNothing).
    static constexpr int64_t kStoreNothing = INT64_MAX;
    int64_t storeFrom_ GUARDED_BY(getLock()) = kStoreNothing;
    std::vector<uint8_t> block_ GUARDED_BY(getLock());      // compressed bytes of the current block
    std::vector<uint8_t*> channelAt_ GUARDED_BY(getLock()); // where each channel's next sample goes
};

} // namespace Zn
