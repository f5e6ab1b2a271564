// IndexInfoRep: the index entry of one frame of a file, as a back-end's frame index
// answers it: where the frame's data lies, and which run of frames one read of it
// produces (a group of pictures decoded together runs from baseFrame + offset to
// lastFrame). Immutable once made, so it is shared between threads without a lock.
#pragma once

#include "host/core/RefCount.h"

#include <cstdint>

class IndexInfoRep : public iObject {
public:
    IndexInfoRep(uint32_t baseFrame, uint32_t offset, uint32_t lastFrame, uint64_t filePosition = 0,
                 uint32_t byteSize = 0, bool keyFrame = true) noexcept
        : baseFrame_(baseFrame), offset_(offset), lastFrame_(lastFrame), filePosition_(filePosition),
          byteSize_(byteSize), keyFrame_(keyFrame) {}

    // The first frame of the run the entry belongs to (a group's key frame).
    uint32_t getBaseFrame() const noexcept { return baseFrame_; }
    // Frames from the base frame to the first frame one read delivers.
    uint32_t getOffset() const noexcept { return offset_; }
    // The last frame one read delivers.
    uint32_t getLastFrame() const noexcept { return lastFrame_; }
    uint32_t getFirstFrame() const noexcept { return baseFrame_ + offset_; }
    uint64_t getFilePosition() const noexcept { return filePosition_; }
    uint32_t getByteSize() const noexcept { return byteSize_; }
    bool isKeyFrame() const noexcept { return keyFrame_; }

private:
    const uint32_t baseFrame_;
    const uint32_t offset_;
    const uint32_t lastFrame_;
    const uint64_t filePosition_;
    const uint32_t byteSize_;
    const bool keyFrame_;
};
