// The play-file header: the SAV_HEADER record and its text form. The text is lines of
// "key value", each ended by a line feed and then a carriage return; parse_header_v1 and
// parse_header_v2 read the two generations of it, header_to_string writes the current
// one. Every function here is re-entrant and works on caller-owned memory only.
#pragma once

#include "host/core/LightweightString.h"
#include "playfile/Export.h"

#include <cstdint>

struct SAV_HEADER {
    int32_t header_version = 0;
    char medium[21] = {};
    int32_t number_of_channels = 0;
    int32_t bytes_per_sample = 0;
    double input_rate = 0.0;
    double replay_rate = 0.0;
    char format[21] = {};
    int32_t drop_frame = 0;
    double timecode_rate = 0.0;
    double start_time_code = 0.0;
    double end_time_code = 0.0;
    int32_t sequence = 0;
    int32_t start_offset = 0;
    char vision_type[21] = {};
    int32_t width = 0;
    int32_t height = 0;
    WString orig_fname;
    char reelid[9] = {};
    char zn_ver[21] = {};
    char video_field[9] = {};
    int32_t transfer_type = 0;
};

// The value of "header_version" read as a base-10 integer, or 1 when the key is absent.
PLAYFILE_API int playhdr_get_version(char* text);

// A pointer into text at the first character of key's value, or null. Only the first
// word of each line is compared with the key, and it must be followed by white space; a
// key without a value on its own line gives null. The value runs on to the end of text.
PLAYFILE_API char* PlayHdrString_seek_value(char const* text, char const* key);

// Copies one value word: stops at NUL, line feed, carriage return or blank (a tab is
// kept), or after max characters, and always terminates, so up to max + 1 bytes are
// written. max below 1 stores an empty string.
PLAYFILE_API void hdr_string_copy(char* dst, char const* src, int max);

// Fill hdr from a version-1 text, respectively a version-2-or-later text. Fields a
// parser does not mention keep their values.
PLAYFILE_API void parse_header_v1(SAV_HEADER* hdr, char* text);
PLAYFILE_API void parse_header_v2(SAV_HEADER* hdr, char* text);

// Writes the text for hdr into out (which the caller sizes; header_text_size tells how
// much is needed) and returns a pointer to its terminating NUL.
PLAYFILE_API char* header_to_string(SAV_HEADER* hdr, char* out);
// Bytes header_to_string writes for hdr, the terminating NUL included.
PLAYFILE_API size_t header_text_size(const SAV_HEADER* hdr);
// Prints the text on standard output, followed by a newline.
PLAYFILE_API void print_header(SAV_HEADER* hdr);

PLAYFILE_API SAV_HEADER make_header(char const* medium, char const* format, double input_rate, double replay_rate,
                                    int drop_frame, double timecode_rate, double start_time_code,
                                    double end_time_code, int bytes_per_sample, int number_of_channels,
                                    char const* vision_type, int width, int height, WString const& orig_fname,
                                    int sequence, int start_offset, char const* video_field, int transfer_type);

// The key-lookup self-test: looks each argument up in a built-in text and prints what it
// finds. Returns 2 without arguments, else 0 when the last argument was found and 1 when
// not. The playhdr-selftest program is this function.
PLAYFILE_API int playhdr_selftest_main(int argc, char** argv);
