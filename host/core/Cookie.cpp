// Cookie text form: "<type><8 hex>_<8 hex>_<2 hex>", e.g. "S0001e240_00000007_02".
#include "host/core/Cookie.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"

#include <cstdio>
#include <tuple>

namespace {

bool parseHex(const char* s, int digits, uint32_t& out) {
    uint32_t v = 0;
    for (int i = 0; i < digits; ++i) {
        char c = s[i];
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        v = (v << 4) | uint32_t(d);
    }
    out = v;
    return true;
}

bool isTypeLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

} // namespace

Cookie::Cookie(const String& text, bool logErrors) {
    const char* s = text.c_str();
    uint32_t a, b, idx;
    if (text.size() == 21 && isTypeLetter(s[0]) && parseHex(s + 1, 8, a) && s[9] == '_' &&
        parseHex(s + 10, 8, b) && s[18] == '_' && parseHex(s + 19, 2, idx)) {
        *this = Cookie(s[0], a, b, uint8_t(idx));
    } else if (logErrors) {
        LogBoth("Cookie: cannot parse \"%s\"\n", s);
    }
}

Cookie::Cookie(const WString& text, bool logErrors) : Cookie(toUTF8(text), logErrors) {}

String Cookie::asString() const {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%c%08x_%08x_%02x", valid() ? type_ : '0', id1_, id2_, index_);
    return String(buf);
}

WString Cookie::asWString() const { return fromUTF8(asString()); }

int Cookie::compare(const Cookie& o) const noexcept {
    auto key = [](const Cookie& c) {
        return std::tuple(c.id1_, c.id2_, uint8_t(c.type_), c.index_);
    };
    auto a = key(*this), b = key(o);
    return a < b ? -1 : (b < a ? 1 : 0);
}
