// The POSIX file manager: file and folder operations, volume questions answered from
// stat/statvfs/statfs and the mount table, and the process's default instance.
#include "host/os/PosixFileManager.h"

#include "host/core/Strings.h"
#include "host/os/FileCopy.h"
#include "host/os/FileQueryScope.h"
#include "host/os/MountTable.h"
#include "host/os/MountWatch.h"
#include "host/os/PosixFile.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <locale.h>
#include <new>
#include <string_view>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

std::string bytesOf(const WString& path) {
    return std::string(toUTF8(path).view());
}

std::string withoutTrailingSlashes(std::string p) {
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

// The folder holding p, lexically: "/a/b" -> "/a", "/a" -> "/", "a" -> ".".
std::string parentOf(const std::string& p) {
    std::string trimmed = withoutTrailingSlashes(p);
    size_t slash = trimmed.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return withoutTrailingSlashes(trimmed.substr(0, slash));
}

// A path cut at its nearest existing ancestor: existing is what stat found (st holds its
// result), rest the missing components after it.
struct ExistingPart {
    std::string existing;
    std::string rest;
    struct stat st;
};

bool nearestExisting(const std::string& path, ExistingPart& out) {
    if (path.empty()) return false;
    std::string p = path;
    for (;;) {
        if (FileQueryScope::stat(p, out.st) == 0) break;
        if (p == "/" || p == ".") return false;
        p = parentOf(p);
    }
    out.existing = p;
    // p is path cut at a '/', or "." standing in for the working folder of "a/b".
    bool cut =
        path.starts_with(p) && (p == "/" || path.size() == p.size() || path[p.size()] == '/');
    out.rest = cut ? path.substr(p.size()) : path;
    while (!out.rest.empty() && out.rest.front() == '/')
        out.rest.erase(0, 1);
    return true;
}

// The absolute, link-free form of an existing path (the path itself if that fails).
std::string resolved(const std::string& existing) {
    char* r = ::realpath(existing.c_str(), nullptr);
    if (!r) return existing;
    std::string out(r);
    std::free(r);
    return out;
}

std::string resolvedFull(const ExistingPart& part) {
    std::string base = resolved(part.existing);
    if (part.rest.empty()) return base;
    return base == "/" ? base + part.rest : base + "/" + part.rest;
}

std::vector<std::string> splitList(const char* text, char separator) {
    std::vector<std::string> items;
    if (!text) return items;
    std::string_view s(text);
    while (!s.empty()) {
        size_t cut = s.find(separator);
        std::string_view item = s.substr(0, cut);
        if (!item.empty()) items.emplace_back(item);
        if (cut == std::string_view::npos) break;
        s.remove_prefix(cut + 1);
    }
    return items;
}

// The mount point of a resolved path when the mount table cannot be read: climb while the
// parent is on the same device. (Bind mounts of one file system are not told apart.)
std::string mountPointByDevice(const std::string& path, dev_t device) {
    std::string cur = path;
    while (cur != "/") {
        std::string parent = parentOf(cur);
        struct stat st;
        if (::stat(parent.c_str(), &st) != 0 || st.st_dev != device) return cur;
        cur = parent;
    }
    return cur;
}

bool makeDirectories(const std::string& path) {
    std::string p = withoutTrailingSlashes(path);
    struct stat st;
    if (::mkdir(p.c_str(), 0777) == 0) return true;
    if (errno == EEXIST) return ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    if (errno != ENOENT) return false;
    std::string parent = parentOf(p);
    if (parent == p || !makeDirectories(parent)) return false;
    // Another process may be creating the same folders: EEXIST is success if it is one.
    if (::mkdir(p.c_str(), 0777) == 0) return true;
    return errno == EEXIST && ::stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// fnmatch reads names in the thread's locale; in the "C" locale '?' and bracket
// expressions would match single bytes of a UTF-8 character. Null when the C library has
// no UTF-8 locale, and then bytes it is.
locale_t utf8Locale() noexcept {
    static const locale_t loc = [] {
        locale_t l = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
        return l ? l : ::newlocale(LC_CTYPE_MASK, "en_US.UTF-8", locale_t(0));
    }();
    return loc;
}

union NeverDestroyed {
    PosixFileManager manager;
    constexpr NeverDestroyed() noexcept : manager() {}
    ~NeverDestroyed() {}
};
constinit NeverDestroyed g_default;

} // namespace

iFileManager* defaultFileManager() noexcept {
    return &g_default.manager;
}

bool PosixFileManager::fileExists(const WString& path) {
    struct stat st;
    return !path.empty() && FileQueryScope::stat(bytesOf(path), st) == 0;
}

bool PosixFileManager::isDirectory(const WString& path) {
    struct stat st;
    return !path.empty() && FileQueryScope::stat(bytesOf(path), st) == 0 && S_ISDIR(st.st_mode);
}

int64_t PosixFileManager::fileSize(const WString& path) {
    struct stat st;
    if (path.empty() || FileQueryScope::stat(bytesOf(path), st) != 0 || S_ISDIR(st.st_mode)) return -1;
    return int64_t(st.st_size);
}

Zn::Ptr<iFile> PosixFileManager::openForRead(const WString& path) {
    if (path.empty()) return nullptr;
    std::string p = bytesOf(path);
    // O_NONBLOCK so that a named pipe met in a media folder cannot hang the open; it
    // changes nothing for the files and devices accepted.
    int fd;
    do
        fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return nullptr;
    struct stat st;
    if (::fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISBLK(st.st_mode)) ||
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        ::close(fd);
        return nullptr;
    }
    auto* file = new (std::nothrow) PosixFile(fd, path);
    if (!file) {
        ::close(fd);
        return nullptr;
    }
    return Zn::Ptr<iFile>(file);
}

iFileManager::eCopyRC PosixFileManager::copyFile(const WString& src, const WString& dst,
                                                 const ProgressFn& progress, bool overwrite) {
    return copyFileSafely(toUTF8(src), toUTF8(dst), progress, overwrite);
}

std::unique_ptr<iCopyBatch> PosixFileManager::newCopyBatch() { return std::make_unique<FileCopyBatch>(); }

bool PosixFileManager::renameFile(const WString& src, const WString& dst) {
    if (src.empty() || dst.empty()) return false;
    String from = toUTF8(src), to = toUTF8(dst);
    if (::rename(from.c_str(), to.c_str()) == 0) return true;
    if (errno != EXDEV) return false;
    struct stat st;
    if (::lstat(from.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    FileCopyOptions options;
    options.keepTimes = true;
    if (copyFileSafely(from, to, nullptr, true, options) != eCopyOK) return false;
    return ::unlink(from.c_str()) == 0;
}

bool PosixFileManager::deleteFile(const WString& path) {
    if (path.empty()) return false;
    std::string p = bytesOf(path);
    if (::unlink(p.c_str()) == 0) return true;
    // Linux answers EISDIR for a folder, POSIX allows EPERM.
    if (errno != EISDIR && errno != EPERM) return false;
    struct stat st;
    return ::lstat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && ::rmdir(p.c_str()) == 0;
}

bool PosixFileManager::createDirectory(const WString& path) {
    return !path.empty() && makeDirectories(bytesOf(path));
}

std::vector<WString> PosixFileManager::listDirectory(const WString& dir, const WString& pattern) {
    std::vector<WString> names;
    if (dir.empty()) return names;
    DIR* d = ::opendir(bytesOf(dir).c_str());
    if (!d) return names;
    String pat = toUTF8(pattern);
    locale_t utf8 = utf8Locale();
    locale_t previous = utf8 ? ::uselocale(utf8) : locale_t(0);
    while (const dirent* e = ::readdir(d)) {
        std::string_view name(e->d_name);
        if (name == "." || name == "..") continue;
        if (!pat.empty() && ::fnmatch(pat.c_str(), e->d_name, FNM_PERIOD) != 0) continue;
        names.push_back(fromUTF8(e->d_name, int(name.size())));
    }
    if (utf8) ::uselocale(previous);
    ::closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

int64_t PosixFileManager::freeSpace(const WString& path) {
    ExistingPart part;
    if (!nearestExisting(bytesOf(path), part)) return -1;
    struct statvfs vfs;
    if (::statvfs(part.existing.c_str(), &vfs) != 0) return -1;
    if (vfs.f_frsize && vfs.f_bavail > uint64_t(INT64_MAX) / vfs.f_frsize) return INT64_MAX;
    return int64_t(vfs.f_bavail * vfs.f_frsize);
}

WString PosixFileManager::volumeOf(const WString& path) {
    ExistingPart part;
    if (!nearestExisting(bytesOf(path), part)) return WString(L"/");
    std::string where = resolved(part.existing);
    std::string listed = MountWatch::shared().mountPointOf(where);
    if (!listed.empty()) return fromUTF8(listed.c_str(), int(listed.size()));
    if (where.empty() || where[0] != '/') return WString(L"/");
    std::string mountPoint = mountPointByDevice(where, part.st.st_dev);
    return fromUTF8(mountPoint.c_str(), int(mountPoint.size()));
}

uint32_t PosixFileManager::volumeStorageUnit(const WString& path) {
    ExistingPart part;
    if (!nearestExisting(bytesOf(path), part)) return 512;
    uint64_t unit = uint64_t(std::max<blksize_t>(part.st.st_blksize, 0));
    return uint32_t(std::clamp<uint64_t>(unit, 512, UINT32_MAX));
}

void PosixFileManager::setMountedName(const WString& name, const WString& root) {
    std::string key = bytesOf(name);
    PlainMutex::Lock lock(mutex_);
    std::erase_if(mountedNames_, [&](const auto& entry) { return entry.first == key; });
    if (!root.empty()) mountedNames_.emplace_back(key, bytesOf(root));
}

void PosixFileManager::addRemotePrefix(const WString& path) {
    std::string prefix = withoutTrailingSlashes(bytesOf(path));
    if (prefix.empty()) return;
    PlainMutex::Lock lock(mutex_);
    if (std::find(remotePrefixes_.begin(), remotePrefixes_.end(), prefix) == remotePrefixes_.end())
        remotePrefixes_.push_back(prefix);
}

WString PosixFileManager::mapMountedName(const WString& path) {
    std::wstring_view v = path.view();
    if (!v.starts_with(L"vol:")) return path;
    std::wstring_view rest = v.substr(4);
    size_t slash = rest.find(L'/');
    std::wstring_view name = rest.substr(0, slash);
    std::wstring_view tail =
        slash == std::wstring_view::npos ? std::wstring_view() : rest.substr(slash);
    if (name.empty()) return path;
    std::string key = bytesOf(WString(name));

    std::string root;
    bool found = false;
    {
        PlainMutex::Lock lock(mutex_);
        for (const auto& [n, r] : mountedNames_)
            if (n == key) {
                root = r;
                found = true;
            }
    }
    if (!found) {
        for (const std::string& item : splitList(std::getenv("PLAYFILE_VOLUMES"), ':')) {
            size_t eq = item.find('=');
            if (eq != std::string::npos && std::string_view(item).substr(0, eq) == key &&
                eq + 1 < item.size()) {
                root = item.substr(eq + 1);
                found = true;
                break;
            }
        }
    }
    if (!found) return path;
    root = withoutTrailingSlashes(root);
    if (root == "/" && !tail.empty()) root.clear(); // "/" + "/rest" would double the slash
    return fromUTF8(root.c_str(), int(root.size())) + tail;
}

bool PosixFileManager::isRemoteLocation(const WString& path) {
    if (path.empty()) return false;
    std::string p = bytesOf(path);

    // Without prefixes (the usual case) nothing is copied or allocated for them.
    std::vector<std::string> prefixes;
    remotePrefixes(prefixes);
    auto underPrefix = [&](const std::string& candidate) {
        return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
            return pathIsUnder(candidate, prefix);
        });
    };
    if (underPrefix(p)) return true;

    ExistingPart part;
    if (!nearestExisting(p, part)) return false;
    if (!prefixes.empty() && underPrefix(resolvedFull(part))) return true;
    return MountWatch::shared().isNetworkDevice(part.st.st_dev, part.existing);
}

void PosixFileManager::remotePrefixes(std::vector<std::string>& out) {
    const char* env = std::getenv("PLAYFILE_REMOTE_PREFIXES");
    if (!env) env = "";
    PlainMutex::Lock lock(mutex_);
    // The variable is parsed again only when its text changed.
    if (std::string_view(envPrefixesText_.data(), envPrefixesText_.size()) != env) {
        envPrefixesText_.assign(env, env + std::strlen(env));
        envPrefixes_.clear();
        for (std::string& prefix : splitList(env, ':')) envPrefixes_.push_back(withoutTrailingSlashes(std::move(prefix)));
    }
    if (remotePrefixes_.empty() && envPrefixes_.empty()) return;
    out = remotePrefixes_;
    out.insert(out.end(), envPrefixes_.begin(), envPrefixes_.end());
}
