// YUV4MPEG2 headers: written headers parse back; broken and hostile headers are refused
// with a reason. (Files ffmpeg writes in every layout are read through the play file
// cache by the reader tests.)
#include "backends/y4m/Y4mFormat.h"

#include <gtest/gtest.h>

#include <string>
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
         }) {
        y4m::StreamHeader h;
        std::string error;
        EXPECT_FALSE(parse(c.text, h, error)) << c.text.substr(0, 40);
        EXPECT_EQ(error, c.reason) << c.text.substr(0, 40);
    }
    for (const std::string frame : {"FRAME", "FRAMEX\n"}) // cut short, not a frame header
        EXPECT_EQ(y4m::parseFrameHeader(reinterpret_cast<const uint8_t*>(frame.data()), frame.size()), 0u) << frame;
}
