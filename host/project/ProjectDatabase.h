// ProjectDatabase (the host's `projdb`): the one SQLite file of a project, which holds
// its edits, material directory, media drives and project-space description. It opens
// and checks the file (a damaged file, or one of another schema version, is refused and
// never written), and hands out transactions: any number of concurrent readers, each on
// a connection of its own (WAL mode: readers never wait for the writer and always see a
// committed state), and one writer at a time. Every write is one transaction.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/Sqlite.h"
#include "host/threads/PlainMutex.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class ProjectDatabase : public iObject {
public:
    // The schema this program writes and the only one it reads. Stored in the file's
    // user_version; the application id tells a project file from any other SQLite file.
    static constexpr int kSchemaVersion = 1;
    static constexpr int32_t kApplicationId = 0x706c6664; // "plfd"
    static constexpr const char* kFileName = "project.playfile";

    // Opens the project in folder; with create, makes a new empty one when the folder
    // holds none. Answers null with a one-line reason in error when the project is
    // missing, damaged, of an unknown schema version or cannot be opened; in those cases
    // the file is left exactly as it was.
    static Zn::Ptr<ProjectDatabase> open(const WString& folder, bool create, WString& error);

    ~ProjectDatabase() override;

    const WString& folder() const noexcept { return folder_; }
    WString path() const;

    // The project's edits whose field matches mask, in creation order: field 1 compares
    // the log type, field 2 the edit flags (Edit::eFlags); an edit matches when the
    // bitwise AND with mask is not zero. Empty when nothing matches.
    CookieVec search(int field, unsigned mask) const;

    // A read transaction on a connection of its own: everything read through it comes
    // from one committed state of the database.
    class Read {
    public:
        explicit Read(const ProjectDatabase& db);
        ~Read();
        Read(const Read&) = delete;
        Read& operator=(const Read&) = delete;
        sqlite::Connection& db() { return *conn_; }
        bool ok() const noexcept { return ok_; }

    private:
        const ProjectDatabase& owner_;
        std::unique_ptr<sqlite::Connection> conn_;
        bool ok_ = false;
    };

    // The write transaction: holds the project's write lock from construction to
    // destruction. Nothing is stored unless commit() succeeds; a Write destroyed
    // without commit rolls back.
    class SCOPED_CAPABILITY Write {
    public:
        explicit Write(ProjectDatabase& db) ACQUIRE(db.writeMutex_);
        ~Write() RELEASE();
        Write(const Write&) = delete;
        Write& operator=(const Write&) = delete;
        sqlite::Connection& db() { return writer(); }
        bool ok() const noexcept { return ok_; }
        // Marks the transaction failed (a step that went wrong); commit then rolls back.
        void fail() noexcept { ok_ = false; }
        // Commits when every step succeeded; false (and rolled back) otherwise.
        bool commit();
        // The reason of the last failure, for the caller's message.
        std::string error() const { return writer().lastError(); }

    private:
        // The write connection. A Write holds owner_.writeMutex_ for its whole life, which
        // the analysis cannot see inside its members, so this one access is not analysed.
        sqlite::Connection& writer() const NO_THREAD_SAFETY_ANALYSIS { return owner_.writer_; }

        ProjectDatabase& owner_;
        PlainMutex::Lock lock_;
        bool ok_ = false;
        bool done_ = false;
    };

    // New identifier words for an item of this project: the project's own first word and
    // the next number of its counter (never the filler's 647). Inside a write transaction.
    static Cookie newCookie(sqlite::Connection& db, CookieType type);

    // A number for the project's present state, for the row caches (RowCache.h): it
    // changes after every commit made through this object, and within a millisecond of a
    // commit made by another process (SQLite's data_version, asked at most once a
    // millisecond). Equal numbers mean no commit in between, as far as this process can
    // tell.
    uint64_t stateGeneration() const;
    // Unique among the ProjectDatabase objects of the process.
    uint64_t instanceId() const noexcept { return instanceId_; }

    // Small named values of the project (project-space type and the like).
    static int64_t setting(sqlite::Connection& db, const char* key, int64_t fallback);
    static bool setSetting(sqlite::Connection& db, const char* key, int64_t value);

private:
    explicit ProjectDatabase(const WString& folder);
    bool openWriter(WString& error) EXCLUDES(writeMutex_);
    std::unique_ptr<sqlite::Connection> takeReader() const;
    void giveBackReader(std::unique_ptr<sqlite::Connection> conn) const;

    WString folder_;
    std::string file_;
    const uint64_t instanceId_;

    // Commits made through writer_, and changes seen by watch_: the state generation.
    std::atomic<uint64_t> localCommits_{0};
    mutable std::atomic<uint64_t> outsideChanges_{0};
    mutable std::atomic<int64_t> lastWatch_{0}; // steady clock, nanoseconds
    // watchMutex_ guards watch_ and lastVersion_; held for one PRAGMA, no other lock
    // taken with it held.
    mutable PlainMutex watchMutex_;
    mutable sqlite::Connection watch_ GUARDED_BY(watchMutex_);
    mutable int64_t lastVersion_ GUARDED_BY(watchMutex_) = -1;

    // writeMutex_ guards writer_ and is held for the whole of a Write. It may be taken
    // with an Edit's or an FsysDirectoryEntry's own lock held (they write themselves
    // through it), so a thread holding it takes no such lock that another thread can
    // hold; nor does it start a second Write (the mutex is not re-entrant).
    PlainMutex writeMutex_ ACQUIRED_BEFORE(poolMutex_);
    sqlite::Connection writer_ GUARDED_BY(writeMutex_);

    // poolMutex_ guards idle_ only; it is held for a push or a pop and never while a
    // query runs, so it may be taken with writeMutex_ held.
    mutable PlainMutex poolMutex_;
    mutable std::vector<std::unique_ptr<sqlite::Connection>> idle_ GUARDED_BY(poolMutex_);
};

using projdb = ProjectDatabase;
