// Writing 1080p frames through the FFmpeg writer, side by side with FFmpeg's own program
// encoding the same raw frames with the same codec and settings. Both read the frames from
// one raw file (generated into the build folder on first use and kept there), so the
// figures differ only by what each does between reading a frame and writing the file.
//
//   bench_write_ffmpeg [--frames N] [--pix-fmt yuv422p10le|yuv420p] [--codec ffv1|prores]
//                      [--threads T] [--rounds R] [--dir DIR]
//
// Prints frames per second of each, best of R rounds, and their ratio (target: the
// writer at least 0.9 of FFmpeg's program).
#include "backends/ffmpeg/FfmpegWriter.h"
#include "host/core/Strings.h"
#include "host/media/CapturePacket.h"
#include "host/media/FileWriterInfo.h"
#include "playfile/open/PlayFileWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

struct Settings {
    int frames = 100;
    std::string pixFmt = "yuv422p10le";
    std::string codec = "ffv1";
    int threads = 2;
    int rounds = 3;
    std::string dir = PLAYFILE_BENCH_MEDIA_DIR;
    int width = 1920, height = 1080;
};

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int run(const std::string& command) {
    int rc = std::system(command.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// The encoder settings both sides use: FFV1 version 3 with 4 slices (so that the slices
// are what its threads share), every frame a key frame; ProRes with FFmpeg's defaults.
std::string ffmpegCodecArgs(const Settings& s) {
    std::string t = " -threads " + std::to_string(s.threads);
    if (s.codec == "ffv1") return " -c:v ffv1 -level 3 -slices 4 -slicecrc 1 -g 1" + t + " -f matroska";
    return " -c:v prores_ks -pix_fmt yuv422p10le" + t + " -f mov";
}

void writerOptions(const Settings& s, Zn::FileWriterParams& p) {
    p.codec = s.codec.c_str();
    p.options.set("threads", int64_t(s.threads));
    if (s.codec == "ffv1") {
        p.options.set("level", int64_t(3));
        p.options.set("slices", int64_t(4));
        p.options.set("slicecrc", int64_t(1));
        p.container = "matroska";
    } else {
        p.container = "mov";
    }
}

Zn::Image::eDataFormat hostFormat(const std::string& pixFmt) {
    return pixFmt == "yuv420p" ? Zn::Image::kFormatYUV420P : Zn::Image::kFormatYUV422P10LE;
}

// FFmpeg's program, from start to exit: wall-clock frames per second.
double programFps(const Settings& s, const std::string& raw, const std::string& out) {
    std::string cmd = "ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt " + s.pixFmt + " -s " +
                      std::to_string(s.width) + "x" + std::to_string(s.height) + " -r 25 -i '" + raw + "'" +
                      ffmpegCodecArgs(s) + " '" + out + "'";
    double t0 = now();
    if (run(cmd) != 0) {
        std::fprintf(stderr, "ffmpeg failed: %s\n", cmd.c_str());
        std::exit(1);
    }
    return s.frames / (now() - t0);
}

// The writer, from creating the file to closing it, each frame read from the raw file
// into a host surface and handed to the library's sample writer as the capture code
// would (which waits while more than 32 frames are pending in the writer).
double writerFps(const Settings& s, const std::string& raw, const std::string& out) {
    const Zn::Image::eDataFormat f = hostFormat(s.pixFmt);
    Zn::FileWriterParams params;
    params.core.setCoreData(uint32_t(s.width), uint32_t(s.height), f);
    writerOptions(s, params);
    int fd = ::open(raw.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) std::exit(1);
    Zn::Image::Surface frame = Zn::Image::Surface::allocate(params.core);
    frame.set();

    double t0 = now();
    Zn::Ptr<Zn::FileWriteInstance> file = PlayFileWriter::open(fromUTF8(out.c_str()), params);
    if (!file) {
        std::fprintf(stderr, "the writer could not create %s\n", out.c_str());
        std::exit(1);
    }
    off_t at = 0;
    for (int n = 0; n < s.frames; ++n) {
        for (unsigned p = 0; p < frame.planeCount(); ++p) {
            const uint32_t rowBytes = Zn::Image::minimumStride(f, p, params.core.getWidth());
            const uint32_t rows = Zn::Image::planeHeight(f, p, params.core.getHeight());
            for (uint32_t y = 0; y < rows; ++y, at += rowBytes)
                if (::pread(fd, frame.plane(p) + size_t(y) * frame.stride(p), rowBytes, at) != ssize_t(rowBytes))
                    std::exit(1);
        }
        Zn::Ptr<CapturePacket> packet = Zn::makePtr<CapturePacket>(frame, n);
        if (PlayFileWriter::writeVideoSample(file, n, packet, nullptr) != 1) {
            std::fprintf(stderr, "frame %d refused\n", n);
            std::exit(1);
        }
    }
    if (file->close() != 1) std::exit(1);
    double fps = s.frames / (now() - t0);
    ::close(fd);
    return fps;
}

} // namespace

int main(int argc, char** argv) {
    Settings s;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string k = argv[i], v = argv[i + 1];
        if (k == "--frames") s.frames = std::atoi(v.c_str());
        else if (k == "--pix-fmt") s.pixFmt = v;
        else if (k == "--codec") s.codec = v;
        else if (k == "--threads") s.threads = std::atoi(v.c_str());
        else if (k == "--rounds") s.rounds = std::atoi(v.c_str());
        else if (k == "--dir") s.dir = v;
    }
    std::filesystem::create_directories(s.dir);
    const std::string raw = s.dir + "/write-source-" + s.pixFmt + "-" + std::to_string(s.frames) + ".raw";
    if (!std::filesystem::exists(raw)) {
        // Moving noisy test pictures: content an intra codec must work for.
        std::string gen = "ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -vf "
                          "noise=alls=12:allf=t -frames:v " + std::to_string(s.frames) + " -pix_fmt " + s.pixFmt +
                          " -f rawvideo '" + raw + ".tmp' && mv '" + raw + ".tmp' '" + raw + "'";
        if (run(gen) != 0) return 1;
    }
    run("cat '" + raw + "' > /dev/null"); // both sides start with the frames in the page cache

    Zn::Ptr<Zn::iFileWriter> ffmpegWriter(new ffmpeg_backend::FfmpegFileWriter);
    Zn::FileWriterInfo::registerFileWriter(ffmpegWriter);

    const std::string ext = s.codec == "ffv1" ? ".mkv" : ".mov";
    double best[2] = {0, 0};
    for (int r = 0; r < s.rounds; ++r) {
        // Alternate which side goes first, so neither always meets a warmer machine.
        for (int k = 0; k < 2; ++k) {
            int side = (r + k) % 2;
            double fps = side == 0 ? programFps(s, raw, s.dir + "/write-ffmpeg" + ext)
                                   : writerFps(s, raw, s.dir + "/write-playfile" + ext);
            best[side] = std::max(best[side], fps);
        }
    }
    Zn::FileWriterInfo::unregisterFileWriter(ffmpegWriter);
    const double ratio = best[1] / best[0];
    std::printf("write figures: %d frames 1920x1080 %s, %s, %d threads, best of %d\n", s.frames, s.pixFmt.c_str(),
                s.codec.c_str(), s.threads, s.rounds);
    std::printf("  ffmpeg program %.2f fps, playfile writer %.2f fps, ratio %.2f (target: at least 0.9)\n", best[0],
                best[1], ratio);
    return 0;
}
