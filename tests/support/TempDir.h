// A temporary folder for a test, removed with everything in it at the end of its scope.
#pragma once

#include <filesystem>
#include <fstream>
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
inline void writeFile(const std::string& path, std::string_view bytes) {
    if (!std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size())))
        throw std::runtime_error("cannot write " + path);
}
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

} // namespace testing_support
