// A temporary folder for a test, removed with everything in it at the end of its scope.
#pragma once

#include <filesystem>
#include <string>

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

} // namespace testing_support
