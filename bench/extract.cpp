// Extracting 10 s from the middle of a 1080p ProRes file and of a 1080p H.264 file through
// the FFmpeg transfer plug-in (FileXferSpec::get_extract, as the host calls it), against
// `ffmpeg -ss S -to E -i FILE -c copy` of the same section, in one run. Each side runs
// three times, alternating which goes first; the best time of each counts. Prints both
// times and the ratio (extraction over ffmpeg; 1.0 is as fast). ffmpeg's copy of H.264
// starts at the key frame before the section, where the extraction re-encodes the frames
// up to the first key frame inside it: the H.264 figure includes that re-encode.
//
// The two sources (24 s each) are made once with ffmpeg and kept in the build folder.
#include "backends/ffmpeg/FfmpegBackend.h"
#include "backends/ffmpegxfer/XferBackend.h"
#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"
#include "host/project/SystemCache.h"
#include "host/tasks/Logger.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/tasks/FileXfer.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fs = std::filesystem;

namespace {

constexpr int kRounds = 3;
constexpr double kStart = 7.0, kEnd = 17.0;

struct Source {
    const char* label;
    const char* name;
    const char* codec;
    std::string path;
    Cookie clip;
    double bestExtract = 1e9, bestFfmpeg = 1e9;
};

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "bench_extract: %s\n", what.c_str());
    std::exit(1);
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

std::string shellWord(const std::string& s) { return "'" + s + "'"; }

void make(Source& s) {
    const fs::path dir = PLAYFILE_BENCH_MEDIA_DIR;
    fs::create_directories(dir);
    s.path = (dir / s.name).string();
    if (fs::exists(s.path)) return;
    std::printf("making %s (once)...\n", s.name);
    std::fflush(stdout);
    const std::string line = "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25:duration=24 " +
                             std::string(s.codec) + " " + shellWord(s.path + ".tmp." + fs::path(s.name).extension().string().substr(1));
    if (std::system(line.c_str()) != 0) die("ffmpeg could not make " + s.path);
    fs::rename(s.path + ".tmp." + fs::path(s.name).extension().string().substr(1), s.path);
}

void timeFfmpeg(Source& s, const fs::path& dir) {
    const std::string out = (dir / ("ffmpeg" + fs::path(s.name).extension().string())).string();
    const std::string line = "ffmpeg -nostdin -v error -y -ss " + std::to_string(kStart) + " -to " +
                             std::to_string(kEnd) + " -i " + shellWord(s.path) + " -map 0:v -c copy " + shellWord(out);
    auto t0 = std::chrono::steady_clock::now();
    if (std::system(line.c_str()) != 0) die("ffmpeg -c copy failed");
    s.bestFfmpeg = std::min(s.bestFfmpeg, seconds(t0));
    fs::remove(out);
}

void timeExtract(Source& s) {
    FileXferSpec xfer;
    xfer.source = convertCookie(s.clip, 'V', 0);
    xfer.destination = convertCookie(ProjectImporter::newClipCookie(), 'V', 0);
    xfer.videoMetadata = ShotVideoMetadata(Zn::Image::FormatUID{}, Zn::kFrameRate25);
    xfer.start = kStart;
    xfer.end = kEnd;
    LoggerHandle log;
    auto t0 = std::chrono::steady_clock::now();
    if (xfer.get_extract(log) != FileXferSpec::kExtractDone) die(std::string("the extraction of ") + s.name + " failed");
    s.bestExtract = std::min(s.bestExtract, seconds(t0));
    fs::remove(toUTF8(SystemCache::findFileForCookie(xfer.destination)).str());
}

} // namespace

int main() {
    Source sources[] = {
        {"ProRes 422 1080p25", "extract-prores.mov", "-c:v prores_ks -profile:v 2 -pix_fmt yuv422p10le", {}, {}},
        {"H.264 1080p25 (GOP 50, B-frames)", "extract-h264.mp4",
         "-c:v libx264 -preset veryfast -g 50 -bf 2 -pix_fmt yuv420p", {}, {}},
    };
    for (Source& s : sources) make(s);

    char pattern[] = "/tmp/playfile-bench-extract-XXXXXX";
    if (!mkdtemp(pattern)) die("cannot make a folder under /tmp");
    const fs::path dir = pattern;
    WString error;
    if (!EditManager::openProject(fromUTF8((dir / "project").c_str()), true, &error) ||
        !DiskManager::addDrive(DriveId('A'), fromUTF8((dir / "drive A").c_str()), WString(), "import,render", &error))
        die("cannot make the project: " + toUTF8(error).str());
    ffmpeg_backend::registerBackend();
    ffmpeg_xfer::registerBackend();
    for (Source& s : sources) {
        ImportOptions o;
        o.videoChannels = 1;
        o.audioChannels = 0;
        ImportResult r = ProjectImporter(o).importFile(fromUTF8(s.path.c_str()));
        if (!r.ok) die("cannot import " + s.path + ": " + toUTF8(r.error).str());
        s.clip = r.clip;
    }
    for (int round = 0; round < kRounds; ++round)
        for (Source& s : sources) {
            if (round % 2 == 0) timeFfmpeg(s, dir);
            timeExtract(s);
            if (round % 2 == 1) timeFfmpeg(s, dir);
        }
    for (const Source& s : sources)
        std::printf("%-34s %g s to %g s: extract %.3f s, ffmpeg -c copy %.3f s: ratio %.2fx\n", s.label, kStart, kEnd,
                    s.bestExtract, s.bestFfmpeg, s.bestExtract / s.bestFfmpeg);
    PlayFileCache::Shared().closeAll();
    EditManager::closeProject();
    fs::remove_all(dir);
    return 0;
}
