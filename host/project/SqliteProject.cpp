// The SQLite project: its schema, checking and creating its file, its connections and
// how it notices other processes' commits.
#include "host/project/SqliteProject.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/project/ProjectFiles.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <unistd.h>

namespace {

// Version 1 of the schema. Cookies are stored as their four parts (type letter as its
// character code, both identifier words, index) so that everything of one clip (same
// words) is one key range. Edits are keyed by their identifier words alone.
const char kSchema[] = R"sql(
CREATE TABLE settings(
    key   TEXT PRIMARY KEY,
    value ANY
) WITHOUT ROWID;

-- Clips, logs and sequences. flags: Edit::eFlags (imported, image, empty).
CREATE TABLE edits(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL,
    name TEXT NOT NULL DEFAULT '',
    log_type INTEGER NOT NULL,
    flags INTEGER NOT NULL DEFAULT 0,
    sample_rate INTEGER NOT NULL DEFAULT 48000,
    decode_options TEXT NOT NULL DEFAULT '',
    audio_metadata TEXT NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2)
) WITHOUT ROWID;

-- An edit's channels; chan is unique within the edit, kind 1 video, 2 audio.
CREATE TABLE channels(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL,
    chan INTEGER NOT NULL, kind INTEGER NOT NULL, flags INTEGER NOT NULL DEFAULT 1,
    PRIMARY KEY(id1, id2, chan),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE
) WITHOUT ROWID;

-- What an edit refers to, by selector: 2 material files, 3 clips, 4 the material
-- references of the availability test (filler included).
CREATE TABLE refs(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL,
    selector INTEGER NOT NULL, seq INTEGER NOT NULL,
    type INTEGER NOT NULL, rid1 INTEGER NOT NULL, rid2 INTEGER NOT NULL, ridx INTEGER NOT NULL,
    PRIMARY KEY(id1, id2, selector, seq),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE
) WITHOUT ROWID;

-- The timeline: what lies on a channel in [start, finish) seconds. kind 0 material
-- (the cookie), 1 filler (the filler cookie), 2 effect (its name in effect).
CREATE TABLE segments(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL,
    chan INTEGER NOT NULL, start REAL NOT NULL, finish REAL NOT NULL,
    kind INTEGER NOT NULL,
    type INTEGER NOT NULL DEFAULT 0, rid1 INTEGER NOT NULL DEFAULT 0, rid2 INTEGER NOT NULL DEFAULT 0,
    ridx INTEGER NOT NULL DEFAULT 255,
    effect TEXT NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, chan, start),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE
) WITHOUT ROWID;

-- Modifications announced to an edit (type 23: its media changed), in order.
CREATE TABLE modifications(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL, seq INTEGER NOT NULL,
    mod_type INTEGER NOT NULL, value INTEGER NOT NULL,
    PRIMARY KEY(id1, id2, seq),
    FOREIGN KEY(id1, id2) REFERENCES edits(id1, id2) ON DELETE CASCADE
) WITHOUT ROWID;

-- The material directory: one entry per material cookie. kind 1 complete, 2 still
-- being written; start_offset in fields (video) or samples (sound); header: the play
-- header text.
CREATE TABLE material(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL, type INTEGER NOT NULL, idx INTEGER NOT NULL,
    kind INTEGER NOT NULL DEFAULT 1,
    start_offset INTEGER NOT NULL DEFAULT 0,
    header TEXT NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, type, idx)
) WITHOUT ROWID;

-- The files of an entry: role 0 the high-resolution file, 1 its proxies (in seq
-- order). drive + path is the material file name; link_target is where a linked file
-- (storage 512) really is. status: 0 unknown, 1 offline, 2 available.
CREATE TABLE files(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL, type INTEGER NOT NULL, idx INTEGER NOT NULL,
    role INTEGER NOT NULL, seq INTEGER NOT NULL,
    drive TEXT NOT NULL, path TEXT NOT NULL,
    link_target TEXT NOT NULL DEFAULT '',
    storage INTEGER NOT NULL DEFAULT 0,
    status INTEGER NOT NULL DEFAULT 0,
    size INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY(id1, id2, type, idx, role, seq),
    FOREIGN KEY(id1, id2, type, idx) REFERENCES material(id1, id2, type, idx) ON DELETE CASCADE
) WITHOUT ROWID;
CREATE INDEX files_by_name ON files(drive, path);
CREATE INDEX files_by_target ON files(link_target) WHERE link_target <> '';

-- Media drives, in the host's order (seq). Folders are relative to the root; tasks is
-- a comma-separated list of the task kinds ("import", "render") the drive serves.
CREATE TABLE drives(
    id TEXT PRIMARY KEY,
    seq INTEGER NOT NULL UNIQUE,
    name TEXT NOT NULL DEFAULT '',
    root TEXT NOT NULL,
    video_folder TEXT NOT NULL DEFAULT 'video',
    sound_folder TEXT NOT NULL DEFAULT 'sound',
    tasks TEXT NOT NULL DEFAULT ''
) WITHOUT ROWID;

-- The remote project space: its mount points, and per log what the server holds.
CREATE TABLE mount_points(
    seq INTEGER PRIMARY KEY,
    path TEXT NOT NULL DEFAULT '',
    alt_path TEXT NOT NULL DEFAULT ''
);
CREATE TABLE server_logs(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL,
    has_proxies INTEGER NOT NULL DEFAULT 0,
    PRIMARY KEY(id1, id2)
) WITHOUT ROWID;
CREATE TABLE server_media(
    id1 INTEGER NOT NULL, id2 INTEGER NOT NULL, seq INTEGER NOT NULL,
    type INTEGER NOT NULL, mid1 INTEGER NOT NULL, mid2 INTEGER NOT NULL, midx INTEGER NOT NULL,
    path TEXT NOT NULL DEFAULT '',
    PRIMARY KEY(id1, id2, seq)
) WITHOUT ROWID;
)sql";

std::string pathOf(const WString& folder) { return toUTF8(joinPaths(folder, WString(L"project.playfile"))).str(); }

WString quoted(const std::string& file) { return fromUTF8(("\"" + file + "\"").c_str()); }

// Refuses anything that is not a project database of this schema, without writing to it.
bool checkExisting(const std::string& file, WString& error) {
    auto refuse = [&](const std::string& why) {
        error = fromUTF8(("project database \"" + file + "\" " + why).c_str());
        return false;
    };
    char header[100] = {};
    {
        std::ifstream in(file, std::ios::binary);
        if (!in) return refuse("cannot be read");
        in.read(header, sizeof header);
        if (in.gcount() == 0) return refuse("is empty");
        if (in.gcount() < std::streamsize(sizeof header) || std::memcmp(header, "SQLite format 3", 16) != 0)
            return refuse("is not a database file (damaged or of another kind)");
    }
    sqlite::Connection db;
    if (!db.open(file, sqlite::Connection::eReadOnly)) return refuse("cannot be opened: " + db.lastError());
    int64_t app = db.scalar("PRAGMA application_id", INT64_MIN);
    if (app == INT64_MIN) return refuse("is damaged: " + db.lastError());
    if (app != ProjectDatabase::kApplicationId) return refuse("is not a playfile project");
    int64_t version = db.scalar("PRAGMA user_version", -1);
    if (version > ProjectDatabase::kSchemaVersion)
        return refuse("has schema version " + std::to_string(version) + ", newer than this program reads (" +
                      std::to_string(ProjectDatabase::kSchemaVersion) + ")");
    if (version != ProjectDatabase::kSchemaVersion)
        return refuse("has an unknown schema version " + std::to_string(version));
    sql::Query check(db, "PRAGMA quick_check");
    if (!check.next()) return refuse("is damaged: " + db.lastError());
    std::string verdict = check.text(0).str();
    if (verdict != "ok") {
        // The check's report is several lines under a heading; the first finding says enough.
        if (verdict.rfind("***", 0) == 0 && verdict.find('\n') != std::string::npos)
            verdict = verdict.substr(verdict.find('\n') + 1);
        return refuse("is damaged: " + verdict.substr(0, verdict.find('\n')));
    }
    return true;
}

// A word that identifies this project's items: never 0, never the filler's first word.
int64_t makeProjectWord() {
    std::random_device rd;
    uint64_t seed = (uint64_t(rd()) << 32) ^ uint64_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                    uint64_t(getpid());
    std::mt19937_64 rng(seed);
    uint32_t w = 0;
    while (w < 2) w = uint32_t(rng());
    return w;
}

// Makes a new project file under a temporary name and links it into place only when it
// is complete, so that a crash while creating never leaves a half-made project behind.
bool createNew(const std::string& file, WString& error) {
    std::string tmp = file + ".new" + std::to_string(getpid());
    ::unlink(tmp.c_str());
    ::unlink((tmp + "-wal").c_str());
    ::unlink((tmp + "-shm").c_str());
    bool ok;
    {
        sqlite::Connection db;
        ok = db.open(tmp, sqlite::Connection::eCreate) && db.exec("PRAGMA journal_mode=WAL") &&
             db.exec("PRAGMA synchronous=FULL") && db.begin(true) && db.exec(kSchema);
        if (ok) {
            char pragmas[160];
            std::snprintf(pragmas, sizeof pragmas, "PRAGMA application_id=%d; PRAGMA user_version=%d;",
                          ProjectDatabase::kApplicationId, ProjectDatabase::kSchemaVersion);
            ok = db.exec(pragmas) && ProjectDatabase::setSetting(db, "project_word", makeProjectWord()) &&
                 ProjectDatabase::setSetting(db, "next_id", 1000) && db.commit();
        }
        if (!ok) error = fromUTF8(("cannot create project database \"" + file + "\": " + db.lastError()).c_str());
        // Closing the last connection folds the write-ahead log into the file.
    }
    if (ok) {
        int fd = ::open(tmp.c_str(), O_RDONLY);
        if (fd >= 0) {
            ::fsync(fd);
            ::close(fd);
        }
        // link() rather than rename(): a project that another process created meanwhile
        // is kept, and this one is dropped.
        if (::link(tmp.c_str(), file.c_str()) != 0 && errno != EEXIST) {
            ok = false;
            error = fromUTF8(("cannot create project database \"" + file + "\": " + std::strerror(errno)).c_str());
        }
    }
    ::unlink(tmp.c_str());
    ::unlink((tmp + "-wal").c_str());
    ::unlink((tmp + "-shm").c_str());
    return ok;
}

} // namespace

SqliteProject::SqliteProject(const WString& folder) : ProjectDatabase(folder), file_(pathOf(folder)) {}

SqliteProject::~SqliteProject() {
    closeConnections();
    watch_.close();
}

WString SqliteProject::path() const { return fromUTF8(file_.c_str()); }

uint64_t SqliteProject::outsideChanges() const {
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
    if (now - lastWatch_.load(std::memory_order_relaxed) >= 1000000) {
        PlainMutex::Lock lock(watchMutex_);
        if (!watch_.isOpen() && !watch_.open(file_, sqlite::Connection::eReadOnly)) {
            outsideChanges_.fetch_add(1); // cannot tell: count it as changed
        } else {
            int64_t version = watch_.scalar("PRAGMA data_version", -1);
            if (version != lastVersion_ || version < 0) outsideChanges_.fetch_add(1);
            lastVersion_ = version;
        }
        lastWatch_.store(now, std::memory_order_relaxed);
    }
    return outsideChanges_.load();
}

Zn::Ptr<ProjectDatabase> SqliteProject::open(const WString& folder, bool create, WString& error) {
    Zn::Ptr<SqliteProject> db(new SqliteProject(folder));
    if (!projectfs::exists(fromUTF8(db->file_.c_str()))) {
        if (!create) {
            error = WString(L"no project in ") + quoted(toUTF8(folder).str()) + L" (project.playfile is missing)";
            return nullptr;
        }
        if (!projectfs::createDirectory(folder)) {
            error = WString(L"cannot create project folder ") + quoted(toUTF8(folder).str());
            return nullptr;
        }
        if (!createNew(db->file_, error)) return nullptr;
    }
    if (!checkExisting(db->file_, error)) return nullptr;
    if (!db->openWriter(error)) return nullptr;
    return db;
}

bool SqliteProject::openWriter(WString& error) {
    auto writer = std::make_unique<sqlite::Connection>();
    if (!writer->open(file_, sqlite::Connection::eReadWrite) || !writer->exec("PRAGMA journal_mode=WAL") ||
        !writer->exec("PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON")) {
        error = fromUTF8(("cannot open project database \"" + file_ + "\": " + writer->lastError()).c_str());
        return false;
    }
    PlainMutex::Lock lock(writeMutex_);
    writer_ = std::move(writer);
    return true;
}

std::unique_ptr<sql::Connection> SqliteProject::connect() const {
    auto conn = std::make_unique<sqlite::Connection>();
    // Readers map the file and keep a large page cache: status queries of a big project
    // visit rows all over it, and a page read through a copy costs more than the query.
    if (!conn->open(file_, sqlite::Connection::eReadWrite) ||
        !conn->exec("PRAGMA query_only=ON; PRAGMA mmap_size=1073741824; PRAGMA cache_size=-32768")) {
        LogBoth("ProjectDatabase: cannot open a reader on %s: %s\n", file_.c_str(), conn->lastError().c_str());
        return nullptr;
    }
    return conn;
}
