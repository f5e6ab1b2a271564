// Turning a video track's packets (decode order) into frames (presentation order). A
// frame is one the decoder shows when the whole stream is decoded from its start, exactly
// as FFmpeg's own command-line program numbers them:
//  - packets the demuxer marks for discarding (before an edit list's start) show nothing;
//  - the presentation order is the order of the packets' presentation times;
//  - a frame decodes intact from the last key packet at or before it in decode order whose
//    presentation time is not later than its own: leading pictures of an open GOP (after
//    the key packet in decode order, before it in presentation) need the previous group;
//  - before the first key packet (and leading pictures of it) whether the decoder shows a
//    picture depends on the codec, so a short probe decode of the head settles it; those
//    frames decode only from the very first packet.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"

#include <vector>

namespace ffmpeg_engine {

// Per packet of a track, in decode order.
struct PacketOrder {
    std::vector<int64_t> order; // its place in presentation order (a time or a rank)
    std::vector<char> included; // its picture is one of the track's frames
    std::vector<char> certain;  // it decodes intact from a key packet at or after firstKey
};

// The order from the packets' times (pts, else dts, else one after the last). Answers
// whether pictures remain whose showing only a probe decode of the head can settle.
bool orderByTimes(const VideoTrack& v, int firstKey, PacketOrder& o);
// The order in which a decoder fed every packet (its pts the packet's decode index)
// showed them: outputs lists those decode indexes.
void orderByOutputs(const std::vector<int>& outputs, size_t packets, PacketOrder& o);
// Includes the undiscarded pictures a single-threaded decoder shows of the head packets.
void includeProbed(const VideoTrack& v, const std::vector<PacketPtr>& head, PacketOrder& o);

// MPEG-4 Part 2 written by DivX/Xvid in "packed" mode stores a B-frame inside the packet
// of the following P-frame and sends an empty placeholder later; the decoder then shows
// pictures one packet late, and where that shift starts depends on where decoding began.
// Such streams say so in their user data ("DivX503b1393p": the trailing 'p').
bool hasPackedBFrames(const AVCodecParameters* par, const std::vector<PacketPtr>& head);

// Fills v.frames, v.groupFirst, v.allFramesKey and each packet's frame from the order.
// fromStartOnly: every frame decodes from the very first packet (packed B-frames). False
// when no frame remains.
bool buildFrames(VideoTrack& v, const PacketOrder& o, int firstKey, bool fromStartOnly);

// Decodes packets with a single-threaded decoder, their pts replaced by their decode
// index, and records which packets' pictures come out and in what order.
class OrderProbe {
public:
    bool open(const AVCodecParameters* par);
    void feed(AVPacket* pkt, int decodeIndex);
    void finish();
    std::vector<int> outputs;

private:
    void receive();
    CodecContextPtr ctx_;
    FramePtr frame_;
};

} // namespace ffmpeg_engine
