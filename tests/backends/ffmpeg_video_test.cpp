// The FFmpeg engine's video against FFmpeg itself, for what reading through the play file
// cache does not reach: streams without presentation times, group decoding with every
// threading choice, stepping back through a decoded group, and intra-only packets decoded
// on other threads. Each frame has the MD5 that `ffmpeg -f framemd5` prints for it.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

using namespace testing_support;
using namespace ffmpeg_engine;

namespace {

// Small pictures with detail in every plane and motion, so every frame differs.
const std::string kSource = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=2 ";

std::shared_ptr<const MediaIndex> openIndex(const std::string& path) {
    auto index = FfmpegSource::open(path);
    EXPECT_TRUE(index) << path << ": " << index.error;
    return index ? index.value : nullptr;
}

std::string md5Of(FfmpegVideoDecoder& d, int frame) {
    auto picture = d.decodeFrame(frame);
    if (!picture) return "failed: " + picture.error;
    return pictureMd5(*picture.value);
}

// Every frame in order, then in reverse and at random without the frame cache, so that
// each of those reads seeks and decodes.
void expectEveryFrame(const std::string& path) {
    SCOPED_TRACE(path);
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    ASSERT_FALSE(want.empty());
    auto index = openIndex(path);
    ASSERT_TRUE(index && index->video);
    ASSERT_EQ(index->video->frameCount(), int(want.size()));
    const int n = int(want.size());

    auto inOrder = FfmpegVideoDecoder::open(index);
    ASSERT_TRUE(inOrder) << inOrder.error;
    for (int k = 0; k < n; ++k) ASSERT_EQ(md5Of(*inOrder.value, k), want[size_t(k)]) << "in order, frame " << k;
    EXPECT_EQ(inOrder.value->stats().sessions, 1) << "reading in order never restarts";

    VideoDecoderOptions uncached;
    uncached.cacheBytes = 0;
    auto seeking = FfmpegVideoDecoder::open(index, uncached);
    ASSERT_TRUE(seeking) << seeking.error;
    for (int k = n - 1; k >= 0; --k) ASSERT_EQ(md5Of(*seeking.value, k), want[size_t(k)]) << "in reverse, frame " << k;
    std::mt19937 rng(20240607);
    for (int i = 0; i < 40; ++i) {
        const int k = int(rng() % unsigned(n));
        ASSERT_EQ(md5Of(*seeking.value, k), want[size_t(k)]) << "at random, frame " << k;
    }
}

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kSource) {
    return ffmpeg_oracle::made(dir, name, source, args);
}

} // namespace

// Streams without presentation times: H.264 and MPEG-2 elementary streams (none, or only
// some), AVI with B-frames (decode times only), and Xvid's packed B-frames, where the
// decoder shows each picture a packet late. The order comes from one decoding pass at
// open; seeking falls back on byte positions; packed streams decode from the start.
// One test per stream, so that the slow ones (every order, under a sanitizer) run side by
// side.
TEST(FfmpegVideo, StreamsWithoutPresentationTimesH264) {
    TempDir dir;
    const std::string h264 = make(dir, "raw.h264", "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p");
    expectEveryFrame(h264);
    auto index = openIndex(h264);
    ASSERT_TRUE(index);
    EXPECT_TRUE(index->video->orderFromDecoder);
}

TEST(FfmpegVideo, StreamsWithoutPresentationTimesMpeg2) {
    TempDir dir;
    expectEveryFrame(make(dir, "raw.m2v", "-c:v mpeg2video -g 12 -bf 2"));
}

TEST(FfmpegVideo, StreamsWithoutPresentationTimesAvi) {
    TempDir dir;
    expectEveryFrame(make(dir, "mpeg4.avi", "-c:v mpeg4 -g 12 -bf 2"));
    expectEveryFrame(make(dir, "xvid.avi", "-c:v libxvid -g 12 -bf 2"));
}

// Group decoding as the streaming reader uses it, with every threading choice: the frames
// come in order, each exactly once, equal to FFmpeg's; a refusing callback stops it.
TEST(FfmpegVideo, DecodeRangeByGroupsWithEveryThreading) {
    TempDir dir;
    const std::string path = make(dir, "open.mkv", "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p "
                                                   "-x264-params open_gop=1");
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    auto index = openIndex(path);
    ASSERT_TRUE(index);
    const VideoTrack& v = *index->video;
    ASSERT_EQ(v.frameCount(), int(want.size()));

    struct Mode { Threading threading; int threads; bool skip; };
    for (Mode m : {Mode{Threading::Single, 1, false}, Mode{Threading::Slice, 2, false},
                   Mode{Threading::Frame, 3, true}}) {
        SCOPED_TRACE(threadingName(m.threading));
        VideoDecoderOptions options;
        options.threading = m.threading;
        options.threads = m.threads;
        options.skipUnneededAfterSeek = m.skip;
        options.cacheBytes = 0;
        auto d = FfmpegVideoDecoder::open(index, options);
        ASSERT_TRUE(d) << d.error;
        EXPECT_EQ(d.value->threading(), m.threading);
        // Groups from the last to the first, so that every group starts with a seek.
        std::vector<std::pair<int, int>> groups;
        for (int k = 0; k < v.frameCount(); k = v.groupOf(k).second + 1) groups.push_back(v.groupOf(k));
        ASSERT_GT(groups.size(), 3u);
        for (auto [first, last] : groups) {
            // Open GOP: a group starts at its key frame, and the pictures shown before
            // the next key frame but decoded after it belong to it too.
            EXPECT_TRUE(v.frames[size_t(first)].isKey()) << first;
            EXPECT_EQ(v.keyFrameOf(last), first);
            EXPECT_EQ(v.groupStart(last), first);
        }
        for (auto g = groups.rbegin(); g != groups.rend(); ++g) {
            int expected = g->first;
            auto got = d.value->decodeRange(g->first, g->second, [&](int k, const AVFrame* picture) {
                EXPECT_EQ(k, expected++);
                EXPECT_EQ(pictureMd5(*picture), want[size_t(k)]) << "frame " << k;
                return true;
            });
            ASSERT_TRUE(got) << got.error;
            EXPECT_EQ(got.value, g->second - g->first + 1);
        }
        // Every group decodes from its own start, except that H.264 holds back the pictures
        // after the last open-GOP I-frame at the end of the stream unless decoding began
        // a group earlier: one more start for the last group.
        EXPECT_LE(d.value->stats().sessions, int64_t(groups.size()) + 1);

        // A range across groups, stopped by the callback after three frames.
        int seen = 0;
        auto stopped = d.value->decodeRange(5, 30, [&](int, const AVFrame*) { return ++seen < 3; });
        ASSERT_TRUE(stopped) << stopped.error;
        EXPECT_EQ(stopped.value, 3);
        // And carrying on from there costs no new start.
        const int64_t sessions = d.value->stats().sessions;
        auto next = d.value->decodeFrame(8);
        ASSERT_TRUE(next) << next.error;
        EXPECT_EQ(pictureMd5(*next.value), want[8]);
        EXPECT_EQ(d.value->stats().sessions, sessions);
    }
}

// Stepping back one frame at a time through a long group is served from the frames kept
// on the way, not by decoding the group again for every step: the jump to frame 45 leaves
// out the pictures nobody refers to, the first step back to one of those decodes the
// stretch behind it whole, and so on a stretch at a time. Without leaving anything out,
// the jump alone decodes the group and every step back is served from it.
TEST(FfmpegVideo, SteppingBackUsesTheDecodedGroup) {
    TempDir dir;
    const std::string path = make(dir, "long.mp4", "-c:v libx264 -preset veryfast -g 50 -bf 3 -pix_fmt yuv420p");
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    auto index = openIndex(path);
    ASSERT_TRUE(index);
    for (bool skip : {true, false}) {
        VideoDecoderOptions options;
        options.skipUnneededAfterSeek = skip;
        auto d = FfmpegVideoDecoder::open(index, options);
        ASSERT_TRUE(d);
        for (int k = 45; k >= 0; --k) ASSERT_EQ(md5Of(*d.value, k), want[size_t(k)]) << k;
        const auto& s = d.value->stats();
        EXPECT_EQ(s.sessions, skip ? 3 : 1) << skip;
        EXPECT_LE(s.picturesDecoded, skip ? 2 * 46 : 46 + 4) << skip;
        EXPECT_GE(s.cacheHits, skip ? 40 : 45) << skip;
    }
}

// After a seek, pictures before the frame wanted that no other picture refers to are not
// decoded, and the frame and every frame after it are still FFmpeg's: H.264 with a
// B-pyramid length-prefixed (MP4) and with start codes (MPEG-TS), HEVC in both framings
// (x265's open groups, non-reference B-pictures) and with two temporal sub-layers (where
// only the upper one's non-reference pictures are nobody's), MPEG-2 and MPEG-4 part 2
// B-frames. At
// random frames, each followed by the next two frames (playing on), with frame threads;
// the same seeks without leaving anything out decode more.
TEST(FfmpegVideo, SeeksLeaveOutPicturesNobodyRefersTo) {
    TempDir dir;
    const std::string source = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=4 ";
    const std::string x264 = "-c:v libx264 -preset veryfast -g 50 -bf 3 -x264-params b-pyramid=normal -pix_fmt yuv420p";
    const std::string x265 = "-c:v libx265 -preset veryfast -pix_fmt yuv420p -x265-params log-level=error:keyint=50:bframes=4";
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"pyramid.mp4", x264}, {"pyramid.ts", x264}, {"hevc.mp4", x265}, {"hevc.hevc", x265},
             {"layers.mkv", x265 + ":temporal-layers=1"},
             {"mpeg2.mpg", "-c:v mpeg2video -g 50 -bf 2 -q:v 4"}, {"mpeg4.mp4", "-c:v mpeg4 -g 50 -bf 2 -q:v 4"}}) {
        SCOPED_TRACE(name);
        const std::string path = make(dir, name, args, source);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
        auto index = openIndex(path);
        ASSERT_TRUE(index && index->video);
        const int n = index->video->frameCount();
        ASSERT_EQ(n, int(want.size()));
        int64_t decoded[2] = {0, 0};
        for (bool skip : {true, false}) {
            VideoDecoderOptions options;
            options.threading = Threading::Frame;
            options.threads = 2;
            options.cacheBytes = 0;
            options.skipUnneededAfterSeek = skip;
            auto d = FfmpegVideoDecoder::open(index, options);
            ASSERT_TRUE(d) << d.error;
            std::mt19937 rng(31);
            for (int i = 0; i < 25; ++i) {
                const int k = int(rng() % unsigned(n));
                for (int j = k; j < std::min(n, k + 3); ++j)
                    ASSERT_EQ(md5Of(*d.value, j), want[size_t(j)]) << "frame " << j << " after a seek to " << k;
            }
            decoded[skip ? 0 : 1] = d.value->stats().picturesDecoded;
            EXPECT_EQ(d.value->stats().packetsSkipped > 0, skip);
        }
        EXPECT_LT(decoded[0], decoded[1] * 9 / 10);
        std::printf("%s: %lld pictures decoded for 25 seeks, %lld without leaving any out\n", name.c_str(),
                    (long long)decoded[0], (long long)decoded[1]);
    }
}

// Intra-only frames read as compressed packets and decoded apart, by decoders on other
// threads, each with its own codec context, in any order.
TEST(FfmpegVideo, IntraPacketsDecodeOnOtherThreads) {
    TempDir dir;
    for (const std::string& path : {make(dir, "prores.mov", "-c:v prores_ks -profile:v 1"),
                                    make(dir, "mjpeg.mov", "-c:v mjpeg -q:v 4 -pix_fmt yuvj422p")}) {
        SCOPED_TRACE(path);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
        auto index = openIndex(path);
        ASSERT_TRUE(index);
        ASSERT_TRUE(index->video->allFramesKey);
        ASSERT_EQ(index->video->frameCount(), int(want.size()));
        auto reader = FfmpegPacketReader::open(index);
        ASSERT_TRUE(reader) << reader.error;
        const int n = int(want.size());
        std::vector<PacketPtr> packets(static_cast<size_t>(n));
        for (int k = n - 1; k >= 0; --k) { // backwards: every read seeks
            auto p = reader.value->readPacket(k);
            ASSERT_TRUE(p) << p.error;
            packets[size_t(k)] = std::move(p.value);
        }
        std::vector<std::string> got(static_cast<size_t>(n));
        std::vector<std::thread> workers;
        for (int t = 0; t < 2; ++t)
            workers.emplace_back([&, t] {
                auto decoder = FfmpegPacketDecoder::open(index);
                if (!decoder) return;
                for (int k = t; k < n; k += 2) {
                    auto picture = decoder.value->decode(*packets[size_t(k)]);
                    got[size_t(k)] = picture ? pictureMd5(*picture.value) : picture.error;
                }
            });
        for (auto& w : workers) w.join();
        for (int k = 0; k < n; ++k) EXPECT_EQ(got[size_t(k)], want[size_t(k)]) << "frame " << k;
    }
}
