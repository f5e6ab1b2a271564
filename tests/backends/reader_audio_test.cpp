// Samples read through the back-end readers against FFmpeg's own decoding: each channel
// read as the host reads it (PlayFileCache::audioReadRequest, through the file's audio
// queue and the audio reader), in pieces from the start and at random positions and
// sizes, equals the same channel of what `ffmpeg -f <raw format>` decodes. Bit for bit,
// except where a decoder's state after a seek cannot be what it was when decoding from the
// start (noise filling, a rounding remainder): there, exact from the start on, and after
// a seek placed exactly and close.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <tuple>

using namespace testing_support;
using namespace reader_test;

namespace {

// A tone on the left, noise on the right: every sample differs, and noise exercises the
// codecs' noise coding too.
const std::string kStereo = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.3 "
                            "-f lavfi -i anoisesrc=d=1.3:c=pink:r=48000:a=0.1:seed=6 -filter_complex amerge=inputs=2 ";

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kStereo) {
    return ffmpeg_oracle::made(dir, name, source, args);
}

// FFmpeg's raw format for samples as the stream's metadata describes them.
std::string rawFormatOf(const Aud::Metadata& m) {
    switch (m.getBytesPerDecodedSample()) {
    case 1: return "u8";
    case 2: return "s16le";
    case 3: return "s24le";
    case 4: return m.sampleType == Aud::kSampleFloat ? "f32le" : "s32le";
    case 8: return "f64le";
    default: return "";
    }
}

struct Result {
    bool exactInOrder = true;
    bool exactAtRandom = true;
    double worstError = 0; // float samples after seeks: RMS difference relative to the signal
    double worstSample = 0; // float samples: the largest difference of one sample
    int worstLag = 0;      // float samples after seeks: the shift that best aligns a read
    int worstSteps = 0;    // 16-bit samples after seeks: the largest difference
};

// How far a float read is from FFmpeg's relative to the signal, and the shift within
// +-8 samples at which the two agree best (0 when placed right).
void measure(const float* got, const float* want, uint64_t n, Result& r) {
    double diff = 0, energy = 0;
    for (uint64_t i = 0; i < n; ++i) {
        diff += double(got[i] - want[i]) * double(got[i] - want[i]);
        energy += double(want[i]) * double(want[i]);
    }
    r.worstError = std::max(r.worstError, energy > 0 ? std::sqrt(diff / energy) : 0.0);
    double best = -INFINITY;
    int lag = 0;
    for (int l = -8; l <= 8; ++l) {
        double corr = 0;
        for (uint64_t i = 8; i + 8 < n; ++i) corr += double(got[i]) * double(want[int64_t(i) + l]);
        if (corr > best) best = corr, lag = l;
    }
    if (std::abs(lag) > std::abs(r.worstLag)) r.worstLag = lag;
}

class ReaderAudio : public CacheReads {
protected:
    // Reads channel `channel` (from 0) of the file's first stream in pieces from the start
    // and at `randomReads` random places, through the reader the registry picks, which must
    // be `reader`.
    Result check(const std::string& path, uint32_t channel = 1, int channels = 2, const char* reader = "FFmpeg",
                 int randomReads = 20) {
        SCOPED_TRACE(path);
        Result r;
        const Cookie c = clip(path, channels);
        const Cookie channelCookie = sound(c, channel + 1);
        Zn::Ptr<FileReadInstance> f = file(channelCookie);
        EXPECT_TRUE(f);
        if (!f) return r;
        EXPECT_STREQ(f->getReaderName().c_str(), reader);
        const Aud::Metadata m = f->getMetadata()->getAudioMetadata().at(0);
        // Compressed streams decode through their codec instance, plain ones are read.
        auto* audio = dynamic_cast<Zn::AudioReader*>(f.get());
        EXPECT_TRUE(audio && audio->isCompressed(0) == m.isCompressedFormat());
        const std::string raw = rawFormatOf(m);
        const std::string all = ffmpeg_oracle::decodedSamples(path, 0, raw);
        const size_t b = m.getBytesPerDecodedSample(), frame = b * m.getNumChannels();
        const uint64_t total = all.size() / frame;
        EXPECT_EQ(m.getLength(), total);
        EXPECT_GT(total, 20000u);
        std::string want;
        for (uint64_t i = 0; i < total; ++i) want.append(all, size_t(i * frame + channel * b), b);

        auto compare = [&](uint64_t start, uint32_t count, bool inOrder) {
            RequestStatus status;
            const std::string got = samples(channelCookie, start, count, uint32_t(b), &status);
            ASSERT_EQ(status, RequestStatus::Complete) << start << "+" << count;
            const uint64_t expect = std::min<uint64_t>(count, total - start);
            ASSERT_EQ(got.size(), expect * b) << start << "+" << count;
            const char* w = want.data() + start * b;
            if (std::memcmp(got.data(), w, got.size()) == 0) return;
            (inOrder ? r.exactInOrder : r.exactAtRandom) = false;
            if (m.sampleType != Aud::kSampleFloat && b == 2) {
                for (uint64_t i = 0; i < expect; ++i) {
                    int16_t g, x;
                    std::memcpy(&g, got.data() + i * 2, 2);
                    std::memcpy(&x, w + i * 2, 2);
                    r.worstSteps = std::max(r.worstSteps, std::abs(g - x));
                }
            } else if (m.sampleType == Aud::kSampleFloat && b == 4) {
                const auto* g = reinterpret_cast<const float*>(got.data());
                const auto* x = reinterpret_cast<const float*>(w);
                for (uint64_t i = 0; i < expect; ++i) r.worstSample = std::max(r.worstSample, double(std::fabs(g[i] - x[i])));
                // Short reads (or the encoder's near-silent flush at the very end) say
                // little about placement.
                if (expect >= 1024) measure(g, x, expect, r);
            }
        };
        for (uint64_t at = 0; at < total; at += 4001) compare(at, 4001, true);
        std::mt19937 rng(99);
        for (int i = 0; i < randomReads; ++i) compare(1 + rng() % (total - 1), 1 + rng() % 5000, false);
        compare(total - 3, 10, false);
        // Past the end there is nothing to ask for.
        RequestStatus past;
        samples(channelCookie, total + 5, 10, uint32_t(b), &past);
        EXPECT_EQ(past, RequestStatus::Queued);
        return r;
    }
};

} // namespace

TEST_F(ReaderAudio, WavSamplesAsStored) {
    TempDir dir;
    int n = 0;
    for (const std::string args : {"-c:a pcm_u8", "-c:a pcm_s16le", "-c:a pcm_s24le", "-c:a pcm_s32le", "-c:a pcm_f32le",
                                   "-c:a pcm_f64le", "-c:a pcm_s16le -rf64 always"}) {
        const Result r = check(make(dir, std::to_string(++n) + ".wav", args), 1, 2, "WAV");
        EXPECT_TRUE(r.exactInOrder && r.exactAtRandom) << args;
    }
    // Three channels of 24 bits: WAVE_FORMAT_EXTENSIBLE.
    const std::string three = make(dir, "ext.wav", "-c:a pcm_s24le",
                                   "-f lavfi -i sine=frequency=300:sample_rate=44100:duration=1 "
                                   "-f lavfi -i anoisesrc=d=1:r=44100:a=0.2 -f lavfi -i sine=frequency=900:sample_rate=44100:duration=1 "
                                   "-filter_complex amerge=inputs=3 ");
    const Result r = check(three, 2, 3, "WAV");
    EXPECT_TRUE(r.exactInOrder && r.exactAtRandom);
}

// Plain PCM that the FFmpeg reader reads by byte position, also in QuickTime chunks
// interleaved with video; and decoders without hidden state beyond their pre-roll, which
// give FFmpeg's samples bit for bit at any position: AAC without noise substitution in
// MP4 (priming in an edit list), ADTS and Matroska, beside video and cut by stream copy
// (an edit list that starts inside an AAC frame); MP3 (bit reservoir, overlap); FLAC;
// Vorbis (packets of varying length) in Ogg and in Matroska (millisecond timestamps).
TEST_F(ReaderAudio, PcmAndCompressedAudioAreBitExactAtAnyPosition) {
    TempDir dir;
    const std::string withVideo =
        "-f lavfi -i testsrc2=size=96x64:rate=25:duration=1.3 -f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.3 "
        "-f lavfi -i anoisesrc=d=1.3:c=pink:r=48000:a=0.1:seed=6 -filter_complex [1:a][2:a]amerge=inputs=2[a] -map 0:v -map [a] ";
    const std::string aac = "-c:a aac -aac_pns 0 -b:a 96k";
    const std::string mp4 = make(dir, "aac.mp4", "-c:v libx264 -preset veryfast -g 12 " + aac, withVideo);
    const std::string cut = dir.file("cut.mp4");
    ASSERT_TRUE(ffmpeg("-ss 0.61 -i " + shellQuote(mp4) + " -c copy " + shellQuote(cut)));
    for (const std::string& path : {make(dir, "s16be.mov", "-c:v mjpeg -c:a pcm_s16be", withVideo),
                                    make(dir, "s24.mov", "-c:a pcm_s24le"), make(dir, "f32.mov", "-c:a pcm_f32le"),
                                    make(dir, "aac.m4a", aac), make(dir, "aac.aac", aac), make(dir, "aac.mkv", aac), mp4, cut,
                                    make(dir, "mp3.mp3", "-c:a libmp3lame -b:a 128k"),
                                    make(dir, "mp3lo.mp3", "-c:a libmp3lame -b:a 32k"), make(dir, "flac.flac", "-c:a flac"),
                                    make(dir, "vorbis.ogg", "-c:a libvorbis"), make(dir, "vorbis.mka", "-c:a libvorbis")}) {
        const Result r = check(path);
        EXPECT_TRUE(r.exactInOrder && r.exactAtRandom) << path;
    }
}

// Decoders whose state reaches back further than a packet or two: Opus (predicted band
// energies, post-filter; well past its declared 80 ms) in Ogg and Matroska, on music-like
// chords with noise; Vorbis; and 5.1 AAC on tonal content. After any seek every sample is
// within 1e-4 of FFmpeg's uninterrupted decode (AAC's surround pairs still code a little
// noise as noise substitution, whose generator no decoder can restore after a seek).
TEST_F(ReaderAudio, SeeksDecodeFarEnoughBackForUninterruptedSamples) {
    TempDir dir;
    const std::string chords =
        "-f lavfi -i aevalsrc=exprs='0.18*sin(2*PI*220*t)*(0.6+0.4*sin(2*PI*0.7*t))+0.12*sin(2*PI*277.2*t+1.5*sin(2*PI*5*t))"
        "|0.15*sin(2*PI*164.8*t)+0.12*sin(2*PI*440*t)*(0.5+0.5*sin(2*PI*1.3*t))':s=48000:d=4 "
        "-f lavfi -i anoisesrc=d=4:c=pink:r=48000:a=0.08:seed=3 "
        "-filter_complex '[1]aformat=channel_layouts=stereo[n];[0][n]amix=inputs=2:normalize=0' ";
    const std::string surround =
        "-f lavfi -i aevalsrc=exprs='0.2*sin(2*PI*220*t)|0.2*sin(2*PI*330*t)|0.2*sin(2*PI*440*t)|0.3*sin(2*PI*55*t)"
        "|0.15*sin(2*PI*550*t+2*sin(2*PI*3*t))|0.15*sin(2*PI*660*t)*(0.5+0.5*sin(2*PI*t))':s=48000:d=4:c=5.1 "
        "-af afade=t=in:d=0.3,afade=t=out:st=3.5:d=0.5 ";
    for (const auto& [name, args, source, channel, channels] :
         std::vector<std::tuple<std::string, std::string, std::string, uint32_t, int>>{
             {"opus.ogg", "-c:a libopus -b:a 64k", chords, 0, 2},
             {"opus.mkv", "-c:a libopus -b:a 24k -frame_duration 60", chords, 1, 2},
             {"vorbis.ogg", "-c:a libvorbis", chords, 1, 2},
             {"aac51.m4a", "-c:a aac -b:a 256k", surround, 4, 6}}) {
        const Result r = check(make(dir, name, args, source), channel, channels, "FFmpeg", 200);
        EXPECT_TRUE(r.exactInOrder) << name;
        EXPECT_LE(r.worstSample, 1e-4) << name;
        std::printf("%s: after a seek, samples within %.2g of FFmpeg's\n", name.c_str(), r.worstSample);
    }
}

// Some decoders fill frequency bands with noise from a generator whose state is the
// product of everything decoded before (AAC's perceptual noise substitution, which
// FFmpeg's AAC encoder uses by default on noise; AC-3's dithered mantissas). After a seek
// that noise differs while the coded signal does not, so, on the tone's channel: bit-exact
// from the start onwards, and after a seek placed exactly (no shift aligns better) with
// the difference bounded relative to the signal.
TEST_F(ReaderAudio, NoiseFillingCodecsArePlacedExactly) {
    TempDir dir;
    for (const auto& [name, args, bound] : std::vector<std::tuple<std::string, std::string, double>>{
             {"pns.m4a", "-c:a aac -b:a 96k", 0.01},
             {"ac3.ac3", "-c:a ac3", 0.03}}) {
        const Result r = check(make(dir, name, args), 0);
        EXPECT_TRUE(r.exactInOrder) << name;
        EXPECT_EQ(r.worstLag, 0) << name;
        EXPECT_LT(r.worstError, bound) << name;
        std::printf("%s: after a seek, RMS difference up to %.4f of the signal\n", name.c_str(), r.worstError);
    }
    // MP2's fixed-point synthesis carries a rounding remainder from frame to frame. In
    // MPEG-TS and raw, FFmpeg's probe describes the stream as its float decoder would; the
    // samples are still those of the decoder FFmpeg's program uses.
    for (const char* name : {"mp2.mka", "mp2.ts", "mp2.mp2"}) {
        const Result mp2 = check(make(dir, name, "-c:a mp2"));
        EXPECT_TRUE(mp2.exactInOrder) << name;
        EXPECT_LE(mp2.worstSteps, 1) << name;
        std::printf("%s: bit-exact at random: %s\n", name, mp2.exactAtRandom ? "yes" : "no");
    }
}
