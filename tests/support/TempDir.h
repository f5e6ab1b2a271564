// A temporary folder for a test, removed with everything in it at the end of its scope.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace testing_support {

class TempDir {
public:
    explicit TempDir(const std::string& prefix = "playfile-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// A whole file written or read at once.
inline void writeFile(const std::filesystem::path& path, std::string_view bytes) {
    if (!std::ofstream(path, std::ios::binary | std::ios::trunc).write(bytes.data(), std::streamsize(bytes.size())))
        throw std::runtime_error("cannot write " + path.string());
}
// A file of n bytes whose every 4 KiB block starts with its own letter, so that a copy
// that loses, repeats or swaps blocks does not compare equal.
inline void writePatternedFile(const std::filesystem::path& path, size_t n) {
    std::string content(n, 'x');
    for (size_t i = 0; i < n; i += 4096) content[i] = char('a' + (i / 4096) % 26);
    writeFile(path, content);
}
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace testing_support
