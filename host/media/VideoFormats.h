// The host's table of digital video formats (picture sizes an editor works in, each with
// a size divisor for its reduced-size variants) and its frame-rate codes. Material
// carries a format identifier and a rate code rather than raw numbers, so that two clips
// of "1080 HD at 29.97" agree exactly; these functions turn the codes back into numbers.
#pragma once

#include <cstdint>
#include <vector>

namespace Zn {

namespace Image {
// Identifier of a digital video format; 0 names none.
struct FormatUID {
    uint32_t value = 0;
    bool valid() const noexcept { return value != 0; }
    friend bool operator==(const FormatUID&, const FormatUID&) = default;
};
} // namespace Image

// Frame-rate codes. The fractional NTSC-family rates are exact (24000/1001 and so on).
enum FrameRate : int32_t {
    kFrameRateUnknown = 0,
    kFrameRate23_976,
    kFrameRate24,
    kFrameRate25,
    kFrameRate29_97,
    kFrameRate30,
    kFrameRate47_952,
    kFrameRate48,
    kFrameRate50,
    kFrameRate59_94,
    kFrameRate60,
};

// Frames per second of a code; 0.0 for kFrameRateUnknown or a code not listed.
double getFramesPerSecond(FrameRate rate) noexcept;
// The code as a fraction (numerator / denominator); false for an unknown code.
bool getFrameRateFraction(FrameRate rate, int32_t& numerator, int32_t& denominator) noexcept;
// The code of a rate given as a fraction, matched within a thousandth of a frame per
// second; kFrameRateUnknown when none is that close.
FrameRate frameRateFromFraction(int32_t numerator, int32_t denominator) noexcept;

// One format: its full pixel size and the divisor that gives the picture actually stored
// (1 for the format itself; 2 or 4 for the half- and quarter-size proxies of it).
struct DigitalVideoFormat {
    Image::FormatUID uid;
    const char* name;
    uint32_t pixelWidth;
    uint32_t pixelHeight;
    uint32_t sizeDivisor;

    uint32_t storedWidth() const noexcept { return sizeDivisor ? pixelWidth / sizeDivisor : 0; }
    uint32_t storedHeight() const noexcept { return sizeDivisor ? pixelHeight / sizeDivisor : 0; }
};

// The built-in table; constant, so safe from any thread.
class DigitalVideoFormats {
public:
    // The record of an identifier; null when there is none.
    static const DigitalVideoFormat* findByUID(const Image::FormatUID& uid) noexcept;
    // The first record whose stored picture has that size; null when none has.
    static const DigitalVideoFormat* findBySize(uint32_t width, uint32_t height) noexcept;
    static const std::vector<DigitalVideoFormat>& all() noexcept;
};

} // namespace Zn
