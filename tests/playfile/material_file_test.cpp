// The RIFF chunk reader against well-formed and hostile chunk headers: the damaged
// length mark, odd lengths, rounding that wraps, truncated headers and trailing bytes.
#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/MemoryFile.h"
#include "host/os/OS.h"
#include "playfile/material/MaterialFile.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string le32(unsigned v) {
    return std::string{char(v & 0xFF), char((v >> 8) & 0xFF), char((v >> 16) & 0xFF), char((v >> 24) & 0xFF)};
}
unsigned code(const char* text) {
    unsigned c;
    std::memcpy(&c, text, 4);
    return c;
}

struct Riff {
    explicit Riff(const std::string& bytes) : file(new MemoryFile(bytes)) { reader.set(file); }
    Zn::Ptr<iFile> file;
    MaterialFile reader;
};

const unsigned kUntouched = 0xA5A5A5A5u;

TEST(MaterialFile, ChunkHeaderLengthsAreGivenAsStoredAndTheDamagedMarkStopsTheWalk) {
    struct Case {
        unsigned length;
        bool accepted;
    };
    for (Case c : {Case{0xFF000000u, false}, Case{0xFEFFFFFFu, true}, Case{0xFF000001u, true}, Case{7, true},
                   Case{0, true}, Case{0xFFFFFFFFu, true}}) {
        SCOPED_TRACE(c.length);
        testing_support::LogCapture log;
        Riff riff("LIST" + le32(c.length) + "more");
        unsigned fourcc = kUntouched, length = kUntouched;
        EXPECT_EQ(riff.reader.readRIFFChunkHeader(fourcc, length), c.accepted);
        // Written either way, unrounded.
        EXPECT_EQ(fourcc, code("LIST"));
        EXPECT_EQ(length, c.length);
        EXPECT_EQ(log.count("found chunk length 0xFF000000\n"), c.accepted ? 0u : 1u);
    }
}

TEST(MaterialFile, CodeAndSizeRoundsUpToEvenWithUnsignedWrap) {
    for (auto [stored, rounded] : {std::pair{7u, 8u}, {8u, 8u}, {0u, 0u}, {0xFFFFFFFFu, 0u}, {0xFF000000u, 0xFF000000u}}) {
        Riff riff("data" + le32(stored));
        unsigned fourcc = 0, length = kUntouched;
        EXPECT_TRUE(riff.reader.readNextFourCCAndSize(fourcc, length));
        EXPECT_EQ(fourcc, code("data"));
        EXPECT_EQ(length, rounded) << stored;
    }
}

TEST(MaterialFile, ShortInputAnswersAsTheReaderPromises) {
    // A truncated header leaves the outputs alone.
    for (size_t n : {0u, 1u, 5u, 7u}) {
        Riff riff(std::string("fmt \x10\0\0\0", 8).substr(0, n));
        unsigned fourcc = kUntouched, length = kUntouched;
        EXPECT_FALSE(riff.reader.readRIFFChunkHeader(fourcc, length)) << n;
        EXPECT_EQ(fourcc, kUntouched);
        EXPECT_EQ(length, kUntouched);
    }
    // Three trailing bytes still give a code; then the end answers false.
    Riff tail("abc");
    unsigned fourcc = 0;
    EXPECT_TRUE(tail.reader.readNextFourCC(fourcc));
    EXPECT_EQ(fourcc & 0xFFFFFF, code("abc\0") & 0xFFFFFF);
    EXPECT_FALSE(tail.reader.readNextFourCC(fourcc));
    // A code without its length: false, the length unchanged.
    Riff noLength("JUNK");
    unsigned length = kUntouched;
    EXPECT_FALSE(noLength.reader.readNextFourCCAndSize(fourcc, length));
    EXPECT_EQ(length, kUntouched);
}

TEST(MaterialFile, WalksAChunkListSkippingPaddedBodies) {
    std::string list = "RIFF" + le32(30) + "WAVE" + "odd " + le32(3) + "abc" + std::string(1, '\0') + "data" +
                       le32(2) + "xy" + "zzz";
    Riff riff(list);
    unsigned fourcc = 0, length = 0;
    ASSERT_TRUE(riff.reader.readRIFFChunkHeader(fourcc, length));
    ASSERT_TRUE(riff.reader.readNextFourCC(fourcc));
    EXPECT_EQ(fourcc, code("WAVE"));
    std::vector<std::pair<unsigned, unsigned>> seen;
    while (riff.reader.readNextFourCCAndSize(fourcc, length)) {
        seen.push_back({fourcc, length});
        riff.file->seek(riff.file->position() + length);
    }
    // The 3 trailing bytes make a code whose length cannot be read.
    EXPECT_EQ(seen, (std::vector<std::pair<unsigned, unsigned>>{{code("odd "), 4}, {code("data"), 2}}));
}

TEST(MaterialFile, SetTakesTheVolumeUnitAndIgnoresANullFile) {
    MaterialFile reader;
    EXPECT_EQ(reader.getAlignment(), 512u);
    EXPECT_FALSE(reader.hasFile());
    unsigned a = 0, b = 0;
    EXPECT_FALSE(reader.readRIFFChunkHeader(a, b)); // no file: nothing to read

    testing_support::TempDir tmp("playfile-riff");
    testing_support::writeFile(tmp.path() / "a.wav", "RIFF");
    iFileManager* fm = OS()->fileManager();
    Zn::Ptr<iFile> file = fm->openForRead(fromUTF8(tmp.file("a.wav").c_str()));
    ASSERT_TRUE(file);
    reader.set(file);
    EXPECT_TRUE(reader.hasFile());
    const uint32_t unit = fm->volumeStorageUnit(fm->volumeOf(file->name()));
    EXPECT_EQ(reader.getAlignment(), unit);

    reader.set(nullptr);
    EXPECT_EQ(reader.getFile().get(), file.get());
    EXPECT_EQ(reader.getAlignment(), unit);
}

} // namespace
