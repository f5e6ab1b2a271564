// Safe file names, image-sequence frame names and foreign names.
#include "host/core/SafeFileNames.h"

#include "host/core/Strings.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

// Characters never written into a name: path separators, the characters FAT, exFAT and
// NTFS volumes refuse, control characters (C0, DEL, C1), line and paragraph separators,
// marks and overrides that reorder how a name is displayed, the byte-order mark,
// non-characters and anything that is not a Unicode scalar value.
bool unsafeChar(wchar_t w) {
    char32_t c = char32_t(w);
    if (c < 0x20 || (c >= 0x7F && c <= 0x9F)) return true;
    switch (c) {
    case '/': case '\\': case ':': case '*': case '?': case '"': case '<': case '>': case '|':
    case 0x200E: case 0x200F: case 0x2028: case 0x2029: case 0xFEFF:
        return true;
    default: break;
    }
    if ((c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069)) return true;
    if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF) return true;
    return (c & 0xFFFE) == 0xFFFE || (c >= 0xFDD0 && c <= 0xFDEF);
}

bool blank(wchar_t c) {
    return c == L' ' || c == 0xA0 || c == 0x3000 || (c >= 0x2000 && c <= 0x200B);
}

size_t utf8Bytes(wchar_t w) {
    char32_t c = char32_t(w);
    if (c < 0x80) return 1;
    if (c < 0x800) return 2;
    if (c < 0x10000) return 3;
    return c < 0x110000 ? 4 : 3; // the encoder writes U+FFFD for the rest
}

size_t utf8Bytes(std::wstring_view s) {
    size_t n = 0;
    for (wchar_t c : s) n += utf8Bytes(c);
    return n;
}

// Longest prefix of s that fits in budget UTF-8 bytes.
std::wstring_view fittingPrefix(std::wstring_view s, size_t budget) {
    size_t used = 0, i = 0;
    for (; i < s.size(); ++i) {
        size_t b = utf8Bytes(s[i]);
        if (used + b > budget) break;
        used += b;
    }
    return s.substr(0, i);
}

void trimTrailing(std::wstring& s) {
    while (!s.empty() && (blank(s.back()) || s.back() == L'.')) s.pop_back();
}

// CON, PRN, AUX, NUL, COM1-9 and LPT1-9 name devices on some systems, whatever follows
// their first dot.
bool reservedDeviceName(const std::wstring& s) {
    std::wstring base = s.substr(0, s.find(L'.'));
    while (!base.empty() && blank(base.back())) base.pop_back();
    for (auto& c : base) c = (c >= L'a' && c <= L'z') ? wchar_t(c - 32) : c;
    if (base == L"CON" || base == L"PRN" || base == L"AUX" || base == L"NUL") return true;
    return base.size() == 4 && (base.starts_with(L"COM") || base.starts_with(L"LPT")) && base[3] >= L'1' &&
           base[3] <= L'9';
}

// n added to a run of decimal digits, keeping its width: ("0098", 3) -> "0101".
std::wstring addToDigits(std::wstring digits, uint64_t n) {
    for (size_t i = digits.size(); i-- > 0 && n > 0;) {
        uint64_t d = uint64_t(digits[i] - L'0') + n % 10;
        n /= 10;
        if (d >= 10) { d -= 10; ++n; }
        digits[i] = wchar_t(L'0' + d);
    }
    return n > 0 ? std::to_wstring(n) + digits : digits;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool isFileUri(std::wstring_view name) {
    static constexpr std::wstring_view scheme = L"file://";
    if (name.size() < scheme.size()) return false;
    for (size_t i = 0; i < scheme.size(); ++i)
        if ((name[i] >= L'A' && name[i] <= L'Z' ? name[i] + 32 : name[i]) != scheme[i]) return false;
    return true;
}

// The local path of a "file:///p" or "file://localhost/p" URI, percent-decoded; the
// name itself when it is not such a URI.
std::wstring localPathOfUri(std::wstring_view name) {
    auto lower = [](std::wstring_view s) {
        std::wstring out(s);
        for (auto& c : out) c = (c >= L'A' && c <= L'Z') ? wchar_t(c + 32) : c;
        return out;
    };
    if (!isFileUri(name)) return std::wstring(name);
    std::wstring_view rest = name.substr(7);
    if (lower(rest.substr(0, 10)) == L"localhost/") rest.remove_prefix(9);
    if (rest.empty() || rest[0] != L'/') return std::wstring(name);
    std::string bytes(toUTF8(WString(rest)).view()), out;
    for (size_t i = 0; i < bytes.size(); ++i) {
        int hi = -1, lo = -1;
        if (bytes[i] == '%' && i + 2 < bytes.size() && (hi = hexValue(bytes[i + 1])) >= 0 &&
            (lo = hexValue(bytes[i + 2])) >= 0) {
            out += char(hi * 16 + lo);
            i += 2;
        } else {
            out += bytes[i];
        }
    }
    return fromUTF8(out.data(), int(out.size())).str();
}

} // namespace

WString Zn::FilespecUtils::makeSafeFilename(const WString& name, wchar_t replacement, size_t reserveBytes) {
    if (replacement == 0 || unsafeChar(replacement) || blank(replacement) || replacement == L'.') replacement = L'_';
    std::wstring s(name.view());
    for (auto& c : s)
        if (unsafeChar(c)) c = replacement;
    size_t lead = 0;
    while (lead < s.size() && blank(s[lead])) ++lead;
    s.erase(0, lead);
    trimTrailing(s);
    if (!s.empty() && s[0] == L'.') s[0] = replacement;
    if (reservedDeviceName(s)) s.insert(std::min(s.find(L'.'), s.size()), 1, replacement);
    size_t budget = reserveBytes < kMaxNameBytes ? kMaxNameBytes - reserveBytes : 1;
    s = fitFilename(WString(s), budget).str();
    trimTrailing(s);
    if (s.empty()) s.assign(1, replacement);
    return WString(s);
}

bool Zn::FilespecUtils::isSafeFilename(const WString& name, size_t maxBytes) {
    std::wstring_view v = name.view();
    if (v.empty() || v == L"." || v == L"..") return false;
    if (v.find(L'/') != v.npos || v.find(L'\0') != v.npos) return false;
    return utf8Bytes(v) <= maxBytes;
}

WString Zn::FilespecUtils::fitFilename(const WString& name, size_t maxBytes) {
    std::wstring_view v = name.view();
    if (utf8Bytes(v) <= maxBytes) return name;
    size_t dot = v.rfind(L'.');
    if (dot != v.npos && dot > 0) {
        std::wstring_view ext = v.substr(dot);
        size_t extBytes = utf8Bytes(ext);
        if (extBytes <= 33 && extBytes + utf8Bytes(v[0]) <= maxBytes) {
            std::wstring out(fittingPrefix(v.substr(0, dot), maxBytes - extBytes));
            return WString(out + std::wstring(ext));
        }
    }
    return WString(fittingPrefix(v, maxBytes));
}

WString Zn::FilespecUtils::getSEQFileName(const WString& src, int64_t n) {
    if (n < 0) return WString();
    std::wstring_view v = src.view();
    size_t nameStart = v.rfind(L'/');
    nameStart = nameStart == v.npos ? 0 : nameStart + 1;
    size_t baseEnd = v.rfind(L'.');
    if (baseEnd == v.npos || baseEnd <= nameStart) baseEnd = v.size();
    auto digit = [](wchar_t c) { return c >= L'0' && c <= L'9'; };
    size_t runEnd = baseEnd;
    while (runEnd > nameStart && !digit(v[runEnd - 1])) --runEnd;
    if (runEnd == nameStart) return n == 0 ? src : WString();
    size_t runStart = runEnd;
    while (runStart > nameStart && digit(v[runStart - 1])) --runStart;
    std::wstring out(v.substr(0, runStart));
    out += addToDigits(std::wstring(v.substr(runStart, runEnd - runStart)), uint64_t(n));
    out += v.substr(runEnd);
    return WString(out);
}

WString fixForeignOSFileName(const WString& name) {
    if (name.empty()) return name;
    std::wstring path = localPathOfUri(name.view());
    if (isFileUri(path)) return name; // a file on another machine: nothing local to make of it
    std::replace(path.begin(), path.end(), L'\\', L'/');
    bool absolute = path[0] == L'/';
    std::wstring out;
    size_t i = 0;
    while (i <= path.size()) {
        size_t slash = std::min(path.find(L'/', i), path.size());
        std::wstring_view part(path.data() + i, slash - i);
        if (!part.empty() && part != L".") {
            if (!out.empty() || absolute) out += L'/';
            out += part;
        }
        i = slash + 1;
    }
    if (out.empty()) out = absolute ? L"/" : L".";
    return WString(out);
}
