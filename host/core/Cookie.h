// Cookie: the host's identifier of a clip, log, edit or material item. A type letter
// ('V' video material, 'S' sound material, 'I' image, 'E' edit), two 32-bit identifier
// words and an index byte (a video variant 0-23, an audio channel 1..n, 255 for none).
// A clip and its material share the identifier words. Its text form is safe inside a
// file name and parses back to the same cookie: "V0001e240_00000007_ff".
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/Vector.h"

#include <cstdint>
#include <functional>

using CookieType = char;

class Cookie {
public:
    static constexpr uint8_t kNoIndex = 255;
    // The second identifier word of the host's reserved filler material.
    static constexpr uint32_t kFillerWord = 647;

    constexpr Cookie() noexcept = default;
    constexpr Cookie(CookieType type, uint32_t id1, uint32_t id2, uint8_t index = kNoIndex) noexcept
        : type_(type), id1_(id1), id2_(id2), index_(index) {}
    // Parses the text form; anything else gives an invalid cookie. With logErrors, a
    // text that does not parse is reported in the log.
    Cookie(const String& text, bool logErrors);
    Cookie(const WString& text, bool logErrors);

    CookieType type() const noexcept { return type_; }
    uint32_t id1() const noexcept { return id1_; }
    uint32_t id2() const noexcept { return id2_; }
    uint8_t index() const noexcept { return index_; }
    bool valid() const noexcept { return type_ != 0; }
    bool isFiller() const noexcept { return valid() && id2_ == kFillerWord; }
    // True when both name the same item regardless of type letter and index.
    bool sameItem(const Cookie& o) const noexcept { return id1_ == o.id1_ && id2_ == o.id2_; }

    String asString() const;
    WString asWString() const;

    // Orders by identifier words, then type letter, then index: -1, 0 or 1.
    int compare(const Cookie& o) const noexcept;
    friend bool operator==(const Cookie& a, const Cookie& b) noexcept { return a.compare(b) == 0; }
    friend bool operator<(const Cookie& a, const Cookie& b) noexcept { return a.compare(b) < 0; }

private:
    CookieType type_ = 0;
    uint32_t id1_ = 0;
    uint32_t id2_ = 0;
    uint8_t index_ = kNoIndex;
};

// The same item re-typed: a clip's video material is convertCookie(clip, 'V', 0), its
// third audio channel convertCookie(clip, 'S', 3).
inline Cookie convertCookie(const Cookie& c, CookieType type, unsigned char index) noexcept {
    return Cookie(type, c.id1(), c.id2(), index);
}

class CookieVec : public Vector<Cookie> {
public:
    using Vector<Cookie>::Vector;
};

template <> struct std::hash<Cookie> {
    size_t operator()(const Cookie& c) const noexcept {
        uint64_t v = (uint64_t(c.id1()) << 32) ^ c.id2() ^ (uint64_t(uint8_t(c.type())) << 56) ^
                     (uint64_t(c.index()) << 48);
        return std::hash<uint64_t>()(v);
    }
};
