// Writing WAV files: a header with a provisional size at creation, the samples appended
// block by block, and the header rewritten in place with the final sizes on close.
#include "backends/wav/WavWriter.h"

#include "backends/wav/WavFormat.h"
#include "host/core/Strings.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace wav {

namespace {

bool writeAllAt(int fd, const uint8_t* p, size_t n, off_t at) {
    while (n > 0) {
        ssize_t w = ::pwrite(fd, p, n, at);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= size_t(w);
        at += w;
    }
    return true;
}

Info infoFor(const Aud::Metadata& a) {
    Info f;
    f.formatTag = a.sampleType == Aud::kSampleFloat ? kFormatFloat : kFormatPcm;
    f.channels = uint16_t(a.getNumChannels());
    f.sampleRate = a.getSampleRate();
    f.bitsPerSample = uint16_t(a.getBytesPerSample() * 8);
    f.validBits = uint16_t(a.bitsPerSample ? a.bitsPerSample : f.bitsPerSample);
    f.blockAlign = uint16_t(f.channels * a.getBytesPerSample());
    return f;
}

class WavWriteInstance : public Zn::FileWriteInstance {
public:
    WavWriteInstance(const WString& name, const Zn::FileWriterParams& params, int fd, size_t headerBytes)
        : FileWriteInstance(name, params), fd_(fd), format_(infoFor(params.audio)), headerBytes_(headerBytes) {}
    ~WavWriteInstance() override { close(); }

    int writeAudio(Zn::Ptr<iMemHolder>& samples, Zn::WriteDoneFn done) override {
        const uint32_t used = samples ? samples->getUsed() : 0;
        bool ok = fd_ >= 0 && used % format_.blockAlign == 0 &&
                  writeAllAt(fd_, samples ? samples->getBuffer() : nullptr, used, off_t(headerBytes_ + dataBytes_));
        if (ok) dataBytes_ += used;
        if (done) done(ok ? RequestStatus::Complete : RequestStatus::Failed);
        return ok ? 1 : 0;
    }

    int close() override {
        if (fd_ < 0) return 1;
        std::vector<uint8_t> header = makeHeader(format_, dataBytes_);
        int rc = header.size() == headerBytes_ && writeAllAt(fd_, header.data(), header.size(), 0) &&
                         ::fsync(fd_) == 0
                     ? 1
                     : 0;
        if (::close(fd_) != 0) rc = 0;
        fd_ = -1;
        return rc;
    }

private:
    int fd_;
    Info format_;
    size_t headerBytes_;
    uint64_t dataBytes_ = 0;
};

} // namespace

bool WavFileWriter::accepts(const Zn::FileWriterParams& p) const {
    if (p.kind != Zn::FileWriterParams::kAudio || p.audio.isCompressedFormat()) return false;
    if (!p.container.empty() && p.container != "wav") return false;
    const unsigned bytes = p.audio.getBytesPerSample();
    const bool isFloat = p.audio.sampleType == Aud::kSampleFloat;
    return p.audio.getNumChannels() >= 1 && p.audio.getNumChannels() <= kMaxChannels && p.audio.getSampleRate() > 0 &&
           p.audio.getSampleRate() <= kMaxSampleRate && (isFloat ? (bytes == 4 || bytes == 8) : (bytes >= 1 && bytes <= 4));
}

std::vector<WString> WavFileWriter::extensions(const Zn::FileWriterParams&) const { return {WString(L"wav")}; }

int WavFileWriter::create(const WString& fileName, Zn::FileWriterParams& params, Zn::Ptr<Zn::FileWriteInstance>& out) {
    if (!accepts(params)) return 0;
    std::vector<uint8_t> header = makeHeader(infoFor(params.audio), 0);
    int fd = ::open(toUTF8(fileName).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) return 0;
    if (!writeAllAt(fd, header.data(), header.size(), 0)) {
        ::close(fd);
        ::unlink(toUTF8(fileName).c_str());
        return 0;
    }
    out = Zn::Ptr<Zn::FileWriteInstance>(new WavWriteInstance(fileName, params, fd, header.size()));
    return 1;
}

} // namespace wav
