// Text helpers of the host: UTF-8 conversion, number formatting and the path helpers
// (file names are wide strings, '/' separated).
#pragma once

#include "host/core/LightweightString.h"

#include <cstdint>

// UTF-8 to wide and back. Invalid UTF-8 bytes become U+FFFD; len < 0 means "up to the
// terminating zero".
WString fromUTF8(const char* text, int len = -1);
WString fromUTF8(const String& text);
String toUTF8(const WString& text);
String toUTF8(const wchar_t* text);

namespace Zn {
WString WStringFromInteger(int64_t value);
} // namespace Zn

// "1.5 MB"-style text for a byte count; with exact, the plain number of bytes follows.
WString bytesAsString(uint64_t bytes, bool exact = false);

// Path helpers. A path's directory part (getPath) keeps its trailing '/', so that
// getPath(p) + stripPath(p) == p. The extension (getExtension) is what follows the last
// '.' of the last component, without the dot; a leading dot (".hidden") is no extension.
WString stripPath(const WString& path);        // "/a/b/c.mov" -> "c.mov"
WString stripPathAndExt(const WString& path);  // "/a/b/c.mov" -> "c"
WString stripExtension(const WString& path);   // "/a/b/c.mov" -> "/a/b/c"
WString getPath(const WString& path);          // "/a/b/c.mov" -> "/a/b/"
WString getExtension(const WString& path);     // "/a/b/c.mov" -> "mov"
WString joinPaths(const WString& dir, const WString& name); // exactly one '/' between
String joinPaths(const String& dir, const String& name);
