// YUV4MPEG2 headers: written headers parse back; broken and hostile headers are refused
// with a reason. (Files ffmpeg writes in every layout are read through the play file
// cache by the reader tests.)
#include "backends/y4m/Y4mFormat.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace {
bool parse(const std::string& text, y4m::StreamHeader& h, std::string& error) {
    return y4m::parseStreamHeader(reinterpret_cast<const uint8_t*>(text.data()), text.size(), h, error);
}
} // namespace

TEST(Y4mFormat, WrittenHeadersParseBack) {
    y4m::StreamHeader h;
    h.width = 1280;
    h.height = 720;
    h.rateNum = 30000;
    h.rateDen = 1001;
    h.interlace = 't';
    h.layout = *y4m::findLayoutByPixelFormat("yuv422p10le");
    y4m::StreamHeader back;
    std::string error;
    ASSERT_TRUE(parse(y4m::formatStreamHeader(h), back, error)) << error;
    EXPECT_EQ(back.width, 1280);
    EXPECT_EQ(back.interlace, 't');
    EXPECT_EQ(back.rateNum, 30000);
    EXPECT_EQ(back.rateDen, 1001);
    EXPECT_EQ(back.frameBytes(), uint64_t(1280 * 720 * 2 * 2));
}

// Parsed, written and parsed again, an accepted header is the same header, whatever
// spelling it came in.
TEST(Y4mFormat, AcceptedHeadersRoundTrip) {
    for (const std::string text : {"YUV4MPEG2 W16 H2\n", "YUV4MPEG2 W0016 H0002 F0:0 A0:0 I? C420\n",
                                   "YUV4MPEG2  W7 H5 F30000:1001 A10:11 Ib C422p12 XCOLORRANGE=FULL\n",
                                   "YUV4MPEG2 W3 H3 F5:0 A4:0 Im C444alpha Zunknown\n",
                                   "YUV4MPEG2 W1 H1 F999999999:999999999 Cmono16 It\n"}) {
        y4m::StreamHeader first, second;
        std::string error;
        ASSERT_TRUE(parse(text, first, error)) << text << error;
        const std::string written = y4m::formatStreamHeader(first);
        ASSERT_TRUE(parse(written, second, error)) << written << error;
        EXPECT_EQ(std::tie(first.width, first.height, first.rateNum, first.rateDen, first.aspectNum, first.aspectDen,
                           first.interlace),
                  std::tie(second.width, second.height, second.rateNum, second.rateDen, second.aspectNum,
                           second.aspectDen, second.interlace))
            << text;
        EXPECT_STREQ(first.layout.chromaTag, second.layout.chromaTag) << text;
        EXPECT_EQ(y4m::formatStreamHeader(second), written) << text;
    }
}

TEST(Y4mFormat, BrokenAndHostileHeadersAreRefusedWithAReason) {
    struct Case { std::string text; std::string reason; };
    for (const Case& c : std::vector<Case>{
             {"", "not a YUV4MPEG2 stream"},
             {"RIFF....", "not a YUV4MPEG2 stream"},
             {"YUV4MPEG2 W16 H16", "truncated YUV4MPEG2 header"},
             {"YUV4MPEG2 W16\n", "YUV4MPEG2 header without picture size"},
             {"YUV4MPEG2 W0 H16\n", "absurd picture size 0x16"},
             {"YUV4MPEG2 W99999 H16\n", "absurd picture size 99999x16"},
             {"YUV4MPEG2 W32768 H32768 C444p16\n", "absurd picture size 32768x32768"},
             {"YUV4MPEG2 W-1 H16\n", "bad width '-1'"},
             {"YUV4MPEG2 W16 H16 Cfancy\n", "unsupported chroma layout 'fancy'"},
             {"YUV4MPEG2 W16 H16 F25\n", "bad frame rate '25'"},
             {"YUV4MPEG2 W16 H16 " + std::string(5000, 'X') + "\n", "YUV4MPEG2 header too long"},
             // Bytes outside the grammar: a NUL must not pass for the end of a value.
             {std::string("YUV4MPEG2 W16 H2 I\0\n", 21), "YUV4MPEG2 header holds a control byte"},
             {std::string("YUV4MPEG2 W16\0 H2\n", 19), "YUV4MPEG2 header holds a control byte"},
             {"YUV4MPEG2 W16\tH2\n", "YUV4MPEG2 header holds a control byte"},
             {"YUV4MPEG2 W16 H2\r\n", "YUV4MPEG2 header holds a control byte"},
             {"YUV4MPEG2 W+16 H2\n", "bad width '+16'"},
             {"YUV4MPEG2 W16 H2 F+25:1\n", "bad frame rate '+25:1'"},
             {"YUV4MPEG2 W16 H2 A1: 1\n", "bad aspect ratio '1:'"},
             {"YUV4MPEG2W16 H2\n", "not a YUV4MPEG2 stream"},
         }) {
        y4m::StreamHeader h;
        std::string error;
        EXPECT_FALSE(parse(c.text, h, error)) << c.text.substr(0, 40);
        EXPECT_EQ(error, c.reason) << c.text.substr(0, 40);
    }
    // Cut short, not a frame header, a NUL in its parameters.
    for (const std::string& frame : {std::string("FRAME"), std::string("FRAMEX\n"), std::string("FRAME \0\n", 8)})
        EXPECT_EQ(y4m::parseFrameHeader(reinterpret_cast<const uint8_t*>(frame.data()), frame.size()), 0u) << frame;
}
