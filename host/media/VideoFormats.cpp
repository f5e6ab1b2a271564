// The digital video format table and the frame-rate codes.
#include "host/media/VideoFormats.h"

#include <cmath>

namespace Zn {

namespace {

struct RateFraction {
    FrameRate code;
    int32_t num;
    int32_t den;
};

constexpr RateFraction kRates[] = {
    {kFrameRate23_976, 24000, 1001}, {kFrameRate24, 24, 1},         {kFrameRate25, 25, 1},
    {kFrameRate29_97, 30000, 1001},  {kFrameRate30, 30, 1},         {kFrameRate47_952, 48000, 1001},
    {kFrameRate48, 48, 1},           {kFrameRate50, 50, 1},         {kFrameRate59_94, 60000, 1001},
    {kFrameRate60, 60, 1},
};

const RateFraction* findRate(FrameRate code) noexcept {
    for (const auto& r : kRates)
        if (r.code == code) return &r;
    return nullptr;
}

// Full-size formats come first, so that findBySize prefers a format to a reduced
// variant of a larger one with the same stored size.
const std::vector<DigitalVideoFormat> kFormats = {
    {{1}, "PAL 576", 720, 576, 1},
    {{2}, "NTSC 486", 720, 486, 1},
    {{3}, "NTSC 480", 720, 480, 1},
    {{4}, "HD 720", 1280, 720, 1},
    {{5}, "HD 1080", 1920, 1080, 1},
    {{6}, "2K DCI", 2048, 1080, 1},
    {{7}, "UHD", 3840, 2160, 1},
    {{8}, "4K DCI", 4096, 2160, 1},
    {{101}, "HD 1080 half", 1920, 1080, 2},
    {{102}, "HD 1080 quarter", 1920, 1080, 4},
    {{103}, "UHD half", 3840, 2160, 2},
    {{104}, "UHD quarter", 3840, 2160, 4},
    {{105}, "HD 720 half", 1280, 720, 2},
};

} // namespace

double getFramesPerSecond(FrameRate rate) noexcept {
    const RateFraction* r = findRate(rate);
    return r ? double(r->num) / double(r->den) : 0.0;
}

bool getFrameRateFraction(FrameRate rate, int32_t& numerator, int32_t& denominator) noexcept {
    const RateFraction* r = findRate(rate);
    if (!r) return false;
    numerator = r->num;
    denominator = r->den;
    return true;
}

FrameRate frameRateFromFraction(int32_t numerator, int32_t denominator) noexcept {
    if (numerator <= 0 || denominator <= 0) return kFrameRateUnknown;
    const double fps = double(numerator) / double(denominator);
    for (const auto& r : kRates)
        if (std::fabs(double(r.num) / r.den - fps) < 1e-3) return r.code;
    return kFrameRateUnknown;
}

const DigitalVideoFormat* DigitalVideoFormats::findByUID(const Image::FormatUID& uid) noexcept {
    for (const auto& f : kFormats)
        if (f.uid == uid) return &f;
    return nullptr;
}

const DigitalVideoFormat* DigitalVideoFormats::findBySize(uint32_t width, uint32_t height) noexcept {
    for (const auto& f : kFormats)
        if (f.storedWidth() == width && f.storedHeight() == height) return &f;
    return nullptr;
}

const std::vector<DigitalVideoFormat>& DigitalVideoFormats::all() noexcept { return kFormats; }

} // namespace Zn
