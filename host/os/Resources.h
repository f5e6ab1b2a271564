// String resources: the library's user-visible texts, by message number. Texts may hold
// placeholders, a name between dollar signs ("$FILE$", "$NUM$"), which substitute
// replaces.
#pragma once

#include "host/core/LightweightString.h"

// The text of a message; an unknown number gives "<message N>" so that a missing text is
// visible rather than silent.
WString resourceStrW(unsigned id);
// A result code of the host, and the forms in which its text can be asked for.
struct ZnResult {
    int code;
};
enum ResStrFmt : int {
    eResStrText = 1,        // "There is not enough space on the disk"
    eResStrCode = 2,        // "error 2"
    eResStrTextAndCode = 3, // "There is not enough space on the disk (error 2)"
};
// The text of a result code; an unknown code is "Unknown result".
WString resourceStrW(ZnResult result, ResStrFmt format);
// The text, followed by one space when it is not empty (for texts that run on).
WString paddedResourceStrW(unsigned id);
// Replaces every occurrence of placeholder (e.g. L"$FILE$") in text by value.
WString substitute(const WString& text, const WString& placeholder, const WString& value);
