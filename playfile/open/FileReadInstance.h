// FileReadInstance: one opened media file, ready to serve read requests. Decoder
// back-ends derive from it and supply the decoding; the base owns what every open file
// has (name and metadata through PlayFile, the decode format and open type it was opened
// with, the cache's last-use stamp, a lock for the back-end) and the worker queues its
// requests run on: a video queue when opened for video, an audio queue when opened for
// audio, both taken from the process-wide pools and given back when the instance goes.
//
// Every read operation has a default here, so a back-end overrides only what it can do.
// The defaults of ZnFileIxCache_open, getVideoOrigin, recalculateSize,
// setDecodeOptionValues and the frame-buffer readVideo have no effect (or fail the read),
// so callers may call them on any instance: the outcome is the same as skipping the call
// for a back-end that does not override them.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/configb.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileXferManager.h"
#include "host/media/FrameBufferRep.h"
#include "host/media/GenericParam.h"
#include "host/threads/CriticalSection.h"
#include "playfile/Export.h"
#include "playfile/open/OpenType.h"
#include "playfile/open/PlayFile.h"

#include <atomic>
#include <cstdint>

class AudioReadRequest;
class LoggerHandle;
class VideoReadRequest;
namespace Zn {
class AudioReadQueue;
class VideoReadQueue;
struct FileWriterParams;
} // namespace Zn

class PLAYFILE_API FileReadInstance : public PlayFile {
public:
    // Results of the frame-buffer readVideo. The names are usable unqualified in the
    // class and in back-ends; the type keeps them apart from the audio reader's results.
    enum class eReadResult : int {
        kReadPending = 1, // the back-end completes the request later itself
        kReadDone = 2,    // the frame buffer holds the frame
        kReadFailed = 3,
    };
    using enum eReadResult;
    // extractFiles of a back-end that cannot extract.
    static constexpr eExtractResult kExtractNotSupported = eExtractResult::eExtractNotSupported;

    // Takes the queues the open type needs from the pools (or makes them).
    FileReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type);
    // Gives the queues back to the pools (or releases them once the pools have shut down).
    ~FileReadInstance() override;

    // The one operation every back-end supplies: its name, for log lines and probes.
    virtual String getReaderName() const = 0;

    // A file still being written: re-reads its length. The base does nothing.
    virtual void recalculateSize(unsigned flags, unsigned& newSize);

    // Decode options: what the back-end offers, the values it uses by default, and
    // applying a set of values. The bases offer nothing and apply nothing.
    virtual DecodeOptionList getDecodeOptions(Zn::Ptr<FileReadInstance> self);
    virtual configb getDecodeOptionValues();
    virtual void setDecodeOptionValues(const configb& values);

    // Hands a request to this file's queue. The video form ignores its flag (the audio
    // queue's defers the wake). Without the queue the request fails at once and false is
    // answered.
    virtual bool queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool flag);
    virtual bool queueReadRequest(Zn::Ptr<AudioReadRequest>& request, bool deferWake);

    // Reads one requested frame, on the video queue's thread: has the frame-buffer form
    // fill a new buffer and completes the request by its result.
    virtual void readVideo(Zn::Ptr<VideoReadRequest>& request);
    // The back-end's frame read: stores the frame (or its data) in buffer, which it may
    // replace, and answers how it went. The base answers kReadFailed.
    virtual eReadResult readVideo(Zn::Ptr<FrameBufferRep>& buffer, Zn::Ptr<VideoReadRequest>& request);
    // Reads one audio request, on the audio queue's thread; the reader sets the request's
    // status and calls its issuers. The base does nothing.
    virtual void readAudio(Zn::Ptr<AudioReadRequest>& request);

    // Writes a section of the file to new files; the base answers kExtractNotSupported.
    virtual eExtractResult extractFiles(const WString& destination, const WString& baseName, const Cookie& clip, OpenType type,
                             const Zn::FileWriterParams& params, LoggerHandle& log);

    // Drop finished requests that only the video queue still holds (purge: all of them).
    // Neither touches the audio queue.
    virtual void purge();
    virtual void limitUsage();

    // Merges stored option values over the back-end's defaults (keys the back-end does
    // not know are ignored), applies them and answers the merged set.
    configb initDecodeOptionValues(const configb& stored);

    OpenType getOpenType() const noexcept { return openType_; }
    const DecodeFormat& getDecodeFormat() const noexcept { return format_; }
    // The cache's use stamp: the largest value until the cache first uses the instance.
    uint64_t getLastUse() const noexcept { return lastUse_.load(std::memory_order_relaxed); }
    void setLastUse(uint64_t stamp) noexcept { lastUse_.store(stamp, std::memory_order_relaxed); }
    // The OpenType bits that the reader serving this file can serve; set by the opener.
    uint32_t getCapabilities() const noexcept { return capabilities_.load(std::memory_order_acquire); }
    void setCapabilities(uint32_t bits) noexcept { capabilities_.store(bits, std::memory_order_release); }

    const Zn::Ptr<Zn::VideoReadQueue>& getVideoQueue() const noexcept { return videoQueue_; }
    const Zn::Ptr<Zn::AudioReadQueue>& getAudioQueue() const noexcept { return audioQueue_; }

protected:
    // For the back-end: what it guards, and which locks may be held when it is taken, is
    // the back-end's to say. The base never takes it.
    CriticalSection& getLock() noexcept RETURN_CAPABILITY(lock_) { return lock_; }

private:
    std::atomic<uint64_t> lastUse_;
    CriticalSection lock_;
    std::atomic<uint32_t> capabilities_{0};
    const OpenType openType_;
    const DecodeFormat format_;
    Zn::Ptr<Zn::VideoReadQueue> videoQueue_;
    Zn::Ptr<Zn::AudioReadQueue> audioQueue_;
};
