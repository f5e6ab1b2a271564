// The host's image vocabulary: pixel formats and their plane layouts, orientation and
// colour tags, and Zn::Image::Core::Data, the core description of an image (size, pixel
// format, bit depths) that decode formats, surfaces and frame buffers share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Zn::Image {

// Pixel formats. Values below kFormatFirstCompressed are raw pixels with a known plane
// layout; kFormatCompressed and above are codec bitstreams, whose codec is named by the
// decompression information that travels with them.
enum eDataFormat : int32_t {
    kFormatUnknown = 0,
    kFormatGray8,
    kFormatGray16LE,
    kFormatRGB24,
    kFormatBGR24,
    kFormatRGBA32,
    kFormatBGRA32,
    kFormatARGB32,
    kFormatRGB48LE,
    kFormatRGBA64LE,
    kFormatYUV420P,
    kFormatYUV422P,
    kFormatYUV444P,
    kFormatYUV420P10LE,
    kFormatYUV422P10LE,
    kFormatYUV444P10LE,
    kFormatNV12,
    kFormatUYVY422,
    kFormatYUYV422,
    // Further planar layouts that decoders and uncompressed files deliver natively, so
    // that their frames can be handed out without conversion. Samples wider than 8 bits
    // are stored in 16-bit little-endian words.
    kFormatGray9LE,
    kFormatGray10LE,
    kFormatGray12LE,
    kFormatYUV410P,
    kFormatYUV411P,
    kFormatYUV440P,
    kFormatYUVA420P,
    kFormatYUVA422P,
    kFormatYUVA444P,
    kFormatYUV420P9LE,
    kFormatYUV422P9LE,
    kFormatYUV444P9LE,
    kFormatYUV420P12LE,
    kFormatYUV422P12LE,
    kFormatYUV444P12LE,
    kFormatYUV420P14LE,
    kFormatYUV422P14LE,
    kFormatYUV444P14LE,
    kFormatYUV420P16LE,
    kFormatYUV422P16LE,
    kFormatYUV444P16LE,
    kFormatYUVA444P10LE,
    kFormatGBRP,
    kFormatGBRP10LE,
    kFormatGBRP12LE,
    kFormatGBRP16LE,
    kFormatGBRAP,
    kFormatP010LE,
    kFormatLastRaw = kFormatP010LE,

    kFormatFirstCompressed = 0x100,
    kFormatCompressed = kFormatFirstCompressed,
};

inline bool isCompressedFormat(eDataFormat f) noexcept { return f >= kFormatFirstCompressed; }
inline bool isRawFormat(eDataFormat f) noexcept { return f > kFormatUnknown && f <= kFormatLastRaw; }

enum eOrientation : int32_t {
    kOrientationNormal = 0,
    kOrientationRotate90 = 1,
    kOrientationRotate180 = 2,
    kOrientationRotate270 = 3,
    kOrientationFlipVertical = 4,
    kOrientationFlipHorizontal = 5,
};

enum eColourSpace : int32_t {
    kColourSpaceUnknown = 0,
    kColourSpaceBT601 = 1,
    kColourSpaceBT709 = 2,
    kColourSpaceBT2020 = 3,
};

enum eColourRange : int32_t {
    kColourRangeUnknown = 0,
    kColourRangeLimited = 1, // "video" or "TV" range
    kColourRangeFull = 2,
};

// How one plane of a raw format is laid out: its size is the image size shifted right by
// the subsampling (rounded up), and each of its samples takes bytesPerUnit bytes.
struct PlaneLayout {
    uint8_t log2SubsampleX = 0;
    uint8_t log2SubsampleY = 0;
    uint8_t bytesPerUnit = 0;
};

struct PixelLayout {
    eDataFormat format = kFormatUnknown;
    const char* name = "unknown";
    uint8_t planes = 0;
    uint8_t bitsPerComponent = 0;
    uint8_t bitsPerPixel = 0; // stored bits per pixel, averaged over the planes
    PlaneLayout plane[4];
};

static constexpr unsigned kMaxPlanes = 4;

// The layout of a raw format; a compressed or unknown format answers a layout with no
// planes.
const PixelLayout& pixelLayout(eDataFormat f) noexcept;
const char* formatName(eDataFormat f) noexcept;
// Width and height of plane p for an image of the given size (0 for a plane the format
// does not have).
uint32_t planeWidth(eDataFormat f, unsigned p, uint32_t width) noexcept;
uint32_t planeHeight(eDataFormat f, unsigned p, uint32_t height) noexcept;
// Bytes of one row of plane p without padding.
uint32_t minimumStride(eDataFormat f, unsigned p, uint32_t width) noexcept;
// Bytes of a whole image whose planes follow one another without padding (0 for a
// compressed or unknown format).
size_t frameBytes(eDataFormat f, uint32_t width, uint32_t height) noexcept;
// Splits one contiguous image at base, whose first plane has rows of stride0 bytes, into
// plane pointers and strides. Further planes take the stride of their own rows scaled like
// the first plane's padding (stride0 * planeBytes / lumaBytes), which is how packed
// planar files (Y4M, raw YUV) and decoders writing one block lay them out.
unsigned splitPlanes(eDataFormat f, uint32_t width, uint32_t height, uint8_t* base, uint32_t stride0,
                     uint8_t* planes[kMaxPlanes], uint32_t strides[kMaxPlanes]) noexcept;

namespace Core {

// The core description of an image, as an interface so that classes built on other data
// can answer it too.
class Interface {
public:
    virtual ~Interface() = default;
    virtual uint32_t getWidth() const = 0;
    virtual uint32_t getHeight() const = 0;
    virtual eDataFormat getDataFormat() const = 0;
    virtual uint32_t getBitsPerComponent() const = 0;
    virtual uint32_t getBitsPerPixel() const = 0;
    // False while the description is empty: a decode format without core data means
    // "the file's native size and pixel format".
    virtual bool isCoreDataSet() const = 0;
};

class Data : public Interface {
public:
    Data() noexcept = default;
    Data(uint32_t width, uint32_t height, eDataFormat format) noexcept { setCoreData(width, height, format); }

    uint32_t getWidth() const override { return width_; }
    uint32_t getHeight() const override { return height_; }
    eDataFormat getDataFormat() const override { return format_; }
    uint32_t getBitsPerComponent() const override { return bitsPerComponent_; }
    uint32_t getBitsPerPixel() const override { return bitsPerPixel_; }
    bool isCoreDataSet() const override { return set_; }

    // Size and format; the bit depths come from the format's layout (compressed formats
    // keep the ones already set).
    void setCoreData(uint32_t width, uint32_t height, eDataFormat format) noexcept;
    void setCoreData(uint32_t width, uint32_t height, eDataFormat format, uint32_t bitsPerComponent,
                     uint32_t bitsPerPixel) noexcept;
    // Copies every core field of another description, the set flag included.
    void copyCoreData(const Interface& o) noexcept;
    void setWidth(uint32_t w) noexcept { width_ = w; }
    void setHeight(uint32_t h) noexcept { height_ = h; }
    void setBitsPerComponent(uint32_t b) noexcept { bitsPerComponent_ = b; }
    void setBitsPerPixel(uint32_t b) noexcept { bitsPerPixel_ = b; }
    void clearCoreData() noexcept { *this = Data(); }

    bool coreDataEquals(const Interface& o) const noexcept;

private:
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    eDataFormat format_ = kFormatUnknown;
    uint32_t bitsPerComponent_ = 0;
    uint32_t bitsPerPixel_ = 0;
    bool set_ = false;
};

} // namespace Core
} // namespace Zn::Image
