// Frames with known pixels for the writer tests, and their bytes packed plane after plane
// without padding: the layout `ffmpeg -f rawvideo` produces, so that what FFmpeg decodes
// from a written file compares with what was written byte for byte. Also: such frames
// written one after another.
#pragma once

#include "host/media/FileWriterInfo.h"
#include "host/media/Surface.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace testing_support {

// A frame whose every byte depends on its position and the frame number n. For formats
// of more than 8 bits the samples stay within 10 bits, as the format allows.
inline Zn::Image::Surface patternFrame(Zn::Image::eDataFormat f, uint32_t w, uint32_t h, int n) {
    Zn::Image::Surface s = Zn::Image::Surface::allocate(Zn::Image::Core::Data(w, h, f));
    const bool wide = Zn::Image::pixelLayout(f).bitsPerComponent > 8;
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t rowBytes = Zn::Image::minimumStride(f, p, w);
        for (uint32_t y = 0; y < Zn::Image::planeHeight(f, p, h); ++y) {
            uint8_t* row = s.plane(p) + size_t(y) * s.stride(p);
            for (uint32_t x = 0; x < rowBytes; ++x) {
                uint8_t v = uint8_t(x * 3 + y * 7 + p * 50 + n * 11);
                row[x] = wide && (x & 1) ? uint8_t(v & 3) : v;
            }
        }
    }
    s.set();
    return s;
}

inline std::string packedBytes(const Zn::Image::Surface& s) {
    std::string bytes;
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t rowBytes = Zn::Image::minimumStride(s.getDataFormat(), p, s.getWidth());
        for (uint32_t y = 0; y < Zn::Image::planeHeight(s.getDataFormat(), p, s.getHeight()); ++y)
            bytes.append(reinterpret_cast<const char*>(s.plane(p) + size_t(y) * s.stride(p)), rowBytes);
    }
    return bytes;
}

// Writes n pattern frames (numbered from 0), each of which must be taken; answers their
// packed bytes one after the other.
inline std::string writePatternFrames(Zn::FileWriteInstance& out, Zn::Image::eDataFormat f, uint32_t w, uint32_t h,
                                      int n) {
    std::string all;
    for (int i = 0; i < n; ++i) {
        Zn::Image::Surface frame = patternFrame(f, w, h, i);
        all += packedBytes(frame);
        EXPECT_EQ(out.writeFrame(frame, i), 1) << "frame " << i;
    }
    return all;
}

} // namespace testing_support
