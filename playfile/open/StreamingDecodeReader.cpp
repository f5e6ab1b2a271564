#include "playfile/open/StreamingDecodeReader.h"

#include "host/os/OS.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>

StreamingDecodeReader::StreamingDecodeReader(const WString& fileName, const DecodeFormat& format, OpenType type)
    : FileReadInstance(fileName, format, type) {}

StreamingDecodeReader::~StreamingDecodeReader() { endStreamDecode(); }

bool StreamingDecodeReader::framePresent(const Zn::Ptr<FrameBufferRep>& slot, unsigned frame) {
    if (!slot) return false;
    const uint32_t first = slot->getStartValidFrameIndex();
    return first <= frame && frame < uint64_t(first) + slot->getNumFrames();
}

StreamingDecodeReader::eReadResult StreamingDecodeReader::readVideo(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) {
    if (streamMetadata_ && streamMetadata_->getGroupSize() >= 2) {
        if (!wakeEvent_) beginStreamDecode();
        return readVideoStreaming(out, request);
    }
    CriticalSection::Lock lock(getLock());
    const uint32_t frame = request->getFrame();
    out = Zn::makePtr<FrameBufferRep>(getDecodeFormat(), request->getIndexInfo(), frame);
    return decodeFrames(out, frame);
}

void StreamingDecodeReader::beginStreamDecode() {
    wakeEvent_ = OS()->createThreadEvent(false, false);
    doneEvent_ = OS()->createThreadEvent(true, true);
    slotLock_ = OS()->createCriticalSection();
    beginThread("Decode", kPriorityAboveNormal);
}

void StreamingDecodeReader::endStreamDecode() {
    if (!doneEvent_) return;
    stopRunning();
    doneEvent_->wait();
    wakeEvent_->set();
    endThread();
    wakeEvent_.reset();
    doneEvent_.reset();
}

void StreamingDecodeReader::threadFn() {
    while (keepRunning()) {
        wakeEvent_->wait();
        if (!keepRunning()) return;
        doneEvent_->reset();
        Zn::Ptr<FrameBufferRep> slot;
        {
            iCriticalSection::Lock lock(*slotLock_);
            slot = decodingSlot_;
        }
        // A pass woken again for a run already decoded has nothing to do: decoding it again
        // would attach new pixels to surfaces that completed and are being read.
        if (slot && slot != decodedSlot_) {
            decodedSlot_ = slot;
            decodeFrames(slot, slot->getStartValidFrameIndex());
        }
        doneEvent_->set();
    }
}

StreamingDecodeReader::eReadResult StreamingDecodeReader::readVideoStreaming(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) {
    const uint32_t frame = request->getFrame();
    Zn::Image::Surface surface;
    iCriticalSection::Lock lock(*slotLock_);

    auto lookUp = [&]() REQUIRES(slotLock_) {
        if (framePresent(decodingSlot_, frame)) {
            surface = decodingSlot_->getSurface(frame - decodingSlot_->getStartValidFrameIndex());
            return true;
        }
        if (framePresent(currentSlot_, frame)) {
            surface = currentSlot_->getSurface(frame - currentSlot_->getStartValidFrameIndex());
            return true;
        }
        return false;
    };

    bool found = lookUp();
    if (!found && !doneEvent_->wait(0)) {
        // A pass is running: it may be decoding the frame's run right now.
        lock.unlock();
        doneEvent_->wait();
        lock.relock();
        found = lookUp();
    }

    if (!found) {
        if (currentSlot_) {
            for (uint32_t i = 0; i < currentSlot_->getNumFrames(); ++i) currentSlot_->getSurface(i).set();
        }
        if (decodingSlot_) {
            Zn::Image::Surface last = decodingSlot_->getSurface(decodingSlot_->getNumFrames() - 1);
            if (last.state() == Zn::Image::Surface::kWaitTimedOut) {
                lock.unlock();
                wakeEvent_->set();
                last.wait();
                lock.relock();
            }
        }
        currentSlot_ = std::move(decodingSlot_);

        int64_t start, end;
        if (streamMetadata_->framesAreGrouped()) {
            const uint32_t g = streamMetadata_->getGroupSize();
            start = frame - frame % g;
            end = start + g - 1;
        } else if (!handler_) {
            lock.unlock();
            out = Zn::makePtr<FrameBufferRep>(frame, Zn::Image::Surface());
            return kReadFailed;
        } else {
            int64_t first = frame, endExclusive = int64_t(frame) + 1;
            handler_->getFrameRange(frame, first, endExclusive);
            start = std::max<int64_t>(first, 0);
            end = std::max<int64_t>(endExclusive - 1, 0);
        }
        // A reversed answer still makes a slot of one frame; the caller's surface is then
        // empty (the frame lies outside the run) and its read fails through the surface.
        if (end < start) end = start;
        const uint32_t count = uint32_t(std::min<int64_t>(end - start + 1, UINT32_MAX));
        decodingSlot_ = Zn::makePtr<FrameBufferRep>(getDecodeFormat(), uint32_t(start), count, true);
        surface = decodingSlot_->getSurface(frame - uint32_t(start));
        wakeEvent_->set();
    }
    lock.unlock();
    out = Zn::makePtr<FrameBufferRep>(frame, surface);
    return kReadDone;
}
