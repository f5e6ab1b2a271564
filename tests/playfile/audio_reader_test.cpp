// The audio reader over real files: plain WAV-like samples and the tbc test codec, read
// directly and through the file's audio queue.
#include "AudioFiles.h"
#include "FrameFileReader.h"

#include "playfile/requests/AudioReadQueue.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace test_audio;
using test_backend::RecordingIssuer;

namespace {

struct Opened {
    Opened(const std::string& path, uint32_t extraStreams = 0)
        : reader(Zn::makePtr<AudioFileReader>(path, extraStreams)), file(reader) {}

    Zn::Ptr<AudioReadRequest> request(uint32_t stream, uint32_t channel, uint64_t start,
                                      uint32_t count, RecordingIssuer* by) {
        return Zn::makePtr<AudioReadRequest>(file, AudioRequest{.stream = stream, .channel = channel, .start = start, .count = count},
                                             count, by ? by->getProxy() : nullptr);
    }
    // Reads on this thread, as the queue's thread would. The issuer keeps the last result.
    Zn::Ptr<AudioReadRequest> read(uint32_t channel, uint64_t start, uint32_t count,
                                   uint32_t stream = 0, bool withIssuer = true) {
        auto r = request(stream, channel, start, count, withIssuer ? &issuer : nullptr);
        reader->readAudio(r);
        return r;
    }

    RecordingIssuer issuer;
    Zn::Ptr<AudioFileReader> reader;
    Zn::Ptr<FileReadInstance> file;
};

uint32_t sampleAt(const AudioReadRequest& r, uint32_t i, uint32_t bytes) {
    uint32_t v = 0;
    std::memcpy(&v, r.getBuffer() + size_t(i) * bytes, bytes);
    return v;
}

// The first n samples of the result are the stream's.
void expectStream(const AudioReadRequest& r, uint32_t n, uint32_t bytes) {
    ASSERT_EQ(r.getStatus(), RequestStatus::Complete);
    ASSERT_GE(r.getResult().getSampleCount(), n);
    const uint32_t mask = bytes == 4 ? ~0u : (1u << (8 * bytes)) - 1;
    for (uint32_t i = 0; i < n; ++i)
        ASSERT_EQ(sampleAt(r, i, bytes), sampleOf(r.start + i, r.channel) & mask)
            << "sample " << r.start + i;
}

using Blocks = std::vector<uint64_t>;

struct AudioReader : testing::Test { testing_support::TempDir dir; };

} // namespace

// (That every channel of a span costs one read is checked by AudioReaderJoins below.)
TEST_F(AudioReader, ARequestInsideTheLastBlockIsServedFromItAndOnePastTheEndGetsWhatThereIs) {
    Opened f(writeWav(dir.file("a.wav"), 4, 2, 10000));
    expectStream(*f.read(2, 1000, 500), 500, 2);
    expectStream(*f.read(2, 1010, 100), 100, 2);
    EXPECT_EQ(f.reader->sampleReads, 1);

    auto last = f.read(1, 9900, 500);
    expectStream(*last, 100, 2);
    EXPECT_EQ(last->getResult().getSampleCount(), 100u);
    EXPECT_EQ(f.issuer.calls(), 3);
}

TEST_F(AudioReader, StreamsNotPlayedShareGrowingSilenceAndABadStreamFailsWithItsLogLine) {
    Opened f(writeWav(dir.file("s.wav"), 2, 2, 100), 99); // streams 0..99: 99 is the first one not played
    testing_support::LogCapture log;

    auto first = f.read(0, 0, 100, 99);
    auto second = f.read(1, 50, 50, 99);
    for (auto* r : {&first, &second}) {
        EXPECT_EQ((*r)->getStatus(), RequestStatus::Complete);
        EXPECT_EQ((*r)->getUsed(), 400u);
    }
    EXPECT_EQ(first->getBuffer(), second->getBuffer());
    EXPECT_EQ(std::count(first->getBuffer(), first->getBuffer() + 400, 0), 400);
    auto grown = f.read(0, 0, 200, 99);
    EXPECT_EQ(grown->getUsed(), 800u);
    EXPECT_EQ(first->getUsed(), 400u); // the earlier result keeps its buffer
    EXPECT_EQ(f.reader->sampleReads, 0);

    auto bad = f.read(0, 0, 10, 100);
    EXPECT_EQ(bad->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(f.issuer.status(), RequestStatus::Failed);
    EXPECT_EQ(f.issuer.calls(), 4);
    EXPECT_EQ(log.count("** disk read error 0x0\n"), 1u);
}

TEST_F(AudioReader, CompressedReadsDecodeOnForwardsAndResetWithPreRollForAJump) {
    Opened f(writeCoded(dir.file("c.tbc"), {.samples = 10000}));
    TbcCodec& codec = f.reader->codec();

    expectStream(*f.read(0, 0, 2560), 2560, 2); // blocks 0..9
    EXPECT_EQ(f.reader->takeBlocksRead(), (Blocks{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    expectStream(*f.read(1, 0, 2560), 2560, 2);
    EXPECT_TRUE(f.reader->takeBlocksRead().empty());

    expectStream(*f.read(0, 2560, 512), 512, 2); // blocks 10 and 11 continue
    EXPECT_EQ(f.reader->takeBlocksRead(), (Blocks{10, 11}));
    EXPECT_EQ(codec.resets, 0);

    auto jump = f.read(1, 20 * 256, 256); // block 20: block 19 decoded first, thrown away
    EXPECT_EQ(f.reader->takeBlocksRead(), (Blocks{19, 20}));
    EXPECT_EQ(codec.resets, 1);
    expectStream(*jump, 256, 2);
    EXPECT_EQ(jump->getResult().getSampleCount(), 256u);

    expectStream(*f.read(0, 0, 100), 100, 2); // back to the start: reset, no pre-roll
    EXPECT_EQ(f.reader->takeBlocksRead(), Blocks{0});
    EXPECT_EQ(codec.resets, 2);
}

TEST_F(AudioReader, ACodecThatGivesNothingForNineStepsFailsTheRead) {
    Opened f(writeCoded(dir.file("m.tbc"), {.samples = 4096, .mute = true}));
    testing_support::LogCapture log;

    auto r = f.read(0, 0, 1000);
    EXPECT_EQ(r->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(f.reader->codec().decodes, 9);
    EXPECT_EQ(f.reader->takeBlocksRead(), Blocks(9, 0)); // the same block offered again
    EXPECT_EQ(log.count("** disk read error 0x0\n"), 1u);
    EXPECT_EQ(f.issuer.calls(), 1);
}

// Reads the whole stream through the audio queue in requests of odd sizes, every channel
// of each span, and checks that the pieces join up to exactly the stream.
class AudioReaderJoins : public AudioReader, public testing::WithParamInterface<int> {};

TEST_P(AudioReaderJoins, NoSampleIsLostOrDuplicatedBetweenRequests) {
    const uint64_t length = 30000;
    uint32_t channels = 3, bytes = 3;
    std::string path = dir.file("j");
    if (GetParam() == 0) {
        writeWav(path, channels, bytes, length);
    } else {
        const CodedLayout layout{.samples = length,
                                 .delay = GetParam() == 1 ? 100u : 300u, // within the first block, or past it
                                 .priming = GetParam() == 1 ? 1u : 2u,
                                 .interleaved = GetParam() == 2};
        writeCoded(path, layout);
        channels = layout.channels;
        bytes = 2;
    }
    Opened f(path);
    std::vector<std::vector<uint32_t>> got(channels);
    const uint32_t sizes[] = {1000, 4096, 4097};
    int chunks = 0, resetsAfterFirst = -1;
    for (uint64_t at = 0, n = 0; at < length; at += sizes[n++ % 3]) {
        // Cut to the stream's end, as the cache does.
        const uint32_t count = uint32_t(std::min<uint64_t>(sizes[n % 3], length - at));
        std::vector<Zn::Ptr<AudioReadRequest>> span;
        for (uint32_t c = 0; c < channels; ++c) {
            span.push_back(f.request(0, c, at, count, &f.issuer));
            f.file->queueReadRequest(span.back(), c + 1 < channels);
        }
        ASSERT_TRUE(f.issuer.waitForCalls(++chunks * int(channels)));
        for (uint32_t c = 0; c < channels; ++c) {
            ASSERT_EQ(span[c]->getStatus(), RequestStatus::Complete);
            ASSERT_GE(span[c]->getResult().getSampleCount(), count);
            for (uint32_t i = 0; i < count; ++i)
                got[c].push_back(sampleAt(*span[c], i, bytes));
        }
        if (f.reader->isCompressed(0) && resetsAfterFirst < 0)
            resetsAfterFirst = f.reader->codec().resets;
    }
    const uint32_t mask = (1u << (8 * bytes)) - 1;
    for (uint32_t c = 0; c < channels; ++c) {
        ASSERT_EQ(got[c].size(), length);
        for (uint64_t s = 0; s < length; ++s)
            ASSERT_EQ(got[c][s], sampleOf(s, c) & mask) << "channel " << c << " sample " << s;
    }
    if (f.reader->isCompressed(0))
        EXPECT_EQ(f.reader->codec().resets, resetsAfterFirst); // forwards: no resets
    else
        EXPECT_EQ(f.reader->sampleReads, chunks); // one read per span
}

INSTANTIATE_TEST_SUITE_P(PlainCodedCodedInterleaved, AudioReaderJoins, testing::Values(0, 1, 2));

TEST_F(AudioReader, ABlockNobodyUsesIsWrittenAgainAndOneInUseIsLeftAlone) {
    Opened f(writeWav(dir.file("r.wav"), 2, 2, 10000));
    const uint8_t* first = f.read(0, 0, 1000, 0, false)->getBuffer();
    auto second = f.read(0, 1000, 1000, 0, false);
    EXPECT_EQ(second->getBuffer(), first);        // the same memory, written again
    auto third = f.read(0, 2000, 1000, 0, false); // second still holds its block
    EXPECT_NE(third->getBuffer(), second->getBuffer());
    expectStream(*second, 1000, 2);
    expectStream(*third, 1000, 2);
}
