// The streaming decode reader with a back-end whose "decoding" paints each frame's number
// into a grey picture, and which can hold its decode thread at a gate: which runs are
// decoded and when, what is served from the two slots, and the synchronous path.
#include "FrameFileReader.h"
#include "playfile/open/StreamingDecodeReader.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

using namespace test_backend;
using Zn::Image::Surface;

namespace {

struct PaintingReader : StreamingDecodeReader, Locking {
    PaintingReader() : StreamingDecodeReader(WString(L"/painted"), DecodeFormat(1), OpenType::kVideo) {}
    ~PaintingReader() override { endStreamDecode(); }

    String getReaderName() const override { return "painted"; }
    using StreamingDecodeReader::isStreaming;
    using StreamingDecodeReader::setFrameRangeHandler;
    using StreamingDecodeReader::setStreamMetadata;

    // Runs decoded: (first frame, frame count, decoded on the "Decode" thread).
    struct Pass {
        uint32_t first, count;
        bool onDecodeThread;
        bool operator==(const Pass&) const = default;
    };
    std::vector<Pass> passes() { return locked([&] { return passes_; }); }

    Gate gate;
    // Set before the first read: the first and last frames of every run do not come out.
    bool brokenEnds = false;

    eReadResult decodeFrames(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame) override {
        locked([&] { passes_.push_back({frame, buffer->getNumFrames(), BasicThread::current() == this}); });
        for (uint32_t i = 0; i < buffer->getNumFrames(); ++i) {
            gate.pass();
            Surface s = buffer->getSurface(i);
            if (brokenEnds && buffer->isStreaming() && (i == 0 || i + 1 == buffer->getNumFrames())) {
                s.fail();
                continue;
            }
            s.allocatePixels(Zn::Image::Core::Data(4, 2, Zn::Image::kFormatGray8));
            s.plane(0)[0] = uint8_t(buffer->getStartValidFrameIndex() + i);
            s.set();
            if (!buffer->isStreaming()) buffer->setSurface(i, s);
        }
        return kReadDone;
    }

private:
    std::vector<Pass> passes_;
};

using Pass = PaintingReader::Pass;

struct FixedRange : iVariableFrameRateHandler {
    FixedRange(int64_t first, int64_t end) : first(first), end(end) {}
    void getFrameRange(uint32_t, int64_t& f, int64_t& e) override { f = first, e = end; }
    int64_t first, end;
};

struct Fixture {
    Zn::Ptr<PaintingReader> reader = Zn::makePtr<PaintingReader>();
    Zn::Ptr<FileReadInstance> file{reader};

    // What the video queue's thread does: the frame-buffer read of one request.
    Surface read(uint32_t frame, FileReadInstance::eReadResult* result = nullptr) {
        Zn::Ptr<IndexInfoRep> none;
        auto request = Zn::makePtr<VideoReadRequest>(file, none, frame, kResultDecoded, DecodeFormat(1), nullptr);
        Zn::Ptr<FrameBufferRep> out;
        const FileReadInstance::eReadResult rc = reader->readVideo(out, request);
        if (result) *result = rc;
        EXPECT_TRUE(out);
        EXPECT_EQ(out->getStartValidFrameIndex(), frame);
        return out ? out->getSurface(0) : Surface();
    }
};

uint8_t paintedFrame(const Surface& s) {
    EXPECT_EQ(s.wait(5000), Surface::kWaitComplete);
    return s.plane(0) ? s.plane(0)[0] : 0xFF;
}

} // namespace

TEST(StreamingDecodeReader, WithoutGroupsEveryFrameIsReadSynchronouslyAndNoThreadStarts) {
    for (int groupSize : {-1, 0, 1}) {
        Fixture f;
        if (groupSize >= 0) f.reader->setStreamMetadata(Zn::makePtr<StreamingDecodeReader::StreamMetadata>(true, uint16_t(groupSize)));
        auto rc = FileReadInstance::kReadPending;
        Surface s = f.read(5, &rc);
        EXPECT_EQ(rc, FileReadInstance::kReadDone);
        EXPECT_EQ(s.state(), Surface::kWaitComplete);
        EXPECT_EQ(paintedFrame(s), 5);
        EXPECT_EQ(f.reader->passes(), (std::vector<Pass>{{5, 1, false}}));
        EXPECT_FALSE(f.reader->isStreaming() || f.reader->isRunning());
    }
}

TEST(StreamingDecodeReader, GroupsAreDecodedOnTheDecodeThreadAndServedFromTheTwoSlots) {
    Fixture f;
    f.reader->setStreamMetadata(Zn::makePtr<StreamingDecodeReader::StreamMetadata>(true, 10));
    f.reader->gate.close();

    // Frame 23 answers at once with a surface still to come; 27 shares its run.
    Surface s23 = f.read(23);
    EXPECT_TRUE(f.reader->isRunning());
    EXPECT_EQ(s23.state(), Surface::kWaitTimedOut);
    Surface s27 = f.read(27);
    ASSERT_TRUE(f.reader->gate.waitForWaiters(1));

    // Frame 35 waits for the run 20..29 to be complete before its own run starts.
    auto s35 = std::async(std::launch::async, [&] { return f.read(35); });
    EXPECT_EQ(s35.wait_for(std::chrono::milliseconds(150)), std::future_status::timeout);
    f.reader->gate.open();
    EXPECT_EQ(paintedFrame(s35.get()), 35);
    EXPECT_EQ(paintedFrame(s23), 23);
    EXPECT_EQ(paintedFrame(s27), 27);

    // 21 is in the run before: served from the current slot, the same picture as before.
    EXPECT_EQ(paintedFrame(f.read(21)), 21);
    EXPECT_EQ(f.reader->passes(), (std::vector<Pass>{{20, 10, true}, {30, 10, true}}));

    // A third run retires 20..29.
    EXPECT_EQ(paintedFrame(f.read(41)), 41);
    EXPECT_EQ(paintedFrame(f.read(21)), 21);
    EXPECT_EQ(f.reader->passes().size(), 4u);
}

TEST(StreamingDecodeReader, RunsOfAFrameRangeHandler) {
    Fixture f;
    f.reader->setStreamMetadata(Zn::makePtr<StreamingDecodeReader::StreamMetadata>(false, 8));
    auto rc = FileReadInstance::kReadPending;
    // Without a handler the read fails with an empty surface.
    Surface none = f.read(3, &rc);
    EXPECT_EQ(rc, FileReadInstance::kReadFailed);
    EXPECT_TRUE(none.empty());

    f.reader->setFrameRangeHandler(Zn::makePtr<FixedRange>(0, 0));
    EXPECT_EQ(paintedFrame(f.read(0)), 0);
    EXPECT_EQ(f.reader->passes(), (std::vector<Pass>{{0, 1, true}}));

    f.reader->setFrameRangeHandler(Zn::makePtr<FixedRange>(-5, 7));
    EXPECT_EQ(paintedFrame(f.read(4)), 4);
    EXPECT_EQ(f.reader->passes().back(), (Pass{0, 7, true}));
}

// A run whose first and last frames did not come out has still been decoded: moving on to
// the next run must not decode it again, which would replace the pictures of the frames
// between while they are being read.
TEST(StreamingDecodeReader, ARunWithFailedEndsIsDecodedOnce) {
    Fixture f;
    f.reader->setStreamMetadata(Zn::makePtr<StreamingDecodeReader::StreamMetadata>(true, 10));
    f.reader->brokenEnds = true;
    std::vector<std::pair<Surface, const uint8_t*>> seen; // with the pixels first seen
    auto unchanged = [&] {
        for (const auto& [s, pixels] : seen) EXPECT_EQ(s.plane(0), pixels);
    };
    std::vector<Pass> expected;
    for (uint32_t run = 2; run < 10; ++run) {
        const Surface s = f.read(run * 10 + 3);
        EXPECT_EQ(paintedFrame(s), run * 10 + 3);
        EXPECT_EQ(f.read(run * 10).wait(5000), Surface::kWaitFailed);
        seen.emplace_back(s, s.plane(0));
        expected.push_back({run * 10, 10, true});
        unchanged();
    }
    // Reading on while a second pass would run (a race for ThreadSanitizer as well).
    for (int i = 0; i < 10; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(5))) unchanged();
    EXPECT_EQ(f.reader->passes(), expected);
}
