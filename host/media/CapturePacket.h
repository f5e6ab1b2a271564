// CapturePacket: one captured or rendered video frame on its way to a file writer: the
// picture, and where it belongs in the material being written.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/Surface.h"

#include <cstdint>

class CapturePacket : public iObject {
public:
    explicit CapturePacket(const Zn::Image::Surface& image, int64_t frameNumber = -1)
        : image_(image), frameNumber_(frameNumber) {}

    const Zn::Image::Surface& getImage() const noexcept { return image_; }
    // The frame's number in the material, as the capture or render code counts it; -1
    // when it does not say.
    int64_t getFrameNumber() const noexcept { return frameNumber_; }

private:
    Zn::Image::Surface image_;
    int64_t frameNumber_;
};
