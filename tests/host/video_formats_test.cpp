// The video format table, frame-rate codes and writer parameters made from a shot.
#include "host/media/FileWriterInfo.h"
#include "host/media/VideoFormats.h"

#include <gtest/gtest.h>

TEST(VideoFormats, RateCodesRoundTripThroughFractions) {
    for (int c = Zn::kFrameRate23_976; c <= Zn::kFrameRate60; ++c) {
        int32_t num = 0, den = 0;
        ASSERT_TRUE(Zn::getFrameRateFraction(Zn::FrameRate(c), num, den));
        EXPECT_EQ(Zn::frameRateFromFraction(num, den), c);
        EXPECT_DOUBLE_EQ(Zn::getFramesPerSecond(Zn::FrameRate(c)), double(num) / den);
    }
    EXPECT_EQ(Zn::getFramesPerSecond(Zn::kFrameRateUnknown), 0.0);
    EXPECT_EQ(Zn::frameRateFromFraction(30, 1), Zn::kFrameRate30);
    EXPECT_EQ(Zn::frameRateFromFraction(2997, 100), Zn::kFrameRate29_97); // written-out 29.97 is NTSC
    EXPECT_EQ(Zn::frameRateFromFraction(29, 1), Zn::kFrameRateUnknown);
    EXPECT_EQ(Zn::frameRateFromFraction(25, 0), Zn::kFrameRateUnknown);
}

TEST(VideoFormats, ParamsForAShotTakeItsStoredPictureAndRate) {
    Zn::FileWriterParams p =
        Zn::FileWriterParams::forVideo(ShotVideoMetadata({103}, Zn::kFrameRate59_94), Zn::Image::kFormatYUV422P10LE);
    EXPECT_EQ(p.core.getWidth(), 1920u); // UHD at half size
    EXPECT_EQ(p.core.getHeight(), 1080u);
    EXPECT_EQ(p.rateNum, 60000);
    EXPECT_EQ(p.rateDen, 1001);
    EXPECT_EQ(p.videoMetadata().getVideoFormatUID(), Zn::Image::FormatUID{103});

    // Without a shot, the header's metadata comes from the picture: the full-size format
    // of that size, not a reduced variant of a larger one.
    Zn::FileWriterParams raw;
    raw.core.setCoreData(1920, 1080, Zn::Image::kFormatYUV420P);
    raw.rateNum = 24;
    ShotVideoMetadata m = raw.videoMetadata();
    EXPECT_EQ(m.getVideoFormatUID(), Zn::Image::FormatUID{5});
    EXPECT_EQ(m.getFrameRate(), Zn::kFrameRate24);
    raw.core.setCoreData(1000, 1000, Zn::Image::kFormatYUV420P);
    EXPECT_FALSE(raw.videoMetadata().isSet());
}
