// Creating, writing, deleting and renaming play files in a real project with the real
// back-ends: what is written reads back through the cache with the same pixels and
// samples (which FFmpeg reads too), the header is kept by the project and beside the
// file, and the sample writer's checks and back-pressure rule hold.
#include "ReaderTestSupport.h"

#include "host/media/CapturePacket.h"
#include "host/os/Config.h"
#include "host/project/MaterialInfo.h"
#include "playfile/header/PlayPriv.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/open/PlayUtil.h"
#include "support/Command.h"
#include "support/LogCapture.h"
#include "support/PatternFrames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

using namespace testing_support;
using project_test::U;
using project_test::W;
namespace fs = std::filesystem;

namespace {

std::atomic<int> g_complete{0}, g_failed{0};
void countDone(RequestStatus s) { ++(s == RequestStatus::Complete ? g_complete : g_failed); }

std::string textOf(SAV_HEADER h) {
    std::string t(header_text_size(&h), '\0');
    t.resize(size_t(header_to_string(&h, t.data()) - t.data()));
    return t;
}

// The back-ends are registered as the host registers them, writers included.
class WritingTest : public reader_test::CacheReads {
protected:
    void SetUp() override {
        CacheReads::SetUp();
        g_complete = g_failed = 0;
    }

    static Zn::FileWriterParams smallVideo(const char* codec = "") {
        // The quarter-size variant of 1080 HD: 480 x 270 pictures.
        Zn::FileWriterParams p =
            Zn::FileWriterParams::forVideo(ShotVideoMetadata({102}, Zn::kFrameRate25), Zn::Image::kFormatYUV422P10LE);
        p.codec = codec;
        return p;
    }

    // Writes n pattern frames through the sample writer; answers their MD5s.
    static std::vector<std::string> writeVideo(Zn::Ptr<Zn::FileWriteInstance>& w, int n) {
        std::vector<std::string> all;
        const auto& core = w->getParams().core;
        for (int i = 0; i < n; ++i) {
            Zn::Image::Surface s = patternFrame(core.getDataFormat(), core.getWidth(), core.getHeight(), i);
            all.push_back(reader_test::surfaceMd5(s));
            Zn::Ptr<CapturePacket> packet = Zn::makePtr<CapturePacket>(s, i);
            EXPECT_EQ(PlayUtil::ZnVideoSample_write(w, i, packet, countDone), 1);
        }
        return all;
    }

    static Zn::Ptr<iMemHolder> block(uint32_t bytes, int seed) {
        Zn::Ptr<iMemHolder> b(new ByteBufferImpl(bytes));
        for (uint32_t i = 0; i < bytes; ++i) b->getBuffer()[i] = uint8_t(i * 13 + seed);
        b->setUsed(bytes);
        return b;
    }

    std::string materialPath(const Cookie& m, const char* ext) const {
        return (driveRoot / (m.type() == 'S' ? "sound" : "video") / (m.asString().str() + ext)).string();
    }

    const Cookie clip{'E', 0x1e240, 1000};
    const Cookie other{'E', 0x1e240, 2000};
};

// A writer that stands for one whose encoder has stalled or refuses frames.
class StuckWriter : public Zn::FileWriteInstance {
public:
    StuckWriter(bool surfaces) : FileWriteInstance(WString(L"stuck"), Zn::FileWriterParams()), surfaces_(surfaces) {}
    unsigned pendingFrames() const override { return pending.load(); }
    bool takesSurfaces() const override { return surfaces_; }
    int writeSurface(const Zn::Image::Surface&, int) override { return ++surfaceWrites, result.load(); }
    int writeFrame(const Zn::Image::Surface&, int) override { return ++frameWrites, result.load(); }
    void abandonFrame() override { ++abandoned; }

    std::atomic<unsigned> pending{0};
    std::atomic<int> result{1}, frameWrites{0}, surfaceWrites{0}, abandoned{0};

private:
    bool surfaces_;
};

} // namespace

TEST_F(WritingTest, VideoFileWrittenFrameByFrameReadsBackWithItsHeader) {
    const Cookie v = convertCookie(clip, 'V', 0);
    Zn::FileWriterParams params = smallVideo("ffv1");
    Zn::Ptr<Zn::FileWriteInstance> w = PlayFileCache::Shared().create(v, params);
    ASSERT_TRUE(w);
    const std::string path = materialPath(v, ".mkv");
    EXPECT_EQ(U(SystemCache::findFileForCookie(v)), path);

    std::vector<std::string> written = writeVideo(w, 6);
    EXPECT_EQ(g_complete, 6);
    // The id must be the next frame's: neither a gap nor a repeat is written.
    LogCapture log;
    Zn::Ptr<CapturePacket> packet = Zn::makePtr<CapturePacket>(patternFrame(Zn::Image::kFormatYUV422P10LE, 480, 270, 9));
    for (int id : {7, 5}) {
        EXPECT_EQ(PlayUtil::ZnVideoSample_write(w, id, packet, countDone), 0);
        EXPECT_EQ(log.count("Bad sample ID " + std::to_string(id) + "\n"), 1u);
    }
    EXPECT_EQ(g_complete + g_failed, 6);
    EXPECT_EQ(w->getMetadata().framesWritten, 6u);
    ASSERT_EQ(w->close(), 1);

    for (int i = 0; i < 6; ++i) EXPECT_EQ(frameMd5(v, i), written[size_t(i)]) << i;
    EXPECT_EQ(frameMd5(v, 6), "not available");

    // The header the project keeps and the one beside the file are the one made for it
    // (whose text the header tests check).
    SAV_HEADER expected;
    PlayPriv::make_vision_header(Zn::makePtr<PlayFile>(W(path)), params.video, &expected);
    EXPECT_EQ(MaterialInfo::read_header(v).str(), textOf(expected));
    EXPECT_EQ(readFile(fs::path(path).replace_extension(".hdr")), textOf(expected));
}

TEST_F(WritingTest, SoundFileWrittenBlockByBlockCountsWholeSampleFrames) {
    const Cookie s = convertCookie(clip, 'S', 1);
    Zn::FileWriterParams params = Zn::FileWriterParams::forAudio(Aud::Metadata(48000, 1, 3));
    Zn::Ptr<Zn::FileWriteInstance> w = PlayFileCache::Shared().create(s, params);
    ASSERT_TRUE(w);
    EXPECT_EQ(w->getMetadata().audioStream, params.audio);
    std::string all;
    for (int i = 0; i < 3; ++i) {
        Zn::Ptr<iMemHolder> b = block(300 * 3, i);
        all.append(reinterpret_cast<char*>(b->getBuffer()), b->getUsed());
        EXPECT_EQ(PlayUtil::ZnAudioSamples_write(w, b, countDone), 1);
    }
    Zn::Ptr<iMemHolder> partial = block(4, 0); // not whole sample frames: refused, not counted
    EXPECT_EQ(PlayUtil::ZnAudioSamples_write(w, partial, countDone), 0);
    EXPECT_EQ(w->getMetadata().audioFramesWritten, 900u);
    EXPECT_EQ(g_complete, 3);
    EXPECT_EQ(g_failed, 1);
    ASSERT_EQ(w->close(), 1);
    Zn::Ptr<Zn::FileWriteInstance> none;
    EXPECT_EQ(PlayUtil::ZnAudioSamples_write(none, partial, countDone), 0);

    const std::string path = materialPath(s, ".wav");
    EXPECT_TRUE(samples(s, 0, 900, 3) == all);
    EXPECT_TRUE(runCommand("ffmpeg -nostdin -v error -i " + shellQuote(path) + " -f s24le -").out == all);
    SAV_HEADER expected; // mono, 48 kHz, 3 bytes a sample
    PlayPriv::make_audio_header(Zn::makePtr<PlayFile>(W(path)), &expected, 48000.0, 3);
    EXPECT_EQ(MaterialInfo::read_header(s).str(), textOf(expected));
}

TEST_F(WritingTest, CreateFailuresAreLoggedAndLeaveNoFile) {
    LogCapture log;
    Zn::FileWriterParams video = smallVideo();
    const Cookie edit = clip;
    EXPECT_FALSE(PlayFileCache::Shared().create(edit, video));
    EXPECT_EQ(log.count("PlayFile[" + edit.asString().str() + "]::create: *** Bad type ***\n"), 1u);
    EXPECT_FALSE(fs::exists(materialPath(edit, ".y4m")));

    Zn::FileWriterParams nobody = smallVideo("h264");
    const Cookie v = convertCookie(clip, 'V', 0);
    EXPECT_FALSE(PlayFileCache::Shared().create(v, nobody));
    EXPECT_EQ(log.count("PlayFile[" + v.asString().str() + "]::create: *** Unable to create material file (" +
                        materialPath(v, "") + ") ***\n"),
              1u);
    EXPECT_FALSE(SystemCache::fileExists(v));
}

TEST_F(WritingTest, SampleWriterBackPressureAndRefusedFrames) {
    // A writer that keeps 33 frames pending: 49 waits of 100 ms, then done(3). Runs beside
    // the other cases, on a thread of its own as a capture thread would.
    std::atomic<int> stuckResult{-1};
    double stuckSeconds = 0;
    Zn::Ptr<StuckWriter> stuck = Zn::makePtr<StuckWriter>(false);
    stuck->pending = 33;
    LogCapture log;
    std::thread capture([&] {
        Zn::Ptr<Zn::FileWriteInstance> w = stuck;
        Zn::Ptr<CapturePacket> p = Zn::makePtr<CapturePacket>(Zn::Image::Surface());
        auto t0 = std::chrono::steady_clock::now();
        stuckResult = PlayUtil::ZnVideoSample_write(w, 0, p, countDone);
        stuckSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    });

    // 33 pending that drain after a few waits: the frame goes through.
    Zn::Ptr<StuckWriter> slow = Zn::makePtr<StuckWriter>(false);
    slow->pending = 33;
    std::thread drain([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        slow->pending = 32;
    });
    Zn::Ptr<Zn::FileWriteInstance> w = slow;
    Zn::Ptr<CapturePacket> p = Zn::makePtr<CapturePacket>(Zn::Image::Surface());
    EXPECT_EQ(PlayUtil::ZnVideoSample_write(w, 0, p, nullptr), 1);
    drain.join();
    EXPECT_EQ(slow->frameWrites, 1);

    // A refused frame is abandoned (on the frame path only) and not counted.
    for (bool surfaces : {false, true}) {
        Zn::Ptr<StuckWriter> refusing = Zn::makePtr<StuckWriter>(surfaces);
        refusing->result = 5;
        Zn::Ptr<Zn::FileWriteInstance> r = refusing;
        EXPECT_EQ(PlayUtil::ZnVideoSample_write(r, 0, p, nullptr), 5);
        EXPECT_EQ(refusing->abandoned, surfaces ? 0 : 1);
        EXPECT_EQ(refusing->surfaceWrites, surfaces ? 1 : 0);
        EXPECT_EQ(r->getMetadata().framesWritten, 0u);
    }

    capture.join();
    EXPECT_EQ(stuckResult, 0);
    EXPECT_EQ(stuck->frameWrites, 0);
    EXPECT_EQ(g_failed, 1);
    EXPECT_NEAR(stuckSeconds, 4.9, 0.6);
    EXPECT_EQ(log.count("Failed to write sample 0\n"), 3u); // the stalled one and the two refused
}

TEST_F(WritingTest, DeletingAClipsMaterialKeepsSoundWhenNoChannelsAreCounted) {
    Zn::FileWriterParams video = smallVideo();
    Zn::FileWriterParams audio = Zn::FileWriterParams::forAudio(Aud::Metadata(48000, 1, 2));
    std::vector<Cookie> made = {convertCookie(clip, 'V', 0), convertCookie(clip, 'V', 3), convertCookie(clip, 'S', 1),
                                convertCookie(clip, 'S', 2)};
    for (const Cookie& m : made) {
        Zn::Ptr<Zn::FileWriteInstance> w = PlayFileCache::Shared().create(m, m.type() == 'S' ? audio : video);
        ASSERT_TRUE(w) << m.asString().c_str();
        if (m.type() == 'V') writeVideo(w, 1);
        w->close();
    }
    ASSERT_TRUE(file(made[1])); // open in the cache: deleting closes it first
    setConfigValue("max_audio_chans_in_shot", 0);
    EXPECT_EQ(PlayUtil::delete_material_files(clip, kMediaAll), 1);
    clearConfigValue("max_audio_chans_in_shot");
    EXPECT_FALSE(fs::exists(materialPath(made[0], ".y4m")));
    EXPECT_FALSE(fs::exists(materialPath(made[1], ".y4m")));
    EXPECT_FALSE(fs::exists(materialPath(made[0], ".hdr")));
    EXPECT_FALSE(SystemCache::fileExists(made[1]));
    EXPECT_FALSE(PlayFileCache::Shared().isOpen(made[1], DecodeFormat(1)));
    EXPECT_TRUE(fs::exists(materialPath(made[2], ".wav")));
    EXPECT_TRUE(SystemCache::fileExists(made[3]));

    // Read afresh: now channels 1 and 2 go too, and there is nothing left to fail.
    EXPECT_EQ(PlayUtil::delete_material_files(clip, kMediaAll), 1);
    EXPECT_FALSE(fs::exists(materialPath(made[2], ".wav")));
    EXPECT_FALSE(fs::exists(materialPath(made[3], ".hdr")));
    EXPECT_TRUE(SystemCache::getClipMediaFiles(clip).empty());

    LogCapture log;
    EXPECT_EQ(PlayUtil::deletePlayFile(made[0], kMediaAll), 0);
    EXPECT_EQ(log.count("PlayFile[" + made[0].asString().str() + "]::delete: *** Material not available ***\n"), 1u);
}

TEST_F(WritingTest, RenamingMovesFilesRecordsAndHeadersToTheOtherClip) {
    Zn::FileWriterParams video = smallVideo();
    const Cookie v = convertCookie(clip, 'V', 0), s = convertCookie(clip, 'S', 1);
    Zn::Ptr<Zn::FileWriteInstance> wv = PlayFileCache::Shared().create(v, video);
    ASSERT_TRUE(wv);
    std::vector<std::string> frames = writeVideo(wv, 2);
    wv->close();
    Zn::FileWriterParams audio = Zn::FileWriterParams::forAudio(Aud::Metadata(44100, 1, 2));
    ASSERT_TRUE(PlayFileCache::Shared().create(s, audio));
    MaterialInfo::set_start_offset(v, 2); // fields: the material starts at the file's frame 1
    String header = MaterialInfo::read_header(v);
    // A file found elsewhere keeps its own name; only its record moves.
    const Cookie s2 = convertCookie(clip, 'S', 2);
    std::string outside = source("interview take 2.wav");
    ASSERT_EQ(SystemCache::addFile(s2, W(outside), 0), 1);

    EXPECT_EQ(frameMd5(v, 0), frames[1]); // the file is open in the cache now
    EXPECT_EQ(PlayFileCache::Shared().renameMediaFiles(clip, other), 1);
    EXPECT_FALSE(PlayFileCache::Shared().isOpen(v, DecodeFormat(1)));
    const Cookie v2 = convertCookie(other, 'V', 0);
    EXPECT_FALSE(fs::exists(materialPath(v, ".y4m")));
    EXPECT_FALSE(fs::exists(materialPath(v, ".hdr")));
    EXPECT_EQ(U(SystemCache::findFileForCookie(v2)), materialPath(v2, ".y4m"));
    EXPECT_EQ(U(SystemCache::findFileForCookie(convertCookie(other, 'S', 1))),
              materialPath(convertCookie(other, 'S', 1), ".wav"));
    EXPECT_EQ(U(SystemCache::findFileForCookie(convertCookie(other, 'S', 2))), outside);
    EXPECT_TRUE(fs::exists(outside));
    EXPECT_TRUE(SystemCache::getClipMediaFiles(clip).empty());
    EXPECT_EQ(MaterialInfo::read_header(v2).str(), header.str());
    EXPECT_EQ(readFile(materialPath(v2, ".hdr")), header.str());
    EXPECT_EQ(MaterialInfo::get_start_offset(v2), 2);
    EXPECT_EQ(frameMd5(v2, 0), frames[1]);
}
