// Whole-file reads and writes for tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace testing_support {

inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// Replaces whatever the file held with data.
inline void writeFile(const std::filesystem::path& path, const std::string& data) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
}

} // namespace testing_support
