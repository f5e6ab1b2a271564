#include "tools/MediaSession.h"

#include "host/core/Strings.h"
#include "host/media/BackendPlugins.h"
#include "host/media/FileReaderInfo.h"
#include "host/project/EditManager.h"
#include "playfile/EntryPoints.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tool {

bool checkMediaFile(const std::string& path, std::string& why) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        why = errno == ENOENT ? "no such file" : std::strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        why = "is a directory";
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        why = "is not a regular file";
        return false;
    }
    // Opening tells what access() would not for a process running with other rights.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        why = std::string("cannot be read: ") + std::strerror(errno);
        return false;
    }
    ::close(fd);
    if (st.st_size == 0) {
        why = "is empty";
        return false;
    }
    return true;
}

bool readersAvailable(std::string& error) {
    if (Zn::FileReaderInfo::getNumFileReaders() > 0) return true;
    std::string folders;
    for (const std::string& f : Zn::BackendPlugins::pluginFolders()) folders += (folders.empty() ? "" : ":") + f;
    error = "no media back-ends were found (looked in " + (folders.empty() ? std::string("no folder") : folders) +
            "; PLAYFILE_BACKEND_PATH names others)";
    return false;
}

// The clip's layout as the reader that serves the file describes it; false when no reader
// opens it.
bool clipLayoutFromReaders(const std::string& file, ImportOptions& options, bool rateGiven, std::string& why) {
    if (!checkMediaFile(file, why)) return false;
    Zn::Ptr<FileReadInstance> f = MediaSession::openByName(file, OpenType::kVideoAndAudio);
    if (!f) {
        why = "no reader can open it (give --video and --audio to import it all the same)";
        return false;
    }
    const PlayFileMetadataRep& m = *f->getMetadata();
    const uint32_t caps = f->getCapabilities();
    if (options.videoChannels < 0)
        options.videoChannels = (caps & OpenType::kVideo) && (m.getFrameCount() > 0 || m.hasStillImage()) ? 1 : 0;
    if (options.audioChannels < 0)
        options.audioChannels = (caps & OpenType::kAudio) ? int(std::min(m.getTotalChannels(), 254u)) : 0;
    if (!rateGiven && !m.getAudioMetadata().empty() && m.getAudioMetadata()[0].getSampleRate())
        options.sampleRate = m.getAudioMetadata()[0].getSampleRate();
    if (options.videoChannels == 0 && options.audioChannels == 0) {
        why = "the reader finds neither video nor audio in it";
        return false;
    }
    return true;
}

MediaSession::~MediaSession() {
    if (!open_) return;
    // Files first: an open file may still look its clip up in the project.
    playfile_close_all_files();
    EditManager::closeProject();
    if (!scratch_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(scratch_, ec);
    }
}

bool MediaSession::openScratch(std::string& error) {
    // The scratch project is written with the database's usual care (a sync per
    // transaction), which costs several milliseconds per sync on a disk: it goes to memory
    // (/dev/shm) unless TMPDIR says otherwise.
    const char* base = std::getenv("TMPDIR");
    std::string folder = base && *base ? base : "";
    if (folder.empty()) folder = ::access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = folder + "/playfile-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        error = "cannot make a temporary folder in " + folder + ": " + std::strerror(errno);
        return false;
    }
    scratch_ = pattern;
    return openProject(scratch_ / "project", error);
}

bool MediaSession::openProject(const std::filesystem::path& folder, std::string& error) {
    WString why;
    std::error_code ec;
    const std::string absolute = std::filesystem::absolute(folder, ec).lexically_normal().string();
    if (!EditManager::openProject(fromUTF8(absolute.c_str()), true, &why)) {
        error = "cannot open the project in " + absolute + ": " + toUTF8(why).str();
        return false;
    }
    open_ = true;
    return true;
}

Zn::Ptr<FileReadInstance> MediaSession::openByName(const std::string& path, OpenType type,
                                                   const DecodeFormat& format) {
    std::error_code ec;
    const std::string absolute = std::filesystem::absolute(path, ec).lexically_normal().string();
    return PlayFileCache::Shared().open(fromUTF8(absolute.c_str()), Cookie(), format, type, 0);
}

Cookie MediaSession::addClip(const std::string& path, bool video, unsigned audioChannels, unsigned sampleRate,
                             std::string& error) {
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(path, ec).lexically_normal();
    ClipRecord r;
    r.name = fromUTF8(absolute.filename().string().c_str());
    r.videoChannels = video ? 1 : 0;
    r.audioChannels = int(audioChannels);
    r.sampleRate = sampleRate ? sampleRate : 48000;
    r.file = MediaFileInfo(MaterialFilename(DriveId(), fromUTF8(absolute.string().c_str())),
                           std::filesystem::file_size(absolute, ec));
    WString why;
    std::vector<Cookie> made = ProjectImporter::registerClips({r}, &why);
    if (made.empty()) {
        error = "cannot register " + path + " in the project: " + toUTF8(why).str();
        return Cookie();
    }
    return made.front();
}

// ---------------------------------------------------------------------------------------

FrameRead::FrameRead(const Cookie& material, int frame, const DecodeFormat& format) : frame_(frame) {
    queued_ = waiter_.readVideo(request_, material, frame, kResultDecoded, format) == PlayFileCache::kVideoQueued;
}

Zn::Image::Surface FrameRead::picture(std::string& error, std::chrono::milliseconds limit) {
    using Zn::Image::Surface;
    const std::string where = "frame " + std::to_string(frame_);
    if (!queued_) {
        error = where + ": not available (no such frame, or the file cannot be opened)";
        return Surface();
    }
    if (!waiter_.wait(limit)) {
        error = where + ": the read did not finish in time";
        return Surface();
    }
    auto buffer = Zn::dynamicPtrCast<FrameBufferRep>(waiter_.result());
    if (waiter_.status() != RequestStatus::Complete || !buffer) {
        error = where + ": the read failed";
        return Surface();
    }
    request_ = nullptr;
    Surface s = buffer->getSurface(0);
    const Surface::eWaitResult state = s.wait(unsigned(limit.count()));
    if (state == Surface::kWaitTimedOut) {
        error = where + ": decoding did not finish in time";
        return Surface();
    }
    if (state != Surface::kWaitComplete || !s.valid()) {
        error = where + ": decoding failed";
        return Surface();
    }
    return s;
}

// ---------------------------------------------------------------------------------------

AudioRead::AudioRead(const Cookie& material, uint64_t start, uint32_t count) {
    created_ = waiter_.readAudio(request_, material, start, count);
}

AudioRead::~AudioRead() = default;

bool AudioRead::samples(const uint8_t*& data, size_t& bytes, std::string& error, std::chrono::milliseconds limit) {
    if (created_ != PlayFileCache::kAudioCreated) {
        error = created_ == PlayFileCache::kAudioPastEnd ? "the read starts past the end of the audio"
                                                         : "the audio is not available for reading";
        return false;
    }
    if (!waiter_.wait(limit)) {
        error = "the audio read did not finish in time";
        return false;
    }
    if (request_->getStatus() != RequestStatus::Complete) {
        error = "the audio read failed";
        return false;
    }
    // The read may have been widened to whole codec frames: the tag is what was asked.
    const size_t wanted = size_t(request_->tag) * bytesPerSample();
    data = request_->getBuffer();
    bytes = std::min<size_t>(wanted, request_->getUsed());
    if (!data && bytes) {
        error = "the audio read gave no samples";
        return false;
    }
    return true;
}

uint32_t AudioRead::bytesPerSample() const {
    const auto& streams = request_->getAudioMetadata();
    return request_->stream < streams.size() ? streams[request_->stream].getBytesPerDecodedSample() : 0;
}

bool AudioRead::isFloat() const {
    const auto& streams = request_->getAudioMetadata();
    return request_->stream < streams.size() && streams[request_->stream].sampleType == Aud::kSampleFloat;
}

uint32_t AudioRead::sampleRate() const {
    const auto& streams = request_->getAudioMetadata();
    return request_->stream < streams.size() ? streams[request_->stream].getSampleRate() : 0;
}

} // namespace tool
