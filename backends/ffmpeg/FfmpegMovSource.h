// Indexing the video of a QuickTime/MP4 file from its own sample tables, with no demuxer:
// the moov box is read once (FfmpegMovTables.h), the video track's packets are listed with
// the times, flags and edit-list cuts libavformat's demuxer gives them, and the decoder's
// parameters come from the sample description (codec from its type, extradata from its
// avcC/hvcC box), checked by decoding the first frame, which also gives the picture's
// pixel format and shape. The packets are later read straight from the file by position
// (PacketCursor). Costs the moov box and a few bytes per sample, whatever else the file
// holds.
//
// Only what this reader follows exactly is taken: one video track; an edit list of empty
// edits and at most one edit at normal rate; no negative composition offsets, partial sync
// samples or pictures the decoder may show before the first key frame; a codec among
// H.264, HEVC, ProRes, DNxHD and Motion JPEG. Anything else, and damaged tables, fail
// with the reason, and the caller opens the file through libavformat as before.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"
#include "backends/ffmpeg/FfmpegMovTables.h"

#include <memory>
#include <string>

namespace ffmpeg_engine {

class MovVideoSource {
public:
    // The index of path's video stream, without audio. Result::cause holds the errno when
    // the system failed (the caller then reports that rather than trying libavformat).
    static Result<std::shared_ptr<const MediaIndex>> open(const std::string& path);

    // The video track of a file's parsed tables (the file being fileSize bytes long): its
    // packets and frames, and the decoder's parameters as the sample description gives
    // them (the picture's format is learnt by decoding, in open()). No file is read.
    static Result<VideoTrack> trackOf(const MovTables& tables, int64_t fileSize);
};

// Reads the packet k describes straight from the file (fd) at its position: payload,
// times and key flag. Answers 0, or a negative AVERROR.
int readStoredPacket(int fd, const VideoPacket& packet, AVPacket* pkt);

} // namespace ffmpeg_engine
