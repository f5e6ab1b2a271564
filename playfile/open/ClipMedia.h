// ClipMedia: what the host does with the media of a clip, in the clip's terms (material
// cookies rather than file names): reading a frame or a run of audio, asking about a
// material's length, size and audio metadata, closing a clip's files, having growing files
// re-read their length, and creating and renaming a clip's material files (ClipMediaFiles.cpp). It holds no state and no lock of its own: every
// file it reads goes through a PlayFileCache (the process's, unless one is given), whose
// locks are the only ones taken.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/PlayFileMetadataRep.h"
#include "playfile/Export.h"
#include "playfile/open/ClipReadResult.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/RequestStatus.h"

#include <cstddef>
#include <cstdint>

class AudioReadRequest;
class PlayFileCache;
class VideoReadRequest;

class PLAYFILE_API ClipMedia {
public:
    using enum eClipRead; // the read results, as ClipMedia::kVideoQueued and so on

    // The clips' media as the process's cache holds them.
    ClipMedia();
    // The clips' media as cache holds them; cache must outlive this object.
    explicit ClipMedia(PlayFileCache& cache) noexcept : cache_(cache) {}

    // Makes and queues the request for one frame of a video material: frame counts from
    // the material's start in its file. kVideoQueued, or kNotAvailable when the file
    // cannot be opened or has no such frame. Frame 0 of a file with a still image is
    // answered from that image at once, on the calling thread.
    eClipRead videoReadRequest(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame,
                               eResultType resultType, const DecodeFormat& format,
                               Zn::Ptr<ReadRequestIssuer::Proxy> issuer);
    // Makes (does not queue) the request for count samples of a sound material's channel
    // from sample (counted from the material's start unless noOffset). Reads of compressed
    // streams are widened to whole codec frames (see codecFrameReadLength); the request's
    // count is the samples to read, its tag the count asked for. kAudioCreated, else
    // kAudioPastEnd or kNotAvailable, with "Audio Read request failed: %s" logged.
    eClipRead audioReadRequest(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                               uint32_t count, eProxyLevel proxyLevel, Zn::Ptr<ReadRequestIssuer::Proxy> issuer,
                               bool noOffset);
    // The samples an audio read of count samples from sample reads from a compressed
    // stream whose codec frames hold frameSize samples each.
    static uint32_t codecFrameReadLength(uint64_t sample, uint32_t count, int64_t frameSize);

    // The material file's length: frames for 'V', sample frames for 'S', else 0 (also
    // when the file cannot be opened).
    uint64_t getSampleCount(const Cookie& material);
    // Has the open files of a clip's growing material (and of its proxies) re-read their
    // length, passing flags and newSize on to FileReadInstance::recalculateSize.
    void recalculateSize(const Cookie& clip, unsigned flags, unsigned& newSize);
    // Adds the size in bytes of the material's file to *total when the file exists.
    static void totalSize(const Cookie& material, size_t* total);
    // For an imported clip, stores the audio metadata of its first sound channel's file in
    // the clip (when the file has any audio stream). True when the clip is imported,
    // whether or not metadata could be stored.
    bool checkAudioMetadata(const Cookie& clip);
    // Always false: clips never report image data here. The clip's edit is opened and
    // closed all the same, as callers have always seen it done.
    static bool checkImageData(const Cookie& clip, const PlayFileMetadataRep& metadata);
    // Closes a clip's files and forgets their failed opens: an edit cookie closes every
    // video variant and sound channel of the edit, any other cookie just its own file.
    // types: kMediaHighRes, kMediaProxy (both are looked up by the same key, so either
    // closes the material's file).
    void close(const Cookie& cookie, eMediaTypes types);

    // Creates the material file of a clip ('V' or 'S' cookie) under the clip's material
    // file name with the writer's extension, registers it with the project and stores its
    // play header there and beside the file. Null, with a log line, on failure.
    Zn::Ptr<Zn::FileWriteInstance> create(const Cookie& cookie, Zn::FileWriterParams& params);
    // Moves every file of the clip `from` to the names of the clip `to`: each is closed
    // first, renamed on disk (its name's material cookie text replaced), and its record,
    // header and start offset move to the same material of `to`. A file whose name does
    // not carry the cookie keeps its name; only its record moves. 1 when all moved.
    int renameMediaFiles(const Cookie& from, const Cookie& to);

private:
    eClipRead audioReadRequestFor(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                                  uint32_t count, const DecodeFormat& format,
                                  Zn::Ptr<ReadRequestIssuer::Proxy>& issuer, bool noOffset);

    PlayFileCache& cache_;
};
