// The host's registry of file writers (encoder back-ends that create material files) and
// the writer interface. PlayUtil::openWrite asks the registry for the first writer that
// accepts the parameters and has it create the file; the library then hands it frames or
// audio blocks one by one and keeps the running counts in the writer's metadata.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Registry.h"
#include "host/core/configb.h"
#include "host/media/AudioMetadata.h"
#include "host/media/ImageCore.h"
#include "host/media/MemHolder.h"
#include "host/media/RequestStatus.h"
#include "host/media/ShotVideoMetadata.h"
#include "host/media/Surface.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace Zn {

// What to write: video frames of a size and pixel format at a rate, or audio of a
// layout. codec and container name a particular encoding ("ffv1" in "matroska"); empty
// leaves the choice to the writer (the first writer that accepts the rest).
struct FileWriterParams {
    enum eKind : int32_t { kVideo = 1, kAudio = 2 };
    eKind kind = kVideo;
    Image::Core::Data core;   // frames handed to the writer
    int32_t rateNum = 25;     // frame rate of video
    int32_t rateDen = 1;
    ShotVideoMetadata video;  // the shot's format and rate code, for the play header
    Aud::Metadata audio;      // audio layout (sample rate, channels, bytes per sample, type)
    String codec;
    String container;
    configb options;          // writer-specific settings (an FFmpeg writer passes them to
                              // its encoder as options)

    // Video of a shot: the picture its format stores, in the given pixel format, at its
    // rate; core and rate are taken from the shot, so the two always agree.
    static FileWriterParams forVideo(const ShotVideoMetadata& shot, Image::eDataFormat pixels);
    static FileWriterParams forAudio(const Aud::Metadata& layout);

    // The shot metadata for the header: video when set, else what the table says of
    // the picture size and rate (which may be unset for a size it does not list).
    ShotVideoMetadata videoMetadata() const;
};

using WriteDoneFn = void (*)(RequestStatus);

// One file being written. The counters belong to the library (it counts accepted frames
// and audio sample frames); the writer's own state is its business.
class FileWriteInstance : public iObject {
public:
    struct Metadata {
        std::atomic<uint32_t> framesWritten{0};
        std::atomic<uint64_t> audioFramesWritten{0};
        Aud::Metadata audioStream; // the layout of the audio being written
    };

    FileWriteInstance(const WString& fileName, const FileWriterParams& params);

    const WString& getFileName() const { return fileName_; }
    const FileWriterParams& getParams() const { return params_; }
    Metadata& getMetadata() { return metadata_; }

    // Frames accepted but not yet on disk (an encoder working behind the caller).
    virtual unsigned pendingFrames() const { return 0; }
    // A writer that takes surfaces directly answers true and implements writeSurface;
    // the others take frames through writeFrame. Both answer 1 when the frame is taken.
    virtual bool takesSurfaces() const { return false; }
    virtual int writeSurface(const Image::Surface& image, int sampleId);
    virtual int writeFrame(const Image::Surface& image, int sampleId);
    // Drops whatever a failed writeFrame left half done.
    virtual void abandonFrame() {}
    // Writes a block of interleaved samples in the layout of getMetadata().audioStream;
    // calls done (when given) with Complete or Failed. Answers 1 when taken.
    virtual int writeAudio(Zn::Ptr<iMemHolder>& samples, WriteDoneFn done);
    // Finishes the file (sizes in headers, trailers). Also done by the destructor of a
    // writer that was not closed. Answers 1 on success.
    virtual int close() { return 1; }

private:
    WString fileName_;
    FileWriterParams params_;
    Metadata metadata_;
};

class iFileWriter : public iObject {
public:
    virtual String name() const = 0;
    virtual bool accepts(const FileWriterParams& params) const = 0;
    // File extensions (without dot) for the parameters, preferred first.
    virtual std::vector<WString> extensions(const FileWriterParams& params) const = 0;
    // Creates the file; answers 1 and sets out, or another value on failure.
    virtual int create(const WString& fileName, FileWriterParams& params, Zn::Ptr<FileWriteInstance>& out) = 0;
};

// The list is a Registry: a leaf lock held only to copy or edit it; writers are called
// without it.
class FileWriterInfo {
public:
    static Zn::Ptr<iFileWriter> getFileWriterFor(const FileWriterParams& params);
    static std::vector<WString> getExtensionsForFormat(const FileWriterParams& params);
    static void registerFileWriter(Zn::Ptr<iFileWriter> writer, int position = -1);
    static bool unregisterFileWriter(const Zn::Ptr<iFileWriter>& writer);
    static std::vector<Zn::Ptr<iFileWriter>> getAll();
};

} // namespace Zn
