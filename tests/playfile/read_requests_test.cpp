// Read requests on their own: completion of video requests (wrapping raw frames, decoding
// compressed ones, failure), the order of callbacks and status, audio request arithmetic,
// and detaching issuers.
#include "FrameFileReader.h"

#include "host/media/CodecPool.h"

#include <gtest/gtest.h>

using namespace test_backend;

namespace {

// Has the reader fill a buffer for the request as the video queue's thread would, without
// the queue: the frame-buffer read, then (with a status) completion.
Zn::Ptr<FrameBufferRep> readInto(OpenFile& f, Zn::Ptr<VideoReadRequest> r, RequestStatus completion = RequestStatus::Queued) {
    Zn::Ptr<FrameBufferRep> buffer;
    EXPECT_EQ(f.reader->readVideo(buffer, r), FileReadInstance::kReadDone);
    r->setResultBuffer(buffer);
    if (completion != RequestStatus::Queued) r->requestHasCompleted(completion);
    return buffer;
}

// With the decoder of the compressed test frames registered.
struct ReadRequests : ::testing::Test {
    void SetUp() override { Zn::DecoderInfo::instance().registerFactory(factory); }
    void TearDown() override {
        Zn::DecoderInfo::instance().unregisterFactory(factory);
        CodecPool::flushAllUnreferenced();
    }
    Zn::Ptr<Zn::iDecoderFactory> factory{new ByteDecoderFactory};
    testing_support::TempDir dir;
    OpenFile f{dir, "test.frames"};
};

} // namespace

TEST_F(ReadRequests, RawFrameBecomesASurfaceOverTheReadDataWithoutACopy) {
    RecordingIssuer issuer;
    auto r = f.request(5, &issuer);
    issuer.watch(r.get());
    Zn::Ptr<FrameBufferRep> buffer = readInto(f, r);
    buffer->getMetadata().orientation = Zn::Image::kOrientationRotate180;
    r->requestHasCompleted(RequestStatus::Complete);

    ASSERT_EQ(issuer.calls(), 1);
    EXPECT_EQ(issuer.status(), RequestStatus::Complete);
    EXPECT_EQ(issuer.statusAtCall(), RequestStatus::Queued); // issuers are called before the status changes
    EXPECT_EQ(r->getStatus(), RequestStatus::Complete);
    Zn::Image::Surface s = buffer->getSurface(0);
    EXPECT_EQ(s.wait(0), Zn::Image::Surface::kWaitComplete);
    EXPECT_EQ(s.plane(0), buffer->getCompressedData(0));
    EXPECT_EQ(s.plane(0)[3 * 16 + 2], pixelOf(5, 2, 3));
    EXPECT_EQ(s.getOrientation(), Zn::Image::kOrientationRotate180);
    EXPECT_EQ(buffer->getDecompressionState(), FrameBufferRep::kDecompressed);

    // Completing again calls nobody again and decodes nothing again.
    r->requestHasCompleted(RequestStatus::Complete);
    EXPECT_EQ(issuer.calls(), 1);
    EXPECT_TRUE(buffer->getSurface(0).sameAs(s));
}

TEST_F(ReadRequests, CompressedFrameIsDecodedOnlyWhenWantedAndOnlyByTheThreadThatClaimsIt) {
    f.reader->mode = FrameFileReader::kCompressed;

    // Wanted decoded: decoded through the registry.
    RecordingIssuer a;
    Zn::Ptr<FrameBufferRep> decoded = readInto(f, f.request(9, &a, 8), RequestStatus::Complete);
    EXPECT_EQ(a.status(), RequestStatus::Complete);
    EXPECT_EQ(decoded->getDecompressionState(), FrameBufferRep::kDecompressed);
    EXPECT_EQ(decoded->getFormat().getWidth(), 8u); // the request's format was copied on
    EXPECT_EQ(decoded->getSurface(0).plane(0)[0], pixelOf(9, 0, 0));

    // Wanted compressed: left claimable for a later decode.
    auto kept = f.request(9, nullptr, 8, kResultCompressed);
    Zn::Ptr<FrameBufferRep> compressed = readInto(f, kept, RequestStatus::Complete);
    EXPECT_EQ(kept->getStatus(), RequestStatus::Complete);
    EXPECT_EQ(compressed->getDecompressionState(), FrameBufferRep::kCompressed);
    EXPECT_FALSE(compressed->getSurface(0).valid());

    // Already claimed by another thread: not decoded here.
    auto claimed = f.request(10, nullptr);
    Zn::Ptr<FrameBufferRep> busy = readInto(f, claimed);
    busy->decompressionState().store(FrameBufferRep::kDecompressing);
    claimed->requestHasCompleted(RequestStatus::Complete);
    EXPECT_EQ(claimed->getStatus(), RequestStatus::Complete);
    EXPECT_FALSE(busy->getSurface(0).valid());

    // A failed read never decodes.
    RecordingIssuer b;
    Zn::Ptr<FrameBufferRep> untouched = readInto(f, f.request(11, &b), RequestStatus::Failed);
    EXPECT_EQ(b.status(), RequestStatus::Failed);
    EXPECT_EQ(untouched->getDecompressionState(), FrameBufferRep::kCompressed);

    // No decoder for it: the request fails and the buffer is marked.
    Zn::DecoderInfo::instance().unregisterFactory(factory);
    CodecPool::flushAllUnreferenced();
    RecordingIssuer c;
    auto undecodable = f.request(12, &c);
    Zn::Ptr<FrameBufferRep> broken = readInto(f, undecodable, RequestStatus::Complete);
    EXPECT_EQ(c.status(), RequestStatus::Failed);
    EXPECT_EQ(undecodable->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(broken->getDecompressionState(), FrameBufferRep::kDecompressFailed);
}

TEST_F(ReadRequests, DetachingAnIssuerWaitsForARunningCallbackAndDetachedIssuersAreSkipped) {
    Gate gate;
    struct Blocking : RecordingIssuer {
        Gate* gate = nullptr;
        std::atomic<bool> inside{false}, done{false};
        void readRequestComplete(Zn::Ptr<iObject>& r, RequestStatus s) override {
            inside = true;
            gate->pass();
            RecordingIssuer::readRequestComplete(r, s);
            done = true;
        }
    } issuer;
    issuer.gate = &gate;
    gate.close();
    auto r = f.request(2, &issuer);
    std::thread completer([&] { r->requestHasCompleted(RequestStatus::Failed); });
    ASSERT_TRUE(gate.waitForWaiters(1));
    std::atomic<bool> detached{false};
    std::thread detacher([&] {
        issuer.getProxy()->clear();
        detached = true;
        EXPECT_TRUE(issuer.done.load());
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(detached.load());
    gate.open();
    completer.join();
    detacher.join();
    EXPECT_EQ(issuer.calls(), 1);

    auto later = f.request(3, &issuer);
    later->requestHasCompleted(RequestStatus::Failed);
    EXPECT_EQ(issuer.calls(), 1); // the proxy no longer reaches it
}

TEST_F(ReadRequests, AudioByteArithmeticIsSixtyFourBitAndChannelIndexUsesTheOwnStreamsCount) {
    OpenFile a(dir, "audio.frames", {.frames = 0, .extraStreamChannels = {2, 6}}, OpenType::kAudio);
    // Stream 1 channel 0 is 1 * 6 + 0: the stream's own channel count, not the 2 before it.
    auto r = a.audio(1, 0, 0, 10, nullptr);
    EXPECT_EQ(r->getChannelIndex(), 6u);
    EXPECT_EQ(r->getBytesPerMCS(), 12u);
    EXPECT_EQ(a.audio(0, 1, 0, 10, nullptr)->getChannelIndex(), 1u);

    a.reader->getMetadata()->getAudioMetadata()[0] = Aud::Metadata(48000, 2, 3);
    EXPECT_EQ(a.audio(0, 1, uint64_t(1) << 32, 10, nullptr)->getStartByte(), 25769803776ull);
    EXPECT_EQ(a.audio(7, 0, 0, 1, nullptr)->getStartByte(), 0u); // no such stream
}
