// PlayUtil: the free operations on media files that are not tied to one open file:
// opening a file for reading through the registered readers (choosing the reader best
// suited to the access wanted), the open type a clip's material is read with, and small
// questions about a clip's media.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/PlayFileMetadataRep.h"
#include "playfile/open/OpenType.h"

#include <cstddef>

class FileReadInstance;

class PlayUtil {
public:
    // Opens fileName for the access in type: the registered readers are tried in order
    // until one opens it; if that reader cannot serve all of type for this file (its audio
    // stream streamIndex), the file is opened again with the first reader that can. The
    // line "Open ..." or "PlayUtil::openRead() : failed to open ..." is logged. Null when
    // no reader opened the file. Holds no lock; readers are called on the calling thread.
    static Zn::Ptr<FileReadInstance> openRead(const WString& fileName, const DecodeFormat& format, OpenType type,
                                              unsigned streamIndex);
    // The same for a material cookie's file, with the cookie's open type. It does not go
    // through the play file cache, so every call opens the file anew.
    static Zn::Ptr<FileReadInstance> openRead(const Cookie& material, const DecodeFormat& format,
                                              unsigned streamIndex);

    // The access a material cookie is read with: 'V' video, 'S' audio, anything else none.
    static OpenType getType(const Cookie& cookie);

    // Always false: clips never report image data here. The clip's edit is opened and
    // closed all the same, as callers have always seen it done.
    static bool checkImageData(const Cookie& cookie, const PlayFileMetadataRep& metadata);
    // For an imported clip, stores the audio metadata of its first sound channel's file in
    // the clip (when the file has any audio stream). True when the clip is imported,
    // whether or not metadata could be stored.
    static bool checkAudioMetadata(const Cookie& cookie);
    // Adds the size in bytes of the material's file to *total when the file exists.
    static void get_total_size(const Cookie& material, size_t* total);
};
