// The table of English texts behind resourceStrW.
#include "host/os/Resources.h"

#include "host/core/Strings.h"

#include <string>
#include <utility>

namespace {

struct Entry {
    unsigned id;
    const wchar_t* text;
};

// Sorted by number.
constexpr Entry kTexts[] = {
    {2000, L"The material is not available for reading"},
    {2061, L"The audio read starts past the end of the material"},
    {10485, L"Media not available"},
    {10915, L"There is no material to relocate."},
    {11517, L"Failed to copy a material file"},
    {11573, L"Not enough space on the destination drive: $BYTES1$ free, $BYTES2$ needed."},
    {11591, L"$NUM$ logs"},
    {11995, L"Could not write the file $FILE$"},
    {12528, L"Material copy finished."},
    {12531, L"proxy"},
    {12532, L"Discarded an unfinished copy left by an earlier run: $FILE$"},
    {12533, L"Downloaded files"},
    {13649, L"Download media"},
    {14293, L"Localise media"},
};

} // namespace

WString resourceStrW(unsigned id) {
    size_t lo = 0, hi = std::size(kTexts);
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        if (kTexts[mid].id < id) lo = mid + 1;
        else hi = mid;
    }
    if (lo < std::size(kTexts) && kTexts[lo].id == id) return WString(kTexts[lo].text);
    return WString(L"<message " + std::to_wstring(id) + L">");
}

namespace {

// The texts of the host's result codes, sorted by code.
constexpr Entry kResultTexts[] = {
    {1, L"The operation failed"},
    {2, L"There is not enough space on the disk"},
    {3, L"The operation was cancelled"},
};

} // namespace

WString resourceStrW(ZnResult result, ResStrFmt format) {
    const wchar_t* text = L"Unknown result";
    for (const Entry& e : kResultTexts)
        if (int(e.id) == result.code) text = e.text;
    const std::wstring code = L"error " + std::to_wstring(result.code);
    switch (format) {
    case eResStrText: return WString(text);
    case eResStrCode: return WString(code);
    case eResStrTextAndCode: break;
    }
    return WString(std::wstring(text) + L" (" + code + L")");
}

WString paddedResourceStrW(unsigned id) {
    WString t = resourceStrW(id);
    return t.empty() ? t : t + L' ';
}

WString substitute(const WString& text, const WString& placeholder, const WString& value) {
    if (placeholder.empty()) return text;
    std::wstring out;
    std::wstring_view rest = text.view();
    for (size_t at; (at = rest.find(placeholder.view())) != std::wstring_view::npos;) {
        out.append(rest.substr(0, at));
        out.append(value.view());
        rest.remove_prefix(at + placeholder.size());
    }
    out.append(rest);
    return WString(out);
}
