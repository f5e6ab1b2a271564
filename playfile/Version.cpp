#include "playfile/Version.h"

#include "playfile/version.h"

extern "C" const char* playfileDllVersionStr() { return PLAYFILE_VERSION_STRING; }
