// Pictures as files and as bytes: a surface's planes packed without row padding (the
// bytes `ffmpeg -f framemd5` hashes for a picture of the same pixel format), and PNG,
// PPM and PGM files of gray and RGB pictures for `playfile frames --out`.
#pragma once

#include "host/media/Surface.h"

#include <string>

namespace tool {

// Hands each row of each plane, without padding, to add(data, bytes).
template <class Add> void forEachPackedRow(const Zn::Image::Surface& s, Add add) {
    const Zn::Image::eDataFormat f = s.getDataFormat();
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t row = Zn::Image::minimumStride(f, p, s.getWidth());
        const uint32_t rows = Zn::Image::planeHeight(f, p, s.getHeight());
        for (uint32_t y = 0; y < rows; ++y) add(s.plane(p) + size_t(y) * s.stride(p), row);
    }
}

enum class ImageKind { kPng, kPnm };

// Whether pictures of the format can be written as images of that kind (PNG: gray and
// RGB with or without alpha, 8 or 16 bits; PNM: gray and RGB).
bool imageHolds(ImageKind kind, Zn::Image::eDataFormat format);
// The file name extension: "png", "pgm" or "ppm".
const char* imageExtension(ImageKind kind, Zn::Image::eDataFormat format);
// Writes the picture; false with error set when the file cannot be written.
bool writeImage(const std::string& path, ImageKind kind, const Zn::Image::Surface& picture, std::string& error);

} // namespace tool
