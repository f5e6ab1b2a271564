// The library's build version.
#pragma once

extern "C" {
// The build version as four dotted numbers, major.minor.patch.build, in static storage.
const char* playfileDllVersionStr();
}
