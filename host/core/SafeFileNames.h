// File-name rules of the host: safe single names made from arbitrary text (clip names),
// the per-frame names of image sequences, and names written on another system.
#pragma once

#include "host/core/LightweightString.h"

#include <cstddef>
#include <cstdint>

namespace Zn {

class FilespecUtils {
public:
    // Longest single name the file systems take, in UTF-8 bytes.
    static constexpr size_t kMaxNameBytes = 255;

    // Makes a text into one file name that stays inside whatever folder it is joined to.
    // Every character that is unsafe in a name on this or a removable volume's file
    // system (path separators '/' and '\', the characters ':*?"<>|', control characters,
    // line and paragraph separators, direction overrides, non-characters and code points
    // that cannot be written in UTF-8) becomes the replacement character; leading and
    // trailing blanks and trailing dots are dropped; a leading dot is replaced (no hidden
    // names, never "." or ".."); a reserved device name (CON, NUL, COM1...) gets the
    // replacement appended; an empty result is the replacement alone. The name is then cut
    // on a character boundary to fit kMaxNameBytes - reserveBytes UTF-8 bytes (so that a
    // suffix of reserveBytes may still be appended), keeping a short extension. A
    // replacement that is itself unsafe is taken as '_'.
    static WString makeSafeFilename(const WString& name, wchar_t replacement, size_t reserveBytes = 0);

    // True when name is usable as produced by makeSafeFilename: not empty, not "." or
    // "..", no '/' or NUL, at most maxBytes UTF-8 bytes.
    static bool isSafeFilename(const WString& name, size_t maxBytes = kMaxNameBytes);

    // Cuts a name to at most maxBytes UTF-8 bytes on a character boundary, keeping its
    // extension (when the extension itself is at most 32 bytes and leaves room for
    // at least one character before it). Names that fit are returned unchanged.
    static WString fitFilename(const WString& name, size_t maxBytes = kMaxNameBytes);

    // The file of frame n of the image sequence whose first frame is src. The frame number
    // is the last run of digits in src's name before its extension; frame n adds n to it,
    // keeping at least the run's width (zero padded): ("/s/shot_0098.dpx", 3) ->
    // "/s/shot_0101.dpx". A name without digits is a one-frame sequence: frame 0 is src,
    // every other frame the empty name (which does not exist). Negative n gives the empty name.
    static WString getSEQFileName(const WString& src, int64_t n);
};

} // namespace Zn

// Makes a name written on another system usable here: a "file://" URI becomes its
// (percent-decoded) path, backslashes become '/', repeated separators and "." components
// are dropped, as is a trailing separator (except for the root itself).
WString fixForeignOSFileName(const WString& name);
