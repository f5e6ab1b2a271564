// The library as the commands use it. A command's files become clips of a project (a
// scratch project in a temporary folder unless the command names one), because the play
// file cache reads by material cookie; every open and read then goes through the shared
// PlayFileCache, its queues and the back-ends it found at start.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/Surface.h"
#include "host/project/ProjectImporter.h"
#include "playfile/open/OpenType.h"
#include "playfile/requests/RequestWaiter.h"
#include "playfile/requests/VideoReadRequest.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

class AudioReadRequest;
class FileReadInstance;

namespace tool {

// Whether path names a non-empty regular file this process may read; why says what is
// wrong in a few words ("no such file", "is a directory", "is empty", ...).
bool checkMediaFile(const std::string& path, std::string& why);

// Whether any file reader is registered; otherwise error says where back-ends were
// looked for.
bool readersAvailable(std::string& error);

// Fills what options leaves open (-1 channels; the sample rate unless rateGiven) from
// the reader that serves the file, opened through the play file cache: one video channel
// when it has video, one sound channel per channel of all its audio streams. False with
// why set when no reader opens it or it has neither.
bool clipLayoutFromReaders(const std::string& file, ImportOptions& options, bool rateGiven, std::string& why);

class MediaSession {
public:
    MediaSession() = default;
    // Closes the cache's files and the project; a scratch project's folder is removed.
    ~MediaSession();
    MediaSession(const MediaSession&) = delete;
    MediaSession& operator=(const MediaSession&) = delete;

    // A scratch project in a new folder below $TMPDIR, else /dev/shm, else /tmp.
    bool openScratch(std::string& error);
    // The project in folder (made when it holds none); kept afterwards.
    bool openProject(const std::filesystem::path& folder, std::string& error);

    // The file opened for the access in type through the play file cache, by name: what
    // the clip reads below will find open (a hit). Null when no reader opens it.
    static Zn::Ptr<FileReadInstance> openByName(const std::string& path, OpenType type,
                                                const DecodeFormat& format = DecodeFormat(1));

    // Registers the file as a clip of the project, its material in place: one video
    // channel when video, and audioChannels sound channels. An invalid cookie with error
    // set on failure.
    Cookie addClip(const std::string& path, bool video, unsigned audioChannels, unsigned sampleRate,
                   std::string& error);

private:
    std::filesystem::path scratch_;
    bool open_ = false;
};

// One frame of a video material read through ClipMedia::videoReadRequest.
class FrameRead {
public:
    // Queues the read; see queued().
    FrameRead(const Cookie& material, int frame, const DecodeFormat& format);
    bool queued() const { return queued_; }
    int frame() const { return frame_; }
    // Waits for the complete picture; an empty surface with error set when the read
    // failed or took longer than the limit.
    Zn::Image::Surface picture(std::string& error, std::chrono::milliseconds limit = std::chrono::seconds(60));

private:
    RequestWaiter waiter_;
    // Held until the picture is taken: the queue skips a request that only it holds,
    // taking it for one its issuer gave up on.
    Zn::Ptr<VideoReadRequest> request_;
    int frame_;
    bool queued_ = false;
};

// A run of samples of one sound material read through ClipMedia::audioReadRequest.
class AudioRead {
public:
    AudioRead(const Cookie& material, uint64_t start, uint32_t count);
    ~AudioRead();
    // The answer to the read (kAudioCreated when it was queued).
    eClipRead created() const { return created_; }
    // Waits for the samples: the channel's bytes from start on, of the samples asked for
    // (fewer at the end of the material). False with error set on failure.
    bool samples(const uint8_t*& data, size_t& bytes, std::string& error,
                 std::chrono::milliseconds limit = std::chrono::seconds(60));
    // The layout of the samples delivered (bytes per sample, sample type, rate).
    uint32_t bytesPerSample() const;
    bool isFloat() const;
    uint32_t sampleRate() const;

private:
    RequestWaiter waiter_;
    Zn::Ptr<AudioReadRequest> request_;
    eClipRead created_ = eClipRead::kNotAvailable;
};

} // namespace tool
