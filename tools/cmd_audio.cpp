// `playfile audio`: reads a run of samples of one channel of one audio stream of each file
// given through PlayFileCache::audioReadRequest and the file's audio reader, and hashes them, writes them
// to a mono WAV file through the host's file writers, or times the read.
#include "tools/Command.h"
#include "tools/Md5.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"

#include "host/core/Strings.h"
#include "host/media/FileWriterInfo.h"
#include "playfile/open/FileReadInstance.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdio>

namespace tool {
namespace {

using Json = nlohmann::ordered_json;

const char kAudioUsage[] =
    "usage: playfile audio FILE... [--stream S] [--channel C] [--start X] [--count N]\n"
    "                      [--block B] [--md5] [--out FILE.wav] [--json]\n"
    "\n"
    "Reads samples X to X+N-1 of channel C of audio stream S of FILE through the play file\n"
    "cache's audio read requests, in reads of at most B samples, and waits for each. The\n"
    "samples are those the file's audio reader delivers: as stored for uncompressed audio,\n"
    "as FFmpeg decodes them for compressed audio (AAC, MP3, Opus: 32-bit float), in the\n"
    "layout `playfile probe` shows (bytesPerDecodedSample, sampleType). Streams, channels\n"
    "and samples are counted from 0; a sample is one sample of the channel. Several files\n"
    "are read in turn, in one process; a file that fails is reported and the next one read.\n"
    "\n"
    "  --stream S     audio stream (default 0)\n"
    "  --channel C    channel within the stream (default 0)\n"
    "  --start X      first sample (default 0)\n"
    "  --count N      samples (default: to the end of the stream)\n"
    "  --block B      samples per read (default 1048576)\n"
    "  --md5          prints one line per read: START COUNT MD5 (FILE START COUNT MD5 when\n"
    "                 several files are given), the MD5 of the channel's\n"
    "                 samples as delivered (little-endian, COUNT samples from START): the\n"
    "                 bytes of that channel of FFmpeg's raw decoded output\n"
    "                 (-f s16le, s32le, f32le, ... as the layout says)\n"
    "  --out F        writes the samples to the mono WAV file F, through the host's file\n"
    "                 writers (the WAV back-end); one file only\n"
    "  --json         one JSON object on standard output: {file, stream, channel, start,\n"
    "                 count, sampleRate, bytesPerSample, sampleType, seconds, reads:\n"
    "                 [{start, count, md5 (with --md5 only)}]}, an array of them for\n"
    "                 several files; members are only ever added\n"
    "\n"
    "Without --md5 or --json, prints one summary line.\n"
    "\n"
    "Exit status: 0 every sample read; 1 a file cannot be read, has no such stream,\n"
    "channel or samples, a read failed or F cannot be written (one line on standard\n"
    "error each); 2 a usage error.\n";

// The mono WAV file of --out, written through the writer registry.
class WavOut {
public:
    bool open(const std::string& path, uint32_t rate, uint32_t bytes, bool isFloat, std::string& error) {
        Zn::FileWriterParams params;
        params.kind = Zn::FileWriterParams::kAudio;
        params.container = String("wav");
        params.audio = Aud::Metadata(rate, 1, bytes, isFloat ? Aud::kSampleFloat : Aud::kSampleInt);
        Zn::Ptr<Zn::iFileWriter> writer = Zn::FileWriterInfo::getFileWriterFor(params);
        if (!writer) {
            error = "no file writer takes " + std::to_string(bytes) + "-byte " + (isFloat ? "float" : "integer") +
                    " samples at " + std::to_string(rate) + " Hz into WAV";
            return false;
        }
        if (writer->create(fromUTF8(path.c_str()), params, file_) != 1 || !file_) {
            error = "cannot create " + path;
            return false;
        }
        file_->getMetadata().audioStream = params.audio;
        return true;
    }
    bool write(const uint8_t* data, size_t bytes) {
        if (!bytes) return true;
        Zn::Ptr<iMemHolder> block = Zn::makePtr<ByteBufferImpl>(data, uint32_t(bytes));
        return file_->writeAudio(block, nullptr) == 1;
    }
    bool close() { return !file_ || file_->close() == 1; }

private:
    Zn::Ptr<Zn::FileWriteInstance> file_;
};

// What every file of one run is read with.
struct AudioJob {
    uint64_t stream = 0, channel = 0, start = 0, count = 0, block = 0;
    bool md5 = false, json = false;
    bool named = false; // several files: --md5 lines start with the file's name
    std::string out;    // --out, or empty
};

int readAudio(const std::string& path, const AudioJob& job, MediaSession& session, Json& jsonOut);

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("audio", args,
                 {{"--stream", true}, {"--channel", true}, {"--start", true}, {"--count", true}, {"--block", true},
                  {"--md5", false}, {"--out", true}, {"--json", false}}))
        return fail(kUsage, o.error());
    if (o.positional().empty()) return fail(kUsage, "audio: no file given");
    uint64_t stream = 0, channel = 0, start = 0, count = 0, block = 0;
    if (!o.number("--stream", 0, 254, 0, stream) || !o.number("--channel", 0, 254, 0, channel) ||
        !o.number("--start", 0, UINT64_MAX >> 2, 0, start) || !o.number("--count", 1, UINT64_MAX >> 2, 0, count) ||
        !o.number("--block", 1, 1u << 24, 1u << 20, block))
        return fail(kUsage, o.error());
    if (o.has("--out") && o.value("--out").empty()) return fail(kUsage, "audio: --out needs a file name");
    if (o.has("--out") && o.positional().size() > 1) return fail(kUsage, "audio: --out takes one file");

    std::string why;
    if (!readersAvailable(why)) return fail(kFailure, "audio: " + why);
    MediaSession session;
    if (!session.openScratch(why)) return fail(kFailure, "audio: " + why);
    const AudioJob job{stream, channel, start, count, block, o.has("--md5"), o.has("--json"),
                       o.positional().size() > 1, o.value("--out")};
    int status = kOk;
    Json all = Json::array();
    for (const std::string& path : o.positional()) {
        Json one;
        if (readAudio(path, job, session, one) != kOk) status = kFailure;
        if (job.json && !one.is_null()) all.push_back(std::move(one));
    }
    if (job.json && (job.named || !all.empty())) std::printf("%s\n", (job.named ? all : all[0]).dump(2).c_str());
    return status;
}

// The sound material of one file that a job reads, and the samples it reads of it.
struct ChannelRun {
    Cookie material;
    uint64_t count = 0;
};

// What the reads of one file delivered.
struct Delivered {
    Json reads = Json::array();
    uint32_t bytesPerSample = 0, rate = 0;
    bool isFloat = false;
    bool written = false; // the samples went to --out
    uint64_t samples = 0;
    double seconds = 0;
};

// Opens the file by name for its audio layout, checks the job's stream, channel and start
// against it and makes the clip whose sound material the reads go to.
int locateChannel(const std::string& path, const AudioJob& job, MediaSession& session, ChannelRun& run) {
    const uint64_t stream = job.stream, channel = job.channel, start = job.start;
    std::string why;
    if (!checkMediaFile(path, why)) return fail(kFailure, "audio: " + path + ": " + why);

    // The layout, from the file opened by name for the stream wanted; the clip's reads
    // find this file in the cache.
    Zn::Ptr<FileReadInstance> file = MediaSession::openByName(path, OpenType::kAudio);
    if (!file) return fail(kFailure, "audio: " + path + ": no reader can open it for audio (no audio, or damaged)");
    if (!(file->getCapabilities() & OpenType::kAudio)) return fail(kFailure, "audio: " + path + ": has no audio");
    const std::vector<Aud::Metadata> streams = file->getMetadata()->getAudioMetadata();
    const uint64_t audioLength = file->getMetadata()->getAudioLength();
    file = nullptr;
    if (streams.empty()) return fail(kFailure, "audio: " + path + ": has no audio");
    if (stream >= streams.size())
        return fail(kFailure, "audio: " + path + " has " + std::to_string(streams.size()) + " audio stream" +
                                  (streams.size() == 1 ? "" : "s") + "; there is no stream " + std::to_string(stream));
    const Aud::Metadata& layout = streams[stream];
    if (channel >= layout.getNumChannels())
        return fail(kFailure, "audio: stream " + std::to_string(stream) + " of " + path + " has " +
                                  std::to_string(layout.getNumChannels()) + " channels; there is no channel " +
                                  std::to_string(channel));
    // The clip's sound channels are the streams' channels in order.
    unsigned index = 1 + unsigned(channel), total = 0;
    for (size_t s = 0; s < streams.size(); ++s) {
        if (s < stream) index += streams[s].getNumChannels();
        total += streams[s].getNumChannels();
    }
    if (index > 254) return fail(kFailure, "audio: a clip holds at most 254 sound channels");
    const uint64_t length = layout.getLength() ? layout.getLength() : audioLength;
    if (start >= length)
        return fail(kFailure, "audio: stream " + std::to_string(stream) + " of " + path + " has " +
                                  std::to_string(length) + " samples; --start " + std::to_string(start) +
                                  " is past the end");
    run.count = job.count == 0 ? length - start : job.count;
    if (start + run.count > length) run.count = length - start;

    const Cookie clip = session.addClip(path, false, std::min(total, 254u), layout.getSampleRate(), why);
    if (!clip.valid()) return fail(kFailure, "audio: " + why);
    run.material = convertCookie(clip, 'S', uint8_t(index));
    return kOk;
}

// Reads the run in blocks through the cache, hashing, printing and writing each as the
// job says.
int readBlocks(const std::string& path, const AudioJob& job, const ChannelRun& run, Delivered& d) {
    WavOut out;
    std::string why;
    const uint64_t end = job.start + run.count;
    uint64_t at = job.start;
    const auto t0 = std::chrono::steady_clock::now();
    while (at < end) {
        const uint32_t n = uint32_t(std::min<uint64_t>(job.block, end - at));
        AudioRead read(run.material, at, n);
        const uint8_t* data = nullptr;
        size_t bytes = 0;
        if (!read.samples(data, bytes, why))
            return fail(kFailure, "audio: " + path + ": samples " + std::to_string(at) + "+" + std::to_string(n) +
                                      ": " + why);
        d.bytesPerSample = read.bytesPerSample();
        d.rate = read.sampleRate();
        d.isFloat = read.isFloat();
        const uint64_t got = d.bytesPerSample ? bytes / d.bytesPerSample : 0;
        if (got == 0) break; // the stream ended sooner than its length said
        if (!job.out.empty() && !d.written) {
            if (!out.open(job.out, d.rate, d.bytesPerSample, d.isFloat, why)) return fail(kFailure, "audio: " + why);
            d.written = true;
        }
        if (d.written && !out.write(data, bytes)) return fail(kFailure, "audio: cannot write " + job.out);
        Json entry = {{"start", at}, {"count", got}};
        if (job.md5) {
            Md5 digest;
            digest.add(data, bytes);
            entry["md5"] = digest.hex();
            if (!job.json)
                std::printf("%s%s%llu %llu %s\n", job.named ? path.c_str() : "", job.named ? " " : "",
                            (unsigned long long)at, (unsigned long long)got, entry["md5"].get<std::string>().c_str());
        }
        if (job.json) d.reads.push_back(entry);
        at += got;
        d.samples += got;
    }
    d.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (d.written && !out.close()) return fail(kFailure, "audio: cannot finish " + job.out);
    return kOk;
}

// Reads the job's samples of one file; jsonOut receives its JSON object (with --json).
int readAudio(const std::string& path, const AudioJob& job, MediaSession& session, Json& jsonOut) {
    ChannelRun run;
    if (int status = locateChannel(path, job, session, run); status != kOk) return status;
    Delivered d;
    if (int status = readBlocks(path, job, run, d); status != kOk) return status;
    if (job.json) {
        jsonOut = {{"file", path},
                  {"stream", job.stream},
                  {"channel", job.channel},
                  {"start", job.start},
                  {"count", d.samples},
                  {"sampleRate", d.rate},
                  {"bytesPerSample", d.bytesPerSample},
                  {"sampleType", d.isFloat ? "float" : "int"},
                  {"seconds", d.seconds},
                  {"reads", d.reads}};
    } else if (!job.md5) {
        std::printf("%s: stream %llu channel %llu, samples %llu-%llu (%llu) of %u-byte %s at %u Hz in %.3f s%s\n",
                    path.c_str(), (unsigned long long)job.stream, (unsigned long long)job.channel,
                    (unsigned long long)job.start, (unsigned long long)(job.start + d.samples - 1),
                    (unsigned long long)d.samples, d.bytesPerSample, d.isFloat ? "float" : "int", d.rate, d.seconds,
                    d.written ? ("; written to " + job.out).c_str() : "");
    }
    return kOk;
}

CommandRegistration reg({"audio", "read a channel's samples through the cache: hash, save or time them",
                         kAudioUsage, run});

} // namespace
} // namespace tool
