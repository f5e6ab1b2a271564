// The play header: key lookup, the two parsers, the writer and the self-test program.
#include "playfile/Version.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/header/PlayPriv.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string written(SAV_HEADER h) {
    std::string buf(header_text_size(&h), '\0');
    char* end = header_to_string(&h, buf.data());
    buf.resize(size_t(end - buf.data()));
    return buf;
}

SAV_HEADER parsedV2(std::string text, SAV_HEADER h = {}) {
    parse_header_v2(&h, text.data());
    return h;
}

// The values, as text, one blank between them.
template <class... T> std::string fields(const T&... values) {
    std::ostringstream out;
    const char* sep = "";
    ((out << sep << values, sep = " "), ...);
    return out.str();
}

SAV_HEADER visionRecord() {
    return make_header("vision", "data", 25.0, 25.0, 0, 0.0, 0.0, 0.0, 0, 0, "PAL", 1920, 1080,
                       WString(L"/media/My Clips/\xE9t\xE9.mov"), -1, 0, "both", -1);
}

// The text of a 25 frames per second PAL 1920 x 1080 vision record.
std::string visionText(const std::string& origFname) {
    return "header_version 6\n\rmedium vision\n\rinput_rate 25.00000000\n\rreplay_rate 25.00000000\n\r"
           "format data\n\rdrop_frame 0\n\rtimecode_rate 0.00000000\n\rstart_time_code 0.00000000\n\r"
           "end_time_code 0.00000000\n\rstart_offset 0\n\rvision_type PAL\n\rwidth 1920\n\rheight 1080\n\r"
           "sequence -1\n\rtransfer_type -1\n\rreelid \n\rorig_fname " + origFname + "\n\rzn_ver " +
           playfileDllVersionStr() + "\n\rvideo_field both\n\r";
}

} // namespace

TEST(HeaderLookup, OnlyTheFirstWordOfALineIsAKeyAndTheFirstHitWins) {
    const char* text = "x f I am x and not f\nnovalue \nthe line after no value\n"
                       "ef ef contains the substring f\nfoo foo begins with the substring f\nf I really am f\n";
    // What the value found begins with; "-" for none.
    struct { const char *text, *key, *value; } cases[] = {
        {text, "f", "I really am f\n"}, {text, "novalue", "-"}, {text, "x", "f I am x"}, {text, "ef", "ef contains"},
        {text, "foo", "foo begins"},     {"", "a", "-"},         {"   \n\r\t", "a", "-"},
        {"a", "a", "-"},      // the key ends at the NUL
        {"a  ", "a", "-"},    // blanks then the NUL
        {"a\nb 1", "a", "-"}, // never the next line
        {"\n\r  \t a \t 7\n\r", "a", "7\n\r"}, {"a 1\na 2\n", "a", "1\na 2\n"}};
    for (auto [in, key, value] : cases) {
        const char* got = PlayHdrString_seek_value(in, key);
        EXPECT_EQ(got ? std::string(got).substr(0, std::strlen(value)) : "-", value) << key << " in " << in;
    }
}

TEST(HeaderCopy, StopsAtFourCharactersOrTheLimitAndKeepsTabs) {
    struct { const char *in; int limit; const char* out; } cases[] = {
        {"PAL\tx rest", 20, "PAL\tx"}, {"ABCDEFGHIJ", 8, "ABCDEFGH"}, {"word\r\n", 20, "word"}, {"anything", 0, ""}};
    for (auto [in, limit, out] : cases) {
        char buf[32];
        hdr_string_copy(buf, in, limit);
        EXPECT_STREQ(buf, out) << in;
    }
}

TEST(HeaderWriter, ExactTextOfAVisionRecordAlwaysWithTheWritersOwnVersionAndPrintedAndOddMediaGetNoBranch) {
    SAV_HEADER h = visionRecord();
    std::snprintf(h.zn_ver, sizeof h.zn_ver, "0.0.0.0");
    const std::string expected = visionText("/media/My Clips/\xC3\xA9t\xC3\xA9.mov");
    EXPECT_EQ(written(h), expected);
    testing::internal::CaptureStdout();
    print_header(&h);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected + "\n");

    // A medium that is not exactly "sound" or "vision" gets the keys of neither.
    for (const char* m : {"visionx", "Sound"}) {
        std::string o = written(make_header(m, "", 1, 1, 0, 1, 0, 0, 2, 2, "PAL", 10, 10, WString(L""), -1, 0, "both", -1));
        EXPECT_TRUE(o.find("number_of_channels") == std::string::npos && o.find("vision_type") == std::string::npos) << o;
    }
}

TEST(HeaderParseV2, RoundTripsWhatTheWriterWrites) {
    SAV_HEADER in = visionRecord();
    in.start_offset = 12;
    in.start_time_code = 3600.5;
    std::snprintf(in.reelid, sizeof in.reelid, "REEL01");
    SAV_HEADER out = parsedV2(written(in));
    EXPECT_EQ(out.transfer_type, 0); // written but never read
    out.transfer_type = in.transfer_type;
    EXPECT_EQ(written(out), written(in)); // every other field, blanks and non-ASCII included
}

TEST(HeaderParseV2, DefaultChainsAndVersionRules) {
    SAV_HEADER a = parsedV2("input_rate 30\n"), b = parsedV2("medium sound\n");
    EXPECT_EQ(fields(a.medium, a.replay_rate, a.timecode_rate), "sound 30 30");
    EXPECT_EQ(fields(b.input_rate, b.replay_rate, b.timecode_rate, b.zn_ver, b.header_version), "1 1 1 unknown 6");
    SAV_HEADER v3 = parsedV2("header_version 3\nmedium vision\nvision_type NTSC\n");
    EXPECT_EQ(fields(v3.vision_type, v3.video_field), "unknown second");
    SAV_HEADER v4 = parsedV2("header_version 4\nmedium vision\nvision_type NTSC\nreelid ABCDEFGHIJ\n");
    EXPECT_EQ(fields(v4.vision_type, v4.reelid, v4.sequence), "NTSC ABCDEFGH -1");

    // Preset fields: a medium that is not exactly "sound" or "vision" reads no keys of
    // either; vision leaves the channels alone, and the format has no default.
    SAV_HEADER preset;
    preset.number_of_channels = preset.width = 7;
    std::snprintf(preset.format, sizeof preset.format, "kept");
    SAV_HEADER odd = parsedV2("medium Sound\nnumber_of_channels 2\nwidth 5\nvideo_field first\n", preset);
    EXPECT_EQ(fields(odd.medium, odd.number_of_channels, odd.width, "[" + std::string(odd.video_field) + "]"),
              "Sound 7 7 []");
    SAV_HEADER keep = parsedV2("medium vision\n", preset);
    EXPECT_EQ(fields(keep.number_of_channels, keep.format), "7 kept");
}

TEST(HeaderParseV1, OldNamesAndFixedValuesAndATextWithoutAVersionIsOne) {
    SAV_HEADER s;
    s.input_rate = s.replay_rate = 7.0;
    parse_header_v1(&s, std::string("number_of_channels 2\nbytes_per_sample 2\n").data());
    EXPECT_EQ(fields(s.medium, s.input_rate, s.timecode_rate), "sound 7 25"); // input untouched without sampling_frequency
    parse_header_v1(&s, std::string("medium sound\nsampling_frequency 44100\nsound_format pcm\n").data());
    EXPECT_EQ(fields(s.input_rate, s.replay_rate, s.format), "44100 44100 pcm");

    SAV_HEADER v;
    parse_header_v1(&v, std::string("header_version 1\nmedium vision\ninput_rate 30\nwidth 720\n").data());
    EXPECT_EQ(fields(v.format, v.input_rate, v.width, v.sequence, v.header_version), "PAL 25 720 -1 6");

    EXPECT_EQ(playhdr_get_version(std::string("medium sound\n").data()), 1);
    EXPECT_EQ(playhdr_get_version(std::string("header_version 2\n").data()), 2);
}

TEST(HeaderSelfTest, LooksUpFromTheLastHit) {
    auto run = [](std::vector<const char*> args) {
        std::vector<char*> argv;
        for (const char* a : args) argv.push_back(const_cast<char*>(a));
        testing::internal::CaptureStdout();
        const int rc = playhdr_selftest_main(int(argv.size()), argv.data());
        return testing::internal::GetCapturedStdout() + "exit " + std::to_string(rc);
    };
    EXPECT_EQ(run({"selftest"}), "selftest\nUsage: selftest <item>\nexit 2");
    EXPECT_EQ(run({"selftest", "f"}), "selftest\nItem \"f\" = {I really am f\n}\nexit 0");
    // "novalue" is looked up from x's value on; a key without a value is not found.
    std::string out = run({"selftest", "x", "novalue"});
    EXPECT_NE(out.find("Item \"novalue\" not found.\n"), std::string::npos);
    EXPECT_TRUE(out.ends_with("exit 1")) << out;
}

TEST(NewFileHeaders, VisionHeaderFromTheShotsFormatAndRate) {
    Zn::Ptr<PlayFile> file = Zn::makePtr<PlayFile>(WString(L"/media/A/video/V0001e240_000003e8_00.mkv"));
    SAV_HEADER h;
    PlayPriv::make_vision_header(file, ShotVideoMetadata(Zn::Image::FormatUID{5}, Zn::kFrameRate25), &h);
    EXPECT_EQ(written(h), visionText("/media/A/video/V0001e240_000003e8_00.mkv"));

    // Only 25 frames per second is PAL. The quarter-size variant of 1080 stores 480 x 270.
    for (Zn::FrameRate r : {Zn::kFrameRate24, Zn::kFrameRate29_97, Zn::kFrameRate30, Zn::kFrameRate50}) {
        PlayPriv::make_vision_header(file, ShotVideoMetadata(Zn::Image::FormatUID{102}, r), &h);
        EXPECT_EQ(fields(h.vision_type, h.width, h.height), "NTSC 480 270") << r;
        EXPECT_DOUBLE_EQ(h.input_rate, Zn::getFramesPerSecond(r));
    }
    EXPECT_DOUBLE_EQ(h.replay_rate, 50.0);
    PlayPriv::make_vision_header(nullptr, ShotVideoMetadata(Zn::Image::FormatUID{999}, Zn::kFrameRate29_97), &h);
    EXPECT_EQ(h.width, 0);
    EXPECT_DOUBLE_EQ(h.input_rate, 30000.0 / 1001.0);
    EXPECT_EQ(written(h).find("orig_fname"), std::string::npos);
}

TEST(NewFileHeaders, SoundHeaderIsMonoLinearSamples) {
    Zn::Ptr<PlayFile> file = Zn::makePtr<PlayFile>(WString(L"/media/A/audio/S1.wav"));
    SAV_HEADER h;
    PlayPriv::make_audio_header(file, &h, 48000.0, 3);
    std::string v = playfileDllVersionStr();
    EXPECT_EQ(written(h),
              "header_version 6\n\rmedium sound\n\rinput_rate 48000.00000000\n\rreplay_rate 48000.00000000\n\r"
              "format linear_uncompressed\n\rdrop_frame 0\n\rtimecode_rate 0.00000000\n\r"
              "start_time_code 0.00000000\n\rend_time_code 0.00000000\n\rstart_offset 0\n\r"
              "number_of_channels 1\n\rbytes_per_sample 3\n\rreelid \n\rorig_fname /media/A/audio/S1.wav\n\r"
              "zn_ver " + v + "\n\r");
}
