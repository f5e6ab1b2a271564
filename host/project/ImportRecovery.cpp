// The import lock, pending names, and the tidying up after a killed import.
#include "host/project/ImportRecovery.h"

#include "host/core/Cookie.h"
#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/project/ProjectDatabase.h"
#include "host/project/ProjectFiles.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::wstring kPendingSuffix = L".import";

// Length of a cookie's text form ("V0001e240_000003e8_00").
size_t cookieTextLength() {
    static const size_t n = Cookie('V', 0, 0, 0).asWString().size();
    return n;
}

// The cookie whose text starts name; invalid when none does.
Cookie cookieAtStart(const std::wstring& name) {
    const size_t n = cookieTextLength();
    if (name.size() < n || (name.size() > n && name[n] != L'.')) return Cookie();
    return Cookie(WString(name.substr(0, n)), false);
}

struct Drive {
    String id;
    WString root;
    std::vector<WString> folders;
};

std::vector<Drive> drivesOf(sql::Connection& db) {
    std::vector<Drive> out;
    sql::Query q(db, "SELECT id, root, video_folder, sound_folder FROM drives ORDER BY seq");
    while (q.next()) out.push_back({q.text(0), q.wtext(1), {q.wtext(2), q.wtext(3)}});
    return out;
}

bool namesFile(sql::Connection& db, const String& drive, const WString& path) {
    sql::Query q(db, "SELECT 1 FROM files WHERE drive = ?1 AND path = ?2 LIMIT 1");
    q.bind(1, drive).bind(2, path);
    return q.next();
}

// Whether the project knows the cookie's item at all: a clip, or material of it.
bool knows(sql::Connection& db, const Cookie& c) {
    sql::Query q(db, "SELECT 1 FROM edits WHERE id1 = ?1 AND id2 = ?2 "
                     "UNION ALL SELECT 1 FROM material WHERE id1 = ?1 AND id2 = ?2 LIMIT 1");
    q.bind(1, int64_t(c.id1())).bind(2, int64_t(c.id2()));
    return q.next();
}

class Tidier {
public:
    Tidier(sql::Connection& db, uint32_t word, uint32_t nextId) : db_(db), word_(word), nextId_(nextId) {}

    void folder(const Drive& d, const WString& folderName, ImportRecoveryReport& report) {
        const WString dir = joinPaths(d.root, folderName);
        std::error_code ec;
        for (fs::directory_iterator it(projectfs::toPath(dir), ec), end; !ec && it != end; it.increment(ec)) {
            const std::wstring name = projectfs::fromPath(it->path().filename()).str();
            if (name.empty()) continue;
            const WString path = joinPaths(dir, WString(name));
            if (name[0] == L'.') leftover(d, folderName, name, path, report);
            else unnamed(name, path, report);
        }
    }

private:
    bool ours(const Cookie& c) const { return c.valid() && c.id1() == word_ && c.id2() < nextId_; }

    // A name starting with '.': a pending file, or the temporary of a copy or a link.
    void leftover(const Drive& d, const WString& folderName, const std::wstring& name, const WString& path,
                  ImportRecoveryReport& report) {
        const size_t dots = name.find_first_not_of(L'.');
        const Cookie c = dots == std::wstring::npos ? Cookie() : cookieAtStart(name.substr(dots));
        if (!ours(c)) return;
        // Another writer's temporary (a copy by a background task) belongs to a clip the
        // project knows; an import's carry ".import", and an older build's belong to none.
        if (name.find(kPendingSuffix) == std::wstring::npos && knows(db_, c)) return;
        // "." + final name + ".import", the final name not itself starting with '.'.
        const bool pending = name.size() > kPendingSuffix.size() + 1 && name[1] != L'.' &&
                             name.compare(name.size() - kPendingSuffix.size(), kPendingSuffix.size(),
                                          kPendingSuffix) == 0;
        if (pending) {
            const std::wstring finalName = name.substr(1, name.size() - 1 - kPendingSuffix.size());
            const WString finalPath = joinPaths(getPath(path), WString(finalName));
            std::error_code ec;
            if (namesFile(db_, d.id, joinPaths(folderName, WString(finalName))) &&
                !fs::exists(fs::symlink_status(projectfs::toPath(finalPath), ec)) &&
                projectfs::rename(path, finalPath)) {
                Log("Put \"%s\" in place: its import was interrupted after the clip was stored\n",
                    toUTF8(finalPath).c_str());
                ++report.registered;
                return;
            }
        }
        remove(path, report);
    }

    // A name under which an import places its file: removed when the project knows
    // nothing of its cookie (a number handed out to an import that never stored its clip).
    void unnamed(const std::wstring& name, const WString& path, ImportRecoveryReport& report) {
        const Cookie c = cookieAtStart(name);
        if (ours(c) && !knows(db_, c)) remove(path, report);
    }

    void remove(const WString& path, ImportRecoveryReport& report) {
        std::error_code ec;
        if (!fs::remove(projectfs::toPath(path), ec)) return;
        Log("Removed \"%s\", left by an interrupted import\n", toUTF8(path).c_str());
        ++report.removed;
    }

    sql::Connection& db_;
    const uint32_t word_;
    const uint32_t nextId_;
};

} // namespace

namespace {

// The key of the server's advisory lock that stands for the import lock.
constexpr const char* kLockShared = "SELECT pg_advisory_lock_shared(1886152294)";
constexpr const char* kTryExclusive = "SELECT pg_try_advisory_lock(1886152294)::int";
constexpr const char* kUnlockShared = "SELECT pg_advisory_unlock_shared(1886152294)";
constexpr const char* kUnlockExclusive = "SELECT pg_advisory_unlock(1886152294)";

} // namespace

ImportLock::ImportLock(const ProjectDatabase& db, bool exclusive) : exclusive_(exclusive) {
    if (db.isShared()) {
        // The seats share the media drives, so the lock is the server's, held by a
        // session of this process for as long as this lives.
        session_ = db.takeReader();
        if (!session_) return;
        db_ = &db;
        held_ = exclusive ? session_->scalar(kTryExclusive, 0) == 1 : session_->exec(kLockShared);
        return;
    }
    const String path = toUTF8(db.path() + WString(L"-imports"));
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    int rc;
    do {
        rc = ::flock(fd_, exclusive ? LOCK_EX | LOCK_NB : LOCK_SH);
    } while (rc != 0 && errno == EINTR);
    held_ = rc == 0;
}

ImportLock::~ImportLock() {
    if (fd_ >= 0) ::close(fd_); // drops the lock
    if (session_) {
        if (held_) session_->exec(exclusive_ ? kUnlockExclusive : kUnlockShared);
        db_->giveBackReader(std::move(session_));
    }
}

WString pendingImportName(const WString& finalPath) {
    return getPath(finalPath) + WString(L".") + stripPath(finalPath) + WString(kPendingSuffix);
}

ImportRecoveryReport recoverInterruptedImports(ProjectDatabase& db) {
    ImportRecoveryReport report;
    ImportLock lock(db, true);
    if (!lock.held()) {
        report.skipped = true;
        return report;
    }
    ProjectDatabase::Read r(db);
    if (!r.ok()) return report;
    const int64_t word = ProjectDatabase::setting(r.db(), "project_word", 2);
    const int64_t next = ProjectDatabase::nextItemNumber(r.db());
    Tidier tidier(r.db(), uint32_t(word), uint32_t(std::min<int64_t>(next, UINT32_MAX)));
    for (const Drive& d : drivesOf(r.db()))
        for (const WString& folder : d.folders) tidier.folder(d, folder, report);
    return report;
}
