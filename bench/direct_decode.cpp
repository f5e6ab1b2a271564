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

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) return fail("usage: direct_decode FILE [COUNT] [SEED] [THREADS]");
    const int count = argc > 2 ? std::atoi(argv[2]) : 200;
    const unsigned seed = argc > 3 ? unsigned(std::atoi(argv[3])) : 2024;
    const int threads = argc > 4 ? std::atoi(argv[4]) : int(std::thread::hardware_concurrency());
    const bool slice = argc > 5 && std::string(argv[5]) == "slice";
    av_log_set_level(AV_LOG_QUIET);

    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, argv[1], nullptr, nullptr) < 0) return fail("cannot open the file");
    if (avformat_find_stream_info(fmt, nullptr) < 0) return fail("no stream information");
    const AVCodec* codec = nullptr;
    const int stream = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (stream < 0 || !codec) return fail("no video stream");
    AVStream* st = fmt->streams[stream];

    // Every frame's presentation time, in order: frame k is the k-th picture shown.
    std::vector<int64_t> pts, keys;
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(fmt, pkt) >= 0) {
        if (pkt->stream_index == stream) {
            pts.push_back(pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts);
            if (pkt->flags & AV_PKT_FLAG_KEY) keys.push_back(pts.back());
        }
        av_packet_unref(pkt);
    }
    std::sort(pts.begin(), pts.end());
    std::sort(keys.begin(), keys.end());
    if (pts.empty()) return fail("no frames");

    AVCodecContext* dec = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(dec, st->codecpar);
    dec->thread_count = threads;
    dec->thread_type = slice ? FF_THREAD_SLICE : FF_THREAD_FRAME;
    dec->pkt_timebase = st->time_base;
    if (avcodec_open2(dec, codec, nullptr) < 0) return fail("cannot open the decoder");
    AVFrame* picture = av_frame_alloc();

    std::mt19937 rng(seed);
    std::vector<double> ms;
    int wrong = 0, missed = 0;
    int64_t decoded = 0;
    for (int i = 0; i < count; ++i) {
        const int64_t target = pts[rng() % pts.size()];
        const auto t = Clock::now();
        auto key = std::upper_bound(keys.begin(), keys.end(), target);
        av_seek_frame(fmt, stream, key == keys.begin() ? target : *(key - 1), AVSEEK_FLAG_BACKWARD);
        avcodec_flush_buffers(dec);
        bool found = false, draining = false;
        while (!found) {
            int rc = avcodec_receive_frame(dec, picture);
            if (rc >= 0) {
                ++decoded;
                const int64_t shown = picture->best_effort_timestamp;
                av_frame_unref(picture);
                if (shown == target) found = true;
                else if (shown > target) {
                    ++wrong;
                    break;
                }
                continue;
            }
            if (rc != AVERROR(EAGAIN) || draining) break;
            rc = av_read_frame(fmt, pkt);
            if (rc < 0) {
                draining = true;
                avcodec_send_packet(dec, nullptr);
                continue;
            }
            if (pkt->stream_index == stream) avcodec_send_packet(dec, pkt);
            av_packet_unref(pkt);
        }
        if (!found) ++missed;
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
    av_frame_free(&picture);
    avcodec_free_context(&dec);
    av_packet_free(&pkt);
    avformat_close_input(&fmt);
    return 0;
}
