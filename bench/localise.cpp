// Localising remote media (files in a folder that PLAYFILE_REMOTE_PREFIXES names, linked by
// a project under /tmp) onto drive A, against `cp` of the same files followed by `sync`, in
// one run: 1 GiB in four media files of 256 MiB, and apart from it 160 small files of
// 1 MiB, where the per-file costs show (each file is synced before it is renamed into
// place, and the project records each copy in transactions of its own). Each side: copy,
// then everything on disk; the localise also points the project at every copy. Four
// rounds alternate which side goes first; the best round of each counts. Prints the
// throughputs and the ratios (localise over cp + sync; 1.0 is as fast).
#include "CopyBench.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"
#include "playfile/material/MaterialManager.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;
using copy_bench::emptyFolder;
using copy_bench::Group;
using copy_bench::seconds;
using copy_bench::writeMedia;

namespace {

constexpr int kRounds = 4;

[[noreturn]] void die(const char* what, const WString& why = WString()) {
    std::fprintf(stderr, "bench_localise: %s %ls\n", what, why.c_str());
    std::exit(1);
}

// New clips linked to the group's remote files, as an import in place makes them.
CookieVec linkClips(const Group& g, int round) {
    std::vector<ClipRecord> clips;
    for (const std::string& source : g.sources) {
        ClipRecord c;
        c.name = fromUTF8(fs::path(source).stem().c_str());
        c.audioChannels = 0;
        const std::string link = "video/link " + std::to_string(round) + " " + fs::path(source).filename().string();
        c.file = MediaFileInfo(MaterialFilename(DriveId('A'), fromUTF8(link.c_str())), g.bytes, fromUTF8(source.c_str()));
        c.file.setStatus(MediaFileInfo::eStatusAvailable);
        clips.push_back(c);
    }
    WString error;
    std::vector<Cookie> made = ProjectImporter::registerClips(clips, &error);
    if (made.size() != clips.size()) die("cannot register the clips:", error);
    CookieVec items;
    for (const Cookie& c : made) items.add(c);
    return items;
}

void timeCp(Group& g, const fs::path& cpTo) {
    const double took = copy_bench::cpAndSync(g.sources, cpTo);
    if (took < 0) die("cp failed");
    g.bestCp = std::min(g.bestCp, took);
}

void timeLocalise(Group& g, const fs::path& drive, int round) {
    const CookieVec items = linkClips(g, round);
    emptyFolder(drive / "video");
    auto t0 = std::chrono::steady_clock::now();
    Zn::Ptr<DownloadTask> task =
        MaterialManager::localiseRemoteMedia(items, kMediaHighRes, iBackgroundTask::eNormalImportance);
    if (!task) die("the task queue refused the task");
    task->waitForCompletion();
    const double took = seconds(t0);
    if (task->result() != DownloadTask::eResult::eDone || task->writtenFiles().size() != g.sources.size())
        die("the localise did not copy every file");
    g.bestOurs = std::min(g.bestOurs, took);
}

} // namespace

int main(int argc, char** argv) {
    // A group's name as argument runs that group alone.
    const std::string only = argc > 1 ? argv[1] : "";
    char pattern[] = "/tmp/playfile-bench-localise-XXXXXX";
    if (!mkdtemp(pattern)) die("cannot make a folder under /tmp");
    const fs::path dir = pattern, remote = dir / "remote", a = dir / "drive A";
    ::setenv("PLAYFILE_REMOTE_PREFIXES", remote.c_str(), 1);
    WString error;
    if (!EditManager::openProject(fromUTF8((dir / "project").c_str()), true, &error) ||
        !DiskManager::addDrive(DriveId('A'), fromUTF8(a.c_str()), WString(), "import", &error))
        die("cannot make the project:", error);

    std::mt19937_64 rng(13);
    Group groups[] = {{"media", 4, size_t(256) << 20, {}}, {"small", 160, size_t(1) << 20, {}}};
    fs::create_directories(remote);
    for (Group& g : groups)
        for (int i = 0; i < g.files && (only.empty() || only == g.name); ++i) {
            const fs::path p = remote / (std::string(g.name) + std::to_string(i) + ".mov");
            writeMedia(p, g.bytes, rng);
            g.sources.push_back(p.string());
        }
    ::sync();
    // Each side goes first in turn, so that neither always meets the disk still busy with
    // the other's writes.
    for (int r = 0; r < kRounds; ++r) {
        for (Group& g : groups) {
            if (g.sources.empty()) continue;
            if (r % 2 == 0) timeCp(g, dir / "cp");
            timeLocalise(g, a, r);
            if (r % 2 == 1) timeCp(g, dir / "cp");
        }
    }

    for (const Group& g : groups)
        if (!g.sources.empty())
            std::printf("%3d %s files, %4.0f MiB: localise %.2f s (%.0f MiB/s), cp + sync %.2f s (%.0f MiB/s): ratio %.2fx\n",
                    g.files, g.name, g.mib(), g.bestOurs, g.mib() / g.bestOurs, g.bestCp, g.mib() / g.bestCp,
                    g.bestCp / g.bestOurs);
    EditManager::closeProject();
    fs::remove_all(dir);
    return 0;
}
