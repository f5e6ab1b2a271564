// StreamingDecodeReader: a file read instance for back-ends whose video decodes most
// cheaply a run of frames at a time (long-GOP codecs). A read that misses hands the run
// holding the frame to a "Decode" thread of the reader's own and answers at once with the
// frame's surface, which completes when the thread has decoded it; later reads of frames
// in the same run (or in the run before it) are served from it without another decode.
// Files whose frames are not grouped are read synchronously through the same back-end
// operation, on the video queue's thread.
//
// A back-end supplies the decode operation and, before the first read, its stream
// metadata (a flag for fixed-size groups and the group size; a group size of 2 or more
// turns streaming on) and, for runs of varying length, a frame-range handler. Its
// destructor calls endStreamDecode(), because the thread calls the decode operation.
#pragma once

#include "host/media/FrameBufferRep.h"
#include "host/media/VariableFrameRateHandler.h"
#include "host/threads/BasicThread.h"
#include "host/threads/Mutex.h"
#include "host/threads/ThreadEvent.h"
#include "playfile/Export.h"
#include "playfile/open/FileReadInstance.h"

#include <cstdint>

class VideoReadRequest;

// Locks. slotLock_ guards the two slots (decodingSlot_, currentSlot_). It is taken by the
// video queue's thread in readVideoStreaming and by the decode thread to take a reference
// to the decoding slot; no other lock of the library is held when it is taken, and it is
// never held while waiting for the done event or for a surface. The frame-range handler is
// called under it, so a handler may take only leaf locks of its own. The synchronous path
// uses the FileReadInstance lock instead, around the decode operation.
//
// The events, the lock and the thread exist from beginStreamDecode to endStreamDecode;
// the handler and stream metadata are set by the back-end before reads start and not
// changed while they run. endStreamDecode must not run at the same time as a read (it is
// meant for the back-end's destructor).
class PLAYFILE_API StreamingDecodeReader : public FileReadInstance, public BasicThread {
public:
    // What the reader needs to know of the back-end's video stream.
    class StreamMetadata : public iObject {
    public:
        StreamMetadata(bool grouped, uint16_t groupSize) noexcept : grouped_(grouped), groupSize_(groupSize) {}
        // Frames stored in groups of exactly getGroupSize() frames, group n starting at
        // frame n * getGroupSize().
        bool framesAreGrouped() const noexcept { return grouped_; }
        uint16_t getGroupSize() const noexcept { return groupSize_; }

    private:
        const bool grouped_;
        const uint16_t groupSize_;
    };

    StreamingDecodeReader(const WString& fileName, const DecodeFormat& format, OpenType type);
    // Ends the thread if the back-end did not (safe only while no decode pass runs).
    ~StreamingDecodeReader() override;

    // The frame-buffer read of FileReadInstance: streams when the stream metadata has a
    // group size of 2 or more, else decodes synchronously.
    eReadResult readVideo(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) override;
    using FileReadInstance::readVideo;

    void beginStreamDecode();
    void endStreamDecode();

    // True when slot holds frame.
    static bool framePresent(const Zn::Ptr<FrameBufferRep>& slot, unsigned frame);

protected:
    // The back-end's decode: fill buffer from frame on (a streaming buffer: every frame of
    // its run, each surface set or failed as it is done, the last one always finished; a
    // one-frame buffer on the synchronous path: the frame or its data). Answers the
    // FileReadInstance read result (kReadDone, kReadPending, anything else failed).
    virtual eReadResult decodeFrames(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame) = 0;
    virtual eReadResult readVideoStreaming(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request);
    void threadFn() override;

    void setFrameRangeHandler(Zn::Ptr<iVariableFrameRateHandler> handler) { handler_ = std::move(handler); }
    void setStreamMetadata(Zn::Ptr<StreamMetadata> metadata) { streamMetadata_ = std::move(metadata); }
    const Zn::Ptr<StreamMetadata>& getStreamMetadata() const noexcept { return streamMetadata_; }
    // True while the decode thread exists.
    bool isStreaming() const noexcept { return wakeEvent_ != nullptr; }

private:
    Zn::Ptr<iVariableFrameRateHandler> handler_;
    Zn::Ptr<iThreadEvent> wakeEvent_; // auto-reset: starts a decoding pass
    Zn::Ptr<iThreadEvent> doneEvent_; // manual-reset: clear while a pass runs
    Zn::Ptr<FrameBufferRep> decodingSlot_ GUARDED_BY(slotLock_);
    Zn::Ptr<FrameBufferRep> currentSlot_ GUARDED_BY(slotLock_);
    // The decode thread's own (no lock): the slot of its last pass, which is never decoded
    // twice, as its surfaces may only be written until they complete.
    Zn::Ptr<FrameBufferRep> decodedSlot_;
    Zn::Ptr<StreamMetadata> streamMetadata_;
    Zn::Ptr<iCriticalSection> slotLock_;
};
