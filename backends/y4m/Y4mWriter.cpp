// Writing YUV4MPEG2 files: the stream header at creation, then "FRAME" and the planes
// packed without padding for every frame, written in one call per frame.
#include "backends/y4m/Y4mWriter.h"

#include "backends/y4m/Y4mFormat.h"
#include "host/core/Strings.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace y4m {

namespace {

using Zn::Image::eDataFormat;

const char* chromaTagFor(eDataFormat f) {
    switch (f) {
    case Zn::Image::kFormatGray8: return "mono";
    case Zn::Image::kFormatGray16LE: return "mono16";
    case Zn::Image::kFormatYUV420P: return "420jpeg";
    case Zn::Image::kFormatYUV422P: return "422";
    case Zn::Image::kFormatYUV444P: return "444";
    case Zn::Image::kFormatYUV420P10LE: return "420p10";
    case Zn::Image::kFormatYUV422P10LE: return "422p10";
    case Zn::Image::kFormatYUV444P10LE: return "444p10";
    default: return nullptr;
    }
}

bool writeAll(int fd, const uint8_t* p, size_t n) {
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= size_t(w);
    }
    return true;
}

class Y4mWriteInstance : public Zn::FileWriteInstance {
public:
    Y4mWriteInstance(const WString& name, const Zn::FileWriterParams& params, int fd)
        : FileWriteInstance(name, params), fd_(fd) {}
    ~Y4mWriteInstance() override { close(); }

    int writeFrame(const Zn::Image::Surface& image, int) override {
        const auto& core = getParams().core;
        if (fd_ < 0 || !image.valid() || image.getDataFormat() != core.getDataFormat() ||
            image.getWidth() != core.getWidth() || image.getHeight() != core.getHeight())
            return 0;
        const eDataFormat f = core.getDataFormat();
        frame_.assign(kFrameHeader, kFrameHeader + sizeof(kFrameHeader) - 1);
        for (unsigned p = 0; p < image.planeCount(); ++p) {
            const uint32_t rowBytes = Zn::Image::minimumStride(f, p, core.getWidth());
            const uint32_t rows = Zn::Image::planeHeight(f, p, core.getHeight());
            const uint8_t* src = image.plane(p);
            for (uint32_t y = 0; y < rows; ++y, src += image.stride(p)) frame_.insert(frame_.end(), src, src + rowBytes);
        }
        return writeAll(fd_, frame_.data(), frame_.size()) ? 1 : 0;
    }

    int close() override {
        if (fd_ < 0) return 1;
        int rc = ::fsync(fd_) == 0 ? 1 : 0;
        if (::close(fd_) != 0) rc = 0;
        fd_ = -1;
        return rc;
    }

private:
    int fd_;
    std::vector<uint8_t> frame_; // reused: no allocation per frame once it has grown
};

} // namespace

bool Y4mFileWriter::accepts(const Zn::FileWriterParams& p) const {
    if (p.kind != Zn::FileWriterParams::kVideo) return false;
    if (!p.container.empty() && p.container != "y4m" && p.container != "yuv4mpegpipe") return false;
    if (!p.codec.empty() && p.codec != "rawvideo") return false;
    return chromaTagFor(p.core.getDataFormat()) != nullptr && p.core.getWidth() > 0 && p.core.getHeight() > 0;
}

std::vector<WString> Y4mFileWriter::extensions(const Zn::FileWriterParams&) const { return {WString(L"y4m")}; }

int Y4mFileWriter::create(const WString& fileName, Zn::FileWriterParams& params, Zn::Ptr<Zn::FileWriteInstance>& out) {
    if (!accepts(params)) return 0;
    StreamHeader h;
    h.width = int(params.core.getWidth());
    h.height = int(params.core.getHeight());
    h.rateNum = params.rateNum > 0 ? params.rateNum : 25;
    h.rateDen = params.rateDen > 0 ? params.rateDen : 1;
    h.aspectNum = h.aspectDen = 1;
    h.layout = *findLayout(chromaTagFor(params.core.getDataFormat()));
    int fd = ::open(toUTF8(fileName).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return 0;
    std::string header = formatStreamHeader(h);
    if (!writeAll(fd, reinterpret_cast<const uint8_t*>(header.data()), header.size())) {
        ::close(fd);
        ::unlink(toUTF8(fileName).c_str());
        return 0;
    }
    out = Zn::Ptr<Zn::FileWriteInstance>(new Y4mWriteInstance(fileName, params, fd));
    return 1;
}

} // namespace y4m
