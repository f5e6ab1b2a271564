// For the back-end reader tests: the back-ends registered as the host registers them,
// files opened through the reader registry, frames and samples read through the files'
// queues by an issuer that waits for its callback, and what the pictures hash to.
#pragma once

#include "backends/ffmpeg/FfmpegBackend.h"
#include "backends/ffmpeg/FfmpegPicture.h"
#include "backends/wav/WavReader.h"
#include "backends/y4m/Y4mReader.h"
#include "host/core/Strings.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/VideoReadRequest.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace reader_test {

// The three back-ends, in the host's order.
inline void registerBackends() {
    y4m::registerBackend();
    wav::registerBackend();
    ffmpeg_backend::registerBackend();
}

// The first registered reader that accepts and opens the file (what opening for read
// tries first); null when none does.
inline Zn::Ptr<FileReadInstance> openFile(const std::string& path, OpenType type,
                                          const DecodeFormat& format = DecodeFormat::getDefault()) {
    registerBackends();
    const WString name = fromUTF8(path.c_str());
    for (const auto& reader : Zn::FileReaderInfo::getAll()) {
        if (!reader->accepts(name, type)) continue;
        if (Zn::Ptr<FileReadInstance> file = reader->open(format, name, type)) return file;
    }
    return nullptr;
}

// An issuer that waits for its one callback.
class Waiter : public ReadRequestIssuer {
public:
    ~Waiter() override { detachProxy(); }
    void readRequestComplete(Zn::Ptr<iObject>& result, RequestStatus status) override {
        std::lock_guard<std::mutex> l(m_);
        result_ = result;
        status_ = status;
        done_ = true;
        cv_.notify_all();
    }
    bool wait(std::chrono::seconds limit = std::chrono::seconds(30)) {
        std::unique_lock<std::mutex> l(m_);
        return cv_.wait_for(l, limit, [&] { return done_; });
    }
    RequestStatus status() {
        std::lock_guard<std::mutex> l(m_);
        return status_;
    }
    Zn::Ptr<FrameBufferRep> buffer() {
        std::lock_guard<std::mutex> l(m_);
        return Zn::dynamicPtrCast<FrameBufferRep>(result_);
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool done_ = false;
    RequestStatus status_ = Queued;
    Zn::Ptr<iObject> result_;
};

// The surface's planes packed without padding: the bytes `ffmpeg -f framemd5` hashes for
// a picture in the same pixel format.
inline std::string surfaceMd5(const Zn::Image::Surface& s) {
    std::string bytes;
    const Zn::Image::eDataFormat f = s.getDataFormat();
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t row = Zn::Image::minimumStride(f, p, s.getWidth());
        for (uint32_t y = 0; y < Zn::Image::planeHeight(f, p, s.getHeight()); ++y)
            bytes.append(reinterpret_cast<const char*>(s.plane(p) + size_t(y) * s.stride(p)), row);
    }
    return ffmpeg_engine::md5Hex(bytes.data(), bytes.size());
}

// Reads one frame through the file's video queue and waits for its picture. Answers its
// MD5, or "failed" / "timed out".
inline std::string readFrameMd5(Zn::Ptr<FileReadInstance>& file, uint32_t frame,
                                const DecodeFormat& format = DecodeFormat::getDefault(),
                                Zn::Image::Surface* picture = nullptr) {
    Waiter waiter;
    Zn::Ptr<IndexInfoRep> index;
    file->ZnFileIxCache_open(index, frame);
    auto request = Zn::makePtr<VideoReadRequest>(file, index, frame, kResultDecoded, format, waiter.getProxy());
    file->queueReadRequest(request, false);
    // Joined to an equal request that has already failed: no callback comes.
    if (request->getStatus() == Failed) return "failed";
    if (!waiter.wait()) return "timed out";
    if (waiter.status() != Complete || !waiter.buffer()) return "failed";
    Zn::Image::Surface s = waiter.buffer()->getSurface(0);
    const int state = s.wait(30000);
    if (state == Zn::Image::Surface::kWaitTimedOut) return "timed out";
    if (state != Zn::Image::Surface::kWaitComplete || !s.valid()) return "failed";
    if (picture) *picture = s;
    return surfaceMd5(s);
}

// Samples of one channel read through the file's audio queue; the request's status
// says how it ended.
inline std::string readChannel(Zn::Ptr<FileReadInstance>& file, uint32_t stream, uint32_t channel, uint64_t start,
                               uint32_t count, RequestStatus* status = nullptr) {
    Waiter waiter;
    AudioRequest r;
    r.stream = stream;
    r.channel = channel;
    r.start = start;
    r.count = count;
    auto request = Zn::makePtr<AudioReadRequest>(file, r, 1, waiter.getProxy());
    file->queueReadRequest(request, false);
    const bool done = waiter.wait();
    if (status) *status = done ? request->getStatus() : Queued;
    if (!done || request->getStatus() != Complete || !request->getBuffer()) return {};
    return std::string(reinterpret_cast<const char*>(request->getBuffer()), request->getUsed());
}

} // namespace reader_test
