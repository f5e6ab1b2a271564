// The library's plain entry points, exported by name for the host to find (the version
// string is in Version.h). Closing files leaves the library usable: files are opened again
// on demand.
#pragma once

#include "host/core/Cookie.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"

namespace Zn {
class FilePreOpen;
}

extern "C" {
// Makes sure the pre-open queue exists and answers it. Nothing else is made here: the play
// file cache and the read-queue pools come into being on first use.
PLAYFILE_API Zn::FilePreOpen* playfile_init();
// Closes all files, exactly as playfile_close_all_files; nothing is destroyed, since the
// cache and the pools end with the process and the host's shutdown sequence.
PLAYFILE_API void playfile_exit();
// Closes every open file of the play file cache, then releases the decoders that no open
// file uses any more.
PLAYFILE_API void playfile_close_all_files();
// Closes the clip's open files of the media types, then releases unused decoders.
PLAYFILE_API void playfile_close_files(const Cookie& clip, eMediaTypes types);
}
