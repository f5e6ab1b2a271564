// Fuzz target for the play-header parser and key lookup: hostile, overlong and
// unterminated-looking texts must never crash or read beyond the text.
// Input: the first line is a key to look up, the rest is the header text.
#include "playfile/header/PlayHeader.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* bytes = reinterpret_cast<const char*>(data);
    const char* nl = static_cast<const char*>(std::memchr(bytes, '\n', size));
    size_t keyLen = nl ? size_t(nl - bytes) : 0;
    size_t textOff = nl ? keyLen + 1 : 0;
    size_t textLen = size - textOff;

    // Exactly sized copies, so that a sanitizer sees any read past the NUL.
    std::unique_ptr<char[]> key(new char[keyLen + 1]);
    std::memcpy(key.get(), bytes, keyLen);
    key[keyLen] = '\0';
    std::unique_ptr<char[]> text(new char[textLen + 1]);
    std::memcpy(text.get(), bytes + textOff, textLen);
    text[textLen] = '\0';

    if (char* v = PlayHdrString_seek_value(text.get(), key.get())) {
        if (v < text.get() || v >= text.get() + textLen) std::abort();
    }
    playhdr_get_version(text.get());

    for (int version = 1; version <= 2; ++version) {
        SAV_HEADER h;
        if (version == 1) parse_header_v1(&h, text.get());
        else parse_header_v2(&h, text.get());
        if (h.header_version != 6) std::abort();
        size_t need = header_text_size(&h);
        std::unique_ptr<char[]> out(new char[need]);
        char* end = header_to_string(&h, out.get());
        if (size_t(end - out.get()) != need - 1) std::abort();
        // What was written parses again.
        SAV_HEADER again;
        parse_header_v2(&again, out.get());
    }
    return 0;
}
