// Relocating 1 GiB of media (three large files and 160 small ones) from drive A to drive B
// of a project under /tmp, against `cp` of the same files followed by `sync`, in one run.
// The large and the small files are timed apart (each side: copy, then everything on
// disk), three rounds alternating the two sides; the best round of each counts. Prints the
// throughputs and the ratios (relocation over cp + sync; 1.0 is as fast), for each group
// and for the whole.
#include "CopyBench.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/ProjectImporter.h"
#include "playfile/material/MaterialMove.h"

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
using copy_bench::seconds;
using copy_bench::writeMedia;

namespace {

constexpr int kRounds = 4;

// The files of a group, and the clips made of them.
struct Group : copy_bench::Group {
    CookieVec items;
};

[[noreturn]] void die(const char* what, const WString& why = WString()) {
    std::fprintf(stderr, "bench_relocate: %s %ls\n", what, why.c_str());
    std::exit(1);
}

void makeGroup(Group& g, const fs::path& drive, std::mt19937_64& rng) {
    std::vector<ClipRecord> clips;
    for (int i = 0; i < g.files; ++i) {
        const std::string name = std::string(g.name) + std::to_string(i) + ".mov";
        writeMedia(drive / "video" / name, g.bytes, rng);
        g.sources.push_back((drive / "video" / name).string());
        ClipRecord c;
        c.name = fromUTF8(name.c_str());
        c.audioChannels = 0;
        c.file = MediaFileInfo(MaterialFilename(DriveId('A'), fromUTF8(("video/" + name).c_str())), g.bytes);
        c.file.setStatus(MediaFileInfo::eStatusAvailable); // as an import records it
        clips.push_back(c);
    }
    WString error;
    std::vector<Cookie> made = ProjectImporter::registerClips(clips, &error);
    if (made.size() != clips.size()) die("cannot register the clips:", error);
    for (const Cookie& c : made) g.items.add(c);
}

void timeCp(Group& g, const fs::path& cpTo) {
    const double took = copy_bench::cpAndSync(g.sources, cpTo);
    if (took < 0) die("cp failed");
    g.bestCp = std::min(g.bestCp, took);
}

void timeRelocation(Group& g, const fs::path& relocated) {
    emptyFolder(relocated);
    auto t0 = std::chrono::steady_clock::now();
    MaterialMove::relocate(DriveId('B'), g.items, MaterialMove::eCopy, LoggerHandle());
    g.bestOurs = std::min(g.bestOurs, seconds(t0));
    if (fs::is_empty(relocated)) die("the relocation copied nothing");
}

} // namespace

int main() {
    char pattern[] = "/tmp/playfile-bench-relocate-XXXXXX";
    if (!mkdtemp(pattern)) die("cannot make a folder under /tmp");
    const fs::path dir = pattern, a = dir / "drive A", b = dir / "drive B";
    WString error;
    if (!EditManager::openProject(fromUTF8((dir / "project").c_str()), true, &error) ||
        !DiskManager::addDrive(DriveId('A'), fromUTF8(a.c_str()), WString(), "import", &error) ||
        !DiskManager::addDrive(DriveId('B'), fromUTF8(b.c_str()), WString(), "", &error))
        die("cannot make the project:", error);

    std::mt19937_64 rng(11);
    Group groups[] = {{{"large", 3, size_t(288) << 20, {}}, {}}, {{"small", 160, size_t(1) << 20, {}}, {}}};
    for (Group& g : groups) makeGroup(g, a, rng);
    ::sync();
    // Each side goes first in turn, so that neither always meets the disk still busy with
    // the other's writes.
    for (int r = 0; r < kRounds; ++r) {
        for (Group& g : groups) {
            if (r % 2 == 0) timeCp(g, dir / "cp");
            timeRelocation(g, b / "video");
            if (r % 2 == 1) timeCp(g, dir / "cp");
        }
    }

    double cp = 0, relocate = 0, mib = 0;
    for (const Group& g : groups) {
        std::printf("%3d %s files, %4.0f MiB: relocate %.2f s (%.0f MiB/s), cp + sync %.2f s (%.0f MiB/s): %.2fx\n",
                    g.files, g.name, g.mib(), g.bestOurs, g.mib() / g.bestOurs, g.bestCp, g.mib() / g.bestCp,
                    g.bestCp / g.bestOurs);
        cp += g.bestCp;
        relocate += g.bestOurs;
        mib += g.mib();
    }
    std::printf("all %4.0f MiB: relocate %.2f s (%.0f MiB/s), cp + sync %.2f s (%.0f MiB/s): ratio %.2fx\n", mib,
                relocate, mib / relocate, cp, mib / cp, cp / relocate);
    EditManager::closeProject();
    fs::remove_all(dir);
    return 0;
}
