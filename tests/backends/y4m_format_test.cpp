// YUV4MPEG2 headers: files made by ffmpeg parse to its pixel format and frame size;
// broken and hostile headers are refused with a reason.
#include "backends/y4m/Y4mFormat.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

using namespace testing_support;

namespace {
std::vector<uint8_t> readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

bool parse(const std::string& text, y4m::StreamHeader& h, std::string& error) {
    return y4m::parseStreamHeader(reinterpret_cast<const uint8_t*>(text.data()), text.size(), h, error);
}
} // namespace

TEST(Y4mFormat, FilesMadeByFfmpegMatchItsPixelFormatAndFrameSize) {
    TempDir dir;
    for (const char* pixfmt : {"yuv420p", "yuv422p", "yuv444p", "yuv411p", "gray", "yuva444p", "yuv420p10le",
                               "yuv422p12le", "yuv444p16le", "gray16le"}) {
        std::string path = dir.file(std::string(pixfmt) + ".y4m");
        // Odd sizes check that chroma planes round up. Above 8 bits ffmpeg's own writer
        // rounds odd widths in bytes rather than samples, so those use an even width.
        const bool deep = std::string(pixfmt).find("le") != std::string::npos;
        const int width = deep ? 34 : 33;
        ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc=size=" + std::to_string(width) +
                           "x17:rate=30000/1001 -frames:v 3 -pix_fmt " +
                           std::string(pixfmt) + " -strict -1 " + shellQuote(path)))
            << pixfmt;
        std::vector<uint8_t> bytes = readAll(path);
        y4m::StreamHeader h;
        std::string error;
        ASSERT_TRUE(y4m::parseStreamHeader(bytes.data(), bytes.size(), h, error)) << pixfmt << ": " << error;
        EXPECT_STREQ(h.layout.pixelFormat, pixfmt);
        EXPECT_EQ(h.width, width);
        EXPECT_EQ(h.height, 17);
        EXPECT_EQ(h.rateNum, 30000);
        EXPECT_EQ(h.rateDen, 1001);
        size_t pos = h.headerBytes;
        int frames = 0;
        while (pos < bytes.size()) {
            size_t fh = y4m::parseFrameHeader(bytes.data() + pos, bytes.size() - pos);
            ASSERT_GT(fh, 0u) << pixfmt << " frame " << frames;
            pos += fh + h.frameBytes();
            ++frames;
        }
        EXPECT_EQ(pos, bytes.size()) << pixfmt;
        EXPECT_EQ(frames, 3) << pixfmt;
    }
}

TEST(Y4mFormat, WrittenHeadersParseBack) {
    y4m::StreamHeader h;
    h.width = 1280;
    h.height = 720;
    h.rateNum = 50;
    h.interlace = 't';
    h.layout = *y4m::findLayoutByPixelFormat("yuv422p10le");
    y4m::StreamHeader back;
    std::string error;
    ASSERT_TRUE(parse(y4m::formatStreamHeader(h), back, error)) << error;
    EXPECT_EQ(back.width, 1280);
    EXPECT_EQ(back.interlace, 't');
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
    const std::string partial = "FRAME";
    EXPECT_EQ(y4m::parseFrameHeader(reinterpret_cast<const uint8_t*>(partial.data()), partial.size()), 0u);
    const std::string other = "FRAMEX\n";
    EXPECT_EQ(y4m::parseFrameHeader(reinterpret_cast<const uint8_t*>(other.data()), other.size()), 0u);
}
