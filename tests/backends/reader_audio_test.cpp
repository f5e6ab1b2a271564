// Samples read through the back-end readers against FFmpeg's own decoding: each channel
// read as the host reads it (PlayFileCache::audioReadRequest, through the file's audio
// queue and the audio reader), in pieces from the start and at random positions and
// sizes, equals the same channel of what `ffmpeg -f <raw format>` decodes. Bit for
// bit, except where the codec fills bands with noise whose state a seek cannot restore
// (Opus): there, exact from the start on, and after a seek within the bound the engine's
// own tests established.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>

using namespace testing_support;
using namespace reader_test;

namespace {

const std::string kStereo = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.3 "
                            "-f lavfi -i anoisesrc=d=1.3:c=pink:r=48000:a=0.1:seed=6 -filter_complex amerge=inputs=2 ";

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kStereo) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(ffmpeg(source + args + " " + shellQuote(path))) << name;
    return path;
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
    double worstError = 0; // RMS difference relative to the signal, float samples after seeks
};

class ReaderAudio : public CacheReads {
protected:
    // Reads channel `channel` (from 0) of the file's first stream in pieces from the start
    // and at 20 random places.
    Result check(const std::string& path, const char* reader, int channels, uint32_t channel = 1) {
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
        std::string want;
        for (uint64_t i = 0; i < total; ++i) want.append(all, size_t(i * frame + channel * b), b);

        auto compare = [&](uint64_t start, uint32_t count, bool inOrder) {
            RequestStatus status;
            const std::string got = samples(channelCookie, start, count, uint32_t(b), &status);
            ASSERT_EQ(status, Complete) << start << "+" << count;
            const uint64_t expect = std::min<uint64_t>(count, total - start);
            ASSERT_EQ(got.size(), expect * b) << start << "+" << count;
            if (std::memcmp(got.data(), want.data() + start * b, got.size()) == 0) return;
            (inOrder ? r.exactInOrder : r.exactAtRandom) = false;
            if (m.sampleType != Aud::kSampleFloat || b != 4 || expect < 1024) return;
            const auto* g = reinterpret_cast<const float*>(got.data());
            const auto* w = reinterpret_cast<const float*>(want.data() + start * b);
            double diff = 0, energy = 0;
            for (uint64_t i = 0; i < expect; ++i) {
                diff += double(g[i] - w[i]) * double(g[i] - w[i]);
                energy += double(w[i]) * double(w[i]);
            }
            r.worstError = std::max(r.worstError, energy > 0 ? std::sqrt(diff / energy) : 0.0);
        };
        for (uint64_t at = 0; at < total; at += 4001) compare(at, 4001, true);
        std::mt19937 rng(99);
        for (int i = 0; i < 20; ++i) compare(1 + rng() % (total - 1), 1 + rng() % 5000, false);
        compare(total - 3, 10, false);
        // Past the end there is nothing to ask for.
        RequestStatus past;
        samples(channelCookie, total + 5, 10, uint32_t(b), &past);
        EXPECT_EQ(past, Queued);
        return r;
    }
};

} // namespace

TEST_F(ReaderAudio, WavSamplesAsStored) {
    TempDir dir;
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"u8.wav", "-c:a pcm_u8"},
             {"s16.wav", "-c:a pcm_s16le"},
             {"s24.wav", "-c:a pcm_s24le"},
             {"s32.wav", "-c:a pcm_s32le"},
             {"f32.wav", "-c:a pcm_f32le"},
             {"f64.wav", "-c:a pcm_f64le"},
             {"rf64.wav", "-c:a pcm_s16le -rf64 always"}}) {
        const Result r = check(make(dir, name, args), "WAV", 2);
        EXPECT_TRUE(r.exactInOrder && r.exactAtRandom) << name;
    }
    // Three channels of 24 bits: WAVE_FORMAT_EXTENSIBLE.
    const std::string three = make(dir, "ext.wav", "-c:a pcm_s24le",
                                   "-f lavfi -i sine=frequency=300:sample_rate=44100:duration=0.5 "
                                   "-f lavfi -i anoisesrc=d=0.5:r=44100:a=0.2 -f lavfi -i sine=frequency=900:sample_rate=44100:duration=0.5 "
                                   "-filter_complex amerge=inputs=3 ");
    const Result r = check(three, "WAV", 3, 2);
    EXPECT_TRUE(r.exactInOrder && r.exactAtRandom);
}

TEST_F(ReaderAudio, FfmpegPcmAndCompressedAudio) {
    TempDir dir;
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"s16be.mov", "-c:a pcm_s16be"},
             {"s24.mov", "-c:a pcm_s24le"},
             {"aac.m4a", "-c:a aac -aac_pns 0 -b:a 96k"},
             {"mp3.mp3", "-c:a libmp3lame -b:a 128k"}}) {
        const Result r = check(make(dir, name, args), "FFmpeg", 2);
        EXPECT_TRUE(r.exactInOrder && r.exactAtRandom) << name;
    }
    // Opus folds bands with noise, and FFmpeg's AAC encoder substitutes noise by default:
    // exact from the start, close after a seek (the engine's bounds).
    const Result opus = check(make(dir, "opus.ogg", "-c:a libopus -b:a 64k"), "FFmpeg", 2);
    EXPECT_TRUE(opus.exactInOrder);
    EXPECT_LT(opus.worstError, 0.08);
    // On the tone's channel: on the noise channel whole bands are substituted noise, which
    // after a seek is other noise of the same power.
    const Result pns = check(make(dir, "pns.m4a", "-c:a aac -b:a 96k"), "FFmpeg", 2, 0);
    EXPECT_TRUE(pns.exactInOrder);
    EXPECT_LT(pns.worstError, 0.2);
    std::printf("after a seek, RMS difference up to %.4f (Opus), %.4f (AAC with noise substitution)\n",
                opus.worstError, pns.worstError);
}
