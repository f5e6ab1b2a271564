// UTF-8 conversion, number formatting and path helpers.
#include "host/core/Strings.h"

#include <cstdio>
#include <string>

namespace {

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x110000) {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        appendUTF8(out, 0xFFFD);
    }
}

// Position of the first character of the last path component.
size_t nameStart(std::wstring_view p) {
    size_t slash = p.rfind(L'/');
    return slash == std::wstring_view::npos ? 0 : slash + 1;
}

// Position of the extension's dot within the last component, or npos.
size_t extensionDot(std::wstring_view p) {
    size_t start = nameStart(p);
    size_t dot = p.rfind(L'.');
    if (dot == std::wstring_view::npos || dot <= start) return std::wstring_view::npos;
    return dot;
}

template <class S> S join(const S& dir, const S& name) {
    if (dir.empty()) return name;
    if (name.empty()) return dir;
    bool dirSlash = dir[dir.size() - 1] == '/';
    bool nameSlash = name[0] == '/';
    if (dirSlash && nameSlash) return dir + name.substr(1);
    if (dirSlash || nameSlash) return dir + name;
    return dir + typename S::char_type('/') + name;
}

} // namespace

WString fromUTF8(const char* text, int len) {
    if (!text) return WString();
    size_t n = len < 0 ? std::char_traits<char>::length(text) : size_t(len);
    std::wstring out;
    out.reserve(n);
    const auto* s = reinterpret_cast<const unsigned char*>(text);
    size_t i = 0;
    while (i < n) {
        unsigned char b = s[i];
        char32_t c;
        int extra;
        if (b < 0x80) { c = b; extra = 0; }
        else if ((b & 0xE0) == 0xC0) { c = b & 0x1F; extra = 1; }
        else if ((b & 0xF0) == 0xE0) { c = b & 0x0F; extra = 2; }
        else if ((b & 0xF8) == 0xF0) { c = b & 0x07; extra = 3; }
        else { out += wchar_t(0xFFFD); ++i; continue; }
        bool ok = true;
        for (int k = 1; k <= extra; ++k) {
            if (i + k >= n || (s[i + k] & 0xC0) != 0x80) { ok = false; break; }
            c = (c << 6) | (s[i + k] & 0x3F);
        }
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (!ok || c < minimum[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            out += wchar_t(0xFFFD);
            ++i;
            continue;
        }
        out += wchar_t(c);
        i += extra + 1;
    }
    return WString(out);
}

WString fromUTF8(const String& text) { return fromUTF8(text.c_str(), int(text.size())); }

String toUTF8(const wchar_t* text) {
    if (!text) return String();
    std::string out;
    for (const wchar_t* p = text; *p; ++p) appendUTF8(out, char32_t(*p));
    return String(out);
}

String toUTF8(const WString& text) {
    if (text.isNull()) return String();
    // Paths are mostly ASCII: those characters are stored directly, the rest encoded.
    const std::wstring_view v = text.view();
    std::string out(v.size(), '\0');
    size_t i = 0;
    for (; i < v.size() && uint32_t(v[i]) < 0x80; ++i) out[i] = char(v[i]);
    out.resize(i);
    for (; i < v.size(); ++i) appendUTF8(out, char32_t(v[i]));
    return String(out);
}

WString Zn::WStringFromInteger(int64_t value) { return WString(std::to_wstring(value)); }

WString bytesAsString(uint64_t bytes, bool exact) {
    static const char* const units[] = {"bytes", "KB", "MB", "GB", "TB", "PB"};
    char buf[96];
    if (bytes < 1024) {
        std::snprintf(buf, sizeof buf, "%llu bytes", (unsigned long long)bytes);
    } else {
        double v = double(bytes);
        int u = 0;
        while (v >= 1024.0 && u < 5) { v /= 1024.0; ++u; }
        int n = std::snprintf(buf, sizeof buf, "%.1f %s", v, units[u]);
        if (exact) std::snprintf(buf + n, sizeof buf - n, " (%llu bytes)", (unsigned long long)bytes);
    }
    return fromUTF8(buf);
}

WString stripPath(const WString& path) { return path.substr(nameStart(path.view())); }

WString stripExtension(const WString& path) {
    size_t dot = extensionDot(path.view());
    return dot == std::wstring_view::npos ? path : path.substr(0, dot);
}

WString stripPathAndExt(const WString& path) { return stripPath(stripExtension(path)); }

WString getPath(const WString& path) { return path.substr(0, nameStart(path.view())); }

WString getExtension(const WString& path) {
    size_t dot = extensionDot(path.view());
    return dot == std::wstring_view::npos ? WString(L"") : path.substr(dot + 1);
}

WString joinPaths(const WString& dir, const WString& name) { return join(dir, name); }
String joinPaths(const String& dir, const String& name) { return join(dir, name); }
