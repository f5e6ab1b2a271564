// Fuzz target for the file-name rules: whatever a clip name holds (read as UTF-8, so
// invalid bytes and every code point appear), the safe name is one name that fits, with
// or without room kept for a suffix; sequence and foreign-name helpers never crash.
#include "host/core/SafeFileNames.h"
#include "host/core/Strings.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    // The first byte picks the replacement character and the room kept for a suffix.
    wchar_t replacement = wchar_t(data[0] & 0x7F);
    size_t reserve = data[0] & 0x80 ? 10 : 0;
    std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    WString name = fromUTF8(bytes.data(), int(bytes.size()));
    // Raw 32-bit values too: surrogates and values past U+10FFFF.
    std::wstring raw;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4) raw += wchar_t(uint32_t(uint8_t(bytes[i])) << 24 | uint8_t(bytes[i + 1]) << 16 | uint8_t(bytes[i + 2]) << 8 | uint8_t(bytes[i + 3]));

    for (const WString& n : {name, WString(raw)}) {
        WString safe = Zn::FilespecUtils::makeSafeFilename(n, replacement, reserve);
        if (!Zn::FilespecUtils::isSafeFilename(safe, Zn::FilespecUtils::kMaxNameBytes - reserve)) std::abort();
        if (toUTF8(safe).view().find('/') != std::string_view::npos) std::abort();
        // Made safe twice is the same name.
        if (!(Zn::FilespecUtils::makeSafeFilename(safe, replacement, reserve) == safe)) std::abort();
        Zn::FilespecUtils::getSEQFileName(n, int64_t(size) * 1000003);
        fixForeignOSFileName(n);
    }
    return 0;
}
