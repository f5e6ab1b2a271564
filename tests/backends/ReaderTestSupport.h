// For the back-end reader tests: the back-ends registered as the host registers them, a
// project whose clips keep their material in files the ffmpeg program made, frames and
// samples read as the host reads them (PlayFileCache::videoReadRequest and
// audioReadRequest, through the files' queues) by an issuer that waits for its callback,
// and what the pictures hash to.
#pragma once

#include "backends/ffmpeg/FfmpegBackend.h"
#include "backends/ffmpeg/FfmpegPicture.h"
#include "backends/wav/WavReader.h"
#include "backends/y4m/Y4mReader.h"
#include "host/ProjectFixture.h"
#include "host/core/Strings.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/AudioReadRequest.h"
#include "support/PatternFrames.h"
#include "support/RecordingIssuer.h"

#include <chrono>
#include <string>

namespace reader_test {

using testing_support::RecordingIssuer;
constexpr std::chrono::seconds kReadLimit{30};

// The surface's planes packed without padding: the bytes `ffmpeg -f framemd5` hashes for
// a picture in the same pixel format.
inline std::string surfaceMd5(const Zn::Image::Surface& s) {
    const std::string bytes = testing_support::packedBytes(s);
    return ffmpeg_engine::md5Hex(bytes.data(), bytes.size());
}

// A project whose clips keep their material in media files, read through the cache.
class CacheReads : public project_test::ProjectTest {
protected:
    void SetUp() override {
        ProjectTest::SetUp();
        // The three back-ends, in the host's order.
        y4m::registerBackend();
        wav::registerBackend();
        ffmpeg_backend::registerBackend();
    }
    void TearDown() override {
        PlayFileCache::Shared().closeAll();
        ProjectTest::TearDown();
    }

    // A clip with one video channel and audioChannels sound channels in the file.
    Cookie clip(const std::string& path, int audioChannels = 0) {
        const Cookie c = importClip(path.substr(path.rfind('/') + 1), path, audioChannels);
        EXPECT_TRUE(c.valid()) << path;
        return c;
    }

    // The file the cache has open (or opens now) for the material.
    static Zn::Ptr<FileReadInstance> file(const Cookie& material, const DecodeFormat& format = DecodeFormat(1)) {
        return PlayFileCache::Shared().open(material, format, 0);
    }

    // One frame through videoReadRequest, waited for. Its MD5, or "not available",
    // "failed", "timed out".
    static std::string frameMd5(const Cookie& material, int frame, const DecodeFormat& format = DecodeFormat(1),
                                Zn::Image::Surface* picture = nullptr) {
        RecordingIssuer waiter;
        Zn::Ptr<VideoReadRequest> request;
        if (PlayFileCache::Shared().videoReadRequest(request, material, frame, false, kResultDecoded, format,
                                                     waiter.getProxy()) != PlayFileCache::kVideoQueued)
            return "not available";
        // Joined to an equal request that has already failed: no callback comes.
        if (request->getStatus() == RequestStatus::Failed) return "failed";
        if (!waiter.waitForCalls(1, kReadLimit)) return "timed out";
        auto buffer = waiter.buffer();
        if (waiter.status() != RequestStatus::Complete || !buffer) return "failed";
        Zn::Image::Surface s = buffer->getSurface(0);
        const auto state = s.wait(30000);
        if (state == Zn::Image::Surface::kWaitTimedOut) return "timed out";
        if (state != Zn::Image::Surface::kWaitComplete || !s.valid()) return "failed";
        if (picture) *picture = s;
        return surfaceMd5(s);
    }

    // Samples of one sound channel through audioReadRequest, queued on the file and waited
    // for: the bytes of the count samples from start that came (fewer at the end). status
    // says how the read ended (Queued when it could not be made, or did not end).
    static std::string samples(const Cookie& sound, uint64_t start, uint32_t count, uint32_t bytesPerSample,
                               RequestStatus* status = nullptr) {
        RecordingIssuer waiter;
        Zn::Ptr<AudioReadRequest> request;
        if (status) *status = RequestStatus::Queued;
        if (PlayFileCache::Shared().audioReadRequest(request, sound, start, count, kProxyLevelHighRes,
                                                     waiter.getProxy(), true) != PlayFileCache::kAudioCreated)
            return {};
        request->getFile()->queueReadRequest(request, false);
        const bool done = waiter.waitForCalls(1, kReadLimit);
        if (status) *status = done ? request->getStatus() : RequestStatus::Queued;
        if (!done || request->getStatus() != RequestStatus::Complete || !request->getBuffer()) return {};
        // The result may run on past the span (to the end of what the reader decoded).
        const size_t asked = size_t(request->tag) * bytesPerSample;
        return std::string(reinterpret_cast<const char*>(request->getBuffer()),
                           std::min<size_t>(asked, request->getUsed()));
    }
};

} // namespace reader_test
