#include "backends/y4m/Y4mReader.h"

#include "backends/y4m/Y4mWriter.h"
#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/FileWriterInfo.h"
#include "host/os/Log.h"
#include "playfile/requests/VideoReadRequest.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <cstdlib>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace y4m {

namespace {

// Reads n bytes at offset, retrying short reads; false when the file ends first.
bool preadAll(int fd, uint8_t* to, size_t n, uint64_t offset) {
    while (n > 0) {
        ssize_t got = ::pread(fd, to, n, off_t(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        n -= size_t(got);
        offset += uint64_t(got);
    }
    return true;
}

bool hasSignature(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char magic[sizeof(kMagic) - 1];
    bool yes = ::pread(fd, magic, sizeof magic, 0) == ssize_t(sizeof magic) && std::memcmp(magic, kMagic, sizeof magic) == 0;
    ::close(fd);
    return yes;
}

bool endsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
    return true;
}

// The pixels of every complete frame, from the stream header on. Frames normally carry a
// bare "FRAME\n", so a file whose first and last frame headers are bare is taken to have
// them all bare; otherwise each frame header is read.
std::vector<uint64_t> indexFrames(int fd, uint64_t fileSize, const StreamHeader& h) {
    std::vector<uint64_t> offsets;
    const uint64_t pixels = h.frameBytes();
    const uint64_t bare = sizeof(kFrameHeader) - 1;
    uint8_t head[256];
    auto frameHeaderAt = [&](uint64_t at) -> size_t {
        const size_t want = size_t(std::min<uint64_t>(sizeof head, fileSize - at));
        if (!preadAll(fd, head, want, at)) return 0;
        return parseFrameHeader(head, want);
    };
    if (fileSize > h.headerBytes) {
        const uint64_t stride = bare + pixels;
        const uint64_t count = (fileSize - h.headerBytes) / stride;
        if (count > 0 && frameHeaderAt(h.headerBytes) == bare &&
            frameHeaderAt(h.headerBytes + (count - 1) * stride) == bare) {
            offsets.reserve(size_t(count));
            for (uint64_t k = 0; k < count; ++k) offsets.push_back(h.headerBytes + k * stride + bare);
            return offsets;
        }
    }
    uint64_t at = h.headerBytes;
    while (at < fileSize) {
        const size_t len = frameHeaderAt(at);
        if (len == 0 || at + len + pixels > fileSize) break; // damaged, or a frame cut short
        offsets.push_back(at + len);
        at += len + pixels;
    }
    return offsets;
}

} // namespace

// Frame-sized blocks that go back to the pool when the last holder lets go, so that
// reading frame after frame reuses memory that is still in the processor's caches instead
// of asking the allocator (and the kernel, for blocks this large) every time.
//
// Lock: mutex_ guards free_; a leaf lock, taken when a block is made or given back.
class Y4mReadInstance::BlockPool : public iObject {
public:
    explicit BlockPool(size_t bytes) : bytes_(bytes) {}
    ~BlockPool() override {
        for (void* p : free_) std::free(p);
    }

    Zn::Ptr<iMemHolder> take() {
        void* memory = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!free_.empty()) {
                memory = free_.back();
                free_.pop_back();
            }
        }
        if (!memory) memory = std::aligned_alloc(ByteBufferImpl::kAlignment, roundUp(bytes_));
        if (!memory) return nullptr;
        return Zn::Ptr<iMemHolder>(new Block(Zn::Ptr<BlockPool>(this), static_cast<uint8_t*>(memory), uint32_t(bytes_)));
    }

private:
    static constexpr size_t kKept = 8;
    static size_t roundUp(size_t n) { return (n + ByteBufferImpl::kAlignment - 1) & ~size_t(ByteBufferImpl::kAlignment - 1); }

    class Block : public iMemHolder {
    public:
        Block(Zn::Ptr<BlockPool> pool, uint8_t* data, uint32_t size) : pool_(std::move(pool)), data_(data), size_(size) {}
        ~Block() override { pool_->giveBack(data_); }
        uint8_t* getBuffer() const override { return data_; }
        uint32_t getSize() const override { return size_; }
        uint32_t getUsed() const override { return used_; }
        uint32_t setUsed(uint32_t used) override { return used_ = used < size_ ? used : size_; }

    private:
        Zn::Ptr<BlockPool> pool_;
        uint8_t* data_;
        uint32_t size_;
        uint32_t used_ = 0;
    };

    void giveBack(void* memory) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (free_.size() < kKept) {
                free_.push_back(memory);
                return;
            }
        }
        std::free(memory);
    }

    const size_t bytes_;
    std::mutex mutex_;
    std::vector<void*> free_;
};

Zn::Image::eDataFormat hostFormatOf(const Layout& layout) {
    const std::string name = layout.pixelFormat;
    if (name == "gray") return Zn::Image::kFormatGray8;
    for (int f = Zn::Image::kFormatUnknown + 1; f <= Zn::Image::kFormatLastRaw; ++f) {
        if (name == Zn::Image::formatName(Zn::Image::eDataFormat(f))) return Zn::Image::eDataFormat(f);
    }
    return Zn::Image::kFormatUnknown;
}

Y4mReadInstance::Y4mReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type, int fd,
                                 const StreamHeader& h, std::vector<uint64_t> offsets)
    : FileReadInstance(fileName, format, type), fd_(fd), header_(h), format_(hostFormatOf(h.layout)),
      offsets_(std::move(offsets)), blocks_(Zn::makePtr<BlockPool>(size_t(h.frameBytes()))) {
    PlayFileMetadataRep& meta = *getMetadata();
    meta.setFrameCount(uint32_t(offsets_.size()));
    meta.setVideoStreamCount(1);
    meta.setNativeFormat(Zn::Image::Core::Data(uint32_t(h.width), uint32_t(h.height), format_));
    meta.setVideoCodec("rawvideo");
    meta.setFrameRate(FrameRate{uint32_t(h.rateNum), uint32_t(h.rateDen)});
    const uint32_t bytes = uint32_t(h.frameBytes());
    meta.setFrameSizes(FrameSizes{bytes, bytes});
}

Y4mReadInstance::~Y4mReadInstance() { ::close(fd_); }

backend::Result<Zn::Ptr<Y4mReadInstance>> Y4mReadInstance::open(const DecodeFormat& format, const WString& fileName,
                                                                OpenType type) {
    using Opened = backend::Result<Zn::Ptr<Y4mReadInstance>>;
    const std::string path = toUTF8(fileName).c_str();
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int cause = errno;
        return Opened::fail(std::strerror(cause), cause);
    }
    std::string error;
    struct stat st {};
    uint8_t head[kMaxHeaderBytes];
    StreamHeader h;
    std::vector<uint64_t> offsets;
    if (::fstat(fd, &st) != 0) {
        error = std::strerror(errno);
    } else {
        const size_t want = size_t(std::min<uint64_t>(sizeof head, uint64_t(st.st_size)));
        if (!preadAll(fd, head, want, 0)) error = "cannot read the header";
        else if (parseStreamHeader(head, want, h, error)) {
            if (hostFormatOf(h.layout) == Zn::Image::kFormatUnknown) error = "no host pixel format for this layout";
            else if ((offsets = indexFrames(fd, uint64_t(st.st_size), h)).empty()) error = "no complete frame";
        }
    }
    if (!error.empty()) {
        ::close(fd);
        return Opened::fail(error);
    }
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    return Opened::ok(Zn::Ptr<Y4mReadInstance>(new Y4mReadInstance(fileName, format, type, fd, h, std::move(offsets))));
}

FileReadInstance::eReadResult Y4mReadInstance::readVideo(Zn::Ptr<FrameBufferRep>& buffer, Zn::Ptr<VideoReadRequest>& request) {
    const uint32_t frame = request->getFrame();
    if (frame >= offsets_.size()) return kReadFailed;
    const uint64_t bytes = header_.frameBytes();
    Zn::Ptr<iMemHolder> data = blocks_->take();
    if (!data || !preadAll(fd_, data->getBuffer(), size_t(bytes), offsets_[frame])) return kReadFailed;
    data->setUsed(uint32_t(bytes));

    const DecodeFormat& wanted = *request;
    buffer = Zn::makePtr<FrameBufferRep>(wanted, request->getIndexInfo(), frame);
    buffer->setCompressedData(0, data);
    VideoDecompressionInfo& info = buffer->getVideoDecompressionInfo();
    info.codec = "raw";
    info.core.setCoreData(uint32_t(header_.width), uint32_t(header_.height), format_);
    info.bufferFormat.stride = uint32_t(header_.planeWidth(0) * header_.bytesPerSample());
    // Raw pixels the caller takes as they are, or data for a decoder to convert.
    const bool native = !wanted.isCoreDataSet() ||
                        ((wanted.getDataFormat() == format_ || !Zn::Image::isRawFormat(wanted.getDataFormat())) &&
                         (wanted.getWidth() == 0 || wanted.getWidth() == uint32_t(header_.width)) &&
                         (wanted.getHeight() == 0 || wanted.getHeight() == uint32_t(header_.height)));
    buffer->getMetadata().image.setCoreData(uint32_t(header_.width), uint32_t(header_.height),
                                            native ? format_ : Zn::Image::kFormatCompressed);
    buffer->setDecompressComplete(FrameBufferRep::kCompressed);
    return kReadDone;
}

bool Y4mFileReader::accepts(const WString& fileName, OpenType type) {
    if (!type.hasVideo()) return false;
    const std::string path = toUTF8(fileName).c_str();
    return endsWith(path, ".y4m") || endsWith(path, ".yuv4mpeg") || hasSignature(path);
}

Zn::Ptr<FileReadInstance> Y4mFileReader::open(const DecodeFormat& format, const WString& fileName, OpenType type) {
    return openFile(format, fileName, type).file;
}

Zn::iFileReader::Opened Y4mFileReader::openFile(const DecodeFormat& format, const WString& fileName, OpenType type) {
    auto opened = Y4mReadInstance::open(format, fileName, type);
    Opened result;
    result.file = opened.value;
    result.outcome = opened ? eOpenOutcome::kOpened : openOutcomeOfErrno(opened.cause);
    if (!opened) Log("Y4M cannot open \"%ls\": %s\n", fileName.c_str(), opened.error.c_str());
    return result;
}

unsigned Y4mFileReader::capabilities(const DecodeFormat&, OpenType, const PlayFileMetadataRep& metadata,
                                     const Aud::Metadata&, Zn::ReaderDetails& details) {
    // Asked about a file another reader opened: only a real Y4M stream is ours.
    if (!hasSignature(toUTF8(metadata.getFileName()).c_str())) return 0;
    details.codec = "rawvideo";
    details.container = "yuv4mpegpipe";
    details.videoStreams = 1;
    return metadata.getFrameCount() > 0 ? unsigned(OpenType::kVideo) : 0u;
}

void registerBackend() {
    static std::once_flag once;
    std::call_once(once, [] {
        Zn::FileReaderInfo::registerFileReader(Zn::makePtr<Y4mFileReader>());
        Zn::FileWriterInfo::registerFileWriter(Zn::makePtr<Y4mFileWriter>());
    });
}

} // namespace y4m

extern "C" __attribute__((visibility("default"))) const PlayfileBackendEntry* playfile_backend_entry() {
    static const PlayfileBackendEntry entry{kPlayfileBackendAbi, "Y4M", 10, &y4m::registerBackend};
    return &entry;
}
