// Copying files through temporaries beside their destinations: the batch (data copied at
// once, made durable and renamed into place at the commit), the removal of the temporaries
// of killed copies, and the single copy as a batch of one.
#include "host/os/FileCopy.h"

#include "host/core/Strings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

using filecopy::Descriptor;
using filecopy::rcForErrno;

namespace {

using RC = iFileManager::eCopyRC;

// Longest file name most Linux file systems accept, in bytes.
constexpr size_t kNameMax = 255;
// ".XXXXXX" plus the leading dot of the temporary's name.
constexpr size_t kTempDecoration = 8;
// The random part mkostemp puts in place of "XXXXXX".
constexpr size_t kRandomChars = 6;
// An import's pending file (".NAME.import", see ImportRecovery.h) has a temporary's shape
// but is not one: the project's recovery decides its fate.
constexpr const char* kImportSuffix = "import";

// ".<name>." for a destination named name: the temporary's name without its random part,
// name shortened (on a UTF-8 character boundary) when the whole would be longer than a
// file name may be.
std::string temporaryPrefix(const std::string& name) {
    size_t keep = std::min(name.size(), kNameMax - kTempDecoration);
    while (keep > 0 && keep < name.size() && (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80) --keep;
    return "." + name.substr(0, keep) + ".";
}

// The prefix of a name shaped like a temporary (".<something>.XXXXXX"); empty otherwise.
std::string prefixOfTemporary(const char* name) {
    const size_t n = std::strlen(name);
    if (n < kTempDecoration + 1 || name[0] != '.' || name[n - kRandomChars - 1] != '.') return {};
    for (size_t i = n - kRandomChars; i < n; ++i)
        if (!std::isalnum(static_cast<unsigned char>(name[i]))) return {};
    if (std::strcmp(name + n - kRandomChars, kImportSuffix) == 0) return {};
    return std::string(name, n - kRandomChars);
}

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Creates the temporary for pattern (".<name>.XXXXXX" with its folder) and locks it, so
// that no other copy takes it for a killed one's. A sweep by another copy may remove the
// file in the moment between its creation and the lock; then a new one is made.
Descriptor createTemporary(const std::string& pattern, std::string& path) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        std::string name = pattern;
        Descriptor fd(::mkostemp(name.data(), O_CLOEXEC));
        if (fd.get() < 0) return fd;
        // File systems without locks (some FUSE drivers) leave the temporary unprotected:
        // only a copy to the same destination at the same time could remove it.
        if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
            ::unlink(name.c_str());
            continue;
        }
        struct stat byName, byFd;
        if (::stat(name.c_str(), &byName) == 0 && ::fstat(fd.get(), &byFd) == 0 && sameFile(byName, byFd)) {
            path = std::move(name);
            return fd;
        }
    }
    errno = EEXIST;
    return Descriptor();
}

// Removes a temporary that no live copy holds. A file system without locks cannot tell
// a live copy's from a killed one's, so nothing is removed there.
void removeIfUnheld(const std::string& path) {
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st;
    if (fd.get() < 0 || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return;
    ::unlink(path.c_str()); // while locked: a copy creating this very name sees it gone
}

// Puts the finished temporary under dst's name. Without overwrite the name must still be
// free at this moment, not only when the copy started.
bool putInPlace(const std::string& tmp, const std::string& dst, bool overwrite) {
    if (overwrite) return ::rename(tmp.c_str(), dst.c_str()) == 0;
    if (::renameat2(AT_FDCWD, tmp.c_str(), AT_FDCWD, dst.c_str(), RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != ENOTSUP) return false;
    // No RENAME_NOREPLACE here (NFS, some FUSE): a hard link also refuses an existing name.
    if (::link(tmp.c_str(), dst.c_str()) == 0) {
        ::unlink(tmp.c_str());
        return true;
    }
    if (errno == EEXIST) return false;
    // No hard links either (FAT, exFAT): check, then rename.
    struct stat st;
    if (::lstat(dst.c_str(), &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(tmp.c_str(), dst.c_str()) == 0;
}

// Makes the renames in a folder durable. A failure here does not undo copies already in
// place.
void syncFolder(const std::string& folder) {
    Descriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() >= 0) ::fsync(fd.get());
}

// Whether one syncfs() of the file system holding fd makes every file on it durable, data
// and metadata, and reports a failed write-back (Linux 5.8 on): true for the local
// journaling and copy-on-write file systems. FUSE and network file systems may not pass
// it on to where the data lives, so their files are synced one by one.
bool syncsWhole(int fd) {
    struct statfs fs;
    if (::fstatfs(fd, &fs) != 0) return false;
    switch (uint32_t(fs.f_type)) {
    case 0xEF53u:     // ext2, ext3, ext4
    case 0x58465342u: // XFS
    case 0x9123683Eu: // Btrfs
    case 0xF2F52010u: // F2FS
    case 0x01021994u: // tmpfs: memory only, nothing to wait for
        return true;
    default:
        return false;
    }
}

// The temporary being written by add(): removed on every way out that does not keep it.
struct TemporaryGuard {
    std::string path;
    bool kept = false;
    ~TemporaryGuard() {
        if (!kept && !path.empty()) ::unlink(path.c_str());
    }
};

} // namespace

FileCopyBatch::~FileCopyBatch() {
    for (Waiting& w : waiting_) drop(w);
}

void FileCopyBatch::drop(Waiting& w) noexcept {
    ::unlink(w.temporary.c_str());
    w.fd.reset();
}

bool FileCopyBatch::full() const {
    return waiting_.size() >= options_.batchFiles || waitingBytes_ >= options_.batchBytes;
}

void FileCopyBatch::removeLeftovers(const std::string& folderPrefix, const std::string& tempPrefix) {
    auto folder = leftovers_.find(folderPrefix);
    if (folder == leftovers_.end()) {
        folder = leftovers_.emplace(folderPrefix, std::multimap<std::string, std::string>()).first;
        if (DIR* d = ::opendir(folderPrefix.empty() ? "." : folderPrefix.c_str())) {
            while (const dirent* e = ::readdir(d)) {
                std::string prefix = prefixOfTemporary(e->d_name);
                if (!prefix.empty()) folder->second.emplace(std::move(prefix), e->d_name);
            }
            ::closedir(d);
        }
    }
    auto [from, to] = folder->second.equal_range(tempPrefix);
    for (auto it = from; it != to; ++it) removeIfUnheld(folderPrefix + it->second);
    folder->second.erase(from, to);
}

iFileManager::eCopyRC FileCopyBatch::add(const WString& src, const WString& dst,
                                         const iFileManager::ProgressFn& progress, bool overwrite) {
    return addUTF8(toUTF8(src), toUTF8(dst), progress, overwrite);
}

iFileManager::eCopyRC FileCopyBatch::addUTF8(const String& src, const String& dst,
                                             const iFileManager::ProgressFn& progress, bool overwrite) {
    std::string target(dst.view());
    size_t slash = target.rfind('/');
    std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    if (name.empty()) return iFileManager::eCopyNoDestination; // "" or a folder ("/a/b/")
    std::string folderPrefix = slash == std::string::npos ? std::string() : target.substr(0, slash + 1);

    if (src.empty()) return iFileManager::eCopyFailed;
    Descriptor in(filecopy::openForReading(src.c_str()));
    if (in.get() < 0) return iFileManager::eCopyFailed;
    struct stat srcSt;
    if (::fstat(in.get(), &srcSt) != 0 || !S_ISREG(srcSt.st_mode)) return iFileManager::eCopyFailed;

    // Refused before any work is done; the commit checks again in case dst appears
    // meanwhile. The name itself is what gets replaced, so a link there counts as taken,
    // and is replaced rather than written through.
    struct stat dstSt;
    if (::lstat(target.c_str(), &dstSt) == 0 && (!overwrite || S_ISDIR(dstSt.st_mode)))
        return iFileManager::eCopyFailed;

    const std::string tempPrefix = temporaryPrefix(name);
    removeLeftovers(folderPrefix, tempPrefix);
    filecopy::FileSizeSignalGuard signalGuard;
    TemporaryGuard guard;
    Descriptor out = createTemporary(folderPrefix + tempPrefix + "XXXXXX", guard.path);
    if (out.get() < 0) return rcForErrno(errno);

    const uint64_t total = uint64_t(srcSt.st_size);
    RC rc = filecopy::DataCopier(in.get(), out.get(), total, progress, options_).run();
    if (rc != iFileManager::eCopyOK) return rc;
    // Sets the length when the source ends in a hole, which nothing was written to.
    if (::ftruncate(out.get(), off_t(total)) != 0) return rcForErrno(errno);
    // Permissions and times are a courtesy: file systems without them (FAT, some network
    // shares) refuse, and the copy is still good.
    ::fchmod(out.get(), srcSt.st_mode & 0777);
    if (options_.keepTimes) {
        const std::array times{srcSt.st_atim, srcSt.st_mtim};
        ::futimens(out.get(), times.data());
    }
    if (progress && !progress(total, total)) return iFileManager::eCopyCancelled;

    Waiting w;
    w.src = fromUTF8(src);
    w.dst = fromUTF8(dst);
    w.target = std::move(target);
    w.folder = folderPrefix.empty() ? std::string(".") : folderPrefix;
    w.temporary = guard.path;
    w.fd = std::move(out);
    w.overwrite = overwrite;
    w.bytes = total;
    waiting_.push_back(std::move(w));
    waitingBytes_ += total;
    guard.kept = true;
    return iFileManager::eCopyOK;
}

std::vector<iCopyBatch::Outcome> FileCopyBatch::commit() {
    std::vector<Outcome> outcomes;
    outcomes.reserve(waiting_.size());
    for (Waiting& w : waiting_) outcomes.push_back(Outcome{w.src, w.dst, iFileManager::eCopyOK});
    // The data first, all of it: the disk has been writing it since each copy was added.
    syncData(outcomes);
    // Then the names, with each temporary still locked; then each folder once.
    std::vector<std::string> folders;
    for (size_t i = 0; i < waiting_.size(); ++i) {
        Waiting& w = waiting_[i];
        if (outcomes[i].rc == iFileManager::eCopyOK && !putInPlace(w.temporary, w.target, w.overwrite))
            outcomes[i].rc = rcForErrno(errno);
        if (outcomes[i].rc != iFileManager::eCopyOK) drop(w);
        else if (std::find(folders.begin(), folders.end(), w.folder) == folders.end()) folders.push_back(w.folder);
    }
    for (const std::string& folder : folders) syncFolder(folder);
    waiting_.clear(); // closes the descriptors, which releases the locks
    waitingBytes_ = 0;
    return outcomes;
}

void FileCopyBatch::syncData(std::vector<Outcome>& outcomes) {
    // Per device: whether one syncfs made everything on it durable (a syncfs that fails
    // names no file, so each file there is then synced on its own to know which failed).
    std::vector<std::pair<dev_t, bool>> devices;
    for (size_t i = 0; i < waiting_.size(); ++i) {
        const int fd = waiting_[i].fd.get();
        struct stat st;
        bool whole = false;
        if (::fstat(fd, &st) == 0) {
            auto known = std::find_if(devices.begin(), devices.end(), [&](const auto& d) { return d.first == st.st_dev; });
            if (known == devices.end())
                known = devices.insert(devices.end(), {st.st_dev, syncsWhole(fd) && ::syncfs(fd) == 0});
            whole = known->second;
        }
        if (!whole && ::fsync(fd) != 0) outcomes[i].rc = rcForErrno(errno);
    }
}

iFileManager::eCopyRC copyFileSafely(const String& src, const String& dst,
                                     const iFileManager::ProgressFn& progress, bool overwrite,
                                     const FileCopyOptions& options) {
    FileCopyBatch batch(options);
    RC rc = batch.addUTF8(src, dst, progress, overwrite);
    if (rc != iFileManager::eCopyOK) return rc;
    std::vector<iCopyBatch::Outcome> outcomes = batch.commit();
    return outcomes.empty() ? iFileManager::eCopyFailed : outcomes.front().rc;
}
