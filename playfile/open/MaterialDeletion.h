// MaterialDeletion: deleting a clip's material files (and their proxies) from disk and
// from the project, each closed in the play file cache first so that no reader keeps a
// deleted file open underneath.
#pragma once

#include "host/core/Cookie.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"

class PLAYFILE_API MaterialDeletion {
public:
    // Deletes a material's file (types: kMediaHighRes, kMediaProxy or both), closing it in
    // the play file cache first. 1 on success.
    static int deleteMaterial(const Cookie& material, eMediaTypes types);
    // Deletes every video variant (0-23) and sound channel (1 to "max_audio_chans_in_shot",
    // read on every call) of a clip that the project knows; 1, or the last failure.
    static int deleteClipMaterial(const Cookie& clip, eMediaTypes types);
};
