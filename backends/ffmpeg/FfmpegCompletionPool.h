// Completing intra-frame read requests off the video queue's thread. An intra-only file's
// frame read only fetches the compressed packet; the request then decodes it on
// completion, through the decoder registered with Zn::DecoderInfo. Done on the queue's
// one thread, the decodes of a file follow one another; handed to this pool's workers,
// the frames queued ahead (by several requests in flight, or by the reader's own
// read-ahead) decode side by side, as frame threads would.
//
// The workers belong to the back-end, not to a file: a worker may drop the last reference
// to a request and with it to its file, and the file's destructor then runs on the worker,
// which it must not wait for.
#pragma once

#include "host/media/FrameBufferRep.h"
#include "playfile/requests/VideoReadRequest.h"

namespace ffmpeg_backend {

class FfmpegCompletionPool {
public:
    // Attaches buffer to request and completes it (decoding it, calling its issuers) on a
    // worker. False when no worker could be started: the caller completes it itself.
    static bool complete(Zn::Ptr<VideoReadRequest> request, Zn::Ptr<FrameBufferRep> buffer);
};

} // namespace ffmpeg_backend
