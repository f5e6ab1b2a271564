// Pixel layouts and the core image description.
#include "host/media/ImageCore.h"

#include <algorithm>

namespace Zn::Image {

namespace {

constexpr PixelLayout kNoLayout{};

// Indexed by eDataFormat for the raw formats.
constexpr PixelLayout kLayouts[] = {
    {kFormatUnknown, "unknown", 0, 0, 0, {}},
    {kFormatGray8, "gray8", 1, 8, 8, {{0, 0, 1}}},
    {kFormatGray16LE, "gray16le", 1, 16, 16, {{0, 0, 2}}},
    {kFormatRGB24, "rgb24", 1, 8, 24, {{0, 0, 3}}},
    {kFormatBGR24, "bgr24", 1, 8, 24, {{0, 0, 3}}},
    {kFormatRGBA32, "rgba", 1, 8, 32, {{0, 0, 4}}},
    {kFormatBGRA32, "bgra", 1, 8, 32, {{0, 0, 4}}},
    {kFormatARGB32, "argb", 1, 8, 32, {{0, 0, 4}}},
    {kFormatRGB48LE, "rgb48le", 1, 16, 48, {{0, 0, 6}}},
    {kFormatRGBA64LE, "rgba64le", 1, 16, 64, {{0, 0, 8}}},
    {kFormatYUV420P, "yuv420p", 3, 8, 12, {{0, 0, 1}, {1, 1, 1}, {1, 1, 1}}},
    {kFormatYUV422P, "yuv422p", 3, 8, 16, {{0, 0, 1}, {1, 0, 1}, {1, 0, 1}}},
    {kFormatYUV444P, "yuv444p", 3, 8, 24, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}},
    {kFormatYUV420P10LE, "yuv420p10le", 3, 10, 24, {{0, 0, 2}, {1, 1, 2}, {1, 1, 2}}},
    {kFormatYUV422P10LE, "yuv422p10le", 3, 10, 32, {{0, 0, 2}, {1, 0, 2}, {1, 0, 2}}},
    {kFormatYUV444P10LE, "yuv444p10le", 3, 10, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatNV12, "nv12", 2, 8, 12, {{0, 0, 1}, {1, 1, 2}}},
    {kFormatUYVY422, "uyvy422", 1, 8, 16, {{0, 0, 2}}},
    {kFormatYUYV422, "yuyv422", 1, 8, 16, {{0, 0, 2}}},
};
static_assert(sizeof(kLayouts) / sizeof(kLayouts[0]) == kFormatLastRaw + 1);

uint32_t shiftUp(uint32_t v, unsigned s) noexcept { return (v + (1u << s) - 1) >> s; }

} // namespace

const PixelLayout& pixelLayout(eDataFormat f) noexcept {
    return isRawFormat(f) ? kLayouts[f] : kNoLayout;
}

const char* formatName(eDataFormat f) noexcept {
    if (isCompressedFormat(f)) return "compressed";
    return pixelLayout(f).name;
}

uint32_t planeWidth(eDataFormat f, unsigned p, uint32_t width) noexcept {
    const PixelLayout& l = pixelLayout(f);
    return p < l.planes ? shiftUp(width, l.plane[p].log2SubsampleX) : 0;
}

uint32_t planeHeight(eDataFormat f, unsigned p, uint32_t height) noexcept {
    const PixelLayout& l = pixelLayout(f);
    return p < l.planes ? shiftUp(height, l.plane[p].log2SubsampleY) : 0;
}

uint32_t minimumStride(eDataFormat f, unsigned p, uint32_t width) noexcept {
    const PixelLayout& l = pixelLayout(f);
    return p < l.planes ? planeWidth(f, p, width) * l.plane[p].bytesPerUnit : 0;
}

size_t frameBytes(eDataFormat f, uint32_t width, uint32_t height) noexcept {
    const PixelLayout& l = pixelLayout(f);
    size_t total = 0;
    for (unsigned p = 0; p < l.planes; ++p)
        total += size_t(minimumStride(f, p, width)) * planeHeight(f, p, height);
    return total;
}

unsigned splitPlanes(eDataFormat f, uint32_t width, uint32_t height, uint8_t* base, uint32_t stride0,
                     uint8_t* planes[kMaxPlanes], uint32_t strides[kMaxPlanes]) noexcept {
    const PixelLayout& l = pixelLayout(f);
    std::fill(planes, planes + kMaxPlanes, nullptr);
    std::fill(strides, strides + kMaxPlanes, 0u);
    if (l.planes == 0 || !base) return 0;
    uint32_t tight0 = minimumStride(f, 0, width);
    if (stride0 < tight0) stride0 = tight0;
    uint8_t* at = base;
    for (unsigned p = 0; p < l.planes; ++p) {
        uint32_t stride = minimumStride(f, p, width);
        if (p == 0) {
            stride = stride0;
        } else if (stride0 != tight0) {
            uint64_t scaled = uint64_t(stride0) * l.plane[p].bytesPerUnit;
            uint64_t div = uint64_t(l.plane[0].bytesPerUnit) << l.plane[p].log2SubsampleX;
            stride = std::max<uint32_t>(stride, uint32_t((scaled + div - 1) / div));
        }
        planes[p] = at;
        strides[p] = stride;
        at += size_t(stride) * planeHeight(f, p, height);
    }
    return l.planes;
}

namespace Core {

void Data::setCoreData(uint32_t width, uint32_t height, eDataFormat format) noexcept {
    const PixelLayout& l = pixelLayout(format);
    if (l.planes) setCoreData(width, height, format, l.bitsPerComponent, l.bitsPerPixel);
    else setCoreData(width, height, format, bitsPerComponent_, bitsPerPixel_);
}

void Data::setCoreData(uint32_t width, uint32_t height, eDataFormat format, uint32_t bitsPerComponent,
                       uint32_t bitsPerPixel) noexcept {
    width_ = width;
    height_ = height;
    format_ = format;
    bitsPerComponent_ = bitsPerComponent;
    bitsPerPixel_ = bitsPerPixel;
    set_ = true;
}

void Data::copyCoreData(const Interface& o) noexcept {
    width_ = o.getWidth();
    height_ = o.getHeight();
    format_ = o.getDataFormat();
    bitsPerComponent_ = o.getBitsPerComponent();
    bitsPerPixel_ = o.getBitsPerPixel();
    set_ = o.isCoreDataSet();
}

bool Data::coreDataEquals(const Interface& o) const noexcept {
    return width_ == o.getWidth() && height_ == o.getHeight() && format_ == o.getDataFormat() &&
           bitsPerComponent_ == o.getBitsPerComponent() && bitsPerPixel_ == o.getBitsPerPixel() &&
           set_ == o.isCoreDataSet();
}

} // namespace Core
} // namespace Zn::Image
