// ShotVideoMetadata: the picture format and frame rate of a shot as the host records
// them for new material: a digital video format identifier and a frame-rate code (see
// VideoFormats.h), not raw sizes and rates.
#pragma once

#include "host/media/VideoFormats.h"

class ShotVideoMetadata {
public:
    ShotVideoMetadata() = default;
    ShotVideoMetadata(Zn::Image::FormatUID format, Zn::FrameRate rate) : format_(format), rate_(rate) {}

    // The metadata of a picture size and rate given as numbers: the first format whose
    // stored picture has that size and the code of the rate. Either part is left unset
    // (invalid identifier, kFrameRateUnknown) when the table has no match.
    static ShotVideoMetadata fromPicture(uint32_t width, uint32_t height, int32_t rateNum, int32_t rateDen) {
        const Zn::DigitalVideoFormat* f = Zn::DigitalVideoFormats::findBySize(width, height);
        return ShotVideoMetadata(f ? f->uid : Zn::Image::FormatUID{}, Zn::frameRateFromFraction(rateNum, rateDen));
    }

    Zn::Image::FormatUID getVideoFormatUID() const noexcept { return format_; }
    void setVideoFormatUID(Zn::Image::FormatUID f) noexcept { format_ = f; }
    Zn::FrameRate getFrameRate() const noexcept { return rate_; }
    void setFrameRate(Zn::FrameRate r) noexcept { rate_ = r; }
    bool isSet() const noexcept { return format_.valid(); }

private:
    Zn::Image::FormatUID format_;
    Zn::FrameRate rate_ = Zn::kFrameRateUnknown;
};
