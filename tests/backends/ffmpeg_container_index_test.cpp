// Indexing from the container's own index against reading the whole file: for files the
// ffmpeg program makes (B-frames, open groups, an edit list that starts on a non-key frame,
// a start time other than 0, several codecs and audio kinds), the index built without
// reading the payloads is the index the whole-file read builds, packet for packet and
// sample for sample; containers without a complete index are read whole; and indexing a
// file from its container's index reads a small part of it.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace testing_support;
using namespace ffmpeg_engine;

namespace {

const std::string kVideo = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=3 ";
const std::string kTone = "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 ";
const std::string kH264 = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p";

std::shared_ptr<const MediaIndex> indexOf(const std::string& path, bool useContainerIndex) {
    auto r = FfmpegSource::open(path, FfmpegSource::Options{useContainerIndex});
    EXPECT_TRUE(r) << path << ": " << r.error;
    return r ? r.value : nullptr;
}

// Everything a decoder or the readers use, compared field by field (the packets' digests
// excepted: unread payloads have none).
void expectSameKey(const PacketKey& a, const PacketKey& b, const std::string& what) {
    EXPECT_EQ(a.pts, b.pts) << what;
    EXPECT_EQ(a.dts, b.dts) << what;
    EXPECT_EQ(a.pos, b.pos) << what;
    EXPECT_EQ(a.size, b.size) << what;
}

void expectSameVideo(const VideoTrack& a, const VideoTrack& b) {
    EXPECT_EQ(a.stream, b.stream);
    EXPECT_EQ(a.codec->video_delay, b.codec->video_delay);
    EXPECT_EQ(a.pixelFormat, b.pixelFormat);
    EXPECT_EQ(a.orderFromDecoder, b.orderFromDecoder);
    EXPECT_EQ(a.allFramesKey, b.allFramesKey);
    ASSERT_EQ(a.packets.size(), b.packets.size());
    for (size_t i = 0; i < a.packets.size(); ++i) {
        const std::string what = "video packet " + std::to_string(i);
        expectSameKey(a.packets[i].key, b.packets[i].key, what);
        EXPECT_EQ(a.packets[i].frame, b.packets[i].frame) << what;
        EXPECT_EQ(a.packets[i].keyFrame, b.packets[i].keyFrame) << what;
        EXPECT_EQ(a.packets[i].discard, b.packets[i].discard) << what;
    }
    ASSERT_EQ(a.frames.size(), b.frames.size());
    for (size_t i = 0; i < a.frames.size(); ++i) {
        EXPECT_EQ(a.frames[i].pts, b.frames[i].pts) << "frame " << i;
        EXPECT_EQ(a.frames[i].packet, b.frames[i].packet) << "frame " << i;
        EXPECT_EQ(a.frames[i].startPacket, b.frames[i].startPacket) << "frame " << i;
    }
}

void expectSameAudio(const AudioTrack& a, const AudioTrack& b) {
    EXPECT_EQ(a.stream, b.stream);
    EXPECT_EQ(a.totalSamples, b.totalSamples);
    EXPECT_EQ(a.plainPcm, b.plainPcm);
    EXPECT_EQ(a.prerollPackets, b.prerollPackets);
    EXPECT_EQ(a.initialSkip, b.initialSkip);
    EXPECT_EQ(a.pcmRuns.size(), b.pcmRuns.size());
    ASSERT_EQ(a.packets.size(), b.packets.size());
    for (size_t i = 0; i < a.packets.size(); ++i) {
        const AudioPacket& x = a.packets[i];
        const AudioPacket& y = b.packets[i];
        const std::string what = "audio packet " + std::to_string(i);
        expectSameKey(x.key, y.key, what);
        EXPECT_EQ(x.outStart, y.outStart) << what;
        EXPECT_EQ(x.outCount, y.outCount) << what;
        EXPECT_EQ(x.decoded, y.decoded) << what;
        EXPECT_EQ(x.skipStart, y.skipStart) << what;
        EXPECT_EQ(x.skipEnd, y.skipEnd) << what;
        EXPECT_EQ(x.trimmedStart, y.trimmedStart) << what;
        EXPECT_EQ(x.discard, y.discard) << what;
    }
}

struct Case {
    std::string name;
    std::string input;  // ffmpeg input arguments
    std::string output; // ffmpeg output arguments
    IndexSource expected;
    bool videoPredicted = false; // the video's packets after its head came from the index
};

} // namespace

TEST(FfmpegContainerIndex, BuildsTheIndexTheWholeFileReadBuilds) {
    TempDir dir;
    const std::string source =
        ffmpeg_oracle::made(dir, "source.mp4", kVideo + kTone, kH264 + " -x264-params open_gop=1 -c:a aac -b:a 64k");
    const std::string copy = "-i " + shellQuote(source);
    const std::vector<Case> cases = {
        {"closed.mp4", kVideo + kTone, kH264 + " -c:a aac -b:a 64k", IndexSource::ContainerIndex, true},
        {"cut.mp4", "-ss 1.3 " + copy, "-c copy", IndexSource::ContainerIndex, true},
        {"offset.mp4", "-itsoffset 0.5 " + copy, "-c copy", IndexSource::ContainerIndex, true},
        {"negative_cts.mp4", copy, "-c copy -movflags +negative_cts_offsets", IndexSource::ContainerIndex, true},
        {"faststart.mp4", copy, "-c copy -movflags +faststart", IndexSource::ContainerIndex, true},
        {"fragmented.mp4", copy, "-c copy -movflags +frag_keyframe+empty_moov", IndexSource::Scan},
        {"hevc.mp4", kVideo,
         "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:bframes=3 -pix_fmt yuv420p",
         IndexSource::ContainerIndex, true},
        {"ac3.mp4", kVideo + kTone, kH264 + " -c:a ac3 -b:a 96k", IndexSource::ContainerIndex, true},
        {"prores.mov", kVideo + kTone, "-c:v prores_ks -profile:v 0 -c:a pcm_s24le", IndexSource::ContainerIndex, true},
        {"mjpeg.avi", kVideo + kTone, "-c:v mjpeg -q:v 4 -c:a pcm_s16le", IndexSource::ContainerIndex},
        {"mp3.mov", kVideo + kTone, kH264 + " -c:a libmp3lame -b:a 64k", IndexSource::Scan},
        {"h264.mkv", kVideo + kTone, kH264 + " -c:a aac -b:a 64k", IndexSource::Scan},
        {"mpeg2.ts", kVideo, "-c:v mpeg2video -g 12 -bf 2 -output_ts_offset 10", IndexSource::Scan},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = ffmpeg_oracle::made(dir, c.name, c.input, c.output);
        auto fromIndex = indexOf(path, true);
        auto whole = indexOf(path, false);
        ASSERT_TRUE(fromIndex && whole);
        EXPECT_EQ(fromIndex->source, c.expected) << fromIndex->scanReason;
        if (c.expected == IndexSource::ContainerIndex) EXPECT_EQ(fromIndex->indexNote.empty(), c.videoPredicted) << fromIndex->indexNote;
        EXPECT_EQ(whole->source, IndexSource::Scan);
        ASSERT_EQ(bool(fromIndex->video), bool(whole->video));
        if (whole->video) expectSameVideo(*fromIndex->video, *whole->video);
        ASSERT_EQ(fromIndex->audio.size(), whole->audio.size());
        for (size_t a = 0; a < whole->audio.size(); ++a) expectSameAudio(fromIndex->audio[a], whole->audio[a]);
    }
}

// Most of a file is its payloads: indexed from its container's index, a file of many
// frames is read for its header and the first packets only; read whole, once, in large
// pieces.
TEST(FfmpegContainerIndex, ReadsLittleOfTheFileWhereTheContainerIndexesIt) {
    TempDir dir;
    const std::string video = "-f lavfi -i testsrc2=size=320x240:rate=25:duration=8 ";
    // H.264 with AAC, whose packets after the head all come from the index; ProRes with
    // PCM, whose audio the demuxer reads to the end (the video's payloads stay unread).
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"noise.mp4", "-vf noise=alls=40:allf=t -c:v libx264 -preset ultrafast -g 25 -b:v 6M -c:a aac -b:a 64k"},
             {"prores.mov", "-c:v prores_ks -profile:v 0 -c:a pcm_s16le"}}) {
        SCOPED_TRACE(name);
        const std::string path = ffmpeg_oracle::made(dir, name, video + kTone, args);
        struct stat st {};
        ASSERT_EQ(::stat(path.c_str(), &st), 0);
        auto fromIndex = indexOf(path, true);
        auto whole = indexOf(path, false);
        ASSERT_TRUE(fromIndex && whole);
        ASSERT_EQ(fromIndex->source, IndexSource::ContainerIndex) << fromIndex->scanReason;
        EXPECT_LT(fromIndex->bytesRead, uint64_t(st.st_size) / 4);
        EXPECT_GE(whole->bytesRead, uint64_t(st.st_size));
        EXPECT_LT(whole->bytesRead, uint64_t(st.st_size) * 2);
    }
}

// For video alone, a QuickTime/MP4 file's own sample tables stand in for the demuxer: the
// video index they give is the one the whole-file read builds (edit lists that start on a
// non-key frame or after an empty edit, B-frames, open groups, none at all), with the
// decoder's parameters taken from the sample description; what they cannot give exactly
// is left to the demuxer, with the reason.
TEST(FfmpegContainerIndex, SampleTablesGiveTheVideoIndexTheWholeFileReadBuilds) {
    TempDir dir;
    const std::string source =
        ffmpeg_oracle::made(dir, "source.mp4", kVideo + kTone, kH264 + " -x264-params open_gop=1 -c:a aac -b:a 64k");
    const std::string copy = "-i " + shellQuote(source);
    struct TablesCase {
        std::string name, input, output;
        std::string refusal; // part of the reason the tables are not used; empty: they are
    };
    const std::vector<TablesCase> cases = {
        {"open_gop.mp4", copy, "-c copy", ""},
        {"cut.mp4", "-ss 1.3 " + copy, "-c copy", ""},
        {"offset.mp4", "-itsoffset 0.5 " + copy, "-c copy", ""},
        {"no_edits.mp4", copy, "-c copy -use_editlist 0", ""},
        {"faststart.mp4", copy, "-c copy -movflags +faststart", ""},
        {"full_range.mov", kVideo, "-c:v libx264 -g 12 -bf 2 -pix_fmt yuvj422p", ""},
        {"high10.mp4", kVideo, "-c:v libx264 -g 12 -bf 2 -pix_fmt yuv420p10le", ""},
        {"hevc.mp4", kVideo, "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:bframes=3", ""},
        {"prores.mov", kVideo + kTone, "-c:v prores_ks -profile:v 0 -c:a pcm_s24le", ""},
        {"negative_cts.mp4", copy, "-c copy -movflags +negative_cts_offsets", "negative composition offsets"},
        {"fragmented.mp4", copy, "-c copy -movflags +frag_keyframe+empty_moov", "fragmented"},
        {"mpeg4.mp4", kVideo, "-c:v mpeg4 -g 12 -bf 2", "left to libavformat"},
        {"h264.mkv", kVideo, kH264, "not a QuickTime/MP4 file"},
        {"audio.m4a", kTone, "-c:a aac", "no video track"},
    };
    for (const TablesCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = ffmpeg_oracle::made(dir, c.name, c.input, c.output);
        FfmpegSource::Options videoOnly;
        videoOnly.videoOnly = true;
        auto tables = FfmpegSource::open(path, videoOnly);
        ASSERT_TRUE(tables) << tables.error;
        if (!c.refusal.empty()) {
            EXPECT_NE(tables.value->source, IndexSource::SampleTables);
            EXPECT_NE(tables.value->tablesNote.find(c.refusal), std::string::npos) << tables.value->tablesNote;
            continue;
        }
        ASSERT_EQ(tables.value->source, IndexSource::SampleTables) << tables.value->tablesNote;
        EXPECT_TRUE(tables.value->audio.empty());
        auto whole = indexOf(path, false);
        ASSERT_TRUE(whole && whole->video && tables.value->video);
        const VideoTrack& a = *tables.value->video;
        const VideoTrack& b = *whole->video;
        expectSameVideo(a, b);
        EXPECT_EQ(a.codec->codec_id, b.codec->codec_id);
        EXPECT_EQ(a.codec->codec_tag, b.codec->codec_tag);
        EXPECT_EQ(std::string(a.codec->extradata, a.codec->extradata + a.codec->extradata_size),
                  std::string(b.codec->extradata, b.codec->extradata + b.codec->extradata_size));
        EXPECT_EQ(a.codec->color_range, b.codec->color_range);
        EXPECT_EQ(av_cmp_q(a.timeBase, b.timeBase), 0);
        EXPECT_EQ(av_cmp_q(a.frameRate, b.frameRate), 0) << a.frameRate.num << "/" << a.frameRate.den;
        EXPECT_EQ(av_cmp_q(a.sar, b.sar), 0);
        EXPECT_EQ(a.width, b.width);
        EXPECT_EQ(a.height, b.height);
        EXPECT_EQ(a.codecIsIntraOnly, b.codecIsIntraOnly);
    }
}
