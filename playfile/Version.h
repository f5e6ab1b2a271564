// The library's build version.
#pragma once

#include "playfile/Export.h"

extern "C" {
// The build version as four dotted numbers, major.minor.patch.build, in static storage.
PLAYFILE_API const char* playfileDllVersionStr();
}
