// The status questions of a project of 100 000 clips: per clip, its location record
// (MediaLocationUtils::getClipLocationInfo), whether its material is remote
// (MaterialManager::isMediaRemote, the remote-location test of every file included) and
// whether it is offline (isMediaOffline of an edit view holding it), against a target of
// 20 us per clip; then `playfile clips --project DIR --json` over the whole project,
// against a target of 5 s. Clips are one video and two sound channels linked to a real
// file of their own, as `playfile import` makes them. Prints the ratios to the targets.
#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/EditModule.h"
#include "host/project/ProjectImporter.h"
#include "playfile/material/MaterialManager.h"
#include "playfile/material/MediaLocationUtils.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kClips = 100000;
constexpr double kTargetMicros = 20.0;
constexpr double kTargetListSeconds = 5.0;

double secondsSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

class StatusProject {
public:
    StatusProject() {
        const char* base = std::filesystem::is_directory("/dev/shm") ? "/dev/shm/playfile-status-XXXXXX"
                                                                     : "/tmp/playfile-status-XXXXXX";
        std::string pattern = base;
        if (!mkdtemp(pattern.data())) std::abort();
        dir_ = pattern;
        auto t0 = std::chrono::steady_clock::now();
        WString error;
        if (!EditManager::openProject(fromUTF8((dir_ / "project").c_str()), true, &error) ||
            !DiskManager::addDrive(DriveId('A'), fromUTF8((dir_ / "drive").c_str()), WString(L"A"), "import", &error)) {
            std::fprintf(stderr, "cannot make the project: %ls\n", error.c_str());
            std::abort();
        }
        std::filesystem::create_directories(dir_ / "sources");
        std::vector<ClipRecord> clips(kClips);
        for (int i = 0; i < kClips; ++i) {
            ClipRecord& c = clips[size_t(i)];
            c.name = Zn::WStringFromInteger(i);
            const std::string source = (dir_ / "sources" / ("clip" + std::to_string(i) + ".mov")).string();
            ::close(::open(source.c_str(), O_CREAT | O_WRONLY, 0644));
            c.file = MediaFileInfo(MaterialFilename(DriveId('A'), WString(L"video/clip") + c.name + L".mov"), 1u << 20,
                                   fromUTF8(source.c_str()));
            c.file.setStatus(MediaFileInfo::eStatusAvailable);
        }
        clips_ = ProjectImporter::registerClips(clips, &error);
        if (clips_.size() != size_t(kClips)) {
            std::fprintf(stderr, "cannot register the clips: %ls\n", error.c_str());
            std::abort();
        }
        std::printf("project of %d clips (3 material files each, linked) made in %.1f s\n", kClips, secondsSince(t0));
    }
    ~StatusProject() {
        EditManager::closeProject();
        // PLAYFILE_BENCH_KEEP keeps the project for a look afterwards.
        if (std::getenv("PLAYFILE_BENCH_KEEP")) {
            std::printf("project kept in %s\n", projectDir().c_str());
            return;
        }
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    const std::vector<Cookie>& clips() const { return clips_; }
    std::filesystem::path projectDir() const { return dir_ / "project"; }

private:
    std::filesystem::path dir_;
    std::vector<Cookie> clips_;
};

StatusProject& project() {
    static StatusProject p;
    return p;
}

bool statusOf(const Cookie& clip) {
    MediaLocationInfo info = MediaLocationUtils::getClipLocationInfo(clip);
    std::set<Cookie> materials(info.materialCookies.begin(), info.materialCookies.end());
    bool remote = MaterialManager::isMediaRemote(materials, kMediaAll);
    EditPtr edit;
    edit.i_open(clip, eEditOpenReadOnly);
    bool offline = isMediaOffline(EditModule(edit));
    return info.materialCookies.size() == 3 && !remote && !offline;
}

// Times the status of each clip in order; answers the median and 99th percentile in us.
std::pair<double, double> timeStatus(const std::vector<Cookie>& clips, benchmark::State& state) {
    std::vector<double> micros;
    micros.reserve(clips.size());
    for (const Cookie& c : clips) {
        auto t0 = std::chrono::steady_clock::now();
        bool ok = statusOf(c);
        micros.push_back(secondsSince(t0) * 1e6);
        if (!ok) state.SkipWithError("unexpected status");
    }
    std::sort(micros.begin(), micros.end());
    return {micros[micros.size() / 2], micros[micros.size() * 99 / 100]};
}

// The status of 20 000 clips picked at random: first asked (nothing of them read yet),
// then asked again (as a view refreshing the status of its clips).
void BM_StatusPerClip(benchmark::State& state) {
    const auto& all = project().clips();
    std::vector<Cookie> clips(all);
    std::shuffle(clips.begin(), clips.end(), std::mt19937(11));
    clips.resize(20000);
    for (auto _ : state) {
        auto [firstMedian, firstP99] = timeStatus(clips, state);
        auto [againMedian, againP99] = timeStatus(clips, state);
        state.counters["first_median_us"] = firstMedian;
        state.counters["again_median_us"] = againMedian;
        std::printf("status of one clip (location record + remote + offline) over %zu clips:\n"
                    "  first asked: median %.1f us, p99 %.1f us; ratio to the %.0f us target %.2f\n"
                    "  asked again: median %.1f us, p99 %.1f us; ratio to the %.0f us target %.2f\n",
                    all.size(), firstMedian, firstP99, kTargetMicros, firstMedian / kTargetMicros, againMedian,
                    againP99, kTargetMicros, againMedian / kTargetMicros);
    }
}
BENCHMARK(BM_StatusPerClip)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_ClipsCommand(benchmark::State& state) {
    const std::string command = std::string("PLAYFILE_LOG=/dev/null ") + PLAYFILE_BUILD_DIR "/tools/playfile clips --project '" +
                                project().projectDir().string() + "' --json > /dev/null";
    double seconds = 0, cpu = 0;
    auto childCpu = [] {
        rusage u{};
        getrusage(RUSAGE_CHILDREN, &u);
        return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    };
    for (auto _ : state) {
        const double cpu0 = childCpu();
        auto t0 = std::chrono::steady_clock::now();
        if (std::system(command.c_str()) != 0) state.SkipWithError("playfile clips failed");
        seconds = secondsSince(t0);
        cpu = childCpu() - cpu0;
    }
    // On a shared machine the elapsed time includes waiting for a processor; the
    // program's own processor time is printed beside it.
    std::printf("playfile clips --json over %zu clips: %.2f s elapsed (%.2f s of processor time); ratio to the %.0f "
                "s target %.2f\n",
                project().clips().size(), seconds, cpu, kTargetListSeconds, seconds / kTargetListSeconds);
}
BENCHMARK(BM_ClipsCommand)->Iterations(1)->Unit(benchmark::kSecond);


} // namespace

BENCHMARK_MAIN();
