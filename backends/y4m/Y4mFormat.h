// The YUV4MPEG2 (".y4m") stream format: parsing and writing of the stream header and
// the per-frame headers, and the plane layout of a frame. The reader and writer of the
// Y4M back-end are built on it; it touches no files itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace y4m {

inline constexpr char kMagic[] = "YUV4MPEG2";
// Headers longer than this are refused rather than searched for their end.
inline constexpr size_t kMaxHeaderBytes = 4096;
// Pictures beyond these are refused as absurd.
inline constexpr int kMaxDimension = 32768;
inline constexpr uint64_t kMaxFrameBytes = uint64_t(1) << 30;

struct Layout {
    const char* chromaTag;   // as written after 'C'
    const char* pixelFormat; // FFmpeg's name for the same layout ("yuv420p", "gray16le", ...)
    int chromaShiftX;        // log2 of the horizontal chroma subsampling
    int chromaShiftY;
    int planes;              // 1 (mono), 3, or 4 (with alpha)
    int bitDepth;            // 8..16; above 8, samples are 16-bit little-endian
};

struct StreamHeader {
    int width = 0;
    int height = 0;
    int rateNum = 25;   // frame rate as a fraction; F0:0 (unknown) is stored as 25:1
    int rateDen = 1;
    int aspectNum = 0;  // 0:0 is unknown
    int aspectDen = 0;
    char interlace = 'p'; // 'p', 't', 'b' or 'm'
    Layout layout{};
    size_t headerBytes = 0; // bytes up to and including the header's line feed

    int bytesPerSample() const { return layout.bitDepth > 8 ? 2 : 1; }
    int planeWidth(int plane) const;
    int planeHeight(int plane) const;
    uint64_t planeBytes(int plane) const;
    // Bytes of one frame's pixels, without the frame header.
    uint64_t frameBytes() const;
};

// The layout for a chroma tag, or null when the tag is unknown.
const Layout* findLayout(const std::string& chromaTag);
// The layout for an FFmpeg pixel format name, or null when Y4M cannot carry it.
const Layout* findLayoutByPixelFormat(const std::string& pixelFormat);

// Parses the stream header at the start of data. On failure answers false with a
// one-line reason in error ("not a YUV4MPEG2 stream", "absurd picture size 0x0", ...).
bool parseStreamHeader(const uint8_t* data, size_t size, StreamHeader& out, std::string& error);

// Length of the frame header ("FRAME" with optional parameters and a line feed) at the
// start of data, or 0 when data does not start with a complete frame header.
size_t parseFrameHeader(const uint8_t* data, size_t size);

std::string formatStreamHeader(const StreamHeader& h);
inline constexpr char kFrameHeader[] = "FRAME\n";

} // namespace y4m
