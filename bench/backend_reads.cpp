// Frame reads through the library and the back-ends, as the comparison script
// (bench/compare --library) measures them beside FFmpeg on the same files. Each mode prints
// one line of "name=value" figures:
//   sequential FILE [INFLIGHT] [PASSES]
//                                every frame in order; the next request is queued as soon
//                                as the oldest picture is complete (INFLIGHT at once,
//                                default 1), PASSES times over (default 1): frames per
//                                second (fps_whole with the open included) and pictures
//                                decoded
//   random FILE [COUNT] [SEED]   COUNT (200) frames at random (FRAMES_SEED order, shared
//                                with bench_direct_decode): mean and median latency from
//                                queueing to the complete picture, pictures decoded per
//                                access
//   first FILE [TRIALS]          a newly opened file, one random frame: time to its picture
//   backward FILE [STEPS]        from a random frame, one frame back at a time
//   same-frame FILE [ISSUERS]    ISSUERS threads ask for the same frame at once: pictures
//                                decoded, against one issuer asking alone
//   read FILE FRAMEBYTES [PASSES] a plain read() of the file in frame-sized pieces: MB/s
// Files are opened through the reader registry with the back-ends loaded as plug-ins.
#include "backends/ffmpeg/FfmpegReader.h"
#include "backends/ffmpeg/FfmpegVideoCodec.h"
#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/requests/RequestWaiter.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

Zn::Ptr<FileReadInstance> openVideo(const char* path) {
    Zn::BackendPlugins::loadAll();
    const WString name = fromUTF8(path);
    for (const auto& reader : Zn::FileReaderInfo::getAll()) {
        if (!reader->accepts(name, OpenType::kVideo)) continue;
        if (auto file = reader->open(DecodeFormat::getDefault(), name, OpenType::kVideo)) return file;
    }
    std::fprintf(stderr, "cannot open %s\n", path);
    std::exit(1);
}

// Pictures decoded for the file so far: its streaming decoder's, or the registered
// decoder's (intra frames).
uint64_t decodes(const Zn::Ptr<FileReadInstance>& file) {
    if (auto* f = dynamic_cast<ffmpeg_backend::FfmpegReadInstance*>(file.get()); f && f->streamsVideo())
        return f->picturesDecoded();
    return ffmpeg_backend::registeredDecoderPictures();
}

// One queued frame read. A read that joins an equal one that had already failed gets no
// callback; the waiter learns it from the status of the request it holds.
struct Read {
    RequestWaiter waiter;
    Zn::Ptr<VideoReadRequest> request;
    Read(Zn::Ptr<FileReadInstance>& file, uint32_t frame) {
        Zn::Ptr<IndexInfoRep> index;
        file->ZnFileIxCache_open(index, frame);
        request = Zn::makePtr<VideoReadRequest>(file, index, frame, kResultDecoded, DecodeFormat::getDefault(),
                                                waiter.getProxy());
        waiter.queue(request);
    }
    // The picture, once complete (an empty surface when the read failed).
    Zn::Image::Surface picture() {
        waiter.wait(std::chrono::hours(1));
        Zn::Ptr<FrameBufferRep> b = Zn::dynamicPtrCast<FrameBufferRep>(waiter.result());
        Zn::Image::Surface s = b ? b->getSurface(0) : Zn::Image::Surface();
        return s.wait() == Zn::Image::Surface::kWaitComplete ? s : Zn::Image::Surface();
    }
};

bool readOne(Zn::Ptr<FileReadInstance>& file, uint32_t frame, double* ms = nullptr) {
    const auto t = Clock::now();
    Read r(file, frame);
    const bool ok = !r.picture().empty();
    if (ms) *ms = msSince(t);
    return ok;
}

std::vector<uint32_t> randomFrames(uint32_t frames, int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<uint32_t> out;
    for (int i = 0; i < count; ++i) out.push_back(uint32_t(rng() % frames));
    return out;
}

int sequential(const char* path, int inflight, int passes) {
    const auto opening = Clock::now();
    Zn::Ptr<FileReadInstance> file = openVideo(path);
    const double openSeconds = msSince(opening) / 1000;
    const uint32_t frames = file->getMetadata()->getFrameCount();
    const uint64_t before = decodes(file);
    std::deque<std::unique_ptr<Read>> window;
    uint32_t failed = 0;
    const auto t = Clock::now();
    for (int pass = 0; pass < passes; ++pass) {
        uint32_t next = 0;
        while (next < frames || !window.empty()) {
            while (next < frames && int(window.size()) < inflight) window.push_back(std::make_unique<Read>(file, next++));
            if (window.front()->picture().empty()) ++failed;
            window.pop_front();
        }
    }
    const double seconds = msSince(t) / 1000;
    // fps_whole counts the open too, as a program's whole run does.
    std::printf("frames=%u seconds=%.3f fps=%.2f fps_whole=%.2f decodes=%llu failed=%u\n", frames, seconds,
                double(frames) * passes / seconds, double(frames) * passes / (seconds + openSeconds),
                (unsigned long long)(decodes(file) - before), failed);
    file->purge();
    return failed ? 1 : 0;
}

void printLatencies(const char* what, std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    double sum = 0;
    for (double v : ms) sum += v;
    std::printf("%s_mean_ms=%.3f %s_median_ms=%.3f %s_max_ms=%.3f", what, sum / double(ms.size()), what,
                ms[ms.size() / 2], what, ms.back());
}

int random(const char* path, int count, unsigned seed) {
    Zn::Ptr<FileReadInstance> file = openVideo(path);
    const uint32_t frames = file->getMetadata()->getFrameCount();
    std::vector<double> ms;
    int failed = 0;
    const uint64_t before = decodes(file);
    for (uint32_t k : randomFrames(frames, count, seed)) {
        double t;
        if (!readOne(file, k, &t)) ++failed;
        ms.push_back(t);
    }
    printLatencies("random", ms);
    const uint64_t decoded = decodes(file) - before;
    std::printf(" decodes=%llu decodes_per_access=%.1f failed=%d\n", (unsigned long long)decoded,
                double(decoded) / count, failed);
    file->purge();
    return failed ? 1 : 0;
}

int first(const char* path, int trials) {
    std::vector<double> ms;
    uint32_t frames = 0;
    for (int i = 0; i < trials; ++i) {
        Zn::Ptr<FileReadInstance> file = openVideo(path);
        frames = file->getMetadata()->getFrameCount();
        double t;
        readOne(file, randomFrames(frames, i + 1, 77).back(), &t);
        ms.push_back(t);
        file->purge();
    }
    printLatencies("first", ms);
    std::printf("\n");
    return 0;
}

int backward(const char* path, int steps) {
    Zn::Ptr<FileReadInstance> file = openVideo(path);
    const uint32_t frames = file->getMetadata()->getFrameCount();
    uint32_t at = std::min<uint32_t>(frames - 1, uint32_t(steps) + frames / 3);
    double seekMs;
    readOne(file, at, &seekMs);
    std::vector<double> ms;
    for (int i = 0; i < steps && at > 0; ++i) {
        double t;
        readOne(file, --at, &t);
        ms.push_back(t);
    }
    std::printf("seek_ms=%.3f ", seekMs);
    printLatencies("back", ms);
    std::printf("\n");
    file->purge();
    return 0;
}

int sameFrame(const char* path, int issuers) {
    Zn::Ptr<FileReadInstance> file = openVideo(path);
    const uint32_t frames = file->getMetadata()->getFrameCount();
    // One issuer alone, on a file of its own, to know what one read of the frame costs.
    const uint32_t frame = frames / 2 + 3;
    uint64_t alone;
    {
        Zn::Ptr<FileReadInstance> other = openVideo(path);
        const uint64_t before = decodes(other);
        readOne(other, frame);
        alone = decodes(other) - before;
        other->purge();
    }
    const uint64_t before = decodes(file);
    std::barrier start(issuers);
    std::vector<std::thread> threads;
    std::atomic<int> failed{0};
    for (int i = 0; i < issuers; ++i)
        threads.emplace_back([&] {
            start.arrive_and_wait();
            if (!readOne(file, frame)) ++failed;
        });
    for (auto& t : threads) t.join();
    std::printf("issuers=%d decodes=%llu decodes_one_issuer=%llu failed=%d\n", issuers,
                (unsigned long long)(decodes(file) - before), (unsigned long long)alone, failed.load());
    file->purge();
    return 0;
}

int plainRead(const char* path, size_t frameBytes, int passes) {
    std::vector<uint8_t> buffer(frameBytes);
    uint64_t total = 0;
    const auto t = Clock::now();
    for (int pass = 0; pass < passes; ++pass) {
        const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) return 1;
        for (;;) {
            ssize_t n = ::read(fd, buffer.data(), buffer.size());
            if (n <= 0) break;
            total += uint64_t(n);
        }
        ::close(fd);
    }
    const double seconds = msSince(t) / 1000;
    std::printf("bytes=%llu seconds=%.3f mbps=%.1f\n", (unsigned long long)total, seconds, total / seconds / 1e6);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s sequential|random|first|backward|same-frame|read FILE [N]\n", argv[0]);
        return 2;
    }
    const std::string mode = argv[1];
    const char* path = argv[2];
    const int n = argc > 3 ? std::atoi(argv[3]) : 0;
    const int m = argc > 4 ? std::atoi(argv[4]) : 0;
    if (mode == "sequential") return sequential(path, n > 0 ? n : 1, m > 0 ? m : 1);
    if (mode == "random") return random(path, n > 0 ? n : 200, m > 0 ? unsigned(m) : 2024);
    if (mode == "first") return first(path, n > 0 ? n : 10);
    if (mode == "backward") return backward(path, n > 0 ? n : 60);
    if (mode == "same-frame") return sameFrame(path, n > 0 ? n : 8);
    if (mode == "read") return plainRead(path, size_t(n > 0 ? n : 1 << 20), m > 0 ? m : 1);
    std::fprintf(stderr, "unknown mode %s\n", mode.c_str());
    return 2;
}
