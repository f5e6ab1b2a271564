// File-system access of the media database: the host's file manager first, the standard
// library where the file manager has nothing to offer.
#include "host/project/ProjectFiles.h"

#include "host/core/Strings.h"
#include "host/os/OS.h"

#include <algorithm>
#include <atomic>
#include <fnmatch.h>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace fs = std::filesystem;

namespace projectfs {
namespace {

iFileManager* fm() { return OS()->fileManager(); }

// A name beside path that no other writer of this process or another one uses.
fs::path temporaryBeside(const fs::path& path) {
    static std::atomic<unsigned> counter{0};
    return fs::path(path.string() + ".tmp" + std::to_string(getpid()) + "_" + std::to_string(counter++));
}

bool syncFolderOf(const fs::path& path) {
    int fd = ::open(path.parent_path().empty() ? "." : path.parent_path().c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return false;
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

} // namespace

fs::path toPath(const WString& path) { return fs::path(toUTF8(path).str()); }
WString fromPath(const fs::path& path) { return fromUTF8(path.string().c_str()); }

bool exists(const WString& path) {
    if (path.empty()) return false;
    if (iFileManager* m = fm()) return m->fileExists(path);
    std::error_code ec;
    return fs::exists(toPath(path), ec);
}

int64_t size(const WString& path) {
    if (path.empty()) return -1;
    if (iFileManager* m = fm()) return m->fileSize(path);
    std::error_code ec;
    auto n = fs::file_size(toPath(path), ec);
    return ec ? -1 : int64_t(n);
}

bool createDirectory(const WString& path) {
    if (iFileManager* m = fm()) return m->createDirectory(path);
    std::error_code ec;
    fs::create_directories(toPath(path), ec);
    return fs::is_directory(toPath(path), ec);
}

bool remove(const WString& path) {
    if (iFileManager* m = fm()) return m->deleteFile(path);
    std::error_code ec;
    return fs::remove(toPath(path), ec);
}

bool rename(const WString& from, const WString& to) {
    bool ok;
    if (iFileManager* m = fm()) {
        ok = m->renameFile(from, to);
    } else {
        std::error_code ec;
        fs::rename(toPath(from), toPath(to), ec);
        ok = !ec;
    }
    if (ok) syncFolderOf(toPath(to));
    return ok;
}

int64_t freeSpace(const WString& path) {
    if (iFileManager* m = fm()) return m->freeSpace(path);
    std::error_code ec;
    auto info = fs::space(toPath(path), ec);
    return ec ? -1 : int64_t(info.available);
}

std::vector<WString> listDirectory(const WString& dir, const WString& pattern) {
    if (iFileManager* m = fm()) return m->listDirectory(dir, pattern);
    std::vector<WString> out;
    std::error_code ec;
    String glob = toUTF8(pattern);
    for (fs::directory_iterator it(toPath(dir), ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (::fnmatch(glob.c_str(), name.c_str(), 0) == 0) out.push_back(fromUTF8(name.c_str()));
    }
    std::sort(out.begin(), out.end());
    return out;
}

iFileManager::eCopyRC copy(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress,
                           bool overwrite) {
    if (dst.empty()) return iFileManager::eCopyNoDestination;
    if (iFileManager* m = fm()) return m->copyFile(src, dst, progress, overwrite);
    // Without a file manager: copy beside the destination, then rename into place, as the
    // file manager does, so a half-copied file never carries the final name.
    fs::path from = toPath(src), to = toPath(dst), tmp = temporaryBeside(to);
    std::error_code ec;
    if (!overwrite && fs::exists(to, ec)) return iFileManager::eCopyFailed;
    fs::copy_file(from, tmp, fs::copy_options::overwrite_existing, ec);
    if (ec) {
        fs::remove(tmp, ec);
        return ec == std::errc::no_space_on_device ? iFileManager::eCopyNoSpace : iFileManager::eCopyFailed;
    }
    uint64_t n = fs::file_size(tmp, ec);
    if (progress && !progress(n, n)) {
        fs::remove(tmp, ec);
        return iFileManager::eCopyCancelled;
    }
    fs::rename(tmp, to, ec);
    if (ec) {
        fs::remove(tmp, ec);
        return iFileManager::eCopyFailed;
    }
    return iFileManager::eCopyOK;
}

bool writeTextFile(const WString& path, const String& text) {
    fs::path to = toPath(path), tmp = temporaryBeside(to);
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const char* p = text.c_str();
    size_t left = text.size();
    bool ok = true;
    while (ok && left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) ok = false;
        else {
            p += n;
            left -= size_t(n);
        }
    }
    ok = ok && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(tmp.c_str(), to.c_str()) == 0;
    if (!ok) {
        ::unlink(tmp.c_str());
        return false;
    }
    syncFolderOf(to);
    return true;
}

String readTextFile(const WString& path) {
    std::ifstream in(toPath(path), std::ios::binary);
    if (!in) return String();
    std::ostringstream all;
    all << in.rdbuf();
    return String(all.str());
}

bool makeLink(const WString& link, const WString& target, bool replace) {
    fs::path at = toPath(link);
    std::error_code ec;
    auto st = fs::symlink_status(at, ec);
    if (fs::exists(st)) {
        if (!fs::is_symlink(st) || !replace) return false;
    }
    fs::create_directories(at.parent_path(), ec);
    // A new link under a temporary name renamed over the old one: there is no moment at
    // which the name is missing.
    fs::path tmp = temporaryBeside(at);
    if (::symlink(toUTF8(target).c_str(), tmp.c_str()) != 0) return false;
    if (::rename(tmp.c_str(), at.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    syncFolderOf(at);
    return true;
}

bool isLink(const WString& path) {
    std::error_code ec;
    return fs::is_symlink(fs::symlink_status(toPath(path), ec));
}

WString resolve(const WString& path) {
    if (path.empty()) return path;
    std::error_code ec;
    fs::path p = fs::canonical(toPath(path), ec);
    return ec ? path : fromPath(p);
}

} // namespace projectfs
