// Host media types: pixel layouts, surfaces waited on across threads, frame buffers, the
// decoder registry and the codec pool.
#include "host/media/CodecPool.h"
#include "host/media/DecoderInfo.h"
#include "host/media/FrameBufferRep.h"
#include "host/media/Surface.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>

using namespace Zn::Image;

TEST(PixelLayout, OddSizesRoundChromaUpAndPaddedRowsScalePerPlane) {
    // 5x3 4:2:0: chroma planes are 3x2.
    EXPECT_EQ(frameBytes(kFormatYUV420P, 5, 3), 15u + 6u + 6u);
    EXPECT_EQ(frameBytes(kFormatNV12, 5, 3), 15u + 12u);
    EXPECT_EQ(frameBytes(kFormatCompressed, 4, 2), 0u);

    uint8_t block[4096];
    uint8_t* planes[kMaxPlanes];
    uint32_t strides[kMaxPlanes];
    ASSERT_EQ(splitPlanes(kFormatYUV420P, 5, 3, block, 5, planes, strides), 3u);
    EXPECT_EQ(planes[1] - block, 15);
    EXPECT_EQ(planes[2] - block, 21);
    EXPECT_EQ(strides[1], 3u);
    // Rows of 64 bytes: chroma rows are half as long, NV12's interleaved ones as long.
    splitPlanes(kFormatYUV420P, 5, 3, block, 64, planes, strides);
    EXPECT_EQ(strides[1], 32u);
    EXPECT_EQ(planes[1] - block, 3 * 64);
    EXPECT_EQ(planes[2] - block, 3 * 64 + 2 * 32);
    splitPlanes(kFormatNV12, 5, 3, block, 64, planes, strides);
    EXPECT_EQ(strides[1], 64u);
    EXPECT_EQ(planes[2], nullptr);
}

TEST(Surface, WaitersSeeSetOrFailFromAnotherThreadAndCopiesShareThePicture) {
    EXPECT_EQ(Surface().wait(Surface::kInfinite), Surface::kWaitFailed); // nothing to wait for

    Surface s = Surface::pending();
    Surface copy = s;
    EXPECT_FALSE(s.valid());
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(s.wait(20), Surface::kWaitTimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));

    std::thread writer([copy]() mutable {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ASSERT_TRUE(copy.allocatePixels(Core::Data(6, 4, kFormatYUV420P)));
        copy.plane(0)[0] = 42;
        copy.set();
    });
    EXPECT_EQ(s.wait(), Surface::kWaitComplete);
    writer.join();
    EXPECT_EQ(s.plane(0)[0], 42);
    EXPECT_EQ(s.stride(0) % 64, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(s.plane(0)) % 64, 0u);
    s.fail(); // a finished surface stays finished
    EXPECT_EQ(s.wait(0), Surface::kWaitComplete);

    Surface failed = Surface::pending();
    std::thread failer([failed]() mutable { failed.fail(); });
    EXPECT_EQ(failed.wait(), Surface::kWaitFailed);
    failer.join();
}

TEST(FrameBufferRep, CompletingTheBufferReleasesEveryPendingSurface) {
    auto run = Zn::makePtr<FrameBufferRep>(DecodeFormat(1), 20, 10, true);
    EXPECT_TRUE(run->containsFrame(20) && run->containsFrame(29));
    EXPECT_FALSE(run->containsFrame(30) || run->containsFrame(19));
    EXPECT_TRUE(run->getSurface(10).empty());
    Surface last = run->getSurface(9);
    EXPECT_EQ(last.wait(0), Surface::kWaitTimedOut);
    run->setDecompressComplete(FrameBufferRep::kDecompressed);
    EXPECT_EQ(last.wait(0), Surface::kWaitComplete);

    run->setDecompressComplete(FrameBufferRep::kDecompressFailed); // a finished picture stays finished
    EXPECT_EQ(last.wait(0), Surface::kWaitComplete);
}

namespace {

// Turns a frame whose data is one byte into a 2x2 grey picture of that value.
class ByteDecoder : public Zn::iDecoder {
public:
    explicit ByteDecoder(std::atomic<int>& made) { ++made; }
    String name() const override { return "byte"; }

protected:
    eDecodeResult decode(Zn::Ptr<FrameBufferRep>& buffer) override {
        if (buffer->getCompressedSize(0) != 1) throw std::runtime_error("bad frame");
        Surface s = Surface::allocate(Core::Data(2, 2, kFormatGray8));
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 2; ++x) s.plane(0)[y * s.stride(0) + x] = buffer->getCompressedData(0)[0];
        buffer->setSurface(0, s);
        return kDecoded;
    }
};

class ByteFactory : public Zn::iDecoderFactory {
public:
    String name() const override { return "byte"; }
    bool canDecode(const VideoDecompressionInfo& info) const override { return info.codec == "byte"; }
    Zn::Ptr<Zn::iDecoder> createDecoder(const VideoDecompressionInfo&) override {
        if (failNext.exchange(false)) throw std::runtime_error("no codec context");
        return Zn::Ptr<Zn::iDecoder>(new ByteDecoder(made));
    }
    std::atomic<int> made{0};
    std::atomic<bool> failNext{false};
};

} // namespace

TEST(DecoderInfo, IdleDecodersAreReusedBusyOnesAreNotAndFlushReleasesOnlyIdleOnes) {
    CodecPool::flushAllUnreferenced();
    Zn::Ptr<ByteFactory> factory(new ByteFactory);
    Zn::DecoderInfo::instance().registerFactory(factory);
    VideoDecompressionInfo info;
    info.codec = "byte";
    info.core.setCoreData(2, 2, kFormatGray8);
    VideoDecompressionInfo other = info;
    other.codec = "none";
    EXPECT_FALSE(Zn::DecoderInfo::getDecoderFor(other));

    Zn::Ptr<Zn::iDecoder> first = Zn::DecoderInfo::getDecoderFor(info);
    ASSERT_TRUE(first);
    Zn::Ptr<Zn::iDecoder> second = Zn::DecoderInfo::getDecoderFor(info); // first is busy
    EXPECT_NE(first.get(), second.get());
    EXPECT_EQ(factory->made.load(), 2);
    Zn::iDecoder* firstRaw = first.get();
    first.reset();
    EXPECT_EQ(Zn::DecoderInfo::getDecoderFor(info).get(), firstRaw); // idle again: reused
    EXPECT_EQ(factory->made.load(), 2);

    // Decoding: success completes the buffer; a throwing decoder is logged and answers 0.
    auto buffer = Zn::makePtr<FrameBufferRep>(DecodeFormat(1), nullptr, 0);
    uint8_t value = 77;
    buffer->setCompressedData(0, Zn::Ptr<iMemHolder>(new ByteBufferImpl(&value, 1)));
    EXPECT_EQ(second->decodeFrame(buffer), Zn::iDecoder::kDecoded);
    EXPECT_EQ(buffer->getDecompressionState(), FrameBufferRep::kDecompressed);
    EXPECT_EQ(buffer->getSurface(0).plane(0)[1], 77);
    testing_support::LogCapture log;
    buffer->setCompressedData(0, Zn::Ptr<iMemHolder>(new ByteBufferImpl("xy", 2)));
    EXPECT_EQ(second->decodeFrame(buffer), Zn::iDecoder::kDecodeFailed);
    EXPECT_EQ(log.count("Decoder byte failed: bad frame\n"), 1u);

    // A factory that throws is skipped (here it is the only one: no decoder).
    factory->failNext = true;
    Zn::Ptr<Zn::iDecoder> third = Zn::DecoderInfo::getDecoderFor(info); // first is idle: no factory call
    EXPECT_EQ(third.get(), firstRaw);
    Zn::Ptr<Zn::iDecoder> fourth = Zn::DecoderInfo::getDecoderFor(info);
    EXPECT_FALSE(fourth);
    EXPECT_EQ(log.count("Decoder byte failed: no codec context\n"), 1u);

    EXPECT_EQ(CodecPool::instance().size(), 2u);
    third.reset();
    EXPECT_EQ(CodecPool::flushAllUnreferenced(), 1u); // second is still held
    EXPECT_EQ(CodecPool::instance().size(), 1u);
    second.reset();
    EXPECT_EQ(CodecPool::flushAllUnreferenced(), 1u);
    EXPECT_TRUE(Zn::DecoderInfo::instance().unregisterFactory(factory));
}
