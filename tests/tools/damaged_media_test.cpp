// Damaged media through the `playfile` program: small real files that ffmpeg makes in
// every container and codec family the back-ends serve, damaged in seeded ways (cut
// short, bytes flipped, ranges zeroed, chunks repeated), and `probe`, `frames` and `audio`
// on each end with status 0 or 1 within 20 s: never a crash, never a hang. And the MJPEG
// AVI whose one broken frame the reader's read-ahead meets first: the command's request
// for it joins the failed one, and the command ends at once.
#include "support/ProgramRun.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

using namespace testing_support;

namespace {

// Zeroes the data of video frame `frame` (counted from 0) of an AVI: the "00dc" chunks
// of its movi list in order. False when there is no such frame.
bool zeroAviFrame(std::string& avi, int frame) {
    size_t at = avi.find("movi");
    if (at == std::string::npos) return false;
    auto word = [&](size_t p) {
        uint32_t v;
        std::memcpy(&v, avi.data() + p, 4);
        return v;
    };
    for (at += 4; at + 8 <= avi.size();) {
        const std::string id = avi.substr(at, 4);
        const uint32_t size = word(at + 4);
        if (id == "LIST") {
            at += 12; // into the list
            continue;
        }
        if (id == "idx1") break;
        if (id == "00dc" && frame-- == 0) {
            if (at + 8 + size > avi.size()) return false;
            std::memset(avi.data() + at + 8, 0, size);
            return true;
        }
        at += 8 + size + (size & 1);
    }
    return false;
}

// Elapsed seconds of a run.
template <class F> double timed(F f) {
    const auto t = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

} // namespace

TEST(DamagedMedia, AReadThatJoinsAFailedReadAheadEndsAtOnceInOrderAndAtRandom) {
    TempDir dir;
    const std::string good = dir.file("good.avi"), bad = dir.file("bad.avi");
    ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=96x64:rate=25:duration=2 -c:v mjpeg " + shellQuote(good)));
    std::string bytes = readFile(good);
    ASSERT_TRUE(zeroAviFrame(bytes, 31));
    writeFile(bad, bytes);

    // In order: frames 29 and 30, then 31 (decoded ahead while 30 was read) fails.
    Outcome r;
    double seconds = timed([&] { r = playfile(dir, "frames " + shellQuote(bad) + " --start 29 --count 3 --inflight 1 --md5"); });
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(lines(r.out).size(), 2u);
    ASSERT_EQ(r.err.size(), 1u);
    EXPECT_NE(r.err[0].find("frame 31: the read failed"), std::string::npos) << r.err[0];
    EXPECT_LT(seconds, 10.0);

    // Windows at random: those that hold frame 31 fail, the others read.
    std::mt19937 rng(21);
    for (int i = 0; i < 8; ++i) {
        const int start = 24 + int(rng() % 8), count = 1 + int(rng() % 8), inflight = 1 + int(rng() % 4);
        const std::string args = " --start " + std::to_string(start) + " --count " + std::to_string(count) +
                                 " --inflight " + std::to_string(inflight) + " --md5";
        seconds = timed([&] { r = playfile(dir, "frames " + shellQuote(bad) + args); });
        EXPECT_EQ(r.status, start <= 31 && 31 < start + count ? 1 : 0) << args;
        EXPECT_LT(seconds, 10.0) << args;
    }
}

namespace {

struct Source {
    const char* name;
    const char* encoders; // space-separated encoders the file needs
    std::string args;     // inputs and output options
};

const std::string kVideo = "-f lavfi -i testsrc2=size=64x48:rate=25:duration=0.48 ";
const std::string kAudio = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.48 ";
const std::string kBoth = kVideo + kAudio;

const std::vector<Source> kSources = {
    {"h264_aac.mp4", "libx264 aac", kBoth + "-c:v libx264 -preset ultrafast -g 4 -c:a aac"},
    {"prores_pcm.mov", "prores_ks pcm_s24le", kBoth + "-c:v prores_ks -profile:v 0 -c:a pcm_s24le"},
    {"hevc_opus.mkv", "libx265 libopus", kBoth + "-c:v libx265 -preset ultrafast -x265-params log-level=none -c:a libopus"},
    {"mjpeg_mp3.avi", "mjpeg libmp3lame", kBoth + "-c:v mjpeg -c:a libmp3lame"},
    {"mpeg2_mp2.ts", "mpeg2video mp2", kBoth + "-c:v mpeg2video -g 4 -bf 2 -c:a mp2"},
    {"vp9_opus.webm", "libvpx-vp9 libopus", kBoth + "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -c:a libopus"},
    {"theora_vorbis.ogg", "libtheora libvorbis", kBoth + "-c:v libtheora -c:a libvorbis"},
    {"audio.mp3", "libmp3lame", kAudio + "-c:a libmp3lame"},
    {"audio.wav", "pcm_s16le", kAudio + "-c:a pcm_s16le"},
    {"video.y4m", "wrapped_avframe", kVideo + "-pix_fmt yuv420p"},
    {"raw.h264", "libx264", kVideo + "-c:v libx264 -preset ultrafast -bf 2"},
};

// The ways a copy is damaged, each drawn from the copy's own seed.
enum Damage { kCut, kFlipped, kZeroed, kRepeated, kDamages };
const char* const kDamageNames[] = {"cut short", "bytes flipped", "ranges zeroed", "a chunk repeated"};

std::string damaged(std::string b, Damage how, std::mt19937& rng) {
    const size_t n = b.size();
    auto at = [&](size_t limit) { return size_t(rng() % (limit ? limit : 1)); };
    switch (how) {
    case kCut: b.resize(n / 10 + at(n * 8 / 10)); break;
    case kFlipped:
        for (int i = 0; i < 24; ++i) b[at(n)] ^= char(1 + rng() % 255);
        break;
    case kZeroed:
        for (int i = 0; i < 3; ++i) {
            const size_t from = at(n), len = std::min(n - from, 1 + at(n / 40));
            std::memset(b.data() + from, 0, len);
        }
        break;
    case kRepeated: {
        const size_t from = at(n), len = std::min(n - from, 1 + at(n / 20));
        b.insert(at(n), b.substr(from, len));
        break;
    }
    default: break;
    }
    return b;
}

} // namespace

TEST(DamagedMedia, EveryCommandEndsWithStatusZeroOrOneOnDamagedCopiesOfEveryKind) {
    TempDir dir;
    const std::string encoders = runCommand("ffmpeg -hide_banner -encoders 2>/dev/null").out;
    std::vector<std::string> copies;
    std::vector<std::string> labels;
    for (const Source& s : kSources) {
        std::string missing;
        std::istringstream names(s.encoders);
        for (std::string name; names >> name;)
            if (encoders.find(" " + name + " ") == std::string::npos) missing += " " + name;
        if (!missing.empty()) {
            std::printf("skipped %s: this ffmpeg cannot encode it (no encoder%s)\n", s.name, missing.c_str());
            continue;
        }
        const std::string original = dir.file(s.name);
        ASSERT_TRUE(ffmpeg(s.args + " " + shellQuote(original))) << s.name;
        const std::string bytes = readFile(original);
        for (int d = 0; d < kDamages; ++d) {
            std::mt19937 rng(unsigned(copies.size()) * 7919u + 1u);
            const std::string name = std::to_string(copies.size()) + "_" + s.name;
            writeFile(dir.file(name), damaged(bytes, Damage(d), rng));
            copies.push_back(dir.file(name));
            labels.push_back(std::string(s.name) + " " + kDamageNames[d]);
        }
    }
    if (copies.empty()) GTEST_SKIP() << "this ffmpeg can encode none of the files";

    // Three commands on each copy, spread over a few workers with a folder each.
    const std::vector<std::string> commands = {"probe ", "frames --md5 ", "audio --md5 "};
    struct Run {
        std::string what;
        int status = -1;
        double seconds = 0;
        std::string err;
    };
    std::vector<Run> runs(copies.size() * commands.size());
    std::atomic<size_t> next{0};
    auto worker = [&] {
        TempDir own;
        for (size_t i; (i = next++) < runs.size();) {
            const std::string& file = copies[i / commands.size()];
            const std::string& command = commands[i % commands.size()];
            Run& run = runs[i];
            run.what = command + labels[i / commands.size()] + " (" + file + ")";
            Outcome o;
            run.seconds = timed([&] { o = playfile(own, command + shellQuote(file), "timeout -k 5 20"); });
            run.status = o.status;
            run.err = o.err.empty() ? "" : o.err[0];
        }
    };
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w) workers.emplace_back(worker);
    for (auto& w : workers) w.join();

    int failures = 0;
    double longest = 0;
    for (const Run& run : runs) {
        EXPECT_TRUE(run.status == 0 || run.status == 1) << run.what << ": status " << run.status << " " << run.err;
        EXPECT_LT(run.seconds, 20.0) << run.what;
        failures += run.status == 1;
        longest = std::max(longest, run.seconds);
    }
    std::printf("%zu damaged copies, %zu runs: %d ended with status 1, the longest took %.2f s\n", copies.size(),
                runs.size(), failures, longest);
}
