// The FFmpeg transfer manager: acceptance, the file's name and temporary name, progress
// and cancellation, and putting the finished file in place with its header.
#include "backends/ffmpegxfer/XferManager.h"

#include "backends/ffmpegxfer/XferCommon.h"
#include "host/core/Strings.h"
#include "host/project/MaterialFilename.h"
#include "host/project/ProjectFiles.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/Logger.h"
#include "playfile/tasks/FileXfer.h"

namespace ffmpeg_xfer {
namespace {

bool hasStream(const AVFormatContext& in, AVMediaType type) {
    return av_find_best_stream(const_cast<AVFormatContext*>(&in), type, -1, -1, nullptr, 0) >= 0;
}

// Where the section goes: the material's name on the drive with the writer's extension.
WString finalName(const FileXferSpec& xfer, const std::string& extension) {
    WString base = getMaterialFilenameForCookie(xfer.destination, xfer.destinationDrive).getOsPath();
    return base.empty() ? base : base + L"." + fromUTF8(extension.c_str());
}

eExtractResult fail(LoggerHandle& log, const WString& what) {
    log.write(what + L"\n", LoggerBase::eError);
    return iFileXferManager::eExtractFailed;
}

} // namespace

bool FfmpegXferManager::acceptsExtraction(const FileXferSpec& xfer) {
    const char kind = xfer.source.type();
    if ((kind != 'S' && kind != 'V') || xfer.destination.type() != kind || xfer.sourceFile.empty()) return false;
    InputPtr in;
    if (!openInput(utf8(xfer.sourceFile), in).ok()) return false;
    return hasStream(*in, kind == 'S' ? AVMEDIA_TYPE_AUDIO : AVMEDIA_TYPE_VIDEO);
}

eExtractResult FfmpegXferManager::extract(const FileXferSpec& xfer, LoggerHandle& log) {
    Job job;
    job.source = utf8(xfer.sourceFile);
    job.first = xfer.firstSample;
    job.end = xfer.endSample;
    if (job.first < 0 || job.end <= job.first)
        return fail(log, WString(L"The section holds nothing to extract from ") + xfer.sourceFile);

    const bool sound = xfer.source.type() == 'S';
    std::string extension = "wav", muxer = "wav";
    if (!sound) {
        InputPtr in;
        if (Outcome o = openInput(job.source, in); !o.ok()) return fail(log, fromUTF8(o.reason.c_str()));
        const int v = av_find_best_stream(in.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (v < 0) return fail(log, WString(L"No video in ") + xfer.sourceFile);
        Container c = containerFor(*in, *in->streams[v]->codecpar);
        extension = c.extension;
        muxer = c.muxer;
    }
    const WString target = finalName(xfer, extension);
    if (target.empty()) return fail(log, WString(L"The destination drive has no folder for the new material"));
    if (projectfs::exists(target)) return fail(log, target + L" exists already");
    const WString partial = target + L".partial";
    projectfs::createDirectory(getPath(target));
    job.target = utf8(partial);
    job.progress = [&log](double fraction) {
        log->reportProgress(fraction);
        return BackgroundTaskQueueBase::getCurrentTaskStatus() != iBackgroundTask::eCancelled;
    };

    log.write(WString(sound ? L"Extracting samples " : L"Extracting frames ") + Zn::WStringFromInteger(job.first) +
              L" to " + Zn::WStringFromInteger(job.end) + L" of " + xfer.sourceFile + L"\n");
    SoundFormat soundFormat;
    VisionReport vision;
    Outcome o = sound ? writeSoundSection(job, soundFormat) : writeVisionSection(job, muxer, vision);
    if (!o.ok()) {
        projectfs::remove(partial);
        if (o.kind == Outcome::eCancelled) return eExtractInterrupted;
        return fail(log, fromUTF8(o.reason.c_str()));
    }
    if (!sound)
        log.write(Zn::WStringFromInteger(vision.copiedFrames) + L" frame(s) copied, " +
                  Zn::WStringFromInteger(vision.encodedFrames) + L" encoded\n");
    if (!projectfs::rename(partial, target)) {
        projectfs::remove(partial);
        return fail(log, WString(L"Cannot rename the new file to ") + target);
    }
    FileXferSpec header = xfer;
    if (!sound && !header.videoMetadata.isSet() && vision.frameRate.den)
        header.videoMetadata = ShotVideoMetadata::fromPicture(unsigned(vision.width), unsigned(vision.height),
                                                              vision.frameRate.num, vision.frameRate.den);
    if (!header.storeDestinationHeader(target, soundFormat.sampleRate, soundFormat.bytesPerSample)) {
        projectfs::remove(target);
        projectfs::remove(stripExtension(target) + L".hdr");
        return fail(log, WString(L"Cannot store the play header of ") + target);
    }
    log->reportProgress(1.0);
    return eExtractDone;
}

} // namespace ffmpeg_xfer
