// Seed inputs made with the ffmpeg program when the seeds are asked for (nothing binary is
// kept in the tree): each file is made from its ffmpeg arguments in a temporary folder and
// read back. Files ffmpeg cannot make here are left out.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

// files: {name (its extension picks the container), ffmpeg arguments before the output}.
inline std::vector<std::string> madeMedia(const std::vector<std::pair<std::string, std::string>>& files) {
    namespace fs = std::filesystem;
    std::error_code ec;
    std::string pattern = (fs::temp_directory_path(ec) / "playfile-fuzz-seeds-XXXXXX").string();
    std::vector<std::string> made;
    if (!::mkdtemp(pattern.data())) return made;
    const fs::path dir = pattern;
    for (const auto& [name, args] : files) {
        const fs::path out = dir / name;
        const std::string command = "ffmpeg -nostdin -hide_banner -loglevel quiet -y " + args + " '" + out.string() + "'";
        if (std::system(command.c_str()) != 0) continue;
        std::ifstream in(out, std::ios::binary);
        made.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    fs::remove_all(dir, ec);
    return made;
}
