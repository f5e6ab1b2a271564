// The playfile program against FFmpeg on real files: the lines of `playfile frames --md5`
// equal `ffmpeg -f framemd5` (native and converted formats, any run, any number in flight),
// channels hashed by `playfile audio --md5` equal the same channel of FFmpeg's decoded
// samples, and what --out writes decodes to the same pictures and samples. Then probe's
// JSON, the header commands on a header written beside a file, import's layout and the
// demo's tour.
#include "support/ProgramRun.h"
#include "backends/ffmpeg/FfmpegEngine.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

using namespace testing_support;

namespace {

const std::string kPicture = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.6 ";

std::string make(const TempDir& dir, const std::string& name, const std::string& args) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(ffmpeg(args + " " + shellQuote(path))) << name;
    return path;
}

// FFmpeg's framemd5 as "FRAME SIZE MD5" lines, frames counted from 0 (outputArgs such as
// "-pix_fmt rgb24").
std::vector<std::string> framemd5(const std::string& path, const std::string& outputArgs = "") {
    auto r = runCommand("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -map 0:v:0 -fps_mode passthrough " +
                        outputArgs + " -f framemd5 -");
    std::vector<std::string> out;
    for (const std::string& l : lines(r.out)) {
        if (l.empty() || l[0] == '#') continue;
        std::vector<std::string> f;
        std::istringstream in(l);
        for (std::string w; std::getline(in, w, ',');) f.push_back(w.substr(w.find_first_not_of(' ')));
        out.push_back(std::to_string(out.size()) + " " + f.at(4) + " " + f.at(5));
    }
    return out;
}

// One channel of what FFmpeg decodes from an audio stream, in the raw format given.
std::string ffmpegChannel(const std::string& path, int stream, int channel, int channels, const std::string& raw,
                          size_t bytes) {
    const std::string all = runCommand("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -map 0:a:" +
                                       std::to_string(stream) + " -c:a pcm_" + raw + " -f " + raw + " -")
                                .out;
    std::string out;
    for (size_t at = size_t(channel) * bytes; at + bytes <= all.size(); at += bytes * size_t(channels))
        out.append(all, at, bytes);
    return out;
}

std::string md5(const std::string& bytes) { return ffmpeg_engine::md5Hex(bytes.data(), bytes.size()); }

// The MD5 on line n of framemd5's answer.
std::string md5At(const std::vector<std::string>& framemd5Lines, size_t n) {
    return n < framemd5Lines.size() ? framemd5Lines[n].substr(framemd5Lines[n].rfind(' ') + 1) : "";
}

// Whether j holds every member of want with the same value (objects member by member).
bool includes(const nlohmann::json& j, const nlohmann::json& want) {
    nlohmann::json merged = j;
    merged.merge_patch(want);
    return merged == j;
}

} // namespace

// The command's own contract; that every codec family reads as FFmpeg shows it is checked
// through the library by the back-end tests.
TEST(Frames, Md5LinesEqualFfmpegsFramemd5InAnyFormatRunAndNumberInFlight) {
    TempDir dir;
    for (const std::string& f : {make(dir, "h264.mp4", kPicture + "-c:v libx264 -preset veryfast -g 6 -bf 3 -pix_fmt yuv420p"),
                                 make(dir, "raw.y4m", kPicture + "-pix_fmt yuv422p")}) {
        SCOPED_TRACE(f);
        const auto want = framemd5(f);
        ASSERT_EQ(want.size(), 15u);
        Outcome r = playfile(dir, "frames " + shellQuote(f) + " --md5");
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(lines(r.out), want);
        EXPECT_TRUE(r.err.empty());

        // A run from the middle, one read at a time and many at once, in a converted format.
        const auto rgb = framemd5(f, "-pix_fmt rgb24");
        const std::vector<std::string> middle(rgb.begin() + 5, rgb.begin() + 12);
        for (const char* inflight : {"1", "16"}) {
            r = playfile(dir, "frames " + shellQuote(f) + " --md5 --format rgb24 --start 5 --count 7 --inflight " +
                                  inflight);
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(lines(r.out), middle) << inflight << " in flight";
        }
    }
}

// A folder of media checked in one run, with few descriptors and a cache maximum above
// what they allow: the maximum is lowered (one log line), files short of descriptors are
// tried again rather than remembered as failed, and every frame of every file is read.
// Each --md5 line starts with its file's name; audio takes several files the same way.
TEST(Frames, ManyFilesInOneRunWithFewDescriptors) {
    TempDir dir;
    const std::string first = make(dir, "clip000.mp4",
                                   "-f lavfi -i testsrc2=size=64x48:rate=25:duration=0.16 -f lavfi "
                                   "-i sine=sample_rate=48000:duration=0.16 -c:v libx264 -preset ultrafast -c:a aac");
    const std::vector<std::string> want = framemd5(first);
    ASSERT_EQ(want.size(), 4u);
    std::string files = shellQuote(first);
    for (int i = 1; i < 200; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "clip%03d.mp4", i);
        std::filesystem::copy_file(first, dir.file(name));
        files += " " + shellQuote(dir.file(name));
    }
    const Outcome r = playfile(dir, "frames --md5 " + files, "ulimit -n 64 && PLAYFILE_playfileCacheSizeMax=100");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.err.empty()) << r.err.front();
    const std::vector<std::string> got = lines(r.out);
    ASSERT_EQ(got.size(), 200u * want.size());
    for (size_t i = 0; i < got.size(); ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "clip%03zu.mp4", i / want.size());
        ASSERT_EQ(got[i], dir.file(name) + " " + want[i % want.size()]);
    }
    const std::string log = readFile(dir.file("playfile.log"));
    EXPECT_NE(log.find("PlayFileCache: at most 12 files kept open, not 100: the process may open 64 files\n"),
              std::string::npos);
    EXPECT_EQ(log.find("Failed to open"), std::string::npos);

    const Outcome audio = playfile(dir, "audio --md5 " + shellQuote(first) + " " + shellQuote(dir.file("clip001.mp4")));
    EXPECT_EQ(audio.status, 0);
    const std::vector<std::string> reads = lines(audio.out);
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[0].substr(0, first.size() + 1), first + " ");
    EXPECT_EQ(reads[1], dir.file("clip001.mp4") + reads[0].substr(first.size()));
}

TEST(Frames, ImagesHoldThePicturesReadAndJsonDescribesTheRun) {
    TempDir dir;
    const std::string f = make(dir, "h264.mp4", kPicture + "-c:v libx264 -g 6 -pix_fmt yuv420p");
    Outcome r = playfile(dir, "frames " + shellQuote(f) + " --start 3 --count 2 --out " + shellQuote(dir.file("png")));
    ASSERT_EQ(r.status, 0);
    r = playfile(dir, "frames " + shellQuote(f) + " --start 3 --count 1 --format gray8 --image ppm --out " +
                          shellQuote(dir.file("pgm")));
    ASSERT_EQ(r.status, 0);
    // FFmpeg decodes each image back to the picture it read in the same format.
    for (auto [image, format, n] : {std::tuple{"png/frame_000003.png", "-pix_fmt rgb24", 3},
                                    {"png/frame_000004.png", "-pix_fmt rgb24", 4},
                                    {"pgm/frame_000003.pgm", "-pix_fmt gray8", 3}})
        EXPECT_EQ(md5At(framemd5(dir.file(image), format), 0), md5At(framemd5(f, format), size_t(n))) << image;

    r = playfile(dir, "frames " + shellQuote(f) + " --json --md5 --count 2");
    ASSERT_EQ(r.status, 0);
    auto j = nlohmann::json::parse(r.out);
    EXPECT_TRUE(includes(j, {{"count", 2}, {"format", "yuv420p"}, {"width", 176}})) << r.out;
    ASSERT_EQ(j["frames"].size(), 2u);
    EXPECT_EQ(std::to_string(j["frames"][1]["frame"].get<int>()) + " " +
                  std::to_string(j["frames"][1]["size"].get<int>()) + " " + j["frames"][1]["md5"].get<std::string>(),
              framemd5(f)[1]);
}

TEST(Audio, Md5OfAChannelEqualsTheSameChannelOfFfmpegsDecodedSamples) {
    TempDir dir;
    const std::string tones = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.7 "
                              "-f lavfi -i anoisesrc=d=0.7:c=pink:r=48000:a=0.2:seed=3 ";
    const std::string wav = make(dir, "stereo.wav", tones + "-filter_complex amerge=inputs=2 -c:a pcm_s16le");
    // Two streams: AAC stereo, then four channels of 24-bit PCM (delivered in 32-bit words).
    // The AAC is made without noise substitution, whose noise a decoder restarted within
    // the stream cannot reproduce, so that every read is exact.
    const std::string mov =
        make(dir, "two.mov", tones + "-filter_complex \"[0:a][1:a]amerge=inputs=2[s];[0:a][1:a][0:a][1:a]amerge="
                                     "inputs=4[q]\" -map [s] -map [q] -c:a:0 aac -aac_pns 0 -c:a:1 pcm_s24le");
    struct Case {
        std::string file;
        int stream, channel, channels;
        const char* raw;
        size_t bytes;
    };
    for (const Case& c : {Case{wav, 0, 1, 2, "s16le", 2}, Case{mov, 0, 0, 2, "f32le", 4},
                          Case{mov, 1, 3, 4, "s32le", 4}}) {
        SCOPED_TRACE(c.file + " stream " + std::to_string(c.stream) + " channel " + std::to_string(c.channel));
        const std::string want = ffmpegChannel(c.file, c.stream, c.channel, c.channels, c.raw, c.bytes);
        const size_t samples = want.size() / c.bytes;
        ASSERT_GT(samples, 30000u);
        const std::string args = "audio " + shellQuote(c.file) + " --stream " + std::to_string(c.stream) +
                                 " --channel " + std::to_string(c.channel) + " --md5";
        Outcome r = playfile(dir, args);
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "0 " + std::to_string(samples) + " " + md5(want) + "\n");
        // A run from the middle in reads of 4096 samples: one line per read.
        r = playfile(dir, args + " --start 1000 --count 9000 --block 4096");
        EXPECT_EQ(lines(r.out), (std::vector<std::string>{"1000 4096 " + md5(want.substr(1000 * c.bytes, 4096 * c.bytes)),
                                                          "5096 4096 " + md5(want.substr(5096 * c.bytes, 4096 * c.bytes)),
                                                          "9192 808 " + md5(want.substr(9192 * c.bytes, 808 * c.bytes))}));
    }
    // The mono WAV of --out holds the same samples.
    Outcome r = playfile(dir, "audio " + shellQuote(mov) + " --start 100 --count 5000 --out " + shellQuote(dir.file("out.wav")));
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(ffmpegChannel(dir.file("out.wav"), 0, 0, 1, "f32le", 4),
              ffmpegChannel(mov, 0, 0, 2, "f32le", 4).substr(400, 20000));
}

TEST(Probe, JsonDescribesStreamsAndHeaderAndTheHeaderCommandsReadIt) {
    TempDir dir;
    const std::string mov = make(dir, "clip.mov", kPicture + "-f lavfi -i sine=r=48000:d=0.6 -ac 3 -c:v prores_ks "
                                                             "-c:a pcm_s16le");
    // A header beside the file, as a version-2 text with LF CR line ends.
    std::ofstream(dir.file("clip.hdr"), std::ios::binary)
        << "header_version 6\n\rmedium vision\n\rinput_rate 25.00000000\n\rvision_type PAL\n\rwidth 176\n\r"
           "height 144\n\rreelid REEL0001\n\r";
    Outcome r = playfile(dir, "probe --json " + shellQuote(mov));
    ASSERT_EQ(r.status, 0);
    auto j = nlohmann::json::parse(r.out).at(0);
    EXPECT_TRUE(includes(j, {{"reader", "FFmpeg"}, {"serves", nlohmann::json::array({"video", "audio"})},
                             {"video", {{"frames", 15}, {"rate", {25, 1}}, {"format", "yuv422p10le"}}},
                             {"header", {{"version", 6}}}})) << r.out;
    EXPECT_TRUE(includes(j["audio"][0], {{"channels", 3}, {"bytesPerSample", 2}, {"compressed", false}})) << r.out;

    // The header's own parsing is the library's; these check that each command reaches it.
    r = playfile(dir, "header show " + shellQuote(mov));
    ASSERT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("replay_rate 25.00000000\n\r"), std::string::npos); // the v2 default chain
    EXPECT_NE(r.out.find("reelid REEL0001\n\r"), std::string::npos);
    // The first-generation parser forces PAL rates and ignores the reel.
    r = playfile(dir, "header parse --v1 " + shellQuote(dir.file("clip.hdr")));
    EXPECT_NE(r.out.find("reelid \n\r"), std::string::npos);
    r = playfile(dir, "header lookup width reelid --in " + shellQuote(dir.file("clip.hdr")));
    EXPECT_EQ(r.out, "width 176\nreelid REEL0001\n");
    r = playfile(dir, "header lookup f novalue");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("Item \"f\" = {I really am f"), std::string::npos);
    EXPECT_NE(r.out.find("Item \"novalue\" not found."), std::string::npos);
}

TEST(Import, AsksTheReadersForTheLayoutAndTheDemoTourSucceeds) {
    TempDir dir;
    const std::string wav = make(dir, "six.wav", "-f lavfi -i sine=r=44100:d=0.2 -ac 6 -c:a pcm_s16le");
    const std::string y4m = make(dir, "pic.y4m", kPicture);
    Outcome r = playfile(dir, "import " + shellQuote(wav) + " " + shellQuote(y4m) + " --project " + shellQuote(dir.file("p")));
    ASSERT_EQ(r.status, 0);
    auto out = lines(r.out);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_NE(out[0].find("0 video, 6 audio channels at 44100 Hz"), std::string::npos) << out[0];
    EXPECT_NE(out[1].find("1 video, 0 audio channels"), std::string::npos) << out[1];

    r = playfile(dir, "demo --seconds 1 --dir " + shellQuote(dir.file("demo")));
    EXPECT_EQ(r.status, 0) << (r.err.empty() ? "" : r.err[0]);
    EXPECT_NE(r.out.find("all 25 frames identical to those written"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("demo finished"), std::string::npos);
}

TEST(Bench, PrintsTheFiguresTheComparisonReadsAndVerboseShowsTheLibrarysLog) {
    TempDir dir;
    const std::string a = make(dir, "a.mp4", kPicture + "-c:v libx264 -g 6 -pix_fmt yuv420p");
    const std::string b = make(dir, "b.mov", kPicture + "-f lavfi -i sine=r=48000:d=0.6 -c:v prores_ks -c:a pcm_s16le");
    const std::pair<std::string, std::vector<const char*>> modes[] = {
        {"sequential " + shellQuote(a) + " --inflight 3 --passes 2", {"frames=15 ", "passes=2 ", "fps=", "failed=0"}},
        {"random " + shellQuote(b) + " --count 20", {"count=20 ", "random_mean_ms=", "first_ms=", "failed=0"}},
        {"audio " + shellQuote(b), {"samples=28800 ", "samples_per_s=", "realtime="}},
        {"preopen " + shellQuote(a) + " " + shellQuote(b), {"files=2 ", "in_turn_ms=", "preopen_ms="}}};
    for (const auto& [args, figures] : modes) {
        const Outcome r = playfile(dir, "bench " + args);
        EXPECT_EQ(r.status, 0) << args << (r.err.empty() ? "" : ": " + r.err[0]);
        for (const char* f : figures) EXPECT_NE(r.out.find(f), std::string::npos) << args << ": " << r.out;
    }
    // The library's own lines go to the log only, unless --verbose asks for them.
    Outcome quiet = playfile(dir, "probe " + shellQuote(a));
    EXPECT_TRUE(quiet.err.empty());
    Outcome verbose = playfile(dir, "--verbose probe " + shellQuote(a));
    EXPECT_EQ(verbose.status, 0);
    EXPECT_NE(std::find_if(verbose.err.begin(), verbose.err.end(),
                           [](const std::string& l) { return l.rfind("Open \"", 0) == 0; }),
              verbose.err.end());
    // A file that fails leaves the others' answers in place, and an entry saying why.
    Outcome mixed = playfile(dir, "probe --json " + shellQuote(a) + " " + shellQuote(dir.file("gone.mov")));
    EXPECT_EQ(mixed.status, 1);
    auto j = nlohmann::json::parse(mixed.out);
    ASSERT_EQ(j.size(), 2u);
    EXPECT_EQ(j[0]["video"]["frames"], 15);
    EXPECT_EQ(j[1]["error"], "no such file");
}
