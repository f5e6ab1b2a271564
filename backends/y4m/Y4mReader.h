// The Y4M back-end's file reader: uncompressed YUV4MPEG2 video, every chroma layout and
// bit depth the format defines. A frame is read with one pread of its pixels into a block
// that the request then describes as the frame's surface without copying. When the
// request wants another pixel format or size, the block goes out as "raw" data for a
// decoder registered with Zn::DecoderInfo to convert.
#pragma once

#include "backends/Result.h"
#include "backends/y4m/Y4mFormat.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/open/FileReadInstance.h"

#include <string>
#include <vector>

namespace y4m {

// The host pixel format of a Y4M layout (kFormatUnknown when the host has none).
Zn::Image::eDataFormat hostFormatOf(const Layout& layout);

// Threads: everything is fixed at open (the header, the frame offsets, the descriptor);
// reads use pread only, so reads from any thread need no lock. Frame memory comes from a
// pool of its own (see BlockPool in the .cpp), which has its own leaf lock.
class Y4mReadInstance : public FileReadInstance {
public:
    // Opens and indexes the file; fails with a reason when it is not a Y4M stream, its
    // header is absurd, or it holds no complete frame, and with the errno as cause when
    // the system failed rather than the file.
    static backend::Result<Zn::Ptr<Y4mReadInstance>> open(const DecodeFormat& format, const WString& fileName,
                                                          OpenType type);
    ~Y4mReadInstance() override;

    String getReaderName() const override { return "Y4M"; }
    eReadResult readVideo(Zn::Ptr<FrameBufferRep>& buffer, Zn::Ptr<VideoReadRequest>& request) override;
    using FileReadInstance::readVideo;

    const StreamHeader& header() const { return header_; }
    uint32_t frameCount() const { return uint32_t(offsets_.size()); }

private:
    Y4mReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type, int fd, const StreamHeader& h,
                    std::vector<uint64_t> offsets);
    class BlockPool;

    const int fd_;
    const StreamHeader header_;
    const Zn::Image::eDataFormat format_;
    const std::vector<uint64_t> offsets_; // where each complete frame's pixels start
    const Zn::Ptr<BlockPool> blocks_;
};

// Accepts files named .y4m or starting with the YUV4MPEG2 signature, for video.
class Y4mFileReader : public Zn::iFileReader {
public:
    String name() const override { return "Y4M"; }
    bool accepts(const WString& fileName, OpenType type) override;
    Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    Opened openFile(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    unsigned capabilities(const DecodeFormat& format, OpenType type, const PlayFileMetadataRep& metadata,
                          const Aud::Metadata& stream, Zn::ReaderDetails& details) override;
};

// Registers the Y4M reader and writer with the host; later calls do nothing.
void registerBackend();

} // namespace y4m
