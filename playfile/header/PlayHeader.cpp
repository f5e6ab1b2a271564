// Parsing and writing of the play-file header text.
#include "playfile/header/PlayHeader.h"

#include "host/core/Strings.h"
#include "playfile/Version.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int kWordMax = 20;  // medium, format, vision_type, zn_ver
constexpr int kShortMax = 8;  // reelid, video_field

bool isWhite(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }
bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

bool isSound(const SAV_HEADER& h) { return std::strcmp(h.medium, "sound") == 0; }
bool isVision(const SAV_HEADER& h) { return std::strcmp(h.medium, "vision") == 0; }

// The lookups a parser makes: each assigns only when the key is present.
bool readInt(const char* text, const char* key, int32_t& out) {
    const char* v = PlayHdrString_seek_value(text, key);
    if (v) out = int32_t(std::strtol(v, nullptr, 10));
    return v != nullptr;
}

bool readReal(const char* text, const char* key, double& out) {
    const char* v = PlayHdrString_seek_value(text, key);
    if (v) out = std::strtod(v, nullptr);
    return v != nullptr;
}

bool readWord(const char* text, const char* key, char* out, int max) {
    const char* v = PlayHdrString_seek_value(text, key);
    if (v) hdr_string_copy(out, v, max);
    return v != nullptr;
}

void appendLine(std::string& out, const char* key, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

void appendLine(std::string& out, const char* key, const char* fmt, ...) {
    out += key;
    out += ' ';
    va_list args;
    va_start(args, fmt);
    char small[64];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n >= 0 && size_t(n) < sizeof small) {
        out.append(small, size_t(n));
    } else if (n >= 0) {
        std::string big(size_t(n) + 1, '\0');
        std::vsnprintf(big.data(), big.size(), fmt, args);
        out.append(big.data(), size_t(n));
    }
    va_end(args);
    out += "\n\r";
}

std::string headerText(const SAV_HEADER& h) {
    std::string out;
    out.reserve(512);
    appendLine(out, "header_version", "%d", h.header_version);
    appendLine(out, "medium", "%s", h.medium);
    appendLine(out, "input_rate", "%.8lf", h.input_rate);
    appendLine(out, "replay_rate", "%.8lf", h.replay_rate);
    appendLine(out, "format", "%s", h.format);
    appendLine(out, "drop_frame", "%d", h.drop_frame);
    appendLine(out, "timecode_rate", "%.8lf", h.timecode_rate);
    appendLine(out, "start_time_code", "%.8lf", h.start_time_code);
    appendLine(out, "end_time_code", "%.8lf", h.end_time_code);
    appendLine(out, "start_offset", "%d", h.start_offset);
    if (isSound(h)) {
        appendLine(out, "number_of_channels", "%d", h.number_of_channels);
        appendLine(out, "bytes_per_sample", "%d", h.bytes_per_sample);
    }
    if (isVision(h)) {
        appendLine(out, "vision_type", "%s", h.vision_type);
        appendLine(out, "width", "%d", h.width);
        appendLine(out, "height", "%d", h.height);
        appendLine(out, "sequence", "%d", h.sequence);
        appendLine(out, "transfer_type", "%d", h.transfer_type);
    }
    appendLine(out, "reelid", "%s", h.reelid);
    if (!h.orig_fname.empty()) appendLine(out, "orig_fname", "%s", toUTF8(h.orig_fname).c_str());
    // The writer's own version, whatever the record carries.
    appendLine(out, "zn_ver", "%s", playfileDllVersionStr());
    if (isVision(h)) appendLine(out, "video_field", "%s", h.video_field);
    return out;
}

} // namespace

int playhdr_get_version(char* text) {
    const char* v = PlayHdrString_seek_value(text, "header_version");
    return v ? int(std::strtol(v, nullptr, 10)) : 1;
}

char* PlayHdrString_seek_value(char const* text, char const* key) {
    if (!text || !key || !*text) return nullptr;
    const size_t n = std::strlen(key);
    const char* p = text;
    for (;;) {
        while (isWhite(*p)) ++p;
        if (!*p) return nullptr;
        // p is at the first word of a line.
        if (std::strncmp(p, key, n) == 0) {
            const char* after = p + n;
            if (!*after) return nullptr;
            if (isWhite(*after)) {
                const char* v = after;
                while (isWhite(*v)) {
                    if (isLineEnd(*v)) return nullptr; // never take the next line as the value
                    ++v;
                }
                return *v ? const_cast<char*>(v) : nullptr;
            }
        }
        while (*p && !isLineEnd(*p)) ++p;
        if (!*p) return nullptr;
    }
}

void hdr_string_copy(char* dst, char const* src, int max) {
    if (max < 1) {
        dst[0] = '\0';
        return;
    }
    int i = 0;
    for (; i < max; ++i) {
        char c = src[i];
        if (c == '\0' || c == '\n' || c == '\r' || c == ' ') break;
        dst[i] = c;
    }
    dst[i] = '\0';
}

void parse_header_v1(SAV_HEADER* hdr, char* text) {
    if (!readWord(text, "medium", hdr->medium, kWordMax)) hdr_string_copy(hdr->medium, "sound", kWordMax);
    if (isSound(*hdr)) {
        readInt(text, "number_of_channels", hdr->number_of_channels);
        readInt(text, "bytes_per_sample", hdr->bytes_per_sample);
        double rate;
        if (readReal(text, "sampling_frequency", rate)) hdr->input_rate = hdr->replay_rate = rate;
        readWord(text, "sound_format", hdr->format, kWordMax);
    }
    if (isVision(*hdr)) {
        readWord(text, "vision_type", hdr->vision_type, kWordMax);
        readInt(text, "width", hdr->width);
        readInt(text, "height", hdr->height);
        hdr_string_copy(hdr->format, "PAL", kWordMax);
        hdr->input_rate = hdr->replay_rate = 25.0;
    }
    hdr->drop_frame = 0;
    hdr->start_time_code = hdr->end_time_code = 0.0;
    hdr->timecode_rate = 25.0;
    hdr->orig_fname = WString(L"");
    hdr->sequence = -1;
    hdr->start_offset = 0;
    hdr->reelid[0] = '\0';
    hdr->zn_ver[0] = '\0';
    hdr->header_version = 6;
}

void parse_header_v2(SAV_HEADER* hdr, char* text) {
    const int version = playhdr_get_version(text);
    if (!readWord(text, "medium", hdr->medium, kWordMax)) hdr_string_copy(hdr->medium, "sound", kWordMax);
    if (!readInt(text, "drop_frame", hdr->drop_frame)) hdr->drop_frame = 0;
    if (isSound(*hdr)) {
        readInt(text, "number_of_channels", hdr->number_of_channels);
        readInt(text, "bytes_per_sample", hdr->bytes_per_sample);
    }
    hdr->sequence = -1;
    if (isVision(*hdr)) {
        if (version <= 3) hdr_string_copy(hdr->vision_type, "unknown", kWordMax);
        else readWord(text, "vision_type", hdr->vision_type, kWordMax);
        readInt(text, "width", hdr->width);
        readInt(text, "height", hdr->height);
        if (!readInt(text, "sequence", hdr->sequence)) hdr->sequence = -1;
    }
    if (!readInt(text, "start_offset", hdr->start_offset)) hdr->start_offset = 0;
    if (!readReal(text, "input_rate", hdr->input_rate)) hdr->input_rate = 1.0;
    if (!readReal(text, "replay_rate", hdr->replay_rate)) hdr->replay_rate = hdr->input_rate;
    if (!readReal(text, "timecode_rate", hdr->timecode_rate)) hdr->timecode_rate = hdr->replay_rate;
    readWord(text, "format", hdr->format, kWordMax);
    if (!readReal(text, "start_time_code", hdr->start_time_code)) hdr->start_time_code = 0.0;
    if (!readReal(text, "end_time_code", hdr->end_time_code)) hdr->end_time_code = 0.0;
    if (!readWord(text, "reelid", hdr->reelid, kShortMax)) hdr->reelid[0] = '\0';
    // A name may hold blanks, so it is taken to the end of its line, not to the first
    // blank; taking it to the end of the text would swallow the keys that follow it.
    if (const char* v = PlayHdrString_seek_value(text, "orig_fname")) {
        size_t len = std::strcspn(v, "\n\r");
        hdr->orig_fname = fromUTF8(v, int(len));
    } else {
        hdr->orig_fname = WString(L"");
    }
    if (!readWord(text, "zn_ver", hdr->zn_ver, kWordMax)) hdr_string_copy(hdr->zn_ver, "unknown", kWordMax);
    hdr->header_version = 6;
    if (isVision(*hdr)) {
        hdr_string_copy(hdr->video_field, "second", kShortMax);
        readWord(text, "video_field", hdr->video_field, kShortMax);
    }
}

size_t header_text_size(const SAV_HEADER* hdr) { return headerText(*hdr).size() + 1; }

char* header_to_string(SAV_HEADER* hdr, char* out) {
    std::string text = headerText(*hdr);
    std::memcpy(out, text.c_str(), text.size() + 1);
    return out + text.size();
}

void print_header(SAV_HEADER* hdr) {
    // Normally 512 bytes; a long original file name needs more, and gets it.
    std::string text = headerText(*hdr);
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
}

SAV_HEADER make_header(char const* medium, char const* format, double input_rate, double replay_rate,
                       int drop_frame, double timecode_rate, double start_time_code, double end_time_code,
                       int bytes_per_sample, int number_of_channels, char const* vision_type, int width,
                       int height, WString const& orig_fname, int sequence, int start_offset,
                       char const* video_field, int transfer_type) {
    SAV_HEADER h;
    h.header_version = 6;
    hdr_string_copy(h.medium, medium ? medium : "", kWordMax);
    hdr_string_copy(h.format, format ? format : "", kWordMax);
    hdr_string_copy(h.vision_type, vision_type ? vision_type : "", kWordMax);
    hdr_string_copy(h.video_field, video_field ? video_field : "", kShortMax);
    h.input_rate = input_rate;
    h.replay_rate = replay_rate;
    h.drop_frame = drop_frame;
    h.timecode_rate = timecode_rate;
    h.start_time_code = start_time_code;
    h.end_time_code = end_time_code;
    h.bytes_per_sample = bytes_per_sample;
    h.number_of_channels = number_of_channels;
    h.width = width;
    h.height = height;
    h.orig_fname = WString(L"");
    if (!orig_fname.empty()) h.orig_fname = orig_fname;
    h.sequence = sequence;
    h.start_offset = start_offset;
    h.transfer_type = transfer_type;
    return h;
}

int playhdr_selftest_main(int argc, char** argv) {
    static const char kText[] = "x f I am x and not f\n"
                                "novalue \n"
                                "the line after no value\n"
                                "ef ef contains the substring f\n"
                                "foo foo begins with the substring f\n"
                                "f I really am f\n";
    const char* name = argc > 0 && argv[0] ? argv[0] : "playhdr-selftest";
    std::printf("%s\n", name);
    if (argc < 2) {
        std::printf("Usage: %s <item>\n", name);
        return 2;
    }
    const char* from = kText;
    bool found = false;
    for (int i = 1; i < argc; ++i) {
        const char* v = PlayHdrString_seek_value(from, argv[i]);
        found = v != nullptr;
        if (found) {
            std::printf("Item \"%s\" = {%s}\n", argv[i], v);
            from = v;
        } else {
            std::printf("Item \"%s\" not found.\n", argv[i]);
        }
    }
    return found ? 0 : 1;
}
