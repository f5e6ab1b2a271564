// `playfile demo`: a guided run of the library on generated sample media.
#include "tools/Command.h"
#include "tools/Progress.h"

#include "host/core/Strings.h"
#include "host/os/Config.h"
#include "host/os/FileManager.h"
#include "host/os/OS.h"
#include "playfile/Configuration.h"
#include "playfile/Version.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

namespace tool {
namespace {

const char kDemoUsage[] =
    "usage: playfile demo [--dir DIR]\n"
    "\n"
    "Runs a short tour of the library on sample media it generates in DIR (default: a new\n"
    "temporary folder, removed afterwards) and prints what it did with figures.\n";

int run(const std::vector<std::string>& args) {
    std::filesystem::path dir;
    bool keep = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--dir" && i + 1 < args.size()) {
            dir = args[++i];
            keep = true;
        } else {
            return fail(kUsage, "demo: unexpected argument '" + args[i] + "'");
        }
    }
    if (dir.empty()) {
        char pattern[] = "/tmp/playfile-demo-XXXXXX";
        if (!mkdtemp(pattern)) return fail(kFailure, "demo: cannot create a temporary folder");
        dir = pattern;
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);

    std::printf("playfile %s demo in %s\n", playfileDllVersionStr(), dir.c_str());
    std::printf("  processors: %u, reader threads: %d, read poll delay: %d ms, audio streams: %d\n",
                OS()->processorCount(), PlayfileConfig::numReaderThreads(), PlayfileConfig::readPollDelay(),
                PlayfileConfig::numAudioStreamsToPlay());

    // Sample material: 64 MiB of noise, copied onto a "media drive" through the host's
    // file manager, which writes a temporary file and renames it into place.
    const size_t size = 64u << 20;
    std::filesystem::path src = dir / "sample.raw", dst = dir / "drive" / "sample.raw";
    {
        std::vector<uint32_t> block(1 << 18);
        std::mt19937 rng(7);
        std::ofstream out(src, std::ios::binary);
        for (size_t done = 0; done < size; done += block.size() * 4) {
            for (auto& w : block) w = rng();
            out.write(reinterpret_cast<const char*>(block.data()), std::streamsize(block.size() * 4));
        }
        if (!out) return fail(kFailure, "demo: cannot write " + src.string());
    }
    iFileManager* fm = OS()->fileManager();
    fm->createDirectory(fromUTF8(dst.parent_path().c_str()));
    ProgressBar bar("copying sample material", size);
    auto start = std::chrono::steady_clock::now();
    auto rc = fm->copyFile(fromUTF8(src.c_str()), fromUTF8(dst.c_str()),
                           [&](uint64_t done, uint64_t) { bar.update(done); return true; }, true);
    bar.finish();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (rc != iFileManager::eCopyOK) return fail(kFailure, "demo: copy failed with code " + std::to_string(rc));
    std::printf("  copied %.0f MiB in %.3f s (%.0f MiB/s); destination size %lld bytes\n", size / 1048576.0,
                seconds, size / 1048576.0 / seconds, (long long)fm->fileSize(fromUTF8(dst.c_str())));

    if (!keep) std::filesystem::remove_all(dir, ec);
    std::printf("demo finished\n");
    return kOk;
}

CommandRegistration reg({"demo", "a guided run on generated sample media", kDemoUsage, run});

} // namespace
} // namespace tool
