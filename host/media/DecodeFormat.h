// DecodeFormat: the form in which a file's frames are wanted. It is passed with every open
// and every read: the image core data (size, pixel format, bit depths; not set means the
// file's native form), a mode telling whether the clip's own high-resolution media or its
// proxy is wanted, and the colour the picture should be delivered in.
#pragma once

#include "host/media/ImageCore.h"

#include <cstdint>

class DecodeFormat : public Zn::Image::Core::Data {
public:
    enum eMode : int32_t {
        kModeNone = 0,
        kModeHighResolution = 1,
        kModeProxy = 2,
    };

    // High resolution, native size and pixel format.
    DecodeFormat() noexcept : mode_(kModeHighResolution) {}
    // "A decode format built from the value n": native form, mode n.
    explicit DecodeFormat(int mode) noexcept : mode_(eMode(mode)) {}
    DecodeFormat(uint32_t width, uint32_t height, Zn::Image::eDataFormat format, int mode = kModeHighResolution) noexcept
        : Data(width, height, format), mode_(eMode(mode)) {}

    // The format used where a caller has none of its own: DecodeFormat(1).
    static const DecodeFormat& getDefault() noexcept;

    eMode getMode() const noexcept { return mode_; }
    void setMode(int mode) noexcept { mode_ = eMode(mode); }
    Zn::Image::eColourSpace getColourSpace() const noexcept { return colourSpace_; }
    void setColourSpace(Zn::Image::eColourSpace c) noexcept { colourSpace_ = c; }
    Zn::Image::eColourRange getColourRange() const noexcept { return colourRange_; }
    void setColourRange(Zn::Image::eColourRange r) noexcept { colourRange_ = r; }

    // Copies the whole format (core data and the further fields) from another one.
    void setDecodeFormat(const DecodeFormat& o) noexcept { *this = o; }

    friend bool operator==(const DecodeFormat& a, const DecodeFormat& b) noexcept {
        return a.coreDataEquals(b) && a.mode_ == b.mode_ && a.colourSpace_ == b.colourSpace_ &&
               a.colourRange_ == b.colourRange_;
    }

private:
    eMode mode_;
    Zn::Image::eColourSpace colourSpace_ = Zn::Image::kColourSpaceUnknown;
    Zn::Image::eColourRange colourRange_ = Zn::Image::kColourRangeUnknown;
};
