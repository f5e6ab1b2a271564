#include "playfile/open/PlayFileWriter.h"

#include "host/media/CapturePacket.h"
#include "host/os/Log.h"
#include "host/os/OS.h"

#include <exception>

namespace {

// The back-pressure rule of the sample writer: wait while more than this many frames are
// pending in the writer...
constexpr unsigned kMaxPendingFrames = 32;
// ...in steps of this long...
constexpr unsigned kPendingWaitMs = 100;
// ...for at most this many steps less one (the count is decremented before each wait and
// reaching 0 gives up, so a writer gets 49 waits, about 4.9 seconds).
constexpr int kPendingWaitCount = 50;

} // namespace

Zn::Ptr<Zn::FileWriteInstance> PlayFileWriter::open(const WString& fileName, Zn::FileWriterParams& params) {
    Zn::Ptr<Zn::iFileWriter> writer = Zn::FileWriterInfo::getFileWriterFor(params);
    if (!writer) return nullptr;
    Zn::Ptr<Zn::FileWriteInstance> out;
    // A back-end that throws is a broken back-end, not a reason to take the host down.
    try {
        if (writer->create(fileName, params, out) != 1) return nullptr;
    } catch (const std::exception& e) {
        LogBoth("PlayUtil::openWrite: writer %s failed: %s\n", writer->name().c_str(), e.what());
        return nullptr;
    }
    return out;
}

int PlayFileWriter::writeVideoSample(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId,
                                     Zn::Ptr<CapturePacket>& packet, void (*done)(RequestStatus)) {
    if (!writer || !packet) return 0;
    auto& written = writer->getMetadata().framesWritten;
    if (uint32_t(sampleId) != written.load() || sampleId < 0) {
        LogBoth("Bad sample ID %d\n", sampleId);
        return 0;
    }
    for (int waits = kPendingWaitCount; writer->pendingFrames() > kMaxPendingFrames;) {
        if (--waits == 0) {
            if (done) done(RequestStatus::Failed);
            LogBoth("Failed to write sample %d\n", sampleId);
            return 0;
        }
        OS()->sleep(kPendingWaitMs);
    }
    const bool surfaces = writer->takesSurfaces();
    int rc = surfaces ? writer->writeSurface(packet->getImage(), sampleId)
                      : writer->writeFrame(packet->getImage(), sampleId);
    if (rc != 1) {
        if (!surfaces) writer->abandonFrame();
        if (done) done(RequestStatus::Failed);
        LogBoth("Failed to write sample %d\n", sampleId);
        return rc;
    }
    if (done) done(RequestStatus::Complete);
    written.fetch_add(1);
    return 1;
}

int PlayFileWriter::writeAudioSamples(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                      void (*done)(RequestStatus)) {
    if (!writer) return 0;
    int rc = writer->writeAudio(samples, done);
    if (rc == 1) {
        auto& meta = writer->getMetadata();
        const uint64_t frameBytes = uint64_t(meta.audioStream.getBytesPerSample()) * meta.audioStream.getNumChannels();
        if (frameBytes && samples) meta.audioFramesWritten.fetch_add(samples->getUsed() / frameBytes);
    }
    return rc;
}
