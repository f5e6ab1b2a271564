// Look-ups of a material's file and status (SystemCache::findEntryForCookie) in a project
// of 100 000 material entries: 20 000 clips of one video and four sound materials each,
// made in a temporary folder when the benchmark starts. Prints the median and the 99th
// percentile of single look-ups.
#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"
#include "host/project/SystemCache.h"
#include "LookupClips.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kClips = 20000;
constexpr int kSoundChannels = 4;

class LookupProject {
public:
    LookupProject() {
        char pattern[] = "/tmp/playfile-bench-XXXXXX";
        if (!mkdtemp(pattern)) std::abort();
        dir_ = pattern;
        WString error;
        if (!EditManager::openProject(fromUTF8((dir_ / "project").c_str()), true, &error) ||
            !DiskManager::addDrive(DriveId('A'), fromUTF8((dir_ / "drive").c_str()), WString(L"A"), "import", &error)) {
            std::fprintf(stderr, "cannot make the project: %ls\n", error.c_str());
            std::abort();
        }
        auto start = std::chrono::steady_clock::now();
        std::vector<ClipRecord> clips = lookupClips(kClips, kSoundChannels);
        std::vector<Cookie> made = ProjectImporter::registerClips(clips, &error);
        if (made.size() != size_t(kClips)) {
            std::fprintf(stderr, "cannot register the clips: %ls\n", error.c_str());
            std::abort();
        }
        for (const Cookie& c : made) {
            materials_.push_back(convertCookie(c, 'V', 0));
            for (int ch = 1; ch <= kSoundChannels; ++ch) materials_.push_back(convertCookie(c, 'S', uint8_t(ch)));
        }
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::printf("project of %zu material entries made in %.1f s\n", materials_.size(), seconds);
    }
    ~LookupProject() {
        EditManager::closeProject();
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    const std::vector<Cookie>& materials() const { return materials_; }

private:
    std::filesystem::path dir_;
    std::vector<Cookie> materials_;
};

LookupProject& project() {
    static LookupProject p;
    return p;
}

void BM_FindEntryForCookie(benchmark::State& state) {
    const auto& materials = project().materials();
    std::mt19937 rng(7);
    std::vector<double> micros;
    micros.reserve(size_t(state.max_iterations));
    for (auto _ : state) {
        const Cookie& c = materials[rng() % materials.size()];
        auto t0 = std::chrono::steady_clock::now();
        auto entry = SystemCache::findEntryForCookie(c);
        WString file = entry ? entry->getPhysicalFilename(false) : WString();
        int status = entry ? entry->getStatus(1) : 0;
        auto t1 = std::chrono::steady_clock::now();
        if (file.empty() || status != MediaFileInfo::eStatusAvailable) state.SkipWithError("entry missing");
        benchmark::DoNotOptimize(file);
        micros.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    }
    std::sort(micros.begin(), micros.end());
    double median = micros[micros.size() / 2], p99 = micros[micros.size() * 99 / 100];
    state.counters["median_us"] = median;
    state.counters["p99_us"] = p99;
    std::printf("findEntryForCookie over %zu entries: median %.2f us, p99 %.2f us (%zu look-ups)\n",
                materials.size(), median, p99, micros.size());
}
BENCHMARK(BM_FindEntryForCookie)->Iterations(200000)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
