// `playfile demo`: a guided run of the library on sample media it makes with the ffmpeg
// program: import into a project, pre-open, play frames and audio through the cache,
// scrub at random, write a new file through a writer and read it back, with figures.
#include "tools/Command.h"
#include "tools/Md5.h"
#include "tools/ImageFile.h"
#include "tools/MediaSession.h"
#include "tools/Options.h"
#include "tools/Progress.h"

#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/CapturePacket.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/ShotVideoMetadata.h"
#include "host/os/OS.h"
#include "host/project/Edit.h"
#include "host/project/EditManager.h"
#include "host/project/MaterialInfo.h"
#include "host/project/ProjectImporter.h"
#include "playfile/Configuration.h"
#include "playfile/EntryPoints.h"
#include "playfile/Version.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/open/PlayUtil.h"
#include "playfile/requests/PreOpen.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

namespace tool {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

const char kDemoUsage[] =
    "usage: playfile demo [--dir DIR] [--seconds S]\n"
    "\n"
    "A guided run of the library on sample media made with the ffmpeg program (which must\n"
    "be on the PATH): a few seconds of H.264 video with 5.1 AAC audio, of ProRes video with\n"
    "four channels of 24-bit PCM, and a stereo WAV file. The demo\n"
    "  1. makes the media,\n"
    "  2. imports it into a project (the layout asked of the library's readers),\n"
    "  3. pre-opens every clip's files in the background,\n"
    "  4. plays every clip through the play file cache: each frame, and each sound\n"
    "     channel's samples for that frame, with reads in flight and a progress bar,\n"
    "  5. scrubs: frames at random across the clips,\n"
    "  6. writes a new clip through the library (PlayFileCache::create and the sample\n"
    "     writers): frames read through the cache into a Y4M file, a sound channel into\n"
    "     a WAV file, each with its play header, and reads both back through the cache,\n"
    "and prints what it did with figures (frames per second, audio speed against real\n"
    "time, cache hits, opens and files open).\n"
    "\n"
    "  --dir DIR       work in DIR and keep it (media in DIR/media, the project in\n"
    "                  DIR/project); default: a new temporary folder, removed afterwards\n"
    "  --seconds S     length of the sample media (default 4, at most 60)\n"
    "\n"
    "Exit status: 0 the tour succeeded, 1 a step failed (one line on standard error),\n"
    "2 a usage error.\n";

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

struct Sample {
    const char* name;
    const char* what;
    std::string args; // ffmpeg's inputs and encoding, before the output name
};

std::vector<Sample> samples(unsigned seconds) {
    const std::string d = std::to_string(seconds);
    const std::string picture = "-f lavfi -i testsrc2=size=1280x720:rate=25:duration=" + d + " ";
    // Each channel its own tone, so that a channel read is recognisable.
    auto tones = [&](int channels, const char* layout) {
        std::string e;
        for (int c = 0; c < channels; ++c) e += (c ? "|" : "") + std::string("0.3*sin(") + std::to_string(220 + 110 * c) + "*2*PI*t)";
        return "-f lavfi -i \"aevalsrc=" + e + ":s=48000:d=" + d + ":c=" + layout + "\" ";
    };
    return {
        {"interview.mp4", "H.264 1280x720 25 fps, 5.1 AAC",
         picture + tones(6, "5.1") + "-c:v libx264 -preset veryfast -g 25 -bf 2 -pix_fmt yuv420p -c:a aac -b:a 384k"},
        {"closeup.mov", "ProRes 422 1280x720 25 fps, 4 channels of 24-bit PCM",
         "-f lavfi -i testsrc=size=1280x720:rate=25:duration=" + d + " " + tones(4, "quad") +
             "-c:v prores_ks -profile:v 2 -c:a pcm_s24le"},
        {"music.wav", "stereo 16-bit PCM at 48 kHz", tones(2, "stereo") + "-c:a pcm_s16le"},
    };
}

struct Clip {
    std::string name;
    Cookie clip;
    int video = 0, audio = 0;
    uint32_t frames = 0;
    uint64_t samples = 0;
    unsigned rate = 48000;
    Cookie videoMaterial() const { return convertCookie(clip, 'V', 0); }
    Cookie sound(int channel) const { return convertCookie(clip, 'S', uint8_t(channel)); }
};

std::string md5Of(const Zn::Image::Surface& s) {
    Md5 d;
    forEachPackedRow(s, [&](const uint8_t* p, size_t n) { d.add(p, n); });
    return d.hex();
}

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("demo", args, {{"--dir", true}, {"--seconds", true}})) return fail(kUsage, o.error());
    if (!o.positional().empty()) return fail(kUsage, "demo: unexpected argument '" + o.positional()[0] + "'");
    uint64_t seconds;
    if (!o.number("--seconds", 1, 60, 4, seconds)) return fail(kUsage, o.error());
    if (std::system("command -v ffmpeg >/dev/null 2>&1") != 0)
        return fail(kFailure, "demo: the ffmpeg program is needed to make the sample media (run scripts/bootstrap)");
    std::string why;
    if (!readersAvailable(why)) return fail(kFailure, "demo: " + why);

    fs::path dir = o.value("--dir");
    const bool keep = !dir.empty();
    if (!keep) {
        char pattern[] = "/tmp/playfile-demo-XXXXXX";
        if (!mkdtemp(pattern)) return fail(kFailure, "demo: cannot create a temporary folder");
        dir = pattern;
    }
    std::error_code ec;
    fs::create_directories(dir / "media", ec);
    if (!fs::is_directory(dir / "media")) return fail(kFailure, "demo: cannot make the folder " + (dir / "media").string());
    struct Cleanup {
        fs::path dir;
        bool keep;
        ~Cleanup() {
            std::error_code e;
            if (!keep) fs::remove_all(dir, e);
        }
    } cleanup{dir, keep};

    std::string backends;
    for (const std::string& n : Zn::BackendPlugins::loadedNames()) backends += (backends.empty() ? "" : ", ") + n;
    std::printf("playfile %s demo in %s\n", playfileDllVersionStr(), dir.c_str());
    std::printf("  back-ends: %s; %u processors, %d reader threads\n\n", backends.c_str(), OS()->processorCount(),
                PlayfileConfig::numReaderThreads());

    // 1. Sample media.
    std::printf("1. sample media, %llu s each, made with ffmpeg\n", (unsigned long long)seconds);
    const std::vector<Sample> media = samples(unsigned(seconds));
    {
        ProgressBar bar("making sample media", media.size());
        for (size_t i = 0; i < media.size(); ++i) {
            const fs::path out = dir / "media" / media[i].name;
            const std::string command = "ffmpeg -nostdin -v error -y " + media[i].args + " " + out.string() + " 2>&1";
            if (std::system(command.c_str()) != 0 || !fs::exists(out))
                return fail(kFailure, std::string("demo: ffmpeg could not make ") + media[i].name);
            bar.update(i + 1);
        }
        bar.finish();
    }
    for (const Sample& s : media)
        std::printf("   %-14s %-52s %7.1f KiB\n", s.name, s.what, double(fs::file_size(dir / "media" / s.name, ec)) / 1024);

    // 2. Import.
    std::printf("\n2. import into the project in %s\n", (dir / "project").c_str());
    MediaSession session;
    if (!session.openProject(dir / "project", why)) return fail(kFailure, "demo: " + why);
    WString error;
    const DriveId drive = ProjectImporter::importDrive(DriveId(), &error);
    if (drive.isNone()) return fail(kFailure, "demo: " + toUTF8(error).str());
    std::vector<Clip> clips;
    for (const Sample& s : media) {
        const std::string path = (dir / "media" / s.name).string();
        ImportOptions options;
        options.drive = drive;
        if (!clipLayoutFromReaders(path, options, false, why)) return fail(kFailure, "demo: " + path + ": " + why);
        ProjectImporter importer(options);
        ImportResult r = importer.importFile(fromUTF8(path.c_str()));
        if (!r.ok) return fail(kFailure, "demo: cannot import " + path + ": " + toUTF8(r.error).str());
        Clip c{s.name, r.clip, options.videoChannels, options.audioChannels};
        c.rate = options.sampleRate;
        std::printf("   %-14s clip %s: %d video, %d audio channels\n", s.name, r.clip.asString().c_str(),
                    c.video, c.audio);
        clips.push_back(c);
    }
    // Opening by name above served the readers' answers; the tour starts from an empty
    // cache so that its figures are the clips' own.
    PlayFileCache& cache = PlayFileCache::Shared();
    playfile_close_all_files();
    cache.resetStatistics();

    // 3. Pre-open.
    std::printf("\n3. pre-open every clip's files in the background\n");
    if (!playfile_init()) return fail(kFailure, "demo: the pre-open queue is not available");
    auto t = Clock::now();
    std::vector<Zn::Ptr<Zn::PreOpenRequest>> requests;
    for (const Clip& c : clips) {
        if (c.video) requests.push_back(Zn::PreOpenRequest::create(c.videoMaterial(), DecodeFormat(1)));
        if (c.audio) requests.push_back(Zn::PreOpenRequest::create(c.sound(1), DecodeFormat(1)));
    }
    for (const auto& r : requests)
        while (!r->isDone()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    for (const auto& r : requests)
        if (r->getState() != Zn::PreOpenRequest::kOpen)
            return fail(kFailure, "demo: pre-opening " + r->getCookie().asString().str() + " failed");
    std::printf("   %zu opens (video and sound of each clip) on %u workers in %.1f ms; %u files open\n",
                requests.size(), Zn::FilePreOpen::instance().workerCount(), msSince(t), cache.openFileCount());
    for (Clip& c : clips) {
        if (c.video) c.frames = uint32_t(cache.getSampleCount(c.videoMaterial()));
        if (c.audio) c.samples = cache.getSampleCount(c.sound(1));
    }

    // 4. Play: each frame, and each channel's samples for the frame's time, as an editor's
    // player asks for them; four frames in flight.
    std::printf("\n4. play every clip through the cache\n");
    uint64_t totalFrames = 0, totalSamples = 0, mediaSamples = 0;
    for (const Clip& c : clips) totalFrames += c.video ? c.frames : (c.samples + 1919) / 1920;
    const auto before = cache.statistics();
    double playMs = 0;
    {
        ProgressBar bar("playing", totalFrames);
        uint64_t done = 0;
        t = Clock::now();
        for (const Clip& c : clips) {
            const uint32_t steps = c.video ? c.frames : uint32_t((c.samples + 1919) / 1920);
            const uint32_t perStep = c.video ? c.rate / 25 : 1920;
            std::deque<std::unique_ptr<FrameRead>> window;
            uint32_t next = 0;
            for (uint32_t k = 0; k < steps; ++k) {
                if (c.video) {
                    while (next < steps && window.size() < 4)
                        window.push_back(std::make_unique<FrameRead>(c.videoMaterial(), int(next++), DecodeFormat(1)));
                }
                for (int ch = 1; ch <= c.audio; ++ch) {
                    const uint64_t at = uint64_t(k) * perStep;
                    if (at >= c.samples) break;
                    AudioRead read(c.sound(ch), at, uint32_t(std::min<uint64_t>(perStep, c.samples - at)));
                    const uint8_t* data;
                    size_t bytes;
                    if (!read.samples(data, bytes, why))
                        return fail(kFailure, "demo: " + c.name + " channel " + std::to_string(ch) + ": " + why);
                    totalSamples += bytes / std::max(1u, read.bytesPerSample());
                    if (ch == 1) mediaSamples += bytes / std::max(1u, read.bytesPerSample());
                }
                if (c.video) {
                    if (window.front()->picture(why).empty()) return fail(kFailure, "demo: " + c.name + ": " + why);
                    window.pop_front();
                }
                bar.update(++done);
            }
        }
        playMs = msSince(t);
        bar.finish();
    }
    const auto after = cache.statistics();
    uint64_t videoFrames = 0;
    for (const Clip& c : clips) videoFrames += c.video ? c.frames : 0;
    std::printf("   %llu frames in %.0f ms: %.0f frames per second\n", (unsigned long long)videoFrames, playMs,
                double(videoFrames) * 1000 / playMs);
    std::printf("   %llu samples over all channels (%.1f s of media) at %.0fx real time\n",
                (unsigned long long)totalSamples, double(mediaSamples) / 48000, double(mediaSamples) / 48000 / (playMs / 1000));
    std::printf("   cache: %llu hits, %llu opens, %u files open (peak %u)\n",
                (unsigned long long)(after.hits - before.hits), (unsigned long long)(after.opens - before.opens),
                after.openFiles, after.peakOpenFiles);

    // 5. Scrub.
    std::printf("\n5. scrub: frames at random across the clips\n");
    std::mt19937 rng(2024);
    std::vector<const Clip*> video;
    for (const Clip& c : clips)
        if (c.video && c.frames) video.push_back(&c);
    double worst = 0, sum = 0;
    const int jumps = 24;
    for (int i = 0; i < jumps; ++i) {
        const Clip& c = *video[rng() % video.size()];
        t = Clock::now();
        FrameRead read(c.videoMaterial(), int(rng() % c.frames), DecodeFormat(1));
        if (read.picture(why).empty()) return fail(kFailure, "demo: " + c.name + ": " + why);
        const double ms = msSince(t);
        sum += ms;
        worst = std::max(worst, ms);
    }
    std::printf("   %d frames: %.1f ms on average, %.1f ms at worst\n", jumps, sum / jumps, worst);

    // 6. A new clip's material, written through the library from what the cache read:
    // the video by the first writer that takes the pictures as they are (the Y4M writer),
    // one sound channel into WAV.
    std::printf("\n6. write a new clip through the library's file writers and read it back\n");
    const Clip& source = *video.front();
    EditPtr render = EditManager::createEdit(fromUTF8(("render of " + source.name).c_str()), 4);
    if (!render) return fail(kFailure, "demo: cannot make a clip for the render");
    const Cookie renderVideo = convertCookie(render->getCookie(), 'V', 0);
    const Cookie renderSound = convertCookie(render->getCookie(), 'S', 1);
    FrameRead first(source.videoMaterial(), 0, DecodeFormat(1));
    Zn::Image::Surface picture = first.picture(why);
    if (picture.empty()) return fail(kFailure, "demo: " + source.name + ": " + why);
    Zn::FileWriterParams params = Zn::FileWriterParams::forVideo(
        ShotVideoMetadata::fromPicture(picture.getWidth(), picture.getHeight(), 25, 1), picture.getDataFormat());
    if (!params.video.isSet()) params.core.setCoreData(picture.getWidth(), picture.getHeight(), picture.getDataFormat());
    Zn::Ptr<Zn::FileWriteInstance> out = cache.create(renderVideo, params);
    if (!out) return fail(kFailure, "demo: no file writer takes the pictures of " + source.name);
    const uint32_t toWrite = std::min<uint32_t>(source.frames, 50);
    std::vector<std::string> written;
    t = Clock::now();
    for (uint32_t k = 0; k < toWrite; ++k) {
        FrameRead read(source.videoMaterial(), int(k), DecodeFormat(1));
        Zn::Image::Surface s = read.picture(why);
        if (s.empty()) return fail(kFailure, "demo: " + source.name + ": " + why);
        Zn::Ptr<CapturePacket> packet = Zn::makePtr<CapturePacket>(s, int64_t(k));
        if (PlayUtil::ZnVideoSample_write(out, int(k), packet, nullptr) != 1)
            return fail(kFailure, "demo: writing frame " + std::to_string(k) + " failed");
        written.push_back(md5Of(s));
    }
    if (out->close() != 1) return fail(kFailure, "demo: cannot finish " + toUTF8(out->getFileName()).str());
    const double writeMs = msSince(t);
    const fs::path rendered = toUTF8(out->getFileName()).str();
    out = nullptr;
    std::printf("   %u frames of %s written to %s in %.0f ms (%.0f fps), %.1f MiB\n", toWrite,
                source.name.c_str(), rendered.filename().c_str(), writeMs, toWrite * 1000.0 / writeMs,
                double(fs::file_size(rendered, ec)) / 1048576);

    // Its sound: the source's first channel, as many seconds as the frames last.
    const Clip* withSound = nullptr;
    for (const Clip& c : clips)
        if (c.audio) withSound = withSound ? withSound : &c;
    std::string soundMd5;
    uint64_t soundSamples = 0;
    if (withSound) {
        const uint64_t count = std::min<uint64_t>(withSound->samples, uint64_t(toWrite) * 1920);
        AudioRead all(withSound->sound(1), 0, uint32_t(count));
        const uint8_t* data;
        size_t bytes;
        if (!all.samples(data, bytes, why)) return fail(kFailure, "demo: " + withSound->name + ": " + why);
        Zn::FileWriterParams sound = Zn::FileWriterParams::forAudio(
            Aud::Metadata(all.sampleRate(), 1, all.bytesPerSample(), all.isFloat() ? Aud::kSampleFloat : Aud::kSampleInt));
        Zn::Ptr<Zn::FileWriteInstance> wav = cache.create(renderSound, sound);
        if (!wav) return fail(kFailure, "demo: no file writer takes the sound of " + withSound->name);
        for (size_t at = 0; at < bytes; at += 16384) {
            Zn::Ptr<iMemHolder> block =
                Zn::makePtr<ByteBufferImpl>(data + at, uint32_t(std::min<size_t>(16384, bytes - at)));
            if (PlayUtil::ZnAudioSamples_write(wav, block, nullptr) != 1)
                return fail(kFailure, "demo: writing the sound failed");
        }
        soundSamples = wav->getMetadata().audioFramesWritten;
        if (wav->close() != 1) return fail(kFailure, "demo: cannot finish " + toUTF8(wav->getFileName()).str());
        Md5 d;
        d.add(data, bytes);
        soundMd5 = d.hex();
        std::printf("   %llu samples of %s channel 1 written to %s\n", (unsigned long long)soundSamples,
                    withSound->name.c_str(), fs::path(toUTF8(wav->getFileName()).str()).filename().c_str());
    }

    // Read back through the cache, by the new clip's material cookies.
    uint32_t same = 0;
    for (uint32_t k = 0; k < toWrite; ++k) {
        FrameRead back(renderVideo, int(k), DecodeFormat(1));
        Zn::Image::Surface s = back.picture(why);
        if (s.empty()) return fail(kFailure, "demo: reading back " + rendered.string() + ": " + why);
        same += md5Of(s) == written[k];
    }
    if (same != toWrite)
        return fail(kFailure, "demo: " + std::to_string(toWrite - same) + " frames read back differ from those written");
    std::printf("   read back through the cache: all %u frames identical to those written", toWrite);
    if (withSound) {
        AudioRead back(renderSound, 0, uint32_t(soundSamples));
        const uint8_t* data;
        size_t bytes;
        if (!back.samples(data, bytes, why)) return fail(kFailure, "demo: reading back the sound: " + why);
        Md5 d;
        d.add(data, bytes);
        if (d.hex() != soundMd5) return fail(kFailure, "demo: the sound read back differs from what was written");
        std::printf(", and every sample");
    }
    std::printf("\n");
    const std::string header = MaterialInfo::read_header(renderVideo).str();
    if (header.empty()) return fail(kFailure, "demo: the new video file has no play header");
    std::string copy = header;
    SAV_HEADER hdr;
    parse_header_v2(&hdr, copy.data());
    std::printf("   its play header, in the project and in %s beside it: %s %dx%d %s at %.2f fps\n",
                fs::path(toUTF8(MaterialInfo::headerFileName(renderVideo)).str()).filename().c_str(), hdr.medium,
                hdr.width, hdr.height, hdr.vision_type, hdr.input_rate);

    const auto end = cache.statistics();
    std::printf("\ndemo finished: %zu clips, %llu frames played at %.0f fps, cache %llu hits / %llu opens, "
                "%u files open at the end%s\n",
                clips.size(), (unsigned long long)videoFrames, double(videoFrames) * 1000 / playMs,
                (unsigned long long)end.hits, (unsigned long long)end.opens, end.openFiles,
                keep ? ("; kept in " + dir.string()).c_str() : "");
    return kOk;
}

CommandRegistration reg({"demo", "a guided run on generated sample media", kDemoUsage, run});

} // namespace
} // namespace tool
