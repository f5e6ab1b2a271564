// `playfile extract`: writes a section of a clip's video and sound as a new clip of the
// project, through the file-transfer plug-ins, as a background task whose progress is
// drawn as it runs.
#include "tools/Command.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"
#include "tools/TaskView.h"

#include "host/core/Strings.h"
#include "host/media/DecodeFormat.h"
#include "host/media/PlayFileMetadataRep.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/ProjectImporter.h"
#include "host/project/SystemCache.h"
#include "host/tasks/Logger.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/MaterialDeletion.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/tasks/FileXfer.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kExtractUsage[] =
    "usage: playfile extract ITEM --project DIR --start SECONDS --end SECONDS [--to DRIVE] [--json]\n"
    "\n"
    "Writes the section [--start, --end) of the clip ITEM (by cookie or name) as a new clip\n"
    "of the project: its video as a file of the source's kind, with intra-coded frames\n"
    "copied as they are and long-GOP video cut at the exact frames (only the frames before\n"
    "the first key frame in the section are encoded again), and its sound as one WAV file\n"
    "holding the channels of all the source's audio streams in order, in their own sample\n"
    "format. Prints the new clip's cookie and its files.\n"
    "\n"
    "  --project DIR     the project folder, or a postgresql:// URI (required)\n"
    "  --start SECONDS   where the section starts, from the clip's start (required)\n"
    "  --end SECONDS     where it ends (required; after --start)\n"
    "  --to DRIVE        the media drive for the new files (default: the drive for\n"
    "                    rendered material)\n"
    "  --json            print one JSON object: clip, name, files (absolute paths),\n"
    "                    seconds. Members are only ever added, never renamed or removed.\n"
    "\n"
    "Ctrl-C stops the extraction; nothing of the new clip is left behind.\n"
    "\n"
    "Exit status: 0 done, 1 stopped or failed, 2 a usage error.\n";

// One extraction of the task: a material of the source and the new clip's material.
struct Piece {
    Cookie source, destination;
    ShotVideoMetadata video;
    eExtractResult result = eExtractResult::eExtractFailed;
};

class ExtractTask final : public BackgroundTaskBase {
public:
    ExtractTask(std::vector<Piece> pieces, double start, double end, DriveId drive)
        : BackgroundTaskBase(WString(L"Extract section")), pieces_(std::move(pieces)), start_(start), end_(end),
          drive_(drive) {}
    const std::vector<Piece>& pieces() const { return pieces_; }

protected:
    void run() override {
        LoggerHandle log(getLog());
        // Each material one equal part of the whole.
        log.startSubTasks(std::vector<uint64_t>(pieces_.size(), 0));
        for (Piece& p : pieces_) {
            FileXferSpec xfer;
            xfer.source = p.source;
            xfer.destination = p.destination;
            xfer.videoMetadata = p.video;
            xfer.start = start_;
            xfer.end = end_;
            xfer.destinationDrive = drive_;
            p.result = xfer.get_extract(log);
            if (p.result != FileXferSpec::kExtractDone) break;
            log.nextSubTask();
        }
        log.endSubTasks();
    }

private:
    std::vector<Piece> pieces_;
    const double start_, end_;
    const DriveId drive_;
};

bool seconds(const Options& o, const char* name, double& out) {
    const std::string v = o.value(name);
    char* end = nullptr;
    out = std::strtod(v.c_str(), &end);
    return !v.empty() && end && *end == 0 && std::isfinite(out) && out >= 0;
}

// The clip's material to extract: its video (variant 0) and its sound channels, the first
// channel standing for all of them (they share one file, whose audio streams hold them).
bool piecesOf(const Cookie& clip, const Cookie& target, std::vector<Piece>& out, int& channels, unsigned& rate,
              WString& name, std::string& error) {
    EditPtr edit;
    if (!edit.i_open(clip, eEditOpenReadOnly)) return (error = "the clip cannot be opened", false);
    name = edit->getName();
    rate = edit->getAudioInputSampleRate();
    channels = 0;
    bool video = false;
    for (const Cookie& m : edit->getReferences(Edit::eRefMaterial)) {
        if (m.type() == 'V' && m.index() == 0 && SystemCache::fileExists(m)) video = true;
        if (m.type() == 'S' && SystemCache::fileExists(m)) ++channels;
    }
    edit.i_close();
    if (video) {
        Piece p{convertCookie(clip, 'V', 0), convertCookie(target, 'V', 0), {}};
        Zn::Ptr<FileReadInstance> f = PlayFileCache::Shared().open(p.source, DecodeFormat(1), 0);
        if (!f) return (error = "the clip's video cannot be read", false);
        const auto& meta = *f->getMetadata();
        const auto& core = meta.getNativeFormat();
        p.video = ShotVideoMetadata::fromPicture(core.getWidth(), core.getHeight(), int32_t(meta.getFrameRate().numerator),
                                                 int32_t(meta.getFrameRate().denominator));
        if (p.video.getFrameRate() == Zn::kFrameRateUnknown)
            return (error = "the clip's frame rate is not one the project knows", false);
        out.push_back(p);
    }
    if (channels)
        out.push_back(Piece{convertCookie(clip, 'S', 1), convertCookie(target, 'S', 1), {}});
    if (out.empty()) error = "the clip has no material files to extract from";
    return !out.empty();
}

// Registers the new clip whose pieces are extracted: the further sound channels that the
// sound file holds, then the clip itself. False, with the reason, when the project refuses.
bool registerClip(const Cookie& target, const WString& name, int video, int channels, unsigned rate,
                  std::vector<std::string>& files, std::string& error) {
    WString why;
    MaterialFilename sound;
    if (channels) {
        Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(convertCookie(target, 'S', 1));
        if (!entry || !entry->hasFile()) return (error = "the sound file is not in the project", false);
        sound = entry->getFile().getMaterialFilename();
        // The file holds the channels of all the source's audio streams in order, as the
        // source file gives them to the clip's channels; a clip with fewer channels than
        // its file keeps its own number.
        Zn::Ptr<FileReadInstance> file = PlayFileCache::Shared().open(convertCookie(target, 'S', 1), DecodeFormat(1), 0);
        if (!file) return (error = "the new sound file cannot be read", false);
        channels = std::min(channels, int(file->getMetadata()->getTotalChannels()));
    }
    for (int ch = 2; ch <= channels; ++ch)
        if (SystemCache::addFile(convertCookie(target, 'S', uint8_t(ch)), sound, 0) != 1)
            return (error = "the project refused the sound channels", false);
    ClipRecord clip;
    clip.name = name + L" extract";
    clip.videoChannels = video;
    clip.audioChannels = channels;
    clip.sampleRate = rate;
    if (!ProjectImporter::registerClip(target, clip, &why)) return (error = "the project refused the clip: " + utf8(why), false);
    for (const ClipMediaFile& f : SystemCache::getClipMediaFiles(target)) {
        const std::string path = utf8(f.file.getOsPath());
        if (std::find(files.begin(), files.end(), path) == files.end()) files.push_back(path);
    }
    return true;
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("extract", args,
                 {{"--project", true}, {"--start", true}, {"--end", true}, {"--to", true}, {"--json", false}}))
        return fail(kUsage, o.error());
    const std::string project = o.value("--project");
    if (project.empty()) return fail(kUsage, "extract: --project DIR is required");
    if (o.positional().size() != 1) return fail(kUsage, "extract: give one ITEM");
    double start, end;
    if (!seconds(o, "--start", start) || !seconds(o, "--end", end))
        return fail(kUsage, "extract: --start and --end take seconds, from 0");
    if (!(start < end)) return fail(kUsage, "extract: --end must come after --start");

    std::string error;
    ProjectScope scope;
    if (!scope.open(project, false, error)) return fail(kFailure, "extract: " + error);
    DriveId drive = DiskManager::getDriveForTask("render", true);
    if (o.has("--to")) {
        const std::string d = o.value("--to");
        if (d.size() != 1 || !DiskManager::isMaterialVolume(DriveId(d[0])))
            return fail(kUsage, "extract: the project has no media drive " + d);
        drive = DriveId(d[0]);
    }
    if (drive.isNone()) return fail(kUsage, "extract: the project has no media drive; give --to DRIVE");
    Cookie clip;
    if (!findItem(o.positional().front(), clip, error)) return fail(kUsage, "extract: " + error);
    WString why;
    const Cookie target = ProjectImporter::newClipCookie(&why);
    if (!target.valid()) return fail(kFailure, "extract: " + utf8(why));
    std::vector<Piece> pieces;
    int channels = 0;
    unsigned rate = 0;
    WString name;
    if (!piecesOf(clip, target, pieces, channels, rate, name, error)) return fail(kFailure, "extract: " + error);

    const bool json = o.has("--json");
    auto task = Zn::makePtr<ExtractTask>(pieces, start, end, drive);
    TaskView::Options viewOptions;
    viewOptions.showLines = viewOptions.showProgress = !json;
    viewOptions.label = "extracting";
    TaskView view(viewOptions);
    if (!view.run(task)) return fail(kFailure, "extract: the task queue has ended");

    bool done = true;
    for (const Piece& p : task->pieces()) done = done && p.result == FileXferSpec::kExtractDone;
    std::vector<std::string> files;
    if (done) done = registerClip(target, name, pieces.front().source.type() == 'V', channels, rate, files, error);
    if (!done) {
        MaterialDeletion::deleteClipMaterial(target, kMediaAll);
        if (view.interrupted() || task->getStatus() == iBackgroundTask::eCancelled)
            return fail(kFailure, "extract: stopped by Ctrl-C; nothing was kept");
        return fail(kFailure, "extract: " + (error.empty() ? std::string("the extraction failed (see the log)") : error));
    }
    const std::string cookie = target.asString().c_str();
    if (json) {
        Json j;
        j["clip"] = cookie;
        j["name"] = utf8(name + L" extract");
        j["files"] = files;
        j["seconds"] = task->getLifetime();
        std::printf("%s\n", j.dump(2).c_str());
    } else {
        std::printf("%s\n", cookie.c_str());
        for (const std::string& f : files) std::printf("  %s\n", f.c_str());
    }
    return kOk;
}

CommandRegistration reg({"extract", "write a section of a clip as a new clip", kExtractUsage, run});

} // namespace
} // namespace tool
