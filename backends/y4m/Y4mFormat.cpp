#include "backends/y4m/Y4mFormat.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace y4m {

namespace {

constexpr Layout kLayouts[] = {
    {"420jpeg", "yuv420p", 1, 1, 3, 8},     {"420mpeg2", "yuv420p", 1, 1, 3, 8},
    {"420paldv", "yuv420p", 1, 1, 3, 8},    {"420", "yuv420p", 1, 1, 3, 8},
    {"411", "yuv411p", 2, 0, 3, 8},         {"422", "yuv422p", 1, 0, 3, 8},
    {"444", "yuv444p", 0, 0, 3, 8},         {"444alpha", "yuva444p", 0, 0, 4, 8},
    {"mono", "gray", 0, 0, 1, 8},           {"mono9", "gray9le", 0, 0, 1, 9},
    {"mono10", "gray10le", 0, 0, 1, 10},    {"mono12", "gray12le", 0, 0, 1, 12},
    {"mono16", "gray16le", 0, 0, 1, 16},    {"420p9", "yuv420p9le", 1, 1, 3, 9},
    {"422p9", "yuv422p9le", 1, 0, 3, 9},    {"444p9", "yuv444p9le", 0, 0, 3, 9},
    {"420p10", "yuv420p10le", 1, 1, 3, 10}, {"422p10", "yuv422p10le", 1, 0, 3, 10},
    {"444p10", "yuv444p10le", 0, 0, 3, 10}, {"420p12", "yuv420p12le", 1, 1, 3, 12},
    {"422p12", "yuv422p12le", 1, 0, 3, 12}, {"444p12", "yuv444p12le", 0, 0, 3, 12},
    {"420p14", "yuv420p14le", 1, 1, 3, 14}, {"422p14", "yuv422p14le", 1, 0, 3, 14},
    {"444p14", "yuv444p14le", 0, 0, 3, 14}, {"420p16", "yuv420p16le", 1, 1, 3, 16},
    {"422p16", "yuv422p16le", 1, 0, 3, 16}, {"444p16", "yuv444p16le", 0, 0, 3, 16},
};

// The grammar's bytes: printable ASCII. Parameters are separated by spaces and the line
// ends at its line feed; anything else (NUL, tabs, carriage returns, other control bytes)
// is outside it.
bool printable(char c) { return c >= 0x20 && c < 0x7f; }

// A run of 1 to 9 decimal digits, nothing else (no sign, no spaces).
bool parseDigits(std::string_view s, int& out) {
    if (s.empty() || s.size() > 9) return false;
    int v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    out = v;
    return true;
}

// Parses "num:den" with both parts non-negative integers.
bool parseRatio(std::string_view s, int& num, int& den) {
    const size_t colon = s.find(':');
    if (colon == std::string_view::npos) return false;
    int n = 0, d = 0;
    if (!parseDigits(s.substr(0, colon), n) || !parseDigits(s.substr(colon + 1), d)) return false;
    num = n;
    den = d;
    return true;
}

} // namespace

int StreamHeader::planeWidth(int plane) const {
    if (plane == 1 || plane == 2) return (width + (1 << layout.chromaShiftX) - 1) >> layout.chromaShiftX;
    return width;
}

int StreamHeader::planeHeight(int plane) const {
    if (plane == 1 || plane == 2) return (height + (1 << layout.chromaShiftY) - 1) >> layout.chromaShiftY;
    return height;
}

uint64_t StreamHeader::planeBytes(int plane) const {
    return uint64_t(planeWidth(plane)) * uint64_t(planeHeight(plane)) * uint64_t(bytesPerSample());
}

uint64_t StreamHeader::frameBytes() const {
    uint64_t total = 0;
    for (int p = 0; p < layout.planes; ++p) total += planeBytes(p);
    return total;
}

const Layout* findLayout(const std::string& chromaTag) {
    for (const Layout& l : kLayouts)
        if (chromaTag == l.chromaTag) return &l;
    return nullptr;
}

const Layout* findLayoutByPixelFormat(const std::string& pixelFormat) {
    for (const Layout& l : kLayouts)
        if (pixelFormat == l.pixelFormat) return &l; // the first tag of a format is the plain one
    return nullptr;
}

bool parseStreamHeader(const uint8_t* data, size_t size, StreamHeader& out, std::string& error) {
    const size_t magicLen = sizeof(kMagic) - 1;
    if (size < magicLen || std::memcmp(data, kMagic, magicLen) != 0) {
        error = "not a YUV4MPEG2 stream";
        return false;
    }
    const size_t limit = size < kMaxHeaderBytes ? size : kMaxHeaderBytes;
    const void* nl = std::memchr(data, '\n', limit);
    if (!nl) {
        error = size < kMaxHeaderBytes ? "truncated YUV4MPEG2 header" : "YUV4MPEG2 header too long";
        return false;
    }
    const size_t lineEnd = size_t(static_cast<const uint8_t*>(nl) - data);
    const std::string line(reinterpret_cast<const char*>(data) + magicLen, lineEnd - magicLen);
    if (!line.empty() && line[0] != ' ') {
        error = "not a YUV4MPEG2 stream";
        return false;
    }
    for (char c : line)
        if (!printable(c)) {
            error = "YUV4MPEG2 header holds a control byte";
            return false;
        }

    StreamHeader h;
    h.layout = *findLayout("420jpeg");
    bool haveW = false, haveH = false;
    size_t pos = 0;
    while (pos < line.size()) {
        if (line[pos] == ' ') {
            ++pos;
            continue;
        }
        size_t end = line.find(' ', pos);
        if (end == std::string::npos) end = line.size();
        char tag = line[pos];
        std::string value = line.substr(pos + 1, end - pos - 1);
        pos = end;
        switch (tag) {
        case 'W': haveW = parseDigits(value, h.width); if (!haveW) { error = "bad width '" + value + "'"; return false; } break;
        case 'H': haveH = parseDigits(value, h.height); if (!haveH) { error = "bad height '" + value + "'"; return false; } break;
        case 'F':
            if (!parseRatio(value, h.rateNum, h.rateDen)) { error = "bad frame rate '" + value + "'"; return false; }
            if (h.rateNum == 0 || h.rateDen == 0) { h.rateNum = 25; h.rateDen = 1; }
            break;
        case 'A':
            if (!parseRatio(value, h.aspectNum, h.aspectDen)) { error = "bad aspect ratio '" + value + "'"; return false; }
            break;
        case 'I':
            if (value.size() != 1 || std::string_view("ptbm?").find(value[0]) == std::string_view::npos) { error = "bad interlacing '" + value + "'"; return false; }
            h.interlace = value[0] == '?' ? 'p' : value[0];
            break;
        case 'C': {
            const Layout* l = findLayout(value);
            if (!l) { error = "unsupported chroma layout '" + value + "'"; return false; }
            h.layout = *l;
            break;
        }
        default: break; // X (comments and extensions) and unknown tags are skipped
        }
    }
    if (!haveW || !haveH) {
        error = "YUV4MPEG2 header without picture size";
        return false;
    }
    if (h.width < 1 || h.height < 1 || h.width > kMaxDimension || h.height > kMaxDimension ||
        h.frameBytes() > kMaxFrameBytes) {
        error = "absurd picture size " + std::to_string(h.width) + "x" + std::to_string(h.height);
        return false;
    }
    h.headerBytes = lineEnd + 1;
    out = h;
    return true;
}

size_t parseFrameHeader(const uint8_t* data, size_t size) {
    if (size < 6 || std::memcmp(data, "FRAME", 5) != 0) return 0;
    if (data[5] != '\n' && data[5] != ' ') return 0;
    const size_t limit = size < kMaxHeaderBytes ? size : kMaxHeaderBytes;
    const void* nl = std::memchr(data + 5, '\n', limit - 5);
    if (!nl) return 0;
    const size_t end = size_t(static_cast<const uint8_t*>(nl) - data);
    for (size_t i = 5; i < end; ++i)
        if (!printable(char(data[i]))) return 0;
    return end + 1;
}

std::string formatStreamHeader(const StreamHeader& h) {
    char buf[256];
    std::snprintf(buf, sizeof buf, "%s W%d H%d F%d:%d I%c A%d:%d C%s\n", kMagic, h.width, h.height, h.rateNum,
                  h.rateDen, h.interlace, h.aspectNum, h.aspectDen, h.layout.chromaTag);
    return buf;
}

} // namespace y4m
