// The project on a PostgreSQL server against the project file, in one run: look-ups of a
// material's directory entry (SystemCache::findEntryForCookie) among 100 000 material
// entries, served from the seat's cache after the first look-up, and the import of 1000
// small files one at a time (ProjectImporter::importFile, linked in place). Starts a
// server of its own (fsync on, as the file's commits are) in a temporary folder. Prints
// each figure and the two ratios: look-up median server/file (at most 2 wanted) and
// import rate server/file (at least 0.5 wanted).
#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"
#include "host/project/SystemCache.h"
#include "LookupClips.h"
#include "support/PostgresServer.h"
#include "support/TempDir.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <stdlib.h>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kClips = 20000;
constexpr int kSoundChannels = 4; // 5 material entries a clip: 100 000 in all
constexpr int kLookups = 200000;
constexpr int kImports = 1000;

struct Figures {
    double setupSeconds = 0;
    double lookupMedianNs = 0;
    double importPerSecond = 0;
};

double seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

bool open(const std::string& location, const fs::path& drive) {
    WString error;
    if (!EditManager::openProject(fromUTF8(location.c_str()), true, &error) ||
        !DiskManager::addDrive(DriveId('A'), fromUTF8(drive.c_str()), WString(L"A"), "import", &error)) {
        std::fprintf(stderr, "cannot make the project at %s: %s\n", location.c_str(), toUTF8(error).c_str());
        return false;
    }
    return true;
}

std::vector<Cookie> fill() {
    std::vector<ClipRecord> clips = lookupClips(kClips, kSoundChannels);
    WString error;
    std::vector<Cookie> made = ProjectImporter::registerClips(clips, &error);
    std::vector<Cookie> materials;
    for (const Cookie& c : made) {
        materials.push_back(convertCookie(c, 'V', 0));
        for (int ch = 1; ch <= kSoundChannels; ++ch) materials.push_back(convertCookie(c, 'S', uint8_t(ch)));
    }
    if (made.size() != size_t(kClips)) std::fprintf(stderr, "cannot register the clips: %s\n", toUTF8(error).c_str());
    return materials;
}

double lookupMedianNs(const std::vector<Cookie>& materials) {
    for (const Cookie& c : materials) // the first look-up of each: from the database
        if (!SystemCache::findEntryForCookie(c)) std::abort();
    std::mt19937 rng(7);
    std::vector<double> times(kLookups);
    for (double& t : times) {
        const Cookie& c = materials[rng() % materials.size()];
        auto start = Clock::now();
        auto entry = SystemCache::findEntryForCookie(c);
        t = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
        if (!entry) std::abort();
    }
    std::nth_element(times.begin(), times.begin() + kLookups / 2, times.end());
    return times[kLookups / 2];
}

double importPerSecond(const fs::path& sources) {
    std::vector<WString> files;
    fs::create_directories(sources);
    for (int i = 0; i < kImports; ++i) {
        const fs::path f = sources / ("take " + std::to_string(i) + ".mov");
        testing_support::writeFile(f, "take " + std::to_string(i));
        files.push_back(fromUTF8(f.c_str()));
    }
    ImportOptions o;
    o.videoChannels = 1;
    o.audioChannels = 2;
    auto start = Clock::now();
    ProjectImporter importer(o);
    for (const WString& file : files)
        if (ImportResult r = importer.importFile(file); !r.ok) {
            std::fprintf(stderr, "import failed: %s\n", toUTF8(r.error).c_str());
            std::abort();
        }
    return kImports / seconds(start);
}

Figures measure(const std::string& location, const std::string& importLocation, const fs::path& work) {
    Figures f;
    auto start = Clock::now();
    if (!open(location, work / "drive")) std::exit(1);
    const std::vector<Cookie> materials = fill();
    if (materials.size() != size_t(kClips * (1 + kSoundChannels))) std::exit(1);
    f.setupSeconds = seconds(start);
    f.lookupMedianNs = lookupMedianNs(materials);
    EditManager::closeProject();
    // The imports go into a project of their own, so that both start alike.
    if (!open(importLocation, work / "drive")) std::exit(1);
    f.importPerSecond = importPerSecond(work / "sources");
    EditManager::closeProject();
    return f;
}

} // namespace

int main() {
    char folder[] = "/tmp/playfile-pg-XXXXXX";
    if (!::mkdtemp(folder)) return 1;
    const std::string serverFolder = folder;
    std::string error;
    if (!testing_support::PostgresServer::start(serverFolder, true, error)) {
        testing_support::PostgresServer::stop(serverFolder);
        std::fprintf(stderr, "no PostgreSQL server: %s\n", error.c_str());
        return 1;
    }
    Figures file, server;
    {
        testing_support::TempDir fileWork{"playfile-bench-file"};
        file = measure((fileWork.path() / "project").string(), (fileWork.path() / "imports").string(), fileWork.path());
    }
    {
        testing_support::PostgresDatabase lookups(serverFolder), imports(serverFolder);
        testing_support::TempDir serverWork{"playfile-bench-seat"};
        server = measure(lookups.uri(), imports.uri(), serverWork.path());
    }
    testing_support::PostgresServer::stop(serverFolder);
    std::printf("findEntryForCookie, %d material entries, cached after the first look-up (median of %d):\n",
                kClips * (1 + kSoundChannels), kLookups);
    std::printf("  project file    %8.0f ns   (project made in %.1f s)\n", file.lookupMedianNs, file.setupSeconds);
    std::printf("  server project  %8.0f ns   (project made in %.1f s)\n", server.lookupMedianNs, server.setupSeconds);
    std::printf("  ratio server/file %.2f (at most 2 wanted)\n", server.lookupMedianNs / file.lookupMedianNs);
    std::printf("import of %d files, linked in place:\n", kImports);
    std::printf("  project file    %8.1f files/s\n", file.importPerSecond);
    std::printf("  server project  %8.1f files/s\n", server.importPerSecond);
    std::printf("  ratio server/file %.2f (at least 0.5 wanted)\n", server.importPerSecond / file.importPerSecond);
    return 0;
}
