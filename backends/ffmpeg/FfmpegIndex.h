// The index FfmpegSource builds when it opens a file: every packet of the chosen video
// stream and of each audio stream, the video frames in presentation order with the key
// packet each one's decoding must start from, and each audio packet's place in the
// decoded sample stream. It is built once and never changes, so decoders on other
// threads share it without locking.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ffmpeg_engine {

// What the demuxer says about a packet, kept to recognise the packet again after a seek.
// Position and size alone are not enough: an Ogg page holds several packets with the same
// position, often of equal size, and after a seek they come without timestamps.
struct PacketKey {
    int64_t pts = AV_NOPTS_VALUE;
    int64_t dts = AV_NOPTS_VALUE;
    int64_t pos = -1; // byte position in the file, -1 when the demuxer gives none
    int32_t size = 0;
    uint32_t digest = 0; // packetDigest() of its bytes
    bool hasDigest = true; // false when the bytes were not read at open (known from the
                           // container's index): then position and times identify it
};

// A cheap fingerprint of a packet's bytes: its first and last 32 bytes.
uint32_t packetDigest(const AVPacket* pkt);

// One video packet, in decode order.
struct VideoPacket {
    PacketKey key;
    int32_t frame = -1;     // the frame (presentation index) it yields; -1 for none of ours
    bool keyFrame = false;  // the demuxer flagged it as a random-access point
    bool discard = false;   // the demuxer asked for its picture to be dropped (edit lists)
};

// One video frame, in presentation order.
struct VideoFrame {
    int64_t pts = 0;         // presentation time in the stream's time base (the frame's
                             // number when the order came from decoding: no times exist)
    int32_t packet = 0;      // its packet (decode order)
    int32_t startPacket = 0; // the key packet whose decoding leads to this frame intact
    bool isKey() const { return packet == startPacket; }
};

struct VideoTrack {
    int stream = -1; // index of the stream in the file
    CodecParametersPtr codec;
    AVRational timeBase{1, 1};
    AVRational frameRate{0, 1}; // average rate; 0/1 when the file does not say
    AVRational sar{0, 1}; // shape of a pixel (width / height); 0/1 when unknown
    int width = 0;
    int height = 0;
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE; // the decoder's native output format
    bool codecIsIntraOnly = false; // the codec has no inter prediction at all
    bool allFramesKey = false;     // every frame of this file decodes on its own
    bool orderFromDecoder = false; // presentation order came from a decoding pass
    std::vector<VideoPacket> packets;
    std::vector<VideoFrame> frames;
    std::vector<int32_t> groupFirst; // per frame: the first frame of its group

    int frameCount() const { return int(frames.size()); }
    // The frames decoded from the same key packet as frame, as [first, last].
    std::pair<int, int> groupOf(int frame) const;
    // The first frame of frame's group: where a decode that reaches frame begins.
    int groupStart(int frame) const { return groupFirst[size_t(frame)]; }
    // The frame of the key packet frame's decoding starts at; -1 when that packet shows
    // no picture of its own (cut away by an edit list).
    int keyFrameOf(int frame) const { return packets[size_t(frames[size_t(frame)].startPacket)].frame; }
    double seconds(int64_t pts) const { return double(pts) * av_q2d(timeBase); }
};

// One audio packet, in stream order.
struct AudioPacket {
    PacketKey key;
    int64_t outStart = 0;  // position of its first sample in the decoded stream
    int32_t outCount = 0;  // samples it adds to the decoded stream (after trimming)
    int32_t decoded = 0;   // samples the decoder makes of it before trimming
    int32_t skipStart = 0; // trimming the demuxer attached (AV_PKT_DATA_SKIP_SAMPLES)
    int32_t skipEnd = 0;
    int32_t trimmedStart = 0; // samples of it the skip removed from the start of its output
    bool discard = false;
};

// A stretch of plain PCM stored contiguously in the file.
struct PcmRun {
    int64_t firstSample = 0;
    int64_t pos = 0; // byte position of firstSample
    int64_t samples = 0;
};

struct AudioTrack {
    int stream = -1;
    CodecParametersPtr codec;
    AVRational timeBase{1, 1};
    int sampleRate = 0;
    int channels = 0;
    AVSampleFormat sampleFormat = AV_SAMPLE_FMT_NONE; // the decoder's native output format
    int64_t totalSamples = 0;
    bool plainPcm = false; // read from pcmRuns by byte position, without a decoder
    int bytesPerFrame = 0; // bytes of one sample of every channel in the file (plain PCM)
    int prerollPackets = 0; // packets decoded before the wanted one after a seek
    int32_t initialSkip = 0; // samples the decoder drops at its start of its own accord
    std::vector<AudioPacket> packets;
    std::vector<PcmRun> pcmRuns;
};

// How the packets were learnt at open: from the container's own index (its tables list
// every packet; their payloads were not read), by reading the whole file, or from a
// QuickTime/MP4 file's sample tables without a demuxer (video only: FfmpegMovSource.h;
// the video packets are then read by position straight from the file).
enum class IndexSource { ContainerIndex, Scan, SampleTables };

struct MediaIndex {
    std::string path;
    IndexSource source = IndexSource::Scan;
    std::string scanReason;    // why the whole file was read, when it was
    std::string indexNote;     // from the container's index: why the video packets still all
                               // went through the demuxer, when they did
    std::string tablesNote;    // asked for video alone: why the file's sample tables were
                               // not enough, when they were not
    uint64_t bytesRead = 0;    // bytes of the file the indexing pass read
    std::string container;     // the demuxer's name ("mov,mp4,m4a,3gp,3g2,mj2", "matroska,webm")
    std::string scanWarning;   // why the packet scan stopped before the end, if it did
    double openSeconds = 0;    // time open() took
    std::optional<VideoTrack> video;
    std::vector<AudioTrack> audio;
};

} // namespace ffmpeg_engine
