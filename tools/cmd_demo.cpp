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

// The tour: its steps in order, each printing what it did. A step that fails answers
// false with error set (the text after "demo: ").
class Tour {
public:
    Tour(fs::path dir, unsigned seconds) : dir_(std::move(dir)), seconds_(seconds) {}

    bool makeMedia();
    bool importClips();
    bool preOpen();
    bool play();
    bool scrub();
    bool writeVideo();
    bool writeSound();
    bool readBack();
    void summary(bool kept) const;

    std::string error;

private:
    bool failed(std::string why) {
        error = std::move(why);
        return false;
    }
    bool playClip(const Clip& c, ProgressBar& bar, uint64_t& done);

    const fs::path dir_;
    const unsigned seconds_;
    std::vector<Sample> media_;
    MediaSession session_;
    std::vector<Clip> clips_;
    PlayFileCache& cache_ = PlayFileCache::Shared();
    double playMs_ = 0;
    uint64_t videoFrames_ = 0, totalSamples_ = 0, mediaSamples_ = 0;
    // The clips with video, and the new clip written from the first of them.
    std::vector<const Clip*> video_;
    Cookie renderVideo_, renderSound_;
    uint32_t written_ = 0;
    std::vector<std::string> frameMd5_;
    fs::path rendered_;
    const Clip* withSound_ = nullptr;
    std::string soundMd5_;
    uint64_t soundSamples_ = 0;
};

// 1. Sample media.
bool Tour::makeMedia() {
    std::printf("1. sample media, %u s each, made with ffmpeg\n", seconds_);
    media_ = samples(seconds_);
    ProgressBar bar("making sample media", media_.size());
    for (size_t i = 0; i < media_.size(); ++i) {
        const fs::path out = dir_ / "media" / media_[i].name;
        const std::string command = "ffmpeg -nostdin -v error -y " + media_[i].args + " " + out.string() + " 2>&1";
        if (std::system(command.c_str()) != 0 || !fs::exists(out))
            return failed(std::string("ffmpeg could not make ") + media_[i].name);
        bar.update(i + 1);
    }
    bar.finish();
    std::error_code ec;
    for (const Sample& s : media_)
        std::printf("   %-14s %-52s %7.1f KiB\n", s.name, s.what, double(fs::file_size(dir_ / "media" / s.name, ec)) / 1024);
    return true;
}

// 2. Import.
bool Tour::importClips() {
    std::printf("\n2. import into the project in %s\n", (dir_ / "project").c_str());
    std::string why;
    if (!session_.openProject(dir_ / "project", why)) return failed(why);
    WString error;
    const DriveId drive = ProjectImporter::importDrive(DriveId(), &error);
    if (drive.isNone()) return failed(toUTF8(error).str());
    for (const Sample& s : media_) {
        const std::string path = (dir_ / "media" / s.name).string();
        ImportOptions options;
        options.drive = drive;
        if (!clipLayoutFromReaders(path, options, false, why)) return failed(path + ": " + why);
        ProjectImporter importer(options);
        ImportResult r = importer.importFile(fromUTF8(path.c_str()));
        if (!r.ok) return failed("cannot import " + path + ": " + toUTF8(r.error).str());
        Clip c{s.name, r.clip, options.videoChannels, options.audioChannels};
        c.rate = options.sampleRate;
        std::printf("   %-14s clip %s: %d video, %d audio channels\n", s.name, r.clip.asString().c_str(), c.video,
                    c.audio);
        clips_.push_back(c);
    }
    // Opening by name above served the readers' answers; the tour starts from an empty
    // cache so that its figures are the clips' own.
    playfile_close_all_files();
    cache_.resetStatistics();
    return true;
}

// 3. Pre-open.
bool Tour::preOpen() {
    std::printf("\n3. pre-open every clip's files in the background\n");
    if (!playfile_init()) return failed("the pre-open queue is not available");
    const auto t = Clock::now();
    std::vector<Zn::Ptr<Zn::PreOpenRequest>> requests;
    for (const Clip& c : clips_) {
        if (c.video) requests.push_back(Zn::PreOpenRequest::create(c.videoMaterial(), DecodeFormat(1)));
        if (c.audio) requests.push_back(Zn::PreOpenRequest::create(c.sound(1), DecodeFormat(1)));
    }
    for (const auto& r : requests)
        while (!r->isDone()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    for (const auto& r : requests)
        if (r->getState() != Zn::PreOpenRequest::kOpen)
            return failed("pre-opening " + r->getCookie().asString().str() + " failed");
    std::printf("   %zu opens (video and sound of each clip) on %u workers in %.1f ms; %u files open\n",
                requests.size(), Zn::FilePreOpen::instance().workerCount(), msSince(t), cache_.openFileCount());
    for (Clip& c : clips_) {
        if (c.video) c.frames = uint32_t(cache_.getSampleCount(c.videoMaterial()));
        if (c.audio) c.samples = cache_.getSampleCount(c.sound(1));
        if (c.video && c.frames) video_.push_back(&c);
        if (c.audio && !withSound_) withSound_ = &c;
    }
    return true;
}

// One clip of step 4: each frame, and each channel's samples for the frame's time, as an
// editor's player asks for them; four frames in flight.
bool Tour::playClip(const Clip& c, ProgressBar& bar, uint64_t& done) {
    const uint32_t steps = c.video ? c.frames : uint32_t((c.samples + 1919) / 1920);
    const uint32_t perStep = c.video ? c.rate / 25 : 1920;
    std::deque<std::unique_ptr<FrameRead>> window;
    uint32_t next = 0;
    std::string why;
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
            if (!read.samples(data, bytes, why)) return failed(c.name + " channel " + std::to_string(ch) + ": " + why);
            totalSamples_ += bytes / std::max(1u, read.bytesPerSample());
            if (ch == 1) mediaSamples_ += bytes / std::max(1u, read.bytesPerSample());
        }
        if (c.video) {
            if (window.front()->picture(why).empty()) return failed(c.name + ": " + why);
            window.pop_front();
        }
        bar.update(++done);
    }
    return true;
}

// 4. Play every clip.
bool Tour::play() {
    std::printf("\n4. play every clip through the cache\n");
    uint64_t totalFrames = 0;
    for (const Clip& c : clips_) totalFrames += c.video ? c.frames : (c.samples + 1919) / 1920;
    const auto before = cache_.statistics();
    {
        ProgressBar bar("playing", totalFrames);
        uint64_t done = 0;
        const auto t = Clock::now();
        for (const Clip& c : clips_)
            if (!playClip(c, bar, done)) return false;
        playMs_ = msSince(t);
        bar.finish();
    }
    const auto after = cache_.statistics();
    for (const Clip& c : clips_) videoFrames_ += c.video ? c.frames : 0;
    std::printf("   %llu frames in %.0f ms: %.0f frames per second\n", (unsigned long long)videoFrames_, playMs_,
                double(videoFrames_) * 1000 / playMs_);
    std::printf("   %llu samples over all channels (%.1f s of media) at %.0fx real time\n",
                (unsigned long long)totalSamples_, double(mediaSamples_) / 48000,
                double(mediaSamples_) / 48000 / (playMs_ / 1000));
    std::printf("   cache: %llu hits, %llu opens, %u files open (peak %u)\n",
                (unsigned long long)(after.hits - before.hits), (unsigned long long)(after.opens - before.opens),
                after.openFiles, after.peakOpenFiles);
    return true;
}

// 5. Scrub.
bool Tour::scrub() {
    std::printf("\n5. scrub: frames at random across the clips\n");
    std::mt19937 rng(2024);
    double worst = 0, sum = 0;
    const int jumps = 24;
    std::string why;
    for (int i = 0; i < jumps; ++i) {
        const Clip& c = *video_[rng() % video_.size()];
        const auto t = Clock::now();
        FrameRead read(c.videoMaterial(), int(rng() % c.frames), DecodeFormat(1));
        if (read.picture(why).empty()) return failed(c.name + ": " + why);
        const double ms = msSince(t);
        sum += ms;
        worst = std::max(worst, ms);
    }
    std::printf("   %d frames: %.1f ms on average, %.1f ms at worst\n", jumps, sum / jumps, worst);
    return true;
}

// 6. A new clip's material, written through the library from what the cache read: the
// video by the first writer that takes the pictures as they are (the Y4M writer).
bool Tour::writeVideo() {
    std::printf("\n6. write a new clip through the library's file writers and read it back\n");
    const Clip& source = *video_.front();
    EditPtr render = EditManager::createEdit(fromUTF8(("render of " + source.name).c_str()), 4);
    if (!render) return failed("cannot make a clip for the render");
    renderVideo_ = convertCookie(render->getCookie(), 'V', 0);
    renderSound_ = convertCookie(render->getCookie(), 'S', 1);
    std::string why;
    FrameRead first(source.videoMaterial(), 0, DecodeFormat(1));
    Zn::Image::Surface picture = first.picture(why);
    if (picture.empty()) return failed(source.name + ": " + why);
    Zn::FileWriterParams params = Zn::FileWriterParams::forVideo(
        ShotVideoMetadata::fromPicture(picture.getWidth(), picture.getHeight(), 25, 1), picture.getDataFormat());
    if (!params.video.isSet()) params.core.setCoreData(picture.getWidth(), picture.getHeight(), picture.getDataFormat());
    Zn::Ptr<Zn::FileWriteInstance> out = cache_.create(renderVideo_, params);
    if (!out) return failed("no file writer takes the pictures of " + source.name);
    written_ = std::min<uint32_t>(source.frames, 50);
    const auto t = Clock::now();
    for (uint32_t k = 0; k < written_; ++k) {
        FrameRead read(source.videoMaterial(), int(k), DecodeFormat(1));
        Zn::Image::Surface s = read.picture(why);
        if (s.empty()) return failed(source.name + ": " + why);
        Zn::Ptr<CapturePacket> packet = Zn::makePtr<CapturePacket>(s, int64_t(k));
        if (PlayUtil::ZnVideoSample_write(out, int(k), packet, nullptr) != 1)
            return failed("writing frame " + std::to_string(k) + " failed");
        frameMd5_.push_back(md5Of(s));
    }
    if (out->close() != 1) return failed("cannot finish " + toUTF8(out->getFileName()).str());
    const double writeMs = msSince(t);
    rendered_ = toUTF8(out->getFileName()).str();
    std::error_code ec;
    std::printf("   %u frames of %s written to %s in %.0f ms (%.0f fps), %.1f MiB\n", written_, source.name.c_str(),
                rendered_.filename().c_str(), writeMs, written_ * 1000.0 / writeMs,
                double(fs::file_size(rendered_, ec)) / 1048576);
    return true;
}

// The new clip's sound: the first sound clip's first channel, as long as the frames last,
// into WAV.
bool Tour::writeSound() {
    if (!withSound_) return true;
    const uint64_t count = std::min<uint64_t>(withSound_->samples, uint64_t(written_) * 1920);
    AudioRead all(withSound_->sound(1), 0, uint32_t(count));
    const uint8_t* data;
    size_t bytes;
    std::string why;
    if (!all.samples(data, bytes, why)) return failed(withSound_->name + ": " + why);
    Zn::FileWriterParams sound = Zn::FileWriterParams::forAudio(
        Aud::Metadata(all.sampleRate(), 1, all.bytesPerSample(), all.isFloat() ? Aud::kSampleFloat : Aud::kSampleInt));
    Zn::Ptr<Zn::FileWriteInstance> wav = cache_.create(renderSound_, sound);
    if (!wav) return failed("no file writer takes the sound of " + withSound_->name);
    for (size_t at = 0; at < bytes; at += 16384) {
        Zn::Ptr<iMemHolder> block = Zn::makePtr<ByteBufferImpl>(data + at, uint32_t(std::min<size_t>(16384, bytes - at)));
        if (PlayUtil::ZnAudioSamples_write(wav, block, nullptr) != 1) return failed("writing the sound failed");
    }
    soundSamples_ = wav->getMetadata().audioFramesWritten;
    if (wav->close() != 1) return failed("cannot finish " + toUTF8(wav->getFileName()).str());
    Md5 d;
    d.add(data, bytes);
    soundMd5_ = d.hex();
    std::printf("   %llu samples of %s channel 1 written to %s\n", (unsigned long long)soundSamples_,
                withSound_->name.c_str(), fs::path(toUTF8(wav->getFileName()).str()).filename().c_str());
    return true;
}

// Reads the new clip back through the cache, by its material cookies, and shows its header.
bool Tour::readBack() {
    uint32_t same = 0;
    std::string why;
    for (uint32_t k = 0; k < written_; ++k) {
        FrameRead back(renderVideo_, int(k), DecodeFormat(1));
        Zn::Image::Surface s = back.picture(why);
        if (s.empty()) return failed("reading back " + rendered_.string() + ": " + why);
        same += md5Of(s) == frameMd5_[k];
    }
    if (same != written_)
        return failed(std::to_string(written_ - same) + " frames read back differ from those written");
    std::printf("   read back through the cache: all %u frames identical to those written", written_);
    if (withSound_) {
        AudioRead back(renderSound_, 0, uint32_t(soundSamples_));
        const uint8_t* data;
        size_t bytes;
        if (!back.samples(data, bytes, why)) return failed("reading back the sound: " + why);
        Md5 d;
        d.add(data, bytes);
        if (d.hex() != soundMd5_) return failed("the sound read back differs from what was written");
        std::printf(", and every sample");
    }
    std::printf("\n");
    const std::string header = MaterialInfo::read_header(renderVideo_).str();
    if (header.empty()) return failed("the new video file has no play header");
    std::string copy = header;
    SAV_HEADER hdr;
    parse_header_v2(&hdr, copy.data());
    std::printf("   its play header, in the project and in %s beside it: %s %dx%d %s at %.2f fps\n",
                fs::path(toUTF8(MaterialInfo::headerFileName(renderVideo_)).str()).filename().c_str(), hdr.medium,
                hdr.width, hdr.height, hdr.vision_type, hdr.input_rate);
    return true;
}

void Tour::summary(bool kept) const {
    const auto end = cache_.statistics();
    std::printf("\ndemo finished: %zu clips, %llu frames played at %.0f fps, cache %llu hits / %llu opens, "
                "%u files open at the end%s\n",
                clips_.size(), (unsigned long long)videoFrames_, double(videoFrames_) * 1000 / playMs_,
                (unsigned long long)end.hits, (unsigned long long)end.opens, end.openFiles,
                kept ? ("; kept in " + dir_.string()).c_str() : "");
}

// The folder the tour works in: --dir, else a new temporary folder; false with error set.
bool workFolder(const std::string& given, fs::path& dir, std::string& error) {
    dir = given;
    if (dir.empty()) {
        char pattern[] = "/tmp/playfile-demo-XXXXXX";
        if (!mkdtemp(pattern)) {
            error = "cannot create a temporary folder";
            return false;
        }
        dir = pattern;
    }
    std::error_code ec;
    fs::create_directories(dir / "media", ec);
    if (!fs::is_directory(dir / "media")) {
        error = "cannot make the folder " + (dir / "media").string();
        return false;
    }
    return true;
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

    const bool keep = !o.value("--dir").empty();
    fs::path dir;
    if (!workFolder(o.value("--dir"), dir, why)) return fail(kFailure, "demo: " + why);
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

    Tour tour(dir, unsigned(seconds));
    const bool ok = tour.makeMedia() && tour.importClips() && tour.preOpen() && tour.play() && tour.scrub() &&
                    tour.writeVideo() && tour.writeSound() && tour.readBack();
    if (!ok) return fail(kFailure, "demo: " + tour.error);
    tour.summary(keep);
    return kOk;
}

CommandRegistration reg({"demo", "a guided run on generated sample media", kDemoUsage, run});

} // namespace
} // namespace tool
