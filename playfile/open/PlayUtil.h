// PlayUtil: the free operations on media files that are not tied to one open file:
// opening a file for reading through the registered readers (choosing the reader best
// suited to the access wanted), the open type a clip's material is read with, and small
// questions about a clip's media.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileReaderInfo.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/MemHolder.h"
#include "host/media/PlayFileMetadataRep.h"
#include "host/media/RequestStatus.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/open/OpenType.h"

#include <cstddef>

class CapturePacket;
class FileReadInstance;

class PLAYFILE_API PlayUtil {
public:
    // Opens fileName for the access in type: the registered readers are tried in order
    // until one opens it; if that reader cannot serve all of type for this file (its audio
    // stream streamIndex), the file is opened again with the first reader that can. The
    // line "Open ..." or "PlayUtil::openRead() : failed to open ..." is logged. Null when
    // no reader opened the file. Holds no lock; readers are called on the calling thread.
    static Zn::Ptr<FileReadInstance> openRead(const WString& fileName, const DecodeFormat& format, OpenType type,
                                              unsigned streamIndex);
    // The same, saying why there is no instance when there is none: a passing failure
    // when any reader failed for a passing reason, else the file's fault.
    static Zn::iFileReader::Opened openReadChecked(const WString& fileName, const DecodeFormat& format,
                                                   OpenType type, unsigned streamIndex);
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

    // Creating, writing and deleting play files (PlayFileWriting.cpp).
    //
    // A new file written by the first registered writer that accepts params; null when
    // none does or its create fails.
    static Zn::Ptr<Zn::FileWriteInstance> openWrite(const WString& fileName, Zn::FileWriterParams& params);
    // Writes video frame sampleId, which must be the next one (the count of frames written
    // so far): else "Bad sample ID %d" is logged and 0 returned without writing. While the
    // writer has more than 32 frames pending, waits in 100 ms steps, giving up after 49
    // waits. done (may be null) hears Complete or Failed. 1 when the frame was taken.
    // Called on the caller's thread (one writer per thread); takes no lock of its own.
    static int ZnVideoSample_write(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId,
                                   Zn::Ptr<CapturePacket>& packet, void (*done)(RequestStatus));
    // Writes a block of audio; the writer calls done. On 1, the block's whole sample
    // frames are added to the audio frames written.
    static int ZnAudioSamples_write(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                    void (*done)(RequestStatus));
    // Deletes a material's file (types: kMediaHighRes, kMediaProxy or both), closing it in
    // the play file cache first. 1 on success.
    static int deletePlayFile(const Cookie& cookie, eMediaTypes types);
    // Deletes every video variant (0-23) and sound channel (1 to "max_audio_chans_in_shot",
    // read on every call) of a clip that the project knows; 1, or the last failure.
    static int delete_material_files(Cookie cookie, eMediaTypes types);
};
