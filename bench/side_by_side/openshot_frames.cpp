// The libopenshot side of the side-by-side comparison (bench/compare): frames of a file
// read through openshot::FFmpegReader as an application using libopenshot reads them.
// Prints one line of name=value figures, in the form the comparison script reads.
//   openshot_frames sequential FILE THREADS        every frame in order: frames, seconds, fps
//   openshot_frames random FILE THREADS COUNT SEED COUNT frames at random, the same frames in
//                                                  the same order as `playfile bench random`
//                                                  picks from SEED: random_mean_ms
//   openshot_frames one FILE THREADS FRAME         open, one frame (counted from 0), close
// THREADS is libopenshot's decoder thread count (FF_THREADS and OMP_THREADS).
#include <FFmpegReader.h>
#include <Frame.h>
#include <Settings.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// libopenshot counts frames from 1.
bool frame(openshot::FFmpegReader& r, int64_t k) {
    std::shared_ptr<openshot::Frame> f = r.GetFrame(k + 1);
    return f && f->GetImage();
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fprintf(stderr, "usage: openshot_frames sequential|random|one FILE THREADS [COUNT SEED | FRAME]\n");
        return 2;
    }
    const std::string mode = argv[1];
    const int threads = std::atoi(argv[3]);
    openshot::Settings::Instance()->FF_THREADS = threads;
    openshot::Settings::Instance()->OMP_THREADS = threads;
    try {
        const auto opening = Clock::now();
        openshot::FFmpegReader r(argv[2]);
        r.Open();
        const int64_t frames = r.info.video_length;
        if (mode == "sequential") {
            const auto t = Clock::now();
            for (int64_t k = 0; k < frames; ++k)
                if (!frame(r, k)) return 1;
            const double s = msSince(t) / 1000;
            std::printf("frames=%lld seconds=%.3f fps=%.2f fps_whole=%.2f\n", (long long)frames, s, frames / s,
                        frames / (msSince(opening) / 1000));
        } else if (mode == "random" && argc > 5) {
            std::mt19937 rng(unsigned(std::atoi(argv[5])));
            const int count = std::atoi(argv[4]);
            double sum = 0;
            for (int i = 0; i < count; ++i) {
                const auto t = Clock::now();
                if (!frame(r, int64_t(rng() % uint64_t(frames)))) return 1;
                sum += msSince(t);
            }
            std::printf("count=%d random_mean_ms=%.3f\n", count, sum / count);
        } else if (mode == "one" && argc > 4) {
            if (!frame(r, std::atoll(argv[4]))) return 1;
            std::printf("one_ms=%.3f\n", msSince(opening));
        } else {
            std::fprintf(stderr, "openshot_frames: unknown mode %s\n", mode.c_str());
            return 2;
        }
        r.Close();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "openshot_frames: %s\n", e.what());
        return 1;
    }
    return 0;
}
