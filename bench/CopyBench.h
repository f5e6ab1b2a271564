// What the copy benchmarks (relocate, localise) share: random media files, an empty
// folder with nothing left to write, and the reference they are measured against, `cp`
// of the same files followed by `sync`.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace copy_bench {

inline double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// A file of random bytes (nothing a file system could share or compress).
inline void writeMedia(const std::filesystem::path& path, size_t bytes, std::mt19937_64& rng) {
    std::vector<uint64_t> block(size_t(1) << 17); // 1 MiB
    std::ofstream out(path, std::ios::binary);
    for (size_t done = 0; done < bytes; done += block.size() * 8) {
        for (auto& w : block) w = rng();
        out.write(reinterpret_cast<const char*>(block.data()), std::streamsize(std::min(bytes - done, block.size() * 8)));
    }
}

// The folder, made when missing and emptied, and the disk with nothing left to write.
inline void emptyFolder(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    for (const auto& e : std::filesystem::directory_iterator(folder)) std::filesystem::remove(e.path());
    ::sync();
}

// Seconds that `cp` of the files into the (emptied) folder followed by `sync` takes; a
// negative answer when cp failed.
inline double cpAndSync(const std::vector<std::string>& sources, const std::filesystem::path& folder) {
    std::string line = "cp";
    for (const auto& s : sources) line += " '" + s + "'";
    line += " '" + folder.string() + "/' && sync";
    emptyFolder(folder);
    auto t0 = std::chrono::steady_clock::now();
    if (std::system(line.c_str()) != 0) return -1;
    return seconds(t0);
}

// A set of files of one size, and the best time of each side over the rounds.
struct Group {
    const char* name;
    int files;
    size_t bytes; // per file
    std::vector<std::string> sources;
    double bestCp = 1e9, bestOurs = 1e9;
    double mib() const { return double(files) * double(bytes) / 1048576.0; }
};

} // namespace copy_bench
