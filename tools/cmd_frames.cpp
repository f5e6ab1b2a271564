// `playfile frames`: reads a run of frames of each file given through
// PlayFileCache::videoReadRequest, with several reads in flight, and hashes them, writes
// them as images, or just times them.
#include "tools/Command.h"
#include "tools/ImageFile.h"
#include "tools/Md5.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"
#include "tools/Progress.h"

#include "playfile/open/FileReadInstance.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kFramesUsage[] =
    "usage: playfile frames FILE... [--start N] [--count K] [--format NAME] [--inflight N]\n"
    "                       [--md5] [--out DIR [--image png|ppm]] [--json]\n"
    "\n"
    "Reads frames START to START+K-1 of the video of FILE through the play file cache, in\n"
    "order, keeping up to --inflight reads queued at once, and waits for each picture.\n"
    "Frames are counted from 0. Several files are read in turn, in one process; a file\n"
    "that fails is reported and the next one read.\n"
    "\n"
    "  --start N       first frame (default 0)\n"
    "  --count K       number of frames (default: to the end of the file)\n"
    "  --format NAME   pixel format the frames are delivered in: native (default: the\n"
    "                  decoder's own), or a host format named as FFmpeg names it: gray8,\n"
    "                  gray16le, rgb24, bgr24, rgba, bgra, argb, rgb48le, rgba64le,\n"
    "                  yuv420p, yuv422p, yuv444p, yuv420p10le, yuv422p10le, yuv444p10le,\n"
    "                  nv12, uyvy422, yuyv422, gbrp, p010le, ...\n"
    "  --inflight N    reads queued at once (default 4, at most 64)\n"
    "  --md5           prints one line per frame: FRAME SIZE MD5 (FILE FRAME SIZE MD5 when\n"
    "                  several files are given), where SIZE is the bytes\n"
    "                  of the picture's planes packed without row padding and MD5 their\n"
    "                  digest: the bytes `ffmpeg -i FILE -f framemd5 -` hashes for the\n"
    "                  same frame in the same pixel format (add -pix_fmt NAME to FFmpeg's\n"
    "                  command for --format NAME)\n"
    "  --out DIR       writes each frame as an image DIR/frame_NNNNNN.EXT (DIR is made when\n"
    "                  missing; one file only). Images hold gray or RGB pictures: with --out the format\n"
    "                  defaults to rgb24, and must be gray8, gray16le, rgb24, rgb48le (PNG\n"
    "                  or PPM/PGM), rgba or rgba64le (PNG only)\n"
    "  --image KIND    png (default) or ppm (PPM for RGB, PGM for gray)\n"
    "  --json          one JSON object on standard output instead of text: {file, start,\n"
    "                  count, format, width, height, seconds, fps, frames: [{frame, size,\n"
    "                  md5 (with --md5 only)}]}, an array of them for several files;\n"
    "                  members are only ever added\n"
    "\n"
    "Without --md5 or --json, prints one summary line: the frames read, their format and\n"
    "size, the time taken and the frames per second (a progress bar on a terminal).\n"
    "\n"
    "Exit status: 0 every frame read; 1 a file cannot be read, has no video, has no such\n"
    "frames, or a read failed (one line on standard error each); 2 a usage error.\n";

bool parseFormat(const std::string& name, Zn::Image::eDataFormat& out) {
    if (name == "native") {
        out = Zn::Image::kFormatUnknown;
        return true;
    }
    for (int f = 1; f <= Zn::Image::kFormatLastRaw; ++f)
        if (name == Zn::Image::formatName(Zn::Image::eDataFormat(f))) {
            out = Zn::Image::eDataFormat(f);
            return true;
        }
    return false;
}

// What every file of one run is read with.
struct FramesJob {
    uint64_t start = 0, count = 0, inflight = 0;
    bool md5 = false, json = false, out = false;
    bool named = false; // several files: --md5 lines start with the file's name
    ImageKind imageKind = ImageKind::kPng;
    Zn::Image::eDataFormat format = Zn::Image::kFormatUnknown;
    std::string dir;
};

int readFrames(const std::string& path, const FramesJob& job, MediaSession& session, Json& jsonOut);

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("frames", args,
                 {{"--start", true}, {"--count", true}, {"--format", true}, {"--inflight", true}, {"--md5", false},
                  {"--out", true}, {"--image", true}, {"--json", false}}))
        return fail(kUsage, o.error());
    if (o.positional().empty()) return fail(kUsage, "frames: no file given");
    uint64_t start = 0, count = 0, inflight = 0;
    if (!o.number("--start", 0, INT32_MAX, 0, start) || !o.number("--count", 1, INT32_MAX, 0, count) ||
        !o.number("--inflight", 1, 64, 4, inflight))
        return fail(kUsage, o.error());
    const bool md5 = o.has("--md5"), json = o.has("--json"), out = o.has("--out");
    const std::string kind = o.value("--image", "png");
    if (kind != "png" && kind != "ppm") return fail(kUsage, "frames: --image is png or ppm, not '" + kind + "'");
    if (o.has("--image") && !out) return fail(kUsage, "frames: --image goes with --out");
    const ImageKind imageKind = kind == "png" ? ImageKind::kPng : ImageKind::kPnm;
    Zn::Image::eDataFormat format = out ? Zn::Image::kFormatRGB24 : Zn::Image::kFormatUnknown;
    if (o.has("--format") && !parseFormat(o.value("--format"), format))
        return fail(kUsage, "frames: unknown pixel format '" + o.value("--format") + "' (see 'playfile frames --help')");
    if (out && !imageHolds(imageKind, format))
        return fail(kUsage, std::string("frames: ") + (kind == "png" ? "PNG" : "PPM/PGM") + " images cannot hold " +
                                (format ? Zn::Image::formatName(format) : "native") + " pictures (see --help)");

    if (out && o.positional().size() > 1) return fail(kUsage, "frames: --out takes one file");

    std::string why;
    if (!readersAvailable(why)) return fail(kFailure, "frames: " + why);
    MediaSession session;
    if (!session.openScratch(why)) return fail(kFailure, "frames: " + why);
    const FramesJob job{start, count, inflight, md5, json, out, o.positional().size() > 1, imageKind, format,
                        o.value("--out")};
    int status = kOk;
    Json all = Json::array();
    for (const std::string& path : o.positional()) {
        Json one;
        if (readFrames(path, job, session, one) != kOk) status = kFailure;
        if (json && !one.is_null()) all.push_back(std::move(one));
    }
    if (json && (job.named || !all.empty())) std::printf("%s\n", (job.named ? all : all[0]).dump(2).c_str());
    return status;
}

// The video material of one file that a job reads, and how.
struct VideoRun {
    DecodeFormat decodeFormat{1};
    Cookie material;
    uint64_t count = 0;
};

// What the reads of one file delivered.
struct Pictures {
    Json list = Json::array();
    Zn::Image::eDataFormat format = Zn::Image::kFormatUnknown;
    uint32_t width = 0, height = 0;
    double seconds = 0;
};

// Opens the file by name with the format the reads want, checks the job's frames against
// its length, makes the clip whose video material the reads go to and the --out folder.
int locateVideo(const std::string& path, const FramesJob& job, MediaSession& session, VideoRun& run) {
    std::string why;
    if (!checkMediaFile(path, why)) return fail(kFailure, "frames: " + path + ": " + why);

    // Width and height 0 keep the picture's own size; only the pixel format changes.
    if (job.format != Zn::Image::kFormatUnknown) run.decodeFormat = DecodeFormat(0, 0, job.format);
    // Opened by name first, with the format the reads want (a long-GOP reader decodes for
    // the format it was opened with); the clip's reads find this file in the cache.
    Zn::Ptr<FileReadInstance> file = MediaSession::openByName(path, OpenType::kVideo, run.decodeFormat);
    if (!file) return fail(kFailure, "frames: " + path + ": no reader can open it for video");
    if (!(file->getCapabilities() & OpenType::kVideo)) return fail(kFailure, "frames: " + path + ": has no video");
    const uint64_t frames = file->getMetadata()->getFrameCount();
    file = nullptr;
    if (frames == 0) return fail(kFailure, "frames: " + path + ": has no video frames");
    if (job.start >= frames)
        return fail(kFailure, "frames: " + path + " has " + std::to_string(frames) + " frames; --start " +
                                  std::to_string(job.start) + " is past the end");
    run.count = job.count == 0 ? frames - job.start : job.count;
    if (job.start + run.count > frames)
        return fail(kFailure, "frames: " + path + " has " + std::to_string(frames) + " frames; " +
                                  std::to_string(job.start) + "+" + std::to_string(run.count) + " runs past the end");
    const Cookie clip = session.addClip(path, true, 0, 0, why);
    if (!clip.valid()) return fail(kFailure, "frames: " + why);
    run.material = convertCookie(clip, 'V', 0);

    if (job.out) {
        std::error_code ec;
        std::filesystem::create_directories(job.dir, ec);
        if (!std::filesystem::is_directory(job.dir, ec))
            return fail(kFailure, "frames: cannot make the folder " + job.dir);
    }
    return kOk;
}

// Hashes, lists, prints and writes one picture read as the job says.
int takePicture(const std::string& path, const FramesJob& job, int frame, const Zn::Image::Surface& picture,
                Pictures& p) {
    if (job.format != Zn::Image::kFormatUnknown && picture.getDataFormat() != job.format)
        return fail(kFailure, "frames: " + path + ": the reader delivered " +
                                  Zn::Image::formatName(picture.getDataFormat()) + ", not " +
                                  Zn::Image::formatName(job.format));
    p.format = picture.getDataFormat();
    p.width = picture.getWidth();
    p.height = picture.getHeight();
    if (job.md5 || job.json) {
        Json entry = {{"frame", frame}};
        size_t size = 0;
        Md5 digest;
        forEachPackedRow(picture, [&](const uint8_t* row, size_t n) {
            if (job.md5) digest.add(row, n);
            size += n;
        });
        entry["size"] = size;
        if (job.md5) entry["md5"] = digest.hex();
        if (job.json)
            p.list.push_back(entry);
        else
            std::printf("%s%s%d %zu %s\n", job.named ? path.c_str() : "", job.named ? " " : "", frame, size,
                        entry["md5"].get<std::string>().c_str());
    }
    if (job.out) {
        char name[32];
        std::snprintf(name, sizeof name, "frame_%06d.%s", frame, imageExtension(job.imageKind, p.format));
        std::string why;
        if (!writeImage((std::filesystem::path(job.dir) / name).string(), job.imageKind, picture, why))
            return fail(kFailure, "frames: " + why);
    }
    return kOk;
}

// Reads the run's frames in order with up to --inflight reads queued.
int readPictures(const std::string& path, const FramesJob& job, const VideoRun& run, Pictures& p) {
    std::unique_ptr<ProgressBar> bar;
    if (!job.md5 && !job.json && isatty(fileno(stdout)))
        bar = std::make_unique<ProgressBar>("reading frames", run.count);
    std::deque<std::unique_ptr<FrameRead>> window;
    const uint64_t end = job.start + run.count;
    uint64_t next = job.start, done = 0;
    std::string why;
    const auto t0 = std::chrono::steady_clock::now();
    while (done < run.count) {
        while (next < end && window.size() < job.inflight)
            window.push_back(std::make_unique<FrameRead>(run.material, int(next++), run.decodeFormat));
        std::unique_ptr<FrameRead> read = std::move(window.front());
        window.pop_front();
        Zn::Image::Surface picture = read->picture(why);
        if (picture.empty()) return fail(kFailure, "frames: " + path + ": " + why);
        if (int status = takePicture(path, job, read->frame(), picture, p); status != kOk) return status;
        ++done;
        if (bar) bar->update(done);
    }
    p.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (bar) bar->finish();
    return kOk;
}

// Reads the job's frames of one file; jsonOut receives its JSON object (with --json).
int readFrames(const std::string& path, const FramesJob& job, MediaSession& session, Json& jsonOut) {
    const auto opening = std::chrono::steady_clock::now();
    VideoRun run;
    if (int status = locateVideo(path, job, session, run); status != kOk) return status;
    const double openSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - opening).count();
    Pictures p;
    if (int status = readPictures(path, job, run, p); status != kOk) return status;
    const uint64_t start = job.start, count = run.count;
    const double fps = p.seconds > 0 ? double(count) / p.seconds : 0.0;
    if (job.json) {
        jsonOut = {{"file", path},     {"start", start},     {"count", count},       {"format", Zn::Image::formatName(p.format)},
                   {"width", p.width}, {"height", p.height}, {"seconds", p.seconds}, {"fps", fps},
                   {"frames", p.list}};
    } else if (!job.md5) {
        std::printf("%s: frames %llu-%llu (%llu) as %s %ux%u in %.3f s, %.1f fps (opening %.3f s)%s\n", path.c_str(),
                    (unsigned long long)start, (unsigned long long)(start + count - 1), (unsigned long long)count,
                    Zn::Image::formatName(p.format), p.width, p.height, p.seconds, fps, openSeconds,
                    job.out ? ("; images in " + job.dir).c_str() : "");
    }
    return kOk;
}

CommandRegistration reg({"frames", "read frames through the cache: hash, save or time them", kFramesUsage, run});

} // namespace
} // namespace tool
