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
    {kFormatGray9LE, "gray9le", 1, 9, 16, {{0, 0, 2}}},
    {kFormatGray10LE, "gray10le", 1, 10, 16, {{0, 0, 2}}},
    {kFormatGray12LE, "gray12le", 1, 12, 16, {{0, 0, 2}}},
    {kFormatYUV410P, "yuv410p", 3, 8, 9, {{0, 0, 1}, {2, 2, 1}, {2, 2, 1}}},
    {kFormatYUV411P, "yuv411p", 3, 8, 12, {{0, 0, 1}, {2, 0, 1}, {2, 0, 1}}},
    {kFormatYUV440P, "yuv440p", 3, 8, 16, {{0, 0, 1}, {0, 1, 1}, {0, 1, 1}}},
    {kFormatYUVA420P, "yuva420p", 4, 8, 20, {{0, 0, 1}, {1, 1, 1}, {1, 1, 1}, {0, 0, 1}}},
    {kFormatYUVA422P, "yuva422p", 4, 8, 24, {{0, 0, 1}, {1, 0, 1}, {1, 0, 1}, {0, 0, 1}}},
    {kFormatYUVA444P, "yuva444p", 4, 8, 32, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}}},
    {kFormatYUV420P9LE, "yuv420p9le", 3, 9, 24, {{0, 0, 2}, {1, 1, 2}, {1, 1, 2}}},
    {kFormatYUV422P9LE, "yuv422p9le", 3, 9, 32, {{0, 0, 2}, {1, 0, 2}, {1, 0, 2}}},
    {kFormatYUV444P9LE, "yuv444p9le", 3, 9, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatYUV420P12LE, "yuv420p12le", 3, 12, 24, {{0, 0, 2}, {1, 1, 2}, {1, 1, 2}}},
    {kFormatYUV422P12LE, "yuv422p12le", 3, 12, 32, {{0, 0, 2}, {1, 0, 2}, {1, 0, 2}}},
    {kFormatYUV444P12LE, "yuv444p12le", 3, 12, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatYUV420P14LE, "yuv420p14le", 3, 14, 24, {{0, 0, 2}, {1, 1, 2}, {1, 1, 2}}},
    {kFormatYUV422P14LE, "yuv422p14le", 3, 14, 32, {{0, 0, 2}, {1, 0, 2}, {1, 0, 2}}},
    {kFormatYUV444P14LE, "yuv444p14le", 3, 14, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatYUV420P16LE, "yuv420p16le", 3, 16, 24, {{0, 0, 2}, {1, 1, 2}, {1, 1, 2}}},
    {kFormatYUV422P16LE, "yuv422p16le", 3, 16, 32, {{0, 0, 2}, {1, 0, 2}, {1, 0, 2}}},
    {kFormatYUV444P16LE, "yuv444p16le", 3, 16, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatYUVA444P10LE, "yuva444p10le", 4, 10, 64, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatGBRP, "gbrp", 3, 8, 24, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}},
    {kFormatGBRP10LE, "gbrp10le", 3, 10, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatGBRP12LE, "gbrp12le", 3, 12, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatGBRP16LE, "gbrp16le", 3, 16, 48, {{0, 0, 2}, {0, 0, 2}, {0, 0, 2}}},
    {kFormatGBRAP, "gbrap", 4, 8, 32, {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}}},
    {kFormatP010LE, "p010le", 2, 10, 24, {{0, 0, 2}, {1, 1, 4}}},
};
static_assert(sizeof(kLayouts) / sizeof(kLayouts[0]) == kFormatLastRaw + 1);
constexpr bool layoutsInEnumOrder() {
    for (int i = 0; i <= kFormatLastRaw; ++i)
        if (kLayouts[i].format != i) return false;
    return true;
}
static_assert(layoutsInEnumOrder(), "kLayouts is indexed by eDataFormat");

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
