// The yardstick for random access: a plain libavformat/libavcodec seek-and-decode loop, as
// a program using FFmpeg directly would write it. For COUNT frames at random (the same
// frames, in the same order, as bench_backend_reads picks from the same seed) it seeks to
// the last key frame whose presentation time is not after the frame's (seeking by the
// frame's own time can land a group early in QuickTime files with B-frames), flushes the
// decoder and decodes until the frame comes out. Prints the mean and median latency, the
// pictures decoded per access, and how many accesses came out with a picture past the frame
// asked for (a wrong landing).
//   direct_decode FILE [COUNT] [SEED] [THREADS] [frame|slice]
// THREADS (default: one per core) is the decoder's thread count; frame threads unless
// "slice" is given (the better choice for single pictures of intra-only codecs).
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int fail(const char* what) {
    std::fprintf(stderr, "direct_decode: %s\n", what);
    return 1;
}

// The file, its video stream's decoder and the buffers the loop reuses; freed on exit.
struct Decoder {
    AVFormatContext* fmt = nullptr;
    AVCodecContext* dec = nullptr;
    AVPacket* pkt = av_packet_alloc();
    AVFrame* picture = av_frame_alloc();
    int stream = -1;
    // Every frame's presentation time, in order (frame k is the k-th picture shown), and
    // those of the key frames.
    std::vector<int64_t> pts, keys;

    ~Decoder() {
        av_frame_free(&picture);
        avcodec_free_context(&dec);
        av_packet_free(&pkt);
        avformat_close_input(&fmt);
    }
};

// Opens the file, reads every packet's time once and opens the decoder; null when done,
// else what failed.
const char* openDecoder(Decoder& d, const char* path, int threads, bool slice) {
    if (avformat_open_input(&d.fmt, path, nullptr, nullptr) < 0) return "cannot open the file";
    if (avformat_find_stream_info(d.fmt, nullptr) < 0) return "no stream information";
    const AVCodec* codec = nullptr;
    d.stream = av_find_best_stream(d.fmt, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (d.stream < 0 || !codec) return "no video stream";
    AVStream* st = d.fmt->streams[d.stream];
    while (av_read_frame(d.fmt, d.pkt) >= 0) {
        if (d.pkt->stream_index == d.stream) {
            d.pts.push_back(d.pkt->pts != AV_NOPTS_VALUE ? d.pkt->pts : d.pkt->dts);
            if (d.pkt->flags & AV_PKT_FLAG_KEY) d.keys.push_back(d.pts.back());
        }
        av_packet_unref(d.pkt);
    }
    std::sort(d.pts.begin(), d.pts.end());
    std::sort(d.keys.begin(), d.keys.end());
    if (d.pts.empty()) return "no frames";

    d.dec = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(d.dec, st->codecpar);
    d.dec->thread_count = threads;
    d.dec->thread_type = slice ? FF_THREAD_SLICE : FF_THREAD_FRAME;
    d.dec->pkt_timebase = st->time_base;
    if (avcodec_open2(d.dec, codec, nullptr) < 0) return "cannot open the decoder";
    return nullptr;
}

enum class Landing { kFound, kWrong, kMissed };

// One access: seeks to the key frame at or before target, flushes and decodes until the
// picture shown at target comes out (or one after it, or the stream ends).
Landing access(Decoder& d, int64_t target, int64_t& decoded) {
    auto key = std::upper_bound(d.keys.begin(), d.keys.end(), target);
    av_seek_frame(d.fmt, d.stream, key == d.keys.begin() ? target : *(key - 1), AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(d.dec);
    bool draining = false;
    for (;;) {
        int rc = avcodec_receive_frame(d.dec, d.picture);
        if (rc >= 0) {
            ++decoded;
            const int64_t shown = d.picture->best_effort_timestamp;
            av_frame_unref(d.picture);
            if (shown == target) return Landing::kFound;
            if (shown > target) return Landing::kWrong;
            continue;
        }
        if (rc != AVERROR(EAGAIN) || draining) return Landing::kMissed;
        rc = av_read_frame(d.fmt, d.pkt);
        if (rc < 0) {
            draining = true;
            avcodec_send_packet(d.dec, nullptr);
            continue;
        }
        if (d.pkt->stream_index == d.stream) avcodec_send_packet(d.dec, d.pkt);
        av_packet_unref(d.pkt);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) return fail("usage: direct_decode FILE [COUNT] [SEED] [THREADS]");
    const int count = argc > 2 ? std::atoi(argv[2]) : 200;
    const unsigned seed = argc > 3 ? unsigned(std::atoi(argv[3])) : 2024;
    const int threads = argc > 4 ? std::atoi(argv[4]) : int(std::thread::hardware_concurrency());
    const bool slice = argc > 5 && std::string(argv[5]) == "slice";
    av_log_set_level(AV_LOG_QUIET);

    Decoder d;
    if (const char* failure = openDecoder(d, argv[1], threads, slice)) return fail(failure);

    std::mt19937 rng(seed);
    std::vector<double> ms;
    int wrong = 0, missed = 0;
    int64_t decoded = 0;
    for (int i = 0; i < count; ++i) {
        const int64_t target = d.pts[rng() % d.pts.size()];
        const auto t = Clock::now();
        const Landing landing = access(d, target, decoded);
        // A wrong landing is also a miss: the picture asked for never came.
        wrong += landing == Landing::kWrong;
        missed += landing != Landing::kFound;
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t).count());
    }
    std::vector<double> sorted = ms;
    std::sort(sorted.begin(), sorted.end());
    double sum = 0;
    for (double v : ms) sum += v;
    std::printf("direct_mean_ms=%.3f direct_median_ms=%.3f direct_max_ms=%.3f direct_decodes_per_access=%.1f "
                "missed=%d wrong=%d\n",
                sum / double(ms.size()), sorted[sorted.size() / 2], sorted.back(), double(decoded) / count, missed,
                wrong);
    return 0;
}
