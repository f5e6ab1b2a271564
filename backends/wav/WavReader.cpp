#include "backends/wav/WavReader.h"

#include "backends/wav/WavWriter.h"
#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/FileWriterInfo.h"
#include "host/os/Log.h"
#include "playfile/requests/AudioReadRequest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace wav {

namespace {

int64_t preadSome(int fd, void* to, size_t n, uint64_t offset) {
    size_t done = 0;
    while (done < n) {
        ssize_t got = ::pread(fd, static_cast<uint8_t*>(to) + done, n - done, off_t(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return -1;
        if (got == 0) break;
        done += size_t(got);
    }
    return int64_t(done);
}

bool hasSignature(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    uint8_t h[12];
    bool yes = ::pread(fd, h, sizeof h, 0) == ssize_t(sizeof h) &&
               (std::memcmp(h, "RIFF", 4) == 0 || std::memcmp(h, "RF64", 4) == 0 || std::memcmp(h, "BW64", 4) == 0) &&
               std::memcmp(h + 8, "WAVE", 4) == 0;
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

} // namespace

Aud::Metadata audioMetadataOf(const Info& info) {
    Aud::Metadata m(info.sampleRate, info.channels, info.bytesPerSample(),
                    info.isFloat() ? Aud::kSampleFloat : Aud::kSampleInt, info.frames());
    m.bitsPerSample = info.validBits;
    m.codec = info.isFloat() ? "pcm_f" : "pcm";
    m.streamIndex = 0;
    return m;
}

WavReadInstance::WavReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type, int fd,
                                 const Info& info)
    : FileReadInstance(fileName, format, type), Zn::AudioReader(getMetadata()->getAudioMetadata()), fd_(fd),
      info_(info) {
    PlayFileMetadataRep& meta = *getMetadata();
    meta.setAudioMetadata({audioMetadataOf(info)});
    meta.setAudioLength(info.frames());
}

WavReadInstance::~WavReadInstance() { ::close(fd_); }

backend::Result<Zn::Ptr<WavReadInstance>> WavReadInstance::open(const DecodeFormat& format, const WString& fileName,
                                                                OpenType type) {
    using Opened = backend::Result<Zn::Ptr<WavReadInstance>>;
    const int fd = ::open(toUTF8(fileName).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        const int cause = errno;
        return Opened::fail(std::strerror(cause), cause);
    }
    struct stat st {};
    Info info;
    std::string error;
    bool ok = ::fstat(fd, &st) == 0;
    if (!ok) error = std::strerror(errno);
    else
        ok = parseHeader([fd](uint64_t at, void* to, size_t n) { return preadSome(fd, to, n, at); },
                         uint64_t(st.st_size), info, error);
    if (!ok) {
        ::close(fd);
        return Opened::fail(error);
    }
    return Opened::ok(Zn::Ptr<WavReadInstance>(new WavReadInstance(fileName, format, type, fd, info)));
}

uint64_t WavReadInstance::availableFrames() const {
    if (!info_.dataRunsToEnd) return info_.frames();
    struct stat st {};
    if (::fstat(fd_, &st) != 0 || uint64_t(st.st_size) <= info_.dataOffset) return 0;
    return (uint64_t(st.st_size) - info_.dataOffset) / info_.blockAlign;
}

int64_t WavReadInstance::readSamples(uint64_t position, uint32_t count, uint8_t* to) const {
    const uint64_t frames = availableFrames();
    if (position >= frames) return 0;
    const uint64_t n = std::min<uint64_t>(count, frames - position);
    return preadSome(fd_, to, size_t(n * info_.blockAlign), info_.dataOffset + position * info_.blockAlign);
}

void WavReadInstance::readAudio(Zn::Ptr<AudioReadRequest>& request) { Zn::AudioReader::readAudio(request); }

Zn::AudioReader::eResult WavReadInstance::readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples, uint8_t* into,
                                      uint32_t& delivered) {
    delivered = 0;
    if (stream != 0) return kFailed;
    const int64_t got = readSamples(position, samples, into);
    if (got < 0) return kFailed;
    delivered = uint32_t(uint64_t(got) / info_.blockAlign);
    return kSuccess;
}

bool WavFileReader::accepts(const WString& fileName, OpenType type) {
    if (!type.hasAudio()) return false;
    const std::string path = toUTF8(fileName).c_str();
    return endsWith(path, ".wav") || endsWith(path, ".wave") || endsWith(path, ".bwf") || hasSignature(path);
}

Zn::Ptr<FileReadInstance> WavFileReader::open(const DecodeFormat& format, const WString& fileName, OpenType type) {
    return openFile(format, fileName, type).file;
}

Zn::iFileReader::Opened WavFileReader::openFile(const DecodeFormat& format, const WString& fileName, OpenType type) {
    auto opened = WavReadInstance::open(format, fileName, type);
    Opened result;
    result.file = opened.value;
    result.outcome = opened ? eOpenOutcome::kOpened : openOutcomeOfErrno(opened.cause);
    if (!opened) Log("WAV cannot open \"%ls\": %s\n", fileName.c_str(), opened.error.c_str());
    return result;
}

unsigned WavFileReader::capabilities(const DecodeFormat&, OpenType, const PlayFileMetadataRep& metadata,
                                     const Aud::Metadata&, Zn::ReaderDetails& details) {
    // Asked about a file another reader opened: only a real WAVE file is ours, and only
    // when this reader can read its samples (FFmpeg also opens compressed WAVE files).
    const std::string path = toUTF8(metadata.getFileName()).c_str();
    if (!hasSignature(path)) return 0;
    std::string error;
    Info info;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    struct stat st {};
    const bool ok = ::fstat(fd, &st) == 0 &&
                    parseHeader([fd](uint64_t at, void* to, size_t n) { return preadSome(fd, to, n, at); },
                                uint64_t(st.st_size), info, error);
    ::close(fd);
    if (!ok) return 0;
    details.codec = info.isFloat() ? "pcm_f" : "pcm";
    details.container = "wav";
    details.audioStreams = 1;
    return OpenType::kAudio;
}

void registerBackend() {
    static std::once_flag once;
    std::call_once(once, [] {
        Zn::FileReaderInfo::registerFileReader(Zn::makePtr<WavFileReader>());
        Zn::FileWriterInfo::registerFileWriter(Zn::makePtr<WavFileWriter>());
    });
}

} // namespace wav

extern "C" __attribute__((visibility("default"))) const PlayfileBackendEntry* playfile_backend_entry() {
    static const PlayfileBackendEntry entry{kPlayfileBackendAbi, "WAV", 20, &wav::registerBackend};
    return &entry;
}
