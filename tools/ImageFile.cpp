// PNG without compression (stored deflate blocks): the images are for looking at and
// comparing, and this keeps the program free of an image library.
#include "tools/ImageFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

namespace tool {
namespace {

using namespace Zn::Image;

struct Layout {
    int channels = 0; // 1 gray, 3 RGB, 4 RGBA
    int bytes = 0;    // per channel: 1, or 2 (little-endian in memory)
};

Layout layoutOf(eDataFormat f) {
    switch (f) {
    case kFormatGray8: return {1, 1};
    case kFormatGray16LE: return {1, 2};
    case kFormatRGB24: return {3, 1};
    case kFormatRGB48LE: return {3, 2};
    case kFormatRGBA32: return {4, 1};
    case kFormatRGBA64LE: return {4, 2};
    default: return {};
    }
}

// One row in file order: 16-bit samples big-endian, as both formats store them.
void fileRow(const uint8_t* row, size_t bytes, int sampleBytes, std::vector<uint8_t>& out) {
    out.assign(row, row + bytes);
    if (sampleBytes == 2)
        for (size_t i = 0; i + 1 < bytes; i += 2) std::swap(out[i], out[i + 1]);
}

const std::array<uint32_t, 256>& crcTable() {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = c & 1 ? 0xedb88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    return table;
}

uint32_t crc32(uint32_t crc, const uint8_t* p, size_t n) {
    crc = ~crc;
    for (size_t i = 0; i < n; ++i) crc = crcTable()[(crc ^ p[i]) & 0xff] ^ (crc >> 8);
    return ~crc;
}

void put32(std::vector<uint8_t>& v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8) v.push_back(uint8_t(x >> s));
}

void chunk(std::FILE* f, const char type[4], const std::vector<uint8_t>& data) {
    std::vector<uint8_t> head;
    put32(head, uint32_t(data.size()));
    head.insert(head.end(), type, type + 4);
    std::fwrite(head.data(), 1, head.size(), f);
    if (!data.empty()) std::fwrite(data.data(), 1, data.size(), f);
    uint32_t crc = crc32(0, reinterpret_cast<const uint8_t*>(type), 4);
    crc = crc32(crc, data.data(), data.size());
    std::vector<uint8_t> tail;
    put32(tail, crc);
    std::fwrite(tail.data(), 1, 4, f);
}

void writePng(std::FILE* f, const Surface& s, Layout l) {
    static const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    std::fwrite(signature, 1, 8, f);
    std::vector<uint8_t> ihdr;
    put32(ihdr, s.getWidth());
    put32(ihdr, s.getHeight());
    static const uint8_t colourType[5] = {0, 0, 0, 2, 6};
    ihdr.insert(ihdr.end(), {uint8_t(l.bytes * 8), colourType[l.channels], 0, 0, 0});
    chunk(f, "IHDR", ihdr);

    // The zlib stream: each row (filter byte 0, then the samples) in stored blocks.
    std::vector<uint8_t> raw;
    const size_t rowBytes = size_t(s.getWidth()) * l.channels * l.bytes;
    std::vector<uint8_t> row;
    for (uint32_t y = 0; y < s.getHeight(); ++y) {
        raw.push_back(0);
        fileRow(s.plane(0) + size_t(y) * s.stride(0), rowBytes, l.bytes, row);
        raw.insert(raw.end(), row.begin(), row.end());
    }
    std::vector<uint8_t> z = {0x78, 0x01};
    uint32_t a = 1, b = 0;
    for (uint8_t c : raw) {
        a = (a + c) % 65521;
        b = (b + a) % 65521;
    }
    for (size_t at = 0; at < raw.size() || at == 0; at += 65535) {
        const size_t n = std::min<size_t>(65535, raw.size() - at);
        const bool last = at + n >= raw.size();
        z.insert(z.end(), {uint8_t(last), uint8_t(n), uint8_t(n >> 8), uint8_t(~n), uint8_t(~n >> 8)});
        z.insert(z.end(), raw.begin() + std::ptrdiff_t(at), raw.begin() + std::ptrdiff_t(at + n));
        if (last) break;
    }
    put32(z, (b << 16) | a);
    chunk(f, "IDAT", z);
    chunk(f, "IEND", {});
}

void writePnm(std::FILE* f, const Surface& s, Layout l) {
    std::fprintf(f, "P%d\n%u %u\n%d\n", l.channels == 1 ? 5 : 6, s.getWidth(), s.getHeight(),
                 l.bytes == 2 ? 65535 : 255);
    const size_t rowBytes = size_t(s.getWidth()) * l.channels * l.bytes;
    std::vector<uint8_t> row;
    for (uint32_t y = 0; y < s.getHeight(); ++y) {
        fileRow(s.plane(0) + size_t(y) * s.stride(0), rowBytes, l.bytes, row);
        std::fwrite(row.data(), 1, row.size(), f);
    }
}

} // namespace

bool imageHolds(ImageKind kind, eDataFormat format) {
    const Layout l = layoutOf(format);
    return kind == ImageKind::kPng ? l.channels != 0 : l.channels == 1 || l.channels == 3;
}

const char* imageExtension(ImageKind kind, eDataFormat format) {
    if (kind == ImageKind::kPng) return "png";
    return layoutOf(format).channels == 1 ? "pgm" : "ppm";
}

bool writeImage(const std::string& path, ImageKind kind, const Surface& picture, std::string& error) {
    const Layout l = layoutOf(picture.getDataFormat());
    if (!imageHolds(kind, picture.getDataFormat())) {
        error = std::string("a ") + formatName(picture.getDataFormat()) + " picture cannot be written as " +
                (kind == ImageKind::kPng ? "PNG" : "PPM/PGM");
        return false;
    }
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    if (kind == ImageKind::kPng)
        writePng(f, picture, l);
    else
        writePnm(f, picture, l);
    const bool ok = !std::ferror(f);
    if (std::fclose(f) != 0 || !ok) {
        error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace tool
