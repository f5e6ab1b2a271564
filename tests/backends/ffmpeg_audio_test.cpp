// The FFmpeg engine's audio against FFmpeg itself: the sample count and the samples read
// at arbitrary positions and sizes (in order, at random, all at once) equal what
// `ffmpeg -i FILE -map 0:a:N -f f32le|s16le|...` decodes, for plain PCM read by byte
// position and for compressed audio decoded with pre-roll after a seek.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <cstdio>
#include <random>
#include <tuple>

using namespace testing_support;
using namespace ffmpeg_engine;

namespace {

// A tone on the left, noise on the right: every sample differs, and noise exercises the
// codecs' noise coding too.
const std::string kStereo = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2.3 "
                            "-f lavfi -i anoisesrc=d=2.3:c=pink:r=48000:a=0.1:seed=6 -filter_complex amerge=inputs=2 ";

const char* rawFormatOf(AVSampleFormat f) {
    switch (av_get_packed_sample_fmt(f)) {
    case AV_SAMPLE_FMT_U8: return "u8";
    case AV_SAMPLE_FMT_S16: return "s16le";
    case AV_SAMPLE_FMT_S32: return "s32le";
    case AV_SAMPLE_FMT_FLT: return "f32le";
    case AV_SAMPLE_FMT_DBL: return "f64le";
    default: return nullptr;
    }
}

struct Checked {
    int64_t total = 0;
    bool exactInOrder = true;  // reads from the start onwards equal FFmpeg's bytes
    bool exactAtRandom = true; // reads after seeks equal FFmpeg's bytes
    double worstError = 0;     // largest RMS difference relative to the signal, after seeks
    int worstLag = 0;          // the shift (in samples) that best aligns a read; 0 when placed right
    int worstSteps = 0;        // 16-bit samples: the largest difference in steps
};

// For float samples that differ: how far the read is from FFmpeg's relative to the signal,
// and the shift within +-8 samples at which the two agree best.
void measure(const float* got, const float* want, int64_t samples, int channels, double& error, int& lag) {
    double diff = 0, energy = 0;
    for (int64_t i = 0; i < samples * channels; ++i) {
        diff += double(got[i] - want[i]) * double(got[i] - want[i]);
        energy += double(want[i]) * double(want[i]);
    }
    error = energy > 0 ? std::sqrt(diff / energy) : 0;
    double best = -INFINITY;
    lag = 0;
    for (int l = -8; l <= 8 && samples > 64; ++l) {
        double corr = 0;
        for (int64_t i = 8; i + 8 < samples; ++i)
            for (int c = 0; c < channels; ++c) corr += double(got[i * channels + c]) * double(want[(i + l) * channels + c]);
        if (corr > best) best = corr, lag = l;
    }
}

// Reads audio track `track` in order in odd-sized pieces, at 60 random places, and whole,
// and compares each read with FFmpeg's samples.
Checked checkSamples(const std::string& path, int track = 0) {
    Checked c;
    auto index = FfmpegSource::open(path);
    EXPECT_TRUE(index) << index.error;
    if (!index) return c;
    auto d = FfmpegAudioDecoder::open(index.value, track);
    EXPECT_TRUE(d) << d.error;
    if (!d) return c;
    FfmpegAudioDecoder& dec = *d.value;
    const AVSampleFormat packed = av_get_packed_sample_fmt(dec.nativeFormat());
    const char* raw = rawFormatOf(packed);
    EXPECT_TRUE(raw);
    if (!raw) return c;
    const std::string want = ffmpeg_oracle::decodedSamples(path, track, raw);
    const int channels = dec.track().channels;
    const size_t frame = size_t(av_get_bytes_per_sample(packed)) * size_t(channels);
    c.total = dec.totalSamples();
    EXPECT_EQ(c.total, int64_t(want.size() / frame)) << "sample count";
    if (c.total != int64_t(want.size() / frame)) return c;

    auto compare = [&](int64_t start, int64_t count, bool inOrder) {
        std::vector<uint8_t> got;
        auto r = dec.readInterleaved(start, count, packed, got);
        ASSERT_TRUE(r) << start << "+" << count << ": " << r.error;
        const int64_t expect = std::max<int64_t>(0, std::min(count, c.total - start));
        ASSERT_EQ(r.value, expect) << start << "+" << count;
        const uint8_t* w = reinterpret_cast<const uint8_t*>(want.data()) + start * int64_t(frame);
        if (expect == 0 || std::memcmp(got.data(), w, size_t(expect) * frame) == 0) return;
        (inOrder ? c.exactInOrder : c.exactAtRandom) = false;
        if (packed == AV_SAMPLE_FMT_S16) {
            const auto* g = reinterpret_cast<const int16_t*>(got.data());
            const auto* x = reinterpret_cast<const int16_t*>(w);
            for (int64_t i = 0; i < expect * channels; ++i) c.worstSteps = std::max(c.worstSteps, std::abs(g[i] - x[i]));
            return;
        }
        ASSERT_EQ(packed, AV_SAMPLE_FMT_FLT) << "samples differ at " << start;
        // Short reads (or the encoder's near-silent flush at the very end) say little
        // about placement against substituted noise.
        if (expect < 1024) return;
        double error;
        int lag;
        measure(reinterpret_cast<const float*>(got.data()), reinterpret_cast<const float*>(w), expect, channels,
                error, lag);
        c.worstError = std::max(c.worstError, error);
        if (std::abs(lag) > std::abs(c.worstLag)) c.worstLag = lag;
    };
    for (int64_t at = 0; at < c.total; at += 3001) compare(at, 3001, true);
    compare(0, c.total, true);
    std::mt19937 rng(4242);
    for (int i = 0; i < 60; ++i) {
        const int64_t start = 1 + int64_t(rng() % uint64_t(c.total - 1));
        compare(start, 1 + int64_t(rng() % 6000), false);
    }
    compare(c.total - 1, 10, false);
    compare(c.total, 10, false);

    // The native layout: planes hold one channel each.
    AudioBlock block;
    auto r = dec.read(1000, 500, block);
    EXPECT_TRUE(r && r.value == 500);
    const bool planar = av_sample_fmt_is_planar(dec.nativeFormat());
    EXPECT_EQ(block.planes.size(), planar ? size_t(channels) : 1u);
    EXPECT_EQ(block.start, 1000);
    EXPECT_EQ(block.count, 500);
    return c;
}

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kStereo) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(ffmpeg(source + args + " " + shellQuote(path))) << name;
    return path;
}

} // namespace

TEST(FfmpegAudio, PlainPcmIsReadByBytePosition) {
    TempDir dir;
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"s16.wav", "-c:a pcm_s16le"},
             {"s24.wav", "-c:a pcm_s24le"},
             {"f32.wav", "-c:a pcm_f32le"},
             {"u8.wav", "-c:a pcm_u8"},
             {"s16be.mov", "-c:a pcm_s16be"},
             {"s24le.mov", "-c:a pcm_s24le"}}) {
        SCOPED_TRACE(name);
        const std::string path = make(dir, name, args);
        auto index = FfmpegSource::open(path);
        ASSERT_TRUE(index) << index.error;
        ASSERT_EQ(index.value->audio.size(), 1u);
        EXPECT_TRUE(index.value->audio[0].plainPcm);
        const Checked c = checkSamples(path);
        EXPECT_EQ(c.total, 110400);
        EXPECT_TRUE(c.exactInOrder && c.exactAtRandom);
    }
}

// Decoders without hidden state beyond their pre-roll give FFmpeg's samples bit for bit
// at any position: MP3 (bit reservoir, overlap), AAC without noise substitution, in MP4
// (priming in an edit list), ADTS and Matroska; FLAC; Vorbis (packets of varying length,
// the first one silent) in Ogg and in Matroska (where timestamps are milliseconds).
TEST(FfmpegAudio, CompressedAudioIsBitExactAtAnyPosition) {
    TempDir dir;
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"aac.m4a", "-c:a aac -aac_pns 0 -b:a 96k"},
             {"aac.aac", "-c:a aac -aac_pns 0 -b:a 96k"},
             {"aac.mkv", "-c:a aac -aac_pns 0 -b:a 96k"},
             {"mp3.mp3", "-c:a libmp3lame -b:a 128k"},
             {"mp3lo.mp3", "-c:a libmp3lame -b:a 32k"},
             {"flac.flac", "-c:a flac"},
             {"vorbis.ogg", "-c:a libvorbis"},
             {"vorbis.mka", "-c:a libvorbis"}}) {
        SCOPED_TRACE(name);
        const Checked c = checkSamples(make(dir, name, args));
        EXPECT_GT(c.total, 100000);
        EXPECT_TRUE(c.exactInOrder);
        EXPECT_TRUE(c.exactAtRandom);
    }
}

// Some decoders fill frequency bands with noise from a generator whose state is the
// product of everything decoded before (AAC's perceptual noise substitution, which
// FFmpeg's AAC encoder uses by default; AC-3's dithered mantissas; Opus's band folding).
// After a seek that noise differs while the coded signal does not, so: bit-exact from the
// start onwards, and after a seek placed exactly (no shift aligns better) with the
// difference bounded relative to the signal.
TEST(FfmpegAudio, NoiseFillingCodecsArePlacedExactly) {
    TempDir dir;
    for (const auto& [name, args, bound] : std::vector<std::tuple<std::string, std::string, double>>{
             {"pns.m4a", "-c:a aac -b:a 96k", 0.2},
             {"ac3.ac3", "-c:a ac3", 0.1},
             {"opus.ogg", "-c:a libopus -b:a 64k", 0.08},
             {"opus.mkv", "-c:a libopus -b:a 64k", 0.08}}) {
        SCOPED_TRACE(name);
        const Checked c = checkSamples(make(dir, name, args));
        EXPECT_GT(c.total, 100000);
        EXPECT_TRUE(c.exactInOrder);
        EXPECT_EQ(c.worstLag, 0);
        EXPECT_LT(c.worstError, bound);
        std::printf("%s: after a seek, RMS difference up to %.4f of the signal\n", name.c_str(), c.worstError);
    }
    // MP2's fixed-point synthesis carries a rounding remainder from frame to frame.
    const Checked mp2 = checkSamples(make(dir, "mp2.mka", "-c:a mp2"));
    EXPECT_TRUE(mp2.exactInOrder);
    EXPECT_LE(mp2.worstSteps, 1);
}

// Audio beside video: PCM in a QuickTime file interleaved with video chunks, AAC in MP4,
// and the same MP4 cut by stream copy (an edit list that starts inside an AAC frame).
TEST(FfmpegAudio, AudioBesideVideoAndEditLists) {
    TempDir dir;
    const std::string withVideo =
        "-f lavfi -i testsrc2=size=96x64:rate=25:duration=2.3 -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2.3 "
        "-f lavfi -i anoisesrc=d=2.3:c=pink:r=48000:a=0.1:seed=6 -filter_complex [1:a][2:a]amerge=inputs=2[a] -map 0:v -map [a] ";
    const std::string pcm = make(dir, "pcm.mov", "-c:v mjpeg -c:a pcm_s16le", withVideo);
    auto index = FfmpegSource::open(pcm);
    ASSERT_TRUE(index) << index.error;
    ASSERT_TRUE(index.value->video);
    ASSERT_EQ(index.value->audio.size(), 1u);
    EXPECT_TRUE(index.value->audio[0].plainPcm);
    EXPECT_GT(index.value->audio[0].pcmRuns.size(), 1u) << "chunks interleaved with video";
    Checked c = checkSamples(pcm);
    EXPECT_TRUE(c.exactInOrder && c.exactAtRandom);

    const std::string mp4 = make(dir, "aac.mp4", "-c:v libx264 -preset veryfast -g 12 -c:a aac -aac_pns 0 -b:a 96k",
                                 withVideo);
    c = checkSamples(mp4);
    EXPECT_TRUE(c.exactInOrder && c.exactAtRandom);
    const std::string cut = dir.file("cut.mp4");
    ASSERT_TRUE(ffmpeg("-ss 0.61 -i " + shellQuote(mp4) + " -c copy " + shellQuote(cut)));
    c = checkSamples(cut);
    EXPECT_GT(c.total, 48000);
    EXPECT_TRUE(c.exactInOrder && c.exactAtRandom);
}
