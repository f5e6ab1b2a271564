// The audio reader's cost over plain samples: all 8 channels of a 48 kHz 24-bit 8-channel
// stream read in spans of 4096 samples, one request per channel, through Zn::AudioReader
// (the first channel's request reads and splits the span, the other seven are answered
// from the channel cache), next to a plain loop that reads the same spans into one
// buffer and de-interleaves them into eight, with their ratio.
#include "host/media/AudioInterleaver.h"
#include "playfile/audio/AudioReader.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/requests/AudioReadRequest.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kChannels = 8;
constexpr uint32_t kBytes = 3;
constexpr uint32_t kFrame = kChannels * kBytes;
constexpr uint32_t kSpan = 4096;
constexpr uint64_t kSamples = 48000 * 20; // 20 seconds, 23 MB
constexpr uint32_t kHeader = 44;
constexpr int kRounds = 9;

struct Figures {
    double readerRate = 0; // bytes of interleaved samples per second
    double plainRate = 0;
} g_figures;

// A file of a 44-byte header and interleaved samples, made once in the temporary folder.
std::string makeFile() {
    const char* tmp = std::getenv("TMPDIR");
    std::string path = std::string(tmp && *tmp ? tmp : "/tmp") + "/playfile-bench-audio-" +
                       std::to_string(getpid()) + ".wav";
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    std::vector<uint8_t> chunk(size_t(kSpan) * kFrame);
    std::fwrite(chunk.data(), 1, kHeader, f);
    for (uint64_t at = 0; at < kSamples; at += kSpan) {
        for (size_t i = 0; i < chunk.size(); ++i)
            chunk[i] = uint8_t((at * kFrame + i) * 2654435761u >> 13);
        std::fwrite(chunk.data(), 1, size_t(std::min<uint64_t>(kSpan, kSamples - at)) * kFrame, f);
    }
    std::fclose(f);
    return path;
}

// Serves the file's samples with pread, as a plain back-end does.
class WavReader : public FileReadInstance, public Zn::AudioReader {
public:
    explicit WavReader(const std::string& path)
        : FileReadInstance(L"bench.wav", DecodeFormat(1), OpenType::kAudio),
          Zn::AudioReader(getMetadata()->getAudioMetadata()),
          fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        std::vector<Aud::Metadata> streams{
            Aud::Metadata(48000, kChannels, kBytes, Aud::kSampleInt, kSamples)};
        getMetadata()->setAudioMetadata(std::move(streams));
    }
    ~WavReader() override { ::close(fd_); }
    String getReaderName() const override { return "bench"; }
    void readAudio(Zn::Ptr<AudioReadRequest>& request) override {
        Zn::AudioReader::readAudio(request);
    }

protected:
    eResult readAudioSamples(uint32_t, uint64_t position, uint32_t samples, uint8_t* into,
                         uint32_t& delivered) override {
        ssize_t got =
            ::pread(fd_, into, size_t(samples) * kFrame, off_t(kHeader + position * kFrame));
        delivered = got > 0 ? uint32_t(got / kFrame) : 0;
        return got < 0 ? kFailed : kSuccess;
    }

private:
    int fd_;
};

// Time spent by this thread, in seconds. Both sides run on the calling thread, and the
// machine is shared: wall time would count other programs' turns on the processor
// against whichever side happened to be running.
double threadSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// Spans [from, to) through the reader, one request per channel.
void readerSpans(Zn::Ptr<FileReadInstance>& file, WavReader& reader, uint64_t from, uint64_t to) {
    for (uint64_t at = from; at < to; at += kSpan) {
        for (uint32_t c = 0; c < kChannels; ++c) {
            AudioRequest r;
            r.channel = c;
            r.start = at;
            r.count = uint32_t(std::min<uint64_t>(kSpan, kSamples - at));
            Zn::Ptr<AudioReadRequest> request(new AudioReadRequest(file, r, r.count, nullptr));
            reader.readAudio(request);
            if (request->getStatus() != RequestStatus::Complete) std::abort();
            benchmark::DoNotOptimize(request->getBuffer());
        }
    }
}

// The plain loop over spans [from, to): read a span into one buffer, split it into eight.
struct PlainLoop {
    explicit PlainLoop(int fd) : fd(fd) {
        for (uint32_t c = 0; c < kChannels; ++c)
            dst[c] = channels[c].data();
    }
    void spans(uint64_t from, uint64_t to) {
        for (uint64_t at = from; at < to; at += kSpan) {
            const uint32_t n = uint32_t(std::min<uint64_t>(kSpan, kSamples - at));
            if (::pread(fd, interleaved.data(), size_t(n) * kFrame, off_t(kHeader + at * kFrame)) !=
                ssize_t(n) * kFrame)
                std::abort();
            AudioInterleaver::deinterleave(interleaved.data(), kChannels, kBytes, n, dst);
            benchmark::DoNotOptimize(dst[kChannels - 1][0]);
        }
    }
    int fd;
    std::vector<uint8_t> interleaved = std::vector<uint8_t>(size_t(kSpan) * kFrame);
    std::vector<std::vector<uint8_t>> channels =
        std::vector<std::vector<uint8_t>>(kChannels, std::vector<uint8_t>(size_t(kSpan) * kBytes));
    uint8_t* dst[kChannels];
};

// One pass over the stream by both, taking turns every few spans so that whatever else
// the machine does falls on both alike. The second to read a span finds its bytes in the
// processor's caches, so the two take turns at going first. Answers bytes per second of
// each.
void round(Zn::Ptr<FileReadInstance>& file, WavReader& reader, PlainLoop& plain, double& readerRate,
           double& plainRate) {
    constexpr uint64_t kTurn = 8 * kSpan;
    double readerTime = 0, plainTime = 0;
    bool readerFirst = true;
    for (uint64_t at = 0; at < kSamples; at += kTurn, readerFirst = !readerFirst) {
        const uint64_t to = std::min(kSamples, at + kTurn);
        for (int side = 0; side < 2; ++side) {
            const double t0 = threadSeconds();
            if ((side == 0) == readerFirst) {
                readerSpans(file, reader, at, to);
                readerTime += threadSeconds() - t0;
            } else {
                plain.spans(at, to);
                plainTime += threadSeconds() - t0;
            }
        }
    }
    readerRate = double(kSamples * kFrame) / readerTime;
    plainRate = double(kSamples * kFrame) / plainTime;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The two alternate within one run, so that the load of the machine falls on both alike.
void BM_ReaderAgainstPlainLoop(benchmark::State& state) {
    const std::string path = makeFile();
    Zn::Ptr<WavReader> reader(new WavReader(path));
    Zn::Ptr<FileReadInstance> file(reader);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    PlainLoop plain(fd);
    std::vector<double> readerRates, plainRates;
    for (auto _ : state) {
        plain.spans(0, kSamples); // brings the file into the page cache
        for (int r = 0; r < kRounds; ++r) {
            double a, b;
            round(file, *reader, plain, a, b);
            readerRates.push_back(a);
            plainRates.push_back(b);
        }
    }
    ::close(fd);
    std::remove(path.c_str());
    g_figures.readerRate = median(readerRates);
    g_figures.plainRate = median(plainRates);
    state.counters["reader_MB_per_s"] = g_figures.readerRate / 1e6;
    state.counters["plain_MB_per_s"] = g_figures.plainRate / 1e6;
    state.counters["ratio"] = g_figures.readerRate / g_figures.plainRate;
}
BENCHMARK(BM_ReaderAgainstPlainLoop)->Iterations(1)->Unit(benchmark::kMillisecond);

// Prints the figures once every benchmark has run (at exit, after BENCHMARK_MAIN's main).
struct PrintFigures {
    ~PrintFigures() {
        double ratio = g_figures.plainRate > 0 ? g_figures.readerRate / g_figures.plainRate : 0;
        std::printf("\naudio reader figures (48 kHz, 24-bit, 8 channels, spans of %u samples; "
                    "bytes of samples\n"
                    "per second of this thread's processor time)\n",
                    kSpan);
        std::printf(
            "  all 8 channels through Zn::AudioReader: %.0f MB/s of samples (%.0f spans/s)\n",
            g_figures.readerRate / 1e6, g_figures.readerRate / (double(kSpan) * kFrame));
        std::printf(
            "  plain read and de-interleave loop:      %.0f MB/s of samples (%.0f spans/s)\n",
            g_figures.plainRate / 1e6, g_figures.plainRate / (double(kSpan) * kFrame));
        std::printf("  ratio %.2f (target: at least 0.8)\n", ratio);
    }
} g_printFigures;

} // namespace

BENCHMARK_MAIN();
