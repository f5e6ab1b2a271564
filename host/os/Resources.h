// String resources: the library's user-visible texts, by message number. Texts may hold
// placeholders, a name between dollar signs ("$FILE$", "$NUM$"), which substitute
// replaces.
#pragma once

#include "host/core/LightweightString.h"

// The text of a message; an unknown number gives "<message N>" so that a missing text is
// visible rather than silent.
WString resourceStrW(unsigned id);
// The text, followed by one space when it is not empty (for texts that run on).
WString paddedResourceStrW(unsigned id);
// Replaces every occurrence of placeholder (e.g. L"$FILE$") in text by value.
WString substitute(const WString& text, const WString& placeholder, const WString& value);
