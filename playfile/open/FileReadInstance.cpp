#include "playfile/open/FileReadInstance.h"

#include "host/os/Log.h"
#include "host/threads/TimedTask.h"
#include "playfile/requests/AudioReadQueue.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/QueuePool.h"
#include "playfile/requests/VideoReadQueue.h"
#include "playfile/requests/VideoReadRequest.h"

#include <exception>
#include <limits>
#include <string>

namespace {

// Frame reads of all files are timed under one task name. Never released: reads may run
// while the process exits.
TimedTask& readTask() {
    static TimedTask* task = TimedTaskManager::instance().createTimedTask("FileReadInstance").release();
    return *task;
}

} // namespace

FileReadInstance::FileReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type)
    : PlayFile(fileName), lastUse_(std::numeric_limits<uint64_t>::max()), openType_(type), format_(format) {
    if (type.hasAudio()) audioQueue_ = Pool<Zn::AudioReadQueue>::take();
    if (type.hasVideo()) videoQueue_ = Pool<Zn::VideoReadQueue>::take();
}

FileReadInstance::~FileReadInstance() {
    Pool<Zn::VideoReadQueue>::giveBack(std::move(videoQueue_));
    Pool<Zn::AudioReadQueue>::giveBack(std::move(audioQueue_));
}

void FileReadInstance::recalculateSize(unsigned, unsigned&) {}

DecodeOptionList FileReadInstance::getDecodeOptions(Zn::Ptr<FileReadInstance>) { return {}; }

configb FileReadInstance::getDecodeOptionValues() { return {}; }

void FileReadInstance::setDecodeOptionValues(const configb&) {}

configb FileReadInstance::initDecodeOptionValues(const configb& stored) {
    configb merged = getDecodeOptionValues();
    for (const String& key : merged.keys()) {
        if (stored.in(key)) merged.set(key, stored.get(key));
    }
    setDecodeOptionValues(merged);
    return merged;
}

bool FileReadInstance::queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool flag) {
    if (videoQueue_) return videoQueue_->queueReadRequest(request, flag);
    // Opened without video: nothing will ever read the request, so it fails now.
    if (request) request->requestHasCompleted(RequestStatus::Failed);
    return false;
}

bool FileReadInstance::queueReadRequest(Zn::Ptr<AudioReadRequest>& request, bool deferWake) {
    if (audioQueue_) return audioQueue_->queueReadRequest(request, deferWake);
    if (request) {
        request->setStatus(RequestStatus::Failed);
        Zn::Ptr<iObject> none;
        request->doCallbacks(none);
    }
    return false;
}

void FileReadInstance::readVideo(Zn::Ptr<VideoReadRequest>& request) {
    TimedActivity activity(Zn::Ptr<TimedTask>(&readTask()), "read");
    Zn::Ptr<FrameBufferRep> buffer(new FrameBufferRep());
    eReadResult rc = kReadFailed;
    try {
        rc = readVideo(buffer, request);
    } catch (const std::exception& e) {
        LogBoth("Exception reading frame %u of \"%ls\": %s\n", request->getFrame(), getFileName().c_str(), e.what());
    } catch (...) {
        LogBoth("Exception reading frame %u of \"%ls\"\n", request->getFrame(), getFileName().c_str());
    }
    if (rc == kReadDone) {
        request->setResultBuffer(buffer);
        request->requestHasCompleted(RequestStatus::Complete);
    } else if (rc != kReadPending) {
        request->requestHasCompleted(RequestStatus::Failed);
    }
}

FileReadInstance::eReadResult FileReadInstance::readVideo(Zn::Ptr<FrameBufferRep>&, Zn::Ptr<VideoReadRequest>&) {
    return kReadFailed;
}

void FileReadInstance::readAudio(Zn::Ptr<AudioReadRequest>&) {}

eExtractResult FileReadInstance::extractFiles(const WString&, const WString&, const Cookie&, OpenType, const Zn::FileWriterParams&,
                                   LoggerHandle&) {
    return kExtractNotSupported;
}

void FileReadInstance::purge() {
    if (videoQueue_) videoQueue_->purge();
}

void FileReadInstance::limitUsage() {
    if (videoQueue_) videoQueue_->limitUsage();
}
