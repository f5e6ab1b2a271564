// Reading the boxes of a QuickTime/MP4 file held in memory: big-endian fields, box
// headers (32- and 64-bit sizes, 0 for "to the end"), the children of a container box,
// and the bound check every table read goes through. Shared by the moov reader's files.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ffmpeg_engine::mov_boxes {

using Bytes = std::span<const uint8_t>;

inline constexpr uint32_t fourcc(const char (&s)[5]) {
    return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 | uint32_t(uint8_t(s[2])) << 8 |
           uint32_t(uint8_t(s[3]));
}

inline uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
inline uint64_t be64(const uint8_t* p) { return uint64_t(be32(p)) << 32 | be32(p + 4); }

// A box's header: its type, its size with the header (0: it runs to the end of what
// holds it) and the header's own length.
struct Header {
    uint32_t type = 0;
    uint64_t size = 0;
    unsigned length = 8;
};

// Reads the header at the start of b; false when b is too short or the size is smaller
// than the header itself.
inline bool readHeader(Bytes b, Header& h) {
    if (b.size() < 8) return false;
    const uint32_t size32 = be32(b.data());
    h.type = be32(b.data() + 4);
    h.length = 8;
    h.size = size32;
    if (size32 == 1) {
        if (b.size() < 16) return false;
        h.size = be64(b.data() + 8);
        h.length = 16;
    }
    return h.size == 0 || h.size >= h.length;
}

// The boxes inside a container box's body, one after the other.
class Children {
public:
    explicit Children(Bytes body) : rest_(body) {}
    // The next box's type and body: false at the end, or with error set when the box is
    // malformed. A tail too short for a header ends the list, as for libavformat.
    bool next(uint32_t& type, Bytes& body, std::string& error) {
        if (rest_.size() < 8) return false;
        Header h;
        if (!readHeader(rest_, h)) {
            error = "a box in the moov box has a malformed header";
            return false;
        }
        const uint64_t size = h.size == 0 ? rest_.size() : h.size;
        if (size > rest_.size()) {
            error = "a box in the moov box runs past its parent";
            return false;
        }
        type = h.type;
        body = rest_.subspan(h.length, size_t(size) - h.length);
        rest_ = rest_.subspan(size_t(size));
        return true;
    }

private:
    Bytes rest_;
};

// Whether b holds count entries of entryBytes after its first skip bytes.
inline bool holds(Bytes b, size_t skip, uint64_t count, uint64_t entryBytes) {
    return b.size() >= skip && count <= (b.size() - skip) / entryBytes;
}

} // namespace ffmpeg_engine::mov_boxes
