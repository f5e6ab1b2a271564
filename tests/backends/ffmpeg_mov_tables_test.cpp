// The moov reader: a small handmade track read into its samples; hostile boxes (sizes past
// their parent or the file, 64-bit and zero sizes, a truncated moov, counts that overflow
// or promise more than the box holds) refused with a reason and nothing large allocated;
// the top-level walk; and a real file's tables against what libavformat's demuxer gives.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegMovTables.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>

using namespace ffmpeg_engine;

namespace {

std::string u32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string u64(uint64_t v) { return u32(uint32_t(v >> 32)) + u32(uint32_t(v)); }
std::string box(const char* type, const std::string& body) { return u32(uint32_t(8 + body.size())) + type + body; }
std::string full(const char* type, const std::string& body) { return box(type, u32(0) + body); }
uint32_t u32At(const char* s) {
    return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 | uint32_t(uint8_t(s[2])) << 8 | uint8_t(s[3]);
}

// A visual sample description: width 176, height 144, depth 24, then its extensions.
std::string visual(const char* type, const std::string& extensions) {
    std::string fields(78, '\0');
    fields[25] = char(176);
    fields[27] = char(144);
    fields[75] = 24;
    return box(type, fields + extensions);
}

// The parts of a one-track moov box: tables a test may replace.
struct Track {
    std::string tkhd = full("tkhd", u32(0) + u32(0) + u32(7) + std::string(72, '\0'));
    std::string mdhd = full("mdhd", u32(0) + u32(0) + u32(600) + u32(0) + u32(0));
    std::string hdlr = full("hdlr", u32(0) + "vide" + std::string(12, '\0'));
    std::string elst = full("elst", u32(2) + u32(100) + u32(uint32_t(-1)) + u32(0x10000) + u32(300) + u32(512) + u32(0x10000));
    std::string stsd = full("stsd", u32(1) + visual("avc1", box("avcC", "\x01\x64") + box("pasp", u32(1) + u32(1))));
    std::string stts = full("stts", u32(2) + u32(2) + u32(256) + u32(1) + u32(512));
    std::string stss = full("stss", u32(2) + u32(1) + u32(3));
    std::string stsz = full("stsz", u32(0) + u32(3) + u32(10) + u32(20) + u32(30));
    std::string stsc = full("stsc", u32(2) + u32(1) + u32(2) + u32(1) + u32(2) + u32(1) + u32(1));
    std::string stco = full("stco", u32(2) + u32(100) + u32(200));
    std::string ctts = full("ctts", u32(2) + u32(1) + u32(512) + u32(2) + u32(uint32_t(-256)));
    std::string extra; // more boxes at the end of the moov box

    std::string moov() const {
        const std::string stbl = box("stbl", stsd + stts + stss + stsz + stsc + stco + ctts);
        const std::string trak = tkhd + box("edts", elst) + box("mdia", mdhd + hdlr + box("minf", stbl));
        return box("moov", full("mvhd", u32(0) + u32(0) + u32(1000) + u32(0)) + box("trak", trak) + extra);
    }
};

std::shared_ptr<const std::vector<uint8_t>> bytesOf(const std::string& s) {
    return std::make_shared<std::vector<uint8_t>>(s.begin(), s.end());
}

// The samples of track 7 of a moov box, or the reason they could not be had.
Result<MovTrackSamples> samplesOf(const std::string& moov) {
    auto tables = MovTables::parse(bytesOf(moov));
    if (!tables) return Result<MovTrackSamples>::fail(tables.error);
    return tables.value.samples(7);
}

// Why track 7 of a moov box cannot be described, timed or placed; empty when it can.
std::string refusal(const std::string& moov) {
    auto tables = MovTables::parse(bytesOf(moov));
    if (!tables) return tables.error;
    auto s = tables.value.samples(7);
    if (!s) return s.error;
    auto info = tables.value.describe(7);
    if (!info) return info.error;
    auto times = tables.value.times(7, s.value.offsets.size());
    return times ? std::string() : times.error;
}

ReadAt memoryReader(const std::string& file) {
    return [&file](int64_t pos, void* buf, size_t n) {
        if (pos < 0 || uint64_t(pos) > file.size() || n > file.size() - size_t(pos)) return false;
        std::memcpy(buf, file.data() + pos, n);
        return true;
    };
}

} // namespace

TEST(FfmpegMovTables, ReadsEachSamplePlaceSizeAndCompositionOffset) {
    auto s = samplesOf(Track{}.moov());
    ASSERT_TRUE(s) << s.error;
    EXPECT_EQ(s.value.offsets, (std::vector<int64_t>{100, 110, 200}));
    EXPECT_EQ(s.value.sizes, (std::vector<uint32_t>{10, 20, 30}));
    EXPECT_EQ(s.value.compositionOffsets, (std::vector<int32_t>{512, -256, -256}));
    EXPECT_EQ(s.value.sampleAt(110, 20, 0), 1);
    EXPECT_EQ(s.value.sampleAt(110, 21, 1), -1);
    EXPECT_EQ(s.value.sampleAt(150, 10, -1), -1);

    // 4-bit sizes, 64-bit chunk offsets out of order, a zero-size box (to the end of its
    // parent) and a 64-bit box size.
    Track t;
    t.stsz = full("stz2", std::string(3, '\0') + char(4) + u32(3) + char(0x12) + char(0x30));
    t.stco = full("co64", u32(2) + u64(uint64_t(1) << 33) + u64(50));
    t.ctts = u32(1) + "ctts" + u64(16 + 4 + 4 + 8) + u32(0) + u32(1) + u32(3) + u32(0);
    t.extra = u32(0) + "free" + "anything";
    s = samplesOf(t.moov());
    ASSERT_TRUE(s) << s.error;
    EXPECT_EQ(s.value.offsets, (std::vector<int64_t>{int64_t(1) << 33, (int64_t(1) << 33) + 1, 50}));
    EXPECT_EQ(s.value.sizes, (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_EQ(s.value.sampleAt(50, 3, 0), 2);
    EXPECT_EQ(s.value.compositionOffsets, (std::vector<int32_t>{0, 0, 0}));
}

TEST(FfmpegMovTables, DescribesTheTrackAndTimesItsSamples) {
    auto tables = MovTables::parse(bytesOf(Track{}.moov()));
    ASSERT_TRUE(tables) << tables.error;
    auto info = tables.value.describe(7);
    ASSERT_TRUE(info) << info.error;
    const MovTrackInfo& i = info.value;
    EXPECT_EQ(i.ordinal, 0);
    EXPECT_EQ(i.handler, u32At("vide"));
    EXPECT_EQ(i.timeScale, 600u);
    EXPECT_EQ(i.movieTimeScale, 1000u);
    ASSERT_EQ(i.edits.size(), 2u);
    EXPECT_EQ(i.edits[0].mediaTime, -1);
    EXPECT_EQ(i.edits[1].duration, 300);
    EXPECT_EQ(i.edits[1].mediaTime, 512);
    EXPECT_EQ(i.format, u32At("avc1"));
    EXPECT_EQ(i.width, 176);
    EXPECT_EQ(i.height, 144);
    EXPECT_EQ(i.depth, 24);
    ASSERT_TRUE(i.extension(u32At("avcC")));
    EXPECT_EQ(i.extension(u32At("avcC"))->body.size(), 2u);
    EXPECT_TRUE(i.extension(u32At("pasp")));
    EXPECT_FALSE(i.extension(u32At("hvcC")));
    auto times = tables.value.times(7, 3);
    ASSERT_TRUE(times) << times.error;
    EXPECT_EQ(times.value.decodeTimes, (std::vector<int64_t>{0, 256, 512}));
    EXPECT_EQ(times.value.end, 1024);
    EXPECT_EQ(times.value.sync, (std::vector<char>{1, 0, 1}));
    EXPECT_EQ(times.value.tableSamples, 3u);
    // Without stss every sample is a sync sample.
    Track t;
    t.stss.clear();
    tables = MovTables::parse(bytesOf(t.moov()));
    ASSERT_TRUE(tables) << tables.error;
    EXPECT_EQ(tables.value.times(7, 3).value.sync, (std::vector<char>{1, 1, 1}));
}

TEST(FfmpegMovTables, RefusesHostileBoxesWithAReason) {
    struct Case {
        std::string name;
        std::function<void(Track&)> spoil;
        std::string reason; // part of the reason given
    };
    const std::vector<Case> cases = {
        {"size count past the box", [](Track& t) { t.stsz = full("stsz", u32(0) + u32(0xFFFFFFFF) + u32(10)); }, "runs past"},
        {"common size, too many samples",
         [](Track& t) { t.stsz = full("stsz", u32(1) + u32(MovTables::kMaxSamples + 1)); }, "more samples"},
        {"no samples", [](Track& t) { t.stsz = full("stsz", u32(0) + u32(0)); }, "no samples"},
        {"4-bit sizes past the box", [](Track& t) { t.stsz = full("stz2", std::string(3, '\0') + char(4) + u32(5) + char(1)); }, "runs past"},
        {"unknown field size", [](Track& t) { t.stsz = full("stz2", std::string(3, '\0') + char(7) + u32(1) + char(1)); }, "field size"},
        {"chunk count past the box", [](Track& t) { t.stco = full("stco", u32(0x40000001) + u32(100)); }, "runs past"},
        {"chunk offset out of range", [](Track& t) { t.stco = full("co64", u32(2) + u64(~uint64_t(0)) + u64(0)); }, "out of range"},
        {"run count past the box", [](Track& t) { t.stsc = full("stsc", u32(0x15555556) + u32(1) + u32(1) + u32(1)); }, "runs past"},
        {"empty chunks", [](Track& t) { t.stsc = full("stsc", u32(1) + u32(1) + u32(0) + u32(1)); }, "irregular"},
        {"runs out of order", [](Track& t) { t.stsc = full("stsc", u32(2) + u32(1) + u32(1) + u32(1) + u32(1) + u32(2) + u32(1)); }, "irregular"},
        {"two descriptions", [](Track& t) { t.stsd = full("stsd", u32(2)); }, "several sample descriptions"},
        {"offset count past the box", [](Track& t) { t.ctts = full("ctts", u32(0x20000000) + u32(1) + u32(0)); }, "runs past"},
        {"offsets for too few samples", [](Track& t) { t.ctts = full("ctts", u32(1) + u32(2) + u32(0)); }, "fewer samples"},
        {"negative offset counts", [](Track& t) { t.ctts = full("ctts", u32(1) + u32(0x80000000) + u32(0)); }, "fewer samples"},
        {"offset out of range", [](Track& t) { t.ctts = full("ctts", u32(3) + u32(1) + u32(1 << 29) + u32(1) + u32(0) + u32(1) + u32(0)); }, "out of range"},
        {"two size tables", [](Track& t) { t.stco += full("stsz", u32(4) + u32(3)); }, "two stsz"},
        {"no chunk offsets", [](Track& t) { t.stco.clear(); }, "incomplete"},
        {"box past its parent", [](Track& t) { t.ctts = u32(1000) + "ctts" + u32(0); }, "past its parent"},
        {"size below its header", [](Track& t) { t.ctts = u32(4) + "ctts" + u32(0); }, "malformed"},
        {"64-bit size past its parent", [](Track& t) { t.ctts = u32(1) + "ctts" + u64(uint64_t(1) << 62); }, "past its parent"},
        {"truncated tkhd", [](Track& t) { t.tkhd = full("tkhd", u32(0)); }, "truncated"},
        {"no such track", [](Track& t) { t.tkhd = full("tkhd", u32(0) + u32(0) + u32(8) + std::string(72, '\0')); }, "no track 7"},
        // The track's description and timing.
        {"edit count past the box", [](Track& t) { t.elst = full("elst", u32(5) + u32(1) + u32(0) + u32(0x10000)); }, "runs past"},
        {"edit before the media", [](Track& t) { t.elst = full("elst", u32(1) + u32(1) + u32(uint32_t(-2)) + u32(0x10000)); }, "negative media time"},
        {"wide edit out of range", [](Track& t) { t.elst = box("elst", u32(0x01000000) + u32(1) + u64(~uint64_t(0)) + u64(0) + u32(0)); }, "out of range"},
        {"two edit lists", [](Track& t) { t.tkhd += box("edts", t.elst); }, "two elst"},
        {"truncated mdhd", [](Track& t) { t.mdhd = full("mdhd", u32(0)); }, "mdhd box is truncated"},
        {"truncated hdlr", [](Track& t) { t.hdlr = full("hdlr", ""); }, "hdlr box is truncated"},
        {"no hdlr", [](Track& t) { t.hdlr.clear(); }, "description is incomplete"},
        {"truncated visual description", [](Track& t) { t.stsd = full("stsd", u32(1) + box("avc1", std::string(16, '\0'))); }, "truncated"},
        {"extension past its parent", [](Track& t) { t.stsd = full("stsd", u32(1) + visual("avc1", u32(99) + "avcC")); }, "past its parent"},
        {"no description inside", [](Track& t) { t.stsd = full("stsd", u32(1)); }, "truncated"},
        {"durations for too few samples", [](Track& t) { t.stts = full("stts", u32(1) + u32(2) + u32(256)); }, "fewer samples"},
        {"duration count past the box", [](Track& t) { t.stts = full("stts", u32(9) + u32(3) + u32(256)); }, "runs past"},
        {"negative duration", [](Track& t) { t.stts = full("stts", u32(1) + u32(3) + u32(0x80000000)); }, "negative duration"},
        {"no durations", [](Track& t) { t.stts.clear(); }, "no stts"},
        {"sync samples out of order", [](Track& t) { t.stss = full("stss", u32(2) + u32(3) + u32(1)); }, "out of order"},
        {"sync sample 0", [](Track& t) { t.stss = full("stss", u32(1) + u32(0)); }, "counts from 0"},
        {"sync sample past the track", [](Track& t) { t.stss = full("stss", u32(1) + u32(4)); }, "does not hold"},
        {"no sync sample", [](Track& t) { t.stss = full("stss", u32(0)); }, "no sync sample"},
        {"sync count past the box", [](Track& t) { t.stss = full("stss", u32(0x40000000) + u32(1)); }, "runs past"},
        {"truncated mvhd", [](Track& t) { t.extra = full("mvhd", u32(0)); }, "mvhd box is truncated"},
        {"chunks that hold no sample", [](Track& t) { t.stco = full("stco", u32(0)); }, "no samples"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Track t;
        c.spoil(t);
        const std::string why = refusal(t.moov());
        ASSERT_FALSE(why.empty());
        EXPECT_NE(why.find(c.reason), std::string::npos) << why;
    }
    EXPECT_EQ(refusal(Track{}.moov()), "");
    // A moov box cut short, or longer than its bytes, is not a moov box.
    const std::string moov = Track{}.moov();
    for (size_t keep : {size_t(0), size_t(7), size_t(16), moov.size() - 1})
        EXPECT_FALSE(MovTables::parse(bytesOf(moov.substr(0, keep)))) << keep;
    EXPECT_FALSE(MovTables::parse(bytesOf(moov + "x")));
    EXPECT_FALSE(MovTables::parse(bytesOf(box("moof", ""))));
    // Fragmented files say so.
    Track t;
    t.extra = box("mvex", "");
    auto tables = MovTables::parse(bytesOf(t.moov()));
    ASSERT_TRUE(tables) << tables.error;
    EXPECT_TRUE(tables.value.fragmented());
}

TEST(FfmpegMovTables, FindsTheMoovBoxAmongTheTopLevelBoxes) {
    const std::string ftyp = box("ftyp", "isom" + u32(0x200));
    const std::string moov = Track{}.moov();
    struct Case {
        std::string name;
        std::string file;
        int64_t moovAt; // -1: refused
    };
    const std::string mdat = box("mdat", std::string(64, 'x'));
    const std::string mdat64 = u32(1) + "mdat" + u64(16 + 64) + std::string(64, 'x');
    std::string manyBoxes = ftyp;
    for (int i = 0; i < MovTables::kMaxTopLevelBoxes; ++i) manyBoxes += box("free", "");
    const std::vector<Case> cases = {
        {"after the media", ftyp + mdat + moov, int64_t(ftyp.size() + mdat.size())},
        {"first", moov + mdat, 0},
        {"after 64-bit media", ftyp + mdat64 + moov, int64_t(ftyp.size() + mdat64.size())},
        {"media to the end", ftyp + u32(0) + "mdat" + std::string(64, 'x') + moov, -1},
        {"media past the end", ftyp + u32(1000) + "mdat" + moov, -1},
        {"64-bit size past the end", ftyp + u32(1) + "mdat" + u64(~uint64_t(0)) + moov, -1},
        {"moov cut short", ftyp + moov.substr(0, moov.size() - 3), -1},
        {"fragments first", ftyp + box("moof", "") + moov, -1},
        {"not QuickTime", "RIFF" + u32(100) + "AVI LIST" + moov, -1},
        {"too many boxes", manyBoxes + moov, -1},
        {"too short", "abc", -1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto where = MovTables::findMoov(memoryReader(c.file), int64_t(c.file.size()));
        if (c.moovAt < 0) {
            EXPECT_FALSE(where);
            continue;
        }
        ASSERT_TRUE(where) << where.error;
        EXPECT_EQ(where.value.first, c.moovAt);
        EXPECT_EQ(where.value.second, int64_t(moov.size()));
    }
    // A moov box larger than the reader takes is refused before it is read.
    const std::string head = ftyp + u32(1) + "moov" + u64(uint64_t(MovTables::kMaxMoovBytes) + 16);
    auto huge = MovTables::findMoov(memoryReader(head), int64_t(head.size()) + MovTables::kMaxMoovBytes + 16);
    ASSERT_FALSE(huge);
    EXPECT_NE(huge.error.find("larger"), std::string::npos) << huge.error;
}

// Every packet libavformat's demuxer gives of a real file's video (B-frames, an edit list
// that starts inside a group) is a sample of the tables, and its pts less its dts is that
// sample's composition offset, the same shift for all.
TEST(FfmpegMovTables, ARealFilesTablesMatchTheDemuxersPackets) {
    testing_support::TempDir dir;
    const std::string source = ffmpeg_oracle::made(dir, "source.mp4", "-f lavfi -i testsrc2=size=176x144:rate=25:duration=3",
                                                   "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p");
    const std::string path = ffmpeg_oracle::made(dir, "cut.mp4", "-ss 1.3 -i " + testing_support::shellQuote(source), "-c copy");
    std::ifstream in(path, std::ios::binary);
    const std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto where = MovTables::findMoov(memoryReader(file), int64_t(file.size()));
    ASSERT_TRUE(where) << where.error;
    auto tables = MovTables::parse(bytesOf(file.substr(size_t(where.value.first), size_t(where.value.second))));
    ASSERT_TRUE(tables) << tables.error;

    AVFormatContext* ctx = nullptr;
    ASSERT_EQ(avformat_open_input(&ctx, path.c_str(), nullptr, nullptr), 0);
    auto samples = tables.value.samples(uint32_t(ctx->streams[0]->id));
    ASSERT_TRUE(samples) << samples.error;
    ASSERT_FALSE(samples.value.compositionOffsets.empty());
    AVPacket* pkt = av_packet_alloc();
    int packets = 0;
    int64_t shift = 0;
    while (av_read_frame(ctx, pkt) >= 0) {
        if (pkt->stream_index == 0) {
            const int64_t at = samples.value.sampleAt(pkt->pos, pkt->size, -1);
            ASSERT_GE(at, 0) << "packet " << packets;
            const int64_t d = pkt->pts - pkt->dts - samples.value.compositionOffsets[size_t(at)];
            if (packets++ == 0) shift = d;
            EXPECT_EQ(d, shift) << "packet " << packets;
        }
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&ctx);
    EXPECT_EQ(size_t(packets), samples.value.offsets.size());
}
