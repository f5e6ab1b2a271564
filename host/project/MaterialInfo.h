// MaterialInfo: what the project keeps about a material beyond its files: its start
// offset and its play header text. The header is kept twice: in the project, and in a
// sidecar text file "<base>.hdr" beside the material's high-resolution file (its OS
// path without the extension), so that the header travels with the media when the
// files are copied elsewhere. Static; works on the current project (see EditManager).
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"

#include <cstdint>

class MaterialInfo {
public:
    // The result of write_header that reports failure.
    static constexpr uint32_t kWriteFailed = 0xFFFFFFFFu;

    // Where the material starts within its file: in fields for video material (two per
    // frame), in samples for sound. 0 when the material is unknown.
    static int64_t get_start_offset(const Cookie& material);
    static bool set_start_offset(const Cookie& material, int64_t offset);

    // Stores the header text in the project and, when the material has a
    // high-resolution file, writes the sidecar (replacing it whole, never half-written).
    // Answers the number of bytes of the text, or kWriteFailed.
    static uint32_t write_header(const Cookie& material, const String& text);
    // The header text: the project's copy, else the sidecar's; a null string when
    // there is neither.
    static String read_header(const Cookie& material);
    // The sidecar's path; empty when the material has no high-resolution file.
    static WString headerFileName(const Cookie& material);
};
