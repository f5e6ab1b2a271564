// `playfile bench`: the library's measured paths as the benchmarks and the side-by-side
// comparison measure them, each through the play file cache: frames in order with reads
// in flight, frames at random, a channel's samples in playback-sized reads, and opening
// many files by pre-opening against opening them in turn. Prints "name=value" figures.
#include "tools/Command.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"

#include "playfile/EntryPoints.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/PreOpen.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <random>
#include <thread>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

const char kBenchUsage[] =
    "usage: playfile bench sequential FILE [--inflight N] [--passes P] [--json]\n"
    "       playfile bench random FILE [--count N] [--seed S] [--json]\n"
    "       playfile bench audio FILE [--block B] [--json]\n"
    "       playfile bench preopen FILE... [--json]\n"
    "\n"
    "Times the library's read paths, everything through the play file cache, and prints\n"
    "one line of name=value figures (times in milliseconds unless named _s):\n"
    "\n"
    "  sequential  every frame in order, N reads in flight (default 4), P passes (default\n"
    "              1): frames, seconds, fps, fps_whole (the open included), failed\n"
    "  random      N frames (default 200) picked at random from seed S (default 2024;\n"
    "              the same frames, in the same order, as bench_direct_decode and\n"
    "              bench_backend_reads pick), one at a time: random_mean_ms,\n"
    "              random_median_ms, random_max_ms, first_ms (the first, open included)\n"
    "  audio       channel 0 of stream 0 from start to end in reads of B samples (default\n"
    "              4096, as playback reads): samples, seconds, samples_per_s, realtime\n"
    "              (times faster than playback)\n"
    "  preopen     the files opened in turn through the cache, then closed and\n"
    "              pre-opened all at once (Zn::PreOpenRequest), waiting for every one:\n"
    "              files, in_turn_ms, preopen_ms, speedup\n"
    "\n"
    "Video reads use the file's native pixel format. The decoder thread count is the\n"
    "FFmpeg back-end's setting (PLAYFILE_FfmpegThreads).\n"
    "\n"
    "  --json   the same figures as one JSON object (names as above; stable)\n"
    "\n"
    "Exit status: 0 done, 1 a file cannot be read or a read failed, 2 a usage error.\n";

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

void emit(const Json& j, bool json) {
    if (json) {
        std::printf("%s\n", j.dump(2).c_str());
        return;
    }
    std::string line;
    for (const auto& [k, v] : j.items()) {
        if (!line.empty()) line += ' ';
        line += k + "=" + (v.is_number_float() ? std::to_string(v.get<double>()) : v.dump());
    }
    std::printf("%s\n", line.c_str());
}

// A clip for the file with its material in the cache: the frame count, or 0 with why set.
uint32_t videoClip(MediaSession& session, const std::string& path, Cookie& material, std::string& why) {
    if (!checkMediaFile(path, why)) return 0;
    Zn::Ptr<FileReadInstance> file = MediaSession::openByName(path, OpenType::kVideo);
    if (!file || !(file->getCapabilities() & OpenType::kVideo) || file->getMetadata()->getFrameCount() == 0) {
        why = "no reader can open it for video";
        return 0;
    }
    const uint32_t frames = file->getMetadata()->getFrameCount();
    const Cookie clip = session.addClip(path, true, 0, 0, why);
    if (!clip.valid()) return 0;
    material = convertCookie(clip, 'V', 0);
    return frames;
}

int sequential(MediaSession& session, const std::string& path, uint64_t inflight, uint64_t passes, bool json) {
    std::string why;
    Cookie material;
    const auto opening = Clock::now();
    const uint32_t frames = videoClip(session, path, material, why);
    if (!frames) return fail(kFailure, "bench: " + path + ": " + why);
    const double openMs = msSince(opening);
    uint64_t failed = 0;
    const auto t = Clock::now();
    for (uint64_t pass = 0; pass < passes; ++pass) {
        std::deque<std::unique_ptr<FrameRead>> window;
        uint32_t next = 0;
        while (next < frames || !window.empty()) {
            while (next < frames && window.size() < inflight)
                window.push_back(std::make_unique<FrameRead>(material, int(next++), DecodeFormat(1)));
            if (window.front()->picture(why).empty()) ++failed;
            window.pop_front();
        }
    }
    const double seconds = msSince(t) / 1000;
    const double total = double(frames) * double(passes);
    emit({{"frames", frames},
          {"passes", passes},
          {"seconds", seconds},
          {"fps", total / seconds},
          {"fps_whole", total / (seconds + openMs / 1000)},
          {"failed", failed}},
         json);
    return failed ? fail(kFailure, "bench: " + path + ": " + std::to_string(failed) + " reads failed") : kOk;
}

int random(MediaSession& session, const std::string& path, uint64_t count, uint64_t seed, bool json) {
    std::string why;
    Cookie material;
    const auto opening = Clock::now();
    const uint32_t frames = videoClip(session, path, material, why);
    if (!frames) return fail(kFailure, "bench: " + path + ": " + why);
    std::mt19937 rng{unsigned(seed)};
    std::vector<double> ms;
    double firstMs = 0;
    uint64_t failed = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const int frame = int(rng() % frames);
        const auto t = Clock::now();
        FrameRead read(material, frame, DecodeFormat(1));
        if (read.picture(why).empty()) ++failed;
        ms.push_back(msSince(t));
        if (i == 0) firstMs = msSince(opening);
    }
    std::vector<double> sorted = ms;
    std::sort(sorted.begin(), sorted.end());
    double sum = 0;
    for (double v : ms) sum += v;
    emit({{"count", count},
          {"random_mean_ms", sum / double(ms.size())},
          {"random_median_ms", sorted[sorted.size() / 2]},
          {"random_max_ms", sorted.back()},
          {"first_ms", firstMs},
          {"failed", failed}},
         json);
    return failed ? fail(kFailure, "bench: " + path + ": " + std::to_string(failed) + " reads failed") : kOk;
}

int audio(MediaSession& session, const std::string& path, uint64_t block, bool json) {
    std::string why;
    if (!checkMediaFile(path, why)) return fail(kFailure, "bench: " + path + ": " + why);
    Zn::Ptr<FileReadInstance> file = MediaSession::openByName(path, OpenType::kAudio);
    if (!file || !(file->getCapabilities() & OpenType::kAudio) || file->getMetadata()->getAudioMetadata().empty())
        return fail(kFailure, "bench: " + path + ": has no audio a reader serves");
    const Aud::Metadata stream = file->getMetadata()->getAudioMetadata()[0];
    const uint64_t length = stream.getLength() ? stream.getLength() : file->getMetadata()->getAudioLength();
    const Cookie clip = session.addClip(path, false, std::min(file->getMetadata()->getTotalChannels(), 254u),
                                        stream.getSampleRate(), why);
    if (!clip.valid()) return fail(kFailure, "bench: " + why);
    const Cookie material = convertCookie(clip, 'S', 1);
    uint64_t at = 0;
    const auto t = Clock::now();
    while (at < length) {
        AudioRead read(material, at, uint32_t(std::min<uint64_t>(block, length - at)));
        const uint8_t* data;
        size_t bytes;
        if (!read.samples(data, bytes, why)) return fail(kFailure, "bench: " + path + ": " + why);
        if (!bytes) break;
        at += bytes / read.bytesPerSample();
    }
    const double seconds = msSince(t) / 1000;
    emit({{"samples", at},
          {"seconds", seconds},
          {"samples_per_s", double(at) / seconds},
          {"realtime", double(at) / seconds / double(stream.getSampleRate() ? stream.getSampleRate() : 1)}},
         json);
    return kOk;
}

int preopen(MediaSession& session, const std::vector<std::string>& paths, bool json) {
    std::string why;
    std::vector<Cookie> materials;
    for (const std::string& path : paths) {
        if (!checkMediaFile(path, why)) return fail(kFailure, "bench: " + path + ": " + why);
        const Cookie clip = session.addClip(path, true, 0, 0, why);
        if (!clip.valid()) return fail(kFailure, "bench: " + why);
        materials.push_back(convertCookie(clip, 'V', 0));
    }
    PlayFileCache& cache = PlayFileCache::Shared();
    playfile_close_all_files();
    auto t = Clock::now();
    for (size_t i = 0; i < materials.size(); ++i)
        if (!cache.open(materials[i], DecodeFormat(1), 0))
            return fail(kFailure, "bench: " + paths[i] + ": no reader can open it for video");
    const double inTurn = msSince(t);

    playfile_close_all_files();
    Zn::FilePreOpen* queue = playfile_init();
    if (!queue) return fail(kFailure, "bench: the pre-open queue is not available");
    t = Clock::now();
    std::vector<Zn::Ptr<Zn::PreOpenRequest>> requests;
    for (const Cookie& m : materials) requests.push_back(Zn::PreOpenRequest::create(m, DecodeFormat(1)));
    for (const auto& r : requests)
        while (!r->isDone()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    const double preopened = msSince(t);
    for (size_t i = 0; i < requests.size(); ++i)
        if (requests[i]->getState() != Zn::PreOpenRequest::kOpen)
            return fail(kFailure, "bench: " + paths[i] + ": pre-opening it failed");
    emit({{"files", paths.size()},
          {"in_turn_ms", inTurn},
          {"preopen_ms", preopened},
          {"speedup", preopened > 0 ? inTurn / preopened : 0.0}},
         json);
    return kOk;
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("bench", args,
                 {{"--inflight", true}, {"--passes", true}, {"--count", true}, {"--seed", true}, {"--block", true},
                  {"--json", false}}))
        return fail(kUsage, o.error());
    if (o.positional().empty()) return fail(kUsage, "bench: give a mode: sequential, random, audio or preopen");
    const std::string mode = o.positional()[0];
    const std::vector<std::string> files(o.positional().begin() + 1, o.positional().end());
    uint64_t inflight, passes, count, seed, block;
    if (!o.number("--inflight", 1, 64, 4, inflight) || !o.number("--passes", 1, 1000, 1, passes) ||
        !o.number("--count", 1, 1000000, 200, count) || !o.number("--seed", 0, UINT32_MAX, 2024, seed) ||
        !o.number("--block", 1, 1u << 24, 4096, block))
        return fail(kUsage, o.error());
    if (mode != "sequential" && mode != "random" && mode != "audio" && mode != "preopen")
        return fail(kUsage, "bench: unknown mode '" + mode + "' (sequential, random, audio or preopen)");
    if (files.empty()) return fail(kUsage, "bench " + mode + ": no file given");
    if (mode != "preopen" && files.size() != 1) return fail(kUsage, "bench " + mode + ": give one file");

    std::string why;
    if (!readersAvailable(why)) return fail(kFailure, "bench: " + why);
    MediaSession session;
    if (!session.openScratch(why)) return fail(kFailure, "bench: " + why);
    const bool json = o.has("--json");
    if (mode == "sequential") return sequential(session, files[0], inflight, passes, json);
    if (mode == "random") return random(session, files[0], count, seed, json);
    if (mode == "audio") return audio(session, files[0], block, json);
    return preopen(session, files, json);
}

CommandRegistration reg({"bench", "time the library's read paths", kBenchUsage, run});

} // namespace
} // namespace tool
