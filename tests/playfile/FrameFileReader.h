// A small real back-end for the read-queue tests: FrameFileReader reads frames (8-bit grey,
// every pixel derived from the frame number) and 16-bit audio of one stream from a file
// that writeFrameFile makes in a temporary folder. Tests steer it (hold reads at a gate,
// answer "pending", fail, throw, hand out compressed frames) and look at what it read.
// Also here: a decoder for the compressed frames.
#pragma once

#include "host/media/DecoderInfo.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/VideoReadRequest.h"
#include "support/RecordingIssuer.h"
#include "support/TempDir.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace test_backend {

using testing_support::RecordingIssuer;

struct FrameFileLayout {
    uint32_t width = 16, height = 8, frames = 64;
    uint16_t groupSize = 0;       // frames stored in groups of this size (0: not grouped)
    uint32_t audioChannels = 0;   // channels of the one readable audio stream (0: no audio)
    uint64_t audioSamples = 0;
    std::vector<uint32_t> extraStreamChannels; // more audio streams, described but not readable
};

inline uint8_t pixelOf(uint32_t frame, uint32_t x, uint32_t y) { return uint8_t(frame * 7 + x + y * 3); }
inline int16_t sampleOf(uint64_t position, uint32_t channel) { return int16_t((position * 4 + channel) & 0x7fff); }

// Video frames one after another, then the interleaved audio.
inline std::string writeFrameFile(const testing_support::TempDir& dir, const std::string& name,
                                  const FrameFileLayout& layout) {
    std::string bytes;
    for (uint32_t n = 0; n < layout.frames; ++n)
        for (uint32_t y = 0; y < layout.height; ++y)
            for (uint32_t x = 0; x < layout.width; ++x) bytes += char(pixelOf(n, x, y));
    for (uint64_t s = 0; s < layout.audioSamples; ++s)
        for (uint32_t c = 0; c < layout.audioChannels; ++c) {
            int16_t v = sampleOf(s, c);
            bytes.append(reinterpret_cast<const char*>(&v), 2);
        }
    testing_support::writeFile(dir.file(name), bytes);
    return dir.file(name);
}

inline WString wide(const std::string& s) { return WString(std::wstring(s.begin(), s.end())); }

// Retries until done() holds, for states that a queue's thread reaches just after it has
// called the issuer (it lets go of the request and its file a moment later).
template <class F> bool eventually(F done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done())
        if (std::chrono::steady_clock::now() > end) return false;
        else std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return true;
}

// A mutex, and f() run under it.
struct Locking {
    template <class F> auto locked(F f) -> decltype(f()) {
        std::lock_guard<std::mutex> l(m_);
        return f();
    }
    std::mutex m_;
};

// Holds threads at pass() while closed.
struct Gate {
    void close() { set(true); }
    void open() { set(false); }
    void pass() {
        std::unique_lock<std::mutex> l(m_);
        ++waiting_;
        cv_.notify_all();
        cv_.wait(l, [&] { return !closed_; });
        --waiting_;
    }
    bool waitForWaiters(int n, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock<std::mutex> l(m_);
        return cv_.wait_for(l, timeout, [&] { return waiting_ >= n; });
    }

private:
    void set(bool closed) {
        std::lock_guard<std::mutex> l(m_);
        closed_ = closed;
        cv_.notify_all();
    }
    std::mutex m_;
    std::condition_variable cv_;
    bool closed_ = false;
    int waiting_ = 0;
};

struct FrameFileReader : FileReadInstance, Locking {
    enum eMode { kRaw, kPending, kFail, kThrow, kCompressed };

    FrameFileReader(const std::string& path, const DecodeFormat& format, OpenType type, const FrameFileLayout& layout)
        : FileReadInstance(wide(path), format, type), layout_(layout) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) throw std::runtime_error("cannot open " + path);
        PlayFileMetadataRep& meta = *getMetadata();
        meta.setFrameCount(layout.frames);
        meta.setVideoStreamCount(layout.frames ? 1 : 0);
        meta.setNativeFormat(Zn::Image::Core::Data(layout.width, layout.height, Zn::Image::kFormatGray8));
        meta.setFrameGroups(layout.groupSize > 0, layout.groupSize);
        std::vector<Aud::Metadata> audio;
        if (layout.audioChannels) audio.emplace_back(48000, layout.audioChannels, 2, Aud::kSampleInt, layout.audioSamples);
        for (uint32_t c : layout.extraStreamChannels) audio.emplace_back(48000, c, 2);
        meta.setAudioMetadata(std::move(audio));
        meta.setAudioLength(layout.audioSamples);
        ++alive;
    }
    ~FrameFileReader() override {
        ::close(fd_);
        --alive;
    }

    String getReaderName() const override { return "frames"; }

    eReadResult readVideo(Zn::Ptr<FrameBufferRep>& buffer, Zn::Ptr<VideoReadRequest>& request) override {
        gate.pass();
        const uint32_t frame = request->getFrame();
        const eMode m = mode.load();
        struct Count { // counted on the way out, so a test that sees the count sees the read's effects
            FrameFileReader* r;
            uint32_t frame;
            ~Count() { r->locked([&] { r->readFrames_.push_back(frame), ++r->reads; }); }
        } count{this, frame};
        if (m == kFail || frame >= layout_.frames) return kReadFailed;
        if (m == kThrow) throw std::runtime_error("broken frame");
        buffer = Zn::makePtr<FrameBufferRep>(static_cast<const DecodeFormat&>(*request), request->getIndexInfo(), frame);
        uint32_t bytes = layout_.width * layout_.height;
        Zn::Ptr<iMemHolder> data(new ByteBufferImpl(m == kCompressed ? 1 : bytes));
        if (::pread(fd_, data->getBuffer(), data->getSize(), off_t(frame) * bytes) != ssize_t(data->getSize()))
            return kReadFailed;
        data->setUsed(data->getSize());
        buffer->setCompressedData(0, data);
        VideoDecompressionInfo& info = buffer->getVideoDecompressionInfo();
        info.codec = m == kCompressed ? "byte" : "raw";
        info.core.setCoreData(layout_.width, layout_.height, Zn::Image::kFormatGray8);
        info.bufferFormat.stride = layout_.width;
        buffer->getMetadata().image.setCoreData(layout_.width, layout_.height,
                                                m == kCompressed ? Zn::Image::kFormatCompressed
                                                                 : Zn::Image::kFormatGray8);
        buffer->setDecompressComplete(FrameBufferRep::kCompressed);
        if (m != kPending) return kReadDone;
        locked([&] { pending_.push_back(request); }); // completed by the test
        return kReadPending;
    }

    // Reads the samples of one channel of stream 0; any other stream fails.
    void readAudio(Zn::Ptr<AudioReadRequest>& request) override {
        gate.pass();
        locked([&] { audioOrder_.emplace_back(request->start, request->getChannelIndex()); });
        ++reads;
        const uint32_t mcs = request->getBytesPerMCS(), n = request->count;
        std::vector<uint8_t> in(size_t(mcs) * n);
        const off_t at = off_t(layout_.width) * layout_.height * layout_.frames + off_t(request->getStartByte());
        const bool ok = request->stream == 0 && request->channel < layout_.audioChannels &&
                        ::pread(fd_, in.data(), in.size(), at) == ssize_t(in.size());
        if (ok) {
            Zn::Ptr<iMemHolder> mem(new ByteBufferImpl(n * 2));
            for (uint32_t i = 0; i < n; ++i) std::memcpy(mem->getBuffer() + i * 2, &in[i * mcs + request->channel * 2], 2);
            mem->setUsed(n * 2);
            request->setResult(Aud::StreamBuffer(mem, 1, n, n));
        }
        request->setStatus(ok ? RequestStatus::Complete : RequestStatus::Failed);
        Zn::Ptr<iObject> none;
        request->doCallbacks(none);
    }

    std::vector<uint32_t> readFrames() { return locked([&] { return readFrames_; }); }
    std::vector<Zn::Ptr<VideoReadRequest>> takePendingRequests() { return locked([&] { return std::move(pending_); }); }
    std::vector<std::pair<uint64_t, uint32_t>> audioOrder() { return locked([&] { return audioOrder_; }); }

    std::atomic<int> reads{0};
    std::atomic<eMode> mode{kRaw};
    Gate gate;
    static inline std::atomic<int> alive{0};

private:
    FrameFileLayout layout_;
    int fd_ = -1;
    std::vector<uint32_t> readFrames_;
    std::vector<Zn::Ptr<VideoReadRequest>> pending_;
    std::vector<std::pair<uint64_t, uint32_t>> audioOrder_;
};

// Decodes the one-byte frames of kCompressed into full grey pictures of the frame's size.
struct ByteDecoder : Zn::iDecoder {
    String name() const override { return "byte"; }

    int decode(Zn::Ptr<FrameBufferRep>& buffer) override {
        if (buffer->getCompressedSize(0) != 1) return 0;
        const auto& core = buffer->getVideoDecompressionInfo().core;
        Zn::Image::Surface s = Zn::Image::Surface::allocate(core);
        for (uint32_t y = 0; y < core.getHeight(); ++y)
            std::memset(s.plane(0) + y * s.stride(0), buffer->getCompressedData(0)[0], core.getWidth());
        buffer->setSurface(0, s);
        return 1;
    }
};

struct ByteDecoderFactory : Zn::iDecoderFactory {
    String name() const override { return "byte"; }
    bool canDecode(const VideoDecompressionInfo& info) const override { return info.codec == "byte"; }
    Zn::Ptr<Zn::iDecoder> createDecoder(const VideoDecompressionInfo&) override {
        return Zn::Ptr<Zn::iDecoder>(new ByteDecoder);
    }
};

// A frame file and a reader open on it.
struct OpenFile {
    OpenFile(const testing_support::TempDir& dir, const std::string& name, const FrameFileLayout& layout = {},
             OpenType type = OpenType::kVideo, const DecodeFormat& format = DecodeFormat::getDefault())
        : layout(layout), path(writeFrameFile(dir, name, layout)),
          reader(Zn::makePtr<FrameFileReader>(path, format, type, layout)), file(reader) {}
    // Drops finished requests before letting go, as the cache does.
    ~OpenFile() {
        if (reader) reader->purge();
    }

    Zn::Ptr<VideoReadRequest> request(uint32_t frame, RecordingIssuer* issuer, uint32_t width = 16,
                                      eResultType type = kResultDecoded, Zn::Ptr<IndexInfoRep> index = nullptr) {
        DecodeFormat format;
        if (width) format.setCoreData(width, layout.height, Zn::Image::kFormatGray8);
        return Zn::makePtr<VideoReadRequest>(file, index, frame, type, format,
                                             issuer ? issuer->getProxy() : nullptr);
    }
    Zn::Ptr<AudioReadRequest> audio(uint32_t stream, uint32_t channel, uint64_t start, uint32_t count,
                                    RecordingIssuer* issuer) {
        return Zn::makePtr<AudioReadRequest>(file, AudioRequest{.stream = stream, .channel = channel, .start = start, .count = count},
                                             1, issuer ? issuer->getProxy() : nullptr);
    }

    FrameFileLayout layout;
    std::string path;
    Zn::Ptr<FrameFileReader> reader;
    Zn::Ptr<FileReadInstance> file;
};

} // namespace test_backend
